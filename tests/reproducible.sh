#!/usr/bin/env bash
# Builds the libraries a second time, from a copy of the checkout at another place into a
# build tree at another place, and compares every byte with those of build/release.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."

libraries=(libCorvane_plugin.so devkit/libCorvaneParamsModule.so devkit/libSoftModuleaven.so)

scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT

# Builds a checkout in a directory; shows the output only if that fails.
build() {
    if ! { cmake -S "$1" --preset release -B "$2" &&
        cmake --build "$2" --target Corvane_plugin CorvaneParamsModule SoftModuleaven; } \
        >"$scratch/log" 2>&1; then
        tail -n 30 "$scratch/log"
        exit 1
    fi
}

copy="$scratch/another place"
mkdir "$copy"
git ls-files -z --cached --others --exclude-standard | xargs -0 cp --parents -t "$copy"
build . build/release
build "$copy" "$scratch/elsewhere"

status=0
for library in "${libraries[@]}"; do
    one=$(sha256sum <"build/release/lib/corvane/$library")
    other=$(sha256sum <"$scratch/elsewhere/lib/corvane/$library")
    if [ "$one" = "$other" ]; then
        echo "same bytes  ${one%% *}  $library"
    else
        echo "DIFFERENT   $library"
        status=1
    fi
done
exit $status
