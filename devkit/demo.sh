#!/usr/bin/env bash
# All requests on real data, through host, parameter module, plug-in and engine, and
# each checked by something else: the openssl command, or the key exchange's other side.
#   devkit/demo.sh PREFIX [FILE]               with PREFIX/bin/corvane-host: of a build tree or
#                                              an installation
#   devkit/demo.sh PREFIX --exchange [--rsa]   the key exchange alone; the server's keys are
#                                              SM2, or RSA
# The requests are those of walk.jsonl, a script for corvane-host in whose folder the files
# lie that it names.
set -euo pipefail

devkit=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
host=$(realpath "$1")/bin/corvane-host
peer=$(realpath "$1")/bin/corvane-ke-peer
shift
mapfile -t steps <"$devkit/walk.jsonl"
file=${1:-src/WebOperateAvenSoftModule.cpp}
server_keys=()
if [ "${1-}" = --exchange ]; then
    mapfile -t steps < <(printf '%s\n' "${steps[@]}" | grep '"id": "ke')
    server_keys=("${@:2}")
    file=
fi

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
[ -z "$file" ] || cp -- "$file" "$work/file"
passed=0
failed=0

# --- Requests. One host process answers each line with a line, so that the sessions of
# the key exchange live as long as they are needed.

coproc HOST { cd "$work" && exec "$host" script - --time 2>log; }
to_host=${HOST[1]} from_host=${HOST[0]} host_pid=$HOST_PID
cd "$work"

# A text of a line of JSON.
value() { sed -n "s/.*\"$1\": *\"\([^\"]*\)\".*/\1/p" <<<"$2"; }

# Sends a step and prints a row about it. Its result "Data" is in $data.
request() {
    local name line
    name=$(value request "$1")
    printf '%s\n' "$1" >&"$to_host"
    if ! IFS= read -r line <&"$from_host" || [[ $line != *'"ok":true'* ]]; then
        printf '%s failed: %s\n' "$name" "${line-}" >&2
        grep -v 'DEVELOPMENT ENGINE' log >&2
        exit 1
    fi
    data=$(value Data "$line")
    printf '%-39s %-30s %6.0f us\n' "$(value title "$1")" "$name" \
        "$(sed -n 's/.*"microseconds":\([0-9.]*\).*/\1/p' <<<"$line")"
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
    if "$@" 2>>check.log; then
        passed=$((passed + 1))
        printf '    ok      %s\n' "$what"
    else
        failed=$((failed + 1))
        printf '    FAILED  %s\n' "$what"
    fi
}
contains() { [[ $data == *"$1"* ]]; }
same() { [ -n "$1" ] && [ "$1" = "$2" ]; }
is_output_of() { decoded | cmp -s - <("$@"); }
gives_file_back() { check "gives the file back" is_output_of cat file; }
gives_message_back() { check "gives the message back" same "$message" "$1"; }

# --- What the requests are sent, and what must come of each: after_ID.

message='a message that is not secret'
printf '%s' "$message" >message
openssl rand -out iv 16
openssl rand -out nonce 12
openssl rand -out mackey 16
iv=$(hex <iv)
mackey=$(hex <mackey)

# key_pair NAME GENPKEY_ARGUMENT...: a key pair and a certificate, as PEM and DER.
key_pair() {
    local name=$1
    shift
    openssl genpkey -quiet -out "$name.pem" "$@" 2>>check.log ||
        openssl genpkey -out "$name.pem" "$@" 2>>check.log
    openssl pkey -in "$name.pem" -outform DER -out "$name.der"
    openssl pkey -in "$name.pem" -pubout -out "$name.pub.pem"
    openssl pkey -in "$name.pem" -pubout -outform DER -out "$name.pub.der"
    openssl req -x509 -new -key "$name.pem" -subj /CN=demo -days 1 -outform DER -out "$name.crt.der" \
        2>>check.log
    openssl x509 -inform DER -in "$name.crt.der" -out "$name.crt.pem"
}
[ -z "$file" ] || key_pair rsa -algorithm RSA -pkeyopt rsa_keygen_bits:2048
key_pair sm2 -algorithm EC -pkeyopt ec_paramgen_curve:SM2
# The server's side is corvane-ke-peer, with certificates of its own making.
"$peer" make-certs server "${server_keys[@]}"

