#!/usr/bin/env bash
# Builds and runs examples/clients as their README.md tells, against a service of a build, at paths
# with a blank, and looks at what they print.
#   tests/clients.sh [BUILD]    without one, build/release
# A language whose packages are not here is NOT TESTED, and named.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."
. packaging/packages.sh
. packaging/needs.sh

build=$(realpath "${1-build/release}")
scratch=$(mktemp -d)
server=
finish() {
    [ -z "$server" ] || kill "$server" 2>/dev/null || true
    rm -rf "$scratch"
}
trap finish EXIT
clients=$scratch/the\ clients
cp -R examples/clients "$clients"
rm -rf "$clients/build"
readme=$clients/README.md

# The code below a heading of README.md.
block() {
    awk -v heading="$1" '
        /^#+ / { sub(/^#+ /, ""); here = ($0 == heading) }
        /^```$/ { inside = !inside; next }
        inside && here' "$readme"
}

# The languages of README.md's table, each with its packages: "C|gcc libjansson-dev".
languages() {
    sed -n 's/^| \[\([^]]*\)\].*| \(`.*`\) |$/\1|\2/p' "$readme" | tr -d '`,'
}

# expect WHAT COMMAND...: one fact; what the command prints only if it does not hold.
expect() {
    local said
    if said=$("${@:2}" 2>&1); then
        echo "ok      $1"
    else
        echo "FAILED  $1"
        printf '%s\n' "$said" | tail -n 20
    fi
}

same() { diff <(printf '%s\n' "$1") <(printf '%s\n' "$2"); }
lacks() { ! grep -F -- "$1" "$2"; }

# run FOLDER COMMANDS: as README.md has them, with what they print in the folder.
run() {
    local status=0
    (cd "$clients" && bash -ec "$2") >"$1/out" 2>"$1/err" || status=$?
    return $status
}

# refuses FOLDER COMMAND TEXT: the client prints nothing, says the text, and ends with 1.
refuses() {
    local status=0
    run "$1" "$2" || status=$?
    cat "$1/out" "$1/err"
    [ $status -eq 1 ] && [ ! -s "$1/out" ] && grep -q -- "$3" "$1/err"
}

prints() {
    run "$1" "$2" && same "$(block "What they print" | sed '/^error/d')" "$(cat "$1/out")" ||
        { cat "$1/err" && false; }
}

# What README.md shows for a token that is wrong.
wrong_token=$(block "What they print" | grep ^error)

# check LANGUAGE FOLDER: all facts of one language.
check() {
    local commands last said=$2/said
    commands=$(block "$1")
    last=$(tail -n 1 <<<"$commands")
    mkdir "$2"
    expect "$1 prints what README.md shows" prints "$2" "$commands"
    cp "$2/out" "$said"
    cat "$2/err" >>"$said"
    CORVANE_TOKEN_FILE=$scratch/wrong\ token \
        expect "$1 tells of a wrong token" refuses "$2" "$last" "^$wrong_token\$"
    cat "$2/out" "$2/err" >>"$said"
    CORVANE_TOKEN_FILE=$scratch/no\ token \
        expect "$1 tells of a missing token" refuses "$2" "$last" "^error: .*no token"
    # Nobody listens at this port, for which one would have to be root.
    CORVANE_URL=http://127.0.0.1:1 \
        expect "$1 tells of a service that is not there" refuses "$2" "$last" "^error: "
    cat "$2/out" "$2/err" >>"$said"
    expect "$1 shows no token" lacks "$(cat "$scratch/a token")" "$said"
}

# The shell's client starts programs, whose arguments others can read: token, key, IV and plaintext
# are not among them.
spied() {
    local program arguments=$1/arguments
    mkdir -p "$1/bin"
    for program in curl jq openssl; do
        printf '#!/bin/sh\nprintf "%%s\\n" "$@" >>"%s"\nexec "%s" "$@"\n' "$arguments" \
            "$(command -v $program)" >"$1/bin/$program"
        chmod +x "$1/bin/$program"
    done
    PATH=$1/bin:$PATH run "$1" "$(block Shell)" &&
        grep -q -- --json "$arguments" &&
        lacks "$(cat "$scratch/a token")" "$arguments" &&
        lacks "usual place" "$arguments" &&
        ! grep -E '[A-Za-z0-9_-]{43}=|[0-9a-f]{24}' "$arguments"
}

"$build/bin/corvane-host" serve --listen 127.0.0.1:0 --token-file "$scratch/a token" \
    >"$scratch/log" 2>&1 &
server=$!
until CORVANE_URL=$(sed -n 's/.*listening on //p' "$scratch/log") && [ -n "$CORVANE_URL" ]; do
    kill -0 $server || { cat "$scratch/log" && exit 1; }
    sleep 0.1
done
export CORVANE_URL CORVANE_TOKEN_FILE=$scratch/a\ token
(umask 077 && tr A-Za-z B-ZAb-za <"$scratch/a token" >"$scratch/wrong token")

# All at once, as they wait for each other's compilers.
rows=$(languages)
jobs=()
number=0
while IFS='|' read -r language packages; do
    number=$((number + 1))
    # shellcheck disable=SC2086  # several words
    missing=$(show_needs missing $packages)
    if [ -n "$missing" ]; then
        printf 'NOT TESTED: %s. Needed:\n%s\n' "$language" "$missing" >"$scratch/$number.log"
        continue
    fi
    {
        check "$language" "$scratch/$number"
        [ "$language" != Shell ] ||
            expect "Shell has no secret on a command line" spied "$scratch/$number"
    } >"$scratch/$number.log" 2>&1 &
    jobs+=($!)
done <<<"$rows"
[ ${#jobs[@]} -eq 0 ] || wait "${jobs[@]}"

{
    for log in "$scratch"/[0-9]*.log; do
        cat "$log"
    done
    # shellcheck disable=SC2154  # of packages.sh
    expect "README.md names the packages that are installed for this" same \
        "$(printf '%s\n' "${client_packages[@]}" | sort -u)" \
        "$(cut -d '|' -f 2 <<<"$rows" | tr ' ' '\n' | sort -u)"
    expect "it has six languages" [ "$(wc -l <<<"$rows")" -eq 6 ]
} | tee "$scratch/result"
failed=$(grep -c '^FAILED' "$scratch/result" || true)
echo "$failed facts do not hold"
[ "$failed" -eq 0 ]
