# Faults: each line of cases is one fault the daemon must live through (play_case in
# /bed/lib.sh); the functions below are the case-specific steps. With script '-' a case
# plugs its controllers itself.
. ../usb-touch/touch-env.sh
PCAP=../usb-touch/pcap4155.scn

count() { grep -c "$1" "$(daemon_log)" 2>/dev/null; }
removals() { count 'Device \[/dev/hidraw0\] was removed, existed device amount = 0'; }
setups() { count 'Device\[/dev/hidraw0\] Setup Done'; }
same_pid() { step "TavrineD processes: $(daemon_count), same pid: $([ "$(pid_file_pid)" = "$1" ] && echo yes)"; }

# SIGKILL with a finger down, then -f: the virtual devices vanish with the daemon (the old
# touch device's recorder sees it removed), the new daemon sets the controller up again and
# the next touch is a fresh contact that ends released.
sigkill() {
    local old=$(pid_file_pid)
    touch_record old.trace
    sim_do send 06 01 01 00 e8 03 d0 07
    wait_until 'grep -q "ABS_MT_POSITION_Y" "$OUT/old.trace"' 30 && step "finger down on the old touch device"
    kill -KILL "$old"
    wait "$EVREC_PID"
    step "old recorder status $?"
    tail -n 1 "$OUT/old.trace" | sed 's/, [0-9]* events$//' > "$OUT/old.end"
    wait_until '! is_daemon "$old"' 50 && step "killed daemon gone"
    wait_until '! has_input MorvelTouch_VirtualDevice && ! has_input MorvelTouch_VirtualPen' 50 && step "old virtual devices gone"
    mv "$(daemon_log)" "$OUT/killed-daemon.log"
    start_daemon
    wait_until '[ "$(setups)" = 1 ] && has_input MorvelTouch_VirtualDevice' 300 && step "new daemon: controller set up again"
    step "new pid differs: $([ "$(pid_file_pid)" != "$old" ] && echo yes), touch devices: $(grep -c '^N: Name="MorvelTouch_VirtualDevice"$' /proc/bus/input/devices)"
    tap
}

