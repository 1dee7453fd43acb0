# The tool's reset command (fourth byte ':', fifth 0xFF) on an RS232
# controller that comes back at another speed: the daemon searches the speed
# again, follows the controller to 9600 and reads its 5-byte reports there.
. /bed/lib.sh

write_settings 2 /dev/ttyTAV0
sed -i 's/^DebugEnableBits 1$/DebugEnableBits 4fffff/' /data/TavrineA.ini
start_sim sim.scn
TavrineD -f > "$OUT/start.out" 2>&1
wait_until 'grep -q "rx 0a 02 34 01" "$OUT/sim.log"' 250
sleep 0.5
start_evrec MorvelTouch_VirtualDevice touch.trace --wait-ms 5000 --duration-ms 12000 --count 10
printf '\012\004\105\072\377\000' > /data/MorvelPipe_in
wait_until 'grep -q "note reports sent" "$OUT/sim.log"' 100
wait "$EVREC_PID"
log=$(ls /data/Tavrine_*.log | head -n 1)
grep -q 'Catch Reset Command' "$log" && step "log: reset command caught"
step "$(grep -o 'Switch BaudRate from \[[0-9]*\] to \[[0-9]*\]' "$log")"
step "line speed now: $(sed -n 's/^[0-9.]* line //p' "$OUT/sim.log" | tail -n 1)"
grep "^E:" "$OUT/touch.trace" | sed -e 's/^E: [0-9.]* /E: /' -e 's/\t#.*//' > "$OUT/touch.events"
stop_pid "$SIM_PID"
