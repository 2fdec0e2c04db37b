#!/usr/bin/env bash
# Measures the CPU time of capturing the microphone and the system audio at once for SECONDS (default 60)
# while speech plays, as a share of one core. Uses the PulseAudio server in PULSE_SERVER (or the desktop's);
# without one it starts a private server with the same devices as scripts/test.sh.
#
#   bench/capture_cpu.sh [SECONDS]        BUILD=build-dir to use another build directory
set -euo pipefail
cd "$(dirname "$0")/.."

seconds=${1:-60}
build=${BUILD:-build}
[ -f "$build/build.ninja" ] || [ -f "$build/Makefile" ] || cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=Release
cmake --build "$build" --target capture_cpu >/dev/null

work=$(mktemp -d)
players=()
cleanup() {
    for pid in "${players[@]}"; do
        children=$(pgrep -P "$pid" || true)
        kill "$pid" $children 2>/dev/null || true
    done
    if [ -n "${private_server:-}" ]; then
        pactl exit 2>/dev/null || true
    fi
    rm -rf "$work"
}
trap cleanup EXIT

if ! pactl info >/dev/null 2>&1; then
    mkdir -p "$work/run" && chmod 700 "$work/run"
    cat > "$work/pulse.pa" <<PA
load-module module-native-protocol-unix auth-anonymous=1 socket=$work/pulse.socket
load-module module-null-sink sink_name=speakers
load-module module-null-sink sink_name=micfeed
load-module module-remap-source source_name=microphone master=micfeed.monitor
set-default-sink speakers
set-default-source microphone
PA
    # Off the session bus, where a desktop's own sound server may hold the names it would ask for.
    env -u DBUS_SESSION_BUS_ADDRESS -u DISPLAY HOME="$work" XDG_RUNTIME_DIR="$work/run" pulseaudio -D -n -F "$work/pulse.pa" --exit-idle-time=-1 \
        --disallow-exit=false --log-target=file:"$work/pulse.log"
    export PULSE_SERVER="unix:$work/pulse.socket"
    private_server=1
    for _ in $(seq 50); do pactl info >/dev/null 2>&1 && break; sleep 0.1; done
fi

# Speech on a loop into the default output and, where the test devices exist, into the microphone's feed.
espeak-ng -w "$work/speech.wav" "Tell me about a time you disagreed with your team, and what you did about it."
sinks=("@DEFAULT_SINK@")
pactl list short sinks | cut -f2 | grep -qx micfeed && sinks+=(micfeed)
for sink in "${sinks[@]}"; do
    (while paplay -d "$sink" "$work/speech.wav"; do :; done) &
    players+=("$!")
done

"$build/bench/capture/capture_cpu" "$seconds"