# No uinput node: the set-up fails with the open error, the daemon keeps scanning (DeviceNums
# 2: with 1 the failed device fills the list and no scan pass follows). A SIGUSR2 (the
# plug-and-play check) drops the failed device after an unplug; plugged again with the node
# back, the controller is set up and a touch arrives.
no_uinput() {
    local pid at
    mkdir -p /tmp/saved
    restore() { for f in /tmp/saved/*; do [ -e "$f" ] && mv "$f" "$(basename "$f" | tr _ /)"; done; }
    for n in /dev/uinput /dev/input/uinput; do [ -e $n ] && mv $n /tmp/saved/$(echo $n | tr / _); done
    trap restore EXIT
    start_sim $PCAP
    start_daemon
    wait_until '[ -n "$(pid_file_pid)" ]' 100
    pid=$(pid_file_pid)
    wait_until '[ "$(count "DevSetup failed with return -1")" -ge 1 ]' 300 && step "set-up failed"
    step "open error logged: $(count 'Unable to open /dev/uinput & /dev/input/uinput : No such file or directory')"
    at=$(count 'Portpath \[/dev/hidraw0\] is already created')
    wait_until '[ "$(count "Portpath \[/dev/hidraw0\] is already created")" -ge $((at + 3)) ]' 100 && step "scan passes go on after the failure"
    step "daemon alive: $(is_daemon "$pid" && echo yes), virtual devices: $(grep -c '^N: Name="MorvelTouch_Virtual' /proc/bus/input/devices)"
    restore
    sim_do unplug
    wait_until '[ ! -e /dev/hidraw0 ]' 50
    kill -USR2 "$pid"
    wait_until '[ "$(removals)" = 1 ]' 50 && step "failed device removed on the plug-and-play check"
    sim_do plug
    wait_until '[ "$(setups)" = 1 ] && has_input MorvelTouch_VirtualDevice' 300 && step "plugged again with the node back: set up"
    tap
    same_pid "$pid"
}

# Unplug on the first command of set-up, then on the format command after it: each time the
# daemon lives on, logs the removal and drops the half-made device; plugged again it serves.
unplug_setup() {
    local pid
    received() { grep -c " rx $*" "$OUT/sim.log"; }
    start_sim unplug-setup.scn
    start_daemon
    wait_until '[ -n "$(pid_file_pid)" ]' 100
    pid=$(pid_file_pid)
    wait_until '[ "$(received 03 02 39)" -ge 1 ]' 300 && step "first command received"
    wait_until '[ "$(removals)" -ge 1 ]' 150 && step "removal logged after unplug in set-up: $(removals)"
    step "daemon alive: $(is_daemon "$pid" && echo yes), set-ups done: $(setups)"
    has_input MorvelTouch_VirtualDevice && step "touch device left behind"
    sim_do plug
    wait_until '[ "$(received 05 02)" -ge 1 ]' 300 && step "format command received"
    wait_until '[ "$(removals)" -ge 2 ]' 150 && step "removal logged after unplug on format: $(removals)"
    step "daemon alive: $(is_daemon "$pid" && echo yes), set-ups done: $(setups)"
    wait_until '! has_input MorvelTouch_VirtualDevice && ! has_input MorvelTouch_VirtualPen' 50 && step "no virtual device left"
    sim_do plug
    wait_until '[ "$(setups)" -ge 2 ] && has_input MorvelTouch_VirtualDevice' 300 && step "plugged again: set up"
    tap
    same_pid "$pid"
}

# data_dir ro|full MESSAGE: the data folder turns read-only or full (a 1 MiB tmpfs filled)
# before a controller is plugged whose set-up must add its block to the settings file (its
# only block names another address). The log is bind-mounted from /tmp to stay writable. The
# settings file stays byte for byte, MESSAGE is logged, the controller is set up, a touch
# arrives.
data_dir() {
    local size pid log
    size=$(awk '$2 == "/data" { print $4 }' /proc/mounts | tr ',' '\n' | grep '^size=')
    trap 'umount /data/Tavrine_*.log; mount -o remount,rw /data; rm -f /data/filler; mount -o "remount,$size" /data' EXIT
    cp /data/TavrineA.ini /tmp/ini.orig
    start_daemon
    wait_until 'logged "Loop in endless scan"' 300 || step "daemon not scanning"
    pid=$(pid_file_pid)
    log=$(daemon_log)
    cp "$log" /tmp/daemon.log
    mount -o bind /tmp/daemon.log "$log" || step "log bind failed"
    if [ "$1" = ro ]; then
        mount -o remount,ro /data || step "remount failed"
        touch /data/probe 2>/dev/null && step "/data still writable"
    else
        mount -o remount,size=1m /data || step "remount failed"
        dd if=/dev/zero of=/data/filler bs=4k 2>/dev/null
        echo x >> /data/probe 2>/dev/null && step "/data not full"
    fi
    start_sim $PCAP
    wait_until '[ "$(setups)" = 1 ] && has_input MorvelTouch_VirtualDevice' 300 && step "set-up done"
    cmp /tmp/ini.orig /data/TavrineA.ini && step "settings file unchanged" || step "settings file changed"
    step "failure logged: $(grep -c "$2" /tmp/daemon.log)"
    step "no temporary file left: $([ ! -e /data/TavrineA.tmp ] && echo yes)"
    tap
    step "daemon alive: $(is_daemon "$pid" && echo yes)"
    cp /tmp/daemon.log "$OUT/daemon.log"
}

# Unplug while the daemon adds its block to a settings file padded to about 600 KB (the copy
# into TavrineA.tmp takes a while; the unplug comes as soon as that file appears). The file
# is then the old one, or the old one with exactly the new block before "[EndOfFile]"; no
# temporary file is left; the daemon lives on and serves the controller plugged again.
unplug_rewrite() {
    local pid tries=0 keep len result
    { sed '/^\[EndOfDevice\]/,$d' /data/TavrineA.ini
      awk 'BEGIN { for (i = 0; i < 40000; i++) printf "Padding%05d 1\n", i }'
      printf '[EndOfDevice]\n[EndOfFile]'; } > /tmp/ini.orig
    cp /tmp/ini.orig /data/TavrineA.ini
    start_daemon
    wait_until 'logged "Loop in endless scan"' 300 || step "daemon not scanning"
    pid=$(pid_file_pid)
    start_sim $PCAP
    until [ -e /data/TavrineA.tmp ] || [ $tries -ge 20000 ]; do tries=$((tries + 1)); done
    sim_do unplug
    echo "temporary file seen after $tries polls" > "$OUT/timing.txt"
    wait_until '[ "$(removals)" = 1 ]' 300 && step "device removed"
    step "daemon alive: $(is_daemon "$pid" && echo yes), no temporary file left: $([ ! -e /data/TavrineA.tmp ] && echo yes)"
    keep=$(($(wc -c < /tmp/ini.orig) - 12)) len=$(wc -c < /data/TavrineA.ini)
    if cmp -s /tmp/ini.orig /data/TavrineA.ini; then result=unchanged
    elif [ "$(head -c $keep /data/TavrineA.ini | md5sum)" != "$(head -c $keep /tmp/ini.orig | md5sum)" ]; then result="prefix differs"
    elif [ "$(tail -c 12 /data/TavrineA.ini | od -An -c | tr -d ' \n')" != '\n[EndOfFile]' ]; then result="end differs"
    else
        tail -c $((len - keep)) /data/TavrineA.ini | head -c $((len - keep - 12)) > /tmp/block
        grep -q '^\[Device_No\.1\]$' /tmp/block && grep -q 'usb-tavrine-sim/input0' /tmp/block &&
            [ "$(grep -c '\[EndOfDevice\]' /tmp/block)" = 1 ] && result="one block added" || result="block malformed"
    fi
    echo "$result" > "$OUT/file-result.txt"
    case $result in unchanged | "one block added") step "settings file whole" ;; *) step "settings file damaged: $result" ;; esac
    sim_do plug
    wait_until '[ "$(setups)" -ge 1 ] && has_input MorvelTouch_VirtualDevice' 300 && step "plugged again: set up"
    tap
    same_pid "$pid"
}

. ./flood.sh
play_case
