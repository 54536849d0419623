#!/usr/bin/env bash
# Builds the fuzzers and runs them, three for each processor at a time, each in a corpus of its
# own that starts with its seeds.
#   fuzz/run.sh SECONDS           each for so many seconds
#   fuzz/run.sh SECONDS NAME...   only these, e.g. base64 engine_keys
# One row for each: executions, edges covered, corpus size, findings. Fails if there is a
# finding, and says how to see it again.
# With CORVANE_FUZZ_BUILD in the environment, a build directory that is configured already
# is used in place of build/fuzz.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."
. cmake/build.sh

seconds=${1-}
if ! [[ $seconds =~ ^[1-9][0-9]*$ ]]; then
    sed -n '2,/^set /s/^# \{0,1\}//p' "${BASH_SOURCE[0]}" >&2
    exit 2
fi
shift

build=${CORVANE_FUZZ_BUILD-}
if [ -z "$build" ]; then
    build=build/fuzz
    configure $build --preset fuzz
fi

names=("$@")
if [ ${#names[@]} -eq 0 ]; then
    for source in fuzz/*_fuzzer.cpp; do
        name=${source#fuzz/}
        names+=("${name%_fuzzer.cpp}")
    done
fi
for name in "${names[@]}"; do
    [ -e "fuzz/${name}_fuzzer.cpp" ] || {
        echo "there is no fuzzer $name" >&2
        exit 2
    }
done
build_targets "$build" "${names[@]/%/_fuzzer}"

results=$build/results
findings=$build/findings
mkdir -p "$results" "$findings"

# Runs one fuzzer; its row goes to a file. Fails if the fuzzer does.
fuzz_one() {
    local name=$1 corpus=$build/corpus/$1 log=$results/$1.log status=0 options=()
    rm -rf "$corpus"
    mkdir -p "$corpus"
    rm -f "$findings/$name"-*
    [ ! -e "$build/fuzz/$name.dict" ] || options+=("-dict=$build/fuzz/$name.dict")
    "$build/fuzz/${name}_fuzzer" "-max_total_time=$seconds" -timeout=20 -rss_limit_mb=3072 \
        -print_final_stats=1 "-artifact_prefix=$findings/$name-" "${options[@]}" \
        "$corpus" "fuzz/$name.in" >"$log" 2>&1 || status=$?

    local executions edges found
    executions=$(sed -n 's/^stat::number_of_executed_units: *//p' "$log")
    edges=$(sed -n 's/^#.* cov: \([0-9]*\) .*/\1/p' "$log" | tail -n 1)
    found=$(find "$findings" -name "$name-*" | wc -l)
    [ "$status" -eq 0 ] || [ "$found" -gt 0 ] || found=1  # it did not even start
    printf '%-22s %12s %8s %8s %9s\n' "$name" "${executions:-?}" "${edges:-?}" \
        "$(find "$corpus" -type f | wc -l)" "$found" | tee "$results/$name.row"
    [ "$status" -eq 0 ]
}
export -f fuzz_one
export seconds build results findings

printf '%-22s %12s %8s %8s %9s\n' fuzzer executions edges corpus findings
status=0
printf '%s\0' "${names[@]}" | xargs -0 -P $((3 * $(nproc))) -I '{}' bash -c 'fuzz_one "$1"' fuzz_one '{}' || status=1
[ "$status" -ne 0 ] || exit 0

echo
for name in "${names[@]}"; do
    found=$(find "$findings" -name "$name-*")
    for finding in $found; do
        grep -m 1 -E 'does not hold|ERROR: |runtime error' "$results/$name.log" || true
        echo "FOUND: to see it again: $build/fuzz/${name}_fuzzer $finding"
    done
    [ -n "$found" ] || ! grep -q . "$results/$name.row" || continue
done
echo "logs: $results"
exit 1
