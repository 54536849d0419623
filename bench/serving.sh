# shellcheck shell=bash
# A running host to measure; sourced by the scripts here, which run at the top of the checkout.
# HOST may name a corvane-host that is built already.
. bench/build.sh

packaging/install-packages.sh "${serve_packages[@]}"
if [ -z "${HOST-}" ]; then
    build_programs corvane-host
    HOST=$build/bin/corvane-host
fi

work=$(mktemp -d)
server=
others=() # processes that end with the script
finish() {
    for process in $server "${others[@]}"; do
        kill "$process" 2>/dev/null || continue
        wait "$process" || true
    done
    rm -rf "$work"
}
trap finish EXIT
ulimit -n "$(ulimit -Hn)"

# serve WORKERS [OPTION]...: starts the host; $port, $TOKEN and $server are its own.
serve() {
    local workers=$1
    shift
    : >"$work/out"
    "$HOST" serve --listen 127.0.0.1:0 --workers "$workers" --token-file "$work/token" \
        --access-log "$work/access" "$@" >"$work/out" 2>"$work/log" &
    server=$!
    until grep -q listening "$work/out"; do
        kill -0 "$server" || { cat "$work/log" >&2; exit 1; }
        sleep 0.05
    done
    port=$(sed -n 's/.*listening on http:.*:\([0-9]*\)$/\1/p' "$work/out")
    TOKEN=$(cat "$work/token")
    export TOKEN
    until curl -fs "http://127.0.0.1:$port/readyz" >/dev/null; do sleep 0.05; done
}
# Its status is the host's.
end_server() {
    local ended=$server
    server=
    kill "$ended"
    wait "$ended"
}
