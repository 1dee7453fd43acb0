# USB discovery smoke test: the daemon, scanning USB only, finds the
# simulated controller by its vendor id, opens its hidraw node, sends it
# commands with the USB header, creates its virtual touch and pen devices,
# and removes them after the controller is unplugged.
. /bed/lib.sh

has_input() { grep -q "^N: Name=\"$1\"$" /proc/bus/input/devices; }

write_settings 1
sed -i 's/^DebugEnableBits 1$/DebugEnableBits fffff/' /data/TavrineA.ini
start_sim sim.scn && step "controller plugged"
TavrineD -f > "$OUT/start.out" 2>&1
step "start -f: exit status $?"
wait_until 'grep -q " rx 03" "$OUT/sim.log"' 300
first=$(sed -n 's/^[0-9.]* rx \(..\) .*/\1/p' "$OUT/sim.log" | head -n 1)
step "first command header: $first"
grep -q ' event open$' "$OUT/sim.log" && step "hidraw node opened: yes" || step "hidraw node opened: no"
wait_until 'has_input MorvelTouch_VirtualDevice && has_input MorvelTouch_VirtualPen' 300
has_input MorvelTouch_VirtualDevice && step "touch device: present" || step "touch device: missing"
has_input MorvelTouch_VirtualPen && step "pen device: present" || step "pen device: missing"
log=$(ls /data/Tavrine_*.log 2>/dev/null | head -n 1)
grep -q 'Vendor ID 3C7A is detected\.' "$log" && step "log: vendor id detected"
grep -q 'Found an QEVO Device at port \[/dev/hidraw0\]' "$log" && step "log: found device at /dev/hidraw0"

stop_pid "$SIM_PID"
step "controller unplugged"
wait_until '! has_input MorvelTouch_VirtualDevice && ! has_input MorvelTouch_VirtualPen' 150
has_input MorvelTouch_VirtualDevice || has_input MorvelTouch_VirtualPen &&
    step "virtual devices after unplug: still there" || step "virtual devices after unplug: removed"
step "TavrineD processes: $(daemon_count)"
cp /proc/bus/input/devices "$OUT/input-devices.txt"
