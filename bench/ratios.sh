#!/usr/bin/env bash
# Builds and prints the table of ratios that the plug-in is held to, then the times of real
# cryptography. Takes about two minutes and 4 GiB of memory; wants a machine that is
# otherwise idle.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."
. bench/build.sh
build_programs ratios heap_peak crypto_ratios

scratch=$(mktemp -d)

mkdir "$scratch/tokens"
export SOFTHSM2_CONF=$scratch/softhsm2.conf
printf 'directories.tokendir = %s\nlog.level = ERROR\n' "$scratch/tokens" >"$SOFTHSM2_CONF"

# Programs print rows to standard output and what explains them to standard error.
measure() {
    "$@" 2>>"$scratch/notes"
}

rows() {
    echo "what|must|goal|measured|met"
    GLIBC_TUNABLES=$warm_heap "$build/bench/ratios" warm
    "$build/bench/ratios" default
    "$build/bench/heap_peak"
    bench/aarch64_insns.sh
    GLIBC_TUNABLES=$warm_heap "$build/bench/crypto_ratios" \
        /usr/lib/softhsm/libsofthsm2.so 2>"$scratch/crypto"
    GLIBC_TUNABLES=$fresh_memory "$build/bench/ratios" growth
}

# Programs print rows to standard output and what explains them to standard error. (Not
# "rows || ...": that would run on after a failure.)
status=0
trap 'status=$?; [ $status = 0 ] || cat "$scratch/notes" "$scratch/crypto" >&2; rm -rf "$scratch"' EXIT
: >"$scratch/crypto"
rows >"$scratch/rows" 2>"$scratch/notes"

column -t -s '|' -o ' | ' "$scratch/rows"
printf '\n'
cat "$scratch/notes"
printf '\nMicroseconds for one operation, logging off:\n'
grep '|' "$scratch/crypto" | column -t -s '|' -o ' | '
printf '\n%s, load %s\n' "$(sed -n 's/^model name\t*: //p' /proc/cpuinfo | head -n 1)" \
    "$(cut -d ' ' -f 1-3 /proc/loadavg)"
