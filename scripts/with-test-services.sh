#!/usr/bin/env bash
# Runs a command inside the services the tests need: a private session bus with an unlocked keyring, a
# PulseAudio server with a speaker and a microphone, and an X display (TALLOWIND_TEST_DISPLAY), all in a
# private HOME; stops them when the command ends. scripts/test.sh runs ctest this way; run a single test
# the same way:
#
#   scripts/with-test-services.sh ctest --test-dir build -R tst_appdelegate --output-on-failure
set -euo pipefail

work=$(mktemp -d)
pids=()
cleanup() {
    for pid in "${pids[@]}"; do
        kill "$pid" 2>/dev/null || true
    done
    if [ -n "${PULSE_SERVER:-}" ]; then
        pactl exit 2>/dev/null || true
    fi
    [ -n "${keyring_pid:-}" ] && kill "$keyring_pid" 2>/dev/null || true
    rm -rf "$work"
}
trap cleanup EXIT

export HOME="$work/home" XDG_RUNTIME_DIR="$work/run" XDG_DATA_HOME="$work/home/.local/share"
export XDG_CONFIG_HOME="$work/home/.config"
mkdir -p "$HOME" "$XDG_DATA_HOME" "$XDG_CONFIG_HOME" "$XDG_RUNTIME_DIR"
chmod 700 "$XDG_RUNTIME_DIR"

# A session bus of our own, so nothing autolaunches one that outlives the tests.
eval "$(dbus-launch --sh-syntax)"
pids+=("$DBUS_SESSION_BUS_PID")
# An unlocked login keyring answers Secret Service calls without a prompt.
keyring_env=$(printf 'test' | gnome-keyring-daemon --unlock --components=secrets)
keyring_pid=$(printf '%s\n' "$keyring_env" | sed -n 's/^GNOME_KEYRING_PID=//p')
[ -n "$keyring_pid" ] || keyring_pid=$(pgrep -n -f gnome-keyring-daemon || true)

# PulseAudio in per-user mode: a null sink as the speakers (its monitor is the system audio) and a second
# null sink whose monitor, remapped, is the default microphone.
cat > "$work/pulse.pa" <<PA
load-module module-native-protocol-unix auth-anonymous=1 socket=$work/pulse.socket
load-module module-null-sink sink_name=speakers sink_properties=device.description=Speakers
load-module module-null-sink sink_name=micfeed sink_properties=device.description=MicFeed
load-module module-remap-source source_name=microphone master=micfeed.monitor source_properties=device.description=Microphone
set-default-sink speakers
set-default-source microphone
PA
pulseaudio -D -n -F "$work/pulse.pa" --exit-idle-time=-1 --disallow-exit=false --log-target=file:"$work/pulse.log"
export PULSE_SERVER="unix:$work/pulse.socket"
for _ in $(seq 50); do pactl info >/dev/null 2>&1 && break; sleep 0.1; done

# An X display for the desktop tests.
exec 5> "$work/display"
Xvfb -displayfd 5 -screen 0 1280x800x24 -nolisten tcp >/dev/null 2>&1 &
pids+=("$!")
for _ in $(seq 50); do [ -s "$work/display" ] && break; sleep 0.1; done
export TALLOWIND_TEST_DISPLAY=":$(head -n1 "$work/display")"

"$@"
