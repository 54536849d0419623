#!/usr/bin/env bash
# All 27 requests on real data, through host, parameter module, plug-in and engine, and
# each checked by something else: the openssl command, or the key exchange's other side.
# Usage: devkit/demo.sh BUILD_DIRECTORY [FILE]
set -euo pipefail

host=$1/devkit/host/corvane-host
peer=$1/devkit/peer/corvane-ke-peer
file=${2:-src/WebOperateAvenSoftModule.cpp}

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
passed=0
failed=0

# --- Requests. One host process answers each line with a line, so that the sessions of
# the key exchange live as long as they are needed.

coproc HOST { exec "$host" script - --time 2>"$work/log"; }
to_host=${HOST[1]} from_host=${HOST[0]} host_pid=$HOST_PID

# request WHAT ID NAME [PARAMETER VALUE]...: sends a request and prints a row about it.
# Its result "Data" is in $data; with an ID other than "-", later requests can use it as
# ${ID.Data}.
requests=0
request() {
    local what=$1 id=$2 name=$3 params="" line
    shift 3
    requests=$((requests + 1))
    [ "$id" != - ] || id=request$requests
    while [ $# -gt 0 ]; do
        params+="${params:+, }\"$1\": \"$2\""
        shift 2
    done
    printf '{"id": "%s", "request": "%s", "params": {%s}}\n' "$id" "$name" "$params" >&"$to_host"
    if ! IFS= read -r line <&"$from_host" || [[ $line != *'"ok":true'* ]]; then
        printf '%s failed: %s\n' "$name" "${line-}" >&2
        grep -v 'DEVELOPMENT ENGINE' "$work/log" >&2
        exit 1
    fi
    data=$(sed -n 's/.*"Data":"\([^"]*\)".*/\1/p' <<<"$line")
    printf '%-39s %-30s %6.0f us\n' "$what" "$name" "$(sed -n 's/.*"microseconds":\([0-9.]*\).*/\1/p' <<<"$line")"
}

# --- Values.

standard() { tr -- '-_' '+/'; }                      # Base64 in the standard alphabet
decoded() { printf '%s' "$data" | standard | base64 -d; } # the bytes of the last result
unescaped() { # a twice percent-escaped text
    local once
    once=$(printf '%b' "${1//%/\\x}")
    printf '%b' "${once//%/\\x}"
}
hex() { od -An -v -tx1 | tr -d ' \n'; }

# --- Checks.

check() {
    local what=$1
    shift
    if "$@" 2>>"$work/check.log"; then
        passed=$((passed + 1))
        printf '    ok      %s\n' "$what"
    else
        failed=$((failed + 1))
        printf '    FAILED  %s\n' "$what"
    fi
}
contains() { [[ $data == *"$1"* ]]; }
same() { [ -n "$1" ] && [ "$1" = "$2" ]; }
gives_file_back() { decoded | cmp -s - "$file"; }
is_output_of() { decoded | cmp -s - <("$@"); }

# --- The work.

message='a message that is not secret'
printf '%s' "$message" >"$work/message"
openssl rand -out "$work/iv" 16
openssl rand -out "$work/nonce" 12
openssl rand -out "$work/mackey" 16
iv=$(hex <"$work/iv")
mackey=$(hex <"$work/mackey")

printf 'The file: %s, %s bytes\n\n' "$file" "$(stat -c %s "$file")"

request "version of the engine" - QZaVen_GetVersion
check "$data" contains "development engine"
request "text of an error code" - QZaVen_strerror strErr -20001
check "$data" contains "parameter is missing"

request "Base64, encode the file" b64 QZaven_crypto_base64_encode strIn "@$file"
check "same as the base64 command" same "$(standard <<<"$data")" "$(base64 -w0 "$file")"
request "Base64, decode it" - QZaven_crypto_base64_Decode strIn '${b64.Data}'
check "gives the file back" cmp -s <(unescaped "$data") "$file"

request "AES-256 key" aes QZaven_crypto_gen_symmkey strCipherAlg 4
gcm=(strCipherAlg 4 strMode 6 strKey '${aes.Data}' strIV "b64:@$work/nonce" straad b64:header)
request "AES-256-GCM, encrypt the file" gcm QZaven_crypto_encrypt "${gcm[@]}" strdata "b64:@$file"
request "AES-256-GCM, decrypt it" - QZaven_crypto_decrypt "${gcm[@]}" \
    strdata '${gcm.Data}' strtag '${gcm.gcmOutTag}'
check "gives the file back" gives_file_back
request "SM4 key" sm4 QZaven_crypto_gen_symmkey strCipherAlg 1
sm4=$(decoded | hex)
cbc=(strCipherAlg 1 strMode 2 strCipherPadding 1 strKey '${sm4.Data}' strIV "b64:@$work/iv")
request "SM4-CBC, encrypt the file" cbc QZaven_crypto_encrypt "${cbc[@]}" strdata "b64:@$file"
check "same as openssl enc" is_output_of openssl enc -sm4-cbc -K "$sm4" -iv "$iv" -in "$file"
request "SM4-CBC, decrypt it" - QZaven_crypto_decrypt "${cbc[@]}" strdata '${cbc.Data}'
check "gives the file back" gives_file_back
box=(strKey '${sm4.Data}' strIV "b64:@$work/iv")
request "white-box SM4, encrypt the file" box QZaven_wbsm4_encrypt "${box[@]}" strdata "b64:@$file"
check "same as openssl enc" is_output_of openssl enc -sm4-cbc -K "$sm4" -iv "$iv" -in "$file"
request "white-box SM4, decrypt it" - QZaven_wbsm4_decrypt "${box[@]}" strdata '${box.Data}'
check "gives the file back" gives_file_back

request "HMAC-SHA-256 of the file" - QZaven_crypto_hmac strHashAlg 4 \
    strKey "b64:@$work/mackey" strdata "b64:@$file"
check "same as openssl dgst" is_output_of openssl dgst -sha256 -mac HMAC -macopt "hexkey:$mackey" -binary "$file"
request "AES-128-CMAC of the file" - QZaven_crypto_cmac strCipherAlg 2 \
    strKey "b64:@$work/mackey" strdata "b64:@$file"
check "same as openssl mac" is_output_of openssl mac -binary -macopt cipher:AES-128-CBC \
    -macopt "hexkey:$mackey" -in "$file" CMAC
request "key derivation, SHA-256" - QZaven_crypto_kdf HashType 4 srcdata "$message" OutLen 48
check "same as openssl kdf" is_output_of openssl kdf -binary -keylen 48 -kdfopt digest:SHA256 \
    -kdfopt "secret:$message" X963KDF

# key_pair NAME GENPKEY_ARGUMENT...: a key pair and a certificate, as PEM and DER.
key_pair() {
    local base=$work/$1
    shift
    openssl genpkey -quiet -out "$base.pem" "$@" 2>>"$work/check.log" ||
        openssl genpkey -out "$base.pem" "$@" 2>>"$work/check.log"
    openssl pkey -in "$base.pem" -outform DER -out "$base.der"
    openssl pkey -in "$base.pem" -pubout -out "$base.pub.pem"
    openssl pkey -in "$base.pem" -pubout -outform DER -out "$base.pub.der"
    openssl req -x509 -new -key "$base.pem" -subj /CN=demo -days 1 -outform DER -out "$base.crt.der" \
        2>>"$work/check.log"
    openssl x509 -inform DER -in "$base.crt.der" -out "$base.crt.pem"
}
key_pair rsa -algorithm RSA -pkeyopt rsa_keygen_bits:2048
key_pair sm2 -algorithm EC -pkeyopt ec_paramgen_curve:SM2

oaep=(-pkeyopt rsa_padding_mode:oaep -pkeyopt rsa_oaep_md:sha256 -pkeyopt rsa_mgf1_md:sha256)
# public_key WHAT KEY TYPE PADDING PKEYUTL_OPTION...: both directions against openssl.
public_key() {
    local what=$1 key=$2 type=$3 padding=$4
    shift 4
    request "$what, encrypt" - QZaven_crypto_public_encrypt strKeyPairType "$type" \
        strpk "b64:@$work/$key.pub.der" strRsaPaddingE "$padding" strdata "b64:$message"
    decoded >"$work/sealed"
    check "openssl pkeyutl decrypts it" same "$message" \
        "$(openssl pkeyutl -decrypt -inkey "$work/$key.pem" "$@" -in "$work/sealed")"
    openssl pkeyutl -encrypt -pubin -inkey "$work/$key.pub.pem" "$@" -in "$work/message" -out "$work/sealed"
    request "$what, decrypt openssl's" - QZaven_crypto_private_decrypt strKeyPairType "$type" \
        strsk "b64:@$work/$key.der" strRsaPaddingE "$padding" strdata "b64:@$work/sealed"
    check "gives the message back" same "$message" "$(decoded)"
}
public_key "RSA-2048 OAEP" rsa 3 0 "${oaep[@]}"
public_key "RSA-2048 PKCS#1 v1.5" rsa 3 1 -pkeyopt rsa_padding_mode:pkcs1
public_key "SM2" sm2 1 0

request "CMS envelope, AES-256-CBC" - QZaven_crypto_envelope_encrypt strdata "$message" \
    strpk "b64:@$work/rsa.crt.der" strCipherAlg 4 strMode 2
decoded >"$work/sealed"
check "openssl cms opens it" same "$message" \
    "$(openssl cms -decrypt -inform DER -inkey "$work/rsa.pem" -in "$work/sealed")"
openssl cms -encrypt -binary -aes-256-cbc -outform DER -in "$work/message" -out "$work/sealed" "$work/rsa.crt.pem"
request "CMS envelope, open openssl's" - QZaven_crypto_envelope_decrypt strKeyPairType 3 \
    strEncdata "b64:@$work/sealed" strsk "b64:@$work/rsa.der" strCipherAlg 4 strMode 2
check "gives the message back" same "$message" "$(unescaped "$data")"
request "SM2 envelope, SM4-CBC" env QZaven_crypto_envelope_encrypt strdata "$message" \
    strpk "b64:@$work/sm2.crt.der" strCipherAlg 1 strMode 2
request "SM2 envelope, open it" - QZaven_crypto_envelope_decrypt strKeyPairType 1 \
    strEncdata '${env.Data}' strsk "b64:@$work/sm2.der" strCipherAlg 1 strMode 2
check "gives the message back" same "$message" "$(unescaped "$data")"

# The server's side is corvane-ke-peer, with certificates of its own making.
server=$work/server
"$peer" make-certs "$server"
request "key exchange, new session" ke QZaven_ke_new
ke=(strKe '${ke.Data}')
request "  client's key pairs" - QZaven_ke_set_public_key "${ke[@]}" \
    strSig_key "b64:@$work/sm2.der" strEnc_key "b64:@$work/sm2.der"
request "  client's certificates" - QZaven_ke_set_certificate "${ke[@]}" \
    strSig_cert "b64:@$work/sm2.crt.der" strEnc_cert "b64:@$work/sm2.crt.der"
request "  trusted root" - QZaven_ke_set_root_certificate "${ke[@]}" strCa_file "$server/root.crt"
request "  client hello" - QZaven_ke_client_hello "${ke[@]}"
answer=$("$peer" answer --dir "$server" --hello "$data")
value() { sed -n "s/.*\"$1\": *\"\([^\"]*\)\".*/\1/p" <<<"$answer"; }
request "  client key exchange" - QZaven_ke_client_key_exchange "${ke[@]}" \
    strSrvr_rand "$(value strSrvr_rand)" strSrvr_sig_cert "$(value strSrvr_sig_cert)" \
    strSrvr_enc_cert "$(value strSrvr_enc_cert)" strSrvr_sign "$(value strSrvr_sign)"
check "the server derives its keys" "$peer" finish --dir "$server" --message "$data"
text=$(base64 -w0 "$work/message")
request "  encrypt for the server" - QZaven_ke_encrypt "${ke[@]}" strdata "$text"
check "the server decrypts it" same "$text" "$("$peer" decrypt --dir "$server" --data "$data" | standard)"
request "  decrypt from the server" - QZaven_ke_decrypt "${ke[@]}" \
    strcipher "$("$peer" encrypt --dir "$server" --data "$text")"
check "gives the message back" same "$message" "$(decoded)"
request "  HMAC" - QZaven_ke_hmac "${ke[@]}" strdata "$text"
check "the server computes the same" same "$data" "$("$peer" hmac --dir "$server" --data "$text")"
request "  CMAC" - QZaven_ke_cmac "${ke[@]}" strdata "$text"
check "the server computes the same" same "$data" "$("$peer" cmac --dir "$server" --data "$text")"
request "  end of the session" - QZaven_ke_free "${ke[@]}"

exec {to_host}>&-
wait "$host_pid"
printf '\n%d checks: %d passed, %d failed\n' $((passed + failed)) "$passed" "$failed"
[ "$failed" -eq 0 ]
