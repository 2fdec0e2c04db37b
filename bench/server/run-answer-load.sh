#!/usr/bin/env bash
# The backend server under load, in one run: one process on SQLite beside two processes sharing one
# PostgreSQL (a private cluster started here), each measured the same way.
#
#   wrk, an outside client on kept-alive connections, asks for GET /me and an offline POST /answer:
#   requests per second and latency. Every request after a connection's first shows what the program
#   pays for its speech tokens, usage reports and answers.
#   server_answer_load streams answers (offline, then relaying a fake model on loopback): answers per
#   second and the time to the first piece.
#
#   bench/server/run-answer-load.sh [BUILD_DIR]     (default build/; builds the two targets first)
#   CLIENTS=100 SECONDS_EACH=20 bench/server/run-answer-load.sh
#   PIECES=20 INTERVAL_MS=25 bench/server/run-answer-load.sh   the fake model's pace
#   SETUPS=sqlite bench/server/run-answer-load.sh               only one of sqlite, postgresql
set -euo pipefail
cd "$(dirname "$0")/../.."
build=${1:-build}
clients=${CLIENTS:-50}
seconds=${SECONDS_EACH:-10}
pieces=${PIECES:-20}
interval=${INTERVAL_MS:-25}
setups=${SETUPS:-sqlite postgresql}

for tool in wrk curl python3; do
    command -v "$tool" >/dev/null || { echo "error: $tool is missing (scripts/install-deps.sh installs it)" >&2; exit 1; }
done
cmake --build "$build" -j2 --target tallowind-server server_answer_load >/dev/null

work=$(mktemp -d)
pids=()
pg_bin=
cleanup() {
    for pid in "${pids[@]}"; do
        kill "$pid" 2>/dev/null || true
        wait "$pid" 2>/dev/null || true
    done
    if [ -n "$pg_bin" ] && [ -f "$work/pg/data/postmaster.pid" ]; then
        as_db_owner "$pg_bin/pg_ctl" stop -D "$work/pg/data" -m immediate -w >/dev/null 2>&1 || true
    fi
    rm -rf "$work"
}
trap cleanup EXIT

# PostgreSQL refuses to run as root: then the cluster belongs to nobody.
as_db_owner() {
    if [ "$(id -u)" -eq 0 ]; then
        PATH=$PATH:/usr/sbin:/sbin runuser -u nobody -- "$@"
    else
        "$@"
    fi
}

# A throwaway cluster in the work folder, on a Unix socket there and no TCP port; sets database.
start_postgres() {
    pg_bin=$(find /usr/lib/postgresql -maxdepth 3 -name pg_ctl -path '*/bin/*' 2>/dev/null | sort -V | tail -n1 | xargs -r dirname)
    [ -n "$pg_bin" ] || { echo "error: PostgreSQL's server is not installed (scripts/install-deps.sh installs it)" >&2; exit 1; }
    mkdir -p "$work/pg"
    [ "$(id -u)" -eq 0 ] && chown nobody "$work" "$work/pg"
    (cd "$work/pg" && as_db_owner "$pg_bin/initdb" -D "$work/pg/data" -U tallowind --auth=trust --no-sync \
        --encoding=UTF8 --locale=C >/dev/null)
    (cd "$work/pg" && as_db_owner "$pg_bin/pg_ctl" start -D "$work/pg/data" -l "$work/pg/log" -w \
        -o "-k $work/pg -c listen_addresses='' -c max_connections=600" >/dev/null)
    (cd "$work/pg" && as_db_owner "$pg_bin/createdb" -h "$work/pg" -U tallowind bench)
    database="postgresql:///bench?host=$work/pg&user=tallowind"
}

free_port() {
    python3 -c 'import socket; s = socket.socket(); s.bind(("127.0.0.1", 0)); print(s.getsockname()[1])'
}

wait_for() {
    for _ in $(seq 100); do
        curl -s -o /dev/null "$1" && return 0
        sleep 0.05
    done
    echo "error: nothing answers at $1" >&2
    exit 1
}

