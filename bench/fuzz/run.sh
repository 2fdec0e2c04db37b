#!/usr/bin/env bash
# Builds the fuzz targets of fuzz with clang (AddressSanitizer, UndefinedBehaviorSanitizer, libFuzzer)
# in build-fuzz/ and runs each for SECONDS, one after another, at the lowest priority.
#
#   bench/fuzz/run.sh SECONDS [TARGET...]   all targets, or only those named
#
# Each target starts from its committed seeds (fuzz/corpus/TARGET), with its dictionary where one
# exists (fuzz/TARGET.dict), and from what earlier runs found
# (build-fuzz/corpus/TARGET), so that the runs add up. A crash, a broken invariant, a hang or a leak
# leaves its reproducer in build-fuzz/crashes/TARGET/; replay it with `build-fuzz/fuzz/TARGET FILE`.
# Every run is appended to build-fuzz/fuzz-runs.tsv; the table printed at the end counts them all.
# Several copies may run at once, even of one target (one per core): they take turns building, share
# the corpus and keep a log each in build-fuzz/logs/.
set -euo pipefail
cd "$(dirname "$0")/../.."

if [ $# -lt 1 ] || ! [[ $1 =~ ^[0-9]+$ ]]; then
    echo "usage: $0 SECONDS [TARGET...]" >&2
    exit 2
fi
seconds=$1
shift

build=build-fuzz
launcher=()
if command -v ccache >/dev/null; then
    launcher=(-DCMAKE_CXX_COMPILER_LAUNCHER=ccache)
fi
if ! command -v clang++ >/dev/null; then
    echo "error: the fuzz targets need clang (apt-get install clang)" >&2
    exit 1
fi

targets=("$@")
if [ ${#targets[@]} -eq 0 ]; then
    for source in fuzz/fuzz_*.cpp; do
        targets+=("$(basename "$source" .cpp)")
    done
fi

mkdir -p "$build/logs"
(
    flock 9
    nice -n 19 cmake -S . -B "$build" -G Ninja -DCMAKE_CXX_COMPILER=clang++ "${launcher[@]}" -DTALLOWIND_FUZZ=ON \
        -DTALLOWIND_BUILD_TESTS=OFF -DTALLOWIND_BUILD_BENCHMARKS=OFF >/dev/null
    nice -n 19 cmake --build "$build" -j2 --target "${targets[@]}"
) 9>"$build/logs/build.lock"

log="$build/fuzz-runs.tsv"
status=0
export QT_QPA_PLATFORM=offscreen
export UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1
# Most targets spend their time in the allocator. Without allocation stacks, without filling fresh
# memory and with a smaller quarantine they run about twice as fast; a report then lacks where the
# memory was allocated and freed, which replaying the reproducer without these options shows. Sixteen
# megabytes of quarantine still hold far more than one input frees, so a use after free is still caught.
export ASAN_OPTIONS=${ASAN_OPTIONS:-malloc_context_size=0:max_malloc_fill_size=0:quarantine_size_mb=16}
# The zip and resume targets write every input to disk; on a tmpfs the zip target runs twice as fast.
if [ -d /dev/shm ] && [ -w /dev/shm ]; then
    export TMPDIR=/dev/shm
fi
for target in "${targets[@]}"; do
    corpus="$build/corpus/$target"
    crashes="$build/crashes/$target"
    mkdir -p "$corpus" "$crashes"
    output="$build/logs/$target-$(date -u +%Y%m%dT%H%M%SZ)-$$.log"
    outcome=ok
    dictionary=()
    if [ -f "fuzz/$target.dict" ]; then
        dictionary=(-dict="fuzz/$target.dict")
    fi
    # -timeout: one input taking longer than that is a hang; -rss_limit_mb keeps a runaway input from
    # starving the machine.
    # A fuzzer stopped with SIGINT or SIGTERM still prints its totals and exits with 72; its runs count.
    code=0
    nice -n 19 "$build/fuzz/$target" -max_total_time="$seconds" -timeout=20 -rss_limit_mb=2048 \
        -print_final_stats=1 -artifact_prefix="$crashes/" "${dictionary[@]}" "$corpus" "fuzz/corpus/$target" \
        >"$output" 2>&1 || code=$?
    if [ $code -eq 72 ]; then
        outcome="stopped early"
    elif [ $code -ne 0 ]; then
        reproducer=$(sed -n 's/.*Test unit written to //p' "$output" | tail -1)
        outcome="FAILED: ${reproducer:-see $output}"
        status=1
    fi
    runs=$(sed -n 's/^stat::number_of_executed_units: *//p' "$output" | tail -1)
    rate=$(sed -n 's/^stat::average_exec_per_sec: *//p' "$output" | tail -1)
    printf '%s\t%s\t%s\t%s\t%s\n' "$(date -u +%FT%TZ)" "$target" "${runs:-0}" "${rate:-0}" "$outcome" >>"$log"
    printf '%-26s %12s runs %8s runs/s  %s\n' "$target" "${runs:-0}" "${rate:-0}" "$outcome"
done

echo
echo "All runs so far (from $log):"
awk -F'\t' '{ runs[$2] += $3; if ($5 ~ /^FAILED/) failed[$2]++ }
    END { for (t in runs) printf "%-26s %12d runs  %d failed\n", t, runs[t], failed[t] }' "$log" | sort
exit $status
