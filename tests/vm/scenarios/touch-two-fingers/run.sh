# Scenario 2: two fingers down, moving and lifted one after the other in
# 0x06 reports give the slot trace of expected.touch.events, written by hand:
# the daemon writes one frame per report, once the report's last announced
# contact is handled, with every contact at its position of that report
# (finger 1 joins in the frame of finger 0's first move; finger 0's lift and
# finger 1's last move share a frame); a lift carries no position; the input
# core drops values equal to the slot's current ones and sends ABS_MT_SLOT
# only before a value of another slot.
. ../touch-devices/touch-env.sh

touch_settings 1
touch_start sim.scn && step "set-up done" || step "set-up not done"
touch_record touch.trace --idle-ms 1500
touch_go
wait "$EVREC_PID"
step "protocol check status $?"
touch_events "$OUT/touch.trace" "$OUT/touch.events"
