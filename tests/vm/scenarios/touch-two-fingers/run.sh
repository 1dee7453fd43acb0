# Scenario 2: two fingers down, moving and lifted one after the other in
# 0x06 reports give the slot trace of expected.touch.events, written by hand:
# the daemon writes a frame when a contact changes state, or when a record's
# contact number is not above the last one (the next scan begins), so a
# move shows one report late; a lift frame carries no position (finger 1's
# last move to (3020, 520) is never written); the input core drops values
# equal to the slot's current ones and sends ABS_MT_SLOT only before a
# value of another slot.
. ../touch-devices/touch-env.sh

touch_settings 1
touch_start sim.scn && step "set-up done" || step "set-up not done"
touch_record touch.trace --idle-ms 1500
touch_go
wait "$EVREC_PID"
step "protocol check status $?"
touch_events "$OUT/touch.trace" "$OUT/touch.events"
