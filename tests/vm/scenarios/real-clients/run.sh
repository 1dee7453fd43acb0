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

play_case
