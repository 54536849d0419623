#!/usr/bin/env bash
# Calls corvane-host over HTTP. README.md tells how it is started and what it prints.
# Token and keys are on no command line, which other users of the machine can read: curl gets
# them from pipes, jq from its environment.
set -euo pipefail

url=${CORVANE_URL:-http://127.0.0.1:8720}
token_file=${CORVANE_TOKEN_FILE:-$HOME/.local/state/corvane-host/token}
# By name; other engines' ciphers have numbers of their own, as "4".
AES_256=aes-256 GCM=gcm SHA_256=sha-256
message="meet me at the usual place"

# The shell's own commands alone, so that no program is started with the token.
header() {
    printf 'Authorization: Bearer %s\n' "$(<"$token_file")"
}

# send REQUEST: sends the parameters that it reads, in JSON, and prints the answer, which a status
# of 4xx or 5xx has too.
send() {
    curl --silent --max-time 30 -H @<(header) --json @- "$url/v1/requests/$1" ||
        fail "no answer from $url (curl's code $?)"
}

# get EXPRESSION: a part of what is in `answer`.
get() {
    printf '%s' "$answer" | jq --raw-output "$1"
}

# The host, the plug-in or the engine did not do it. Programs go by code and reason.
refusal() {
    get '.error | "refused by \(.source): " +
        ([.code, .reason, .field] | map(select(. != null)) | join(", "))'
}

# Ends the program if `answer` is no success; the text is for people.
succeed() {
    [ "$(get .error)" = null ] || fail "$(refusal): $(get .error.text)"
}

fail() {
    printf 'error: %s\n' "$1" >&2
    exit 1
}

# The bytes of URL-safe Base64, which openssl takes in the standard alphabet alone.
from_base64() {
    printf '%s' "$1" | tr -- -_ +/ | openssl base64 -d -A
}

check_hmac() {
    answer=$(jq -n --arg hash $SHA_256 '{strHashAlg: $hash, strKey: {text: "Jefe"},
        strdata: {text: "what do ya want for nothing?"}}' | send QZaven_crypto_hmac)
    succeed
    [ "$(get .results.Data)" = W9zBRr9gdU5qBCQmCJV1x1oAPwidJzmDnexYuWTsOEM= ] ||
        fail "the HMAC is another one"
    echo "HMAC-SHA-256: as in RFC 4231, test case 2"
}

# cipher EXPRESSION: the parameters of both directions, with more of them.
cipher() {
    alg=$AES_256 mode=$GCM key=$key iv=$iv message=$message data=${data-} tag=${tag-} \
        jq -n "{strCipherAlg: env.alg, strMode: env.mode, strKey: env.key,
            strIV: {hex: env.iv}, straad: {text: \"message 1\"}} + $1"
}

encrypt_and_decrypt() {
    local opened
    answer=$(jq -n --arg alg $AES_256 '{strCipherAlg: $alg}' | send QZaven_crypto_gen_symmkey)
    succeed
    # Bytes come as URL-safe Base64, which is taken as it is where bytes are due.
    key=$(get .results.Data)
    iv=$(openssl rand -hex 12)  # another one for each message

    answer=$(cipher '{strdata: {text: env.message}}' | send QZaven_crypto_encrypt)
    succeed
    data=$(get .results.Data) tag=$(get .results.gcmOutTag)
    echo "AES-256-GCM: $(from_base64 "$data" | wc -c) bytes encrypted," \
        "$(from_base64 "$tag" | wc -c) bytes of tag"

    answer=$(cipher '{strdata: env.data, strtag: env.tag}' | send QZaven_crypto_decrypt)
    succeed
    opened=$(from_base64 "$(get .results.Data)")
    [ "$opened" = "$message" ] || fail "the decrypted message is another one"
    echo "AES-256-GCM: ${#opened} bytes decrypted, the same"
}

# show_refusal TITLE
show_refusal() {
    [ "$(get .error)" != null ] || fail "$1: was not refused"
    echo "$1: $(refusal)"
}

[ -r "$token_file" ] || fail "no token in $token_file"
check_hmac
encrypt_and_decrypt
answer=$(cipher '{strdata: env.data, strtag: {hex: ("00" * 16)}}' | send QZaven_crypto_decrypt)
show_refusal "a wrong tag"
answer=$(jq -n --arg hash $SHA_256 '{strHashAlg: $hash, strKey: {text: "Jefe"},
    strdata: "two words"}' | send QZaven_crypto_hmac)
show_refusal "text for bytes"
