# Scenario 6: 10 contacts at 1000 reports per second for 10 s (5000 scans
# of two 0x06 reports), then a lift of all 10. Every contact moves in every
# scan (contact k at X = 100 + 350k + (f % 50), contact 0 at X = 100 +
# (f % 3000), scan f), so no frame is filtered by the input core. A frame
# is written when a scan's last announced contact is handled, so the reader
# must see one frame per scan: 5000 and the lift, 5001 frames; and contact
# 0's X in exactly 5000 frames, in the order sent.
. ../touch-devices/touch-env.sh

scans=5000
start_ms=6000
awk -v scans=$scans -v t0=$start_ms '
function le(v) { return sprintf("%02x %02x", v % 256, int(v / 256)) }
function slot(state, k, f,   x) {
    x = (k == 0) ? 100 + (f % 3000) : 100 + 350 * k + (f % 50)
    return sprintf(" %02x %02x %s %s 00 00 00 00", state, k, le(x), le(500 + 300 * k))
}
function scan(state, f,   k, a, b) {
    a = "06 0a"; b = "06 00"
    for (k = 0; k < 5; k++) a = a slot(state, k, f)
    for (k = 5; k < 10; k++) b = b slot(state, k, f)
    printf "at %d send %s\nat %d send %s\n", t, a, t + 1, b
    t += 2
}
BEGIN {
    printf "at %d note load in 1.5 s\n", t0 - 1500
    t = t0
    for (f = 0; f < scans; f++) scan(1, f)
    scan(0, scans - 1)
    printf "at %d note load ends\n", t
}' > /tmp/load-steps.scn
cat base.scn /tmp/load-steps.scn > /tmp/load.scn
sed -i "s#^descriptor-file ../../#descriptor-file $PWD/../../#" /tmp/load.scn

touch_settings 1
touch_start /tmp/load.scn && step "set-up done" || step "set-up not done"
wait_until 'grep -q "note load in" "$OUT/sim.log"' 100 && step "set-up done before the load"
# One emulated CPU, on a host that may be busy, runs the simulator, the
# daemon and the recorder; the hidraw queue holds 64 reports (64 ms here).
# As a touch daemon on a device would, the daemon's threads run above the
# test programs, so that a stall of the bed is not counted as a lost frame.
pid=$(pid_file_pid)
for task in /proc/$pid/task/*; do renice -n -10 -p "${task##*/}" > /dev/null; done
touch_record touch.trace --idle-ms 2000
# Figures for the report: the daemon's read calls (one per report) and the
# CPU ticks of each party over the load.
cpu() { awk '{ print $14 + $15 }' "/proc/$1/stat"; }
reads() { awk '/^syscr/ { print $2 }' "/proc/$1/io"; }
io0=$(reads "$pid") d0=$(cpu "$pid") s0=$(cpu "$SIM_PID") r0=$(cpu "$EVREC_PID")
sleep 8
ticks="cpu ticks over 8 s: daemon $(($(cpu "$pid") - d0)), simulator $(($(cpu "$SIM_PID") - s0)), recorder $(($(cpu "$EVREC_PID") - r0))"
wait "$EVREC_PID"
step "protocol check status $?"
echo "$ticks; daemon read calls during the load: $(($(reads "$pid") - io0))" > "$OUT/cpu.txt"

# Frames received, and contact 0's X per frame (slot 0, with the input
# core's slot events: the current slot starts at 0).
# Values are compared as text ("%04d"): busybox awk reads "0500" as octal.
awk 'BEGIN { slot = "0000" }
     !/^E:/ { next }
     $4 == "002f" { slot = $5 }
     $4 == "0035" && slot == "0000" { x0 = $5; sub(/^0+/, "", x0); print "x0 " x0 }
     $3 == "0000" && $4 == "0000" { frames++ }
     END { print "frames " frames + 0 }' "$OUT/touch.trace" > /tmp/received.txt
received=$(sed -n 's/^frames //p' /tmp/received.txt)
grep '^x0 ' /tmp/received.txt | cut -d' ' -f2 > /tmp/x0.got
awk -v scans=$scans 'BEGIN { for (f = 0; f < scans; f++) print 100 + (f % 3000) }' > /tmp/x0.want
diff /tmp/x0.want /tmp/x0.got | grep '^[-+][0-9]' | head -n 80 > "$OUT/x0.gaps"
sent=$(grep -c ' tx 06 0a' "$OUT/sim.log")
first=$(grep -m1 ' tx 06 0a' "$OUT/sim.log" | cut -d' ' -f1)
last=$(grep ' tx 06 00' "$OUT/sim.log" | tail -n 1 | cut -d' ' -f1)
reports=$(grep -c ' tx 06 ' "$OUT/sim.log")
echo "scans sent $sent ($reports reports) from $first to $last s; frames received $received; contact-0 moves received $(wc -l < /tmp/x0.got)" |
    tee "$OUT/figures.txt"
step "scans sent: $sent, reports sent: $reports"
step "frames received: $received"
step "reports read by the daemon: $(($(reads "$pid") - io0))"
cmp -s /tmp/x0.got /tmp/x0.want && step "contact 0 moves: all $scans, in order" ||
    step "contact 0 moves: $(wc -l < /tmp/x0.got) of $scans or out of order"
dmesg | grep -q 'Event data for report' && step "kernel dropped reports"
# The full trace and simulator log run to megabytes: only their heads go back.
for f in touch.trace sim.log; do
    head -n 300 "$OUT/$f" > "$OUT/$f.head" && rm -f "$OUT/$f"
done
