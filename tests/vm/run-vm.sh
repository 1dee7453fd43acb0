#!/bin/sh
# Boots a stock Debian kernel under qemu with the project's static programs and runs the
# scenarios of tests/vm/scenarios (bench/vm and scripts/demo ones only by name), dealt out to
# N VMs side by side. See tests/vm/README.md.
#   tests/vm/run-vm.sh [--out DIR] [--daemon PATH] [--jobs N] [--list] [SCENARIO...]
set -u

REPO=$(cd "$(dirname "$0")/../.." && pwd)
BED=$REPO/tests/vm
BUILD=${TAVRINE_VM_BUILD:-$BED/.build}
CACHE=${TAVRINE_CACHE:-$HOME/.cache/tavrine}
KROOT=$CACHE/kernel/root
JOBS=""
DAEMON_BIN=""
DAEMON_WHY=""
OUT=""

die() {
    echo "run-vm: $*" >&2
    exit 2
}

# In the guest all roots sit side by side under /bed/scenarios: scenarios share files.
SCENARIO_ROOTS="$BED/scenarios $REPO/bench/vm $REPO/scripts/demo"
scenario_dir() {
    for root in $SCENARIO_ROOTS; do
        [ -f "$root/$1/run.sh" ] && { echo "$root/$1"; return 0; }
    done
    return 1
}

. "$BED/lib/build-tools.sh"
. "$BED/lib/initramfs.sh"
. "$BED/lib/boot.sh"
. "$BED/lib/verdict.sh"

all_scenarios() {
    for d in "$BED"/scenarios/*/; do
        [ -f "$d/run.sh" ] && basename "$d"
    done
}

SCENARIOS=""
while [ $# -gt 0 ]; do
    case "$1" in
    --out) OUT=$2; shift 2 ;;
    --jobs) JOBS=$2; shift 2 ;;
    --daemon) DAEMON_BIN=$(cd "$(dirname "$2")" && pwd)/$(basename "$2"); shift 2 ;;
    --list) all_scenarios; exit 0 ;;
    -h | --help) sed -n '5p' "$0"; exit 0 ;;
    -*) die "unknown option $1" ;;
    *) scenario_dir "$1" > /dev/null || die "no scenario $1 (in tests/vm/scenarios, bench/vm or scripts/demo)"
       SCENARIOS="$SCENARIOS $1"; shift ;;
    esac
done
[ -n "$SCENARIOS" ] || SCENARIOS=$(all_scenarios | tr '\n' ' ')
[ -n "$JOBS" ] || JOBS=$(( $(nproc) >= 2 ? 2 : 1 ))
case "$JOBS" in '' | *[!0-9]* | 0) die "--jobs needs a positive number" ;; esac

deps_log=$(mktemp)
"$REPO/scripts/install-vm-deps.sh" > "$deps_log" 2>&1 || { msg=$(tail -n 1 "$deps_log"); rm -f "$deps_log"; die "$msg"; }
rm -f "$deps_log"
[ -f "$CACHE/kernel/vmlinuz" ] || die "no kernel in $CACHE/kernel (scripts/install-vm-deps.sh)"
mkdir -p "$BUILD"
# A folder per run: runs started side by side in one work tree share no VM files.
[ -n "$OUT" ] || OUT=$BUILD/logs/$(date +%Y%m%d-%H%M%S)-$$
mkdir -p "$OUT"
ln -sfn "$OUT" "$BUILD/logs/latest" 2>/dev/null
VMDIR=$OUT/.vm
rm -rf "$VMDIR"
mkdir -p "$VMDIR"

[ -z "$DAEMON_BIN" ] || [ -x "$DAEMON_BIN" ] || die "--daemon $DAEMON_BIN is not an executable"
STAGE=$VMDIR/stage
build_programs || die "the simulator or the recorder did not build"
[ -n "$DAEMON_BIN" ] || die "$DAEMON_WHY"
build_initramfs || die "could not build the initramfs"

boot_guests

# Reports how VM $1 went; false when it never reached its script.
report_vm() {
    console=$OUT/console-$1.log
    booted=$(tr -d '\r' < "$console" | sed -n 's/.*@@BED-BOOTED \([0-9.]*\).*/\1/p' | head -n 1)
    echo "run-vm: VM $1: boot time ${booted:-?} s to the guest script (guest uptime)"
    tr -d '\r' < "$console" | grep '@@BED-WARN' | sed "s/.*@@BED-WARN/run-vm: VM $1: guest warning:/"
    if ! grep -q '@@BED-DONE' "$console"; then
        why=$(cat "$VMDIR/vm-$1.hung" 2>/dev/null || echo "qemu status $(cat "$VMDIR/vm-$1.rc"), 124: its time limit")
        echo "run-vm: VM $1 stopped early ($why); last console lines ($console):" >&2
        tail -n 30 "$console" | tr -d '\r' >&2
    fi
    [ -n "$booted" ] || { echo "run-vm: VM $1 never reached its script" >&2; return 1; }
}

all_booted=1
for i in $(seq 1 "$VMS"); do
    report_vm "$i" || all_booted=0
done
echo "run-vm: whole run of $VMS VM(s): ${wall} s wall"
CONSOLES=$(ls "$OUT"/console-*.log)

split_console
passed=0
failed=0
for s in $SCENARIOS; do
    if judge_scenario "$s"; then passed=$((passed + 1)); else failed=$((failed + 1)); fi
done
rm -f "$INITRAMFS"
echo "run-vm: logs in $OUT"
echo "vm: $passed passed, $failed failed"
[ "$failed" = 0 ] && [ "$all_booted" = 1 ]
