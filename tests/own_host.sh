#!/usr/bin/env bash
# Builds examples/own-host against an installed plug-in in each way that its README.md tells, and
# looks at what the two hosts print.
#   tests/own_host.sh PREFIX [TOOLCHAIN- EMULATOR]
# as in: tests/own_host.sh /opt/corvane aarch64-linux-gnu- qemu-aarch64
set -euo pipefail
PREFIX=$(cd "$1" && pwd)
toolchain=${2-}
export EMULATOR=${3-}
example=$(cd "$(dirname "${BASH_SOURCE[0]}")/../examples/own-host" && pwd)

for folder in "$PREFIX/lib" "$PREFIX/lib64" "$PREFIX/lib/$("${toolchain}gcc" -print-multiarch)"; do
    [ ! -e "$folder/corvane/libCorvane_plugin.so" ] || LIBDIR=$folder
done
echo "the plug-in in ${LIBDIR:?there is no lib/corvane/libCorvane_plugin.so below "$PREFIX"}"

scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
cp -R "$example" "$scratch/own host"
cd "$scratch/own host"
failed=0

# Every compiler here finds warnings to be errors.
export CC="${toolchain}gcc -Werror" CXX="${toolchain}g++ -Werror"
gcc() { command $CC -Wall -Wextra -Wpedantic "$@"; }
g++() { command $CXX -Wall -Wextra -Wpedantic "$@"; }
if [ -n "$toolchain" ]; then
    export CMAKE_TOOLCHAIN_FILE=$scratch/toolchain.cmake
    cat >"$CMAKE_TOOLCHAIN_FILE" <<END
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR ${toolchain%%-*})
set(CMAKE_CROSSCOMPILING_EMULATOR $EMULATOR)
END
fi

# The code below a heading of README.md.
block() {
    awk -v heading="$1" '
        /^#+ / { here = ($0 ~ "^#+ " heading "$") }
        /^```$/ { inside = !inside; next }
        inside && here' README.md
}

# What the hosts print, without what differs between engines, sessions and the two hosts.
plain() {
    sed -e 's/(OpenSSL.*/(OpenSSL)/' -e '/QZaven_ke_new/{n;s/Data: [0-9]\{1,\}$/Data: handle/}' \
        -e '/^  gcmOutTag: $/d' -e '/^  Data: -$/d'
}

# expect WHAT COMMAND...
expect() {
    if "${@:2}" >"$scratch/log" 2>&1; then
        echo "ok      $1"
    else
        echo "FAILED  $1"
        tail -n 20 "$scratch/log"
        failed=$((failed + 1))
    fi
}

# Whether a way prints what README.md shows, once for each host.
prints_it_twice() {
    grep -E '^(QZa|  (Data|errorCode|gcmOutTag): )' "$scratch/out" | plain >"$scratch/printed"
    block "What they print" | plain >"$scratch/once"
    cat "$scratch/once" "$scratch/once" | diff - "$scratch/printed"
}

# way HEADING: follows README.md.
way() {
    block "$1" | sed 's|^\./|$EMULATOR ./|' >"$scratch/commands"
    expect "$1: builds and runs" follow
    expect "$1: both hosts print what is shown" prints_it_twice
}

follow() {
    test -s "$scratch/commands"
    # shellcheck disable=SC1091  # README.md's lines
    (set -e && . "$scratch/commands") >"$scratch/out" 2>"$scratch/err" ||
        { cat "$scratch/out" "$scratch/err" && false; }
}

way "CMake"
way "make and pkg-config"
way "By hand"

# What is shown is right by the standards.
data_of() {
    block "What they print" | sed -n "/^$1\$/{n;s/^  Data: //p}" | tr -- -_ +/ | base64 -d
}
hex() { od -An -v -tx1 | tr -d ' \n'; }
rfc4231=5bdcc146bf60754e6a042426089575c75a003f089d2739839dec58b964ec3843
rfc3602=e353779c1079aeb82708942dbe77181a
expect "RFC 4231's HMAC" [ "$(data_of QZaven_crypto_hmac | hex)" = $rfc4231 ]
ciphertext=$(data_of QZaven_crypto_encrypt | hex)
expect "RFC 3602's first block" [ "${ciphertext:0:32}" = $rfc3602 ]
expect "and openssl's padding" [ "$ciphertext" = "$(printf 'Single block msg' |
    openssl enc -aes-128-cbc -K 06a9214036b8a15b512e03d534120006 \
        -iv 3dafba429d9eb430b422da802c9fac41 | hex)" ]
expect "the text in Base64" [ "$(data_of QZaven_crypto_base64_encode)" = "any text" ]

# refuses TEXT MODULE ENGINE: both hosts end with 1 and a line that has the text.
refuses() {
    local host status
    for host in ./own-host-c ./own-host-cpp; do
        status=0
        # shellcheck disable=SC2086  # nothing, if there is no emulator
        $EMULATOR $host "$2" "$3" "$LIBDIR/corvane/libCorvane_plugin.so" >"$scratch/out" 2>&1 ||
            status=$?
        cat "$scratch/out"
        [ $status -eq 1 ] && grep -qF -- "$1" "$scratch/out" || return 1
    done
}

module=./libCorvaneParamsModule.so engine=$LIBDIR/corvane/devkit/libSoftModuleaven.so
echo "int nothing;" >lacking.c
gcc -fPIC -shared -w lacking.c -Wl,-soname,libCorvaneParamsModule.so -o lacking.so
g++ -std=c++17 -fPIC -shared -I"$PREFIX/include/corvane" own_params.cpp -o nameless.so
expect "a module that is not there" refuses "cannot open shared object" ./none.so "$engine"
expect "a module that lacks a function" refuses "AddHttpParams" ./lacking.so "$engine"
expect "a module without SONAME" refuses "has not the SONAME" ./nameless.so "$engine"
expect "an engine that is none" refuses "has not the SONAME" "$module" "$module"

echo "$failed facts do not hold"
[ "$failed" -eq 0 ]
