#!/bin/sh
# busybox init's sysinit in the VM: mounts, loads the input modules, runs this VM's scenarios
# (bedrun= on the kernel command line), prints their files between console markers, powers off.
export PATH=/bed/bin:/bin:/sbin HOME=/tmp
mount -t proc proc /proc; mount -t sysfs sysfs /sys; mount -t devtmpfs devtmpfs /dev
mkdir -p /dev/pts /data /tmp; mount -t devpts devpts /dev/pts
mount -t tmpfs -o mode=0771 data /data; mount -t tmpfs tmp /tmp
echo 1 > /proc/sys/kernel/printk    # keep kernel messages off the marker stream
for m in hid uhid hid-generic hid-multitouch uinput evdev serio_raw serport; do
    insmod "/lib/modules/$m.ko" 2> /tmp/insmod.err || echo "@@BED-WARN insmod $m: $(cat /tmp/insmod.err)"
done
echo "@@BED-BOOTED $(cut -d' ' -f1 /proc/uptime)"

# run_one DIR OUT LIMIT CASE: from a clean /data, /tmp and HID drivers (new_id ids forgotten).
run_one() {
    local dir=$1 out=$2 limit=$3 m f
    rm -rf /data/* /data/.[!.]* /tmp/* /tmp/.[!.]*
    for m in hid_multitouch hid_generic; do rmmod "$m" 2> /tmp/rmmod.err ||
        echo "@@BED-WARN rmmod $m before $out: $(cat /tmp/rmmod.err)"; done
    for m in hid_generic hid_multitouch; do grep -q "^$m " /proc/modules || insmod "/lib/modules/$(echo $m | tr _ -).ko"; done
    mkdir -p "$out/data" && dmesg -c > /dev/null
    # A family's run.sh only defines its cases' functions: play_case (lib.sh) plays the line.
    run='sh ./run.sh' && [ -n "$4" ] && run="sh -c '. /bed/lib.sh && . ./run.sh && play_case'"
    (cd "$dir" && export OUT=$out SCENARIO=${dir##*/} CASE=$4 &&
        eval "timeout -s KILL $limit $run" > "$out/run.out" 2>&1)
    RC=$? && [ "$RC" = 137 ] && echo "killed after $limit s" >> "$out/run.out"
    killall -9 TavrineD tavrine-sim tavrine-evrec systemd-udevd libinput-debug-events 2> /dev/null  # leftovers
    sleep 0.2 && dmesg > "$out/dmesg.txt"
    for f in /data/*; do [ -f "$f" ] && cp "$f" "$out/data/"; done
}

# A family (a cases file) plays each case into $out/<case>; its status is its first failing case's.
for name in $(tr ' ' '\n' < /proc/cmdline | sed -n 's/^bedrun=//p' | tr ',' ' '); do
    dir=/bed/scenarios/$name out=/bed-out/$name limit=30
    [ -f "$dir/timeout" ] && limit=$(cat "$dir/timeout")
    echo "@@BED-SCENARIO-BEGIN $name"
    start=$(cut -d' ' -f1 /proc/uptime)
    if [ -f "$dir/cases" ]; then
        grep -v -e '^#' -e '^$' "$dir/cases" | while read -r line; do
            run_one "$dir" "$out/${line%% *}" "$limit" "$line" < /dev/null
            echo "case ${line%% *}: status $RC" >> "$out/cases.txt"
        done
        rc=$(sed -n 's/.*status \([1-9][0-9]*\)$/\1/p' "$out/cases.txt" | head -n 1)
    else
        run_one "$dir" "$out" "$limit" ""; rc=$RC
    fi
    (cd "$out" && find . -type f | sed 's|^\./||') | while read -r rel; do
        echo "@@BED-FILE $name $rel"; base64 < "$out/$rel"; echo "@@BED-FILE-END"
    done
    echo "@@BED-SCENARIO-END $name rc=${rc:-0} start=$start end=$(cut -d' ' -f1 /proc/uptime)"
done
echo "@@BED-DONE $(cut -d' ' -f1 /proc/uptime)"
poweroff -f
