# Faults the daemon must live through, one case a line of cases.
. ../usb-touch/touch-env.sh
PCAP=../usb-touch/pcap4155.scn

count() { grep -c "$1" "$(daemon_log)" 2>/dev/null; }
removals() { count 'Device \[/dev/hidraw0\] was removed, existed device amount = 0'; }
setups() { count 'Device\[/dev/hidraw0\] Setup Done'; }
same_pid() { step "TavrineD processes: $(daemon_count), same pid: $([ "$(pid_file_pid)" = "$1" ] && echo yes)"; }

# SIGKILL with a finger down, then -f: the devices vanish with the daemon, the new one sets
# the controller up again and the next touch is a fresh contact.
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

# No uinput node: set-up fails, scanning goes on (DeviceNums 2: with 1 the failed device fills
# the list); SIGUSR2 drops it after an unplug; with the node back it is set up again.
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

# Unplug on set-up's first command, then on the format command: the half-made device goes.
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

# data_dir ro|full MESSAGE: /data read-only or full (1 MiB tmpfs filled; the log bind-mounted
# from /tmp) when a controller needing a new settings block plugs: the file stays byte for
# byte, MESSAGE is logged, the controller is served.
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

# Unplug as soon as TavrineA.tmp appears while a block is added to a 600 KB settings file:
# the file is the old one or has exactly the new block, no temporary file is left.
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

# flood: a second controller sends a valid report 5000 times a second for 5 s while the probe
# controller's touches, every 250 ms, must each reach its device within 20 ms; the daemon's
# VmRSS grows at most 1024 kB.
hx() { printf '%02x %02x' $(($1 % 256)) $(($1 / 256)); }
flood() {
    local before after i=0 lat pid
    # The set-up answers of a PCAP4155 controller, read from /tmp; the probe's tx times are
    # taken before the write; the load starts once the format command ends its set-up.
    sed "s#^descriptor-file \.\./#descriptor-file $PWD/../#" ../usb-touch/pcap4155.scn > /tmp/pcap.scn
    { cat /tmp/pcap.scn; printf 'phys usb-probe/input0\nstamp before\n'; } > /tmp/probe.scn
    { cat /tmp/pcap.scn; printf 'phys usb-load/input0\nwait rx 05 02 timeout 30s\nafter 300 clock\n'
      printf 'at 0 rate 5000/s for 5s send 06 01 01 00 00 08 00 04\nafter 500 note load ends\n'; } > /tmp/load.scn
    touch_start /tmp/probe.scn && step "probe controller set up" || step "probe controller not set up"
    pid=$(pid_file_pid)
    # The simulator shares the guest's one CPU: its catching up is no daemon latency.
    for task in /proc/$pid/task/*; do renice -n -10 -p "${task##*/}" > /dev/null; done
    touch_record probe.trace --check
    tavrine-sim /tmp/load.scn --log /tmp/load.log --ready /tmp/load.ready &
    load_pid=$!
    wait_until 'grep -q "note load ends\|clock" /tmp/load.log 2>/dev/null' 300 || step "load controller not set up"
    before=$(awk '/^VmRSS:/ { print $2 }' "/proc/$pid/status")
    # tail, not grep: the load's log grows by thousands of lines a second
    while ! tail -n 1 /tmp/load.log | grep -q "note load ends"; do
        i=$((i + 1))
        sim_do send 06 01 01 00 $(hx $((100 + i))) $(hx 700)
        sleep 0.25
    done
    sim_do send 06 01 00 00 $(hx $((100 + i))) $(hx 700)
    after=$(awk '/^VmRSS:/ { print $2 }' "/proc/$pid/status")
    stop_pid "$load_pid"
    wait_until 'grep -q "USB Device \[/dev/hidraw1\] is removed" "$(daemon_log)"' 100 || step "removal of the load controller not logged"
    echo "load controller sent $(grep -c ' tx ' /tmp/load.log) reports in 5 s; VmRSS $before -> $after kB" >> "$OUT/figures.txt"
    step "flood: daemon alive: $(is_daemon "$pid" && echo yes)"
    [ -n "$before" ] && [ -n "$after" ] && [ "$after" -le $((before + 1024)) ] &&
        step "flood: VmRSS within 1024 kB of its start" || step "flood: VmRSS $before -> $after kB"
    sleep 0.3
    stop_pid "$EVREC_PID"
    step "probe protocol check status $?"
    awk -f latency.awk "$OUT/sim.log" "$OUT/probe.trace" > /tmp/lat
    tail -n 1 /tmp/lat >> "$OUT/figures.txt"
    lat=$(sed '$d' /tmp/lat | sort -n | tail -n 1)
    echo "probe latency max ${lat:-?} us; all (us): $(sed '$d' /tmp/lat | tr '\n' ' ')" >> "$OUT/figures.txt"
    awk '/^sent/ { print ($2 > 0 && $2 == $4) ? "every probe touch arrived" : "probe touches lost: " $0 }' /tmp/lat >> "$OUT/steps.txt"
    [ -n "$lat" ] && [ "$lat" -le 20000 ] && step "probe touches within 20 ms" || step "probe latency max ${lat:-?} us"
    step "TavrineD processes: $(daemon_count), same pid: $([ "$(pid_file_pid)" = "$pid" ] && echo yes)"
    cat "$OUT/figures.txt"
}
play_case
