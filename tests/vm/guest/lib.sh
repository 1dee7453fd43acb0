# Helpers for run.sh in the VM; OUT, sent back to the host, holds the transcript steps.txt.
step() { echo "$*" >> "$OUT/steps.txt"; }

# Pids of live (not zombie) processes named TavrineD.
daemon_pids() {
    local s
    for s in /proc/[0-9]*/status; do
        grep -qx 'Name:[[:space:]]*TavrineD' "$s" 2> /dev/null && ! grep -q '^State:[[:space:]]*Z' "$s" 2> /dev/null &&
            { s=${s%/status}; echo "${s#/proc/}"; }
    done
}
daemon_count() { daemon_pids | wc -l | tr -d ' '; }
is_daemon() { daemon_pids | grep -qx "$1"; }
pid_file_pid() { [ -f /data/TouchPID ] && tr -d '\000' < /data/TouchPID | tr -d ' '; }

# wait_until CMD TENTHS: waits up to TENTHS tenths of a second for CMD to succeed.
wait_until() {
    local tries=$2
    while ! eval "$1"; do
        tries=$((tries - 1))
        [ "$tries" -le 0 ] && return 1
        sleep 0.1
    done
}

# start_sim SCRIPT: a simulator (SIM_PID, log $OUT/sim.log) that sim_do ACTION drives.
start_sim() {
    rm -f /tmp/bed.sim.ready /tmp/bed.sim.ctl
    tavrine-sim "$1" --log "$OUT/sim.log" --ready /tmp/bed.sim.ready --control /tmp/bed.sim.ctl &
    SIM_PID=$!
    wait_until '[ -e /tmp/bed.sim.ready ]' 50
}
sim_do() { timeout 2 sh -c 'echo "$1" > /tmp/bed.sim.ctl' sh "$*"; }

# start_evrec NAME FILE [ARGS]: records input device NAME into $OUT/FILE (EVREC_PID).
start_evrec() {
    local name=$1 file=$2
    shift 2
    tavrine-evrec record --name "$name" --out "$OUT/$file" "$@" &
    EVREC_PID=$!
}
# rec_ready FILE [ARGS]: records the touch device once the recorder is ready.
rec_ready() {
    rm -f /tmp/rec.ready
    start_evrec MorvelTouch_VirtualDevice "$@" --ready /tmp/rec.ready
    wait_until '[ -e /tmp/rec.ready ]' 80
}

stop_pid() { kill -TERM "$1" 2> /dev/null; wait "$1"; }
has_input() { grep -q "^N: Name=\"$1\"$" /proc/bus/input/devices; }

# The daemon's log file (none before it logs) and whether it holds the fixed text $1.
daemon_log() { ls /data/Tavrine_*.log 2> /dev/null | head -n 1; }
logged() { [ -n "$(daemon_log)" ] && grep -qF -- "$1" "$(daemon_log)"; }
wait_setup() { wait_until 'logged "Setup Done -----------------"' "$1"; }

# The daemon with -f, the getprop stand-in of case_settings first on its PATH.
start_daemon() { PATH=/tmp/bin:$PATH TavrineD -f > "$OUT/start.out" 2>&1; }

# touch_events IN OUT: trace IN as "<code> <value>" lines (busybox awk reads "0500" as octal).
touch_events() {
    awk '/^E:/ { name = (NF >= 7) ? $NF : $3 " " $4; v = $5; sign = ""
                 if (substr(v, 1, 1) == "-") { sign = "-"; v = substr(v, 2) }
                 sub(/^0+/, "", v); if (v == "") v = "0"
                 if (name == "SYN_REPORT") print name; else print name, sign v }' "$1" > "$2"
}

# plain_events IN OUT: the "E: type code value" lines of trace IN without times and names.
plain_events() { grep "^E:" "$1" | sed -e 's/^E: [0-9.]* /E: /' -e 's/\t#.*//' > "$2"; }

# Contacts still down at the end of touch_events file $1 (slots, or else the last frame's).
contacts_down() {
    awk '$1 == "ABS_MT_SLOT" { slots = 1; s = $2 }
         $1 == "ABS_MT_TRACKING_ID" { id[s + 0] = $2 + 0; if ($2 + 0 != -1) f++ }
         $1 == "SYN_REPORT" { last = f; f = 0 }
         END { n = last + 0; if (slots) { n = 0; for (k in id) if (id[k] != -1) n++ }
               print "contacts down at the end: " n }' "$1"
}

