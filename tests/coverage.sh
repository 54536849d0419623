#!/usr/bin/env bash
# Measures which lines and branches of src/ the plug-in's own tests run.
#   tests/coverage.sh
# Prints a row for each file, then every gap. Fails if a gap is not in coverage_gaps.txt,
# which gives the reason of each, if one of those is none any more, or if the lines without
# accepted gaps are below 100 % or the branches below 95 %: see coverage_report.py.
# For x86-64, where base64_kernel_neon.cpp is compiled without its kernel.
# The build directory is build/coverage, or CORVANE_COVERAGE_BUILD from the environment.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."
. packaging/packages.sh
. cmake/build.sh
. tests/support/plugin_programs.sh
packaging/install-packages.sh "${build_packages[@]}" "${test_packages[@]}" \
    clang-14 llvm-14 libclang-rt-14-dev python3

if [ "$(uname -m)" != x86_64 ]; then
    echo "the list of accepted gaps is for x86-64, not for $(uname -m)" >&2
    exit 2
fi

build=$(realpath -m "${CORVANE_COVERAGE_BUILD-build/coverage}")
configure "$build" -G Ninja -S . -DCMAKE_BUILD_TYPE=Debug \
    -DCMAKE_C_COMPILER=clang-14 -DCMAKE_CXX_COMPILER=clang++-14 \
    -DCMAKE_COMPILE_WARNING_AS_ERROR=ON -DCORVANE_TESTS=ON \
    "-DCMAKE_PROJECT_corvane_INCLUDE=$PWD/tests/coverage.cmake"
mapfile -t programs < <(plugin_programs "$build")
build_targets "$build" "${programs[@]}"

# The counters are kept in mapped files (%c), a file for each process, so that those of
# children that die on purpose count too; what is loaded again goes on counting in the
# same file (%m).
profiles=$build/profiles
rm -rf "$profiles"
mkdir "$profiles"
LLVM_PROFILE_FILE=$profiles/%p-%m%c.profraw \
    ctest --test-dir "$build" -L '^unit$' --no-tests=error --output-on-failure \
    -j "$(nproc)" >"$build/tests.log" 2>&1 || {
    cat "$build/tests.log"
    exit 1
}

llvm-profdata-14 merge -o "$build/coverage.profdata" "$profiles"/*.profraw
llvm-cov-14 export "$build/lib/corvane/libCorvane_plugin.so" \
    "-instr-profile=$build/coverage.profdata" >"$build/coverage.json"
python3 tests/coverage_report.py "$build/coverage.json" src tests/coverage_gaps.txt
