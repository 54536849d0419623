#!/usr/bin/env bash
# Builds the fuzzers and runs them, three for each processor at a time. Each starts with its seeds
# and the inputs that are kept from earlier runs.
#   fuzz/run.sh [--keep] SECONDS           each for so many seconds
#   fuzz/run.sh [--keep] SECONDS NAME...   only these, e.g. base64 engine_keys
# One row for each: executions; edges and features, each by the seeds alone, with what is kept, and
# at the end of the run; inputs that the run has found; findings. Fails if there is a finding, and
# says how to see it again.
# With --keep, what reaches more than is kept is kept from now on, in fuzz/corpus/NAME.tar.gz: as
# few inputs as reach all of it. An archive stays as it is unless there is more to reach.
# With CORVANE_FUZZ_BUILD in the environment, a build directory that is configured already
# is used in place of build/fuzz.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."
. cmake/build.sh

keep=false
if [ "${1-}" = --keep ]; then
    keep=true
    shift
fi
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

# run_fuzzer NAME LOG ARGUMENT...
run_fuzzer() {
    "$build/fuzz/${1}_fuzzer" -timeout=20 -rss_limit_mb=3072 "-artifact_prefix=$findings/$1-" \
        "${@:3}" >"$2" 2>&1
}

# count_of LOG cov|ft [EVENT]: the last one that a fuzzer told, or told with such an event.
count_of() {
    sed -n "s/^#.*${3-}.* $2: \([0-9]*\) .*/\1/p" "$1" | tail -n 1 | grep . || echo '?'
}

# Keeps what the run of a fuzzer has found.
keep_found() {
    local name=$1 found=$build/corpus/$1 kept=$build/fuzz/kept/$1 log=$results/$1.merge
    local merged=$build/merged/$1 archive=fuzz/corpus/$1.tar.gz
    rm -rf "$merged"
    mkdir -p "$merged"
    cp -r "fuzz/$name.in/." "$kept/." "$merged"
    run_fuzzer "$name" "$log" -merge=1 "$merged" "$found" || return
    [ "$(find "$merged" "$kept" "fuzz/$name.in" -type f | wc -l)" -gt \
        $((2 * $(find "$kept" "fuzz/$name.in" -type f | wc -l))) ] || return 0

    # There is more to reach: all of it, by as few as possible, without the seeds.
    rm -rf "$merged"
    mkdir -p "$merged"
    cp "fuzz/$name.in/"* "$merged"
    run_fuzzer "$name" "$log" -merge=1 "$merged" "$kept" "$found" || return
    (cd "fuzz/$name.in" && printf '%s\0' *) | (cd "$merged" && xargs -0 rm -f)
    mkdir -p fuzz/corpus
    (cd "$merged" && find . -type f -printf '%P\n') | LC_ALL=C sort |
        tar -C "$merged" --format=ustar --mtime=@0 --owner=0 --group=0 --numeric-owner \
            --mode=u=rw,go=r -cf - -T - | gzip -9n >"$archive.new"
    mv "$archive.new" "$archive"
}

# Runs one fuzzer; its row goes to a file. Fails if the fuzzer does.
fuzz_one() {
    local name=$1 corpus=$build/corpus/$1 log=$results/$1.log status=0 options=()
    rm -rf "$corpus"
    mkdir -p "$corpus"
    rm -f "$findings/$name"-*
    [ ! -e "$build/fuzz/$name.dict" ] || options+=("-dict=$build/fuzz/$name.dict")
    run_fuzzer "$name" "$results/$name.seeds" -runs=0 "fuzz/$name.in" || true
    run_fuzzer "$name" "$log" "-max_total_time=$seconds" -print_final_stats=1 "${options[@]}" \
        "$corpus" "fuzz/$name.in" "$build/fuzz/kept/$name" || status=$?

    local executions counts=() what found
    executions=$(sed -n 's/^stat::number_of_executed_units: *//p' "$log")
    for what in cov ft; do
        counts+=("$(count_of "$results/$name.seeds" $what)" "$(count_of "$log" $what INITED)"
            "$(count_of "$log" $what)")
    done
    found=$(find "$findings" -name "$name-*" | wc -l)
    [ "$status" -eq 0 ] || [ "$found" -gt 0 ] || found=1  # it did not even start
    # shellcheck disable=SC2059  # the row is the same for the head
    printf "$row" "$name" "${executions:-?}" "${counts[@]}" \
        "$(find "$corpus" -type f | wc -l)" "$found" | tee "$results/$name.row"
    [ "$status" -eq 0 ] || return
    ! $keep || keep_found "$name"
}
row='%-20s %10s  %6s %6s %6s  %7s %7s %7s  %6s %8s\n'
export -f run_fuzzer count_of keep_found fuzz_one
export seconds build results findings keep row

# shellcheck disable=SC2059  # likewise
{
    printf "$row" '' '' edges: '' '' features: '' '' '' ''
    printf "$row" fuzzer executions seeds kept end seeds kept end found findings
}
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
