# USB touch smoke test: after set-up, one finger of the parallel report
# 0x06 goes down, moves and lifts; the daemon's virtual touch device carries
# it as a well-formed multi-touch stream (the recorder's check) that shows
# a position and ends with the contact lifted.
. /bed/lib.sh

has_input() { grep -q "^N: Name=\"$1\"$" /proc/bus/input/devices; }

write_settings 1
sed -i 's/^DebugEnableBits 1$/DebugEnableBits fffff/' /data/TavrineA.ini
start_sim sim.scn && step "controller plugged"
TavrineD -f > "$OUT/start.out" 2>&1
wait_until 'has_input MorvelTouch_VirtualDevice' 300 && step "touch device: present"
# The report-format command (0x34) is the last of the set-up's commands.
wait_until 'grep -q " rx 03 02 34" "$OUT/sim.log"' 100
sleep 0.5
start_evrec MorvelTouch_VirtualDevice touch.trace --idle-ms 2000 --check --ready /tmp/bed.evrec.ready
wait_until '[ -e /tmp/bed.evrec.ready ]' 50 && step "recorder ready"
sim_do send 06 01 01 00 00 04 00 02    # contact 0 down at (1024, 512)
sleep 0.1
sim_do send 06 01 01 00 10 04 10 02    # moved to (1040, 528)
sleep 0.1
sim_do send 06 01 00 00 10 04 10 02    # lifted
wait "$EVREC_PID"
step "recorder check status $?"
grep -q '^E: [0-9.]* 0003 0035 ' "$OUT/touch.trace" && step "contact position recorded: yes" ||
    step "contact position recorded: no"
last=$(sed -n 's/^E: [0-9.]* 0003 0039 \(-*[0-9]*\).*/\1/p' "$OUT/touch.trace" | tail -n 1)
step "last tracking id: $(echo "$last" | awk '{ print $1 + 0 }')"
stop_pid "$SIM_PID"
