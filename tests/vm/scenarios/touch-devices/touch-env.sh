# Shared by the touch-* scenarios (sourced by their run.sh): settings, a
# getprop stand-in, the simulated controller and the daemon.
. /bed/lib.sh

has_input() { grep -q "^N: Name=\"$1\"$" /proc/bus/input/devices; }
daemon_log() { ls /data/Tavrine_*.log 2>/dev/null | head -n 1; }

# The touch-* scenarios check the devices and streams of an Android release
# above 3; the guest has no getprop, so one answering "9" is put first on the
# daemon's PATH (without it the daemon takes the system for plain Linux).
mkdir -p /tmp/touchbin
printf '#!/bin/sh\necho 9\n' > /tmp/touchbin/getprop
chmod 755 /tmp/touchbin/getprop

# touch_settings BITS [KEY VALUE]...: /data/TavrineA.ini scanning USB only,
# debug bits BITS (hex), log to the file only, and a [Device_No.0] block
# holding the given pairs.
touch_settings() {
    local bits=$1
    shift
    {
        printf '[TavrineA.ini]\nDebugEnableBits %s\nShowDebugPosition 0\nDeviceNums 1\nScanInterface 1\n' "$bits"
        printf '[String]\nSerialPath default\n\n[Device_No.0]\n'
        while [ $# -ge 2 ]; do printf '%s %s\n' "$1" "$2"; shift 2; done
        printf 'VKEYReportMod 1\n[EndOfDevice]\n[EndOfFile]'
    } > /data/TavrineA.ini
}

# touch_start SCRIPT: plugs the controller, starts the daemon and waits until
# its set-up is done and the touch device exists. Status 1 when it is not.
touch_start() {
    start_sim "$1" || return 1
    PATH=/tmp/touchbin:$PATH TavrineD -f > "$OUT/start.out" 2>&1
    wait_until 'grep -q "Device\[/dev/hidraw0\] Setup Done" "$(daemon_log)" 2>/dev/null' 300 &&
        wait_until 'has_input MorvelTouch_VirtualDevice' 50
}

# touch_record FILE [ARGS]: records the touch device into $OUT/FILE with the
# protocol check on, and returns once the recorder has the device open.
touch_record() {
    local file=$1
    shift
    rm -f /tmp/touch.evrec.ready
    start_evrec MorvelTouch_VirtualDevice "$file" --check --ready /tmp/touch.evrec.ready "$@"
    wait_until '[ -e /tmp/touch.evrec.ready ]' 50
}

# touch_go: releases the simulator's touch steps, which wait for the
# marker packet 03 01 7e written to the controller.
touch_go() {
    printf '\003\001\176' > /dev/hidraw0
}

# touch_tap_check NAME: one finger goes down at (1000, 2000) and lifts while
# the touch device is recorded into $OUT/NAME.trace with the protocol check
# on; steps the check's status and writes the events to $OUT/NAME.events.
touch_tap_check() {
    touch_record "$1.trace" --idle-ms 1000
    sim_do send 06 01 01 00 e8 03 d0 07
    sleep 0.2
    sim_do send 06 01 00 00 e8 03 d0 07
    wait "$EVREC_PID"
    step "protocol check status $?"
    touch_events "$OUT/$1.trace" "$OUT/$1.events"
}

# touch_events IN OUT: the events of trace IN as "<code name> <value>"
# lines, a frame ending with a "SYN_REPORT" line (no times, no header).
touch_events() {
    # Values are printed "%04d"; busybox awk would read "0500" as octal, so
    # the leading zeros are cut as text.
    awk '/^E:/ { name = (NF >= 7) ? $NF : $3 " " $4
                 v = $5; sign = ""
                 if (substr(v, 1, 1) == "-") { sign = "-"; v = substr(v, 2) }
                 sub(/^0+/, "", v)
                 if (v == "") v = "0"
                 if (name == "SYN_REPORT") print name; else print name, sign v }' "$1" > "$2"
}
