# The self-written settings file.
. /bed/lib.sh

# usb_scn NAME PHYS: /tmp/NAME.scn, a USB controller that answers nothing.
usb_scn() { printf 'port usb\ndescriptor-file %s\nphys %s\n' "$PWD/../../sim/descriptors/default.hex" "$2" > "/tmp/$1.scn"; }

# inifile: the first device writes the file whole; with DeviceNums 2 a second address adds
# block 1; a restart with three more controllers whose addresses read as the file's words
# ([EndOfFile], [Device_No.0], [EndOfDevice]) serves all five and changes nothing.
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
    cmp -s /data/TavrineA.ini /tmp/before-hostile.ini && step "restart, five devices: file unchanged" || cp /data/TavrineA.ini "$OUT/fourth.ini"
    grep -ho 'Found match physical address \[[^]]*\], device figure \[[0-9]\]' /data/Tavrine_*.log | sort >> "$OUT/steps.txt"
    grep -ho 'Physical address \[.*\] cannot be matched, use default setting' /data/Tavrine_*.log | sort >> "$OUT/steps.txt"
    stop_all
}

play_case
