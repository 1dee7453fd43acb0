# The tool's report switch on a serial controller: with 0A 02 34 00 the
# controller's point reports reach /data/MorvelPipe_out as 64-byte packets
# starting 0x0A and write no input event; 0A 02 34 01 restores touch input.
. /bed/lib.sh

write_settings 2 /dev/ttyTAV0
sed -i 's/^DebugEnableBits 1$/DebugEnableBits 4fffff/' /data/TavrineA.ini
start_sim sim.scn
TavrineD -f > "$OUT/start.out" 2>&1
# The set-up's own switch-on comes first; the tool starts after it.
wait_until 'grep -q "rx 0a 02 34 01" "$OUT/sim.log"' 250
sleep 0.5
start_evrec MorvelTouch_VirtualDevice touch.trace --wait-ms 5000 --duration-ms 12000 --count 10
timeout 10 head -c 128 /data/MorvelPipe_out > /tmp/pipe_out.bin &
READER=$!
printf '\012\002\064\000' > /data/MorvelPipe_in
wait "$READER"
od -An -tx1 -v /tmp/pipe_out.bin | awk '{for (i = 1; i <= NF; i++) printf "%s%s", $i, (++n % 64 ? " " : "\n")}' > "$OUT/pipe-out.hex"
printf '\012\002\064\001' > /data/MorvelPipe_in
wait_until 'grep -q "note reports sent" "$OUT/sim.log"' 100
wait "$EVREC_PID"
grep "^E:" "$OUT/touch.trace" | sed -e 's/^E: [0-9.]* /E: /' -e 's/\t#.*//' > "$OUT/touch.events"
stop_pid "$SIM_PID"
