# A controller is unplugged while the daemon adds its block to the settings
# file: DeviceNums 2, the file's only block carries another address and is
# padded to about 600 KB, so the copy into /data/TavrineA.tmp takes a while;
# the guest unplugs the controller as soon as that temporary file appears.
# Whatever the rewrite had reached, the settings file is either the old one
# or the old one with exactly the new block in front of "[EndOfFile]", no
# temporary file is left, the daemon lives on and removes the device, and
# the controller plugged in again is served.
. ../touch-devices/touch-env.sh

write_ini() {
    printf '[TavrineA.ini]\nDebugEnableBits 3\nShowDebugPosition 0\nDeviceNums 2\nScanInterface 1\n'
    printf '[String]\nSerialPath default\n\n[Device_No.0]\nPhysical_Address usb-elsewhere/input0\n'
    awk 'BEGIN { for (i = 0; i < 40000; i++) printf "Padding%05d 1\n", i }'
    printf 'SupportPoints 5\nVKEYReportMod 1\n[EndOfDevice]\n[EndOfFile]'
}

write_ini > /data/TavrineA.ini
cp /data/TavrineA.ini /tmp/ini.orig
orig_len=$(wc -c < /tmp/ini.orig)
PATH=/tmp/touchbin:$PATH TavrineD -f > "$OUT/start.out" 2>&1
wait_until 'grep -q "Loop in endless scan" "$(daemon_log)" 2>/dev/null' 300 || step "daemon not scanning"
pid=$(pid_file_pid)

start_sim sim.scn || step "simulator not ready"
tries=0
until [ -e /data/TavrineA.tmp ] || [ $tries -ge 20000 ]; do tries=$((tries + 1)); done
sim_do unplug
echo "temporary file seen after $tries polls" > "$OUT/timing.txt"
wait_until 'grep -q "Device \[/dev/hidraw0\] was removed, existed device amount = 0" "$(daemon_log)"' 300 &&
    step "device removed"
step "daemon alive: $(is_daemon "$pid" && echo yes)"
step "no temporary file left: $([ ! -e /data/TavrineA.tmp ] && echo yes)"

# The old file, or the old file with one block inserted before its last 12
# bytes ("\n[EndOfFile]"), holding this controller's address.
check_file() {
    local keep=$((orig_len - 12)) new_len
    if cmp -s /tmp/ini.orig /data/TavrineA.ini; then echo unchanged; return; fi
    new_len=$(wc -c < /data/TavrineA.ini)
    head -c "$keep" /data/TavrineA.ini > /tmp/new.head
    head -c "$keep" /tmp/ini.orig > /tmp/orig.head
    cmp -s /tmp/new.head /tmp/orig.head || { echo "prefix differs"; return; }
    [ "$(tail -c 12 /data/TavrineA.ini | od -An -c | tr -d ' \n')" = '\n[EndOfFile]' ] || { echo "end differs"; return; }
    tail -c $((new_len - keep)) /data/TavrineA.ini | head -c $((new_len - orig_len)) > /tmp/block
    grep -q '^\[Device_No\.1\]$' /tmp/block && grep -q 'usb-tavrine-sim/input0' /tmp/block &&
        [ "$(grep -c '\[EndOfDevice\]' /tmp/block)" = 1 ] && echo "one block added" || echo "block malformed"
}
result=$(check_file)
echo "$result" > "$OUT/file-result.txt"
case $result in
    unchanged|"one block added") step "settings file whole" ;;
    *) step "settings file damaged: $result" ;;
esac

done_before=$(grep -c "Setup Done" "$(daemon_log)")
sim_do plug
wait_until '[ "$(grep -c "Setup Done" "$(daemon_log)")" -gt "$done_before" ] && has_input MorvelTouch_VirtualDevice' 300 &&
    step "plugged again: set up"
touch_tap_check touch
step "daemon alive after: $(is_daemon "$pid" && echo yes)"
cp "$(daemon_log)" "$OUT/daemon.log"
