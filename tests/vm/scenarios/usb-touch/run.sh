# The USB touch path, one case a line of cases.

# Unplug with a finger down: the release, then served again; 50 more cycles leak nothing.
unplug() {
    local pid before n=0
    count() { grep -c "$1" "$(daemon_log)"; }
    counts() { echo "$(ls "/proc/$1/fd" | wc -l) $(ls "/proc/$1/task" | wc -l)"; }
    served() { wait_until "[ \"\$(count 'Device\[/dev/hidraw0\] Setup Done')\" = $1 ] && has_input MorvelTouch_VirtualDevice" 100; }
    rec_touch 5000 "sim_do send 06 01 01 00 e8 03 d0 07; wait_until 'grep -q ABS_MT_POSITION_Y $OUT/touch.trace' 30; sim_do unplug"
    wait_until '! has_input MorvelTouch_VirtualDevice' 50 && step "touch device gone"
    { cat "$OUT/touch.events"; tail -n 1 "$OUT/touch.trace" | sed 's/, [0-9]* events$//'; } > "$OUT/unplug.events"
    sim_do plug && served 2 && step "plugged again: set up"
    tap; mv "$OUT/touch.events" "$OUT/replug.events"
    pid=$(pid_file_pid) before=$(counts "$(pid_file_pid)")
    while [ $n -lt 50 ] && sim_do unplug &&
        wait_until "[ \"\$(count 'Device \[/dev/hidraw0\] was removed')\" = $((n + 2)) ]" 100 &&
        sim_do plug && served $((n + 3)); do n=$((n + 1)); done
    sleep 0.5
    step "cycles completed: $n, TavrineD processes: $(daemon_count), same pid: $([ "$(pid_file_pid)" = "$pid" ] && echo yes)"
    step "descriptors and threads: $([ "$before" = "$(counts "$pid")" ] && echo as before || echo "$before -> $(counts "$pid")")"
}

# Keys BACK and HOME of the settings reach evdev: pressed at the third held report, then released.
vkeys() {
    rec_ready touch.trace --wait-ms 5000 --duration-ms 15000 --count 8
    for k in 00 01; do for state in 01 01 01 00; do sim_do send 03 04 36 2f $state $k; sleep 0.05; done; done
    wait "$EVREC_PID"; plain_events "$OUT/touch.trace" "$OUT/touch.events"
}
