# RS232 discovery smoke test: with ScanInterface 2 and a SerialPath naming
# the simulator's pty, the daemon searches the line speed (9600, 19200,
# 57600: it stops where the controller answers), creates the device there,
# keeps the line at 57600 and creates its virtual devices.
. /bed/lib.sh

has_input() { grep -q "^N: Name=\"$1\"$" /proc/bus/input/devices; }

write_settings 2 /dev/ttyTV0
sed -i 's/^DebugEnableBits 1$/DebugEnableBits fffff/' /data/TavrineA.ini
start_sim sim.scn && step "controller plugged at /dev/ttyTV0"
TavrineD -f > "$OUT/start.out" 2>&1
step "start -f: exit status $?"
wait_until 'has_input MorvelTouch_VirtualDevice && has_input MorvelTouch_VirtualPen' 300
has_input MorvelTouch_VirtualDevice && step "touch device: present" || step "touch device: missing"
has_input MorvelTouch_VirtualPen && step "pen device: present" || step "pen device: missing"
# 38400 is the pty's own speed, which the probe restores between tries.
speeds=$(sed -n 's/^[0-9.]* line \([0-9]*\) .*/\1/p' "$OUT/sim.log" | grep -v '^38400$' | uniq | tr '\n' ' ')
step "line speeds set: $speeds"
grep -q ' match line 4$' "$OUT/sim.log" && step "loop-back answered: yes" || step "loop-back answered: no"
step "line speed now: $(sed -n 's/^[0-9.]* line //p' "$OUT/sim.log" | tail -n 1)"
log=$(ls /data/Tavrine_*.log 2>/dev/null | head -n 1)
grep -q 'Found a RS232 device at port \[/dev/ttyTV0\]' "$log" && step "log: found RS232 device at /dev/ttyTV0"
stop_pid "$SIM_PID"
