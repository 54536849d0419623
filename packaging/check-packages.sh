#!/usr/bin/env bash
# Installs the packages alone in a fresh Debian 12, lets the doctor look, sends a request by the
# command line, one by HTTP and some from hosts of one's own, purges them, and shows that nothing
# stays:
# packaging/check-packages.sh [--arch amd64|arm64|all] [DIR]. The packages are those that
# packaging/build-packages.sh has made. Programs of another architecture are emulated. Needs root,
# to make a system, which build/chroots keeps for the next time.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."
. packaging/packages.sh

own=$(dpkg --print-architecture)
arch=$own
if [ "${1-}" = --arch ]; then
    arch=${2-}
    shift 2
fi
packages=${1:-build/packages}
case $arch in
amd64 | arm64) architectures=("$arch") ;;
all) architectures=(amd64 arm64) ;;
*)
    echo "usage: packaging/check-packages.sh [--arch amd64|arm64|all] [DIR]" >&2
    exit 2
    ;;
esac
[ "$(id -u)" -eq 0 ] || {
    echo "this needs root, to make a system" >&2
    exit 2
}
packaging/install-packages.sh "${package_check_packages[@]}"

scratch=$(mktemp -d)
holder=
finish() {
    [ -z "$holder" ] || kill "$holder"
    rm -rf --one-file-system "$scratch"
}
trap finish EXIT

# Which programs are emulated is a setting of a user namespace, so that the machine's own stays as
# it is. This one has the machine's users.
make_namespace() {
    unshare --user sleep infinity &
    holder=$!
    until [ "$(readlink "/proc/$holder/ns/user")" != "$(readlink /proc/self/ns/user)" ]; do
        sleep 0.01
    done
    echo '0 0 65536' >"/proc/$holder/uid_map"
    echo '0 0 65536' >"/proc/$holder/gid_map"
}

# inside ARCHITECTURE COMMAND...: in namespaces where programs of that architecture run.
inside() {
    if [ "$1" = "$own" ]; then
        unshare --mount --fork --kill-child "${@:2}"
        return
    fi
    [ -n "$holder" ] || make_namespace
    # shellcheck disable=SC2016  # for the shell inside
    nsenter --user --target "$holder" unshare --mount --fork --kill-child sh -c '
        mount -t binfmt_misc binfmt_misc /proc/sys/fs/binfmt_misc
        [ -e /proc/sys/fs/binfmt_misc/qemu-$0 ] ||
            cat "/usr/lib/binfmt.d/qemu-$0.conf" >/proc/sys/fs/binfmt_misc/register
        exec "$@"' "$([ "$1" = arm64 ] && echo aarch64 || echo x86_64)" "${@:2}"
}

# What the packages need beside each other, as in "libc6,libssl3".
needs() {
    for package in "$@"; do
        dpkg-deb -f "$package" Depends
    done | tr -d ' ' | sed 's/[,|]/\n/g' | sed 's/[(:].*//' | grep . | grep -v corvane | sort -u |
        paste -sd ,
}

# make_system ARCHITECTURE NEEDS FILE
make_system() {
    local mirror
    # The packages come from where this machine's do.
    # shellcheck disable=SC2016  # $(SITE) is apt's
    mirror=$(apt-get indextargets --format '$(RELEASE) $(SITE)' 'Created-By: Packages' |
        sed -n 's/^bookworm //p' | sort -u | tail -n 1)
    mkdir -p "${3%/*}"
    if ! inside "$1" mmdebstrap --mode=root --architectures="$1" --variant=essential \
        --include="curl,$2" bookworm "$3.part.tar" "$mirror" >"$scratch/log" 2>&1; then
        tail -n 30 "$scratch/log" >&2
        exit 1
    fi
    mv "$3.part.tar" "$3"
}

