#!/usr/bin/env bash
# Measures the processor time that HAProxy takes for a small request, with packaging/haproxy's rules,
# beside that of the two nodes behind it; with TLS on both sides, and without.
# HOST may name a corvane-host that is built already. On a busy machine both take longer, and only
# how much one takes of the other says something.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."
. bench/serving.sh
packaging/install-packages.sh "${serve_load_packages[@]}" "${balancer_packages[@]}"

rounds=5
round_seconds=8
port=18443 # the balancer's

openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes -days 2 -subj /CN=corvane.internal \
    -addext subjectAltName=DNS:corvane.internal -keyout "$work/key" -out "$work/certificate" 2>/dev/null
cat "$work/certificate" "$work/key" >"$work/both"

# start_nodes [OPTION]...: each on a port of its own, all with one token.
start_nodes() {
    local node
    nodes=() servers=
    for node in n1 n2; do
        : >"$work/out"
        "$HOST" serve --listen 127.0.0.1:0 --node "$node" --workers 1 --no-peer --rate 0 \
            --token-file "$work/token" --access-log /dev/null "$@" >"$work/out" 2>"$work/log" &
        nodes+=($!)
        others+=($!)
        until grep -q listening "$work/out"; do
            kill -0 $! || { cat "$work/log" >&2; exit 1; }
            sleep 0.05
        done
        servers+="    server $node $(sed -n 's|.*listening on https*://||p' "$work/out")\\n"
    done
    TOKEN=$(cat "$work/token")
    export TOKEN
}
# start_balancer SCHEME [SED_EXPRESSION]...: with these changes to what packaging/haproxy has.
start_balancer() {
    local scheme=$1 change changes=()
    shift
    for change in "$@"; do changes+=(-e "$change"); done
    sed -e '/^ *\(user\|group\|chroot\) /d' -e '/^ *log \(\/dev\|global\)/d' -e '/^ *log-format /d' \
        -e "s|/etc/haproxy/corvane.pem|$work/both|" \
        -e "s|/etc/haproxy/corvane-hosts.crt|$work/certificate|" \
        -e "s|bind :443|bind 127.0.0.1:$port|" \
        -e '/^    server [bc] /d' -e "s|^    server a .*|$servers|" "${changes[@]}" \
        packaging/haproxy/haproxy.cfg >"$work/haproxy.cfg"
    haproxy -q -f "$work/haproxy.cfg" &
    balancer=$!
    others+=("$balancer")
    until curl -fks "$scheme://127.0.0.1:$port/readyz" >/dev/null; do
        kill -0 "$balancer" || exit 1
        sleep 0.2
    done
}
end_all() {
    kill "${others[@]}"
    wait "${others[@]}" || true
    others=()
}
# ticks PID...: of a processor, that they and their children have taken so far.
ticks() {
    local pid each
    for pid in "$@"; do
        for each in "$pid" $(cat "/proc/$pid/task/$pid/children"); do cat "/proc/$each/stat"; done
    done | awk '{ sub(/^.*\) /, ""); sum += $12 + $13 } END { print sum }'
}
# round SCHEME: microseconds of processor time for a request, of the balancer and of the nodes.
round() {
    local balancer_before nodes_before requests
    balancer_before=$(ticks "$balancer")
    nodes_before=$(ticks "${nodes[@]}")
    requests=$(wrk -t 1 -c 8 -d $round_seconds -s bench/serve_request.lua \
        "$1://127.0.0.1:$port/v1/requests/QZaven_crypto_hmac" |
        awk '/Non-2xx|Socket errors/ { exit 1 } /requests in/ { print $1 }')
    awk -v requests="$requests" -v hertz="$(getconf CLK_TCK)" \
        -v balancer=$(($(ticks "$balancer") - balancer_before)) \
        -v nodes=$(($(ticks "${nodes[@]}") - nodes_before)) \
        'BEGIN { scale = 1e6 / hertz / requests; print balancer * scale, nodes * scale }'
}
median() { sort -g | awk '{ row[NR] = $1 } END { print row[int((NR + 1) / 2)] }'; }
# measure WHAT SCHEME: the medians of some rounds.
measure() {
    local one two
    for ((i = 0; i < rounds; ++i)); do round "$2"; done >"$work/rounds"
    one=$(cut -d ' ' -f 1 "$work/rounds" | median)
    two=$(cut -d ' ' -f 2 "$work/rounds" | median)
    printf '%-18s %8.1f %8.1f %8.2f\n' "$1" "$one" "$two" "$(awk "BEGIN { print $one / $two }")"
}

printf '%-18s %8s %8s %8s\n' 'us for a request' HAProxy node 'of it'
start_nodes --tls-cert "$work/certificate" --tls-key "$work/key"
start_balancer https
measure 'TLS on both sides' https
end_all
start_nodes
start_balancer http 's/^\( *bind [^ ]*\) .*/\1/' '/default-server ssl/d'
measure 'without TLS' http
end_all
