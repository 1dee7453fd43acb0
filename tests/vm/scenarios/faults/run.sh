# Faults the daemon must live through; each case ends with a tap that must leave nothing down.
PCAP=../usb-touch/pcap4155.scn
count() { grep -c "$1" "$(daemon_log)" 2>/dev/null; }
removals() { count 'Device \[/dev/hidraw0\] was removed, existed device amount = 0'; }
setups() { count 'Device\[/dev/hidraw0\] Setup Done'; }
alive() { is_daemon "$1" && echo yes; }
no_virtual() { ! has_input MorvelTouch_VirtualDevice && ! has_input MorvelTouch_VirtualPen; }
set_up() { wait_until "$1 && has_input MorvelTouch_VirtualDevice" 300 && step "$2"; }
same_pid() { step "TavrineD processes: $(daemon_count), same pid: $([ "$(pid_file_pid)" = "$1" ] && echo yes)"; }
# replug_tap N: plugged again, the N-th set-up is done, a tap, and PID is the daemon still.
replug_tap() { sim_do plug; set_up "[ \"\$(setups)\" -ge $1 ]" "plugged again: set up"; tap; same_pid "$PID"; }
start_watched() {  # SCRIPT ('-': none): controller and daemon, PID the daemon's
    [ "$1" = - ] || start_sim "$1"
    start_daemon && wait_until '[ -n "$(pid_file_pid)" ]' 100
    PID=$(pid_file_pid)
}

# Unplug on set-up's first command, then on the format command: the half-made device goes.
unplug_setup() {
    local n=0
    join_scn unplug-setup.rules $PCAP && start_watched /tmp/case.scn
    for at in '03 02 39' '05 02'; do
        n=$((n + 1))
        wait_until 'grep -q " rx $at" "$OUT/sim.log"' 300 && step "$at received"
        wait_until '[ "$(removals)" -ge $n ]' 150 && step "removals logged: $(removals)"
        step "daemon alive: $(alive "$PID"), set-ups done: $(setups)"
        wait_until no_virtual 50 && step "no virtual device left"
        [ $n = 2 ] || sim_do plug
    done
    replug_tap 2
}

# data_full MESSAGE: /data full, a new device's settings block cannot be saved; MESSAGE says so.
data_full() {
    SIZE=$(awk '$2 == "/data" { print $4 }' /proc/mounts | tr ',' '\n' | grep '^size=')
    trap 'umount /data/Tavrine_*.log; rm -f /data/filler
          mount -o "remount,${SIZE:-size=50%}" /data' EXIT
    cp /data/TavrineA.ini /tmp/ini.orig
    start_watched - && wait_until 'logged "Loop in endless scan"' 300 || step "daemon not scanning"
    cp "$(daemon_log)" /tmp/daemon.log
    mount -o bind /tmp/daemon.log "$(daemon_log)" || step "log bind failed"  # the log stays writable
    mount -o remount,size=1m /data && dd if=/dev/zero of=/data/filler bs=4k 2>/dev/null
    start_sim $PCAP
    set_up '[ "$(setups)" = 1 ]' "set-up done"
    cmp /tmp/ini.orig /data/TavrineA.ini && step "settings file unchanged" || step "settings file changed"
    step "failure logged: $(grep -c "$1" /tmp/daemon.log), no temporary file left: $([ ! -e /data/TavrineA.tmp ] && echo yes)"
    tap
    step "daemon alive: $(alive "$PID")"
}

