# The daemon on a kernel that calls itself 2.6.32 (a file bind-mounted over
# /proc/version in a mount namespace of the daemon's own): the polled
# commands keep their own length, the set-feature and format commands go
# out as 7 bytes behind a 0x00, the format reply is still taken, the event
# protocol is chosen by the kernel (EventType 1) and a touch is served.
. /bed/lib.sh
. ../cmd-common/cmd.sh

echo "Linux version 2.6.32-tavrine (bed@vm) (gcc version 4.4.3) #1 SMP PREEMPT" > /tmp/cmd.version
start_sim sim.scn
write_settings 1
sed -i 's/^DebugEnableBits 1$/DebugEnableBits fffffff/' /data/TavrineA.ini
unshare -m sh -c 'mount --bind /tmp/cmd.version /proc/version && exec TavrineD -f' > "$OUT/start.out" 2>&1
cmd_wait_setup 150 && step "set-up done" || step "set-up not done"
for text in "Kernel_Version = 2.6.32" "Kernel is 2.6.35 downwards. EventType = QEVO_Multi protocol" \
    "AllocateSeries: SERIES_LOMBAR" "Leave SetFormat with ret=0"; do
    cmd_logged "$text" && step "logged: $text"
done
cmd_touch_once touch.events
cmd_received "$OUT/sim.log" > "$OUT/cmds.txt"
step "this shell's kernel: $(cut -d' ' -f3 /proc/version | cut -d. -f1-2)"
