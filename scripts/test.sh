#!/usr/bin/env bash
# Installs what is missing, builds, starts the services the tests need (scripts/with-test-services.sh),
# runs every test and stops what it started.
#
#   scripts/test.sh              build in build/ and run all tests
#   SANITIZE=1 scripts/test.sh   the same under AddressSanitizer and UndefinedBehaviorSanitizer (build-asan/)
#   scripts/test.sh -L process   extra arguments go to ctest
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/install-deps.sh

build=build
options=()
if [ "${SANITIZE:-0}" = 1 ]; then
    build=build-asan
    # The benchmarks are built (and so checked) by the normal run; here they would only cost time.
    options+=(-DTALLOWIND_SANITIZE=ON -DCMAKE_BUILD_TYPE=Debug -DTALLOWIND_BUILD_BENCHMARKS=OFF)
    export ASAN_OPTIONS=detect_leaks=0
    export UBSAN_OPTIONS=print_stacktrace=1
fi
launcher=()
if command -v ccache >/dev/null; then
    launcher=(-DCMAKE_CXX_COMPILER_LAUNCHER=ccache)
fi
cmake -S . -B "$build" -G Ninja "${launcher[@]}" "${options[@]}"
cmake --build "$build" -j2

scripts/with-test-services.sh ctest --test-dir "$build" --output-on-failure -j2 "$@"
