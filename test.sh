#!/usr/bin/env bash
# Builds and runs the tests.
#   ./test.sh       the fast suite
#   ./test.sh all   also formatting, Clang, sanitizers and valgrind
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")"
. packaging/packages.sh

case "${1-}" in
"") ;;
all) ;;
*)
    echo "usage: ./test.sh [all]" >&2
    exit 2
    ;;
esac

passed=0
failed=()

# Runs one stage and goes on whatever becomes of it.
stage() {
    local name=$1 start=$SECONDS
    shift
    printf '\n== %s\n' "$name"
    if "$@"; then
        passed=$((passed + 1))
        printf '== %s: passed in %d s\n' "$name" $((SECONDS - start))
    else
        failed+=("$name")
        printf '== %s: FAILED after %d s\n' "$name" $((SECONDS - start))
    fi
}

# Configures and builds a preset; further arguments go to the configuration. Shows the
# compiler's output only if it fails.
build_preset() {
    local log=build/$1.log
    mkdir -p build
    if ! { cmake --preset "$1" -DCORVANE_TESTS=ON "${@:2}" && cmake --build "build/$1"; } >"$log" 2>&1; then
        tail -n 60 "$log"
        return 1
    fi
}

run_ctest() {
    ctest --test-dir "build/$1" --output-on-failure --no-tests=error -j "$(nproc)" "${@:2}"
}

fast_suite() {
    build_preset release && run_ctest release
}

formatting() {
    git ls-files -z '*.cpp' '*.h' '*.c' | xargs -0 clang-format --dry-run -Werror
}

clang_build() {
    build_preset clang && run_ctest clang
}

sanitizers() {
    build_preset asan && run_ctest asan
}

# The programs that run against the test doubles; those with real cryptography would
# only test its library.
valgrind_doubles() {
    local program programs status=0
    programs=$(ctest --test-dir build/release -L doubles -N | sed -n 's/^ *Test *#[0-9]*: //p')
    [ -n "$programs" ] || return 1
    for program in $programs; do
        printf '%s\n' "$program"
        valgrind --quiet --error-exitcode=99 --leak-check=full \
            --errors-for-leak-kinds=definite,indirect \
            "build/release/tests/$program" --gtest_brief=1 || status=1
    done
    return $status
}

packaging/install-packages.sh "${build_packages[@]}" "${test_packages[@]}"
stage "tests" fast_suite
if [ "${1-}" = all ]; then
    packaging/install-packages.sh "${all_packages[@]}"
    stage "formatting" formatting
    stage "clang" clang_build
    stage "address and undefined behaviour sanitizers" sanitizers
    stage "valgrind" valgrind_doubles
fi

printf '\n'
for name in "${failed[@]}"; do
    echo "FAILED: $name"
done
echo "stages: $passed passed, ${#failed[@]} failed"
[ ${#failed[@]} -eq 0 ]
