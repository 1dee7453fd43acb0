# Helpers for scenario scripts, sourced by each run.sh inside the VM.
# OUT is the scenario's output folder; every file in it comes back to the
# host. steps.txt is the scenario's transcript, compared with
# expected.steps.txt when the scenario has one.

# Appends one line to the transcript.
step() {
    echo "$*" >> "$OUT/steps.txt"
}

# Writes /data/TavrineA.ini with the given ScanInterface and SerialPath.
write_settings() {
    printf '[TavrineA.ini]\nDebugEnableBits 1\nShowDebugPosition 0\nDeviceNums 1\nScanInterface %s\n[String]\nSerialPath %s\n[EndOfFile]\n' \
        "$1" "${2:-default}" > /data/TavrineA.ini
}

# Prints the pids of live (not zombie) processes named TavrineD.
daemon_pids() {
    local status pid
    for status in /proc/[0-9]*/status; do
        grep -q '^Name:[[:space:]]*TavrineD$' "$status" 2>/dev/null || continue
        grep -q '^State:[[:space:]]*Z' "$status" 2>/dev/null && continue
        pid=${status#/proc/}
        echo "${pid%/status}"
    done
}

daemon_count() {
    daemon_pids | wc -l | tr -d ' '
}

# True when pid $1 is a live process named TavrineD.
is_daemon() {
    daemon_pids | grep -qx "$1"
}

# Waits up to $2 tenths of a second for the command "$1" to succeed.
wait_until() {
    local tries=$2
    while ! eval "$1"; do
        tries=$((tries - 1))
        [ "$tries" -le 0 ] && return 1
        sleep 0.1
    done
}

# Prints the pid recorded in /data/TouchPID (empty when missing).
pid_file_pid() {
    [ -f /data/TouchPID ] && tr -d '\000' < /data/TouchPID | tr -d ' '
}

# Starts the simulator on script $1 in the background; waits for its port.
# Its log is $OUT/sim.log; its pid is in $SIM_PID; sim_do drives it.
start_sim() {
    rm -f /tmp/bed.sim.ready /tmp/bed.sim.ctl
    tavrine-sim "$1" --log "$OUT/sim.log" --ready /tmp/bed.sim.ready --control /tmp/bed.sim.ctl &
    SIM_PID=$!
    wait_until '[ -e /tmp/bed.sim.ready ]' 50
}

# Makes the simulator started by start_sim run one step action at once,
# e.g. sim_do send 06 01 01 00 00 04 00 02
sim_do() {
    timeout 2 sh -c 'echo "$1" > /tmp/bed.sim.ctl' sh "$*"
}

# Starts recording the input device named $1 into $OUT/$2 in the background
# (further arguments go to tavrine-evrec); its pid is in $EVREC_PID.
start_evrec() {
    local name=$1 file=$2
    shift 2
    tavrine-evrec record --name "$name" --out "$OUT/$file" "$@" &
    EVREC_PID=$!
}

# Stops a background process by pid and returns its exit status.
stop_pid() {
    kill -TERM "$1" 2>/dev/null
    wait "$1"
}

# Copies trace $1 to $2 without the event times, for comparisons.
strip_times() {
    sed -E 's/^E: [0-9]+\.[0-9]+ /E: /' "$1" > "$2"
}

# ---- Families: one folder whose cases file holds one case a line, fields split by '|':
# name | simulator script(s) | settings | action | log texts. The guest runs run.sh once per
# case with the line in CASE and OUT=<family out>/<name>; expected.<name>.<file> is
# compared with that case's <file>.

# Prints field $1 of this case's line, trimmed.
case_field() {
    echo "$CASE" | cut -d'|' -f"$1" | sed 's/^ *//; s/ *$//'
}

# case_settings KEY=VALUE...: writes /data/TavrineA.ini. bits (DebugEnableBits, hex), scan
# (ScanInterface), nums (DeviceNums), serial (a SerialPath line, repeatable) and android (a
# getprop answering it, put first on the daemon's PATH) are the daemon's; any other pair goes
# into the [Device_No.0] block (VKEYReportMod 1 when none is given).
case_settings() {
    local bits=1 scan=1 nums=1 serial="" dev="" kv
    ANDROID=""
    for kv; do
        case "$kv" in
        bits=*) bits=${kv#*=} ;;
        scan=*) scan=${kv#*=} ;;
        nums=*) nums=${kv#*=} ;;
        serial=*) serial="${serial}SerialPath ${kv#*=}\n" ;;
        android=*) ANDROID=${kv#*=} ;;
        *) dev="$dev${kv%%=*} ${kv#*=}\n" ;;
        esac
    done
    printf "[TavrineA.ini]\nDebugEnableBits $bits\nShowDebugPosition 0\nDeviceNums $nums\nScanInterface $scan\n[String]\n${serial:-SerialPath default\n}\n[Device_No.0]\n${dev:-VKEYReportMod 1\n}[EndOfDevice]\n[EndOfFile]" > /data/TavrineA.ini
    mkdir -p /tmp/bin
    [ -z "$ANDROID" ] || { printf '#!/bin/sh\necho %s\n' "$ANDROID" > /tmp/bin/getprop; chmod 755 /tmp/bin/getprop; }
}

# Starts the daemon with -f (output in $OUT/start.out), the getprop stand-in first on its PATH.
start_daemon() {
    PATH=/tmp/bin:$PATH TavrineD -f > "$OUT/start.out" 2>&1
}

# The daemon's log file (one per hour of the day; none before it logs).
daemon_log() {
    ls /data/Tavrine_*.log 2>/dev/null | head -n 1
}

# True when the daemon's log has a line containing the fixed text $1.
logged() {
    [ -n "$(daemon_log)" ] && grep -qF -- "$1" "$(daemon_log)"
}

