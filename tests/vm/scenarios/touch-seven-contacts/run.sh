# Scenario 3: seven contacts over two 0x06 packets, 0x17 reports, 0x04 and
# 0x01 reports with their shifts; expected.touch.events is written by hand
# from the layouts (contact k of the 0x06 frame at (500 + 400k, 3500 - 300k);
# 0x04: 16000 >> 3 = 2000, 24000 >> 3 = 3000, 16087 >> 3 = 2010) and the
# frame rule (each new contact is a state change: one frame each).
. ../touch-devices/touch-env.sh

touch_settings 1
touch_start sim.scn && step "set-up done" || step "set-up not done"
touch_record touch.trace --idle-ms 1500
touch_go
wait "$EVREC_PID"
step "protocol check status $?"
touch_events "$OUT/touch.trace" "$OUT/touch.events"
