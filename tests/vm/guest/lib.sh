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

# True when /data/TouchPID is exactly "<pid> " padded with NUL to 10 bytes.
pid_file_well_formed() {
    local pid pad
    pid=$(pid_file_pid)
    [ -n "$pid" ] || return 1
    pad=$((10 - ${#pid} - 1))
    [ "$pad" -ge 0 ] || return 1
    { printf '%s ' "$pid"; head -c "$pad" /dev/zero; } | cmp -s - /data/TouchPID
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
