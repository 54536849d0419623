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
results=$(mktemp -d)
trap 'rm -rf "$results"' EXIT

# The first kernel in the order of choice that a processor has.
chosen() {
    qemu-x86_64 -cpu "$1" "$build/tests/base64_kernels_test" --gtest_list_tests \
        >"$results/kernels" 2>/dev/null
    for kernel in avx512 avx2 ssse3 scalar; do
        if grep -q "/$kernel" "$results/kernels"; then
            echo $kernel
            return
        fi
    done
}

# Runs a program on a processor; its output counts only if it fails. (The emulator says on
# standard error which features of the processor it has not got.)
run_on() {
    local processor=$1 program=$2 log=$results/$1-$2
    if ! qemu-x86_64 -cpu "$processor" "$build/tests/$program" --gtest_brief=1 >"$log" 2>&1; then
        echo "FAILED  $program on $processor"
        tail -n 30 "$log"
        return 1
    fi
}
export -f run_on
export build results CORVANE_CLIENT_REQUESTS=100

# Two take long and would tell nothing new: one calls each kernel of a processor by itself, so that
# those that are not chosen need no other processor, and the plug-in's life has next to nothing to
# encode.
mapfile -t programs < <(plugin_programs "$build" | grep -vxE 'base64_kernels_test|life_model_test' &&
    echo concurrency_test)
status=0
for pair in qemu64:scalar Nehalem:ssse3 Haswell:avx2; do
    processor=${pair%:*} kernel=${pair#*:}
    [ "$(chosen "$processor")" = "$kernel" ] || {
        echo "FAILED  $processor does not lead to the kernel $kernel"
        exit 1
    }
    if printf '%s\0' "${programs[@]}" |
        xargs -0 -P "$(nproc)" -I '{}' bash -c 'run_on "$@"' run_on "$processor" '{}'; then
        echo "$kernel ($processor): ${#programs[@]} programs passed"
    else
        status=1
    fi
done
exit $status
