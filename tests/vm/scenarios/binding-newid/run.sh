# Kernel HID driver binding through the real sysfs new_id files. "busybox
# lsusb" lists 3c7a:0001, which is already an input device and gets no new_id
# line. The DevPID entry 7e57 is written to hid-generic's and hid-multitouch's
# new_id files; a 3c7a:7e57 device plugged afterwards is then taken by
# hid-multitouch, which the kernel prefers over hid-generic once it knows the id.
# The entry 7e5 (three digits, the settings file takes 1 to 4) is written as
# 07e5, and a 3c7a:07e5 device is taken by hid-multitouch as well.
# The dynamic ids stay in the guest kernel: 7e57 and 07e5 are used by no other
# scenario.
#
# The guest's busybox shell runs "busybox" as its own applet whatever PATH
# says, so a wrapper on PATH is never reached. The daemon therefore runs in a
# private mount namespace where /bin/sh (the busybox binary, through its
# link) is covered by a script: it defines "busybox" as a shell function that
# answers "lsusb" with the listing and passes everything else to a copy of the
# real busybox, and it runs the other applets linked to /bin/busybox as before.
. /bed/lib.sh

mkdir -p /tmp/bbreal
cp /bin/busybox /tmp/bbreal/busybox
cat > /tmp/shwrap <<'WRAP'
#!/tmp/bbreal/busybox sh
busybox() { if [ "$1" = lsusb ]; then echo "Bus 001 Device 004: ID 3c7a:0001"; else /tmp/bbreal/busybox "$@"; fi; }
case "${0##*/}" in
sh) [ "$1" = -c ] && { eval "$2"; exit; }; exec /tmp/bbreal/busybox sh "$@" ;;
*) exec /tmp/bbreal/busybox "${0##*/}" "$@" ;;
esac
WRAP
chmod 755 /tmp/shwrap

write_settings 1
sed -i -e 's/^DebugEnableBits 1$/DebugEnableBits 3/' -e 's/^SerialPath default$/&\nDevPID 7e57\nDevPID 7e5/' /data/TavrineA.ini
start_sim usb-0001.scn
ls /sys/bus/hid/drivers/hid-generic | grep -q '^0003:3C7A:0001\.' && step "3c7a:0001 bound to hid-generic"
unshare -m sh -c 'mount --make-rprivate / && mount --bind /tmp/shwrap /bin/sh && exec TavrineD -f' > "$OUT/start.out" 2>&1
log=$(ls /data/Tavrine_*.log | head -n 1)
wait_until 'grep -q "Entering DevRxLoop" $log' 250
grep -o "In lsusb: Get device \[3c7a\]:\[[0-9a-f]*\]\.\|', match device \[[0-9a-f]*\]\|Dismatch device \[[0-9a-f]*\]\|Entering AddPidTo[A-Za-z]* with VID\[3c7a\] PID\[[0-9a-f]*\]\|Add deviceID into [a-z-]* module failed" "$log" |
    sort | uniq -c >> "$OUT/steps.txt"
SIMS=
for pid in 7e57 07e5; do
    tavrine-sim usb-$pid.scn --log "$OUT/sim-$pid.log" --ready /tmp/p-$pid.ready &
    SIMS="$SIMS $!"
    wait_until "[ -e /tmp/p-$pid.ready ]" 50
    ID=$(echo $pid | tr a-f A-F)
    wait_until "ls /sys/bus/hid/devices | grep -q '^0003:3C7A:$ID\.'" 30
    for drv in hid-generic hid-multitouch; do
        ls /sys/bus/hid/drivers/$drv | grep -q "^0003:3C7A:$ID\." && step "3c7a:$pid bound to $drv"
    done
done
# The daemon goes first: with 3c7a:0001 unplugged it would teach the drivers
# that id on its next pass, and the ids would stay for later scenarios.
TavrineD -k > /dev/null 2>&1
for pid in $SIMS; do stop_pid "$pid"; done
stop_pid "$SIM_PID"
