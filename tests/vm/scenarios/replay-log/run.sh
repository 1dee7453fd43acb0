# Field-log replay, one case per port kind: a session is recorded in the daemon's debug log
# (every category on), then played back with tavrine-sim --from-log into a fresh daemon.
# Both runs' evdev traces must be the same event for event (times aside), set-up must reach
# the same outcome, and the tool's command must get the same answer from the replay.
#
# Case table: name, ScanInterface, SerialPath, session script, recorded devices, tool command.
. /bed/lib.sh
. ../cmd-common/cmd.sh

CASES='usb 1 default usb.scn MorvelTouch_VirtualDevice,MorvelTouch_VirtualPen --usb raw 03 01 41
rs232 2 /dev/ttyTAV0 rs232.scn MorvelTouch_VirtualDevice --serial raw 0a 01 41'

# The daemon registers ABS_MT_SLOT only on an Android release above 3; the guest has no
# getprop, so one answering "9" goes first on its PATH.
mkdir -p /tmp/replaybin
printf '#!/bin/sh\necho 9\n' > /tmp/replaybin/getprop
chmod 755 /tmp/replaybin/getprop

# Starts one recorder per device named in $2 (comma-separated) into $OUT/$1-<device>.trace.
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

# Starts the daemon with every log category on, for case $1 (ScanInterface $2, SerialPath $3).
start_daemon() {
    write_settings "$2" "$3"
    sed -i 's/^DebugEnableBits 1$/DebugEnableBits 7fffff/' /data/TavrineA.ini
    PATH=/tmp/replaybin:$PATH TavrineD -f > "$OUT/$1-start.out" 2>&1
}

# Ends a run: the daemon and the simulator are stopped and /data is emptied.
end_run() {
    TavrineD -k > /dev/null 2>&1
    wait_until '[ "$(daemon_count)" = 0 ]' 50
    stop_pid "$SIM_PID"
    rm -rf /data/*
}

# Prints the times in ms of the reports (reads that are no replies) in daemon log $1.
read_times() {
    grep 'Read from device' "$1" | grep -v 'byte: \[0[3A]\]' |
        sed 's/^\[\([0-9]*\):\([0-9]*\):\([0-9]*\):\([0-9]*\)\].*/\1 \2 \3 \4/' |
        awk '{ print (($1 * 60 + $2) * 60 + $3) * 1000 + $4 }'
}

# Prints the times in ms of the reports sent in simulator log $1 (tx lines but replies).
sent_times() {
    awk '$2 == "tx" && $3 != "03" && $3 != "0a" { printf "%d\n", $1 * 1000 }' "$1"
}

# True when the replay (simulator log $2) sent the reports at the offsets from the first
# one at which the recorded daemon read them (daemon log $1), each within $3 ms (the guest's
# one CPU delays a send now and then). The largest difference is printed.
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

# Prints set-up's outcome from log $1: identification, series and event protocol.
setup_outcome() {
    grep -E "Type:.*Model|AllocateSeries|EventType =" "$1" | sed 's/^\[[^]]*\]-: [^ ]* //'
}

echo "$CASES" | while read -r name scan path script devices tool; do
    # The recorded session.
    start_sim "$script"
    mv "$OUT/sim.log" "$OUT/$name-sim.log"
    start_recorders "$name" "$devices"
    start_daemon "$name" "$scan" "$path"
    cmd_wait_setup 400 || step "$name: recorded session: set-up not done"
    tavrinectl $tool > "$OUT/$name-tool.txt" 2>&1
    wait_until 'grep -q "note session done" "$OUT/$name-sim.log"' 300 ||
        step "$name: recorded session: not played"
    sleep 0.5
    stop_recorders
    cp "$(cmd_log)" "$OUT/$name.log"
    end_run

    # The replay into a fresh daemon.
    rm -f /tmp/replay.ready
    tavrine-sim --from-log "$OUT/$name.log" --log "$OUT/$name-replay-sim.log" \
        --ready /tmp/replay.ready 2> "$OUT/$name-replay.txt" &
    SIM_PID=$!
    wait_until '[ -e /tmp/replay.ready ]' 50
    start_recorders "$name-replay" "$devices"
    start_daemon "$name-replay" "$scan" "$path"
    cmd_wait_setup 400 || step "$name: replay: set-up not done"
    wait_until 'grep -q "note replay done" "$OUT/$name-replay-sim.log"' 300 ||
        step "$name: replay: not played to its end"
    sleep 0.5
    stop_recorders
    tavrinectl $tool > "$OUT/$name-replay-tool.txt" 2>&1
    cp "$(cmd_log)" "$OUT/$name-replay.log"
    end_run

    # The comparisons.
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
