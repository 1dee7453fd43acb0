# Idle cost and memory of the daemon (USB scanning only, debug category 0x1):
#   0 controllers: CPU per second, processes started per second (the scan
#     loop's shell commands), context switches per second, VmRSS;
#   1 idle controller (DeviceNums 1): the same; the receive thread should
#     not wake at all, the main thread's scan loop sleeps 200 ms a pass;
#   4 idle controllers (DeviceNums 4): VmRSS;
#   a controller plugged into the daemon left idle with none, 10 times: the time
#     until the scan loop finds its node and sends the first set-up command.
# Windows of $win s; the forks the scenario itself makes in a window are
# measured first, without the daemon, and taken off. Writes $OUT/bench.rows.
. ../touch-env.sh

win=10
hz=100
forks() { while read -r k v; do [ "$k" = processes ] && echo "$v"; done < /proc/stat; }
ticks() { read -r line < "/proc/$1/stat"; set -- ${line#*) }; echo $(($12 + $13)); }
# CPU of the children the daemon has waited for (its shell commands).
child_ticks() { read -r line < "/proc/$1/stat"; set -- ${line#*) }; echo $(($14 + $15)); }
switches() {  # voluntary + involuntary switches of every thread of $1
    local n=0 t k v
    for t in /proc/$1/task/*; do
        while read -r k v; do
            case "$k" in voluntary_ctxt_switches: | nonvoluntary_ctxt_switches:) n=$((n + v)) ;; esac
        done < "$t/status"
    done
    echo $n
}
per_thread() {  # tid name switches, for the record
    for t in /proc/$1/task/*; do
        echo "${t##*/} $(cat "$t/comm") $(awk '/ctxt_switches/ { printf "%s ", $2 }' "$t/status")"
    done
}
switches_other() {  # the same without the main thread (tid = pid)
    local n=0 t k v
    for t in /proc/$1/task/*; do
        [ "${t##*/}" = "$1" ] && continue
        while read -r k v; do
            case "$k" in voluntary_ctxt_switches: | nonvoluntary_ctxt_switches:) n=$((n + v)) ;; esac
        done < "$t/status"
    done
    echo $n
}
sched_ns() {  # time on the CPU of every thread of $1, in ns (schedstat)
    local n=0 t a rest
    for t in /proc/$1/task/*; do read -r a rest < "$t/schedstat" && n=$((n + a)); done
    echo $n
}
busy() {  # jiffies the guest's CPU was not idle since boot
    local cpu u n s i w q sq st rest
    read -r cpu u n s i w q sq st rest < /proc/stat
    echo $((u + n + s + q + sq + st))
}
rss() { awk '/^VmRSS/ { print $2 }' "/proc/$1/status"; }
# window PID TAG: measures one window into /tmp/TAG.{cpu,forks,sw}
window() {
    per_thread "$1" > "$OUT/$2.threads.before"
    local f0 c0 s0
    b0=$(busy); n0=$(sched_ns "$1")
    f0=$(forks); c0=$(ticks "$1"); s0=$(switches "$1"); k0=$(child_ticks "$1"); o0=$(switches_other "$1")
    sleep $win
    b1=$(busy); n1=$(sched_ns "$1")
    f1=$(forks); c1=$(ticks "$1"); s1=$(switches "$1"); k1=$(child_ticks "$1"); o1=$(switches_other "$1")
    echo $((c1 - c0)) > /tmp/$2.cpu
    echo $((b1 - b0)) > /tmp/$2.busy
    echo $((n1 - n0)) > /tmp/$2.ns
    echo $((k1 - k0)) > /tmp/$2.child
    echo $((o1 - o0)) > /tmp/$2.other
    echo $((f1 - f0)) > /tmp/$2.forks
    echo $((s1 - s0)) > /tmp/$2.sw
    per_thread "$1" > "$OUT/$2.threads.after"
}
start_daemon() {
    rm -f /data/TouchPID
    PATH=/tmp/bin:$PATH TavrineD -f > "$OUT/start-$1.out" 2>&1
    wait_until '[ -n "$(pid_file_pid)" ] && [ -d "/proc/$(pid_file_pid)" ]' 100
    pid_file_pid
}
stop_daemon() {
    TavrineD -k > /dev/null 2>&1
    wait_until '[ "$(daemon_count)" = 0 ]' 100
    rm -f /data/Tavrine_*.log /data/TouchPID
}
setups() { grep -c "Setup Done" "$(daemon_log)" 2>/dev/null || echo 0; }

# Baseline: a window measured on this shell without the daemon (the forks and the CPU
# of the measurement itself).
window $$ base
base=$(cat /tmp/base.forks) base_busy=$(cat /tmp/base.busy)
step "baseline forks in $win s: $base, busy jiffies $base_busy"

# --- no controller ---------------------------------------------------------------
touch_settings 1
pid=$(start_daemon none)
sleep 3
window "$pid" none
rss_none=$(rss "$pid")
step "none: ns $(cat /tmp/none.ns), busy $(cat /tmp/none.busy), ticks $(cat /tmp/none.cpu), children $(cat /tmp/none.child), forks $(cat /tmp/none.forks), switches $(cat /tmp/none.sw), rss $rss_none kB"

# --- a controller plugged into the idle daemon, $plugs times -----------------------
# From the simulator's "ready" (its hidraw node exists) to the daemon's first open of the
# node (found by the scan loop) and to its first set-up command, both in the simulator's
# log (one clock); the controller is unplugged again once set up.
plugs=10
: > /tmp/plug.ms
removals() { grep -c 'USB Device \[/dev/hidraw0\] is removed' "$(daemon_log)" 2>/dev/null || echo 0; }
i=0
while [ $i -lt $plugs ]; do
    i=$((i + 1))
    rm -f /tmp/plug.ready
    tavrine-sim ctl.scn --log /tmp/plug.log --ready /tmp/plug.ready &
    plug_sim=$!
    wait_until '[ "$(setups)" -ge '$i' ]' 300 || { step "plug $i: set-up not done"; break; }
    awk '$2 == "ready" && !r { r = $1 } $2 == "event" && $3 == "open" && !o { o = $1 }
         $2 == "rx" && !x { x = $1 }
         END { printf "%.0f %.0f\n", (o - r) * 1000, (x - r) * 1000 }' /tmp/plug.log >> /tmp/plug.ms
    stop_pid "$plug_sim"
    wait_until '[ "$(removals)" -ge '$i' ]' 100 || { step "plug $i: removal not seen"; break; }
done
stop_daemon
median() { sort -n | awk '{ v[NR] = $1 } END { if (NR) print v[int((NR + 1) / 2)], v[NR]; else print "- -" }'; }
found=$(cut -d' ' -f1 /tmp/plug.ms | median)
first=$(cut -d' ' -f2 /tmp/plug.ms | median)
step "plugged: $(wc -l < /tmp/plug.ms) of $plugs set up"
cp /tmp/plug.ms "$OUT/plug.ms"

# --- one idle controller -----------------------------------------------------------
touch_settings 1
start_sim ctl.scn
pid=$(start_daemon one)
wait_until '[ "$(setups)" -ge 1 ]' 300 && step "one: set-up done" || step "one: set-up not done"
sleep 2
window "$pid" one
rss_one=$(rss "$pid")
stop_daemon
stop_pid "$SIM_PID"
step "one: ns $(cat /tmp/one.ns), busy $(cat /tmp/one.busy), ticks $(cat /tmp/one.cpu), children $(cat /tmp/one.child), forks $(cat /tmp/one.forks), switches $(cat /tmp/one.sw), rss $rss_one kB"

# --- four idle controllers -----------------------------------------------------------
sed 's/^DeviceNums 1$/DeviceNums 4/' /data/TavrineA.ini > /tmp/ini && cp /tmp/ini /data/TavrineA.ini
sims=""
for i in 1 2 3 4; do
    { sed "s#^descriptor-file ../../#descriptor-file $PWD/../../#" ctl.scn; echo "phys usb-tavrine-sim-$i/input0"; } > /tmp/ctl$i.scn
    rm -f /tmp/ctl$i.ready
    tavrine-sim /tmp/ctl$i.scn --log "$OUT/sim$i.log" --ready /tmp/ctl$i.ready &
    sims="$sims $!"
    wait_until "[ -e /tmp/ctl$i.ready ]" 50
done
pid=$(start_daemon four)
wait_until '[ "$(setups)" -ge 4 ]' 600 && step "four: set-up done 4 times" || step "four: set-up done $(setups) times"
sleep 2
rss_four=$(rss "$pid")
step "four: rss $rss_four kB"
stop_daemon
for s in $sims; do stop_pid "$s"; done

# --- rows ------------------------------------------------------------------------------
row() { echo "$1;$2;$3;$4;$5" >> "$OUT/bench.rows"; }
rate() { awk -v v="$1" -v b="${2:-0}" -v w=$win 'BEGIN { printf "%.1f", (v - b) / w }'; }
cpu() { awk -v t="$1" -v hz=$hz -v w=$win 'BEGIN { printf "%.1f ms/s (%.2f %%)", t * 1000 / hz / w, t * 100 / hz / w }'; }
: > "$OUT/bench.rows"
nscpu() { awk -v n="$1" -v w=$win 'BEGIN { printf "%.2f ms/s (%.3f %%)", n / 1000000 / w, n / 10000000 / w }'; }
row "VM idle, no controller (ScanInterface 1)" "daemon CPU (schedstat)" "$(nscpu "$(cat /tmp/none.ns)")" "target < 0.2 %" "-"
row "VM idle, no controller (ScanInterface 1)" "guest CPU busy incl. shell commands" "$(cpu "$(($(cat /tmp/none.busy) - base_busy))")" "-" "-"
row "VM idle, no controller (ScanInterface 1)" "processes started" "$(rate "$(cat /tmp/none.forks)" "$base") /s" "target 0" "-"
row "VM idle, no controller (ScanInterface 1)" "context switches (all threads)" "$(rate "$(cat /tmp/none.sw)") /s" "-" "-"
row "VM idle, one controller" "daemon CPU (schedstat)" "$(nscpu "$(cat /tmp/one.ns)")" "-" "-"
row "VM idle, one controller" "guest CPU busy" "$(cpu "$(($(cat /tmp/one.busy) - base_busy))")" "-" "-"
row "VM idle, one controller" "processes started" "$(rate "$(cat /tmp/one.forks)" "$base") /s" "-" "-"
row "VM idle, one controller" "context switches, main thread (scan loop)" "$(rate "$(($(cat /tmp/one.sw) - $(cat /tmp/one.other)))") /s" "200 ms sleep: 5 /s" "-"
row "VM idle, one controller" "context switches, other threads (receive)" "$(rate "$(cat /tmp/one.other)") /s" "target 0" "-"
row "VM memory" "VmRSS, 0 / 1 / 4 controllers" "$rss_none / $rss_one / $rss_four kB" "-" "-"
row "VM controller plugged into the idle daemon ($plugs times)" "node ready to found (first open), median / max" "${found% *} / ${found#* } ms" "scan period 200 ms" "-"
row "VM controller plugged into the idle daemon ($plugs times)" "node ready to first set-up command, median / max" "${first% *} / ${first#* } ms" "-" "-"
cat "$OUT/bench.rows"
exit 0
