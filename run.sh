#!/usr/bin/env bash
# Builds what is missing and runs the main job on a real file.
#   ./run.sh                    every request, through all four layers
#   ./run.sh serve [OPTION]...  the host as a service (docs/serving.md)
#   ./run.sh --help             these lines
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")"
. packaging/packages.sh
. cmake/build.sh

usage() {
    sed -n '2,/^set /s/^# \{0,1\}//p' run.sh
}
case $#/${1-} in
0/ | */serve) ;;
1/--help | 1/-h)
    usage
    exit
    ;;
*)
    usage >&2
    exit 2
    ;;
esac

packaging/install-packages.sh "${build_packages[@]}"

build=build/release
# The tests stay part of a build tree that has them.
is_configured $build || configure $build --preset release -DCORVANE_TESTS=OFF
build_targets $build Corvane_plugin CorvaneParamsModule SoftModuleaven corvane-host corvane-ke-peer

if [ "${1-}" = serve ]; then
    exec $build/bin/corvane-host "$@"
fi
exec devkit/demo.sh $build
