# A capacitive controller whose type begins "PCAP6": series 22, slot
# protocol (EventType 2), set-feature and no format 1. Its pen reports
# (0x02: status, X, Y, pressure, tilt X, tilt Y) reach the pen device: a
# hovering pen, the tip down with barrel button, pressure and tilt, the pen
# leaving, then the inverted pen (eraser switch on) touching and leaving,
# and the pen hovering again.
. /bed/lib.sh
. ../cmd-common/cmd.sh

start_sim sim.scn
cmd_start_daemon pcap
cmd_wait_setup 150 && step "set-up done" || step "set-up not done"
for text in "Type:PCAP6555, Model:M6555 , Version:V3.1, IAP:1" "AllocateSeries: SERIES_PCAP_6555" \
    "Multipoint device and Kernel is 2.6.36 upwards. EventType = SLOT_Multi protocol"; do
    cmd_logged "$text" && step "logged: $text"
done
cmd_received "$OUT/sim.log" > "$OUT/cmds.txt"

rm -f /tmp/cmd.evrec.ready
start_evrec MorvelTouch_VirtualPen pen.trace --idle-ms 1500 --ready /tmp/cmd.evrec.ready
wait_until '[ -e /tmp/cmd.evrec.ready ]' 50
#              status X     Y     Z     tilt-x tilt-y
sim_do send 02 20     e8 03 d0 07 00 00 00 00  00 00
sleep 0.1
sim_do send 02 23     f2 03 e4 07 00 02 1e 00  ec ff
sleep 0.1
sim_do send 02 00     f2 03 e4 07 00 00 00 00  00 00
sleep 0.1
sim_do send 02 2d     b8 0b dc 05 00 01 00 00  00 00
sleep 0.1
sim_do send 02 24     b8 0b dc 05 00 00 00 00  00 00
sleep 0.1
sim_do send 02 20     f4 01 58 02 00 00 00 00  00 00
wait "$EVREC_PID"
step "pen recorder status: $?"
grep '^E:' "$OUT/pen.trace" | sed -E 's/^E: [0-9]+\.[0-9]+ //' > "$OUT/pen.events"
