# End-to-end latency at 1000 reports/s for 10 s, three paths in one boot, fed
# by the same simulator program with the same positions:
#   K  the kernel alone: a standard multi-touch HID device bound to
#      hid-multitouch, read from its event node;
#   T  tslib's ts_uinput reading that kernel device and re-emitting it
#      through uinput (ts.conf: "module_raw input", no filters);
#   D  TavrineD driving the maker's controller over hidraw.
# One finger moves to a new position in every report (unique in the run), so
# every report makes one frame. Latency = SYN_REPORT event time on the output
# device (reader with CLOCK_MONOTONIC) minus the simulator's time before its
# uhid write. ts_uinput and the daemon run at nice -10 (as touch-load does
# for the daemon), the recorders at 0. Writes $OUT/bench.rows and
# $OUT/figures.txt; the big logs stay in the guest (their heads come back).
. ../touch-devices/touch-env.sh

reports=10000
lead_ms=5000

# load RID TEMPLATE: 'at' steps of the load; TEMPLATE has XL XH YL YH.
load() {
    awk -v n=$reports -v t0=$lead_ms -v tpl="$1" '
    function le(v) { return sprintf("%02x %02x", v % 256, int(v / 256)) }
    BEGIN {
        for (f = 0; f < n; f++) {
            x = 100 + f % 3800; y = 200 + int(f / 3800) * 50
            r = tpl; sub(/XL XH/, le(x), r); sub(/YL YH/, le(y), r)
            printf "at %d send %s\n", t0 + f, r
        }
        printf "at %d note load ends\nafter 1500 exit 0\n", t0 + n + 200
    }'
}
script() {  # script BASE RID-TEMPLATE OUT
    { cat "$1"; load "$2"; } > "$3"
    sed -i "s#^descriptor-file ../../#descriptor-file $PWD/../../#" "$3"
}
ticks() { [ -r "/proc/$1/stat" ] && awk '{ print $14 + $15 }' "/proc/$1/stat" || echo 0; }
event_node() {  # event node of the input device named $1
    awk -v n="N: Name=\"$1\"" '$0 == n { f = 1 } f && /^H: / { for (i = 1; i <= NF; i++) if ($i ~ /^event/) print $i; exit }' /proc/bus/input/devices
}
# analyse TAG RID XFIELD SIMLOG TRACE: latencies into /tmp/TAG.lat, stats into /tmp/TAG.stats
analyse() {
    awk -v rid=$2 -v xf=$3 -f latency.awk "$4" "$5" > /tmp/$1.all
    tail -n 1 /tmp/$1.all > /tmp/$1.count
    sed '$d' /tmp/$1.all | sort -n | awk -f stats.awk > /tmp/$1.stats
    head -n 200 "$4" > "$OUT/$1.sim.head"
    head -n 200 "$5" > "$OUT/$1.trace.head"
    step "$1: $(cat /tmp/$1.count); p50 p99 max n (us): $(cat /tmp/$1.stats)"
}
mt_tpl="10 01 01 XL XH YL YH 00 00 00 00 00 00 01"
dev_tpl="06 01 01 00 XL XH YL YH 00 00 00 00"

# --- K: kernel only -----------------------------------------------------------
script mt-base.scn "$mt_tpl" /tmp/k.scn
tavrine-sim /tmp/k.scn --log /tmp/k.sim.log --ready /tmp/k.ready &
sim=$!
wait_until '[ -e /tmp/k.ready ] && [ -n "$(event_node "Tavrine MT Perf")" ]' 100
step "K: kernel device $(event_node "Tavrine MT Perf"), driver $(sed -n 's/^DRIVER=//p' /sys/class/hidraw/*/device/uevent | head -n 1)"
tavrine-evrec record --name "Tavrine MT Perf" --out /tmp/k.trace --ready /tmp/k.evready &
rec=$!
wait "$sim"
sleep 1
stop_pid "$rec"
analyse K 10 6 /tmp/k.sim.log /tmp/k.trace

# --- T: tslib ts_uinput ---------------------------------------------------------
ts_ok=0
if [ -x /usr/bin/ts_uinput ]; then
    printf 'module_raw input\n' > /tmp/ts.conf
    # ts_uinput sizes its device from a framebuffer and stops without one.
    [ -e /dev/fb0 ] || insmod /lib/modules/extra/vfb.ko vfb_enable=1 2> /tmp/vfb.err
    wait_until '[ -e /dev/fb0 ]' 20 || step "T: no /dev/fb0: $(cat /tmp/vfb.err)"
    script mt-base.scn "$mt_tpl" /tmp/t.scn
    tavrine-sim /tmp/t.scn --log /tmp/t.sim.log --ready /tmp/t.ready &
    sim=$!
    wait_until '[ -e /tmp/t.ready ] && [ -n "$(event_node "Tavrine MT Perf")" ]' 100
    node=/dev/input/$(event_node "Tavrine MT Perf")
    TSLIB_TSDEVICE=$node TSLIB_CONFFILE=/tmp/ts.conf /usr/bin/ts_uinput -n tslib_perf > /tmp/ts_uinput.out 2>&1 &
    ts=$!
    if wait_until 'has_input tslib_perf' 100; then
        ts_ok=1
        renice -n -10 -p "$ts" > /dev/null
        tavrine-evrec record --name tslib_perf --out /tmp/t.trace --ready /tmp/t.evready &
        rec=$!
        wait_until 'grep -q "clock restarted" /tmp/t.sim.log' 100
        t0=$(ticks "$ts")
        wait_until 'grep -q "load ends" /tmp/t.sim.log' 400
        ts_ticks=$(($(ticks "$ts") - t0))
        wait "$sim"
        sleep 1
        stop_pid "$rec"
        kill "$ts" 2> /dev/null
        analyse T 10 6 /tmp/t.sim.log /tmp/t.trace
    else
        step "T: ts_uinput did not create its device: $(head -c 300 /tmp/ts_uinput.out)"
        kill "$ts" "$sim" 2> /dev/null
        wait "$sim"
    fi
