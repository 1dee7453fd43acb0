# Neither /dev/input/uinput nor /dev/uinput exists (the nodes are moved away
# and put back when the scenario ends): the set-up of a controller fails with
# the open error and "DevSetup failed with return -1", and the daemon keeps
# running and scanning. DeviceNums is 2 here: with 1, the failed device fills
# the list and the loop makes no further scan passes (observed: nothing more
# is logged). The failed device's thread has ended, so nothing notices the
# unplug by itself; a SIGUSR2 (the plug-and-play check request) makes the
# daemon drop it, and the controller plugged again with the node back is set
# up and a touch arrives.
. ../touch-devices/touch-env.sh

count() { grep -c "$1" "$(daemon_log)" 2>/dev/null; }
scans() { count 'Portpath \[/dev/hidraw0\] is already created'; }

mkdir -p /tmp/uinput.saved
for node in /dev/uinput /dev/input/uinput; do
    [ -e "$node" ] && mv "$node" "/tmp/uinput.saved/${node##*/}.${#node}"
done
restore() {
    [ -e /tmp/uinput.saved/uinput.11 ] && mv /tmp/uinput.saved/uinput.11 /dev/uinput
    [ -e /tmp/uinput.saved/uinput.17 ] && mv /tmp/uinput.saved/uinput.17 /dev/input/uinput
}
trap restore EXIT
step "uinput nodes present: $(ls /dev/uinput /dev/input/uinput 2>/dev/null | wc -l)"

touch_settings 10003
sed -i 's/^DeviceNums 1$/DeviceNums 2/' /data/TavrineA.ini
start_sim sim.scn || step "simulator not ready"
PATH=/tmp/touchbin:$PATH TavrineD -f > "$OUT/start.out" 2>&1
wait_until '[ -n "$(pid_file_pid)" ]' 100
pid=$(pid_file_pid)
wait_until '[ "$(count "DevSetup failed with return -1")" -ge 1 ]' 300 && step "set-up failed"
step "open error logged: $(count 'Unable to open /dev/uinput & /dev/input/uinput : No such file or directory')"
at=$(scans)
wait_until '[ "$(scans)" -ge $((at + 3)) ]' 100 && step "scan passes go on after the failure"
step "daemon alive: $(is_daemon "$pid" && echo yes), virtual devices: $(grep -c '^N: Name="MorvelTouch_Virtual' /proc/bus/input/devices)"

restore
step "uinput node back: $(ls /dev/uinput 2>/dev/null)"
sim_do unplug
wait_until '[ ! -e /dev/hidraw0 ]' 50
kill -USR2 "$pid"
wait_until '[ "$(count "Device \[/dev/hidraw0\] was removed, existed device amount = 0")" = 1 ]' 50 &&
    step "failed device removed on the plug-and-play check"
sim_do plug
wait_until 'grep -q "Device\[/dev/hidraw0\] Setup Done" "$(daemon_log)" && has_input MorvelTouch_VirtualDevice' 300 &&
    step "plugged again with the node back: set up"
touch_tap_check touch
step "TavrineD processes: $(daemon_count), same pid: $([ "$(pid_file_pid)" = "$pid" ] && echo yes)"
