# The daemon on USB as on Android 9 (a getprop stand-in answering 9 first on its PATH), for
# the benchmarks of bench/vm (sourced by their run.sh).
. /bed/lib.sh
mkdir -p /tmp/touchbin
printf '#!/bin/sh\necho 9\n' > /tmp/touchbin/getprop
chmod 755 /tmp/touchbin/getprop

# touch_settings BITS: USB only, debug bits BITS (hex).
touch_settings() {
    case_settings "bits=$1"
}

# touch_start SCRIPT: plugs the controller, starts the daemon and waits until its set-up is
# done and the touch device exists. Status 1 when it is not.
touch_start() {
    start_sim "$1" || return 1
    PATH=/tmp/touchbin:$PATH TavrineD -f > "$OUT/start.out" 2>&1
    wait_until 'logged "Device[/dev/hidraw0] Setup Done"' 300 && wait_until 'has_input MorvelTouch_VirtualDevice' 50
}

# touch_record FILE [ARGS]: records the touch device into $OUT/FILE with the protocol check
# on; returns once the recorder has the device open.
touch_record() {
    local file=$1
    shift
    rm -f /tmp/touch.evrec.ready
    start_evrec MorvelTouch_VirtualDevice "$file" --check --ready /tmp/touch.evrec.ready "$@"
    wait_until '[ -e /tmp/touch.evrec.ready ]' 50
}

# touch_go: releases the script's touch steps, which wait for the marker packet 03 01 7e.
touch_go() {
    printf '\003\001\176' > /dev/hidraw0
}
