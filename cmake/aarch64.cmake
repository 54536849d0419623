# Debian's cross compiler for 64-bit ARM, with arm64 packages beside those of the build
# machine. Programs run in user-mode emulation.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR aarch64)
set(CMAKE_C_COMPILER aarch64-linux-gnu-gcc)
set(CMAKE_CXX_COMPILER aarch64-linux-gnu-g++)
set(CMAKE_CROSSCOMPILING_EMULATOR qemu-aarch64)

# The cross compiler knows its own C library alone. The packages' headers come after it, so
# that the build machine's C library, which lies among them, is not taken.
set(packages "-idirafter /usr/include -idirafter /usr/include/aarch64-linux-gnu")
set(CMAKE_C_FLAGS_INIT ${packages})
set(CMAKE_CXX_FLAGS_INIT ${packages})
set(OPENSSL_INCLUDE_DIR /usr/include)
set(OPENSSL_CRYPTO_LIBRARY /usr/lib/aarch64-linux-gnu/libcrypto.so)
set(OPENSSL_SSL_LIBRARY /usr/lib/aarch64-linux-gnu/libssl.so)
