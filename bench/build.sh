# shellcheck shell=bash disable=SC2034  # used where it is sourced
# Builds the programs that are named; sourced by the scripts here, which run at the top of
# the checkout. BUILD_DIR may name a build tree that is configured already.

. packaging/packages.sh
. bench/packages.sh
. cmake/build.sh

build=${BUILD_DIR:-build/bench}

# Settings under which freed memory stays with the heap: the pages are there when they are
# needed again. The C library takes no larger threshold than 32 MiB for blocks of their own.
warm_heap=glibc.malloc.mmap_threshold=33554432:glibc.malloc.trim_threshold=17179869184
# Settings under which all large blocks come from the system, whatever went before.
fresh_memory=glibc.malloc.mmap_threshold=131072

build_programs() {
    packaging/install-packages.sh "${build_packages[@]}" "${bench_packages[@]}"
    [ -n "${BUILD_DIR-}" ] || configure "$build" --preset release -DCORVANE_BENCH=ON -DCORVANE_TESTS=OFF
    build_targets "$build" "$@"
}
