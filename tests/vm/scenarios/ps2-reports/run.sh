# PS/2 controllers: 0xFA bytes anywhere in the stream vanish and 5-byte
# reports (Y mirrored) reach the touch device; with DeviceNums 2 both PS/2
# ports are added in one scan pass.
. /bed/lib.sh

write_settings 3
sed -i -e 's/^DebugEnableBits 1$/DebugEnableBits 4fffff/' -e 's/^DeviceNums 1$/DeviceNums 2/' /data/TavrineA.ini
start_sim ps2a.scn
tavrine-sim ps2b.scn --log "$OUT/sim-b.log" --ready /tmp/ps2b.ready &
SIM_B=$!
wait_until '[ -e /tmp/ps2b.ready ]' 50
TavrineD -f > "$OUT/start.out" 2>&1
log=$(ls /data/Tavrine_*.log | head -n 1)
# Both touch devices have the same name and get the same reports: either will do.
start_evrec MorvelTouch_VirtualDevice touch.trace --wait-ms 20000 --duration-ms 15000 --count 10
wait_until 'grep -q "note reports sent" "$OUT/sim.log"' 250
wait "$EVREC_PID"
grep "^E:" "$OUT/touch.trace" | sed -e 's/^E: [0-9.]* /E: /' -e 's/\t#.*//' > "$OUT/touch.events"
# Scan and add lines up to the second addition: one pass adds both ports.
grep -o 'Scan PS2 Path \[[^]]*\]\|Add device \[[^]]*\], current device amount = [0-9]*' "$log" |
    sed -n '1,/amount = 2/p' >> "$OUT/steps.txt"
stop_pid "$SIM_B"
stop_pid "$SIM_PID"
