#!/usr/bin/env bash
# Runs the tests that build/release holds against the files of the packages instead of those of
# the build tree: within this script they lie in their places.
#   tests/packaged.sh [PACKAGES]   a folder with packages for this machine; build/packages if none
# Wants root.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."

packages=$(realpath "${1-build/packages}")
[ -n "${CORVANE_OWN_MOUNTS-}" ] || CORVANE_OWN_MOUNTS=1 exec unshare --mount "$0" "$@"

arch=$(dpkg --print-architecture)
triplet=$(gcc -print-multiarch)
scratch=$(mktemp -d)
trap 'umount --lazy build/release/{bin,lib} 2>/dev/null; rm -rf --one-file-system "$scratch"' EXIT
for package in libcorvane-plugin corvane-devkit corvane-host; do
    dpkg-deb --extract "$packages/${package}"_*_"$arch.deb" "$scratch"
done

# The tests know the libraries in lib/corvane, the packaged programs in lib/TRIPLET/corvane.
ln -s "$triplet/corvane" "$scratch/usr/lib/corvane"
mount --bind "$scratch/usr/bin" build/release/bin
mount --bind "$scratch/usr/lib" build/release/lib
cmp build/release/bin/corvane-host "$scratch/usr/bin/corvane-host"

# install_test installs what was built; the units that tests are linked to are not the packages'.
ctest --test-dir build/release --output-on-failure --no-tests=error -j $((2 * $(nproc))) \
    -E '^(install|documents|reference)_test$' | sed -n '/Passed/!p'
