# A boot-loader controller is accepted through its IAP reply (at 19200, the
# only speed where it answers); a port where nothing answers is tried at all
# four speeds and never accepted.
. /bed/lib.sh

write_settings 2 /dev/ttyTAV0
sed -i -e 's/^DebugEnableBits 1$/DebugEnableBits 410007/' -e 's/^DeviceNums 1$/DeviceNums 2/' \
    -e 's|^SerialPath /dev/ttyTAV0$|SerialPath /dev/ttyTAV1\nSerialPath /dev/ttyTAV0|' /data/TavrineA.ini
start_sim bfw.scn
tavrine-sim silent.scn --log "$OUT/silent.log" --ready /tmp/silent.ready &
SILENT_PID=$!
wait_until '[ -e /tmp/silent.ready ]' 50
TavrineD -f > "$OUT/start.out" 2>&1
log=$(ls /data/Tavrine_*.log | head -n 1)
# Two whole passes over the silent port.
wait_until '[ "$(grep -c "failed to check device \[/dev/ttyTAV1\]" /data/Tavrine_*.log)" -ge 2 ]' 250
speeds() { sed -n 's/^[0-9.]* line \([0-9]*\) .*/\1/p' "$1" | grep -v '^38400$' | uniq | head -n 8 | tr '\n' ' '; }
step "boot-loader port, line speeds set: $(speeds "$OUT/sim.log")"
step "silent port, line speeds set: $(speeds "$OUT/silent.log")"
grep -q 'The content of target device is BootLoader' "$log" && step "log: boot-loader reply recognised"
step "$(grep -o 'Found a RS232 device at port \[[^]]*\]' "$log" | sort | uniq -c)"
step "$(grep -o 'Set Device \[[^]]*\] BaudRate [0-9]*' "$log" | sort | uniq -c)"
stop_pid "$SILENT_PID"
stop_pid "$SIM_PID"
