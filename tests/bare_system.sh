#!/usr/bin/env bash
# A newcomer's walk on a Debian 12 that has nothing but git and, for a user, sudo: in a system
# of its own below a temporary folder. Wants root, 6 GiB of disk, and about fifteen minutes.
#   tests/bare_system.sh       as a user with sudo
#   tests/bare_system.sh root  as root, without sudo
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."

who=${1-user}
case $#/$who in
0/user) ;;
1/root) ;;
*)
    sed -n '2,/^set /s/^# \{0,1\}//p' "${BASH_SOURCE[0]}" >&2
    exit 2
    ;;
esac
# Mounts in a namespace of its own go with it.
if [ -z "${CORVANE_OWN_MOUNTS-}" ]; then
    [ "$(id -u)" -eq 0 ] || {
        echo "this needs root, to make a system" >&2
        exit 2
    }
    packaging/install-packages.sh mmdebstrap git
    CORVANE_OWN_MOUNTS=1 exec unshare --mount --fork --kill-child "$0" "$@"
fi

top=$(mktemp -d)
root=$top/root
finish() {
    for folder in proc sys dev; do
        ! mountpoint -q "$root/$folder" || umount --recursive --lazy "$root/$folder"
    done
    rm -rf --one-file-system "$top"
}
trap finish EXIT
[ "$who" = root ] && packages=git || packages=git,sudo
# The packages come from where this machine's do.
# shellcheck disable=SC2016  # $(SITE) is apt's
mirror=$(apt-get indextargets --format '$(RELEASE) $(SITE)' 'Created-By: Packages' |
    sed -n 's/^bookworm //p' | sort -u | tail -n 1)
mmdebstrap --quiet --variant=minbase --include="$packages" bookworm "$root" "$mirror"
for folder in proc sys dev; do
    mount --rbind "/$folder" "$root/$folder"
    mount --make-rslave "$root/$folder"
done
cp /etc/resolv.conf /etc/hosts "$root/etc/"

if [ "$who" = user ]; then
    chroot "$root" useradd --create-home --shell /bin/bash newcomer
    echo "newcomer ALL=(ALL) NOPASSWD: ALL" >"$root/etc/sudoers.d/newcomer"
    home=/home/newcomer
    as=(chroot --userspec=newcomer:newcomer "$root")
else
    home=/root
    as=(chroot "$root")
fi
git clone --quiet --no-hardlinks . "$root$home/the product"
chroot "$root" chown -R "$(stat -c %u:%g "$root$home")" "$home/the product"
"${as[@]}" env -i HOME="$home" USER="${who/user/newcomer}" TERM=dumb LANG=C.UTF-8 \
    PATH=/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin \
    bash -c 'dpkg-query -W | wc -l; cd "$HOME/the product" && tests/walk.sh'
