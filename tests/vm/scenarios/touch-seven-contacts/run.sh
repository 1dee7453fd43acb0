# Scenario 3: seven contacts over two 0x06 packets, 0x17 reports, 0x04 and
# 0x01 reports with their shifts; then a seven-finger frame that lost its
# second packet and ten fingers whose frames announce 11 with SupportPoints
# 10, each followed by a frame lifting every finger, and a tap: no contact
# may stay down at the reader. expected.touch.events is written by hand from
# the layouts (contact k of the first 0x06 frame at (500 + 400k, 3500 -
# 300k); 0x04: 16000 >> 3 = 2000, 24000 >> 3 = 3000, 16087 >> 3 = 2010; the
# later frames as sim.scn says) and the frame rule: a 0x06 or 0x17 frame is
# written once its last announced contact is handled, a frame cut short when
# the next frame begins, and a frame ended by an invalid contact id at that
# slot, so each scan is one frame; the 0x04 and 0x01 reports announce no
# count: a frame at each state change, or when the contact numbers stop
# rising. The input core drops values equal to a slot's current ones.
. ../touch-devices/touch-env.sh

touch_settings 1
touch_start sim.scn && step "set-up done" || step "set-up not done"
touch_record touch.trace --idle-ms 1500
touch_go
wait "$EVREC_PID"
step "protocol check status $?"
touch_events "$OUT/touch.trace" "$OUT/touch.events"
# Slots whose last tracking id is not -1: contacts the reader still sees down.
awk '$1 == "ABS_MT_SLOT" { s = $2 } $1 == "ABS_MT_TRACKING_ID" { id[s + 0] = $2 + 0 }
     END { n = 0; for (k in id) if (id[k] != -1) n++; print "contacts down at the end: " n }' \
    "$OUT/touch.events" >> "$OUT/steps.txt"
