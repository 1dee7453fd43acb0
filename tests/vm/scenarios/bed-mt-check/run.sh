# Bed self-test of the recorder's live multi-touch check: hid-multitouch
# turns the simulator's reports into a slot stream, which the recorder
# writes and checks (tracking ids and frame ends).
. /bed/lib.sh

start_sim sim.scn && step "simulator ready" || step "simulator not ready"
node=$(ls /sys/class/hidraw | head -n 1)
step "bound to $(sed -n 's/^DRIVER=//p' "/sys/class/hidraw/$node/device/uevent")"
name=$(sed -n 's/^N: Name="\(Tavrine MT Test.*\)"$/\1/p' /proc/bus/input/devices | head -n 1)
step "input device: $name"
start_evrec "$name" touch.trace --idle-ms 1500 --check
wait "$SIM_PID"
step "simulator exit status $?"
wait "$EVREC_PID"
step "recorder check status $?"
strip_times "$OUT/touch.trace" "$OUT/touch.events"
