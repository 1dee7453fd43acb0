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
#   scripts/bench.sh --daemon PATH   the VM part with another static daemon binary
#   scripts/bench.sh --before DIR    host rows also against DIR/host.json, the results
#                                    of an earlier run (an earlier version of the code)
#
# Results land in ${TAVRINE_BENCH_OUT:-build-bench/results}/. The host's load average is
# recorded at the start and end of each part: the machine may be shared.
set -euo pipefail

root=$(cd "$(dirname "$0")/.." && pwd)
build="$root/build-bench"
out=${TAVRINE_BENCH_OUT:-$build/results}
do_host=1
do_vm=1
markdown=()
daemon_args=()
before=""
while (($#)); do
    case "$1" in
        --host) do_vm=0 ;;
        --vm) do_host=0 ;;
        --markdown) markdown=(--markdown) ;;
        --daemon) daemon_args=(--daemon "$2"); shift ;;
        --before) before=$2; shift ;;
        *) echo "bench: unknown option $1" >&2; exit 2 ;;
    esac
    shift
done
mkdir -p "$out"
table_args=()
: >"$out/load.rows"
load_row() {  # PART WHEN
    echo "host load average ($1);1 / 5 / 15 min, $2;$(cut -d' ' -f1-3 /proc/loadavg | sed 's/ / \/ /g');-;-" >>"$out/load.rows"
}

if ((do_host)); then
    for tool in valgrind python3; do
        command -v "$tool" >/dev/null || { echo "bench: $tool missing (scripts/install-deps.sh)" >&2; exit 2; }
    done
    cmake -S "$root/bench" -B "$build" -DCMAKE_BUILD_TYPE=Release >/dev/null
    cmake --build "$build" -j"$(nproc)" >/dev/null
    load_row "host part" "at its start"
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
    load_row "host part" "at its end"
    table_args+=(--host "$out/host.json" --callgrind "$out/callgrind.txt")
    [[ -n $before && -f $before/host.json ]] && table_args+=(--host-before "$before/host.json")
fi

