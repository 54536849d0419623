# shellcheck shell=bash disable=SC2034  # used where it is sourced
# The Debian 12 packages behind each task; sourced by run.sh and test.sh.

build_packages=(g++ cmake ninja-build libssl-dev libcli11-dev nlohmann-json3-dev
    libmicrohttpd-dev libsystemd-dev openssl)

# The reference of headers and of HTTP as pages.
reference_packages=(doxygen python3)

test_packages=("${reference_packages[@]}" libgtest-dev googletest binutils clang curl fish
    libbotan-2-dev locales make man-db mandoc pkgconf python3-cryptography-vectors zsh)

# Packages and images.
image_packages=(binutils buildah)

# Debian packages, built and checked. For another architecture each of package_libraries is needed
# of that architecture too.
package_packages=("${reference_packages[@]}" build-essential debhelper git lintian)
package_libraries=(libssl-dev libmicrohttpd-dev libsystemd-dev)
package_check_packages=(mmdebstrap arch-test qemu-user-static)

# The stages of `./test.sh all`.
all_packages=(clang-format clang-tidy cppcheck libclang-rt-14-dev llvm-14
    shellcheck valgrind)

# The balancers in front of several hosts.
balancer_packages=(curl haproxy nginx-light openssl python3)

# The console's tests in a browser; the fonts are for Chinese on the pictures.
browser_packages=(chromium curl firefox-esr fonts-wqy-microhei nodejs)

# What hosts tell to Prometheus, and the rules for it. Of the package, promtool is used.
prometheus_packages=(curl openssl prometheus)

# The clients in six languages, as their README.md has them.
client_packages=(curl g++ gcc jq libcurl4-openssl-dev libgoogle-gson-java libjansson-dev
    nlohmann-json3-dev nodejs openjdk-17-jdk-headless openssl python3)

# Building for 64-bit ARM and running it in emulation. The last are of that architecture.
aarch64_packages=(g++-aarch64-linux-gnu qemu-user libssl-dev:arm64 libstdc++6:arm64
    libmicrohttpd-dev:arm64 libsystemd-dev:arm64)
