#!/usr/bin/env bash
# Builds what is missing and runs the main job on a real file.
#   ./run.sh                    every request, through all four layers
#   ./run.sh serve [OPTION]...  the host as a service (docs/serving.md)
#   ./run.sh --help             these lines
#
# Debian packages that are missing are installed. With CORVANE_NO_INSTALL=1 in the environment
# nothing is: what is missing is named, and the build goes on with what is there.
#
# What else there is:
#   ./test.sh                   builds and runs the tests (./test.sh --help)
#   build/release/bin/          corvane-host and corvane-ke-peer, once built; each has --help
#   README.md, docs/            for integrators and operators; CONTRIBUTING.md for changes
#   examples/own-host/          a host and a parameter module of one's own
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
