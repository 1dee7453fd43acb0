# RS232 and PS/2 controllers: each line of cases is one set-up by a fresh daemon (play_case
# in /bed/lib.sh); the functions below are the case-specific steps.
. /bed/lib.sh

# Line speeds set on the port of simulator log $1 (38400, the pty's own, left out).
speeds() {
    sed -n 's/^[0-9.]* line \([0-9]*\) .*/\1/p' "$OUT/$1" | grep -v '^38400$' | uniq | head -n 8 | tr '\n' ' '
}

# Steps how often each match of the regular expression $1 is in the daemon's log.
log_lines() {
    grep -o "$1" "$(daemon_log)" | sort | uniq -c >> "$OUT/steps.txt"
}

# record N: records N events of the touch device in the background.
record() {
    start_evrec MorvelTouch_VirtualDevice touch.trace --wait-ms 20000 --duration-ms 15000 --count "$1"
}

# Waits for the simulator's last report and the recorder; the events go to touch.events.
recorded() {
    wait_until 'grep -q "note reports sent" "$OUT/sim.log"' 250
    wait "$EVREC_PID"
    plain_events "$OUT/touch.trace" "$OUT/touch.events"
}

# Answers only at 57600: the speed search tries 9600 and 19200 first; 6-byte reports
# (contact letter in the sixth byte, Y mirrored) reach the touch device.
reports() {
    record 31
    recorded
    step "line speeds set: $(speeds sim.log)"
    log_lines 'Set Device \[/dev/ttyTAV0\] BaudRate [0-9]*'
}

# A boot-loader controller is accepted through its IAP reply at 19200, the only speed where
# it answers; a port where nothing answers is tried at all four speeds, never accepted.
bootloader() {
    wait_until '[ "$(grep -c "failed to check device \[/dev/ttyTAV1\]" "$(daemon_log)")" -ge 2 ]' 250
    step "boot-loader port, line speeds set: $(speeds sim.log)"
    step "silent port, line speeds set: $(speeds sim-1.log)"
    log_lines 'Found a RS232 device at port \[[^]]*\]'
    log_lines 'Set Device \[[^]]*\] BaudRate [0-9]*'
}

# A silent controller (NoDeviceCheck 0) is removed by the receive loop's presence check (750
# empty wake-ups of 20 ms or more, then the loop-back), and found again once it answers.
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
    step "loop-backs at 57600: $(grep -c ' match line [678]$' "$OUT/sim.log")"
}

# The tool's reset command (fourth byte ':', fifth 0xFF) on a controller that comes back at
# another speed: the daemon searches again, follows it to 9600 and reads its 5-byte reports.
reset() {
    wait_until 'grep -q "rx 0a 02 34 01" "$OUT/sim.log"' 250
    sleep 0.5
    record 10
    printf '\012\004\105\072\377\000' > /data/MorvelPipe_in
    recorded
    log_lines 'Switch BaudRate from \[[0-9]*\] to \[[0-9]*\]'
    step "line speed now: $(sed -n 's/^[0-9.]* line //p' "$OUT/sim.log" | tail -n 1)"
}

# The tool's report switch: with 0A 02 34 00 the point reports reach the output pipe as
# 64-byte packets starting 0x0A and write no input event; 0A 02 34 01 restores touch input.
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

# Two PS/2 ports (the bed's raw-mode ptys at /dev/serio_raw0 and 1): 0xFA bytes anywhere
# vanish, 5-byte reports (Y mirrored) reach the touch device (both devices have the same
# name and reports: either will do); one scan pass adds both ports.
ps2() {
    record 10
    recorded
    grep -o 'Scan PS2 Path \[[^]]*\]\|Add device \[[^]]*\], current device amount = [0-9]*' "$(daemon_log)" |
        sed -n '1,/amount = 2/p' >> "$OUT/steps.txt"
}

play_case
