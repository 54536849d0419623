#!/usr/bin/env bash
# Changes single lines of src/ in a copy of the tree, one at a time, and looks whether the
# plug-in's own tests notice. The changes are in tests/departures/: departures.py says how
# they are written. The build has the sanitizers, which notice what is read beyond its end
# or never freed.
#   tests/departures.sh           all of them, half an hour on two cores
#   tests/departures.sh NAME...   only these; a name may be a pattern, e.g. 'log_*'
# Prints a row for each and the share that was noticed. Fails below 95 %, if a change does
# not compile, or if src/ no longer has the line that a change replaces.
# The copy and its build are in build/departures, or in CORVANE_DEPARTURES_BUILD from the
# environment; with CORVANE_DEPARTURES_KEEP they are used again as they are.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."
. packaging/packages.sh
. tests/support/plugin_programs.sh
packaging/install-packages.sh "${build_packages[@]}" "${test_packages[@]}" python3

directory=$(realpath -m "${CORVANE_DEPARTURES_BUILD-build/departures}")
tree=$directory/tree
build=$directory/build

python3 tests/departures.py check src
if [ -z "${CORVANE_DEPARTURES_KEEP-}" ] || [ ! -d "$build" ]; then
    rm -rf "$tree" "$build"
    mkdir -p "$tree"
    cp -R CMakeLists.txt cmake devkit docs src tests "$tree"
fi
# The compiler's output only if it fails. What is linked to the plug-in's library need not
# be linked again when that changes.
if ! { cmake -G Ninja -S "$tree" -B "$build" -DCMAKE_BUILD_TYPE=Debug \
    -DCORVANE_DEVKIT=OFF -DCORVANE_TESTS=ON -DCORVANE_SANITIZE=address,undefined \
    -DCMAKE_LINK_DEPENDS_NO_SHARED=ON && mapfile -t programs < <(plugin_programs "$build") &&
    cmake --build "$build" -j "$(nproc)" --target "${programs[@]}"; } >"$directory/build.log" 2>&1; then
    tail -n 60 "$directory/build.log"
    exit 1
fi
PLUGIN_PROGRAMS="${programs[*]}" python3 tests/departures.py run "$tree" "$build" "$@"
