# PS/2 discovery smoke test: with ScanInterface 3 the daemon takes the
# stand-in /dev/serio_raw0, sends it commands with the 0x0A header and
# creates its virtual devices.
. /bed/lib.sh

has_input() { grep -q "^N: Name=\"$1\"$" /proc/bus/input/devices; }

write_settings 3
sed -i 's/^DebugEnableBits 1$/DebugEnableBits fffff/' /data/TavrineA.ini
start_sim sim.scn && step "controller plugged at /dev/serio_raw0"
TavrineD -f > "$OUT/start.out" 2>&1
step "start -f: exit status $?"
wait_until 'grep -q " rx " "$OUT/sim.log"' 300
step "first command header: $(sed -n 's/^[0-9.]* rx \(..\).*/\1/p' "$OUT/sim.log" | head -n 1)"
wait_until 'has_input MorvelTouch_VirtualDevice && has_input MorvelTouch_VirtualPen' 300
has_input MorvelTouch_VirtualDevice && step "touch device: present" || step "touch device: missing"
has_input MorvelTouch_VirtualPen && step "pen device: present" || step "pen device: missing"
log=$(ls /data/Tavrine_*.log 2>/dev/null | head -n 1)
grep -q 'Scan PS2 Path \[/dev/serio_raw0\]' "$log" && step "log: scanned /dev/serio_raw0"
stop_pid "$SIM_PID"
