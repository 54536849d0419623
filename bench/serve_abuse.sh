#!/usr/bin/env bash
# Abuses `corvane-host serve` beside requests whose answers are checked: see serve_abuse.py. Ends
# with 1 if an answer is wrong, if memory or descriptors grow, or if SIGTERM does not end it well.
# Usage: bench/serve_abuse.sh [SECONDS, default 600]
# HOST may name a corvane-host that is built already.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."
. bench/serving.sh

# Short times, so that what is abandoned is given up while it is measured.
serve "$(nproc)" --sessions 200 --read-seconds 5 --session-seconds 20
status=0
python3 bench/serve_abuse.py "$port" "$TOKEN" "$server" "${1:-600}" || status=1
end_server || {
    echo "SIGTERM ended it with $?"
    status=1
}
exit $status
