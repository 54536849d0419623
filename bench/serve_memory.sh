#!/usr/bin/env bash
# Measures the memory of `corvane-host serve` with two workers: at rest, for each key-exchange
# session and connection, and with large bodies.
# HOST may name a corvane-host that is built already.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."
. bench/serving.sh

serve 2 --rate 0 --body-bytes 1048576
HOST_PID=$server python3 bench/serve_memory.py "$port" "$TOKEN" devkit/console/samples.js
end_server
