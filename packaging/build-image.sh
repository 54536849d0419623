#!/usr/bin/env bash
# Makes an OCI image of corvane-host and the devkit: the programs and libraries of the packages
# that build-packages.sh made, and the libraries that they need, from this machine. No network is
# used once the tools are installed, and the same files give the same image.
#   packaging/build-image.sh [--arch amd64|arm64] [--packages FOLDER] [--output FILE]
# Without options: for this machine's architecture, from build/packages, to
# build/image/corvane-host_ARCH.oci.tar. Prints its size and the digest of its manifest. Wants
# root, whose the files in the image are.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."
. packaging/packages.sh

usage() {
    sed -n '2,/^set /s/^# \{0,1\}//p' "${BASH_SOURCE[0]}"
}
refuse() {
    echo "$1" >&2
    exit 1
}

arch=$(dpkg --print-architecture) packages=build/packages output=
while [ $# -gt 0 ]; do
    case $#/$1 in
    */--help) usage && exit ;;
    1/*) usage >&2 && exit 2 ;;
    */--arch) arch=$2 ;;
    */--packages) packages=$2 ;;
    */--output) output=$2 ;;
    *) usage >&2 && exit 2 ;;
    esac
    shift 2
done
case $arch in
amd64) triplet=x86_64-linux-gnu loader=lib64/ld-linux-x86-64.so.2 ;;
arm64) triplet=aarch64-linux-gnu loader=lib/ld-linux-aarch64.so.1 ;;
*) usage >&2 && exit 2 ;;
esac
output=$(realpath -m "${output:-build/image/corvane-host_$arch.oci.tar}")
[ "$(id -u)" -eq 0 ] || refuse "this needs root"
packaging/install-packages.sh "${image_packages[@]}"

scratch=$(mktemp -d)
storage=(--root "$scratch/storage" --runroot "$scratch/run" --storage-driver vfs)
trap 'buildah "${storage[@]}" rm --all >/dev/null 2>&1 || true; rm -rf "$scratch"' EXIT
root=$scratch/root
libraries=$root/usr/lib/$triplet
umask 022
mkdir -p "$libraries" "$root/usr/bin" "$root/usr/lib64" "$root/usr/share/doc" "$root/etc" \
    "$root/proc" "$root/sys" "$root/dev" "$root/var/lib/corvane-host"
mkdir -m 1777 "$root/tmp"
ln -s usr/lib "$root/lib"
ln -s usr/lib64 "$root/lib64"

# Adds the licence of an installed package.
add_licence() {
    local text=/usr/share/doc/$1/copyright
    [ ! -f "$text" ] || install -D -m 644 "$text" "$root$text"
}

# add_needed FILE: adds the libraries that it needs and, in turn, those that they need.
add_needed() {
    local name file
    while read -r name; do
        [ ! -e "$libraries/$name" ] && [ "$name" != "${loader#*/}" ] || continue
        file=$(realpath -e "/usr/lib/$triplet/$name") ||
            refuse "$1 needs $name, which is not installed here for $arch"
        install -m 644 "$file" "$libraries/$name"
        add_licence "$(dpkg -S "${file#/usr}" "$file" 2>/dev/null | head -n 1 | cut -d : -f 1)"
        add_needed "$file"
    done < <(LC_ALL=C readelf -d "$1" | sed -n 's/.*(NEEDED).*\[\(.*\)\]/\1/p')
}

for package in libcorvane-plugin corvane-devkit corvane-host; do
    files=("$packages/${package}"_*_"$arch.deb")
    [ ${#files[@]} -eq 1 ] && [ -f "${files[0]}" ] ||
        refuse "$packages must hold one $package for $arch; packaging/build-packages.sh makes it"
    dpkg-deb --extract "${files[0]}" "$scratch/$package"
    cp -r "$scratch/$package/usr/share/doc/." "$root/usr/share/doc/"
done
cp "$scratch"/corvane-host/usr/bin/* "$root/usr/bin/"
for package in libcorvane-plugin corvane-devkit; do
    cp -r "$scratch/$package/usr/lib/$triplet/." "$libraries/"
done
install -m 755 "$(realpath "/$loader")" "$root/usr/$loader"
for file in "$root"/usr/bin/* "$libraries"/corvane/*.so "$libraries"/corvane/devkit/*.so; do
    add_needed "$file"
done
printf 'corvane:x:65532:65532::/var/lib/corvane-host:/nonexistent\n' >"$root/etc/passwd"
printf 'corvane:x:65532:\n' >"$root/etc/group"
chown 65532:65532 "$root/var/lib/corvane-host"
chmod 700 "$root/var/lib/corvane-host"

version=$(dpkg-deb --field "${files[0]}" Version)
date=${SOURCE_DATE_EPOCH-$(stat -c %Y "$scratch/corvane-host/usr/share/doc/corvane-host")}
find "$root" -exec touch --no-dereference --date "@$date" {} +
image=$(buildah "${storage[@]}" from --arch "$arch" scratch)
buildah "${storage[@]}" add --quiet "$image" "$root" / >/dev/null
buildah "${storage[@]}" config --arch "$arch" --os linux --user 65532:65532 \
    --env XDG_STATE_HOME=/var/lib --volume /var/lib/corvane-host --workingdir / --port 8720 \
    --entrypoint '["/usr/bin/corvane-host"]' --cmd doctor \
    --label org.opencontainers.image.title=corvane-host \
    --label "org.opencontainers.image.version=$version" \
    --label "org.opencontainers.image.description=Corvane reference host and devkit; not for production" \
    "$image"
buildah "${storage[@]}" commit --quiet --format oci --timestamp "$date" "$image" corvane-host >/dev/null
mkdir -p "$(dirname "$output")"
rm -f "$output"
buildah "${storage[@]}" push --quiet --digestfile "$scratch/digest" corvane-host \
    "oci-archive:$output:corvane-host:$version"
echo "$output: $(($(stat -c %s "$output") / 1024)) KiB, $(cat "$scratch/digest")"
