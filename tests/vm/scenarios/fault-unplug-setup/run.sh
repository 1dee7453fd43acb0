# Unplug during set-up (on the first command) and during a command exchange
# (on the format command): each time the daemon stays alive, logs the
# removal, drops the half-made device, and serves the controller once it is
# plugged again; no touch device is left behind and a touch then arrives.
. ../touch-devices/touch-env.sh

count() { grep -c "$1" "$(daemon_log)" 2>/dev/null; }
removals() { count 'Device \[/dev/hidraw0\] was removed, existed device amount = 0'; }
setups() { count 'Device\[/dev/hidraw0\] Setup Done'; }
received() { grep -c " rx $*" "$OUT/sim.log"; }

touch_settings 3
start_sim sim.scn || step "simulator not ready"
PATH=/tmp/touchbin:$PATH TavrineD -f > "$OUT/start.out" 2>&1
wait_until '[ -n "$(pid_file_pid)" ]' 100
pid=$(pid_file_pid)

# Round 1: the controller vanishes on the first command it receives.
wait_until '[ "$(received 03 02 39)" -ge 1 ]' 300 && step "first command received"
wait_until '[ "$(removals)" -ge 1 ]' 150 && step "removal logged after unplug in set-up: $(removals)"
step "daemon alive: $(is_daemon "$pid" && echo yes), set-ups done: $(setups)"
has_input MorvelTouch_VirtualDevice && step "touch device left behind"

# Round 2: plugged again; set up (virtual devices made), then vanishes on
# the report format command that follows the set-up.
sim_do plug
wait_until '[ "$(received 05 02)" -ge 1 ]' 300 && step "format command received"
wait_until '[ "$(removals)" -ge 2 ]' 150 && step "removal logged after unplug on format: $(removals)"
step "daemon alive: $(is_daemon "$pid" && echo yes), set-ups done: $(setups)"
wait_until '! has_input MorvelTouch_VirtualDevice && ! has_input MorvelTouch_VirtualPen' 50 &&
    step "no virtual device left"

# Round 3: plugged again; served in full; one touch arrives.
sim_do plug
wait_until '[ "$(setups)" -ge 2 ] && has_input MorvelTouch_VirtualDevice' 300 && step "plugged again: set up"
touch_tap_check touch
step "TavrineD processes: $(daemon_count), same pid: $([ "$(pid_file_pid)" = "$pid" ] && echo yes)"
