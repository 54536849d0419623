#!/usr/bin/env bash
# Measures `corvane-host serve` under load, beside nginx that answers with a constant, with
# stalled connections, with a worker that hangs, and while its workers are killed; and how much
# time processors spend on a request, whatever else the machine does. Ends with 1 if a promise is
# broken.
# Usage: bench/serve_load.sh [SECONDS OF KILLING, default 60]
# HOST may name a corvane-host that is built already. Wants a machine that is otherwise idle.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."
. bench/serving.sh
packaging/install-packages.sh "${serve_load_packages[@]}"

kill_seconds=${1:-60}
round_seconds=5
rounds=5
connections=8
stalled=1000

# load PORT SECONDS: prints requests per second, p50 and p99 in milliseconds, and the number
# of answers that were no success.
load() {
    wrk -t 1 -c "$connections" -d "$2" --latency -s bench/serve_request.lua \
        "http://127.0.0.1:$1/v1/requests/QZaven_crypto_hmac" | awk '
        function ms(time) {
            return time ~ /us$/ ? time / 1000 : time ~ /ms$/ ? time + 0 : time * 1000
        }
        $1 == "50%" { p50 = ms($2) }
        $1 == "99%" { p99 = ms($2) }
        /Requests\/sec/ { rate = $2 }
        /Non-2xx/ { failed = $NF }
        /Wrong answers/ { failed += $NF }
        /Socket errors/ { gsub(",", ""); failed += $4 + $6 + $8 + $10 }
        END { printf "%.0f %.2f %.2f %d\n", rate, p50, p99, failed }'
}
# ticks PID: ticks of a processor that it and its children have taken so far.
ticks() {
    # One that ends meanwhile has no file.
    { cat /proc/[0-9]*/stat 2>/dev/null || true; } | awk -v host="$1" '{
        pid = $1
        sub(/^.*\) /, "")
        if (pid == host || $2 == host) sum += $12 + $13
    } END { print sum }'
}
# measured PID PORT SECONDS: as load, and the microseconds of processor time for each request.
measured() {
    local before after figures
    before=$(ticks "$1")
    figures=$(load "$2" "$3")
    after=$(ticks "$1")
    echo "$figures $(awk -v ticks=$((after - before)) -v hertz="$(getconf CLK_TCK)" \
        -v requests="$(cut -d ' ' -f 1 <<<"$figures")" -v seconds="$3" \
        'BEGIN { printf "%.1f", ticks / hertz * 1e6 / (requests * seconds) }')"
}
median() { sort -g | awk '{ row[NR] = $1 } END { print row[int((NR + 1) / 2)] }'; }
# The medians of the columns of rows from `load`; the failures are added up.
medians() {
    echo "$(cut -d ' ' -f 1 "$1" | median) $(cut -d ' ' -f 2 "$1" | median)" \
        "$(cut -d ' ' -f 3 "$1" | median) $(awk '{ sum += $4 } END { print sum }' "$1")"
}

broken=0
# row WHAT RATE P50 P99 FAILED
row() {
    printf '%s|%s|%s|%s|%s\n' "$@" >>"$work/table"
    [ "$5" -eq 0 ] || broken=1
}
echo "what|requests/s|p50 ms|p99 ms|failed" >"$work/table"

# --- nginx and the host, in turn, so that what else the machine does meets all alike.

nginx_port=$(python3 -c 'import socket; s = socket.socket(); s.bind(("127.0.0.1", 0)); print(s.getsockname()[1])')
cat >"$work/nginx.conf" <<EOF
daemon off;
master_process off;
pid $work/nginx.pid;
error_log $work/nginx.log;
events { worker_connections 4096; }
http {
    access_log $work/nginx-access;
    client_body_temp_path $work/body;
    proxy_temp_path $work/proxy;
    fastcgi_temp_path $work/fastcgi;
    uwsgi_temp_path $work/uwsgi;
    scgi_temp_path $work/scgi;
    keepalive_requests 1000000000;
    server {
        listen 127.0.0.1:$nginx_port;
        default_type application/json;
        location / {
            return 200 '{"results":{"Data":"W9zBRr9gdU5qBCQmCJV1x1oAPwidJzmDnewFuWTsOEM=","errorCode":"0"},"error":null,"warnings":[],"microseconds":12.3}\n';
        }
    }
}
EOF
nginx -c "$work/nginx.conf" -p "$work" 2>>"$work/nginx.log" &
nginx_pid=$!
others+=("$nginx_pid")
until curl -fs "http://127.0.0.1:$nginx_port/" >/dev/null; do sleep 0.05; done

export TOKEN=
for _ in $(seq "$rounds"); do
    measured "$nginx_pid" "$nginx_port" "$round_seconds" >>"$work/nginx-rows"
    for workers in 1 2; do
        serve "$workers" --rate 0
        load "$port" "$round_seconds" >>"$work/serve-$workers"
        CHECKED=1 measured "$server" "$port" "$round_seconds" >>"$work/cost-$workers"
        end_server
    done
