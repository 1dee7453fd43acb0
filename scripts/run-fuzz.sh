#!/usr/bin/env bash
# Builds the libFuzzer targets (clang, AddressSanitizer + UndefinedBehaviorSanitizer) and runs
# each for a bounded time over a scratch copy of its seed corpus (tests/fuzz/corpus/<target>).
# Prints the executions of every target; fails when a target crashes, leaks, times out or
# reports undefined behaviour (the input is kept under <build dir>/fuzz-artifacts/<target>/).
#
#   scripts/run-fuzz.sh                      every target, FUZZ_SECONDS (30) each
#   scripts/run-fuzz.sh usb_reception tool_pipe
#   FUZZ_SECONDS=3600 scripts/run-fuzz.sh settings_maintenance   one target for an hour
#   FUZZ_SECONDS=0 scripts/run-fuzz.sh usb_reception             until interrupted (Ctrl-C)
#
# Environment:
#   FUZZ_SECONDS     seconds per target (default 30; 0 = no limit)
#   FUZZ_JOBS        targets run side by side (default 2)
#   FUZZ_BUILD_DIR   clang build directory (default build-asan, shared with
#                    scripts/run-sanitizers.sh)
#   FUZZ_CORPUS_OUT  directory that keeps the grown corpora (<dir>/<target>); by default they
#                    are thrown away, so nothing new is written into the repository
#   FUZZ_SKIP_BUILD  1: use the targets already built
set -euo pipefail
cd "$(dirname "$0")/.."
root=$(pwd)

seconds=${FUZZ_SECONDS:-30}
jobs=${FUZZ_JOBS:-2}
build=${FUZZ_BUILD_DIR:-build-asan}
all_targets=(usb_reception serial_reception settings_read settings_maintenance descriptor
             probe_reply tool_pipe)
targets=("$@")
((${#targets[@]})) || targets=("${all_targets[@]}")
for t in "${targets[@]}"; do
    [[ -d tests/fuzz/corpus/$t ]] || { echo "run-fuzz: unknown target '$t'" >&2; exit 2; }
done

if [[ ${FUZZ_SKIP_BUILD:-0} != 1 ]]; then
    command -v clang++ >/dev/null || { echo "run-fuzz: clang++ is missing (scripts/install-deps.sh)" >&2; exit 2; }
    CC=clang CXX=clang++ cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo \
        -DTAVRINE_SANITIZERS=address,undefined -DTAVRINE_FUZZ=ON >/dev/null
    cmake --build "$build" -j2 --target fuzz_targets
fi

scratch=$(mktemp -d /tmp/tavrine-fuzz-run.XXXXXX)
# The targets' data directories: on tmpfs when there is one; removed even after a crash.
data=$(mktemp -d /dev/shm/tavrine-fuzz-data.XXXXXX 2>/dev/null || mktemp -d "$scratch/data.XXXXXX")
export TAVRINE_FUZZ_TMPDIR=$data
trap 'rm -rf "$scratch" "$data"' EXIT

# Runs one target; its log goes to $scratch/<target>.log.
run_target() {
    local t=$1 bin="$root/$build/tests/fuzz/fuzz_$1"
    local corpus="$scratch/corpus/$t" artifacts="$root/$build/fuzz-artifacts/$t"
    if [[ -n ${FUZZ_CORPUS_OUT:-} ]]; then corpus="$FUZZ_CORPUS_OUT/$t"; fi
    mkdir -p "$corpus" "$artifacts"
    cp -n "$root/tests/fuzz/corpus/$t/"* "$corpus/"
    # detect_leaks: a leak is a failure like a crash; -timeout: one input may take 10 s.
    ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 \
    UBSAN_OPTIONS=halt_on_error=1:print_stacktrace=1 \
        "$bin" -max_total_time="$seconds" -timeout=10 -rss_limit_mb=2048 -print_final_stats=1 \
        -artifact_prefix="$artifacts/" "$corpus" >"$scratch/$t.log" 2>&1
}

started=$(date +%s)
pids=()
names=()
status=0
for t in "${targets[@]}"; do
    while (($(jobs -rp | wc -l) >= jobs)); do sleep 0.2; done
    echo "run-fuzz: $t for ${seconds}s"
    run_target "$t" &
    pids+=($!)
    names+=("$t")
done

printf '%-22s %12s %10s  %s\n' target executions exec/s result
for i in "${!pids[@]}"; do
    t=${names[$i]}
    if wait "${pids[$i]}"; then result=ok; else result=FAILED; status=1; fi
    execs=$(sed -n 's/^stat::number_of_executed_units: *//p' "$scratch/$t.log" | tail -1)
    rate=$(sed -n 's/^stat::average_exec_per_sec: *//p' "$scratch/$t.log" | tail -1)
    printf '%-22s %12s %10s  %s\n' "$t" "${execs:-?}" "${rate:-?}" "$result"
    if [[ $result != ok ]]; then
        echo "---- $t: last lines of the log (inputs in $build/fuzz-artifacts/$t/) ----"
        grep -v -E '^#[0-9]+' "$scratch/$t.log" | tail -40
    fi
done
echo "run-fuzz: $(( $(date +%s) - started )) s"
exit $status
