# The demonstration (scripts/demo.sh): a capacitive controller with a pen
# ("PCAP6555") is plugged in, the daemon sets it up, tavrinectl reads its
# texts, and its loop-back starts the gesture of sim.scn: a two-finger pinch
# on the touch device and a circle drawn with the pen on the pen device. The
# recorders keep what the kernel delivered (touch.trace, pen.trace); the
# checks here are the recorders' protocol check and the shape of the gesture:
# two contacts that both lift, one pen stroke.
. /bed/lib.sh

start_sim sim.scn
# The daemon registers ABS_MT_SLOT only on an Android release above 3; the
# guest has no getprop, so case_settings puts one answering "9" on its PATH.
case_settings bits=fffffff android=9
start_daemon
wait_setup 300 && wait_until 'has_input MorvelTouch_VirtualPen' 50 && step "set-up done" || step "set-up not done"

for what in version model type; do
    printf '%s: %s\n' "$what" "$(tavrinectl --usb --timeout 4000 $what 2>&1)" >> "$OUT/tool.txt"
done

rm -f /tmp/demo.touch.ready /tmp/demo.pen.ready
start_evrec MorvelTouch_VirtualDevice touch.trace --ready /tmp/demo.touch.ready
TOUCH_PID=$EVREC_PID
start_evrec MorvelTouch_VirtualPen pen.trace --ready /tmp/demo.pen.ready
PEN_PID=$EVREC_PID
wait_until '[ -e /tmp/demo.touch.ready ] && [ -e /tmp/demo.pen.ready ]' 50
# The tool's loop-back starts the gesture.
printf 'loop-back: %s\n' "$(tavrinectl --usb --timeout 4000 raw 03 01 41 2>&1)" >> "$OUT/tool.txt"
wait_until 'grep -q "note gesture done" "$OUT/sim.log"' 150 && step "gesture played" || step "gesture not played"
sleep 0.5
stop_pid "$TOUCH_PID"
stop_pid "$PEN_PID"
tavrine-evrec check "$OUT/touch.trace" > "$OUT/touch.check" 2>&1
step "touch protocol check status $?"
tavrine-evrec check "$OUT/pen.trace" > "$OUT/pen.check" 2>&1
step "pen protocol check status $?"

# count TRACE CODE-NAME VALUE-TEST: events of that code whose value passes the awk test.
count() {
    awk -v name="$2" '/^E:/ && $NF == name { v = $5 + 0; if ('"$3"') n++ } END { print n + 0 }' "$1"
}
step "touch contacts down: $(count "$OUT/touch.trace" ABS_MT_TRACKING_ID 'v >= 0')"
step "touch contacts lifted: $(count "$OUT/touch.trace" ABS_MT_TRACKING_ID 'v < 0')"
step "pen strokes: $(count "$OUT/pen.trace" BTN_TOUCH 'v == 1') down, $(count "$OUT/pen.trace" BTN_TOUCH 'v == 0') up"
step "pen in range: $(count "$OUT/pen.trace" BTN_TOOL_PEN 'v == 1') in, $(count "$OUT/pen.trace" BTN_TOOL_PEN 'v == 0') out"
cp "$(daemon_log)" "$OUT/daemon.log" 2>/dev/null
stop_pid "$SIM_PID"
