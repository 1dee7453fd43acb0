# The daemon is killed with SIGKILL while a finger is down and started again
# with -f: its virtual devices vanish with it (the recorder of the old touch
# device sees it removed), the new daemon sets the controller up again, and
# the new touch device's trace starts clean: the next touch is a fresh
# contact that ends released.
. ../touch-devices/touch-env.sh

setups() { grep -c 'Device\[/dev/hidraw0\] Setup Done' "$(daemon_log)"; }

touch_settings 3
touch_start sim.scn && step "set-up done" || step "set-up not done"
old=$(pid_file_pid)
touch_record old.trace
sim_do send 06 01 01 00 e8 03 d0 07
wait_until 'grep -q "ABS_MT_POSITION_Y" "$OUT/old.trace"' 30 && step "finger down on the old touch device"
kill -KILL "$old"
wait "$EVREC_PID"
step "old recorder status $?"
tail -n 1 "$OUT/old.trace" | sed 's/, [0-9]* events$//' > "$OUT/old.end"
wait_until '! is_daemon "$old"' 50 && step "killed daemon gone"
wait_until '! has_input MorvelTouch_VirtualDevice && ! has_input MorvelTouch_VirtualPen' 50 &&
    step "old virtual devices gone"

mv "$(daemon_log)" "$OUT/killed-daemon.log"
PATH=/tmp/touchbin:$PATH TavrineD -f > "$OUT/restart.out" 2>&1
step "restart status $?"
wait_until '[ "$(setups)" = 1 ] && has_input MorvelTouch_VirtualDevice' 300 &&
    step "new daemon: controller set up again"
new=$(pid_file_pid)
step "new pid differs: $([ -n "$new" ] && [ "$new" != "$old" ] && echo yes), TavrineD processes: $(daemon_count)"
step "touch devices: $(grep -c '^N: Name="MorvelTouch_VirtualDevice"$' /proc/bus/input/devices)"
touch_record new.trace --idle-ms 1000
sim_do send 06 01 01 00 d0 07 e8 03
sleep 0.2
sim_do send 06 01 00 00 d0 07 e8 03
wait "$EVREC_PID"
step "new recorder protocol check status $?"
touch_events "$OUT/new.trace" "$OUT/new.events"
