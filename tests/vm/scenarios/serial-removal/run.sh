# A silent RS232 controller (NoDeviceCheck 0) is removed by the receive
# loop's presence check (750 empty 20 ms wake-ups, then the loop-back from the
# scan loop), and found again once it answers the loop-back again.
. /bed/lib.sh

write_settings 2 /dev/ttyTAV0
sed -i 's/^DebugEnableBits 1$/DebugEnableBits 4fffff/' /data/TavrineA.ini
start_sim sim.scn
TavrineD -f > "$OUT/start.out" 2>&1
log=$(ls /data/Tavrine_*.log | head -n 1)
wait_until '[ "$(grep -c "Entering DevRxLoop" $log)" -ge 2 ]' 600
# Log times are [HH:MM:SS:mmm]; prints milliseconds between two log lines.
ms_of() { grep -m 1 "$1" "$log" | sed 's/^\[\([0-9]*\):\([0-9]*\):\([0-9]*\):\([0-9]*\)\].*/\1 \2 \3 \4/'; }
span() { echo "$(ms_of "$1") $(ms_of "$2")" | awk '{print (($5*3600+$6*60+$7)*1000+$8) - (($1*3600+$2*60+$3)*1000+$4)}'; }
removal=$(span 'Entering DevRxLoop' 'RS232 Device \[/dev/ttyTAV0\] is removed')
echo "silent controller removed after $removal ms" | tee "$OUT/removal-time.txt"
check=$(span 'Entering DevRxLoop' 'Timeout to check RS232 device exist or not.')
echo "presence check fired after $check ms" >> "$OUT/removal-time.txt"
[ "$check" -ge 14500 ] && [ "$check" -le 30000 ] && step "presence check after 750 empty wake-ups of 20 ms or more: 14.5-30 s"
[ "$removal" -gt "$check" ] && [ "$removal" -le $((check + 5000)) ] && step "removed by the loop-back check"
grep -o 'Found a RS232 device at port \[/dev/ttyTAV0\]' "$log" | uniq -c >> "$OUT/steps.txt"
step "loop-backs at 57600: $(grep -c ' match line [678]$' "$OUT/sim.log")"
stop_pid "$SIM_PID"
