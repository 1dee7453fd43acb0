# Controller commands of set-up, the tool pipes and tavrinectl: each line of cases
# is one controller, set up by a fresh daemon (play_case in /bed/lib.sh).
#  feature-s2/s3: vendor and set-feature reports; format 1 only below series 3.
#  silent/garbage: each polled command goes out three times with a 500 ms read period when
#   nothing comes (1.5 s a command); any answer ends the period after the third write.
#  old-kernel: on 2.6.32 the set-feature and format commands go out as 7 bytes behind 0x00.
#  late-double: a late answer costs one more write and is taken; a doubled version answer is
#   not taken for the model; a format answer nobody awaits goes to the tool's output pipe.
. /bed/lib.sh

# setup_within LOW HIGH: the set-up took LOW..HIGH ms, from the log line of the node found
# to "Setup Done" (log lines start "[hh:mm:ss:mmm]").
setup_within() {
    ms=$(grep -F -e 'Found an QEVO Device at port [/dev/hidraw0]' -e 'Setup Done ----' "$(daemon_log)" |
        sed -n 's/^\[\([0-9]*\):\([0-9]*\):\([0-9]*\):\([0-9]*\)\].*/\1 \2 \3 \4/p' | head -n 2 |
        awk '{ t = (($1 * 60 + $2) * 60 + $3) * 1000 + $4 } NR == 1 { t0 = t } END { print t - t0 }')
    echo "set-up ms: $ms" > "$OUT/setup-time.txt"
    [ "$ms" -ge "$1" ] && [ "$ms" -le "$2" ] && step "set-up within $1..$2 ms" || step "set-up took $ms ms"
}

# Answers every command with garbage: random bytes, a 'F' fragment announcing 255 bytes and
# 45 continuations (more than a reply buffer holds), an unknown command byte, a parallel
# report with a wrong count.
garbage() {
    local frags=$(i=0; while [ $i -lt 45 ]; do printf ' ; reply 03 04 00 47 47 47'; i=$((i + 1)); done)
    local burst="reply garbage 64 ; reply 03 04 46 ff 47 47$frags ; reply 03 3f ff 01 02 03 ; reply 06 ff ff ff 00 10"
    echo "on 03 $burst"
    echo "on 05 $burst"
}

# Pen reports (status, X, Y, pressure, tilt X, tilt Y): hovering, tip down with barrel button,
# pressure and tilt, leaving, the eraser touching and leaving, hovering again.
pen() {
    start_evrec MorvelTouch_VirtualPen pen.trace --idle-ms 1500 --ready /tmp/pen.ready
    wait_until '[ -e /tmp/pen.ready ]' 50
    for r in "20 e8 03 d0 07 00 00 00 00 00 00" "23 f2 03 e4 07 00 02 1e 00 ec ff" "00 f2 03 e4 07 00 00 00 00 00 00" \
        "2d b8 0b dc 05 00 01 00 00 00 00" "24 b8 0b dc 05 00 00 00 00 00 00" "20 f4 01 58 02 00 00 00 00 00 00"; do
        sim_do send 02 $r
        sleep 0.1
    done
    wait "$EVREC_PID"
    step "pen recorder status: $?"
    grep '^E:' "$OUT/pen.trace" | sed -E 's/^E: [0-9]+\.[0-9]+ //' > "$OUT/pen.events"
}

# One read of the tool's output pipe (at most 128 bytes, waiting up to $1 s) as hex bytes.
read_pipe() {
    timeout "$1" dd if=/data/MorvelPipe_out bs=128 count=1 2>/dev/null | od -An -tx1 -v | tr -s ' \n' '  ' | sed 's/^ //; s/ $//'
    echo
}

# The answers set-up awaits after the pipes exist never reach the output pipe; a loop-back
# written to the input pipe is answered (one 64-byte report); a version answered in two
# fragments comes out merged. Plain Linux: the pipes give others no access.
tool_pipe() {
    step "pipes: $(stat -c %a /data/MorvelPipe_in /data/MorvelPipe_out | tr '\n' ' ')"
    step "output pipe after set-up: [$(read_pipe 1)]"
    printf '\003\001\101' > /data/MorvelPipe_in
    read_pipe 3 > "$OUT/tool-loopback.txt"
    printf '\003\001\104' > /data/MorvelPipe_in
    read_pipe 3 > "$OUT/tool-version.txt"
    step "output pipe at the end: [$(read_pipe 1)]"
}

# ctl TAG ARGS: tavrinectl's output (stdout, then stderr) in $OUT/TAG.out; steps its status.
ctl() {
    local tag=$1
    shift
    tavrinectl "$@" > "$OUT/$tag.out" 2> /tmp/ctl.err
    step "$tag: status $?"
    cat /tmp/ctl.err >> "$OUT/$tag.out"
}

# Packets the controller received after the note $1.
received_after() {
    sed -n "/note $1/,\$p" "$OUT/sim.log" | sed -n 's/^[0-9.]* rx //p' > "$OUT/$2"
}

# USB: version (merged from two fragments), model, type, a raw loop-back, a command nobody
# answers (status 1 after the time-out); once the daemon is stopped, status 3, also when
# there is no PID file at all.
cli_usb() {
    ctl usb-version --timeout 4000 version
    ctl usb-model --timeout 4000 --usb model
    ctl usb-type --timeout 4000 type
    ctl usb-raw --timeout 4000 raw 03 01 41
    sim_do note tool silent
    ctl usb-silent --usb --timeout 800 raw 03 01 4b
    received_after "tool silent" usb-silent.rx
    TavrineD -k > /dev/null 2>&1
    wait_until '[ "$(daemon_count)" = 0 ]' 50
    ctl stopped version
    grep -q "^tavrinectl: no daemon" "$OUT/stopped.out" && step "stopped: says no daemon"
    rm -f /data/TouchPID
    ctl no-daemon version
}

# RS232: the points switched to the tool, printed and switched back; a version asked on both
# headers without answer (status 1).
cli_serial() {
    sim_do note tool points
    ctl serial-points --timeout 5000 points --count 2
    wait_until 'received_after "tool points" serial-points.rx; grep -qx "0a 02 34 01" "$OUT/serial-points.rx"' 30
    sim_do note tool silent
    ctl serial-silent --timeout 1000 version
    received_after "tool silent" serial-silent.rx
}

play_case
