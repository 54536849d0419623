#!/usr/bin/env bash
# Measures how long a request takes over payload size, the half of them and all but one in a
# hundred, and draws docs/latency.svg. Through host, parameter module, plug-in and development
# engine in one process; two minutes on a machine that is otherwise idle.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."
host=${HOST:-build/release/bin/corvane-host}
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
table=$scratch/latency.tsv

head -c 32 /dev/urandom >"$scratch/key"
head -c 12 /dev/urandom >"$scratch/iv"

# times REQUEST PARAMETER...: its p50 and p99 in microseconds.
times() {
    "$host" bench "$@" --seconds 5 --json 2>/dev/null |
        python3 -c 'import json, sys; t = json.load(sys.stdin)["microseconds"]; print(t["p50"], t["p99"])'
}

echo "bytes GCM,p50 GCM,p99 HMAC,p50 HMAC,p99" >"$table"
for size in 64 256 1024 4096 16384 65536 262144 1048576 4194304; do
    head -c $size /dev/zero >"$scratch/payload"
    encrypted=$(times QZaven_crypto_encrypt strCipherAlg=4 strMode=6 "strKey=b64:@$scratch/key" \
        "strIV=b64:@$scratch/iv" straad=text:aad "strdata=b64:@$scratch/payload")
    authenticated=$(times QZaven_crypto_hmac strHashAlg=4 "strKey=b64:@$scratch/key" \
        "strdata=b64:@$scratch/payload")
    echo "$size $encrypted $authenticated" | tee -a "$table"
done
python3 bench/chart.py "$table" "microseconds for a request" >docs/latency.svg
