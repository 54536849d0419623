#!/usr/bin/env bash
# Runs the plug-in's tests on emulated x86-64 processors that have less and less, so that the
# library, as it ships, chooses each of its Base64 kernels but the fastest in turn. (The tests
# of 64-bit ARM run its one vector kernel.)
# The build directory is build/release, or the one that is named.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."
. packaging/packages.sh
. tests/support/plugin_programs.sh
packaging/install-packages.sh qemu-user

build=${1-build/release}
log=$(mktemp)
trap 'rm -f "$log"' EXIT

# The first kernel in the order of choice that a processor has.
chosen() {
    qemu-x86_64 -cpu "$1" "$build/tests/base64_kernels_test" --gtest_list_tests >"$log" 2>/dev/null
    for kernel in avx512 avx2 ssse3 scalar; do
        if grep -q "/$kernel" "$log"; then
            echo $kernel
            return
        fi
    done
}

status=0
for pair in qemu64:scalar Nehalem:ssse3 Haswell:avx2; do
    processor=${pair%:*} kernel=${pair#*:}
    [ "$(chosen "$processor")" = "$kernel" ] || {
        echo "FAILED  $processor does not lead to the kernel $kernel"
        exit 1
    }
    failed=0
    for program in "${plugin_programs[@]}" concurrency_test; do
        # The emulator says of some features that it has not got them.
        if ! qemu-x86_64 -cpu "$processor" "$build/tests/$program" --gtest_brief=1 \
            >"$log" 2>&1; then
            echo "FAILED  $program with $kernel"
            tail -n 30 "$log"
            failed=$((failed + 1))
        fi
    done
    echo "$kernel ($processor): $((${#plugin_programs[@]} + 1 - failed)) programs passed, $failed failed"
    [ $failed -eq 0 ] || status=1
done
exit $status
