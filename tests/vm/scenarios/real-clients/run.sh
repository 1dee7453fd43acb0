# Real clients of the daemon's devices: libinput through udev.
. /bed/lib.sh

# udevd with Debian's rules and hwdb, libinput reading two fingers, a far-corner tap and a pen
# stroke, on plain Linux (no getprop), Android 2.3 and 9: per mode (<mode>.txt) udev's
# properties, the evdev description, the touch events (protocol check on) and libinput's
# events. On 2.3 libinput (through mtdev) takes the multi-sync stream's lifts late, so its
# record there is kept apart, not compared. Then the README's Linux install: libinput sees
# the controller's own hid-multitouch node only without the unit's marker, one touch and one
# tablet device with it (also after a re-plug), and the hwdb's screen size.
libinput_modes() {
    # mode        release (- : no getprop at all)
    MODES="linux -
    android2.3 2.3
    android9 9"

    event_of() {
        grep -l "^$1\$" /sys/class/input/event*/device/name 2>/dev/null | sed 's|^/sys/class/input/\(event[0-9]*\)/.*|\1|'
    }

    mkdir -p /run
    mount -t tmpfs run /run
    /lib/systemd/systemd-udevd --daemon > "$OUT/udevd.out" 2>&1
    udevadm trigger --action=add && udevadm settle
    pidof systemd-udevd > /dev/null && step "systemd-udevd runs"

    # start_controller MODE RELEASE ('-': no getprop at all): controller, daemon, set-up.
    start_controller() {
        rm -f /data/Tavrine_* /data/TouchPID /tmp/sim.ready /tmp/bed.sim.ctl
        printf '[TavrineA.ini]\nDebugEnableBits 3\nShowDebugPosition 0\nDeviceNums 1\nScanInterface 1\n[String]\nSerialPath default\n\n[Device_No.0]\nResolX 1919\nResolY 1079\n[EndOfDevice]\n[EndOfFile]' \
            > /data/TavrineA.ini
        tavrine-sim libinput.scn --log "$OUT/$1.sim.log" --ready /tmp/sim.ready --control /tmp/bed.sim.ctl &
        SIM_PID=$!
        wait_until '[ -e /tmp/sim.ready ]' 50 || return 1
        if [ "$2" = - ]; then
            command -v getprop > /dev/null && return 1
            TavrineD -f > /dev/null 2>&1
        else
            mkdir -p "/tmp/$1"
            printf '#!/bin/sh\necho %s\n' "$2" > "/tmp/$1/getprop"
            chmod 755 "/tmp/$1/getprop"
            PATH=/tmp/$1:$PATH TavrineD -f > /dev/null 2>&1
        fi
        wait_until 'grep -q "Device\[/dev/hidraw0\] Setup Done" "$(daemon_log)" 2>/dev/null' 300 &&
            wait_until 'has_input MorvelTouch_VirtualDevice && has_input MorvelTouch_VirtualPen' 50 &&
            udevadm settle
    }

    stop_controller() {
        TavrineD -k > /dev/null 2>&1
        kill "$SIM_PID" 2>/dev/null
        wait "$SIM_PID" 2>/dev/null
        wait_until '! has_input MorvelTouch_VirtualDevice' 50
        udevadm settle
    }

    # libinput's events as "<role> <event> <details>": no times, no device groups.
    normalize() {
        sed -e "s/\<$TOUCH\>/touch/; s/\<$PEN\>/pen/" -e 's/^[- ]//' -e 's/+[0-9]*\.[0-9]*s//' \
            -e 's/ group[0-9]* / /' -e 's/[[:space:]][[:space:]]*/ /g' -e 's/ $//' "$1"
    }

    echo "$MODES" | while read -r mode release; do
        start_controller "$mode" "$release" && step "$mode: set-up done" || step "$mode: set-up not done"
        grep -o 'Android Version: [0-9.]*\|Get Android Version failed' "$(daemon_log)" | head -n 1 |
            sed "s/^/$mode: /" >> "$OUT/steps.txt"
        TOUCH=$(event_of MorvelTouch_VirtualDevice)
        PEN=$(event_of MorvelTouch_VirtualPen)
        {
            echo "# udev properties"
            for role in touch pen; do
                node=$TOUCH
                [ $role = pen ] && node=$PEN
                udevadm info --query=property --name="/dev/input/$node" | grep '^ID_INPUT' | sed "s/^/$role /"
            done
            echo "# evdev devices (event types, axes: min max fuzz flat resolution)"
            for name in MorvelTouch_VirtualDevice MorvelTouch_VirtualPen; do
                tavrine-evrec record --name "$name" --out /tmp/dev.trace --duration-ms 200
                grep '^[NAP]:\|^B: 00' /tmp/dev.trace
            done
        } > "$OUT/$mode.txt"

        rm -f /tmp/touch.ready /tmp/pen.ready
        tavrine-evrec record --name MorvelTouch_VirtualDevice --out "$OUT/$mode.touch.trace" --check \
            --idle-ms 3000 --ready /tmp/touch.ready &
        TOUCH_REC=$!
        tavrine-evrec record --name MorvelTouch_VirtualPen --out /tmp/pen.trace --idle-ms 3000 \
            --ready /tmp/pen.ready &
        PEN_REC=$!
        wait_until '[ -e /tmp/touch.ready ] && [ -e /tmp/pen.ready ]' 50
        /usr/libexec/libinput/libinput-debug-events --device "/dev/input/$TOUCH" --device "/dev/input/$PEN" \
            > "$OUT/$mode.raw" 2>&1 &
        LI_PID=$!
        sleep 2   # its output is buffered: give it time to add both devices
        printf '\003\001\176' > /dev/hidraw0
        wait_until "grep -q 'gesture done' '$OUT/$mode.sim.log'" 200 || step "$mode: gesture not played"
        kill -INT "$LI_PID"
        wait "$LI_PID"
        step "$mode: libinput debug-events status $?"
        grep -qi 'bug\|error\|warn' "$OUT/$mode.raw" && step "$mode: libinput complained"
        wait "$TOUCH_REC"
        step "$mode: touch protocol check status $?"
        touch_events "$OUT/$mode.touch.trace" /tmp/touch.events
        {
            echo "# touch device events"
            cat /tmp/touch.events
            if [ "$mode" = android2.3 ]; then
                normalize "$OUT/$mode.raw" > "$OUT/$mode.libinput"
            else
                echo "# libinput events"
                normalize "$OUT/$mode.raw"
            fi
        } >> "$OUT/$mode.txt"
        wait "$PEN_REC"
        step "$mode: pen events $(grep -c '^E:' /tmp/pen.trace)"
        stop_controller
    done

    # The rule where `cmake --install` puts it, the daemon as the unit starts it.
    mkdir -p /usr/lib/udev/rules.d
    cp /bed/platform/linux/70-tavrine.rules /usr/lib/udev/rules.d/
    udevadm control --reload
    unit=/bed/platform/linux/tavrined.service.in
    run_unit() {  # the unit's $1= command lines, without their prefix characters
        sed -n "s/^$1=[-+!@:]*//p" "$unit" | while read -r cmd; do
            sh -c "$cmd" || step "unit $1 failed: $cmd"
        done
        udevadm settle
    }
    # Touch and tablet devices that libinput would use, as "<name>: <capabilities> <size>".
    libinput_screens() {
        /usr/libexec/libinput/libinput-list-devices 2>&1 |
            awk '/^Device:/ { sub(/^Device: */, ""); name = $0; size = "" }
                 /^Size:/ { size = " " $2 }
                 /^Capabilities:/ { sub(/^Capabilities: */, ""); sub(/ *$/, "")
                                    if ($0 ~ /touch|tablet/) print name ": " $0 size }'
    }

    start_controller install - && step "install: set-up done" || step "install: set-up not done"
    {
        echo "# without the marker"
        libinput_screens
        run_unit ExecStartPost
        echo "# after the unit's start commands"
        libinput_screens
        sim_do unplug
        wait_until '! has_input "Morvel Touch Controller"' 50
        sim_do plug
        wait_until 'has_input "Morvel Touch Controller"' 50 &&
            wait_until '[ "$(grep -c "Setup Done" "$(daemon_log)")" = 2 ]' 300 &&
            wait_until 'has_input MorvelTouch_VirtualDevice && has_input MorvelTouch_VirtualPen' 50 &&
            step "install: set up again after the re-plug"
        udevadm settle
        echo "# the controller unplugged and plugged again"
        libinput_screens
        # 480 x 270 mm in the hwdb as the README says: 4 units/mm with ResolX 1919, ResolY 1079.
        mkdir -p /etc/udev/hwdb.d
        sed 's/=::[0-9]*$/=::4/' /bed/platform/linux/61-tavrine-screen.hwdb > /etc/udev/hwdb.d/61-tavrine-screen.hwdb
        systemd-hwdb update && udevadm control --reload
        rm -f /data/Tavrine_*
        TavrineD -f > /dev/null 2>&1
        wait_until 'grep -q "Device\[/dev/hidraw0\] Setup Done" "$(daemon_log)" 2>/dev/null' 300 &&
            wait_until 'has_input MorvelTouch_VirtualDevice && has_input MorvelTouch_VirtualPen' 50 &&
            step "install: set up again with the screen's size in the hwdb"
        udevadm settle
        echo "# the screen's size set in the hwdb, daemon restarted"
        libinput_screens
        run_unit ExecStopPost
        echo "# after the unit's stop commands"
        libinput_screens
    } > "$OUT/install.screens"
    stop_controller
    kill "$(pidof systemd-udevd)" 2>/dev/null
    sleep 0.2
    umount /run
    rm -f /usr/lib/udev/rules.d/70-tavrine.rules /etc/udev/hwdb.d/61-tavrine-screen.hwdb
    systemd-hwdb update
}