# tslib's ts_uinput for the guest (Debian libts-bin and libts0, unpacked, not installed):
# the binary, its input plugin and every library they load, at their usual paths.
prepare_tslib() {
    local cache="$build/tslib" extra="$build/tslib/root"
    if ! ls "$cache"/pkg/usr/bin/ts_uinput >/dev/null 2>&1; then
        rm -rf "$cache" && mkdir -p "$cache/dl" "$cache/pkg"
        (cd "$cache/dl" && apt-get download libts-bin libts0 >/dev/null 2>&1) || return 1
        for deb in "$cache"/dl/*.deb; do dpkg -x "$deb" "$cache/pkg" || return 1; done
    fi
    local plugin libdir
    plugin=$(find "$cache/pkg" -path '*/ts0/input.so' | head -n 1)
    [[ -n $plugin ]] || return 1
    libdir=$(dirname "$(dirname "$plugin")")
    rm -rf "$extra" && mkdir -p "$extra/usr/bin" "$extra${libdir#"$cache/pkg"}/ts0"
    cp "$cache/pkg/usr/bin/ts_uinput" "$extra/usr/bin/"
    cp "$plugin" "$extra${libdir#"$cache/pkg"}/ts0/"
    cp -a "$libdir"/libts.so* "$extra${libdir#"$cache/pkg"}/"
    local lib
    for lib in $(LD_LIBRARY_PATH="$libdir" ldd "$cache/pkg/usr/bin/ts_uinput" "$plugin" |
                 awk '$2 == "=>" && $3 ~ /^\// { print $3 } $1 ~ /^\// { print $1 }' | sort -u); do
        [[ $lib == "$cache"/* ]] && continue
        mkdir -p "$extra$(dirname "$lib")"
        cp -L "$lib" "$extra$lib"
    done
    # ts_uinput sizes its device from a framebuffer and stops without one: the kernel's
    # virtual framebuffer module goes along (loaded by the scenario with vfb_enable=1).
    local vfb
    vfb=$(find "${TAVRINE_CACHE:-$HOME/.cache/tavrine}/kernel/root/lib/modules" -name vfb.ko 2>/dev/null | head -n 1)
    if [[ -n $vfb ]]; then
        mkdir -p "$extra/lib/modules/extra" && cp "$vfb" "$extra/lib/modules/extra/"
    fi
    echo "$extra"
}

if ((do_vm)); then
    if extra=$(prepare_tslib); then
        export TAVRINE_VM_EXTRA=$extra
    else
        echo "bench: tslib could not be prepared; the ts_uinput path is left out" >&2
    fi
    # perf-*: latency, idle cost and memory. The set-up times come from the command
    # cases that already measure them (protocol-toolpipe's feature-s2: a responsive
    # controller, silent: a silent one).
    scenarios=()
    for d in "$root"/bench/vm/perf-*/; do
        [[ -d $d ]] && scenarios+=("$(basename "$d")")
    done
    scenarios+=(protocol-toolpipe)
    echo "bench: VM scenarios ${scenarios[*]} (software emulation, one VM)" >&2
    vmout="$out/vm"
    rm -rf "$vmout"
    load_row "VM part" "at its start"
    "$root/tests/vm/run-vm.sh" --jobs 1 --out "$vmout" "${daemon_args[@]}" "${scenarios[@]}" >"$out/vm.txt" 2>&1 || true
    load_row "VM part" "at its end"
    for s in "${scenarios[@]}"; do
        [[ $s == perf-* ]] || continue
        if [[ -f "$vmout/$s/bench.rows" ]]; then
            table_args+=(--rows "$vmout/$s/bench.rows")
        else
            echo "bench: $s wrote no results (see $out/vm.txt)" >&2
        fi
    done
    {
        ms=$(sed -n 's/^set-up ms: //p' "$vmout/protocol-toolpipe/feature-s2/setup-time.txt" 2>/dev/null)
        echo "VM set-up, responsive controller (protocol-toolpipe feature-s2);node found to Setup Done;${ms:--} ms;-;-"
        ms=$(sed -n 's/^set-up ms: //p' "$vmout/protocol-toolpipe/silent/setup-time.txt" 2>/dev/null)
        echo "VM set-up, silent controller (protocol-toolpipe silent);node found to Setup Done;${ms:--} ms;retry rules 6000 ms;$(awk -v m="${ms:-0}" 'BEGIN { if (m > 0) printf "%.2f", m / 6000; else print "-" }')"
    } >"$out/setup.rows"
    table_args+=(--rows "$out/setup.rows")
fi

# Stripped sizes: the static daemon of the VM bed and the dynamic one built here.
cmake -S "$root/bench" -B "$build" -DCMAKE_BUILD_TYPE=Release >/dev/null &&
    cmake --build "$build" -j"$(nproc)" --target TavrineD_dynamic >/dev/null || true
static_bin="${TAVRINE_VM_BUILD:-$root/tests/vm/.build}/daemon/TavrineD"
((${#daemon_args[@]})) && static_bin=${daemon_args[1]}
{
    for pair in "static (RelWithDebInfo, VM bed):$static_bin" "dynamic (Release):$build/TavrineD_dynamic"; do
        bin=${pair#*:}
        [[ -x $bin ]] || continue
        strip -o "$out/TavrineD.stripped" "$bin"
        echo "daemon binary ${pair%%:*};stripped size;$(stat -c %s "$out/TavrineD.stripped") bytes;-;-"
    done
} >"$out/size.rows"
table_args+=(--rows "$out/size.rows" --rows "$out/load.rows")

echo "bench: $(date -u '+%Y-%m-%d %H:%M UTC'), $(nproc) CPU, $(sed -n 's/^model name[[:space:]]*: //p' /proc/cpuinfo | head -1)"
python3 "$root/bench/table.py" "${table_args[@]}" "${markdown[@]}"
