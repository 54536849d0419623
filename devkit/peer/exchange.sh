#!/usr/bin/env bash
# A whole key exchange between corvane-host and corvane-ke-peer, and messages both ways.
#   exchange.sh BUILD_DIRECTORY [--rsa]
set -euo pipefail
host=$1/devkit/host/corvane-host
peer=$1/devkit/peer/corvane-ke-peer
shift

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
"$peer" make-certs "$work/server" "$@"

# The session lives in the host's process, so the host runs all the while and answers
# each line with a line.
coproc HOST { exec "$host" script -; }
hostIn=${HOST[1]} hostOut=${HOST[0]} hostId=$HOST_PID

# Sends a request under an id. Its result "Data" ends up in $data.
send() {
    printf '{"id": "%s", "request": "%s", "params": %s}\n' "$1" "$2" "$3" >&"$hostIn"
    IFS= read -r line <&"$hostOut"
    case $line in
    *'"ok":true'*) ;;
    *)
        echo "FAILED  $2"
        exit 1
        ;;
    esac
    data=$(sed -n 's/.*"Data":"\([^"]*\)".*/\1/p' <<<"$line")
}

check() {
    if [ "$2" != "$3" ]; then
        echo "FAILED  $1"
        exit 1
    fi
    echo "ok      $1"
}

ke='"strKe": "${k.Data}"'
send k QZaven_ke_new '{}'
send roots QZaven_ke_set_root_certificate "{$ke, \"strCa_file\": \"$work/server/root.crt\"}"
send hello QZaven_ke_client_hello "{$ke}"
answer=$("$peer" answer --dir "$work/server" --hello "$data")
send message QZaven_ke_client_key_exchange "{$ke, ${answer#\{}"
"$peer" finish --dir "$work/server" --message "$data"
echo "ok      key exchange"

text=$(printf 'a message that is not secret' | base64 -w0 | tr '+/' '-_')
send sealed QZaven_ke_encrypt "{$ke, \"strdata\": \"$text\"}"
check "client to server" "$("$peer" decrypt --dir "$work/server" --data "$data")" "$text"
sealed=$("$peer" encrypt --dir "$work/server" --data "$text")
send opened QZaven_ke_decrypt "{$ke, \"strcipher\": \"$sealed\"}"
check "server to client" "$data" "$text"
send hmac QZaven_ke_hmac "{$ke, \"strdata\": \"$text\"}"
check "HMAC" "$data" "$("$peer" hmac --dir "$work/server" --data "$text")"
send cmac QZaven_ke_cmac "{$ke, \"strdata\": \"$text\"}"
check "CMAC" "$data" "$("$peer" cmac --dir "$work/server" --data "$text")"
send end QZaven_ke_free "{$ke}"

exec {hostIn}>&-
wait "$hostId"
