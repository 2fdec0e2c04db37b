#!/usr/bin/env bash
# Measures the desktop program as a user runs it, on a private display against loopback services:
# resident memory idle in the tray with the overlay shown (after 5 s), then resident memory and processor
# use after listening for SECONDS (default 600, ten minutes).
#
#   bench/shell/measure.sh [SECONDS]
set -euo pipefail
cd "$(dirname "$0")/../.."

seconds=${1:-600}
scripts/install-deps.sh
launcher=()
if command -v ccache >/dev/null; then
    launcher=(-DCMAKE_CXX_COMPILER_LAUNCHER=ccache)
fi
cmake -S . -B build -G Ninja "${launcher[@]}" >/dev/null
cmake --build build -j2 --target tallowind loopback_services >/dev/null

export MEASURE_SECONDS="$seconds"
exec scripts/with-test-services.sh bash -c '
    set -euo pipefail
    export DISPLAY="$TALLOWIND_TEST_DISPLAY" QT_QPA_PLATFORM=xcb
    mkdir -p "$XDG_CONFIG_HOME/Tallowind"
    printf "[General]\nonboarded=true\n" > "$XDG_CONFIG_HOME/Tallowind/settings.ini"

    build/bench/shell/loopback_services > "$HOME/services.env" &
    services=$!
    for _ in $(seq 50); do [ -s "$HOME/services.env" ] && break; sleep 0.1; done
    set -a; . "$HOME/services.env"; set +a

    build/tallowind &
    program=$!
    trap "kill $program $services 2>/dev/null || true" EXIT
    for _ in $(seq 100); do xdotool search --name "Tallowind Overlay" >/dev/null 2>&1 && break; sleep 0.1; done

    rss() { awk "/^VmRSS/ {printf \"%.1f\", \$2 / 1024}" /proc/$program/status; }
    ticks() { awk "{print \$14 + \$15}" /proc/$program/stat; }

    sleep 5
    echo "idle with the overlay shown: $(rss) MB resident"

    xdotool key ctrl+alt+s
    sleep 2
    start=$(ticks)
    sleep "$MEASURE_SECONDS"
    end=$(ticks)
    hz=$(getconf CLK_TCK)
    cpu=$(awk -v t=$((end - start)) -v hz="$hz" -v s="$MEASURE_SECONDS" "BEGIN {printf \"%.2f\", 100 * t / hz / s}")
    echo "after ${MEASURE_SECONDS} s of listening: $(rss) MB resident, ${cpu} % of one core"
'
