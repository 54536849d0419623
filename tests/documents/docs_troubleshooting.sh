# shellcheck shell=bash
# All codes that the page names are there, and the host's have these statuses.
page=$SOURCE/docs/troubleshooting.md
grep -o -- '-[23]0[0-9]\{3\}' "$page" | sort -u | while read -r code; do
    corvane-host explain "$code" >/dev/null || exit 1
done || exit 1
grep -o '`[45][0-9][0-9] [a-z_]*`' "$page" | tr -d '`' | sort -u | while read -r status name; do
    corvane-host explain "$name" | grep -q "HTTP status $status" || { echo "$name" && exit 1; }
done || exit 1
