#!/usr/bin/env bash
# Builds the packages of the last commit at another place, with another umask, locale and time
# zone, and compares every byte with those that packaging/build-packages.sh has made:
# packaging/compare-packages.sh [--arch amd64|arm64|all] [DIR].
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."

options=()
if [ "${1-}" = --arch ]; then
    options=(--arch "${2-}")
    shift 2
fi
packages=${1:-build/packages}

scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
mkdir "$scratch/elsewhere"
(
    umask 077
    export TMPDIR="$scratch/elsewhere" LC_ALL=C.UTF-8 TZ=Asia/Kathmandu
    packaging/build-packages.sh "${options[@]}" --lintian no --output "$scratch/packages"
) >"$scratch/log" 2>&1 || {
    cat "$scratch/log"
    exit 1
}

status=0
for package in "$scratch"/packages/*.deb; do
    name=${package##*/}
    if cmp -s "$package" "$packages/$name"; then
        echo "same bytes  $(sha256sum <"$package" | cut -c 1-64)  $name"
    else
        echo "DIFFERENT   $name"
        status=1
    fi
done
exit $status