after_version() { check "$data" contains "development engine"; }
after_error_text() { check "$data" contains "parameter is missing"; }
after_b64() { check "same as the base64 command" same "$(standard <<<"$data")" "$(base64 -w0 file)"; }
after_b64_back() { check "gives the file back" cmp -s <(unescaped "$data") file; }

after_gcm_back() { gives_file_back; }
after_sm4() { sm4=$(decoded | hex); }
after_cbc() { check "same as openssl enc" is_output_of openssl enc -sm4-cbc -K "$sm4" -iv "$iv" -in file; }
after_cbc_back() { gives_file_back; }
after_box() { after_cbc; }
after_box_back() { gives_file_back; }

after_hmac() {
    check "same as openssl dgst" is_output_of openssl dgst -sha256 -mac HMAC -macopt "hexkey:$mackey" -binary file
}
after_cmac() {
    check "same as openssl mac" is_output_of openssl mac -binary -macopt cipher:AES-128-CBC \
        -macopt "hexkey:$mackey" -in file CMAC
}
after_kdf() {
    check "same as openssl kdf" is_output_of openssl kdf -binary -keylen 48 -kdfopt digest:SHA256 \
        -kdfopt "secret:$message" X963KDF
}

# Both directions: openssl opens what was sealed, and seals what is opened next.
public_key() {
    local key=$1
    shift
    decoded >sealed
    check "openssl pkeyutl decrypts it" same "$message" \
        "$(openssl pkeyutl -decrypt -inkey "$key.pem" "$@" -in sealed)"
    openssl pkeyutl -encrypt -pubin -inkey "$key.pub.pem" "$@" -in message -out sealed
}
after_oaep() {
    public_key rsa -pkeyopt rsa_padding_mode:oaep -pkeyopt rsa_oaep_md:sha256 -pkeyopt rsa_mgf1_md:sha256
}
after_pkcs1() { public_key rsa -pkeyopt rsa_padding_mode:pkcs1; }
after_sm2() { public_key sm2; }
after_oaep_back() { gives_message_back "$(decoded)"; }
after_pkcs1_back() { gives_message_back "$(decoded)"; }
after_sm2_back() { gives_message_back "$(decoded)"; }

after_cms() {
    decoded >sealed
    check "openssl cms opens it" same "$message" \
        "$(openssl cms -decrypt -inform DER -inkey rsa.pem -in sealed)"
    openssl cms -encrypt -binary -aes-256-cbc -outform DER -in message -out sealed rsa.crt.pem
}
after_cms_back() { gives_message_back "$(unescaped "$data")"; }
after_sm2_envelope_back() { gives_message_back "$(unescaped "$data")"; }

after_ke_hello() {
    local answer field
    answer=$("$peer" answer --dir server --hello "$data")
    for field in rand sig_cert enc_cert sign; do
        value "strSrvr_$field" "$answer" | tr -d '\n' >"$field"
    done
}
after_ke_exchange() {
    check "the server derives its keys" "$peer" finish --dir server --message "$data"
    text=$(base64 -w0 message)
}
after_ke_encrypt() {
    check "the server decrypts it" same "$text" "$("$peer" decrypt --dir server --data "$data" | standard)"
    "$peer" encrypt --dir server --data "$text" | tr -d '\n' >from_server
}
after_ke_decrypt() { gives_message_back "$(decoded)"; }
after_ke_hmac() { check "the server computes the same" same "$data" "$("$peer" hmac --dir server --data "$text")"; }
after_ke_cmac() { check "the server computes the same" same "$data" "$("$peer" cmac --dir server --data "$text")"; }

# --- The work.

[ -z "$file" ] || printf 'The file: %s, %s bytes\n\n' "$file" "$(stat -c %s file)"
for step in "${steps[@]}"; do
    request "$step"
    after=after_$(value id "$step")
    if declare -F "$after" >/dev/null; then
        "$after"
    fi
done

exec {to_host}>&-
wait "$host_pid"
printf '\n%d checks: %d passed, %d failed\n' $((passed + failed)) "$passed" "$failed"
[ "$failed" -eq 0 ]