cat >"$scratch/check.sh" <<'END'
set -eu
# Every file but dpkg's and the linker's own notes.
files() {
    find / -xdev \( -path /proc -o -path /sys -o -path /dev -o -path /packages -o -path /tmp \
        -o -path /var/lib/dpkg -o -path /var/log/dpkg.log -o -path /var/cache/ldconfig \) -prune \
        -o -print | sort
}
export DEBIAN_FRONTEND=noninteractive
files >/packages/before
dpkg --install /packages/*.deb >/packages/log 2>&1 || { cat /packages/log; exit 1; }
corvane-host --version
corvane-host doctor >/packages/doctor || { cat /packages/doctor; exit 1; }
ok=$(grep -c '^ *ok' /packages/doctor || true)
failed=$(grep -c '^ *FAIL' /packages/doctor || true)
echo "doctor: $ok ok, $failed FAIL"
[ "$ok" -ge 48 ] && [ "$failed" -eq 0 ] || { cat /packages/doctor; exit 1; }
for test in one-request service; do
    sh "/packages/tests/$test"
    echo "$test: passed"
done
libraries=$(dirname /usr/lib/*/corvane/libCorvane_plugin.so)
for host in /packages/own/own-host-*; do
    "$host" /packages/own/libCorvaneParamsModule.so "$libraries/devkit/libSoftModuleaven.so" \
        "$libraries/libCorvane_plugin.so" >/packages/log || { cat /packages/log; exit 1; }
    # RFC 4231, test case 2.
    grep -q 'Data: W9zBRr9gdU5qBCQmCJV1x1oAPwidJzmDnexYuWTsOEM=$' /packages/log
    echo "$(basename "$host"): passed"
done
names=$(for package in /packages/*.deb; do dpkg-deb -f "$package" Package; done)
dpkg --remove $names >/packages/log 2>&1 || { cat /packages/log; exit 1; }
dpkg --purge $names >/packages/log 2>&1 || { cat /packages/log; exit 1; }
files >/packages/after
if ! diff /packages/before /packages/after; then
    echo "this is not as it was before the installation"
    exit 1
fi
echo "purged: nothing stays"
END

# build_own_hosts ARCHITECTURE FOLDER: the examples, made out here of the packages' headers, as
# the fresh system has no compiler.
build_own_hosts() {
    local toolchain="" files=$scratch/$1.files example=examples/own-host
    [ "$1" = "$own" ] || toolchain=$(dpkg-architecture -a "$1" -q DEB_HOST_GNU_TYPE 2>/dev/null)-
    dpkg-deb --extract "$packages"/libcorvane-dev_*_"$1.deb" "$files"
    mkdir -p "$2"
    "${toolchain}g++" -std=c++17 -O2 -fPIC -shared -I"$files/usr/include/corvane" \
        $example/own_params.cpp -Wl,-soname,libCorvaneParamsModule.so -o "$2/libCorvaneParamsModule.so"
    "${toolchain}gcc" -std=c11 -O2 -I"$files/usr/include/corvane" $example/own_host.c \
        -o "$2/own-host-c"
    "${toolchain}g++" -std=c++17 -O2 -I"$files/usr/include/corvane" $example/own_host.cpp \
        -o "$2/own-host-cpp"
}

# check ARCHITECTURE: in a system of its own.
check() {
    local root=$scratch/$1 system debs
    debs=("$packages"/*_"$1".deb "$packages"/*_all.deb)
    needed=$(needs "${debs[@]}")
    system=build/chroots/$1-$(sha256sum <<<"$needed" | cut -c 1-12).tar
    [ -e "$system" ] || make_system "$1" "$needed" "$system"
    mkdir -p "$root"
    tar -x -C "$root" -f "$system"
    mkdir -p "$root/packages"
    cp "${debs[@]}" "$scratch/check.sh" "$root/packages"
    rm -f "$root"/packages/*-dbgsym_*
    cp -r debian/tests "$root/packages/tests"
    build_own_hosts "$1" "$root/packages/own"
    # shellcheck disable=SC2016  # for the shell inside
    inside "$1" sh -ec 'mount --rbind /proc "$0/proc"
        mount --rbind /dev "$0/dev"
        exec chroot "$0" env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin HOME=/root TMPDIR=/tmp \
            sh /packages/check.sh' "$root"
}

for one in "${architectures[@]}"; do
    start=$SECONDS
    echo "== $one"
    check "$one"
    echo "$one: $((SECONDS - start)) s"
done
