#!/usr/bin/env bash
# Installs the Debian packages that are named and missing, and says so on standard error. A name
# may end in an architecture (libssl-dev:arm64), which is then added to those of the machine.
# Needs root or sudo only when there is something to install. Services that packages bring are not
# started.
#
# With CORVANE_NO_INSTALL=1 in the environment nothing is installed: what is missing is named as it
# is called on any system, and the script that asked goes on. Without dpkg there is no other way.
set -euo pipefail
. "$(dirname "${BASH_SOURCE[0]}")/needs.sh"

if [ "${CORVANE_NO_INSTALL-}" = 1 ]; then
    missing=$(show_needs missing "$@")
    [ -z "$missing" ] || printf 'Nothing is installed, as CORVANE_NO_INSTALL says. Needed:\n%s\n' "$missing" >&2
    exit 0
fi
if ! command -v dpkg-query >/dev/null; then
    printf '%s\n' "There is no dpkg on this machine, so nothing can be installed here. Needed:" \
        "$(show_needs all "$@")" \
        "Install what is missing; CORVANE_NO_INSTALL=1 in the environment then goes on without dpkg." >&2
    exit 1
fi

missing=()
for package in "$@"; do
    dpkg-query -W -f '${Status}\n' "$package" 2>/dev/null | grep -q '^install ok installed$' ||
        missing+=("$package")
done
[ ${#missing[@]} -gt 0 ] || exit 0

as_root=()
if [ "$(id -u)" -ne 0 ]; then
    command -v sudo >/dev/null || {
        echo "These packages are missing, and neither root nor sudo is at hand: ${missing[*]}" >&2
        exit 1
    }
    as_root=(sudo)
fi

echo "Installing: ${missing[*]}" >&2
for package in "${missing[@]}"; do
    case $package in
    *:*) dpkg --print-foreign-architectures | grep -qx "${package##*:}" ||
        "${as_root[@]}" dpkg --add-architecture "${package##*:}" ;;
    esac
done
log=$(mktemp)
trap 'rm -f "$log"' EXIT
# Of packages with services their programs are wanted: these, of which some listen on all
# addresses, start neither now nor with the machine. dpkg asks this file, where there is one.
services=(haproxy nginx prometheus)
policy=/usr/sbin/policy-rc.d
if [ ! -e "$policy" ]; then
    trap 'rm -f "$log"; "${as_root[@]}" rm -f "$policy"' EXIT
    printf '#!/bin/sh\ncase " %s " in *" ${1%%.service} "*) exit 101 ;; esac\n' "${services[*]}" |
        "${as_root[@]}" install -m 755 /dev/stdin "$policy"
fi
# An installation that was interrupted is finished first. A network may be away for a moment.
retries=(-o Acquire::Retries=3)
if ! { "${as_root[@]}" dpkg --configure -a && "${as_root[@]}" apt-get "${retries[@]}" update &&
    "${as_root[@]}" env DEBIAN_FRONTEND=noninteractive apt-get "${retries[@]}" \
        install -y --no-install-recommends "${missing[@]}"; } >"$log" 2>&1; then
    tail -n 20 "$log" >&2
    echo "The packages could not be installed." >&2
    exit 1
fi
for service in "${services[@]}"; do
    [[ " ${missing[*]} " != *" $service"* ]] || "${as_root[@]}" update-rc.d "$service" disable
done
