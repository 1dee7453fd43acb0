# RS232 and PS/2 controllers, one case a line of cases.
. /bed/lib.sh

# Line speeds set on the port of sim log $1 (but 38400, the pty's own).
speeds() { sed -n 's/^[0-9.]* line \([0-9]*\) .*/\1/p' "$OUT/$1" | grep -v '^38400$' | uniq | head -n 8 | tr '\n' ' '; }
log_lines() { grep -o "$1" "$(daemon_log)" | sort | uniq -c >> "$OUT/steps.txt"; }
# record N [GO]: records N events of the touch device while GO runs, until the script's note.
record() {
    start_evrec MorvelTouch_VirtualDevice touch.trace --wait-ms 20000 --duration-ms 15000 --count "$1"
    eval "${2:-}"
    wait_until 'grep -q "note reports sent" "$OUT/sim.log"' 250
    wait "$EVREC_PID"
    plain_events "$OUT/touch.trace" "$OUT/touch.events"
}
switched_on() { wait_until 'grep -q "rx 0a 02 34 01" "$OUT/sim.log"' 250 && sleep 0.5; }

# Answers only at 57600, after 9600 and 19200; its 6-byte reports reach the touch device.
reports() {
    record 31
    step "line speeds set: $(speeds sim.log)"
    log_lines 'Set Device \[/dev/ttyTAV0\] BaudRate [0-9]*'
}

# A boot loader answering only at 19200 is accepted; a silent port is tried at four speeds.
bootloader() {
    wait_until '[ "$(grep -c "failed to check device \[/dev/ttyTAV1\]" "$(daemon_log)")" -ge 2 ]' 250
    step "boot-loader port, line speeds set: $(speeds sim.log)"
    step "silent port, line speeds set: $(speeds sim-1.log)"
    log_lines 'Found a RS232 device at port \[[^]]*\]'
    log_lines 'Set Device \[[^]]*\] BaudRate [0-9]*'
}

# A controller gone silent is removed by the presence check's loop-back (removal.scn lines 4-6)
# and found again once it answers.
removal() {
    wait_until '[ "$(grep -c "Entering DevRxLoop" "$(daemon_log)")" -ge 2 ]' 600
    log_lines 'RS232 Device \[/dev/ttyTAV0\] is removed\|Found a RS232 device at port \[/dev/ttyTAV0\]'
    step "loop-backs at 57600: $(grep -c ' match line [456]$' "$OUT/sim.log")"
}

# The tool's reset command: the controller comes back at 9600, the daemon follows it.
reset() {
    switched_on
    record 10 "printf '\012\004\105\072\377\000' > /data/MorvelPipe_in"
    log_lines 'Switch BaudRate from \[[0-9]*\] to \[[0-9]*\]'
    step "line speed now: $(sed -n 's/^[0-9.]* line //p' "$OUT/sim.log" | tail -n 1)"
}

# Report switch 0A 02 34 00: points go to the output pipe, not to input; 01 restores input.
toolswitch() {
    switched_on
    record 10 "timeout 10 head -c 128 /data/MorvelPipe_out > /tmp/pipe_out.bin & printf '\012\002\064\000' > /data/MorvelPipe_in
        wait \$!; printf '\012\002\064\001' > /data/MorvelPipe_in"
    od -An -tx1 -v /tmp/pipe_out.bin | awk '{for (i = 1; i <= NF; i++) printf "%s%s", $i, (++n % 64 ? " " : "\n")}' > "$OUT/pipe-out.hex"
}

# Two PS/2 ports (raw-mode ptys at /dev/serio_raw0, 1): 0xFA bytes vanish, 5-byte reports
# reach a touch device, one scan pass adds both ports.
ps2() {
    record 10
    grep -o 'Scan PS2 Path \[[^]]*\]\|Add device \[[^]]*\], current device amount = [0-9]*' "$(daemon_log)" |
        sed -n '1,/amount = 2/p' >> "$OUT/steps.txt"
}

play_case
