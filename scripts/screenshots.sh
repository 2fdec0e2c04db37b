#!/usr/bin/env bash
# Renders the program's windows under a private X display with a compositor and saves them as PNG files
# in docs/screenshots/ (or the folder given as the first argument). Extra arguments name the scenes to
# render; without them every scene is rendered.
#
#   scripts/screenshots.sh                     every scene into docs/screenshots/
#   scripts/screenshots.sh /tmp/shots overlay-idle
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/install-deps.sh
output=$(realpath -m "${1:-docs/screenshots}")
shift || true
mkdir -p "$output"

launcher=()
if command -v ccache >/dev/null; then
    launcher=(-DCMAKE_CXX_COMPILER_LAUNCHER=ccache)
fi
cmake -S . -B build -G Ninja "${launcher[@]}" >/dev/null
cmake --build build -j2 --target tallowind_screenshots tallowind-server

export TALLOWIND_SERVER_BINARY="$PWD/build/tallowind-server"
exec scripts/with-test-services.sh sh -c '
    export DISPLAY="$TALLOWIND_TEST_DISPLAY" QT_QPA_PLATFORM=xcb
    xcompmgr -n >/dev/null 2>&1 &
    compositor=$!
    sleep 0.5
    status=0
    build/tools/screenshots/tallowind_screenshots "$@" || status=$?
    kill "$compositor" 2>/dev/null || true
    exit "$status"
' screenshots "$output" "$@"
