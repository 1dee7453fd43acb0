# The data folder turns read-only, then full (a 1 MiB tmpfs filled with a
# file), before a controller is plugged whose set-up must add its block to
# the settings file (DeviceNums 2, the file's only block carries another
# address). The daemon's log file is bind-mounted from /tmp so that it can
# still be written. Each time: the settings file stays byte for byte as it
# was, the failure is logged, the daemon sets the controller up with the
# values it has and a touch arrives.
. ../touch-devices/touch-env.sh

data_opts=$(awk '$2 == "/data" { print $4 }' /proc/mounts)
size=$(echo "$data_opts" | tr ',' '\n' | grep '^size=')
cleanup() {
    umount /data/Tavrine_*.log 2>/dev/null
    mount -o remount,rw /data 2>/dev/null
    rm -f /data/filler
    [ -n "$size" ] && mount -o "remount,$size" /data
}
trap cleanup EXIT

write_ini() {
    printf '[TavrineA.ini]\nDebugEnableBits 3\nShowDebugPosition 0\nDeviceNums 2\nScanInterface 1\n'
    printf '[String]\nSerialPath default\n\n[Device_No.0]\nPhysical_Address usb-elsewhere/input0\n'
    printf 'SupportPoints 5\nVKEYReportMod 1\n[EndOfDevice]\n[EndOfFile]'
}

round() {  # ro | full, the message expected in the log
    local mode=$1 log pid
    write_ini > /data/TavrineA.ini
    cp /data/TavrineA.ini /tmp/ini.orig
    PATH=/tmp/touchbin:$PATH TavrineD -f > "$OUT/start-$mode.out" 2>&1
    wait_until 'grep -q "Loop in endless scan" "$(daemon_log)" 2>/dev/null' 300 || step "$mode: daemon not scanning"
    pid=$(pid_file_pid)
    log=$(daemon_log)
    cp "$log" /tmp/daemon.log
    mount -o bind /tmp/daemon.log "$log" || step "$mode: log bind failed"
    if [ "$mode" = ro ]; then
        mount -o remount,ro /data || step "$mode: remount failed"
        touch /data/probe 2>/dev/null && step "$mode: /data still writable"
    else
        mount -o remount,size=1m /data || step "$mode: remount failed"
        dd if=/dev/zero of=/data/filler bs=4k 2>/dev/null
        echo x >> /data/probe 2>/dev/null && step "$mode: /data not full"
    fi
    start_sim sim.scn || step "$mode: simulator not ready"
    wait_until 'grep -q "Device\[/dev/hidraw0\] Setup Done" /tmp/daemon.log && has_input MorvelTouch_VirtualDevice' 300 &&
        step "$mode: set-up done"
    cmp /tmp/ini.orig /data/TavrineA.ini > "$OUT/cmp-$mode.txt" 2>&1 &&
        step "$mode: settings file unchanged" || step "$mode: settings file changed"
    step "$mode: failure logged: $(grep -c "$2" /tmp/daemon.log)"
    step "$mode: no temporary file left: $([ ! -e /data/TavrineA.tmp ] && echo yes)"
    touch_record "touch-$mode.trace" --idle-ms 1000
    sim_do send 06 01 01 00 e8 03 d0 07
    sleep 0.2
    sim_do send 06 01 00 00 e8 03 d0 07
    wait "$EVREC_PID"
    step "$mode: protocol check status $?"
    touch_events "$OUT/touch-$mode.trace" "$OUT/touch-$mode.events"
    step "$mode: daemon alive: $(is_daemon "$pid" && echo yes)"

    kill -TERM "$pid"
    wait_until '! is_daemon "$pid"' 50
    stop_pid "$SIM_PID"
    wait_until '[ ! -e /dev/hidraw0 ]' 50
    cp /tmp/daemon.log "$OUT/daemon-$mode.log"
    cleanup
    rm -f /data/Tavrine_*.log /data/probe
}

round ro '\[E\] Create temp param file failed, please modify param manually: Read-only file system'
round full '\[E\] Failed to write /data/TavrineA.tmp, /data/TavrineA.ini left unchanged: No space left on device'
