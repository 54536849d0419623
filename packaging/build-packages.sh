#!/usr/bin/env bash
# Builds the Debian packages of the last commit: packaging/build-packages.sh
# [--arch amd64|arm64|all] [--output DIR] [--lintian yes|no]. The machine's own architecture (the
# default) is built natively, the other one by a cross compiler. lintian looks at them, unless told
# not to; an error or a warning of its is a failure. Tells the name, the size and the SHA-256 of
# each.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."
. packaging/packages.sh

own=$(dpkg --print-architecture)
arch=$own
output=build/packages
lintian=yes
usage() {
    echo "usage: packaging/build-packages.sh [--arch amd64|arm64|all] [--output DIR] [--lintian yes|no]" >&2
    exit 2
}
while [ $# -gt 0 ]; do
    case $1 in
    --arch) arch=${2-} ;;
    --output) output=${2-} ;;
    --lintian) lintian=${2-} ;;
    *) usage ;;
    esac
    [ $# -ge 2 ] || usage
    shift 2
done
case $arch in
amd64 | arm64) architectures=("$arch") ;;
all) architectures=(amd64 arm64) ;;
*) usage ;;
esac
[ -n "$output" ] && [[ $lintian =~ ^(yes|no)$ ]] || usage

packaging/install-packages.sh "${build_packages[@]}" "${package_packages[@]}"
mkdir -p "$output"
output=$(realpath "$output")
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
git archive --prefix=corvane/ HEAD | tar -x -C "$scratch"

# build ARCHITECTURE OPTION...: the packages in a folder of their own.
build() {
    local folder=$scratch/$1 options=(--no-sign -Pnocheck)
    if [ "$1" != "$own" ]; then
        packaging/install-packages.sh "crossbuild-essential-$1" \
            "${package_libraries[@]/%/:$1}"
        options=(--no-sign "-a$1" "-Pcross,nocheck")
    fi
    mkdir "$folder"
    cp -r "$scratch/corvane" "$folder/corvane"
    if ! (cd "$folder/corvane" && dpkg-buildpackage "${options[@]}" "${@:2}") >"$folder/log" 2>&1
    then
        tail -n 40 "$folder/log" >&2
        echo "The packages for $1 could not be built." >&2
        exit 1
    fi
    # Nothing of another version is left beside them.
    rm -f "$output"/corvane_*_"$1".* "$output"/*_"$1".deb
    [ "${*:2}" = -B ] || rm -f "$output"/*_all.deb
    cp "$folder"/*.deb "$folder"/*.changes "$folder"/*.buildinfo "$output"
}

status=0
kinds=-b
for one in "${architectures[@]}"; do
    start=$SECONDS
    build "$one" "$kinds"
    built=$SECONDS
    if [ $lintian = yes ]; then
        lintian --fail-on error,warning --pedantic --display-info --tag-display-limit 0 \
            "$output"/corvane_*_"$one".changes || status=1
    fi
    echo "$one: built in $((built - start)) s, lintian took $((SECONDS - built)) s"
    # Those for all architectures are there.
    kinds=-B
done
cd "$output"
for file in *.deb; do
    printf '%s  %8d  %s\n' "$(sha256sum <"$file" | cut -c 1-64)" "$(stat -c %s "$file")" "$file"
done
exit $status
