#!/usr/bin/env bash
# The demonstration: builds the daemon and tavrinectl (statically, for the VM), boots the
# VM test bed with the demo-gesture scenario (a simulated capacitive controller with a pen
# plays a two-finger pinch and a pen circle), shows the daemon's log and the events the
# kernel delivered, and draws the trails with gnuplot into out/demo/trails.png.
# Options: --out DIR (default out/demo). Exit status 0 when the scenario passed.
set -Eeuo pipefail
# A command that fails ends the demo with a line naming it, never silently.
failed=""
trap 'failed="line $LINENO: $BASH_COMMAND"' ERR
trap 'rc=$?; if [ "$rc" != 0 ] && [ -n "$failed" ]; then
          echo "demo: failed (status $rc) at scripts/demo.sh $failed" >&2; fi' EXIT
cd "$(dirname "$0")/.."
repo=$(pwd)

out=out/demo
if [ "${1:-}" = "--out" ] && [ -n "${2:-}" ]; then out=$2; fi
mkdir -p "$out"
out=$(cd "$out" && pwd)

scripts/install-deps.sh
# gnuplot for the picture (the build needs nothing of it); installed once.
scripts/install-deps.sh gnuplot-nox

# Boots the VM: run-vm.sh installs qemu and the kernel on first use, builds the static
# daemon, tavrinectl, the simulator and the recorder and installs them into a staging prefix.
vmlogs=$out/vm
rm -rf "$vmlogs"
echo "demo: booting the VM with the demo-gesture scenario (first run: a few minutes)"
status=0
tests/vm/run-vm.sh --out "$vmlogs" demo-gesture || status=$?
run=$vmlogs/demo-gesture
if [ ! -f "$run/touch.trace" ] || [ ! -f "$run/pen.trace" ]; then
    echo "demo: the VM run left no traces (status $status); see $vmlogs" >&2
    exit 1
fi

section() { printf '\n===== %s =====\n' "$1"; }

echo "demo: the controller is simulated by tavrine-sim (sources tools/tavrine-sim, man page" \
    "docs/tavrine-sim.1.md), installed for this run in ${vmlogs#"$repo"/}/.vm/stage/bin;" \
    "its script: scripts/demo/demo-gesture/sim.scn"

section "tavrinectl in the VM (texts of the controller, its loop-back started the gesture)"
cut -c1-100 "$run/tool.txt"

# Excerpts with grep -m, not "grep | head": head leaving early would end grep by SIGPIPE,
# which pipefail turns into a silent end of the demo.
section "daemon log (excerpt of $run/daemon.log)"
log=$run/daemon.log
grep -m 8 -E "Found an QEVO Device|Type:.*Model|AllocateSeries|EventType =|Setup Done" "$log" ||
    echo "  (no set-up lines in the log)"
echo "  ... the first reports:"
grep -m 4 -E "0x06: ID=|PEN: " "$log" || echo "  (no reports in the log)"
echo "  ... $(grep -c "0x06: ID=" "$log") touch contacts and $(grep -c "PEN: " "$log") pen samples parsed"

# The first $2 frames of trace $1, one a line: "CODE value ...".
frames() {
    awk -v n="$2" '/^E:/ { if ($NF == "SYN_REPORT") { print line; line = ""; if (++f >= n) exit }
                           else line = line (line == "" ? "" : "  ") $NF " " ($5 + 0) }' "$1"
}
section "events delivered by MorvelTouch_VirtualDevice (first frames of $run/touch.trace)"
frames "$run/touch.trace" 6
echo "  ... $(grep -c SYN_REPORT "$run/touch.trace") frames"
section "events delivered by MorvelTouch_VirtualPen (first frames of $run/pen.trace)"
frames "$run/pen.trace" 5
echo "  ... $(grep -c SYN_REPORT "$run/pen.trace") frames"

section "checks of the scenario"
cat "$run/steps.txt"

# Trails from the delivered events: the kernel's slot stream keeps the last value of each
# slot, so a frame's positions are the slots' current values at its SYN_REPORT.
data=$out/data
mkdir -p "$data"
rm -f "$data"/*.dat
awk -v dir="$data" '
    BEGIN { slot = 0 }
    /^E:/ {
        code = $NF; v = $5 + 0
        if (code == "ABS_MT_SLOT") slot = v
        else if (code == "ABS_MT_TRACKING_ID") {
            if (v < 0) { active[slot] = 0; print "" > (dir "/touch-slot" slot ".dat") }
            else active[slot] = 1
            changed[slot] = 1
        }
        else if (code == "ABS_MT_POSITION_X") { x[slot] = v; changed[slot] = 1 }
        else if (code == "ABS_MT_POSITION_Y") { y[slot] = v; changed[slot] = 1 }
        else if (code == "SYN_REPORT") {
            for (s in changed) if (active[s]) print x[s], y[s] > (dir "/touch-slot" s ".dat")
            delete changed
        }
    }
    END { for (s = 0; s < 2; s++) printf "" >> (dir "/touch-slot" s ".dat") }' "$run/touch.trace"
awk -v dir="$data" '
    /^E:/ {
        code = $NF; v = $5 + 0
        if (code == "ABS_X") x = v
        else if (code == "ABS_Y") y = v
        else if (code == "BTN_TOUCH") tip = v
        else if (code == "BTN_TOOL_PEN") inrange = v
        else if (code == "SYN_REPORT" && inrange) {
            if (tip) print x, y > (dir "/pen-drawn.dat"); else print x, y > (dir "/pen-hover.dat")
        }
    }
    END { printf "" >> (dir "/pen-drawn.dat"); printf "" >> (dir "/pen-hover.dat") }' "$run/pen.trace"

# Axis maxima from the traces' headers ("A: <code> <min> <max> ...").
axis_max() { awk -v c="$2" '$1 == "A:" && $2 == c { print $4; exit }' "$1"; }
picture=$out/trails.png
gnuplot -e "dir='$data'; out='$picture'" \
    -e "xmax=$(axis_max "$run/touch.trace" 35).0; ymax=$(axis_max "$run/touch.trace" 36).0" \
    -e "pxmax=$(axis_max "$run/pen.trace" 00).0; pymax=$(axis_max "$run/pen.trace" 01).0" \
    scripts/demo-trails.gp

section "picture"
echo "demo: touch and pen trails drawn from the delivered events: ${picture#"$repo"/}"
echo "demo: full VM logs: ${vmlogs#"$repo"/} (scenario result: $([ "$status" = 0 ] && echo PASS || echo "FAIL, status $status"))"
exit "$status"