# Starts COUNT development servers with extra arguments, on SQLite or the private database; sets
# server_urls (comma-separated), server_pids and token (valid on all of them).
start_servers() {
    local setup=$1 count=$2
    shift 2
    server_urls=
    server_pids=()
    for _ in $(seq "$count"); do
        local port
        port=$(free_port)
        local store=(--data "$work/data-$port")
        [ "$setup" = postgresql ] && store=(--database "$database")
        "$build/tallowind-server" --dev --listen "127.0.0.1:$port" --threads 256 "${store[@]}" "$@" \
            2>"$work/server-$port.log" &
        server_pids+=("$!")
        pids+=("$!")
        server_urls=${server_urls:+$server_urls,}http://127.0.0.1:$port
    done
    for url in ${server_urls//,/ }; do
        wait_for "$url/releases/latest.json"
    done
    local first=${server_urls%%,*} code
    code=$(curl -sS -X POST "$first/auth/start" -d '{"email":"bench@example.org"}' |
        python3 -c 'import json, sys; print(json.load(sys.stdin)["devCode"])')
    token=$(curl -sS -X POST "$first/auth/verify" -d "{\"email\":\"bench@example.org\",\"code\":\"$code\"}" |
        python3 -c 'import json, sys; print(json.load(sys.stdin)["token"])')
}

# Stops the servers and shows the failures they logged, counted.
stop_servers() {
    for pid in "${server_pids[@]}"; do
        kill "$pid"
        wait "$pid" 2>/dev/null || true
    done
    grep -h " failed: " "$work"/server-*.log | sed 's/^tallowind-server: //' | sort | uniq -c | sort -rn | head -5 || true
    rm -f "$work"/server-*.log
}

# wrk against every server at once, the connections split between them, for SECONDS_EACH or the fifth
# argument's seconds; prints one line of figures.
cat >"$work/request.lua" <<'LUA'
wrk.method = os.getenv("METHOD")
wrk.headers["Authorization"] = "Bearer " .. os.getenv("TOKEN")
if os.getenv("BODY") ~= "" then
    wrk.headers["Content-Type"] = "application/json"
    wrk.body = os.getenv("BODY")
end
function done(summary, latency, requests)
    local e = summary.errors
    io.write(string.format("figures %d %d %d %d %d %d %d\n", summary.requests, summary.duration, e.status,
        e.connect + e.read + e.write, e.timeout, latency:percentile(50), latency:percentile(99)))
end
LUA
measure_wrk() {
    local label=$1 method=$2 path=$3 body=$4 duration=${5:-$seconds}
    local urls=(${server_urls//,/ })
    local each=$((clients / ${#urls[@]})) runs=()
    for url in "${urls[@]}"; do
        METHOD=$method TOKEN=$token BODY=$body wrk -t2 -c"$each" -d"${duration}s" -s "$work/request.lua" "$url$path" \
            >"$work/wrk-${#runs[@]}.out" &
        runs+=("$!")
    done
    for run in "${runs[@]}"; do
        wait "$run"
    done
    cat "$work"/wrk-*.out | python3 -c '
import sys
rows = [list(map(int, line.split()[1:])) for line in sys.stdin if line.startswith("figures ")]
requests = sum(r[0] for r in rows)
seconds = max(r[1] for r in rows) / 1e6
refused, broken, late = (sum(r[i] for r in rows) for i in (2, 3, 4))
print(f"'"$label"': {requests / seconds:8.0f} requests/s, p50 {max(r[5] for r in rows) / 1000:.2f} ms, "
      f"p99 {max(r[6] for r in rows) / 1000:.2f} ms; errors: {refused} status, {broken} socket, {late} timeout")'
    rm -f "$work"/wrk-*.out
}

answer_body='{"question":"Tell me about a project you are proud of.","transcript":[],"resume":"Led the streaming pipeline\nMentored four engineers","jobDescription":"","extraInstructions":""}'

model_port=$(free_port)
"$build/bench/server/server_answer_load" model "$model_port" "$pieces" "$interval" 2>/dev/null &
pids+=("$!")
wait_for "http://127.0.0.1:$model_port/"

for setup in $setups; do
    count=1
    if [ "$setup" = postgresql ]; then
        count=2
        [ -n "$pg_bin" ] || start_postgres
    fi
    echo "== $setup: $count server process(es), $clients clients, ${seconds} s each"
    start_servers "$setup" "$count"
    # Each server opens its database connections as load first arrives; the figures are for the load
    # that follows.
    measure_wrk "warm-up              " GET /me "" 2 >/dev/null
    measure_wrk "wrk GET /me          " GET /me ""
    measure_wrk "wrk POST /answer     " POST /answer "$answer_body"
    echo "-- offline answers"
    "$build/bench/server/server_answer_load" load "$server_urls" "$token" "$clients" "$seconds"
    stop_servers
    echo "-- fake model ($pieces pieces, $interval ms apart)"
    start_servers "$setup" "$count" --llm-url "http://127.0.0.1:$model_port/v1" --llm-model fake
    measure_wrk "warm-up              " GET /me "" 2 >/dev/null
    "$build/bench/server/server_answer_load" load "$server_urls" "$token" "$clients" "$seconds"
    stop_servers
done
