# Cases of faults run with a longer time each (the functions are those of ../faults/run.sh).
# soak: two controllers on USB for 10 minutes, each sending a touch report 200 times a second;
# the second is unplugged and plugged 100 times (every 6 s: 4 s of reports, unplug at 4.5 s,
# plug at 5 s). Afterwards the daemon has the same open descriptors and threads as before,
# and VmRSS within 1024 kB of its start. The simulators' logs (hundreds of thousands of
# lines) stay in /tmp; their tails come back.
soak() {
    secs=600 cycles=100
    setup_rules() {  # PHYS
        pcap_rules
        printf 'phys %s\nwait rx 05 02 timeout 60s\nafter 300 clock\n' "$1"
    }
    {
        setup_rules usb-soak-a/input0
        echo "at 0 rate 200/s for ${secs}s send 06 01 01 00 00 08 00 04"
        echo "after 0 send 06 01 00 00 00 08 00 04"
        echo "after 0 note soak ends"
    } > /tmp/a.scn
    {
        setup_rules usb-soak-b/input0
        awk -v n=$cycles 'BEGIN { for (c = 0; c < n; c++) {
            t = c * 6000
            printf "at %d rate 200/s for 4s send 06 01 01 00 00 04 00 08\n", t
            printf "at %d send 06 01 00 00 00 04 00 08\n", t + 4000
            printf "at %d unplug\nat %d plug\n", t + 4500, t + 5000
        } print "after 2000 note cycles end" }'
    } > /tmp/b.scn

    figures() { echo "fds $(ls "/proc/$1/fd" | wc -l) threads $(ls "/proc/$1/task" | wc -l) VmRSS $(awk '/^VmRSS:/ { print $2 }' "/proc/$1/status") kB"; }
    setups_b() { grep -c 'Device\[/dev/hidraw1\] Setup Done' "$(daemon_log)"; }

    tavrine-sim /tmp/a.scn --log /tmp/a.log --ready /tmp/a.ready &
    a_pid=$!
    wait_until '[ -e /tmp/a.ready ]' 50
    start_daemon
    wait_until 'grep -q "Device\[/dev/hidraw0\] Setup Done" "$(daemon_log)" 2>/dev/null && has_input MorvelTouch_VirtualDevice' 300 &&
        step "controller A set up"
    pid=$(pid_file_pid)
    tavrine-evrec record --name MorvelTouch_VirtualDevice --out /tmp/a.trace --check --ready /tmp/a.evready &
    rec=$!
    wait_until '[ -e /tmp/a.evready ]' 50
    tavrine-sim /tmp/b.scn --log /tmp/b.log --ready /tmp/b.ready &
    b_pid=$!
    wait_until '[ "$(setups_b)" -ge 1 ]' 300 && step "controller B set up"
    sleep 1
    before=$(figures "$pid")
    echo "before: $before" | tee -a "$OUT/figures.txt"

    wait_until 'grep -q "note soak ends" /tmp/a.log && grep -q "note cycles end" /tmp/b.log' $(( (secs + 60) * 10 )) &&
        step "both loads ended"
    wait_until '[ "$(setups_b)" -ge $((cycles + 1)) ]' 100
    sleep 1
    after=$(figures "$pid")
    echo "after:  $after" | tee -a "$OUT/figures.txt"
    echo "controller A reports sent: $(grep -c ' tx 06' /tmp/a.log), controller B: $(grep -c ' tx 06' /tmp/b.log), B set-ups: $(setups_b), B removals: $(grep -c 'USB Device \[/dev/hidraw1\] is removed' "$(daemon_log)")" |
        tee -a "$OUT/figures.txt"
    step "B set up after every plug: $([ "$(setups_b)" = $((cycles + 1)) ] && echo yes)"
    [ "${before% VmRSS*}" = "${after% VmRSS*}" ] && step "descriptors and threads as before" || step "descriptors or threads changed"
    rb=$(echo "$before" | awk '{ print $6 }') ra=$(echo "$after" | awk '{ print $6 }')
    [ -n "$rb" ] && [ -n "$ra" ] && [ "$ra" -le $((rb + 1024)) ] && step "VmRSS within 1024 kB of its start" || step "VmRSS $rb -> $ra kB"
    stop_pid "$rec"
    step "A protocol check status $?"
    step "TavrineD processes: $(daemon_count), same pid: $([ "$(pid_file_pid)" = "$pid" ] && echo yes)"
    tail -n 5 /tmp/a.log > "$OUT/a.log.tail"
    tail -n 5 /tmp/b.log > "$OUT/b.log.tail"
    tail -n 20 /tmp/a.trace > "$OUT/a.trace.tail"
}
cd ../faults && . ./run.sh
