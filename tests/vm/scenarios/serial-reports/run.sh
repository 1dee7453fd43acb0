# An RS232 controller that answers only at 57600: the speed search tries 9600
# and 19200 first, the device opens at 57600, and its 6-byte reports (contact
# letter in the sixth byte, Y mirrored) reach the touch device.
. /bed/lib.sh

write_settings 2 /dev/ttyTAV0
sed -i 's/^DebugEnableBits 1$/DebugEnableBits 410007/' /data/TavrineA.ini
start_sim sim.scn
start_evrec MorvelTouch_VirtualDevice touch.trace --wait-ms 20000 --duration-ms 20000 --count 31
TavrineD -f > "$OUT/start.out" 2>&1
wait_until 'grep -q "note reports sent" "$OUT/sim.log"' 250
wait "$EVREC_PID"
speeds=$(sed -n 's/^[0-9.]* line \([0-9]*\) .*/\1/p' "$OUT/sim.log" | grep -v '^38400$' | uniq | tr '\n' ' ')
step "line speeds set: $speeds"
log=$(ls /data/Tavrine_*.log | head -n 1)
step "$(grep -o 'Set Device \[/dev/ttyTAV0\] BaudRate [0-9]*' "$log")"
strip_times "$OUT/touch.trace" /tmp/touch.nt
grep "^E:" /tmp/touch.nt | sed "s/	#.*//" > "$OUT/touch.events"
stop_pid "$SIM_PID"