# Unplug as soon as TavrineA.tmp appears while a block is added to a 600 KB settings file.
unplug_rewrite() {
    tries=0
    { sed '/^\[EndOfDevice\]/,$d' /data/TavrineA.ini
      awk 'BEGIN { for (i = 0; i < 40000; i++) printf "Padding%05d 1\n", i }'
      printf '[EndOfDevice]\n[EndOfFile]'; } > /tmp/ini.orig
    cp /tmp/ini.orig /data/TavrineA.ini
    start_watched - && wait_until 'logged "Loop in endless scan"' 300 || step "daemon not scanning"
    start_sim $PCAP
    until [ -e /data/TavrineA.tmp ] || [ $tries -ge 20000 ]; do tries=$((tries + 1)); done
    sim_do unplug && echo "temporary file seen after $tries polls" > "$OUT/timing.txt"
    wait_until '[ "$(removals)" = 1 ]' 300 && step "device removed"
    step "daemon alive: $(alive "$PID"), no temporary file left: $([ ! -e /data/TavrineA.tmp ] && echo yes)"
    # Whole: the old file, or it up to its "\n[EndOfFile]" (12 bytes) and one new block.
    keep=$(($(wc -c < /tmp/ini.orig) - 12))
    { cmp -s /tmp/ini.orig /data/TavrineA.ini || { [ "$(head -c $keep /data/TavrineA.ini | md5sum)" = "$(head -c $keep /tmp/ini.orig | md5sum)" ] &&
        tail -c +$((keep + 1)) /data/TavrineA.ini | tr '\n' '|' |
        grep -qx '|\[Device_No\.1\]|[^[]*usb-tavrine-sim/input0[^[]*|\[EndOfDevice\]|\[EndOfFile\]'; }; } &&
        step "settings file whole" || step "settings file damaged"
    replug_tap 1
}

# A controller sends 5000 reports a second for 5 s beside a probe controller touching every 250 ms.
hx() { printf '%02x %02x' $(($1 % 256)) $(($1 / 256)); }
rss() { awk '/^VmRSS:/ { print $2 }' "/proc/$PID/status"; }
flood() {
    local before i=0 lat
    join_scn $PCAP  # the probe's tx times are taken before the write
    { cat /tmp/case.scn; printf 'phys usb-probe/input0\nstamp before\n'; } > /tmp/probe.scn
    { cat /tmp/case.scn; printf 'phys usb-load/input0\nwait rx 05 02 timeout 30s\nafter 300 clock\n'
      printf 'at 0 rate 5000/s for 5s send 06 01 01 00 00 08 00 04\nafter 500 note load ends\n'; } > /tmp/load.scn
    start_watched /tmp/probe.scn
    set_up 'logged "Device[/dev/hidraw0] Setup Done"' "probe controller set up"
    # The simulator shares the guest's one CPU: its catching up is no daemon latency.
    for task in /proc/$PID/task/*; do renice -n -10 -p "${task##*/}" > /dev/null; done
    rec_ready probe.trace --check
    tavrine-sim /tmp/load.scn --log /tmp/load.log & load_pid=$!
    wait_until 'grep -q "note load ends\|clock" /tmp/load.log 2>/dev/null' 300 || step "load controller not set up"
    before=$(rss)
    while ! tail -n 1 /tmp/load.log | grep -q "note load ends"; do
        i=$((i + 1))
        sim_do send 06 01 01 00 $(hx $((100 + i))) $(hx 700)
        sleep 0.25
    done
    sim_do send 06 01 00 00 $(hx $((100 + i))) $(hx 700)
    [ "$(rss)" -le $((before + 1024)) ] && step "flood: VmRSS within 1024 kB of its start" ||
        step "flood: VmRSS $before -> $(rss) kB"
    stop_pid "$load_pid"
    sleep 0.3; stop_pid "$EVREC_PID"; step "probe protocol check status $?"
    awk -f latency.awk "$OUT/sim.log" "$OUT/probe.trace" > "$OUT/latency.txt"
    awk '/^sent/ { print ($2 > 0 && $2 == $4) ? "every probe touch arrived" : "probe touches lost: " $0 }' \
        "$OUT/latency.txt" >> "$OUT/steps.txt"
    lat=$(sed '$d' "$OUT/latency.txt" | sort -n | tail -n 1)
    [ -n "$lat" ] && [ "$lat" -le 20000 ] && step "probe touches within 20 ms" || step "probe latency max ${lat:-?} us"
    same_pid "$PID"
}
