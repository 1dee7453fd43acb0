# Real clients of the daemon's devices: libinput through udev, and a field log replayed.
. /bed/lib.sh
event_of() { grep -l "^$1\$" /sys/class/input/event*/device/name | sed 's|.*/\(event[0-9]*\)/.*|\1|'; }
both_up() { wait_until 'has_input MorvelTouch_VirtualDevice && has_input MorvelTouch_VirtualPen' 50; }

# Under udevd with Debian's rules and hwdb, on plain Linux (no getprop), Android 2.3 and 9: udev's
# properties, the evdev description, the touch events and libinput's events of two fingers, a
# far-corner tap and a pen stroke (on 2.3 libinput, through mtdev, takes the multi-sync
# stream's lifts late: its record is kept apart). Then the README's Linux install.
libinput_modes() {
    mkdir -p /run /usr/lib/udev/rules.d /etc/udev/hwdb.d
    mount -t tmpfs run /run
    /lib/systemd/systemd-udevd --daemon > "$OUT/udevd.out" 2>&1
    udevadm trigger --action=add && udevadm settle
    pidof systemd-udevd > /dev/null && step "systemd-udevd runs"
    start_controller() {  # MODE [RELEASE]
        rm -rf /data/Tavrine_* /data/TouchPID /tmp/bin
        case_settings bits=3 ResolX=1919 ResolY=1079 ${2:+android=$2}
        start_sim libinput.scn
        start_daemon
        wait_until 'logged "Device[/dev/hidraw0] Setup Done"' 300 && both_up && udevadm settle &&
            step "$1: set-up done" || step "$1: set-up not done"
    }
    stop_controller() {
        TavrineD -k > /dev/null 2>&1
        stop_pid "$SIM_PID"
        wait_until '! has_input MorvelTouch_VirtualDevice' 50
        udevadm settle
        mv "$OUT/sim.log" "$OUT/$1.sim.log"
    }
    printf 'linux\nandroid2.3 2.3\nandroid9 9\n' | while read -r mode release; do
        start_controller "$mode" "$release"
        grep -o 'Android Version: [0-9.]*\|Get Android Version failed' "$(daemon_log)" | head -n 1 |
            sed "s/^/$mode: /" >> "$OUT/steps.txt"
        TOUCH=$(event_of MorvelTouch_VirtualDevice) PEN=$(event_of MorvelTouch_VirtualPen)
        {
            echo "# udev properties"
            for role in touch:$TOUCH pen:$PEN; do
                udevadm info --query=property --name="/dev/input/${role#*:}" | grep '^ID_INPUT' | sed "s/^/${role%:*} /"
            done
            echo "# evdev devices (event types, axes: min max fuzz flat resolution)"
            for name in MorvelTouch_VirtualDevice MorvelTouch_VirtualPen; do
                tavrine-evrec record --name "$name" --out /tmp/dev.trace --duration-ms 200
                grep '^[NAP]:\|^B: 00' /tmp/dev.trace
            done
        } > "$OUT/$mode.txt"
        rm -f /tmp/touch.ready /tmp/pen.ready
        start_evrec MorvelTouch_VirtualDevice "$mode.touch.trace" --check --idle-ms 3000 --ready /tmp/touch.ready
        TOUCH_REC=$EVREC_PID
        start_evrec MorvelTouch_VirtualPen "$mode.pen.trace" --idle-ms 3000 --ready /tmp/pen.ready
        wait_until '[ -e /tmp/touch.ready ] && [ -e /tmp/pen.ready ]' 50
        /usr/libexec/libinput/libinput-debug-events --device "/dev/input/$TOUCH" --device "/dev/input/$PEN" \
            > "$OUT/$mode.raw" 2>&1 &
        LI_PID=$!
        sleep 2   # its output is buffered: give it time to add both devices
        printf '\003\001\176' > /dev/hidraw0
        wait_until "grep -q 'gesture done' '$OUT/sim.log'" 200 || step "$mode: gesture not played"
        kill -INT "$LI_PID"
        wait "$LI_PID"
        step "$mode: libinput debug-events status $?"
        grep -qi 'bug\|error\|warn' "$OUT/$mode.raw" && step "$mode: libinput complained"
        wait "$TOUCH_REC"
        step "$mode: touch protocol check status $?"
        touch_events "$OUT/$mode.touch.trace" /tmp/touch.events
        # libinput's events as "<role> <event> <details>": no times, no device groups.
        sed -e "s/\<$TOUCH\>/touch/; s/\<$PEN\>/pen/" -e 's/^[- ]//' -e 's/+[0-9]*\.[0-9]*s//' \
            -e 's/ group[0-9]* / /' -e 's/[[:space:]][[:space:]]*/ /g' -e 's/ $//' "$OUT/$mode.raw" > /tmp/li
        { echo "# touch device events"; cat /tmp/touch.events; } >> "$OUT/$mode.txt"
        if [ "$mode" = android2.3 ]; then mv /tmp/li "$OUT/$mode.libinput"
        else { echo "# libinput events"; cat /tmp/li; } >> "$OUT/$mode.txt"; fi
        wait "$EVREC_PID"
        step "$mode: pen events $(grep -c '^E:' "$OUT/$mode.pen.trace")"
        stop_controller "$mode"
    done

    # The install: the rule where `cmake --install` puts it, the unit's commands, a re-plug, the
    # screen's size in the hwdb; libinput should see the controller's own node only unmarked.
    cp /bed/platform/linux/70-tavrine.rules /usr/lib/udev/rules.d/
    udevadm control --reload
    run_unit() {  # the unit's $1= command lines, without their prefix characters
        sed -n "s/^$1=[-+!@:]*//p" /bed/platform/linux/tavrined.service.in | while read -r cmd; do
            sh -c "$cmd" || step "unit $1 failed: $cmd"
        done
        udevadm settle
    }
    screens() {  # "# $1", then the touch and tablet devices libinput would use
        echo "# $1"
        /usr/libexec/libinput/libinput-list-devices 2>&1 |
            awk '/^Device:/ { sub(/^Device: */, ""); name = $0; size = "" }
                 /^Size:/ { size = " " $2 }
                 /^Capabilities:/ { sub(/^Capabilities: */, ""); sub(/ *$/, "")
                                    if ($0 ~ /touch|tablet/) print name ": " $0 size }'
    }
    start_controller install
    {
        screens "without the marker"
        run_unit ExecStartPost
        screens "after the unit's start commands"
        sim_do unplug
        wait_until '! has_input "Morvel Touch Controller"' 50
        sim_do plug
        wait_until '[ "$(grep -c "Setup Done" "$(daemon_log)")" = 2 ]' 300 && both_up &&
            step "install: set up again after the re-plug"
        udevadm settle
        screens "the controller unplugged and plugged again"
        # 480 x 270 mm: 4 units/mm with ResolX 1919, ResolY 1079.
        sed 's/=::[0-9]*$/=::4/' /bed/platform/linux/61-tavrine-screen.hwdb > /etc/udev/hwdb.d/61-tavrine-screen.hwdb
        systemd-hwdb update && udevadm control --reload
        rm -f /data/Tavrine_*
        start_daemon
        wait_until 'logged "Device[/dev/hidraw0] Setup Done"' 300 && both_up &&
            step "install: set up again with the screen's size in the hwdb"
        udevadm settle
        screens "the screen's size set in the hwdb, daemon restarted"
        run_unit ExecStopPost
        screens "after the unit's stop commands"
    } > "$OUT/install.screens"
    stop_controller install
    kill "$(pidof systemd-udevd)"
    sleep 0.2
    umount /run
    rm -f /usr/lib/udev/rules.d/70-tavrine.rules /etc/udev/hwdb.d/61-tavrine-screen.hwdb
    systemd-hwdb update
}