# check_log 'TEXT;!TEXT;...': steps whether the log has each text (a text after '!' must
# be missing).
check_log() {
    echo "$1" | tr ';' '\n' | sed 's/^ *//; s/ *$//; /^$/d' | while read -r text; do
        case "$text" in
        '!'*) logged "${text#!}" && step "log has, wrongly: ${text#!}" || step "log lacks: ${text#!}" ;;
        *) logged "$text" && step "log has: $text" || step "log lacks: $text" ;;
        esac
    done
}

# case_script A[+B...]: the simulator script made of the given files (or, for a name
# without .scn or .steps, of what that shell function prints), in /tmp/case.scn
# (descriptor paths made absolute, as the copy is read from /tmp).
case_script() {
    echo "$1" | tr '+' '\n' | while read -r f; do
        case "$f" in *.scn | *.steps) cat "$f" ;; *) "$f" ;; esac
    done |
        sed "s#^descriptor-file \.\./#descriptor-file $PWD/../#" > /tmp/case.scn
}

# Prints the packets the controller received, one a line, from sim log $1.
sim_received() {
    sed -n 's/^[0-9.]* rx //p' "$1"
}

# Slots whose last tracking id is not -1 in events file $1 (touch_events format): contacts a
# reader still sees down.
contacts_down() {
    awk '$1 == "ABS_MT_SLOT" { s = $2 } $1 == "ABS_MT_TRACKING_ID" { id[s + 0] = $2 + 0 }
         END { n = 0; for (k in id) if (id[k] != -1) n++; print "contacts down at the end: " n }' "$1"
}

# touch_events IN OUT: the events of trace IN as "<code name> <value>" lines, a frame ending
# with a "SYN_REPORT" line (no times, no header).
touch_events() {
    # Values are printed "%04d"; busybox awk would read "0500" as octal, so the leading
    # zeros are cut as text.
    awk '/^E:/ { name = (NF >= 7) ? $NF : $3 " " $4
                 v = $5; sign = ""
                 if (substr(v, 1, 1) == "-") { sign = "-"; v = substr(v, 2) }
                 sub(/^0+/, "", v)
                 if (v == "") v = "0"
                 if (name == "SYN_REPORT") print name; else print name, sign v }' "$1" > "$2"
}

# The events of trace $1 without times and names ("E: type code value"), into $2.
plain_events() {
    grep "^E:" "$1" | sed -e 's/^E: [0-9.]* /E: /' -e 's/\t#.*//' > "$2"
}

# True when an input device named $1 exists.
has_input() {
    grep -q "^N: Name=\"$1\"$" /proc/bus/input/devices
}

# rec_touch IDLE_MS GO: records the touch device (protocol check on) while the shell command
# GO makes the controller touch; steps the check's status and the contacts left down, and
# writes the events to $OUT/touch.events.
rec_touch() {
    rm -f /tmp/rec.ready
    start_evrec MorvelTouch_VirtualDevice touch.trace --check --wait-ms 5000 --idle-ms "$1" --ready /tmp/rec.ready
    wait_until '[ -e /tmp/rec.ready ]' 80
    eval "$2"
    wait "$EVREC_PID"
    step "protocol check status $?"
    touch_events "$OUT/touch.trace" "$OUT/touch.events"
    step "$(contacts_down "$OUT/touch.events")"
}

# play [IDLE_MS]: the script's touch steps, which wait for the marker packet 03 01 7e.
play() {
    rec_touch "${1:-1500}" "printf '\003\001\176' > /dev/hidraw0"
}

# tap: one finger touches (2048, 2048) in a 0x06 report and lifts.
tap() {
    rec_touch 1500 "sim_do send 06 01 01 00 00 08 00 08; sleep 0.2; sim_do send 06 01 00 00 00 08 00 08"
}

# Waits up to $1 tenths of a second for the daemon's log to say its set-up is done.
wait_setup() {
    wait_until 'logged "Setup Done -----------------"' "$1"
}

# Plays this case as a controller case: the settings of field 3, a simulator on each script
# of field 2 (blank apart; none for '-': no simulator, no daemon), the daemon (kernel=VERSION in the settings shows it a /proc/version of
# that kernel), its set-up, the shell commands of field 4, the log texts of field 5, and the
# packets the controller received ($OUT/cmds.txt).
play_case() {
    local kernel n=0
    kernel=$(case_field 3 | tr ' ' '\n' | sed -n 's/^kernel=//p')
    case_settings $(case_field 3 | tr ' ' '\n' | grep -v '^kernel=')
    if [ "$(case_field 2)" != - ]; then
        set -- $(case_field 2)
        case_script "$1"
        start_sim /tmp/case.scn || step "simulator not ready"
        shift
        for extra; do  # more controllers: simulator logs sim-1.log, sim-2.log...
            n=$((n + 1))
            tavrine-sim "$extra" --log "$OUT/sim-$n.log" --ready "/tmp/sim-$n.ready" &
            wait_until "[ -e /tmp/sim-$n.ready ]" 50
        done
        if [ -n "$kernel" ]; then
            echo "Linux version $kernel-tavrine (bed@vm) (gcc version 4.4.3) #1 SMP PREEMPT" > /tmp/version
            unshare -m sh -c 'mount --bind /tmp/version /proc/version && exec TavrineD -f' > "$OUT/start.out" 2>&1
        else
            start_daemon
        fi
        wait_setup 300 && step "set-up done" || step "set-up not done"
    fi
    eval "$(case_field 4)"
    check_log "$(case_field 5)"
    if [ -f "$OUT/sim.log" ]; then sim_received "$OUT/sim.log" > "$OUT/cmds.txt"; fi
}
