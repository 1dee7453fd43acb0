# The USB touch path, one case a line of cases.
. /bed/lib.sh

# Both virtual devices: names, ids, axes, keys, properties.
devices() {
    for dev in MorvelTouch_VirtualDevice MorvelTouch_VirtualPen; do
        tavrine-evrec record --name "$dev" --out /tmp/dev.trace --duration-ms 200
        grep -v '^[E#]' /tmp/dev.trace >> "$OUT/devices.txt"
    done
    step "TavrineD processes: $(daemon_count)"
}

axes() {
    grep '^A: 3[56] ' "$OUT/touch.trace" | while read -r line; do step "axis $line"; done
}

hostile() {
    dmesg | grep -q 'Event data for report 6 was too short' && step "truncated report dropped by the HID core"
    step "daemon still running: $(is_daemon "$(pid_file_pid)" && echo yes), TavrineD processes: $(daemon_count)"
}

# Unplug with a finger down: the release, the device gone, served when plugged again; 50 more
# cycles leave the daemon's descriptors and threads as they were.
unplug() {
    local pid before n=0
    setups() { grep -c 'Device\[/dev/hidraw0\] Setup Done' "$(daemon_log)"; }
    removals() { grep -c 'Device \[/dev/hidraw0\] was removed' "$(daemon_log)"; }
    counts() { echo "$(ls "/proc/$1/fd" | wc -l) $(ls "/proc/$1/task" | wc -l)"; }
    rec_touch 5000 "sim_do send 06 01 01 00 e8 03 d0 07; wait_until 'grep -q ABS_MT_POSITION_Y $OUT/touch.trace' 30; sim_do unplug"
    wait_until '! has_input MorvelTouch_VirtualDevice' 50 && step "touch device gone"
    { cat "$OUT/touch.events"; tail -n 1 "$OUT/touch.trace" | sed 's/, [0-9]* events$//'; } > "$OUT/unplug.events"
    sim_do plug
    wait_until '[ "$(setups)" = 2 ] && has_input MorvelTouch_VirtualDevice' 100 && step "plugged again: set up"
    tap
    mv "$OUT/touch.events" "$OUT/replug.events"
    pid=$(pid_file_pid)
    before=$(counts "$pid")
    while [ $n -lt 50 ]; do
        n=$((n + 1))
        sim_do unplug
        wait_until '[ "$(removals)" = $((n + 1)) ]' 100 || break
        sim_do plug
        wait_until '[ "$(setups)" = $((n + 2)) ] && has_input MorvelTouch_VirtualDevice' 100 || break
    done
    sleep 0.5
    step "cycles completed: $n, removals logged: $(removals), set-ups: $(setups)"
    [ "$before" = "$(counts "$pid")" ] && step "descriptors and threads back to their starting count" ||
        step "descriptors and threads changed: $before -> $(counts "$pid")"
    step "virtual devices: $(grep -c '^N: Name="MorvelTouch_Virtual' /proc/bus/input/devices)"
    step "TavrineD processes: $(daemon_count), same pid: $([ "$(pid_file_pid)" = "$pid" ] && echo yes)"
}

# 10 contacts at 1000 reports/s for 10 s (5000 scans of two 0x06 reports), all moving every
# scan (so the input core filters no frame), then lifted: one frame per scan and contact 0's
# X 5000 times in order. A late simulator sends at most 4 due reports a wake-up.
SCANS=5000
load_steps() {
    awk -v scans=$SCANS 'function le(v) { return sprintf("%02x %02x", v % 256, int(v / 256)) }
    function slot(state, k, f,   x) {
        x = (k == 0) ? 100 + (f % 3000) : 100 + 350 * k + (f % 50)
        return sprintf(" %02x %02x %s %s 00 00 00 00", state, k, le(x), le(500 + 300 * k))
    }
    function scan(state, f,   k, a, b) {
        a = "06 0a"; b = "06 00"
        for (k = 0; k < 5; k++) a = a slot(state, k, f)
        for (k = 5; k < 10; k++) b = b slot(state, k, f)
        printf "at %d send %s\nat %d send %s\n", t, a, t + 1, b
        t += 2
    }
    BEGIN { print "burst 4\nat 4500 note load in 1.5 s"; t = 6000; for (f = 0; f < scans; f++) scan(1, f); scan(0, scans - 1) }'
}

# The daemon's threads run above the bed's programs, as a touch daemon's would.
load() {
    local pid=$(pid_file_pid) task
    for task in /proc/$pid/task/*; do renice -n -10 -p "${task##*/}" > /dev/null; done
    wait_until 'grep -q "note load in" "$OUT/sim.log"' 100 || step "load not started"
    rec_touch 2000 ""
    awk 'BEGIN { slot = "0000" } !/^E:/ { next } $4 == "002f" { slot = $5 }
         $4 == "0035" && slot == "0000" { x0 = $5; sub(/^0+/, "", x0); print x0 }' "$OUT/touch.trace" > /tmp/x0.got
    awk -v scans=$SCANS 'BEGIN { for (f = 0; f < scans; f++) print 100 + (f % 3000) }' > /tmp/x0.want
    step "scans sent: $(grep -c ' tx 06 0a' "$OUT/sim.log"), reports sent: $(grep -c ' tx 06 ' "$OUT/sim.log")"
    step "frames received: $(grep -c '^SYN_REPORT$' "$OUT/touch.events")"
    cmp -s /tmp/x0.got /tmp/x0.want && step "contact 0 moves: all $SCANS, in order" ||
        step "contact 0 moves: $(wc -l < /tmp/x0.got) of $SCANS or out of order"
    dmesg | grep -q 'Event data for report' && step "kernel dropped reports"
    for f in touch.trace sim.log touch.events; do head -n 300 "$OUT/$f" > "$OUT/$f.head" && rm -f "$OUT/$f"; done
}

# Virtual keys (BACK, HOME, VKEYReportMod 3): a press every third pressed report [03 04 36 2F
# state index], a release after three; a shorter tap sends nothing; key 2 has no code.
vkeys() {
    key() { sim_do send 03 04 36 2f "$1" "$2"; sleep 0.05; }
    start_evrec MorvelTouch_VirtualDevice touch.trace --wait-ms 5000 --duration-ms 15000 --count 12 --ready /tmp/vk.ready
    wait_until '[ -e /tmp/vk.ready ]' 50
    key 01 00; key 01 00; key 00 00           # tap of two: nothing, count 2 stays
    key 01 00                                  # count 3: BACK pressed
    key 01 00; key 01 00; key 01 00            # count 6: BACK pressed again (repeat)
    key 00 00                                  # BACK released, counts cleared
    key 01 01; key 01 01; key 01 01; key 00 01 # HOME pressed at 3, released
    key 01 01; key 00 01                       # tap of one: nothing, count 1 stays
    key 01 01; key 01 01; key 00 01            # count 3: HOME pressed, released
    key 01 02; key 00 02                       # key 2 has no code
    wait "$EVREC_PID"
    plain_events "$OUT/touch.trace" "$OUT/touch.events"
    grep -o 'Send VKEY. Controller KEYCode\[[0-9]*\], System KEYCode \[[0-9]*\]' "$(daemon_log)" | uniq -c >> "$OUT/steps.txt"
    grep -o 'No corresponding system KEYCode to Controller KEYCode \[[0-9]*\]' "$(daemon_log)" | uniq -c >> "$OUT/steps.txt"
}

play_case
