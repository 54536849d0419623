#!/usr/bin/env bash
# Builds the libraries twice, from copies of the checkout at different places into build
# trees at different places, and compares every byte of them.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."

libraries=(src/libCorvane_plugin.so devkit/params/libCorvaneParamsModule.so
    devkit/engine/libSoftModuleaven.so)

scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT

# Copies the checkout to one directory and builds it in another.
build_at() {
    local source=$scratch/$1 build=$scratch/$2 log=$scratch/log
    mkdir -p "$source"
    git ls-files -z --cached --others --exclude-standard | xargs -0 cp --parents -t "$source"
    if ! { cmake -S "$source" --preset release -B "$build" -DCORVANE_TESTS=OFF &&
        cmake --build "$build" --target Corvane_plugin CorvaneParamsModule SoftModuleaven; } \
        >"$log" 2>&1; then
        tail -n 30 "$log"
        exit 1
    fi
}

build_at first first/build/release
build_at 'second one' elsewhere

status=0
for library in "${libraries[@]}"; do
    one=$(sha256sum <"$scratch/first/build/release/$library")
    other=$(sha256sum <"$scratch/elsewhere/$library")
    if [ "$one" = "$other" ]; then
        echo "same bytes  ${one%% *}  $library"
    else
        echo "DIFFERENT   $library"
        status=1
    fi
done
exit $status
