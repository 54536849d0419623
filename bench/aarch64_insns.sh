#!/usr/bin/env bash
# Counts the AArch64 instructions that the codec executes for each byte of input, at 64 KiB:
# (count at 2N - count at N) / N, less what the program spends on making the input. Needs no
# AArch64 machine; the counts repeat exactly.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."
. packaging/packages.sh
packaging/install-packages.sh g++ "${aarch64_packages[@]}"

made=$(mktemp -d)
trap 'rm -rf "$made"' EXIT
aarch64-linux-gnu-g++ -std=c++17 -O2 -static -I src bench/codec_once.cpp \
    src/base64.cpp src/base64_kernel*.cpp -o "$made/codec_once"
gcc -O2 -shared -fPIC bench/insn_count.c -o "$made/insn_count.so"

size=65536

count() {
    qemu-aarch64 -plugin "$made/insn_count.so" "$made/codec_once" "$1" "$2" 2>&1
}

growth() {
    echo $(($(count "$1" $((2 * size))) - $(count "$1" $size)))
}

input=$(growth none)
per_byte() {
    awk -v grown="$(growth "$1")" -v input="$input" -v size=$size \
        'BEGIN { printf "%.3f", (grown - input) / size }'
}

encode=$(per_byte encode)
decode=$(per_byte decode)
awk -v e="$encode" -v d="$decode" 'BEGIN {
    met = e <= 0.35 && d <= 0.66 ? "goal" : e <= 0.7 && d <= 0.8 ? "must" : "no"
    printf "AArch64 instructions per input byte at 64 KiB, encode / decode"
    printf "|0.7 / 0.8|0.35 / 0.66|%s / %s|%s\n", e, d, met
}'
echo "URL-safe: encode $(per_byte encode_url), decode $(per_byte decode_url) (a copy of the input is in it)" >&2
