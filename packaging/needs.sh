# shellcheck shell=bash
# What the Debian packages of packages.sh are on other systems; sourced by install-packages.sh.

# Package | how it is looked for | what it is. A program is looked for in PATH, a header by the C++
# compiler. A package that is not here is a program of its name.
needs='
g++ | program c++ | C++17 compiler, GCC 12 or Clang 14 (another one: CC and CXX)
cmake | program cmake | cmake 3.25
ninja-build | program ninja | ninja
libssl-dev | header openssl/evp.h | OpenSSL 3 (pkg-config openssl, CMake OpenSSL)
libcli11-dev | header CLI/CLI.hpp | CLI11 (pkg-config CLI11, CMake CLI11)
nlohmann-json3-dev | header nlohmann/json.hpp | JSON for Modern C++ (pkg-config and CMake nlohmann_json)
libmicrohttpd-dev | header microhttpd.h | GNU libmicrohttpd (pkg-config libmicrohttpd)
libsystemd-dev | header systemd/sd-daemon.h | libsystemd (pkg-config libsystemd)
libgtest-dev | header gtest/gtest.h | GoogleTest (pkg-config gtest, CMake GTest)
googletest | file /usr/src/googletest/CMakeLists.txt | GoogleTest, its sources in /usr/src/googletest
binutils | program readelf | GNU binutils
clang | program clang++ | Clang 14
libbotan-2-dev | file /usr/include/botan-2 | Botan 2.19 (pkg-config botan-2)
locales | file /usr/share/i18n/locales/de_DE | glibc, the sources of its locales
man-db | program man | man
pkgconf | program pkg-config | pkg-config
python3-cryptography-vectors | file /usr/lib/python3/dist-packages/cryptography_vectors | cryptography_vectors of Python (CORVANE_VECTORS names its folder)
libclang-rt-14-dev | file /usr/lib/llvm-14/lib/clang | runtimes of the sanitizers of Clang 14
llvm-14 | program llvm-cov-14 | LLVM 14
libbenchmark-dev | header benchmark/benchmark.h | Google Benchmark (pkg-config benchmark, CMake benchmark)
softhsm2 | program softhsm2-util | SoftHSM 2
libp11-kit-dev | file /usr/include/p11-kit-1 | headers of p11-kit (pkg-config p11-kit-1)
nginx-light | program nginx | nginx
procps | program ps | procps
haproxy | program haproxy | HAProxy 2.6
nodejs | program node | Node.js
fonts-wqy-microhei | file /usr/share/fonts/truetype/wqy | a Chinese font
prometheus | program promtool | promtool of Prometheus
libcurl4-openssl-dev | header curl/curl.h | libcurl (pkg-config libcurl)
libjansson-dev | header jansson.h | Jansson (pkg-config jansson)
openjdk-17-jdk-headless | program javac | a Java development kit, 11 or later
libgoogle-gson-java | file /usr/share/java/gson.jar | Gson
g++-aarch64-linux-gnu | program aarch64-linux-gnu-g++ | GCC 12 for 64-bit ARM
qemu-user | program qemu-aarch64 | QEMU in user mode
libssl-dev:arm64 | file /usr/lib/aarch64-linux-gnu/libcrypto.so | OpenSSL 3 for 64-bit ARM
libstdc++6:arm64 | file /usr/lib/aarch64-linux-gnu/libstdc++.so.6 | libstdc++ for 64-bit ARM
libmicrohttpd-dev:arm64 | file /usr/lib/aarch64-linux-gnu/libmicrohttpd.so | GNU libmicrohttpd for 64-bit ARM
libsystemd-dev:arm64 | file /usr/lib/aarch64-linux-gnu/libsystemd.so | libsystemd for 64-bit ARM
'

# is_there HOW WHAT
is_there() {
    local compiler
    read -ra compiler <<<"${CXX:-c++}"  # may have options
    case $1 in
    program) command -v "$2" ;;
    file) [ -e "$2" ] ;;
    header) "${compiler[@]}" -E -x c++ - <<<"#include <$2>" ;;
    esac >/dev/null 2>&1
}

# show_needs all|missing PACKAGE...: a line for each; with `missing`, for those alone that are.
show_needs() {
    local which=$1 package row how where what state
    local -A kind=([program]=program [header]=library [file]=files)
    for package in "${@:2}"; do
        row=$(awk -F ' *[|] *' -v name="$package" '$1 == name { print $2, $3 }' <<<"$needs")
        read -r how where what <<<"${row:-program $package $package}"
        [ "$package" != g++ ] || where=${CXX:-$where}
        state=there
        is_there "$how" "${where%% *}" || state=missing
        [ "$which/$state" = missing/there ] ||
            printf '  %-8s %-8s %s\n' "$state" "${kind[$how]}" "$what"
    done
}
