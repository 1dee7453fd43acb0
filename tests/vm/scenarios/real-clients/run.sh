# Real clients of the daemon's devices: libinput through udev, and a field log replayed.
event_of() { grep -l "^$1\$" /sys/class/input/event*/device/name | sed 's|.*/\(event[0-9]*\)/.*|\1|'; }
both_up() { wait_until 'has_input MorvelTouch_VirtualDevice && has_input MorvelTouch_VirtualPen' 50; }

# udev's and libinput's view of libinput.scn on plain Linux, Android 2.3 (kept apart: mtdev) and 9.
libinput_modes() {
    mkdir -p /run /usr/lib/udev/rules.d /etc/udev/hwdb.d && mount -t tmpfs run /run
    /lib/systemd/systemd-udevd --daemon > "$OUT/udevd.out" 2>&1
    udevadm trigger --action=add && udevadm settle && pidof systemd-udevd > /dev/null && step "systemd-udevd runs"
    start_controller() {  # MODE [RELEASE]
        rm -rf /data/Tavrine_* /data/TouchPID /tmp/bin
        case_settings bits=3 ResolX=1919 ResolY=1079 ${2:+android=$2}
        start_sim libinput.scn && start_daemon
        wait_until 'logged "Device[/dev/hidraw0] Setup Done"' 300 && both_up && udevadm settle &&
            step "$1: set-up done" || step "$1: set-up not done"
    }
    stop_controller() {
        TavrineD -k > /dev/null 2>&1; stop_pid "$SIM_PID"
        wait_until '! has_input MorvelTouch_VirtualDevice' 50 && udevadm settle
        mv "$OUT/sim.log" "$OUT/$1.sim.log"
    }
    printf 'linux\nandroid2.3 2.3\nandroid9 9\n' | while read -r mode release; do
        start_controller "$mode" "$release"
        grep -o 'Android Version: [0-9.]*\|Get Android Version failed' "$(daemon_log)" | head -n 1 |
            sed "s/^/$mode: /" >> "$OUT/steps.txt"
        TOUCH=$(event_of MorvelTouch_VirtualDevice) PEN=$(event_of MorvelTouch_VirtualPen)
        echo "# udev properties" > "$OUT/$mode.txt"
        for role in touch:$TOUCH pen:$PEN; do
            udevadm info --query=property --name="/dev/input/${role#*:}" | grep '^ID_INPUT' | sed "s/^/${role%:*} /"
        done >> "$OUT/$mode.txt"
        rec_ready "$mode.touch.trace" --check --idle-ms 3000
        /usr/libexec/libinput/libinput-debug-events --device "/dev/input/$TOUCH" --device "/dev/input/$PEN" \
            > "$OUT/$mode.raw" 2>&1 & LI_PID=$!
        sleep 2   # its output is buffered: give it time to add both devices
        printf '\003\001\176' > /dev/hidraw0
        wait_until "grep -q 'gesture done' '$OUT/sim.log'" 200 || step "$mode: gesture not played"
        kill -INT "$LI_PID"; wait "$LI_PID"; step "$mode: libinput debug-events status $?"
        grep -qi 'bug\|error\|warn' "$OUT/$mode.raw" && step "$mode: libinput complained"
        wait "$EVREC_PID"; step "$mode: touch protocol check status $?"
        touch_events "$OUT/$mode.touch.trace" /tmp/te && { echo "# touch device events"; cat /tmp/te; } >> "$OUT/$mode.txt"
        # libinput's events as "<role> <event> <details>": no times, no device groups.
        sed -e "s/\<$TOUCH\>/touch/; s/\<$PEN\>/pen/" -e 's/^[- ]//' -e 's/+[0-9]*\.[0-9]*s//' \
            -e 's/ group[0-9]* / /' -e 's/[[:space:]][[:space:]]*/ /g' -e 's/ $//' "$OUT/$mode.raw" > /tmp/li
        [ "$mode" = android2.3 ] && mv /tmp/li "$OUT/$mode.libinput" ||
            { echo "# libinput events"; cat /tmp/li; } >> "$OUT/$mode.txt"
        stop_controller "$mode"
    done

    # The README's install: rule, the unit's commands, a re-plug, the screen's size in the hwdb.
    cp /bed/platform/linux/70-tavrine.rules /usr/lib/udev/rules.d/ && udevadm control --reload
    run_unit() {  # the unit's $1= command lines, without their prefix characters
        sed -n "s/^$1=[-+!@:]*//p" /bed/platform/linux/tavrined.service.in | while read -r cmd; do
            sh -c "$cmd" || step "unit $1 failed: $cmd"
        done
    }
    screens() {  # "# $1", then the touch and tablet devices libinput would use once udev settled
        udevadm settle && echo "# $1"
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
        sim_do unplug && wait_until '! has_input "Morvel Touch Controller"' 50 && sim_do plug
        wait_until '[ "$(grep -c "Setup Done" "$(daemon_log)")" = 2 ]' 300 && both_up &&
            step "install: set up again after the re-plug"
        screens "the controller unplugged and plugged again"
        # 480 x 270 mm: 4 units/mm with ResolX 1919, ResolY 1079.
        sed 's/=::[0-9]*$/=::4/' /bed/platform/linux/61-tavrine-screen.hwdb > /etc/udev/hwdb.d/61-tavrine-screen.hwdb
        systemd-hwdb update && udevadm control --reload
        rm -f /data/Tavrine_* && start_daemon
        wait_until 'logged "Device[/dev/hidraw0] Setup Done"' 300 && both_up &&
            step "install: set up again with the screen's size in the hwdb"
        screens "the screen's size set in the hwdb, daemon restarted"
        run_unit ExecStopPost
        screens "after the unit's stop commands"
    } > "$OUT/install.screens"
    stop_controller install
    kill "$(pidof systemd-udevd)" && sleep 0.2 && umount /run
    rm -f /usr/lib/udev/rules.d/70-tavrine.rules /etc/udev/hwdb.d/61-tavrine-screen.hwdb && systemd-hwdb update
}

