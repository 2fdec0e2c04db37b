#!/usr/bin/env bash
# The first command for a newcomer: installs what is missing, builds, starts Tallowind's own backend server
# in development mode on this machine and runs Tallowind against it. With a display, the desktop program
# starts with onboarding, where you sign in with the development code it shows; without one, a local
# account is signed in for you and one test answer streams into the terminal. The server stops when the
# program ends.
#
#   scripts/run.sh                                   server on http://127.0.0.1:8787
#   TALLOWIND_SERVER=http://127.0.0.1:9000 scripts/run.sh   another port
#   TALLOWIND_EMAIL=you@example.org scripts/run.sh   the local account's address (without a display)
#   TALLOWIND_RESUME=~/cv.txt scripts/run.sh         your own resume instead of the sample (without a display)
#
# Without a language model configured the server answers offline (it lists the resume lines closest to
# the question); see the README for TALLOWIND_SERVER_LLM_URL and the other server settings.
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/install-deps.sh

launcher=()
if command -v ccache >/dev/null; then
    launcher=(-DCMAKE_CXX_COMPILER_LAUNCHER=ccache)
fi
cmake -S . -B build -G Ninja "${launcher[@]}"
cmake --build build -j2 --target tallowind tallowind-server

server_url=${TALLOWIND_SERVER:-http://127.0.0.1:8787}
server_url=${server_url%/}
address=${server_url#*://}
address=${address%%/*}

build/tallowind-server --dev --listen "$address" &
server_pid=$!
stop_server() {
    kill "$server_pid" 2>/dev/null || true
    wait "$server_pid" 2>/dev/null || true
}
trap stop_server EXIT

for _ in $(seq 100); do
    if curl -s -o /dev/null "$server_url/releases/latest.json"; then
        break
    fi
    if ! kill -0 "$server_pid" 2>/dev/null; then
        echo "error: the server didn't start (is something else listening on $address?)" >&2
        exit 1
    fi
    sleep 0.1
done

status=0
if [ -n "${DISPLAY:-}${WAYLAND_DISPLAY:-}" ]; then
    # The desktop program starts with onboarding for a newcomer: sign in with any address and the
    # development code that the onboarding shows (the server runs with --dev).
    echo "Tallowind is running against $server_url; sign in with the code it shows. Ctrl+C stops it and the server."
    TALLOWIND_SERVER="$server_url" build/tallowind || status=$?
    exit "$status"
fi

json_field() {
    python3 -c 'import json, sys; print(json.load(sys.stdin)[sys.argv[1]])' "$1"
}
email=${TALLOWIND_EMAIL:-me@tallowind.localhost}
code=$(curl -sS -X POST "$server_url/auth/start" -H 'content-type: application/json' \
    -d "{\"email\": \"$email\"}" | json_field devCode)
token=$(curl -sS -X POST "$server_url/auth/verify" -H 'content-type: application/json' \
    -d "{\"email\": \"$email\", \"code\": \"$code\"}" | json_field token)
echo "Signed in as $email on $server_url."

export TALLOWIND_SERVER="$server_url" TALLOWIND_TOKEN="$token"
export TALLOWIND_RESUME="${TALLOWIND_RESUME:-$PWD/samples/resume.txt}"
build/tallowind --test-answer "Tell me about a project you are proud of." || status=$?
exit "$status"