else
    step "T: no ts_uinput in the guest (scripts/bench.sh puts tslib into the initramfs)"
fi

# --- D: TavrineD ----------------------------------------------------------------
touch_settings 1
script dev-base.scn "$dev_tpl" /tmp/d.scn
touch_start /tmp/d.scn && step "D: set-up done" || step "D: set-up not done"
pid=$(pid_file_pid)
for task in /proc/$pid/task/*; do renice -n -10 -p "${task##*/}" > /dev/null; done
touch_record perf.trace
touch_go
wait_until 'grep -q "clock restarted" "$OUT/sim.log"' 100
d0=$(ticks "$pid")
threads() {  # per thread: tid name utime stime voluntary/involuntary switches
    for t in /proc/$pid/task/*; do
        echo "${t##*/} $(awk '{ print $2, $14, $15 }' "$t/stat") $(awk '/ctxt_switches/ { printf "%s ", $2 }' "$t/status")"
    done
}
threads > "$OUT/D.threads.before"
wait_until 'grep -q "load ends" "$OUT/sim.log"' 400
d_ticks=$(($(ticks "$pid") - d0))
threads > "$OUT/D.threads.after"
wait "$SIM_PID"
sleep 1
stop_pid "$EVREC_PID"
mv "$OUT/sim.log" /tmp/d.sim.log
mv "$OUT/perf.trace" /tmp/d.trace
analyse D 06 7 /tmp/d.sim.log /tmp/d.trace

# --- rows -------------------------------------------------------------------------
hz=100
row() { echo "$1;$2;$3;$4;$5" >> "$OUT/bench.rows"; }
ratio() { awk -v a="$1" -v b="$2" 'BEGIN { if (b > 0 && a != "-") printf "%.2f", a / b; else print "-" }'; }
get() { awk -v i=$2 '{ print $i }' /tmp/$1.stats 2> /dev/null || echo -; }
counts() { sed 's/sent \([0-9]*\) received \([0-9]*\)/\1 sent, \2 received/' /tmp/$1.count 2> /dev/null || echo -; }
: > "$OUT/bench.rows"
k50=$(get K 1) k99=$(get K 2)
row "VM kernel only (hid-multitouch, evdev)" "latency p50 / p99 / max" "$(get K 1) / $(get K 2) / $(get K 3) us" "-" "-"
row "VM kernel only (hid-multitouch, evdev)" "frames" "$(counts K)" "-" "-"
if [ "$ts_ok" = 1 ]; then
    t50=$(get T 1) t99=$(get T 2)
    row "VM tslib ts_uinput (uinput)" "latency p50 / p99 / max" "$t50 / $t99 / $(get T 3) us" "kernel p50 $k50 us" "$(ratio "$t50" "$k50")"
    row "VM tslib ts_uinput (uinput)" "frames" "$(counts T)" "-" "-"
    row "VM tslib ts_uinput (uinput)" "CPU per report" "$(awk -v t=$ts_ticks -v n=$reports -v hz=$hz 'BEGIN { printf "%.1f us", t * 1000000 / hz / n }')" "-" "-"
fi
d50=$(get D 1) d99=$(get D 2)
row "VM TavrineD (hidraw, uinput)" "latency p50 / p99 / max" "$d50 / $d99 / $(get D 3) us" "kernel p50 $k50 us" "$(ratio "$d50" "$k50") (target <= 1.5)"
if [ "$ts_ok" = 1 ]; then
    row "VM TavrineD (hidraw, uinput)" "latency p50 against ts_uinput" "$d50 us" "ts_uinput p50 $t50 us" "$(ratio "$d50" "$t50") (target <= 1)"
    row "VM TavrineD (hidraw, uinput)" "latency p99 against ts_uinput" "$d99 us" "ts_uinput p99 $t99 us" "$(ratio "$d99" "$t99") (target <= 1)"
fi
row "VM TavrineD (hidraw, uinput)" "frames" "$(counts D)" "-" "-"
row "VM TavrineD (hidraw, uinput)" "CPU per report (/proc stat)" "$(awk -v t=$d_ticks -v n=$reports -v hz=$hz 'BEGIN { printf "%.1f us", t * 1000000 / hz / n }')" "${ts_ticks:+ts_uinput $(awk -v t=$ts_ticks -v n=$reports -v hz=$hz 'BEGIN { printf "%.1f us", t * 1000000 / hz / n }')}" "$( [ -n "${ts_ticks:-}" ] && ratio "$d_ticks" "$ts_ticks" || echo -)"
cat "$OUT/bench.rows"
exit 0
