# Virtual keys: VKEY_0 BACK, VKEY_1 HOME, VKEYReportMod 3, VKEYEnable 1.
# Key reports [03 04 36 2F state index] become key presses every third
# pressed report (the later ones are repeats) and a release once the key was
# reported pressed three times; a shorter tap sends nothing and its count
# carries over. Key 2 has no code and is ignored.
. /bed/lib.sh

printf '%s\n' '[TavrineA.ini]' 'DebugEnableBits 2003' 'ShowDebugPosition 0' 'DeviceNums 1' \
    'ScanInterface 1' '[String]' 'SerialPath default' '[Device_No.0]' 'SupportPoints 10' \
    'VKEYEnable 1' 'VKEYReportMod 3' 'VKEY_0 BACK' 'VKEY_1 HOME' '[EndOfDevice]' '[EndOfFile]' \
    > /data/TavrineA.ini
start_sim sim.scn
TavrineD -f > "$OUT/start.out" 2>&1
wait_until 'grep -q "rx 03 02 34" "$OUT/sim.log"' 250
sleep 0.5
start_evrec MorvelTouch_VirtualDevice touch.trace --wait-ms 5000 --duration-ms 15000 --count 12 --ready /tmp/vk.ready
wait_until '[ -e /tmp/vk.ready ]' 50
key() {  # key STATE INDEX
    sim_do send 03 04 36 2f "$1" "$2"
    sleep 0.05
}
key 01 00; key 01 00; key 00 00           # tap of two: nothing, count 2 stays
key 01 00                                  # count 3: BACK pressed
key 01 00; key 01 00; key 01 00            # count 6: BACK pressed again (repeat)
key 00 00                                  # BACK released, counts cleared
key 01 01; key 01 01; key 01 01; key 00 01 # HOME pressed at 3, released
key 01 01; key 00 01                       # tap of one: nothing, count 1 stays
key 01 01; key 01 01; key 00 01            # count 3: HOME pressed, released
key 01 02; key 00 02                       # key 2 has no code
wait "$EVREC_PID"
grep "^E:" "$OUT/touch.trace" | sed -e 's/^E: [0-9.]* /E: /' -e 's/\t#.*//' > "$OUT/touch.events"
log=$(ls /data/Tavrine_*.log | head -n 1)
grep -o 'Send VKEY. Controller KEYCode\[[0-9]*\], System KEYCode \[[0-9]*\]' "$log" | uniq -c >> "$OUT/steps.txt"
grep -o 'No corresponding system KEYCode to Controller KEYCode \[[0-9]*\]' "$log" | uniq -c >> "$OUT/steps.txt"
stop_pid "$SIM_PID"
