#!/usr/bin/env bash
# The project's benchmark (not part of the test suite): per-report cost on the host
# (Google Benchmark and callgrind instruction counts, against the bare write floor), and
# in the VM test bed end-to-end latency, idle cost, memory and size, and set-up time.
# Prints one table: path, figure, value, reference, ratio.
#
#   scripts/bench.sh            everything
#   scripts/bench.sh --host     the host part only (no VM)
#   scripts/bench.sh --vm       the VM part only
#   scripts/bench.sh --markdown the table as Markdown (for the README)
#
# Results land in ${TAVRINE_BENCH_OUT:-build-bench/results}/.
set -euo pipefail

root=$(cd "$(dirname "$0")/.." && pwd)
build="$root/build-bench"
out=${TAVRINE_BENCH_OUT:-$build/results}
do_host=1
do_vm=1
markdown=()
for arg in "$@"; do
    case "$arg" in
        --host) do_vm=0 ;;
        --vm) do_host=0 ;;
        --markdown) markdown=(--markdown) ;;
        *) echo "bench: unknown option $arg" >&2; exit 2 ;;
    esac
done
mkdir -p "$out"
table_args=()

if ((do_host)); then
    for tool in valgrind python3; do
        command -v "$tool" >/dev/null || { echo "bench: $tool missing (scripts/install-deps.sh)" >&2; exit 2; }
    done
    cmake -S "$root/bench" -B "$build" -DCMAKE_BUILD_TYPE=Release >/dev/null
    cmake --build "$build" -j"$(nproc)" >/dev/null
    echo "bench: host timings (CPU time of the writing thread, median of 5)" >&2
    "$build/report_bench" --benchmark_repetitions=5 --benchmark_report_aggregates_only=true \
        --benchmark_min_time=0.2 --benchmark_out="$out/host.json" \
        --benchmark_out_format=json >"$out/host.txt" 2>"$out/host.err"
    echo "bench: callgrind instruction counts (1000 frames each into /dev/null)" >&2
    : >"$out/callgrind.txt"
    frames=1000
    while read -r case _; do
        for mode in path floor; do
            valgrind --tool=callgrind --callgrind-out-file="$out/callgrind.$case.$mode" \
                --collect-atstart=no --toggle-collect=tavrine_bench_measured \
                "$build/report_bench" --fixed "$case" "$frames" "$mode" \
                >"$out/callgrind.$case.$mode.log" 2>&1
            ir=$(sed -n 's/.*Collected : \([0-9]*\).*/\1/p' "$out/callgrind.$case.$mode.log")
            events=$(sed -n 's/.*events_per_frame=\([0-9]*\).*/\1/p' "$out/callgrind.$case.$mode.log")
            echo "$case $mode $ir $frames $events" >>"$out/callgrind.txt"
        done
    done < <("$build/report_bench" --list)
    table_args+=(--host "$out/host.json" --callgrind "$out/callgrind.txt")
fi

if ((do_vm)); then
    scenarios=()
    for d in "$root"/tests/vm/scenarios/perf-*/; do
        [[ -d $d ]] && scenarios+=("$(basename "$d")")
    done
    if ((${#scenarios[@]})); then
        echo "bench: VM scenarios ${scenarios[*]} (software emulation)" >&2
        vmout="$out/vm"
        rm -rf "$vmout"
        "$root/tests/vm/run-vm.sh" --jobs 1 --out "$vmout" "${scenarios[@]}" >"$out/vm.txt" 2>&1 || true
        for s in "${scenarios[@]}"; do
            if [[ -f "$vmout/$s/bench.rows" ]]; then
                table_args+=(--rows "$vmout/$s/bench.rows")
            else
                echo "bench: $s wrote no results (see $out/vm.txt)" >&2
            fi
        done
    fi
fi

echo "bench: $(date -u '+%Y-%m-%d %H:%M UTC'), $(nproc) CPU, $(sed -n 's/^model name[[:space:]]*: //p' /proc/cpuinfo | head -1)"
python3 "$root/bench/table.py" "${table_args[@]}" "${markdown[@]}"
