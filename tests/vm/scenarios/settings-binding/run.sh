# The self-written settings file.

# The file written whole, block 1 added, then addresses that read as its words change nothing.
inifile() {
    local n=0 pids=""
    all_on() { for f; do grep -q 'rx 03 02 34' "$f" || return 1; done; }
    # run NUMS PHYS...: silent USB controllers, the daemon with DeviceNums NUMS, their switch-on.
    run() {
        local nums=$1 logs="" opt=-f
        shift
        [ -f /data/TavrineA.ini ] || opt=-D
        sed -i "s/^\(DeviceNums[[:space:]]*\)[0-9]*$/\1$nums/" /data/TavrineA.ini 2> /dev/null
        cp /data/TavrineA.ini /tmp/before.ini 2> /dev/null
        for phys; do
            n=$((n + 1))
            printf 'port usb\ndescriptor-file %s\nphys %s\n' "$PWD/../../sim/descriptors/default.hex" "$phys" > /tmp/$n.scn
            tavrine-sim /tmp/$n.scn --log "$OUT/sim-$n.log" --ready /tmp/$n.ready &
            pids="$pids $!" logs="$logs $OUT/sim-$n.log"
            wait_until "[ -e /tmp/$n.ready ]" 50
        done
        TavrineD $opt -r /dev/ttyTAVnone > "$OUT/start-$nums.out" 2>&1
        wait_until "all_on $logs" 300 || step "set-up with $nums devices not done"
    }
    stop_all() { TavrineD -k > /dev/null 2>&1; for p in $pids; do stop_pid "$p"; done; pids=""; }

    rm -f /data/TavrineA.ini
    run 1 usb-sim-a/input0; cp /data/TavrineA.ini "$OUT/generated.ini"; stop_all
    run 2 usb-sim-a/input0 usb-sim-b/input0; cp /data/TavrineA.ini "$OUT/two-devices.ini"; stop_all
    run 5 usb-sim-a/input0 usb-sim-b/input0 '[EndOfFile]' '[Device_No.0]' '[EndOfDevice]'
    cmp -s /data/TavrineA.ini /tmp/before.ini && step "restart, five devices: file unchanged" || cp /data/TavrineA.ini "$OUT/fourth.ini"
    grep -ho -e 'Found match physical address \[[^]]*\], device figure \[[0-9]\]' \
        -e 'Physical address \[.*\] cannot be matched, use default setting' /data/Tavrine_*.log | sort >> "$OUT/steps.txt"
    stop_all
}
