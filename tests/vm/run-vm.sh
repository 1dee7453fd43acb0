#!/bin/sh
# Boots a stock Debian kernel under qemu with the project's static programs
# and runs end-to-end scenarios inside it. See tests/vm/README.md.
#
#   tests/vm/run-vm.sh [--out DIR] [--timeout SECS] [--daemon PATH] [--list] [SCENARIO...]
#
# Without scenario names every folder in tests/vm/scenarios runs, in one boot.
# Exit status: 0 all passed, 1 a scenario failed, 2 the bed could not run.
set -u

REPO=$(cd "$(dirname "$0")/../.." && pwd)
BED=$REPO/tests/vm
BUILD=${TAVRINE_VM_BUILD:-$BED/.build}
CACHE=${TAVRINE_CACHE:-$HOME/.cache/tavrine}
KROOT=$CACHE/kernel/root
VM_TIMEOUT=""
DAEMON_BIN=""
DAEMON_WHY=""
OUT=""

die() {
    echo "run-vm: $*" >&2
    exit 2
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
    --timeout) VM_TIMEOUT=$2; shift 2 ;;
    --daemon) DAEMON_BIN=$(cd "$(dirname "$2")" && pwd)/$(basename "$2"); shift 2 ;;
    --list) all_scenarios; exit 0 ;;
    -h | --help) sed -n '2,9p' "$0"; exit 0 ;;
    -*) die "unknown option $1" ;;
    *) [ -f "$BED/scenarios/$1/run.sh" ] || die "no scenario $1 (tests/vm/scenarios/$1/run.sh)"
       SCENARIOS="$SCENARIOS $1"; shift ;;
    esac
done
[ -n "$SCENARIOS" ] || SCENARIOS=$(all_scenarios | tr '\n' ' ')

deps_log=$(mktemp)
"$REPO/scripts/install-vm-deps.sh" > "$deps_log" 2>&1 || { msg=$(tail -n 1 "$deps_log"); rm -f "$deps_log"; die "$msg"; }
rm -f "$deps_log"
[ -f "$CACHE/kernel/vmlinuz" ] || die "no kernel in $CACHE/kernel (scripts/install-vm-deps.sh)"
mkdir -p "$BUILD"
[ -n "$OUT" ] || OUT=$BUILD/logs/$(date +%Y%m%d-%H%M%S)
mkdir -p "$OUT"
ln -sfn "$OUT" "$BUILD/logs/latest" 2>/dev/null
CONSOLE=$OUT/console.log

build_tools || die "the simulator or the recorder did not build"
if [ -z "$DAEMON_BIN" ]; then
    build_daemon || echo "run-vm: $DAEMON_WHY" >&2
elif [ ! -x "$DAEMON_BIN" ]; then
    die "--daemon $DAEMON_BIN is not an executable"
fi

# Scenarios that need the daemon fail at once when there is none.
RUN=""
EARLY_FAIL=""
for s in $SCENARIOS; do
    if [ -f "$BED/scenarios/$s/needs-daemon" ] && [ -z "$DAEMON_BIN" ]; then
        EARLY_FAIL="$EARLY_FAIL $s"
    else
        RUN="$RUN $s"
    fi
done
SCENARIOS=$RUN
build_initramfs || die "could not build the initramfs"

boot_guest

booted=$(tr -d '\r' < "$CONSOLE" | sed -n 's/.*@@BED-BOOTED \([0-9.]*\).*/\1/p' | head -n 1)
echo "run-vm: boot time ${booted:-?} s to the guest script (guest uptime); whole VM run ${wall} s wall"
tr -d '\r' < "$CONSOLE" | grep '@@BED-WARN' | sed 's/.*@@BED-WARN/run-vm: guest warning:/'
if [ -n "$HUNG" ]; then
    echo "run-vm: $HUNG and was killed; last console lines:" >&2
    tail -n 30 "$CONSOLE" | tr -d '\r' >&2
elif [ "$qemu_rc" = 124 ] || [ "$qemu_rc" = 137 ]; then
    echo "run-vm: the guest hung and was killed after ${VM_TIMEOUT} s; last console lines:" >&2
    tail -n 30 "$CONSOLE" | tr -d '\r' >&2
elif ! grep -q '@@BED-DONE' "$CONSOLE"; then
    echo "run-vm: the guest stopped early (qemu status $qemu_rc); last console lines:" >&2
    tail -n 30 "$CONSOLE" | tr -d '\r' >&2
fi
if [ -z "$booted" ]; then
    echo "run-vm: the guest never reached its script" >&2
fi

split_console
passed=0
failed=0
for s in $EARLY_FAIL; do
    echo "FAIL $s: needs the daemon: $DAEMON_WHY"
    failed=$((failed + 1))
done
for s in $SCENARIOS; do
    if judge_scenario "$s"; then passed=$((passed + 1)); else failed=$((failed + 1)); fi
done
echo "run-vm: logs in $OUT"
echo "vm: $passed passed, $failed failed"
[ "$failed" = 0 ] && [ -n "$booted" ]
