#!/usr/bin/env bash
# Builds what is missing and runs the main job on a real file.
#   ./run.sh                    every request, through all four layers
#   ./run.sh serve [OPTION]...  the host as a service (docs/serving.md)
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")"
. packaging/packages.sh

packaging/install-packages.sh "${build_packages[@]}"

build=build/release
[ -f $build/build.ninja ] || cmake --preset release -DCORVANE_TESTS=OFF >/dev/null
if ! cmake --build $build --target Corvane_plugin CorvaneParamsModule SoftModuleaven corvane-host \
    corvane-ke-peer \
    >$build/build.log 2>&1; then
    tail -n 60 $build/build.log >&2
    exit 1
fi

if [ "${1-}" = serve ]; then
    exec $build/devkit/host/corvane-host "$@"
fi
exec devkit/demo.sh $build