# rec_touch IDLE_MS GO: steps the protocol check's status and contacts left down after GO.
rec_touch() {
    rec_ready touch.trace --check --wait-ms 5000 --idle-ms "$1"
    eval "$2"
    wait "$EVREC_PID"
    step "protocol check status $?"
    touch_events "$OUT/touch.trace" "$OUT/touch.events"
    step "$(contacts_down "$OUT/touch.events")"
}
# play [IDLE_MS]: the script's touch steps, released by the marker packet 03 01 7e.
play() { rec_touch "${1:-1500}" "printf '\003\001\176' > /dev/hidraw0"; }
# tap: one finger at (2048, 2048) in a 0x06 report, then lifted.
tap() { rec_touch 1500 "sim_do send 06 01 01 00 00 08 00 08; sleep 0.2; sim_do send 06 01 00 00 00 08 00 08"; }

# join_scn FILE...: one script in /tmp/case.scn, its descriptor paths made absolute.
join_scn() { cat "$@" | sed "s#^descriptor-file \.\./#descriptor-file $PWD/../#" > /tmp/case.scn; }
# Families: run.sh runs once per line of cases, the line in CASE; case_field N is its field N.
case_field() { echo "$CASE" | cut -d'|' -f"$1" | sed 's/^ *//; s/ *$//'; }

# case_settings KEY=VALUE...: /data/TavrineA.ini and a getprop in /tmp/bin (tests/vm/README.md).
case_settings() {
    local bits=1 pos=0 scan=1 nums=1 serial="" dev="" kv
    ANDROID=""
    for kv; do
        case "$kv" in
        bits=* | pos=* | scan=* | nums=*) eval "${kv%%=*}=\${kv#*=}" ;;
        serial=*) serial="${serial}SerialPath ${kv#*=}\n" ;;
        android=*) ANDROID=${kv#*=} ;;
        *) dev="$dev${kv%%=*} ${kv#*=}\n" ;;
        esac
    done
    printf "[TavrineA.ini]\nDebugEnableBits $bits\nShowDebugPosition $pos\nDeviceNums $nums\n" > /data/TavrineA.ini
    printf "ScanInterface $scan\n[String]\n${serial:-SerialPath default\n}\n" >> /data/TavrineA.ini
    printf "[Device_No.0]\n${dev:-VKEYReportMod 1\n}[EndOfDevice]\n[EndOfFile]" >> /data/TavrineA.ini
    mkdir -p /tmp/bin
    if [ -n "$ANDROID" ]; then
        printf '#!/bin/sh\necho %s\n' "$ANDROID" > /tmp/bin/getprop
        chmod 755 /tmp/bin/getprop
    fi
}

# play_case: one line of a family's cases file, as tests/vm/README.md describes.
play_case() {
    local n=0 text wrongly kernel=$(case_field 3 | tr ' ' '\n' | sed -n 's/^kernel=//p')
    case_settings $(case_field 3 | tr ' ' '\n' | grep -v '^kernel=')
    if [ "$(case_field 2)" != - ]; then
        set -- $(case_field 2)
        join_scn $(echo "$1" | tr '+' ' ')
        start_sim /tmp/case.scn || step "simulator not ready"
        shift
        for extra; do
            n=$((n + 1)); tavrine-sim "$extra" --log "$OUT/sim-$n.log" --ready "/tmp/sim-$n.ready" &
            wait_until "[ -e /tmp/sim-$n.ready ]" 50
        done
        if [ -z "$kernel" ]; then start_daemon; else
            echo "Linux version $kernel-tavrine (bed@vm) (gcc version 4.4.3) #1 SMP PREEMPT" > /tmp/version
            unshare -m sh -c 'mount --bind /tmp/version /proc/version && exec TavrineD -f' > "$OUT/start.out" 2>&1
        fi
        wait_setup 300 && step "set-up done" || step "set-up not done"
    fi
    eval "$(case_field 4)"
    case_field 5 | tr ';' '\n' | sed 's/^ *//; s/ *$//; /^$/d' | while read -r text; do
        wrongly="" && [ "${text#!}" != "$text" ] && wrongly=", wrongly"
        logged "${text#!}" && step "log has$wrongly: ${text#!}" || step "log lacks: ${text#!}"
    done
    [ -f "$OUT/sim.log" ] && sed -n 's/^[0-9.]* rx //p' "$OUT/sim.log" > "$OUT/cmds.txt"
    return 0
}
