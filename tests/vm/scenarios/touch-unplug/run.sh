# Scenario 5: unplug while a finger is down: the touch device reports the
# release, then goes away, and the removal is logged; the controller plugged
# in again is served; after 50 more unplug/plug cycles the daemon has as many
# open descriptors and threads as before them (figures in figures.txt).
. ../touch-devices/touch-env.sh

setups() { grep -c 'Device\[/dev/hidraw0\] Setup Done' "$(daemon_log)"; }
removals() { grep -c 'Device \[/dev/hidraw0\] was removed, existed device amount = 0' "$(daemon_log)"; }
counts() { echo "$(ls "/proc/$1/fd" | wc -l) $(ls "/proc/$1/task" | wc -l)"; }

touch_settings 3
touch_start sim.scn && step "set-up done" || step "set-up not done"
touch_record touch.trace --idle-ms 5000
sim_do send 06 01 01 00 e8 03 d0 07
wait_until 'grep -q "ABS_MT_POSITION_Y" "$OUT/touch.trace"' 30
sim_do unplug
wait "$EVREC_PID"
step "protocol check status $?"
wait_until '! has_input MorvelTouch_VirtualDevice' 50 && step "touch device gone"
step "removal logged: $(removals)"
touch_events "$OUT/touch.trace" "$OUT/unplug.events"
tail -n 1 "$OUT/touch.trace" | sed 's/, [0-9]* events$//' >> "$OUT/unplug.events"

sim_do plug
wait_until '[ "$(setups)" = 2 ] && has_input MorvelTouch_VirtualDevice' 100 && step "plugged again: set up"
touch_record replug.trace --idle-ms 1000
sim_do send 06 01 01 00 d0 07 e8 03
sleep 0.2
sim_do send 06 01 00 00 d0 07 e8 03
wait "$EVREC_PID"
step "protocol check status $?"
touch_events "$OUT/replug.trace" "$OUT/replug.events"

pid=$(pid_file_pid)
before=$(counts "$pid")
start=$(cut -d' ' -f1 /proc/uptime)
n=0
while [ $n -lt 50 ]; do
    n=$((n + 1))
    sim_do unplug
    wait_until '[ "$(removals)" = $((n + 1)) ]' 100 || break
    sim_do plug
    wait_until '[ "$(setups)" = $((n + 2)) ] && has_input MorvelTouch_VirtualDevice' 100 || break
done
sleep 0.5
after=$(counts "$pid")
end=$(cut -d' ' -f1 /proc/uptime)
step "cycles completed: $n, removals logged: $(removals), set-ups: $(setups)"
echo "descriptors and threads before: $before, after 50 cycles: $after; cycles took $start..$end s" |
    tee "$OUT/figures.txt"
[ "$before" = "$after" ] && step "descriptors and threads back to their starting count" ||
    step "descriptors and threads changed: $before -> $after"
step "virtual devices: $(grep -c '^N: Name="MorvelTouch_Virtual' /proc/bus/input/devices)"
step "TavrineD processes: $(daemon_count), same pid: $([ "$(pid_file_pid)" = "$pid" ] && echo yes)"