# A USB and an RS232 session recorded in the daemon's log, replayed by tavrine-sim --from-log
# into a fresh daemon: the same events (times aside), set-up outcome, report spacing and tool
# answer.
replay_log() {
    case_settings android=9  # slots need an Android release above 3
    session() {  # TAG END_NOTE: recorders, daemon, the session's end; the log kept as TAG.log
        local recs="" dev
        for dev in $(echo "$devices" | tr , ' '); do
            start_evrec "$dev" "$1-$dev.trace" --wait-ms 60000
            recs="$recs $EVREC_PID"
        done
        write_settings "$scan" "$path"
        sed -i 's/^DebugEnableBits 1$/DebugEnableBits 7fffff/' /data/TavrineA.ini
        start_daemon
        wait_setup 400 || step "$1: set-up not done"
        [ "$1" = "$name" ] && tavrinectl $tool > "$OUT/$1-tool.txt" 2>&1  # starts the session
        wait_until "grep -q '$2' '$OUT/$1-sim.log'" 300 || step "$1: not played to its end"
        sleep 0.5
        for dev in $recs; do stop_pid "$dev"; done
        [ "$1" = "$name" ] || tavrinectl $tool > "$OUT/$1-tool.txt" 2>&1
        cp "$(daemon_log)" "$OUT/$1.log"
        TavrineD -k > /dev/null 2>&1
        wait_until '[ "$(daemon_count)" = 0 ]' 50
        stop_pid "$SIM_PID"
        rm -rf /data/*
    }
    outcome() { grep -E "Type:.*Model|AllocateSeries|EventType =" "$1" | sed 's/^\[[^]]*\]-: [^ ]* //'; }
    # name, ScanInterface, SerialPath, script, recorded devices, tool command
    echo 'usb 1 default usb.scn MorvelTouch_VirtualDevice,MorvelTouch_VirtualPen --usb raw 03 01 41
          rs232 2 /dev/ttyTAV0 rs232.scn MorvelTouch_VirtualDevice --serial raw 0a 01 41' |
    while read -r name scan path script devices tool; do
        start_sim "$script"
        mv "$OUT/sim.log" "$OUT/$name-sim.log"
        session "$name" "note session done"
        rm -f /tmp/replay.ready
        tavrine-sim --from-log "$OUT/$name.log" --log "$OUT/$name-replay-sim.log" \
            --ready /tmp/replay.ready 2> "$OUT/$name-replay.txt" &
        SIM_PID=$!
        wait_until '[ -e /tmp/replay.ready ]' 50
        session "$name-replay" "note replay done"

        outcome "$OUT/$name.log" > /tmp/outcome.rec
        outcome "$OUT/$name-replay.log" > /tmp/outcome.rep
        cmp -s /tmp/outcome.rec /tmp/outcome.rep && step "$name: set-up outcome the same:" ||
            step "$name: set-up outcome differs:"
        sed "s/^/$name:   /" /tmp/outcome.rep >> "$OUT/steps.txt"
        for dev in $(echo "$devices" | tr , ' '); do
            rec=$OUT/$name-$dev.trace
            tavrine-evrec check "$rec" > /dev/null 2>&1 || step "$name $dev: recorded trace fails the check"
            strip_times "$rec" /tmp/rec.nt
            strip_times "$OUT/$name-replay-$dev.trace" /tmp/rep.nt
            sed -i '/^# end:/d' /tmp/rec.nt /tmp/rep.nt
            diff -u /tmp/rec.nt /tmp/rep.nt > "$OUT/$name-$dev.diff" &&
                step "$name $dev: replay the same event for event ($(grep -cE '^E:.*(ABS_MT_TRACKING_ID|BTN_TOUCH)' "$rec") tracking or touch events in each)" ||
                step "$name $dev: replay differs (see $name-$dev.diff)"
        done
        # Offsets in ms of the reports (no replies) the recorded daemon read and the replay sent.
        awk -F '[]:[]' '/Read from device/ && !/byte: \[0[3A]\]/ {  # zeros cut: not octal
            for (i = 2; i <= 5; i++) sub(/^0+/, "", $i); print (($2 * 60 + $3) * 60 + $4) * 1000 + $5 }' \
            "$OUT/$name.log" > /tmp/times.rec
        awk '$2 == "tx" && $3 != "03" && $3 != "0a" { printf "%d\n", $1 * 1000 }' "$OUT/$name-replay-sim.log" > /tmp/times.rep
        [ -s /tmp/times.rec ] && [ "$(wc -l < /tmp/times.rec)" = "$(wc -l < /tmp/times.rep)" ] &&
            paste /tmp/times.rec /tmp/times.rep | awk 'NR == 1 { f1 = $1; f2 = $2 }
                { d = ($1 - f1) - ($2 - f2); if (d < 0) d = -d; if (d > max) max = d }
                END { print "largest difference of offsets: " max + 0 " ms"; exit max > 75 }' > "$OUT/$name-spacing.txt" &&
            step "$name: reports sent with the recorded spacing (each within 75 ms)" ||
            step "$name: reports not sent with the recorded spacing ($(cat "$OUT/$name-spacing.txt"))"
        [ "$(cat "$OUT/$name-tool.txt")" = "$(cat "$OUT/$name-replay-tool.txt")" ] &&
            step "$name: tool answer the same: $(cat "$OUT/$name-replay-tool.txt")" ||
            step "$name: tool answer differs: $(cat "$OUT/$name-tool.txt") / $(cat "$OUT/$name-replay-tool.txt")"
    done
}

play_case
