#!/usr/bin/env bash
# One speech stream against a loopback service that drops it DROPS times (default 100), on the stream's
# real reconnect schedule with one second shortened to 10 ms. Passes when every drop was followed by a
# reconnection with a fresh token, and resident memory and open descriptors stayed flat (within 1 MB and
# ±2) from the 10th drop to the last.
#
#   bench/soak/run-speech-soak.sh [DROPS] [BUILD_DIR]   (default build/; builds the soak first)
set -euo pipefail
cd "$(dirname "$0")/../.."
drops=${1:-100}
build=${2:-build}
cmake --build "$build" -j2 --target speech_soak >/dev/null
exec "$build/bench/soak/speech_soak" "$drops"
