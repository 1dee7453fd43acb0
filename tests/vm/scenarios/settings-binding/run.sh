# The self-written settings file and new_id binding (play_case in /bed/lib.sh runs a case).
. /bed/lib.sh

# usb_scn NAME [PHYS [PRODUCT]]: /tmp/NAME.scn, a USB controller that answers nothing.
usb_scn() {
    { echo "port usb"; echo "descriptor-file $PWD/../../sim/descriptors/default.hex"
      [ -n "$2" ] && echo "phys $2"; [ -n "$3" ] && echo "product 0x$3"; } > "/tmp/$1.scn"
}

# inifile: the first device writes the file whole; with DeviceNums 2 a second address adds
# block 1; a third start changes nothing; three more controllers whose addresses read as the
# file's words ([EndOfFile], [Device_No.0], [EndOfDevice]) are served and change nothing.
inifile() {
    usb_scn usb-a usb-sim-a/input0
    usb_scn usb-b usb-sim-b/input0
    usb_scn usb-eof '[EndOfFile]'
    usb_scn usb-hdr '[Device_No.0]'
    usb_scn usb-eod '[EndOfDevice]'
    start_b() {
        tavrine-sim /tmp/usb-b.scn --log "$OUT/sim-b.log" --ready /tmp/b.ready &
        SIM_B=$!
        wait_until '[ -e /tmp/b.ready ]' 50
    }
    # Set-up ends with the report switch-on (0x34) to each controller.
    set_up() { for f in "$@"; do grep -q 'rx 03 02 34' "$f" 2>/dev/null || return 1; done; }
    tasks() {  # kept for a hung daemon: its threads and where they wait
        for t in /proc/$(pid_file_pid)/task/*; do echo "$1 $t $(cut -d' ' -f3 $t/stat) $(cat $t/wchan)"; done >> "$OUT/tasks.txt"
    }
    stop_all() {
        TavrineD -k > /dev/null 2>&1
        stop_pid "$SIM_PID"
        [ -n "$SIM_B" ] && stop_pid "$SIM_B"
        for pid in $SIM_HOSTILE; do stop_pid "$pid"; done
        SIM_HOSTILE=
        rm -f /tmp/b.ready /tmp/h-*.ready
    }

    rm -f /data/TavrineA.ini
    start_sim /tmp/usb-a.scn
    TavrineD -D -r /dev/ttyTAVnone > "$OUT/start1.out" 2>&1
    wait_until 'set_up "$OUT/sim.log"' 200 || tasks phase1
    cp /data/TavrineA.ini "$OUT/generated.ini"
    stop_all

    sed -i "s/^\(DeviceNums[[:space:]]*\)1$/\12/" /data/TavrineA.ini
    start_sim /tmp/usb-a.scn
    start_b
    TavrineD -f -r /dev/ttyTAVnone > "$OUT/start2.out" 2>&1
    wait_until 'set_up "$OUT/sim.log" "$OUT/sim-b.log"' 200 || tasks phase2
    cp /data/TavrineA.ini "$OUT/two-devices.ini"
    stop_all

    start_sim /tmp/usb-a.scn
    start_b
    TavrineD -f -r /dev/ttyTAVnone > "$OUT/start3.out" 2>&1
    wait_until 'set_up "$OUT/sim.log" "$OUT/sim-b.log"' 200 || tasks phase3
    cmp -s /data/TavrineA.ini "$OUT/two-devices.ini" && step "third start: file unchanged" || cp /data/TavrineA.ini "$OUT/third.ini"
    grep -ho 'Found match physical address \[[^]]*\], device figure \[[0-9]\]' /data/Tavrine_*.log | sort >> "$OUT/steps.txt"
    stop_all

    sed -i "s/^\(DeviceNums[[:space:]]*\)2$/\15/" /data/TavrineA.ini
    cp /data/TavrineA.ini /tmp/before-hostile.ini
    start_sim /tmp/usb-a.scn
    start_b
    for h in eof hdr eod; do
        tavrine-sim /tmp/usb-$h.scn --log "$OUT/sim-$h.log" --ready /tmp/h-$h.ready &
        SIM_HOSTILE="$SIM_HOSTILE $!"
        wait_until "[ -e /tmp/h-$h.ready ]" 50
    done
    TavrineD -f -r /dev/ttyTAVnone > "$OUT/start4.out" 2>&1
    wait_until 'set_up "$OUT/sim.log" "$OUT/sim-b.log" "$OUT/sim-eof.log" "$OUT/sim-hdr.log" "$OUT/sim-eod.log"' 300 || tasks phase4
    cmp -s /data/TavrineA.ini /tmp/before-hostile.ini && step "fourth start, five devices: file unchanged" || cp /data/TavrineA.ini "$OUT/fourth.ini"
    grep -ho 'Physical address \[.*\] cannot be matched, use default setting' /data/Tavrine_*.log | sort >> "$OUT/steps.txt"
    stop_all
}

# newid: DevPID 7e57 and 7e5 (written 07e5) go to the real new_id files, so devices with those
# ids plugged later bind to hid-multitouch; 3c7a:0001, listed by lsusb, gets none. busybox sh
# runs "busybox" as its own applet, so the daemon runs where /bin/sh is a script whose
# "busybox lsusb" answers with that listing.
newid() {
    mkdir -p /tmp/bbreal
    cp /bin/busybox /tmp/bbreal/busybox
    cat > /tmp/shwrap <<'WRAP'
#!/tmp/bbreal/busybox sh
busybox() { if [ "$1" = lsusb ]; then echo "Bus 001 Device 004: ID 3c7a:0001"; else /tmp/bbreal/busybox "$@"; fi; }
case "${0##*/}" in
sh) [ "$1" = -c ] && { eval "$2"; exit; }; exec /tmp/bbreal/busybox sh "$@" ;;
*) exec /tmp/bbreal/busybox "${0##*/}" "$@" ;;
esac
WRAP
    chmod 755 /tmp/shwrap

    write_settings 1
    sed -i -e 's/^DebugEnableBits 1$/DebugEnableBits 3/' -e 's/^SerialPath default$/&\nDevPID 7e57\nDevPID 7e5/' /data/TavrineA.ini
    usb_scn usb-0001
    usb_scn usb-7e57 usb-sim-7e57/input0 7e57
    usb_scn usb-07e5 usb-sim-07e5/input0 07e5
    start_sim /tmp/usb-0001.scn
    ls /sys/bus/hid/drivers/hid-generic | grep -q '^0003:3C7A:0001\.' && step "3c7a:0001 bound to hid-generic"
    unshare -m sh -c 'mount --make-rprivate / && mount --bind /tmp/shwrap /bin/sh && exec TavrineD -f' > "$OUT/start.out" 2>&1
    log=$(ls /data/Tavrine_*.log | head -n 1)
    wait_until 'grep -q "Entering DevRxLoop" $log' 250
    grep -o "In lsusb: Get device \[3c7a\]:\[[0-9a-f]*\]\.\|', match device \[[0-9a-f]*\]\|Dismatch device \[[0-9a-f]*\]\|Entering AddPidTo[A-Za-z]* with VID\[3c7a\] PID\[[0-9a-f]*\]\|Add deviceID into [a-z-]* module failed" "$log" |
        sort | uniq -c >> "$OUT/steps.txt"
    SIMS=
    for pid in 7e57 07e5; do
        tavrine-sim /tmp/usb-$pid.scn --log "$OUT/sim-$pid.log" --ready /tmp/p-$pid.ready &
        SIMS="$SIMS $!"
        wait_until "[ -e /tmp/p-$pid.ready ]" 50
        ID=$(echo $pid | tr a-f A-F)
        wait_until "ls /sys/bus/hid/devices | grep -q '^0003:3C7A:$ID\.'" 30
        for drv in hid-generic hid-multitouch; do
            ls /sys/bus/hid/drivers/$drv | grep -q "^0003:3C7A:$ID\." && step "3c7a:$pid bound to $drv"
        done
    done
    # The daemon first: else it would teach the drivers 3c7a:0001 once unplugged.
    TavrineD -k > /dev/null 2>&1
    for pid in $SIMS; do stop_pid "$pid"; done
    stop_pid "$SIM_PID"
}

play_case
