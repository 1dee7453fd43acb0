# Set-up commands, the tool pipes and tavrinectl, one case a line of cases.

# setup_within LOW HIGH: from the node found to "Setup Done" took LOW..HIGH ms.
setup_within() {
    ms=$(grep -F -e 'Found an QEVO Device at port [/dev/hidraw0]' -e 'Setup Done ----' "$(daemon_log)" |
        sed -n 's/^\[\([0-9]*\):\([0-9]*\):\([0-9]*\):\([0-9]*\)\].*/\1 \2 \3 \4/p' | head -n 2 |
        awk '{ t = (($1 * 60 + $2) * 60 + $3) * 1000 + $4 } NR == 1 { t0 = t } END { print t - t0 }')
    echo "set-up ms: $ms" > "$OUT/setup-time.txt"
    [ "$ms" -ge "$1" ] && [ "$ms" -le "$2" ] && step "set-up within $1..$2 ms" || step "set-up took $ms ms"
}

# One read (128 bytes at most, $1 s) of the tool's output pipe, as hex.
read_pipe() { timeout "$1" dd if=/data/MorvelPipe_out bs=128 count=1 2> /dev/null | od -An -tx1 -v | xargs; }

# Set-up's answers stay off the output pipe; a loop-back is answered; a fragmented version merged.
tool_pipe() {
    step "output pipe after set-up: [$(read_pipe 1)]"
    printf '\003\001\101' > /data/MorvelPipe_in && read_pipe 3 > "$OUT/tool-loopback.txt"
    printf '\003\001\104' > /data/MorvelPipe_in && read_pipe 3 > "$OUT/tool-version.txt"
    step "output pipe at the end: [$(read_pipe 1)]"
}

# ctl TAG ARGS: tavrinectl's stdout and stderr in $OUT/TAG.out; steps its status.
ctl() {
    local tag=$1 && shift
    tavrinectl "$@" > "$OUT/$tag.out" 2> /tmp/ctl.err; step "$tag: status $?"; cat /tmp/ctl.err >> "$OUT/$tag.out"
}

# USB: version, loop-back, an unanswered command (status 1); the daemon stopped (status 3).
cli_usb() {
    ctl usb-version --timeout 4000 version
    ctl usb-raw --timeout 4000 raw 03 01 41
    sim_do note tool silent
    ctl usb-silent --usb --timeout 800 raw 03 01 4b
    sed -n '/note tool silent/,$p' "$OUT/sim.log" | sed -n 's/^[0-9.]* rx //p' > "$OUT/usb-silent.rx"
    TavrineD -k > /dev/null 2>&1; wait_until '[ "$(daemon_count)" = 0 ]' 50
    ctl stopped version
}
