#!/usr/bin/env bash
# Shows the tray menu as a user meets it, under a private display with a tray host (trayer): opened with a
# left click while idle, and with a right click after Ctrl+Alt+S started listening. Saves both side by side
# as docs/screenshots/tray-menu.png (or the file given).
set -euo pipefail
cd "$(dirname "$0")/.."

output=$(realpath -m "${1:-docs/screenshots/tray-menu.png}")
scripts/install-deps.sh
command -v trayer >/dev/null && command -v convert >/dev/null || {
    echo "needs trayer and imagemagick: apt-get install trayer imagemagick" >&2
    exit 1
}
cmake -S . -B build -G Ninja >/dev/null
cmake --build build -j2 --target tallowind

export OUTPUT="$output"
exec scripts/with-test-services.sh bash -c '
    set -euo pipefail
    export DISPLAY="$TALLOWIND_TEST_DISPLAY" QT_QPA_PLATFORM=xcb
    shots=$(mktemp -d)
    trayer --edge top --align right --widthtype pixel --width 120 --height 28 --transparent false &
    tray=$!
    sleep 1
    mkdir -p "$XDG_CONFIG_HOME/Tallowind"
    printf "[General]\nonboarded=true\nuseMic=false\n" > "$XDG_CONFIG_HOME/Tallowind/settings.ini"
    # Signed in against a server that is not there: the menu only needs the sign-in to exist.
    TALLOWIND_TOKEN=t TALLOWIND_SERVER=http://127.0.0.1:9 build/tallowind >/dev/null 2>&1 &
    program=$!
    trap "kill $program $tray 2>/dev/null || true" EXIT
    sleep 3
    # The icon is the tray host'\''s rightmost slot.
    xdotool mousemove 1268 13 click 1
    sleep 1
    import -window root -crop 460x330+820+0 "$shots/idle.png"
    xdotool key Escape ctrl+alt+s
    sleep 1
    xdotool mousemove 1268 13 click 3
    sleep 1
    import -window root -crop 460x330+820+0 "$shots/listening.png"
    xdotool key Escape
    convert "$shots/idle.png" "$shots/listening.png" +append "$OUTPUT"
    echo "$OUTPUT"
'
