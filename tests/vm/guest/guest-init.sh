#!/bin/sh
# busybox init's sysinit in the VM: mounts, loads the input modules, runs this VM's scenarios
# (bedrun= on the kernel command line), prints their files between console markers, powers off.
export PATH=/bed/bin:/bin:/sbin
export HOME=/tmp

mount -t proc proc /proc
mount -t sysfs sysfs /sys
mount -t devtmpfs devtmpfs /dev
mkdir -p /dev/pts /data /tmp
mount -t devpts devpts /dev/pts
mount -t tmpfs -o mode=0771 data /data
mount -t tmpfs tmp /tmp
echo 1 > /proc/sys/kernel/printk    # keep kernel messages off the marker stream

for m in hid uhid hid-generic hid-multitouch uinput evdev serio_raw serport; do
    insmod "/lib/modules/$m.ko" 2>/tmp/insmod.err || echo "@@BED-WARN insmod $m: $(cat /tmp/insmod.err)"
done
echo "@@BED-BOOTED $(cut -d' ' -f1 /proc/uptime)"

# Reloads the HID drivers, which forgets product ids added through new_id.
reset_hid_drivers() {
    local m
    for m in hid_multitouch hid_generic; do
        rmmod "$m" 2> /tmp/rmmod.err || echo "@@BED-WARN rmmod $m before $1: $(cat /tmp/rmmod.err)"
    done
    for m in hid-generic hid-multitouch; do grep -q "^$(echo $m | tr - _) " /proc/modules || insmod "/lib/modules/$m.ko"; done
}

# run_one DIR OUT LIMIT CASE: one scenario or case from a clean /data, /tmp and HID drivers.
run_one() {
    local dir=$1 out=$2 limit=$3 f
    rm -rf /data/* /data/.[!.]* /tmp/* /tmp/.[!.]*
    reset_hid_drivers "$out"
    mkdir -p "$out/data"
    dmesg -c > /dev/null
    (cd "$dir" && OUT=$out SCENARIO=${dir##*/} CASE=$4 timeout -s KILL "$limit" sh ./run.sh > "$out/run.out" 2>&1)
    RC=$?
    [ "$RC" = 137 ] && echo "killed after $limit s" >> "$out/run.out"
    killall -9 TavrineD tavrine-sim tavrine-evrec systemd-udevd libinput-debug-events 2>/dev/null  # leftovers
    sleep 0.2
    dmesg > "$out/dmesg.txt"
    for f in /data/*; do
        [ -f "$f" ] && cp "$f" "$out/data/"
    done
}

# A family plays each case in turn into $out/<case>; its status is its first failing case's.
run_scenario() {
    local name dir out limit start rc rel line
    name=$1
    dir=/bed/scenarios/$name
    out=/bed-out/$name
    limit=30
    [ -f "$dir/timeout" ] && limit=$(cat "$dir/timeout")
    echo "@@BED-SCENARIO-BEGIN $name"
    start=$(cut -d' ' -f1 /proc/uptime)
    if [ -f "$dir/cases" ]; then
        rc=0
        while read -r line; do
            case "$line" in '' | '#'*) continue ;; esac
            run_one "$dir" "$out/${line%% *}" "$limit" "$line" < /dev/null
            echo "case ${line%% *}: status $RC" >> "$out/cases.txt"
            [ "$rc" = 0 ] && rc=$RC
        done < "$dir/cases"
    else
        run_one "$dir" "$out" "$limit" ""
        rc=$RC
    fi
    (cd "$out" && find . -type f | sed 's|^\./||') | while read -r rel; do
        echo "@@BED-FILE $name $rel"; base64 < "$out/$rel"; echo "@@BED-FILE-END"
    done
    echo "@@BED-SCENARIO-END $name rc=$rc start=$start end=$(cut -d' ' -f1 /proc/uptime)"
}

list=$(tr ' ' '\n' < /proc/cmdline | sed -n 's/^bedrun=//p' | tr ',' ' ')
for name in $list; do
    run_scenario "$name"
done
echo "@@BED-DONE $(cut -d' ' -f1 /proc/uptime)"
poweroff -f
