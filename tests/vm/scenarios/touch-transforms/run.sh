# Scenario 4: a device block with edge compensation, Direction 5 (swap, then
# mirror X), Orientation 1, SplitRectMode 9, the hold filter and
# ResolX/ResolY. Expected values by hand, in the pipeline's order
# (quotients truncated toward zero):
#   (100, 4000): edge X 205 - 105*150/100 = 48, Y 3891 + 109*120/100 = 4021;
#     swap (4021, 48), mirror X (73, 48); quarter turn (4094 - 48, 73) =
#     (4046, 73); rectangle X 1000 + 4046*2000/4095 = 2976,
#     Y 500 + 73*3000/4095 = 553; output X 1919*2976/4095 = 1394,
#     Y 1079*553/4095 = 145.
#   (110, 4005): the same steps give (2968, 549): it moved less than 20 from
#     (2976, 553), so the hold filter swallows it: no event.
#   (300, 3000): no edge band; (3000, 300), (1094, 300); (3794, 1094);
#     (2852, 1301); output (1336, 342).
#   Lift: tracking id -1.
. ../touch-devices/touch-env.sh

touch_settings 1 EdgeCompensate 1 EdgeLeft 150 EdgeRight 100 EdgeTop 100 EdgeBottom 120 \
    Direction 5 Orientation 1 SplitRectMode 9 CustomRectLeft 1000 CustomRectRight 3000 \
    CustomRectTop 500 CustomRectBottom 3500 HoldFilterEnable 1 HoldRange 20 \
    ResolX 1919 ResolY 1079
touch_start sim.scn && step "set-up done" || step "set-up not done"
touch_record touch.trace --idle-ms 1500
touch_go
wait "$EVREC_PID"
step "protocol check status $?"
grep '^A: 3[56] ' "$OUT/touch.trace" | while read -r line; do step "axis $line"; done
touch_events "$OUT/touch.trace" "$OUT/touch.events"
