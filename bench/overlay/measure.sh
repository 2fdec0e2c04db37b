#!/usr/bin/env bash
# Measures the overlay on a private X display: chunk to painted (median and 99th percentile of an answer
# of 20 KB streamed in 400 pieces), launch to overlay on screen (median of RUNS launches, default 15) and
# resident memory with the overlay shown, idle, after 5 s.
#
#   bench/overlay/measure.sh [RUNS]
set -euo pipefail
cd "$(dirname "$0")/../.."

runs=${1:-15}
build=${BUILD_DIR:-build}
scripts/install-deps.sh
launcher=()
if command -v ccache >/dev/null; then
    launcher=(-DCMAKE_CXX_COMPILER_LAUNCHER=ccache)
fi
cmake -S . -B "$build" -G Ninja "${launcher[@]}" >/dev/null
cmake --build "$build" -j2 --target overlay_paint overlay_launch >/dev/null

export OVERLAY_RUNS="$runs" OVERLAY_BUILD="$build"
exec scripts/with-test-services.sh bash -c '
    set -euo pipefail
    export DISPLAY="$TALLOWIND_TEST_DISPLAY" QT_QPA_PLATFORM=xcb
    xcompmgr -n >/dev/null 2>&1 &
    compositor=$!
    trap "kill $compositor 2>/dev/null || true" EXIT
    sleep 0.5

    "$OVERLAY_BUILD/bench/overlay/overlay_paint"

    python3 - "$OVERLAY_BUILD/bench/overlay/overlay_launch" "$OVERLAY_RUNS" <<PY
import os, statistics, subprocess, sys, time
program, runs = sys.argv[1], int(sys.argv[2])
times, cpu = [], []
for _ in range(runs):
    start = time.monotonic()
    child = subprocess.Popen([program, "--exit"], stdout=subprocess.PIPE, text=True)
    if child.stdout.readline().strip() != "shown":
        sys.exit("the overlay was never shown")
    times.append((time.monotonic() - start) * 1000)
    _, _, usage = os.wait4(child.pid, 0)
    cpu.append((usage.ru_utime + usage.ru_stime) * 1000)
print(f"launch to overlay on screen, {runs} launches: median {statistics.median(times):.0f} ms, "
      f"slowest {max(times):.0f} ms; processor time of the whole run: median {statistics.median(cpu):.0f} ms")
PY

    "$OVERLAY_BUILD/bench/overlay/overlay_launch" > "$HOME/launch.out" &
    program=$!
    trap "kill $program $compositor 2>/dev/null || true" EXIT
    for _ in $(seq 100); do grep -q shown "$HOME/launch.out" && break; sleep 0.1; done
    sleep 5
    awk "/^VmRSS/ {printf \"idle with the overlay shown, after 5 s: %.1f MB resident\n\", \$2 / 1024}" \
        /proc/$program/status
'
