#!/usr/bin/env bash
# Answer streams per second and time to first piece for the backend server at 50 concurrent clients,
# once with the offline engine and once relaying a fake OpenAI-compatible model on loopback.
#
#   bench/server/run-answer-load.sh [BUILD_DIR]     (default build/; builds the two targets first)
#   CLIENTS=100 SECONDS_EACH=20 bench/server/run-answer-load.sh
#   PIECES=20 INTERVAL_MS=25 bench/server/run-answer-load.sh   the fake model's pace
set -euo pipefail
cd "$(dirname "$0")/../.."
build=${1:-build}
clients=${CLIENTS:-50}
seconds=${SECONDS_EACH:-10}
pieces=${PIECES:-20}
interval=${INTERVAL_MS:-25}

cmake --build "$build" -j2 --target tallowind-server server_answer_load >/dev/null

work=$(mktemp -d)
pids=()
cleanup() {
    for pid in "${pids[@]}"; do
        kill "$pid" 2>/dev/null || true
        wait "$pid" 2>/dev/null || true
    done
    rm -rf "$work"
}
trap cleanup EXIT

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

# Starts a development server with extra arguments; sets server_url and token.
start_server() {
    local port
    port=$(free_port)
    "$build/tallowind-server" --dev --listen "127.0.0.1:$port" --data "$work/data-$port" --threads 256 "$@" \
        2>"$work/server-$port.log" &
    server_pid=$!
    pids+=("$server_pid")
    server_url="http://127.0.0.1:$port"
    wait_for "$server_url/releases/latest.json"
    local code
    code=$(curl -sS -X POST "$server_url/auth/start" -d '{"email":"bench@example.org"}' |
        python3 -c 'import json, sys; print(json.load(sys.stdin)["devCode"])')
    token=$(curl -sS -X POST "$server_url/auth/verify" -d "{\"email\":\"bench@example.org\",\"code\":\"$code\"}" |
        python3 -c 'import json, sys; print(json.load(sys.stdin)["token"])')
}

stop_server() {
    kill "$server_pid"
    wait "$server_pid" 2>/dev/null || true
}

echo "== offline engine, $clients clients, ${seconds} s"
start_server
"$build/bench/server/server_answer_load" load "$server_url" "$token" "$clients" "$seconds"
stop_server

model_port=$(free_port)
"$build/bench/server/server_answer_load" model "$model_port" "$pieces" "$interval" 2>/dev/null &
pids+=("$!")
wait_for "http://127.0.0.1:$model_port/"
echo "== fake model ($pieces pieces, $interval ms apart), $clients clients, ${seconds} s"
start_server --llm-url "http://127.0.0.1:$model_port/v1" --llm-model fake
"$build/bench/server/server_answer_load" load "$server_url" "$token" "$clients" "$seconds"
stop_server
