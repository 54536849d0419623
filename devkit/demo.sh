#!/usr/bin/env bash
# The main job on a real file: keys, encryption and decryption through host, parameter
# module, plug-in and engine, checked against the file and against `openssl enc`.
# Usage: devkit/demo.sh BUILD_DIRECTORY [FILE]
set -euo pipefail

host=$1/devkit/host/corvane-host
file=${2:-src/WebOperateAvenSoftModule.cpp}

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
passed=0
failed=0

# request WHAT OUTPUT NAME PARAMETER...: sends one request, keeps each of its results as
# URL-safe Base64 in $work/OUTPUT.RESULT, and prints a row of the table.
request() {
    local what=$1 output=$2 name=$3 answer=$work/$2.json result
    shift 3
    if ! "$host" call "$name" "$@" --time >"$answer" 2>"$work/log"; then
        cat "$work/log" >&2
        echo "$name failed." >&2
        exit 1
    fi
    for result in Data gcmOutTag; do
        sed -n "s/^ *\"$result\": \"\(.*\)\",\{0,1\}$/\1/p" "$answer" | tr -d '\n' >"$work/$output.$result"
    done
    printf '%-26s %-27s %8s bytes %7.0f us\n' "$what" "$name" \
        "$(decode "$output.Data" | wc -c)" "$(sed -n 's/^ *"microseconds": \([0-9.]*\).*/\1/p' "$answer")"
}

# The bytes behind a result.
decode() {
    tr -- '-_' '+/' <"$work/$1" | base64 -d
}

hex() {
    od -An -v -tx1 | tr -d ' \n'
}

check() {
    local what=$1
    shift
    if "$@"; then
        passed=$((passed + 1))
        printf 'ok      %s\n' "$what"
    else
        failed=$((failed + 1))
        printf 'FAILED  %s\n' "$what"
    fi
}

same_as_file() {
    decode "$1" | cmp -s - "$file"
}

same_as_openssl() {
    openssl enc -sm4-cbc -K "$(decode sm4key.Data | hex)" -iv "$(hex <"$work/iv")" -in "$file" |
        cmp -s - <(decode cbc.Data)
}

# Whether decryption refuses the ciphertext once its tag has been changed.
refuses_other_tag() {
    ! "$host" call QZaven_crypto_decrypt "${gcm[@]}" "strdata=@$work/gcm.Data" \
        "strtag=hex:00000000000000000000000000000000" >"$work/refused" 2>&1
}

openssl rand -out "$work/nonce" 12
openssl rand -out "$work/iv" 16
gcm=(strCipherAlg=4 strMode=6 "strKey=@$work/aeskey.Data" "strIV=b64:@$work/nonce"
    "straad=b64:a header that is not secret")
cbc=(strCipherAlg=1 strMode=2 strCipherPadding=1 "strKey=@$work/sm4key.Data" "strIV=b64:@$work/iv")

"$host" call QZaVen_GetVersion --raw Data 2>/dev/null
printf '\n\nThe file: %s, %s bytes\n\n' "$file" "$(stat -c %s "$file")"
printf '%-26s %-27s %14s %10s\n' what request output time

request "AES-256 key" aeskey QZaven_crypto_gen_symmkey strCipherAlg=4
request "AES-256-GCM, encrypt" gcm QZaven_crypto_encrypt "${gcm[@]}" "strdata=b64:@$file"
request "AES-256-GCM, decrypt" gcmplain QZaven_crypto_decrypt "${gcm[@]}" \
    "strdata=@$work/gcm.Data" "strtag=@$work/gcm.gcmOutTag"
request "SM4 key" sm4key QZaven_crypto_gen_symmkey strCipherAlg=1
request "SM4-CBC, encrypt" cbc QZaven_crypto_encrypt "${cbc[@]}" "strdata=b64:@$file"
request "SM4-CBC, decrypt" cbcplain QZaven_crypto_decrypt "${cbc[@]}" "strdata=@$work/cbc.Data"

printf '\n'
check "AES-256-GCM gives the file back" same_as_file gcmplain.Data
check "AES-256-GCM refuses another tag" refuses_other_tag
check "SM4-CBC gives the file back" same_as_file cbcplain.Data
check "SM4-CBC ciphertext is that of openssl enc" same_as_openssl

printf '\n%d passed, %d failed\n' "$passed" "$failed"
[ "$failed" -eq 0 ]
