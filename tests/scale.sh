#!/usr/bin/env bash
# Three hosts behind HAProxy and nginx with the configurations of packaging/: key exchanges and
# checked HMACs while hosts and balancers end, hang and come back, attacks, and what a balancer
# adds to a request's time. About two minutes; all figures end up in build/scale.txt.
# Usage: tests/scale.sh
# HOST may name a corvane-host that is built already.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."
. packaging/packages.sh
. cmake/build.sh
packaging/install-packages.sh "${build_packages[@]}" "${balancer_packages[@]}"
PATH=$PATH:/usr/sbin

if [ -z "${HOST-}" ]; then
    is_configured build/release || configure build/release --preset release
    build_targets build/release corvane-host corvane-ke-peer Corvane_plugin CorvaneParamsModule \
        SoftModuleaven
    HOST=build/release/bin/corvane-host
fi
mkdir -p build

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
ulimit -n "$(ulimit -Hn)"
openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes -days 2 \
    -subj /CN=corvane.internal \
    -addext subjectAltName=DNS:corvane.internal,DNS:localhost,IP:127.0.0.1 \
    -keyout "$work/corvane.key" -out "$work/corvane.crt" 2>"$work/openssl.log"
cat "$work/corvane.crt" "$work/corvane.key" >"$work/corvane.pem"

# In the background, so that a signal to this script is not kept waiting.
PYTHONDONTWRITEBYTECODE=1 python3 tests/scale/stage.py "$(realpath "$HOST")" "$work" build/scale.txt &
stage=$!
trap 'kill "$stage" 2>/dev/null || true; wait "$stage" || true; rm -rf "$work"' EXIT
wait "$stage"
