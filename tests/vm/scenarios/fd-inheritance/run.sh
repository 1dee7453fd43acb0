# Descriptor inheritance: every command the daemon starts inherits standard
# input, output and error and nothing else, while the daemon holds the
# controller's hidraw node, two uinput devices, both tool FIFOs and the
# syslog socket, and although its own starter left two descriptors open. /bin/sh is replaced for the scenario's length by
# fd-probe.sh, which records the descriptors of each shell the daemon starts
# (the one it opened itself to read its script is left out by name).
. /bed/lib.sh
set -f  # descriptor targets such as pipe:[123] are words, not patterns

PROBE=/tmp/fd-probe/sh
LOG=/tmp/fd-probe.log
SYSLOG_PID=
restore_sh() { ln -sf busybox /bin/sh; }
cleanup() {
    restore_sh
    if [ -n "$SYSLOG_PID" ]; then kill "$SYSLOG_PID" 2>/dev/null; fi
}
trap cleanup EXIT

has_input() { grep -q "^N: Name=\"$1\"$" /proc/bus/input/devices; }
# Descriptors of the probe log lines from line $1 on that are not 0, 1, 2 or
# the probe's own script, one "command @fds: N=TARGET" per line.
extras_from() {
    tail -n "+$1" "$LOG" | while IFS= read -r line; do
        cmd=${line%% @fds:*}
        for pair in ${line##* @fds:}; do
            case "$pair" in
            0=* | 1=* | 2=* | *"=$PROBE") ;;
            *) echo "$cmd @fds: $pair" ;;
            esac
        done
    done
}
lines() { if [ -f "$LOG" ]; then wc -l < "$LOG" | tr -d ' '; else echo 0; fi; }

# The syslog socket of the daemon's platform log stays connected only when
# something listens on /dev/log.
syslogd -n -O /tmp/messages &
SYSLOG_PID=$!
wait_until '[ -S /dev/log ]' 50

mkdir -p /tmp/fd-probe
cp fd-probe.sh "$PROBE"
chmod 755 "$PROBE"
ln -sf "$PROBE" /bin/sh
rm -f "$LOG"

# Control: a descriptor a shell inherits is reported.
FD_PROBE_ALL=1 /bin/sh -c true 7< /proc/version
extras_from 1 | grep -q ' 7=/proc/version$' && step "control: an inherited descriptor is reported" ||
    step "control: an inherited descriptor is missed"
rm -f "$LOG"

# DeviceNums 2 lets a second controller be served while the first is open;
# ShowDebugPosition 2 sends the log to the syslog socket as well;
# DebugEnableBits 3 adds the <Init> lines of the receive thread.
write_settings 1
sed -i 's/^DeviceNums 1$/DeviceNums 2/; s/^ShowDebugPosition 0$/ShowDebugPosition 2/; s/^DebugEnableBits 1$/DebugEnableBits 3/' /data/TavrineA.ini
start_sim sim.scn && step "controller plugged"
# Started with two descriptors of its own starter open (7 and 9): the daemon
# must close them, or every command it runs inherits them too.
TavrineD -f > "$OUT/start.out" 2>&1 7< /proc/version 9> /tmp/inherited.txt
step "start -f: exit status $?"
wait_until 'has_input MorvelTouch_VirtualDevice && has_input MorvelTouch_VirtualPen' 300 &&
    step "touch and pen devices: present" || step "touch and pen devices: missing"
daemon=$(pid_file_pid)
wait_until '[ -e /data/MorvelPipe_in ] && [ -e /data/MorvelPipe_out ]' 100
ls -l "/proc/$daemon/fd" > "$OUT/daemon-fds.txt" 2>&1
held=""
for what in /dev/hidraw0 uinput /data/MorvelPipe_in /data/MorvelPipe_out socket:; do
    grep -q -- "-> .*$what" "$OUT/daemon-fds.txt" && held="$held $what"
done
step "daemon holds:$held"
grep -q -e '/proc/version' -e '/tmp/inherited.txt' "$OUT/daemon-fds.txt" &&
    step "descriptors of the starter: still held" || step "descriptors of the starter: closed"

# Commands started while the first controller is open: a second controller
# plugged now is set up by a receive thread of its own, which runs its
# commands while the daemon holds everything listed above. (The scan loop
# runs no command while the USB bus keeps the same devices.)
open_from=$(($(lines) + 1))
tavrine-sim sim.scn --log "$OUT/sim2.log" --ready /tmp/sim2.ready &
SIM2_PID=$!
wait_until '[ "$(grep -c "^N: Name=\"MorvelTouch_VirtualDevice\"$" /proc/bus/input/devices)" -ge 2 ]' 300
[ "$(lines)" -ge "$open_from" ] &&
    step "commands started with a device open: 1 or more" ||
    step "commands started with a device open: none"
stop_pid "$SIM2_PID"
wait_until '[ "$(grep -c "^N: Name=\"MorvelTouch_VirtualDevice\"$" /proc/bus/input/devices)" -le 1 ]' 150

# Unplug: the receive thread removes the stale node through a shell while it
# still holds the port and its uinput devices; when the kernel has already
# removed the node there is nothing to remove and the daemon says so. Either
# controller's unplug may be the one that shows it (the main thread's own
# plug-and-play check can retire a device before its thread reads the end).
stop_pid "$SIM_PID"
step "controller unplugged"
wait_until 'grep -q -e "^-c rm /dev/hidraw[0-9]* @fds:" "$LOG" ||
    grep -q "Port path \[/dev/hidraw[0-9]*\] is not a device node under /dev" /data/Tavrine_*.log' 150 &&
    step "stale port node from the receive thread: removed or already gone" ||
    step "stale port node from the receive thread: neither removed nor reported gone"
wait_until '! has_input MorvelTouch_VirtualDevice && ! has_input MorvelTouch_VirtualPen' 150
restore_sh

grep -q ' 1=/data/tmpDrvLog .* 2=/data/tmpDrvLog' "$LOG" &&
    step "captured output: standard output and error on /data/tmpDrvLog" ||
    step "captured output: not seen"
cp "$LOG" "$OUT/fd-probe.log"
extras_from 1 > "$OUT/extras.txt"
if [ -s "$OUT/extras.txt" ]; then
    step "descriptors beyond 0, 1, 2: see extras.txt"
else
    step "descriptors beyond 0, 1, 2: none"
fi
echo "$(lines) commands probed" > "$OUT/count.txt"
