# flood_run SECONDS (cases flood-short of faults and flood of faults-long).
# Two controllers on USB (DeviceNums 2). The probe controller is set up first
# and its touch device recorded (the only one of that name at the time); then
# the load controller is plugged and, once set up, sends for SECONDS either
# a valid touch report at 5000 a second (flood) or reports of the declared
# ids filled with pseudo-random bytes at 2000 a second (garbage). Meanwhile
# the probe controller sends a touch at a new position every 250 ms; each
# must reach the probe's touch device within 20 ms (recorder time minus the
# simulator's send time, one clock), and the daemon's VmRSS at the end of a
# phase must not exceed its value before the phase by more than 1024 kB.

# The set-up answers of a PCAP4155 controller, to be read from /tmp.
pcap_rules() {
    sed "s#^descriptor-file \.\./#descriptor-file $PWD/../#" ../usb-touch/pcap4155.scn
}
rss() { awk '/^VmRSS:/ { print $2 }' "/proc/$1/status"; }
hx() { printf '%02x %02x' $(($1 % 256)) $(($1 / 256)); }

flood_load() {  # SECONDS: the valid flood
    echo "at 0 rate 5000/s for ${1}s send 06 01 01 00 00 08 00 04"
    echo "after 500 note load ends"
}
garbage_load() {  # SECONDS: pseudo-random bytes behind the declared report ids
    awk -v n=$(($1 * 2000)) 'BEGIN {
        srand(7); split("01 03 04 05 06 17", id, " ")
        for (i = 0; i < n; i++) {
            line = sprintf("at %d send %s", int(i / 2), id[1 + int(rand() * 6)])
            for (b = 0; b < 12; b++) line = line sprintf(" %02x", int(rand() * 256))
            print line
        }
        print "after 500 note load ends"
    }'
}

phase() {  # NAME SECONDS
    local name=$1 secs=$2 before after i=0 lat
    # The load starts when the daemon's format command (report 0x05) ends the set-up.
    { pcap_rules; printf 'phys usb-load/input0\nwait rx 05 02 timeout 30s\nafter 300 clock\n'; ${name}_load "$secs"; } > /tmp/load.scn
    rm -f /tmp/load.ready
    tavrine-sim /tmp/load.scn --log "/tmp/load-$name.log" --ready /tmp/load.ready &
    load_pid=$!
    wait_until 'grep -q "note load ends\|clock" /tmp/load-'"$name"'.log 2>/dev/null' 300 ||
        step "$name: load controller not set up"
    before=$(rss "$pid")
    # probe touches while the load runs
    # (tail, not grep: the load's log grows by thousands of lines a second)
    while ! tail -n 1 "/tmp/load-$name.log" | grep -q "note load ends"; do
        i=$((i + 1))
        sim_do send 06 01 01 00 $(hx $((probe_x + i))) $(hx $probe_y)
        sleep 0.25
    done
    sim_do send 06 01 00 00 $(hx $((probe_x + i))) $(hx $probe_y)
    probe_x=$((probe_x + i + 1))
    after=$(rss "$pid")
    stop_pid "$load_pid"
    removed=$((removed + 1))
    wait_until '[ "$(grep -c "USB Device \[/dev/hidraw1\] is removed" "$(daemon_log)")" -ge $removed ]' 100 ||
        step "$name: removal of the load controller not logged"
    tail -n 3 "/tmp/load-$name.log" > "$OUT/load-$name.tail"
    echo "$name: load controller sent $(grep -c ' tx ' "/tmp/load-$name.log") reports in ${secs} s; VmRSS $before -> $after kB" >> "$OUT/figures.txt"
    step "$name: daemon alive: $(is_daemon "$pid" && echo yes)"
    [ -n "$before" ] && [ -n "$after" ] && [ "$after" -le $((before + 1024)) ] &&
        step "$name: VmRSS within 1024 kB of its start" || step "$name: VmRSS $before -> $after kB"
}

flood_run() {
    local secs=$1
    # The probe's 'tx' times are taken before the write (latency).
    { pcap_rules; printf 'phys usb-probe/input0\nstamp before\n'; } > /tmp/probe.scn
    touch_start /tmp/probe.scn && step "probe controller set up" || step "probe controller not set up"
    pid=$(pid_file_pid)
    # The load simulator stands in for hardware but shares the guest's one
    # CPU: the daemon's threads (and those it creates later) run at nice -10
    # so that the simulator's catching up does not count as daemon latency.
    for task in /proc/$pid/task/*; do renice -n -10 -p "${task##*/}" > /dev/null; done
    touch_record probe.trace --check
    probe_x=100 probe_y=700 removed=0
    phase flood "$secs"
    phase garbage "$secs"
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