done
read -r -a figures <<<"$(medians "$work/nginx-rows")"
row "nginx, a constant, one process" "${figures[@]}"
for workers in 1 2; do
    read -r -a figures <<<"$(medians "$work/serve-$workers")"
    row "HMAC, workers: $workers" "${figures[@]}"
    read -r -a figures <<<"$(medians "$work/cost-$workers")"
    row "HMAC, workers: $workers, every answer looked at" "${figures[@]}"
done
ratio=$(awk 'FNR == 1 { ++file } { rows[file] = rows[file] " " $1 } END {
    split(rows[1], nginx, " ")
    for (i = split(rows[2], host, " "); i > 0; --i) printf "%.2f\n", host[i] / nginx[i]
}' "$work/nginx-rows" "$work/serve-2" | median)
cost=$(cut -d ' ' -f 5 "$work/cost-2" | median)
nginx_cost=$(cut -d ' ' -f 5 "$work/nginx-rows" | median)

# --- Stalled connections, likewise in turn with none.

serve 2 --rate 0 --read-seconds 3600
held=$stalled
for _ in $(seq "$rounds"); do
    load "$port" "$round_seconds" >>"$work/free"
    coproc STALL { python3 bench/serve_stall.py "$port" "$stalled" "$TOKEN"; }
    stall_out=${STALL[0]} stall_in=${STALL[1]} stall_pid=$STALL_PID
    read -r ready <&"$stall_out"
    [ "$ready" = ready ]
    load "$port" "$round_seconds" >>"$work/stalled"
    exec {stall_in}>&-
    read -r left <&"$stall_out"
    wait "$stall_pid"
    [ "$left" -ge "$held" ] || held=$left
done
end_server
read -r -a free <<<"$(medians "$work/free")"
read -r -a beside <<<"$(medians "$work/stalled")"
row "HMAC, workers: 2, nobody stalled" "${free[@]}"
row "HMAC, workers: 2, beside $held stalled connections" "${beside[@]}"
# Of what each round adds to the one before it.
added=$(paste -d ' ' "$work/free" "$work/stalled" | awk '{ printf "%.2f\n", $7 - $3 }' | median)
awk -v added="$added" 'BEGIN { exit !(added <= 5) }' || broken=1
[ "$held" -eq "$stalled" ] || broken=1

# --- A worker that hangs, likewise in turn with none: one request waits, the others are served
# by the other worker.

serve 1 --rate 0
for _ in $(seq "$rounds"); do
    load "$port" "$round_seconds" >>"$work/alone"
done
end_server
serve 2 --rate 0 --request-seconds 600
for _ in $(seq "$rounds"); do
    hanging=$(pgrep -P "$server" -f '^corvane-host' | head -n 1)
    kill -STOP "$hanging"
    load "$port" "$round_seconds" >>"$work/hanging"
    kill -CONT "$hanging"
done
end_server
read -r -a alone <<<"$(medians "$work/alone")"
read -r -a hanging <<<"$(medians "$work/hanging")"
row "HMAC, workers: 1" "${alone[@]}"
row "HMAC, workers: 2, one of them hangs" "${hanging[@]}"
hang_added=$(paste -d ' ' "$work/alone" "$work/hanging" | awk '{ printf "%.2f\n", $7 - $3 }' | median)
awk -v added="$hang_added" 'BEGIN { exit !(added <= 5) }' || broken=1

# --- A worker is killed every second.

serve 2 --rate 0
load "$port" $((kill_seconds + 3)) >"$work/killed" &
loading=$!
checked=$(python3 bench/serve_check.py "$port" "$TOKEN" "$server" "$kill_seconds" 4) || broken=1
wait "$loading"
end_server
read -r -a killed <<<"$(cat "$work/killed")"
value() { sed -n "s/.*\"$1\": \([0-9.]*\).*/\1/p" <<<"$checked"; }
kills=$(value kills)
lost=$((killed[3] + $(value failed)))
[ "$lost" -le "$kills" ] || broken=1

column -t -s '|' -o ' | ' "$work/table"
cat <<EOF

A request takes $cost microseconds of processor time, front and workers together, one of nginx's
$nginx_cost; two workers serve $ratio of nginx's rate (goal: 0.3).
One worker that hangs adds $hang_added ms to p99 (must: 5 at most).
$stalled stalled connections add $added ms to p99 (must: 5 at most); $held of them were held throughout.
$kills workers killed in $kill_seconds s at ${killed[0]} requests/s: $(value right) answers checked and right,
$lost requests lost in all (must: one for each kill at most), $(value wrong) wrong answers, $(value unexcused) failures without a kill;
all workers were back after $(value longest_gap_ms) ms at the longest.
$(sed -n 's/^model name\t*: //p' /proc/cpuinfo | head -n 1), $(nproc) processors, load $(cut -d ' ' -f 1-3 /proc/loadavg)
EOF
if [ "$broken" -ne 0 ]; then
    printf 'BROKEN: %s\n' "$checked"
    exit 1
fi
