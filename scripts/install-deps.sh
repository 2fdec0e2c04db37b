#!/usr/bin/env bash
# Installs the Debian packages the build, the tests and the program need; does nothing when all are there.
set -euo pipefail

packages=(
    # build
    cmake ninja-build g++ pkg-config ccache
    # libraries
    qt6-base-dev qt6-websockets-dev qtkeychain-qt6-dev libpulse-dev libsoxr-dev libsndfile1-dev
    libpoppler-cpp-dev libmd4c-dev libzip-dev libx11-dev libcpp-httplib-dev libcurl4-openssl-dev libsqlite3-dev
    libssl-dev nlohmann-json3-dev qt6-svg-dev libxcb1-dev
    # the server's shared store, and the private database its tests start
    libpq-dev postgresql
    # tests and benchmarks
    libgtest-dev libbenchmark-dev
    # services the tests start: a session bus with a keyring, an audio server, a display
    dbus dbus-x11 gnome-keyring libsecret-tools pulseaudio pulseaudio-utils espeak-ng sox xvfb
    # desktop tests and screenshots: synthetic input, a compositor, window inspection
    libxtst-dev xdotool xcompmgr x11-utils libxext-dev
    # used by the scripts
    curl python3 procps
    # the release script's archive
    zip
    # the server benchmark's outside HTTP client
    wrk
    # the fuzz targets (bench/fuzz/run.sh)
    clang
)

missing=()
for package in "${packages[@]}"; do
    if ! dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q 'install ok installed'; then
        missing+=("$package")
    fi
done

if [ ${#missing[@]} -eq 0 ]; then
    exit 0
fi

sudo=""
if [ "$(id -u)" -ne 0 ]; then
    sudo="sudo"
fi
echo "Installing: ${missing[*]}"
$sudo apt-get update -qq
DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -qq --no-install-recommends "${missing[@]}"
