#!/usr/bin/env bash
# Builds the image twice and compares the digests; then runs it as a user without rights, with a
# root that cannot be written and without a network: doctor, a request, the service.
#   packaging/check-image.sh [PACKAGES]   a folder with packages for this machine
# Wants root.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."

packages=${1-build/packages}
# Mounts and the loopback interface are of namespaces of their own.
if [ -z "${CORVANE_OWN_MOUNTS-}" ]; then
    packaging/install-packages.sh curl iproute2
    CORVANE_OWN_MOUNTS=1 exec unshare --mount --net --fork --kill-child "$0" "$@"
fi
ip link set lo up

scratch=$(mktemp -d)
storage=(--root "$scratch/storage" --runroot "$scratch/run" --storage-driver vfs)
finish() {
    umount --recursive --lazy "$scratch/image" 2>/dev/null || true
    rm -rf --one-file-system "$scratch"
}
trap finish EXIT

for time in first second; do
    TZ=$([ $time = first ] && echo UTC || echo Asia/Tokyo) \
        packaging/build-image.sh --packages "$packages" --output "$scratch/$time.tar" | tee "$scratch/$time"
done
[ "$(sed 's/.*sha256/sha256/' "$scratch/first")" = "$(sed 's/.*sha256/sha256/' "$scratch/second")" ] || {
    echo "the two images differ"
    exit 1
}

image=$(buildah "${storage[@]}" from --pull-never "oci-archive:$scratch/first.tar")
mkdir "$scratch/image"
mount --bind "$(buildah "${storage[@]}" mount "$image")" "$scratch/image"
mount -o remount,bind,ro "$scratch/image"
mount -t proc proc "$scratch/image/proc"
mount --rbind /dev "$scratch/image/dev"
mount -t tmpfs -o mode=700,uid=65532,gid=65532 state "$scratch/image/var/lib/corvane-host"
host=(chroot --userspec=65532:65532 "$scratch/image" /usr/bin/corvane-host)
export -n HOME LANG
unset LD_LIBRARY_PATH
export XDG_STATE_HOME=/var/lib

"${host[@]}" doctor | tee "$scratch/doctor" | tail -n 1
grep -q ', 0 failed$' "$scratch/doctor"
"${host[@]}" call QZaVen_GetVersion

"${host[@]}" serve --listen 127.0.0.1:8720 >"$scratch/log" 2>&1 &
server=$!
curl --silent --retry 5 --retry-connrefused --fail http://127.0.0.1:8720/readyz || {
    cat "$scratch/log"
    exit 1
}
curl --silent --show-error --fail http://127.0.0.1:8720/v1/requests/QZaVen_GetVersion --json '{}' \
    -H "Authorization: Bearer $(cat "$scratch/image/var/lib/corvane-host/token")" | grep -F '"errorCode":"0"'
kill $server
wait $server
echo "the image works"
