# tavrinectl against the daemon and the scripted controller: no daemon
# (status 3); on USB the version (merged from two fragments), model and type
# texts and a raw loop-back round trip, then a command nobody answers
# (status 1 after the time-out); on RS232 the points switched to the tool,
# printed and switched back, a version asked on both headers without answer
# (status 1); and status 3 again once the daemon is stopped.
. /bed/lib.sh
. ../cmd-common/cmd.sh

# Runs tavrinectl with the arguments; its output goes to $OUT/<tag>.out
# (stdout, then stderr) and the transcript gets "<tag>: status N".
ctl() {
    local tag=$1
    shift
    tavrinectl "$@" > "$OUT/$tag.out" 2> "$OUT/$tag.err"
    local rc=$?
    cat "$OUT/$tag.err" >> "$OUT/$tag.out"
    rm -f "$OUT/$tag.err"
    step "$tag: status $rc"
}

# Packets received by the controller after the line holding $1 in sim log $2.
received_after() {
    sed -n "/$1/,\$p" "$2" | sed -n 's/^[0-9.]* rx //p'
}

ctl no-daemon version

# USB round.
start_sim usb.scn
cmd_start_daemon usb
cmd_wait_setup 200 && step "usb set-up done" || step "usb set-up not done"
ctl usb-version --timeout 4000 version
ctl usb-model --timeout 4000 --usb model
ctl usb-type --timeout 4000 type
ctl usb-raw --timeout 4000 raw 03 01 41
sim_do note tool silent
ctl usb-silent --usb --timeout 800 raw 03 01 4b
received_after "note tool silent" "$OUT/sim.log" > "$OUT/usb-silent.rx"
TavrineD -k > /dev/null 2>&1
wait_until '[ "$(daemon_count)" = 0 ]' 50
stop_pid "$SIM_PID"
mv "$OUT/sim.log" "$OUT/sim-usb.log"
cp "$(cmd_log)" "$OUT/daemon-usb.log" 2>/dev/null
rm -rf /data/*

# RS232 round.
write_settings 2 /dev/ttyTAV1
sed -i 's/^DebugEnableBits 1$/DebugEnableBits fffffff/' /data/TavrineA.ini
start_sim serial.scn
TavrineD -f > "$OUT/start-serial.out" 2>&1
# The set-up's own switch-on (sent three times: this controller does not answer it)
# comes first; the tool starts after the set-up.
cmd_wait_setup 300 && step "serial set-up done" || step "serial set-up not done"
sim_do note tool points
ctl serial-points --timeout 5000 points --count 2
wait_until 'received_after "note tool points" "$OUT/sim.log" | grep -qx "0a 02 34 01"' 30
received_after "note tool points" "$OUT/sim.log" > "$OUT/serial-points.rx"
sim_do note tool silent
ctl serial-silent --timeout 1000 version
received_after "note tool silent" "$OUT/sim.log" > "$OUT/serial-silent.rx"
TavrineD -k > /dev/null 2>&1
wait_until '[ "$(daemon_count)" = 0 ]' 50
cp "$(cmd_log)" "$OUT/daemon-serial.log" 2>/dev/null
ctl stopped version
grep -q "^tavrinectl: no daemon" "$OUT/stopped.out" && step "stopped: says no daemon"
rm -f "$OUT/stopped.out"
stop_pid "$SIM_PID"
