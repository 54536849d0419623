# The Debian 12 packages behind each task; sourced by run.sh and test.sh.

build_packages=(g++ cmake ninja-build libssl-dev libcli11-dev nlohmann-json3-dev openssl)

test_packages=(libgtest-dev googletest binutils clang locales python3-cryptography-vectors)

# The stages of `./test.sh all`.
all_packages=(clang-format libclang-rt-14-dev valgrind)
