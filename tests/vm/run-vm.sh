#!/bin/sh
# Boots a stock Debian kernel under qemu with the project's static programs and plays the
# scenarios (tests/vm/README.md), dealt out to N VMs side by side.
#   tests/vm/run-vm.sh [--out DIR] [--daemon PATH] [--jobs N] [--list] [SCENARIO...]
set -u
REPO=$(cd "$(dirname "$0")/../.." && pwd)
BED=$REPO/tests/vm
BUILD=${TAVRINE_VM_BUILD:-$BED/.build}
CACHE=${TAVRINE_CACHE:-$HOME/.cache/tavrine}
KROOT=$CACHE/kernel/root
JOBS=$(($(nproc) >= 2 ? 2 : 1)) DAEMON_BIN="" DAEMON_WHY="" OUT="" SCENARIOS=""
die() { echo "run-vm: $*" >&2; exit 2; }

# In the guest all roots sit side by side under /bed/scenarios: scenarios share files.
SCENARIO_ROOTS="$BED/scenarios $REPO/bench/vm $REPO/scripts/demo"
scenario_dir() {
    for root in $SCENARIO_ROOTS; do [ -f "$root/$1/run.sh" ] && { echo "$root/$1"; return 0; }; done
    return 1
}
limit_of() { cat "$(scenario_dir "$1")/timeout" 2> /dev/null || echo 30; }
all_scenarios() { for d in "$BED"/scenarios/*/; do [ -f "$d/run.sh" ] && basename "$d"; done; }
. "$BED/lib/build-tools.sh"
. "$BED/lib/initramfs.sh"

while [ $# -gt 0 ]; do
    case "$1" in
    --out) OUT=$2; shift 2 ;;
    --jobs) JOBS=$2; shift 2 ;;
    --daemon) DAEMON_BIN=$(cd "$(dirname "$2")" && pwd)/$(basename "$2"); shift 2 ;;
    --list) all_scenarios; exit 0 ;;
    -h | --help) sed -n '4p' "$0"; exit 0 ;;
    -*) die "unknown option $1" ;;
    *) scenario_dir "$1" > /dev/null || die "no scenario $1 (in tests/vm/scenarios, bench/vm or scripts/demo)"
       SCENARIOS="$SCENARIOS $1"; shift ;;
    esac
done
[ -n "$SCENARIOS" ] || SCENARIOS=$(all_scenarios | tr '\n' ' ')
case "$JOBS" in '' | *[!0-9]* | 0) die "--jobs needs a positive number" ;; esac
[ -z "$DAEMON_BIN" ] || [ -x "$DAEMON_BIN" ] || die "--daemon $DAEMON_BIN is not an executable"

deps=$("$REPO/scripts/install-vm-deps.sh" 2>&1) || die "$(echo "$deps" | tail -n 1)"
[ -f "$CACHE/kernel/vmlinuz" ] || die "no kernel in $CACHE/kernel (scripts/install-vm-deps.sh)"
# A folder per run: runs started side by side in one work tree share no VM files.
[ -n "$OUT" ] || OUT=$BUILD/logs/$(date +%Y%m%d-%H%M%S)-$$
mkdir -p "$OUT" && ln -sfn "$OUT" "$BUILD/logs/latest" 2> /dev/null
VMDIR=$OUT/.vm STAGE=$OUT/.vm/stage
rm -rf "$VMDIR" && mkdir -p "$VMDIR"
build_programs || die "the simulator or the recorder did not build"
[ -n "$DAEMON_BIN" ] || die "$DAEMON_WHY"
build_initramfs || die "could not build the initramfs"

# Deals the scenarios out, longest limit first to the least loaded VM (vm-i.list).
VMS=$(echo $SCENARIOS | wc -w) && [ "$VMS" -gt "$JOBS" ] && VMS=$JOBS
for s in $SCENARIOS; do echo "$(limit_of "$s") $s"; done | sort -k1,1nr -k2,2 |
    awk -v vms="$VMS" -v dir="$VMDIR" '{ best = 1
        for (i = 2; i <= vms; i++) if (load[i] < load[best]) best = i
        load[best] += $1; print $2 > (dir "/vm-" best ".list") }'

# Each VM may take 60 s plus its scenarios' limits and 5 s each, capped below CTest's 1200 s.
echo "run-vm: booting $(cat "$CACHE/kernel/ready") in $VMS VM(s), logs in $OUT"
start=$(date +%s)
for i in $(seq 1 "$VMS"); do
    list=$(tr '\n' ' ' < "$VMDIR/vm-$i.list") sum=0
    for s in $list; do sum=$((sum + $(limit_of "$s") + 5)); done && [ $sum -gt 1000 ] && sum=1000
    echo "run-vm: VM $i runs: $list(limit $((60 + sum)) s)"
    timeout -k 5 $((60 + sum)) qemu-system-x86_64 -accel tcg -cpu max -m 512 -smp 1 -nographic \
        -no-reboot -kernel "$CACHE/kernel/vmlinuz" -initrd "$INITRAMFS" \
        -append "console=ttyS0 quiet panic=-1 bedrun=$(echo $list | tr ' ' ,)" \
        < /dev/null > "$OUT/console-$i.log" 2>&1 &
    echo $! > "$VMDIR/vm-$i.pid"
done
all_booted=1
for i in $(seq 1 "$VMS"); do
    wait "$(cat "$VMDIR/vm-$i.pid")"; rc=$? console=$OUT/console-$i.log
    tr -d '\r' < "$console" | sed -n "s/.*@@BED-WARN/run-vm: VM $i: guest warning:/p"
    grep -q '@@BED-DONE' "$console" && continue
    { echo "run-vm: VM $i stopped early (qemu status $rc, 124: its time limit); last lines of $console:"
      tail -n 30 "$console" | tr -d '\r'; } >&2
    grep -q '@@BED-BOOTED' "$console" || { echo "run-vm: VM $i never reached its script" >&2; all_booted=0; }
done
echo "run-vm: whole run of $VMS VM(s): $(($(date +%s) - start)) s wall"
rm -f "$INITRAMFS"
CONSOLES=$(ls "$OUT"/console-*.log)

# Every file printed between markers goes to $OUT/<scenario>/<path>.
awk -v out="$OUT" '
    FNR == 1 { file = "" }  # a block cut off by a killed VM ends with its console
    { sub(/\r$/, "") }
    /@@BED-FILE-END/ { if (file != "") close(file); file = ""; next }
    match($0, /@@BED-FILE [^ ]+ [^ ]+/) {
        split(substr($0, RSTART, RLENGTH), w, " ")
        if (w[2] ~ /\.\./ || w[3] ~ /\.\./) next
        file = out "/" w[2] "/" w[3] ".b64"; dir = file; sub(/\/[^\/]*$/, "", dir)
        system("mkdir -p \"" dir "\""); printf "" > file; next }
    file != "" { print > file }' $CONSOLES
find "$OUT" -name '*.b64' | while read -r f; do
    base64 -d < "$f" > "${f%.b64}" 2> /dev/null || echo "run-vm: could not decode ${f%.b64}" >&2
    rm -f "$f"
done

# Diffs each expected.<name> (expected.<case>.<file> in a family) of scenario $1 into diff.txt.
compare_expected() {
    status=0
    for exp in "$(scenario_dir "$1")"/expected.*; do
        [ -f "$exp" ] || continue
        name=${exp##*/expected.} actual=$OUT/$1/${exp##*/expected.}
        [ -d "$OUT/$1/${name%%.*}" ] && actual=$OUT/$1/${name%%.*}/${name#*.}
        [ -f "$actual" ] || actual=/dev/null
        diff -u --label "expected/$name" --label "actual/$name" "$exp" "$actual" >> "$OUT/$1/diff.txt" || status=1
    done
    return $status
}

# Prints one PASS/FAIL line for scenario $1; 0 for a pass (an expect-fail one must fail by a diff).
judge_scenario() {
    mkdir -p "$OUT/$1" && rm -f "$OUT/$1/diff.txt"
    end=$(cat $CONSOLES | tr -d '\r' | sed -n "s/.*@@BED-SCENARIO-END $1 //p" | head -n 1)
    [ -n "$end" ] || { echo "FAIL $1: did not finish in the guest (see $OUT/console-*.log)"; return 1; }
    secs=$(echo "$end" | awk '{ split($2, a, "="); split($3, b, "="); printf "%.1f", b[2] - a[2] }')
    rc=${end%% *} why=""
    [ "$rc" = rc=0 ] || why="run.sh exit status ${rc#rc=} (see $OUT/$1/run.out)"
    compare_expected "$1" || why="${why:+$why; }output differs from expected"
    [ -z "$why" ] || cat "$OUT/$1/diff.txt" 2> /dev/null
    if [ -f "$(scenario_dir "$1")/expect-fail" ]; then
        [ -s "$OUT/$1/diff.txt" ] && { echo "PASS $1 ($secs s): failed as it must, with the diff above"; return 0; }
        echo "FAIL $1 ($secs s): this self-test must fail with a diff, but ${why:-it passed}" && return 1
    fi
    [ -z "$why" ] && echo "PASS $1 ($secs s)" || echo "FAIL $1 ($secs s): $why"
    [ -z "$why" ]
}

passed=0 failed=0
for s in $SCENARIOS; do judge_scenario "$s" && passed=$((passed + 1)) || failed=$((failed + 1)); done
echo "run-vm: logs in $OUT"
echo "vm: $passed passed, $failed failed"
[ "$failed" = 0 ] && [ "$all_booted" = 1 ]