# A USB session replayed from the daemon's log: the same events, set-up and tool answer.
replay_log() {
    local devices="MorvelTouch_VirtualDevice MorvelTouch_VirtualPen" tool="--usb raw 03 01 41" tag dev
    session() {  # TAG SCRIPT END_NOTE: controller, recorders, daemon; the log kept as TAG.log
        local recs=""
        start_sim "$2" && mv "$OUT/sim.log" "$OUT/$1-sim.log"
        for dev in $devices; do start_evrec "$dev" "$1-$dev.trace" --wait-ms 60000; recs="$recs $EVREC_PID"; done
        case_settings android=9 bits=7fffff  # slots need an Android release above 3
        start_daemon && wait_setup 400 || step "$1: set-up not done"
        [ "$1" = usb ] && tavrinectl $tool > "$OUT/$1-tool.txt" 2>&1  # starts the session
        wait_until "grep -q '$3' '$OUT/$1-sim.log'" 300 || step "$1: not played to its end"
        sleep 0.5 && for dev in $recs; do stop_pid "$dev"; done
        [ "$1" = usb ] || tavrinectl $tool > "$OUT/$1-tool.txt" 2>&1
        cp "$(daemon_log)" "$OUT/$1.log"
        TavrineD -k > /dev/null 2>&1 && wait_until '[ "$(daemon_count)" = 0 ]' 50
        stop_pid "$SIM_PID"; rm -rf /data/*
    }
    session usb usb.scn "note session done"
    tavrine-sim --from-log "$OUT/usb.log" --dump > "$OUT/usb-replay.scn" 2> "$OUT/usb-replay.txt"
    session usb-replay "$OUT/usb-replay.scn" "note replay done"
    for tag in usb usb-replay; do  # the same outcome and answer in both runs
        grep -E "Type:.*Model|AllocateSeries|EventType =" "$OUT/$tag.log" | sed "s/^\[[^]]*\]-: [^ ]* /$tag: /" >> "$OUT/steps.txt"
        step "$tag: tool answer: $(cat "$OUT/$tag-tool.txt")"
    done
    for dev in $devices; do
        for tag in usb usb-replay; do
            sed -E -e 's/^E: [0-9]+\.[0-9]+ /E: /' -e '/^# end:/d' "$OUT/$tag-$dev.trace" > "/tmp/$tag.nt"
        done
        diff -u /tmp/usb.nt /tmp/usb-replay.nt > "$OUT/usb-$dev.diff" &&
            step "usb $dev: replay the same event for event ($(grep -cE '^E:.*(ABS_MT_TRACKING_ID|BTN_TOUCH)' /tmp/usb.nt) tracking or touch events in each)" ||
            step "usb $dev: replay differs (see usb-$dev.diff)"
    done
}
