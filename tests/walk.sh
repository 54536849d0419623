#!/usr/bin/env bash
# A newcomer's walk: the README's commands in its order, then a request to the service. The
# checkout should be fresh.
#   tests/walk.sh [COMMAND]   with the tests that the command runs, ./test.sh if there is none
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."

step() { printf '\n== %s\n' "$1"; }

step "./run.sh"
./run.sh
[ $# -gt 0 ] || set -- ./test.sh
step "$*"
"$@"
step "./run.sh again"
./run.sh | tail -n 1

step "./run.sh serve, and a request"
packaging/install-packages.sh curl
export XDG_STATE_HOME=$PWD/build/state
./run.sh serve --listen 127.0.0.1:0 >build/serve.log 2>&1 &
server=$!
trap 'kill $server 2>/dev/null || true' EXIT
until url=$(sed -n 's/.*listening on \(http:[^ ]*\)$/\1/p' build/serve.log) && [ -n "$url" ]; do
    kill -0 $server || {
        cat build/serve.log
        exit 1
    }
    sleep 0.2
done
(umask 077 && printf 'Authorization: Bearer %s' "$(cat build/state/corvane-host/token)" >build/header)
# RFC 4231, section 4.3.
answer=$(curl --silent --show-error --fail -H @build/header \
    "$url/v1/requests/QZaven_crypto_hmac" --json '{"strHashAlg": 4, "strKey": {"base64": "SmVmZQ"},
    "strdata": {"base64": "d2hhdCBkbyB5YSB3YW50IGZvciBub3RoaW5nPw"}}')
echo "$answer"
[[ $answer == *'"W9zBRr9gdU5qBCQmCJV1x1oAPwidJzmDnexYuWTsOEM="'* ]]
kill -TERM $server
wait $server
trap - EXIT
