#!/usr/bin/env bash
# promtool, which comes with Prometheus, looks at what a host tells on /metrics and at
# packaging/prometheus: form, rules, configuration, and when each alert comes.
# The build directory is build/release, or the one that is named.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."
. packaging/packages.sh

packaging/install-packages.sh "${prometheus_packages[@]}"
build=${1-build/release}
scratch=$(mktemp -d)
host=
trap '[ -z "$host" ] || { kill "$host" && wait "$host"; } || true; rm -rf "$scratch"' EXIT
status=0

failed() {
    echo "FAILED  $1"
    status=1
}

# A file must be taken without a word.
check_metrics() {
    local said
    said=$(promtool check metrics <"$scratch/$1" 2>&1) && [ -z "$said" ] || {
        failed "$1"
        echo "$said"
    }
}

: >"$scratch/output"
"$build/bin/corvane-host" serve --listen 127.0.0.1:0 --workers 2 --node a-1 \
    --token-file "$scratch/token" --access-log "$scratch/log" >"$scratch/output" 2>"$scratch/errors" &
host=$!
for ((tries = 0; tries < 600; ++tries)); do
    url=$(sed -n 's/.*listening on //p' "$scratch/output")
    [ -n "$url" ] && curl --silent --fail --output /dev/null "$url/readyz" && break
    kill -0 "$host" 2>/dev/null || {
        cat "$scratch/errors"
        exit 1
    }
    sleep 0.1
done
printf 'Authorization: Bearer %s\n' "$(<"$scratch/token")" >"$scratch/header"
# ask PATH [OPTION...]
ask() {
    curl --silent --show-error -H @"$scratch/header" "${@:2}" "$url$1"
}

ask /metrics >"$scratch/metrics at the start"
while read -r name; do
    ask "/v1/requests/$name" --json '{}' >"$scratch/answer"
done < <("$build/bin/corvane-host" list --json | sed -n 's/^    "name": "\(.*\)",$/\1/p')
ask /v1/requests/QZaven_nothing --json '{}' >"$scratch/answer"
ask /metrics >"$scratch/metrics after each request"
grep -q '^corvane_requests_total{name="QZaven_wbsm4_decrypt",code="-20001"} 1$' \
    "$scratch/metrics after each request" || failed "a request is not counted"
check_metrics "metrics at the start"
check_metrics "metrics after each request"

# What promtool must not take, or it looks at nothing.
grep -v '^# HELP corvane_queue ' "$scratch/metrics at the start" >"$scratch/without help"
! promtool check metrics <"$scratch/without help" >/dev/null 2>&1 ||
    failed "promtool takes a metric without help"

# The configuration names two files that are the operator's.
cp -r packaging/prometheus "$scratch/configuration"
cp "$scratch/token" "$scratch/configuration/corvane-token"
openssl req -x509 -newkey rsa:2048 -nodes -subj /CN=hosts -keyout "$scratch/key" \
    -out "$scratch/configuration/corvane-ca.pem" 2>"$scratch/log"
promtool check config "$scratch/configuration/prometheus.yml" >"$scratch/said" 2>&1 || {
    failed "prometheus.yml"
    cat "$scratch/said"
}
promtool test rules tests/prometheus_rules.yml >"$scratch/said" 2>&1 || {
    failed "rules"
    cat "$scratch/said"
}

[ "$status" -ne 0 ] || echo "promtool takes metrics, configuration and rules"
exit "$status"
