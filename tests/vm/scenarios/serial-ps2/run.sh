# RS232 and PS/2 controllers, one case a line of cases.

# record N: records N events of the touch device, until the script's note.
record() {
    start_evrec MorvelTouch_VirtualDevice touch.trace --wait-ms 20000 --duration-ms 15000 --count "$1"
    wait_until 'grep -q "note reports sent" "$OUT/sim.log"' 250
    wait "$EVREC_PID"
    plain_events "$OUT/touch.trace" "$OUT/touch.events"
}

# Answers only at 57600, after 9600 and 19200 (38400: the pty's own); its 6-byte reports arrive.
reports() {
    record 31
    step "line speeds set: $(sed -n 's/^[0-9.]* line \([0-9]*\) .*/\1/p' "$OUT/sim.log" | grep -v '^38400$' | uniq | head -n 8 | tr '\n' ' ')"
    grep -o 'Set Device \[/dev/ttyTAV0\] BaudRate [0-9]*' "$(daemon_log)" | sort | uniq -c >> "$OUT/steps.txt"
}

# Two PS/2 ports (raw-mode ptys at /dev/serio_raw0, 1): 0xFA bytes vanish, reports arrive.
ps2() {
    record 10
    grep -o 'Scan PS2 Path \[[^]]*\]\|Add device \[[^]]*\], current device amount = [0-9]*' "$(daemon_log)" |
        sed -n '1,/amount = 2/p' >> "$OUT/steps.txt"
}
