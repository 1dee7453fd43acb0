# Shared steps of the controller-command scenarios (cmd-*), sourced after
# /bed/lib.sh. The daemon scans USB only, logs every category to /data and
# is started afresh with -f; the simulator's record tells what it sent.

# Writes the settings file (USB only, all log categories) and starts the
# daemon; the output of the start goes to $OUT/start-$1.out.
cmd_start_daemon() {
    write_settings 1
    sed -i 's/^DebugEnableBits 1$/DebugEnableBits fffffff/' /data/TavrineA.ini
    TavrineD -f > "$OUT/start-$1.out" 2>&1
}

# The daemon's log file (one per hour of the day; none before it logs).
cmd_log() {
    ls /data/Tavrine_*.log 2>/dev/null | head -n 1
}

# True when the daemon's log has a line containing the fixed text $1.
cmd_logged() {
    local log
    log=$(cmd_log)
    [ -n "$log" ] && grep -qF -- "$1" "$log"
}

# Waits up to $1 tenths of a second for the end of set-up.
cmd_wait_setup() {
    wait_until 'cmd_logged "Setup Done -----------------"' "$1"
}

# Prints the packets the controller received, one a line, from sim log $1.
cmd_received() {
    sed -n 's/^[0-9.]* rx //p' "$1"
}

# Prints the milliseconds of the day of the first log line holding text $1
# (lines start "[hh:mm:ss:mmm]-: ").
cmd_log_ms() {
    grep -F -- "$1" "$(cmd_log)" | head -n 1 |
        sed -n 's/^\[\([0-9]*\):\([0-9]*\):\([0-9]*\):\([0-9]*\)\].*/\1 \2 \3 \4/p' |
        awk '{ print (($1 * 60 + $2) * 60 + $3) * 1000 + $4 }'
}

# Prints the set-up time in milliseconds: from the log line that reports the
# node found to the "Setup Done" line.
cmd_setup_ms() {
    local found done
    found=$(cmd_log_ms "Found an QEVO Device at port [/dev/hidraw0]")
    done=$(cmd_log_ms "Setup Done -----------------")
    [ -n "$found" ] && [ -n "$done" ] && echo $((done - found))
}

# Records the touch device while one finger touches (2048, 2048) in a 0x06
# parallel report and lifts; writes the events without times to $OUT/$1.
cmd_touch_once() {
    rm -f /tmp/cmd.evrec.ready
    start_evrec MorvelTouch_VirtualDevice "$1.trace" --wait-ms 3000 --idle-ms 1500 --check --ready /tmp/cmd.evrec.ready
    wait_until '[ -e /tmp/cmd.evrec.ready ]' 50
    sim_do send 06 01 01 00 00 08 00 08
    sleep 0.2
    sim_do send 06 01 00 00 00 08 00 08
    wait "$EVREC_PID"
    step "touch recorder status: $?"
    grep '^E:' "$OUT/$1.trace" | sed -E 's/^E: [0-9]+\.[0-9]+ //' > "$OUT/$1"
}

# Stops the daemon and the simulator and keeps their records under the
# name $1 (sim-$1.log, daemon-$1.log); /data is emptied for the next round.
# (The log is copied first: a start with -k begins a new log file.)
cmd_end_round() {
    cp "$(cmd_log)" "$OUT/daemon-$1.log" 2>/dev/null
    TavrineD -k > /dev/null 2>&1
    wait_until '[ "$(daemon_count)" = 0 ]' 50
    stop_pid "$SIM_PID"
    mv "$OUT/sim.log" "$OUT/sim-$1.log"
    rm -rf /data/*
}
