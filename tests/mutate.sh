#!/usr/bin/env bash
# Makes small mistakes in the code, one at a time, drawn by lot over all of it, and looks whether
# the tests notice.
#   tests/mutate.sh plugin COUNT [SEED]   in src/, judged by the plug-in's own tests
#   tests/mutate.sh devkit COUNT [SEED]   in devkit/, judged by its tests
#   tests/mutate.sh at FILE:LINE...       every mistake that can be drawn in these lines
# Without a SEED it is the date. Prints a row for each: where it is, and which test notices it
# first; or that it survives, with the line as it was and as it became; or that it is equivalent:
# the optimised code is the same, or tests/mutate/equivalents.txt has the reason. Mistakes that do
# not compile are drawn again. Fails if fewer are noticed than wanted, and that cannot well be chance
# (tests/mutate/mutate.py).
# The files and build trees that it changes are seen by its own processes only, through an overlay
# over the checkout; the mount wants root or, where users may have namespaces, anybody.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."
. packaging/packages.sh
. cmake/build.sh
. tests/support/plugin_programs.sh

area=${1-} arguments=()
case $area in
plugin | devkit)
    count=${2-} seed=${3-$(date +%Y%m%d)}
    [[ $#:$count:$seed =~ ^[23]:[1-9][0-9]*:[0-9]+$ ]] && arguments=("$seed" "$count")
    ;;
at)
    [[ " ${*:2}" =~ ^(\ (src|devkit)/[^:\ ]+:[0-9]+)+$ ]] && arguments=("${@:2}")
    ;;
esac
if [ ${#arguments[@]} -eq 0 ]; then
    sed -n '2,/^set /s/^# \{0,1\}//p' "${BASH_SOURCE[0]}" >&2
    exit 2
fi
declare -A labels  # of the tests that are built in a tree; without one it is everything
case $area:${arguments[*]} in
plugin:* | at:*src/*)
    packages=("${aarch64_packages[@]}")
    labels=([asan]=unit [aarch64]=unit [release]=secrets)
    ;;
*) packages=() labels=([release]="") ;;
esac
packaging/install-packages.sh "${build_packages[@]}" "${test_packages[@]}" "${packages[@]}"
for preset in "${!labels[@]}"; do
    configure "build/$preset" --preset "$preset"
    programs=(all)
    [ -z "${labels[$preset]}" ] ||
        mapfile -t programs < <(plugin_programs "build/$preset" "${labels[$preset]}")
    build_targets "build/$preset" "${programs[@]}"
done

changed=$(mktemp -d)
trap 'rm -rf "$changed"' EXIT
mkdir "$changed/files" "$changed/work"
user=()
[ "$(id -u)" -eq 0 ] || user=(--user --map-root-user)
# shellcheck disable=SC2016  # expanded by the shell that mounts
unshare "${user[@]}" --mount --pid --fork --kill-child --mount-proc bash -c '
    mount -t overlay overlay -o "lowerdir=$PWD,upperdir=$1/files,workdir=$1/work" "$PWD"
    cd "$PWD" && exec python3 tests/mutate/mutate.py "${@:2}"' bash "$changed" "$area" "${arguments[@]}"
