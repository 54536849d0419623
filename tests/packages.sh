#!/usr/bin/env bash
# The packages, for both architectures: builds them, compares them byte for byte with a second
# build, installs them alone on a fresh system, builds hosts against them, makes the image; and
# runs the tests against the packaged files.
# Wants root, and the tests in build/release.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."
. packaging/packages.sh

packages=build/packages
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT

step() {
    local start=$SECONDS status=0
    printf -- '-- %s\n' "$*"
    "$@" || status=$?
    printf -- '-- %d s\n' $((SECONDS - start))
    return $status
}

# An own host against what the packages of an architecture install.
own_host() {
    local arch=$1 package
    for package in libcorvane-plugin libcorvane-dev corvane-devkit; do
        dpkg-deb --extract "$packages/${package}"_*_"$arch.deb" "$scratch/$arch files"
    done
    tests/own_host.sh "$scratch/$arch files/usr" "${@:2}"
}

# Those of both architectures can be installed at once: what lies in the same place is the same.
same_files() {
    local file
    while read -r file; do
        cmp "$scratch/amd64 files/$file" "$scratch/arm64 files/$file" || return 1
    done < <(cd "$scratch/amd64 files" && find . -type f -exec test -e "$scratch/arm64 files/{}" \; -print)
}

packaging/install-packages.sh "${aarch64_packages[@]}" "${test_packages[@]}"
step packaging/build-packages.sh --arch all --output $packages
# The fresh systems wait for one thing at a time.
step packaging/check-packages.sh --arch all $packages >"$scratch/check" 2>&1 &
check=$!
well=true
step packaging/compare-packages.sh $packages || well=false
wait $check || well=false
cat "$scratch/check"
$well
step own_host amd64
step own_host arm64 aarch64-linux-gnu- qemu-aarch64
step same_files
step packaging/check-image.sh $packages
step tests/packaged.sh $packages
