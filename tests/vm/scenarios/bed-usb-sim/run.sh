# Bed self-test on USB: the simulator's uhid device appears as a hidraw
# node with the maker's ids, a command written to the node reaches the
# simulator and is answered, its input reports reach hidraw whole, and
# hid-generic's evdev node carries them as events the recorder writes.
. /bed/lib.sh

start_sim sim.scn && step "simulator ready" || step "simulator not ready"
node=$(ls /sys/class/hidraw | head -n 1)
[ -c "/dev/$node" ] && step "hidraw node present" || step "hidraw node missing"
step "hid id $(sed -n 's/^HID_ID=//p' "/sys/class/hidraw/$node/device/uevent")"
step "bound to $(sed -n 's/^DRIVER=//p' "/sys/class/hidraw/$node/device/uevent")"

start_evrec "Tavrine Test Controller Mouse" mouse.trace --idle-ms 1500 --ready /tmp/bed.evrec.ready
wait_until '[ -e /tmp/bed.evrec.ready ]' 50 && step "recorder ready" || step "recorder not ready"

dd if="/dev/$node" of=/tmp/bed.hidraw bs=64 count=3 2>/dev/null &
reader=$!
sleep 0.3
printf '\003\002\101\000' > "/dev/$node"
wait "$SIM_PID"
step "simulator exit status $?"
wait "$reader"
hexdump -C /tmp/bed.hidraw > "$OUT/hidraw.txt"
wait "$EVREC_PID"
step "recorder exit status $?"
strip_times "$OUT/mouse.trace" "$OUT/mouse.events"
sed -nE 's/^[0-9.]+ ((rx|tx).*)/\1/p' "$OUT/sim.log" > "$OUT/sim.bytes"
