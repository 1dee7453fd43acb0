# RS232 and PS/2 controllers, one case a line of cases.
. /bed/lib.sh

# Line speeds set on the port of sim log $1 (but 38400, the pty's own).
speeds() { sed -n 's/^[0-9.]* line \([0-9]*\) .*/\1/p' "$OUT/$1" | grep -v '^38400$' | uniq | head -n 8 | tr '\n' ' '; }

log_lines() { grep -o "$1" "$(daemon_log)" | sort | uniq -c >> "$OUT/steps.txt"; }
record() { start_evrec MorvelTouch_VirtualDevice touch.trace --wait-ms 20000 --duration-ms 15000 --count "$1"; }

recorded() {
    wait_until 'grep -q "note reports sent" "$OUT/sim.log"' 250
    wait "$EVREC_PID"
    plain_events "$OUT/touch.trace" "$OUT/touch.events"
}

# Answers only at 57600, after 9600 and 19200; its 6-byte reports reach the touch device.
reports() {
    record 31
    recorded
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

# A silent controller is removed by the presence check (750 empty 20 ms wake-ups, then the
# loop-back) and found again once it answers.
removal() {
    local log=$(daemon_log)
    wait_until '[ "$(grep -c "Entering DevRxLoop" $log)" -ge 2 ]' 600
    ms_of() { grep -m 1 "$1" "$log" | sed 's/^\[\([0-9]*\):\([0-9]*\):\([0-9]*\):\([0-9]*\)\].*/\1 \2 \3 \4/'; }
    span() { echo "$(ms_of "$1") $(ms_of "$2")" | awk '{print (($5*3600+$6*60+$7)*1000+$8) - (($1*3600+$2*60+$3)*1000+$4)}'; }
    removal=$(span 'Entering DevRxLoop' 'RS232 Device \[/dev/ttyTAV0\] is removed')
    check=$(span 'Entering DevRxLoop' 'Timeout to check RS232 device exist or not.')
    echo "presence check after $check ms, removed after $removal ms" > "$OUT/removal-time.txt"
    [ "$check" -ge 14500 ] && [ "$check" -le 30000 ] && step "presence check after 14.5-30 s"
    [ "$removal" -gt "$check" ] && [ "$removal" -le $((check + 5000)) ] && step "removed by the loop-back check"
    log_lines 'Found a RS232 device at port \[/dev/ttyTAV0\]'
    # removal.scn lines 4-6: the loop-back rules
    step "loop-backs at 57600: $(grep -c ' match line [456]$' "$OUT/sim.log")"
}

# The tool's reset command: the controller comes back at 9600, the daemon follows it.
reset() {
    wait_until 'grep -q "rx 0a 02 34 01" "$OUT/sim.log"' 250
    sleep 0.5
    record 10
    printf '\012\004\105\072\377\000' > /data/MorvelPipe_in
    recorded
    log_lines 'Switch BaudRate from \[[0-9]*\] to \[[0-9]*\]'
    step "line speed now: $(sed -n 's/^[0-9.]* line //p' "$OUT/sim.log" | tail -n 1)"
}

# Report switch 0A 02 34 00: points go to the output pipe, not to input; 01 restores input.
toolswitch() {
    wait_until 'grep -q "rx 0a 02 34 01" "$OUT/sim.log"' 250
    sleep 0.5
    record 10
    timeout 10 head -c 128 /data/MorvelPipe_out > /tmp/pipe_out.bin &
    printf '\012\002\064\000' > /data/MorvelPipe_in
    wait $!
    od -An -tx1 -v /tmp/pipe_out.bin | awk '{for (i = 1; i <= NF; i++) printf "%s%s", $i, (++n % 64 ? " " : "\n")}' > "$OUT/pipe-out.hex"
    printf '\012\002\064\001' > /data/MorvelPipe_in
    recorded
}

# Two PS/2 ports (raw-mode ptys at /dev/serio_raw0, 1): 0xFA bytes vanish, 5-byte reports
# reach a touch device, one scan pass adds both ports.
ps2() {
    record 10
    recorded
    grep -o 'Scan PS2 Path \[[^]]*\]\|Add device \[[^]]*\], current device amount = [0-9]*' "$(daemon_log)" |
        sed -n '1,/amount = 2/p' >> "$OUT/steps.txt"
}

play_case
