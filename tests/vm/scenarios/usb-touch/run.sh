# The USB touch path, one case a line of cases.
. /bed/lib.sh

hostile() {
    dmesg | grep -q 'Event data for report 6 was too short' && step "truncated report dropped by the HID core"
    step "daemon still running: $(is_daemon "$(pid_file_pid)" && echo yes), TavrineD processes: $(daemon_count)"
}

# Unplug with a finger down: the release, the device gone, served when plugged again; 50 more
# cycles leave the daemon's descriptors and threads as they were.
unplug() {
    local pid before n=0
    count() { grep -c "$1" "$(daemon_log)"; }
    counts() { echo "$(ls "/proc/$1/fd" | wc -l) $(ls "/proc/$1/task" | wc -l)"; }
    served() { wait_until "[ \"\$(count 'Device\[/dev/hidraw0\] Setup Done')\" = $1 ] && has_input MorvelTouch_VirtualDevice" 100; }
    rec_touch 5000 "sim_do send 06 01 01 00 e8 03 d0 07; wait_until 'grep -q ABS_MT_POSITION_Y $OUT/touch.trace' 30; sim_do unplug"
    wait_until '! has_input MorvelTouch_VirtualDevice' 50 && step "touch device gone"
    { cat "$OUT/touch.events"; tail -n 1 "$OUT/touch.trace" | sed 's/, [0-9]* events$//'; } > "$OUT/unplug.events"
    sim_do plug
    served 2 && step "plugged again: set up"
    tap
    mv "$OUT/touch.events" "$OUT/replug.events"
    pid=$(pid_file_pid) before=$(counts "$(pid_file_pid)")
    while [ $n -lt 50 ]; do
        n=$((n + 1))
        sim_do unplug
        wait_until "[ \"\$(count 'Device \[/dev/hidraw0\] was removed')\" = $((n + 1)) ]" 100 || break
        sim_do plug
        served $((n + 2)) || break
    done
    sleep 0.5
    step "cycles completed: $n, TavrineD processes: $(daemon_count), same pid: $([ "$(pid_file_pid)" = "$pid" ] && echo yes)"
    step "descriptors and threads: $([ "$before" = "$(counts "$pid")" ] && echo as before || echo "$before -> $(counts "$pid")")"
    step "virtual devices: $(grep -c '^N: Name="MorvelTouch_Virtual' /proc/bus/input/devices)"
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
    # A held key's repeated press shows only in the log: evdev drops an unchanged key state.
    grep -o 'Send VKEY. Controller KEYCode\[[0-9]*\], System KEYCode \[[0-9]*\]' "$(daemon_log)" | uniq -c >> "$OUT/steps.txt"
}

play_case