# A USB and an RS232 session recorded in the daemon's log, replayed by tavrine-sim --from-log
# into a fresh daemon: the same events (times aside), set-up outcome, report spacing and tool
# answer. Table: name, ScanInterface, SerialPath, script, recorded devices, tool command.
replay_log() {
    CASES='usb 1 default usb.scn MorvelTouch_VirtualDevice,MorvelTouch_VirtualPen --usb raw 03 01 41
    rs232 2 /dev/ttyTAV0 rs232.scn MorvelTouch_VirtualDevice --serial raw 0a 01 41'

    case_settings android=9  # slots need an Android release above 3
    # One recorder per device of $2 (comma-separated) into $OUT/$1-<device>.trace.
    start_recorders() {
        RECORDERS=""
        for dev in $(echo "$2" | tr ',' ' '); do
            start_evrec "$dev" "$1-$dev.trace" --wait-ms 60000
            RECORDERS="$RECORDERS $EVREC_PID"
        done
    }

    stop_recorders() {
        for pid in $RECORDERS; do stop_pid "$pid"; done
    }

    start_replay_daemon() {  # NAME SCAN SERIALPATH, every log category on
        write_settings "$2" "$3"
        sed -i 's/^DebugEnableBits 1$/DebugEnableBits 7fffff/' /data/TavrineA.ini
        PATH=/tmp/bin:$PATH TavrineD -f > "$OUT/$1-start.out" 2>&1
    }
    end_run() {
        TavrineD -k > /dev/null 2>&1
        wait_until '[ "$(daemon_count)" = 0 ]' 50
        stop_pid "$SIM_PID"
        rm -rf /data/*
    }

    # Times in ms of the reports (no replies) read in daemon log $1 and sent in sim log $1.
    read_times() {
        grep 'Read from device' "$1" | grep -v 'byte: \[0[3A]\]' |
            sed 's/^\[\([0-9]*\):\([0-9]*\):\([0-9]*\):\([0-9]*\)\].*/\1 \2 \3 \4/' |
            awk '{ print (($1 * 60 + $2) * 60 + $3) * 1000 + $4 }'
    }

    sent_times() {
        awk '$2 == "tx" && $3 != "03" && $3 != "0a" { printf "%d\n", $1 * 1000 }' "$1"
    }

    # True when the replay (sim log $2) sent each report at the offset the recorded daemon
    # (log $1) read it, within $3 ms (the guest's one CPU delays a send now and then).
    spacing_kept() {
        read_times "$1" > /tmp/times.rec
        sent_times "$2" > /tmp/times.rep
        [ -s /tmp/times.rec ] && [ "$(wc -l < /tmp/times.rec)" = "$(wc -l < /tmp/times.rep)" ] ||
            return 1
        paste /tmp/times.rec /tmp/times.rep | awk -v tol="$3" '
            NR == 1 { f1 = $1; f2 = $2 }
            { d = ($1 - f1) - ($2 - f2); if (d < 0) d = -d; if (d > max) max = d }
            END { print "largest difference of offsets: " max + 0 " ms"; exit max > tol }'
    }

    setup_outcome() {
        grep -E "Type:.*Model|AllocateSeries|EventType =" "$1" | sed 's/^\[[^]]*\]-: [^ ]* //'
    }

    echo "$CASES" | while read -r name scan path script devices tool; do
        start_sim "$script"
        mv "$OUT/sim.log" "$OUT/$name-sim.log"
        start_recorders "$name" "$devices"
        start_replay_daemon "$name" "$scan" "$path"
        wait_setup 400 || step "$name: recorded session: set-up not done"
        tavrinectl $tool > "$OUT/$name-tool.txt" 2>&1
        wait_until 'grep -q "note session done" "$OUT/$name-sim.log"' 300 ||
            step "$name: recorded session: not played"
        sleep 0.5
        stop_recorders
        cp "$(daemon_log)" "$OUT/$name.log"
        end_run

        rm -f /tmp/replay.ready
        tavrine-sim --from-log "$OUT/$name.log" --log "$OUT/$name-replay-sim.log" \
            --ready /tmp/replay.ready 2> "$OUT/$name-replay.txt" &
        SIM_PID=$!
        wait_until '[ -e /tmp/replay.ready ]' 50
        start_recorders "$name-replay" "$devices"
        start_replay_daemon "$name-replay" "$scan" "$path"
        wait_setup 400 || step "$name: replay: set-up not done"
        wait_until 'grep -q "note replay done" "$OUT/$name-replay-sim.log"' 300 ||
            step "$name: replay: not played to its end"
        sleep 0.5
        stop_recorders
        tavrinectl $tool > "$OUT/$name-replay-tool.txt" 2>&1
        cp "$(daemon_log)" "$OUT/$name-replay.log"
        end_run

        setup_outcome "$OUT/$name.log" > /tmp/outcome.rec
        setup_outcome "$OUT/$name-replay.log" > /tmp/outcome.rep
        cmp -s /tmp/outcome.rec /tmp/outcome.rep && step "$name: set-up outcome the same:" ||
            step "$name: set-up outcome differs:"
        sed "s/^/$name:   /" /tmp/outcome.rep >> "$OUT/steps.txt"
        for dev in $(echo "$devices" | tr ',' ' '); do
            rec=$OUT/$name-$dev.trace
            rep=$OUT/$name-replay-$dev.trace
            tavrine-evrec check "$rec" > /dev/null 2>&1 || step "$name $dev: recorded trace fails the check"
            down=$(grep -cE '^E:.*(ABS_MT_TRACKING_ID|BTN_TOUCH)' "$rec")
            strip_times "$rec" /tmp/rec.nt
            strip_times "$rep" /tmp/rep.nt
            sed -i '/^# end:/d' /tmp/rec.nt /tmp/rep.nt
            if diff -u /tmp/rec.nt /tmp/rep.nt > "$OUT/$name-$dev.diff"; then
                step "$name $dev: replay the same event for event ($down tracking or touch events in each)"
            else
                step "$name $dev: replay differs (see $name-$dev.diff)"
            fi
        done
        spacing_kept "$OUT/$name.log" "$OUT/$name-replay-sim.log" 75 > "$OUT/$name-spacing.txt" &&
            step "$name: reports sent with the recorded spacing (each within 75 ms)" ||
            step "$name: reports not sent with the recorded spacing ($(cat "$OUT/$name-spacing.txt"))"
        [ "$(cat "$OUT/$name-tool.txt")" = "$(cat "$OUT/$name-replay-tool.txt")" ] &&
            step "$name: tool answer the same: $(cat "$OUT/$name-replay-tool.txt")" ||
            step "$name: tool answer differs: $(cat "$OUT/$name-tool.txt") / $(cat "$OUT/$name-replay-tool.txt")"
    done
}

play_case
