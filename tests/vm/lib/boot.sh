# Boots the VMs and watches them (sourced by run-vm.sh). Sets VMS and wall (seconds); for VM i
# leaves $OUT/console-i.log and $VMDIR/vm-i.{list,rc,hung} (its scenarios, qemu's status,
# why it was stopped).
scenario_limit() {
    if [ -f "$(scenario_dir "$1")/timeout" ]; then cat "$(scenario_dir "$1")/timeout"; else echo 30; fi
}

# Deals the scenarios out, longest limit first to the least loaded VM.
split_scenarios() {
    VMS=$JOBS
    count=$(echo $SCENARIOS | wc -w)
    [ "$count" -lt "$VMS" ] && VMS=$count
    [ "$VMS" -ge 1 ] || VMS=1
    rm -f "$VMDIR"/vm-*.list "$VMDIR"/vm-*.rc "$VMDIR"/vm-*.hung
    for s in $SCENARIOS; do
        echo "$(scenario_limit "$s") $s"
    done | sort -k1,1nr -k2,2 | awk -v vms="$VMS" -v dir="$VMDIR" '
        { best = 1
          for (i = 2; i <= vms; i++) if (load[i] < load[best]) best = i
          load[best] += $1
          print $2 > (dir "/vm-" best ".list") }'
    for i in $(seq 1 "$VMS"); do touch "$VMDIR/vm-$i.list"; done
}

# watch_guest PID VM CONSOLE STALL: stops the VM whose console stood still STALL s.
watch_guest() {
    still=0
    last_size=-1
    while kill -0 "$1" 2> /dev/null; do
        sleep 1
        size=$(wc -c < "$3")
        if [ "$size" = "$last_size" ]; then still=$((still + 1)); else still=0; fi
        last_size=$size
        if [ $still -ge "$4" ]; then
            echo "console stood still for $4 s" > "$VMDIR/vm-$2.hung"
            kill "$1" 2> /dev/null
            return
        fi
    done
}

# Boots VM $1 in the background: limit 60 s plus its scenarios' limits plus 5 s each, capped
# below CTest's 1200 s so that a slow run is still reported by the bed.
boot_one() {
    list=$(tr '\n' ' ' < "$VMDIR/vm-$1.list")
    stall=30
    sum=0
    for s in $list; do
        t=$(scenario_limit "$s")
        sum=$((sum + t + 5))
        [ $((t + 30)) -gt $stall ] && stall=$((t + 30))
    done
    [ $sum -gt 1000 ] && sum=1000
    limit=$((60 + sum))
    console=$OUT/console-$1.log
    echo "run-vm: VM $1 runs: $list(limit $limit s)"
    timeout -k 5 "$limit" qemu-system-x86_64 -accel tcg -cpu max -m 512 -smp 1 -nographic \
        -no-reboot -kernel "$CACHE/kernel/vmlinuz" -initrd "$INITRAMFS" \
        -append "console=ttyS0 quiet panic=-1 bedrun=$(echo $list | tr ' ' ,)" \
        < /dev/null > "$console" 2>&1 &
    echo $! > "$VMDIR/vm-$1.pid"
    watch_guest "$!" "$1" "$console" "$stall" &
}

boot_guests() {
    split_scenarios
    echo "run-vm: booting $(cat "$CACHE/kernel/ready") in $VMS VM(s), logs in $OUT"
    start=$(date +%s.%N)
    for i in $(seq 1 "$VMS"); do
        boot_one "$i"
    done
    for i in $(seq 1 "$VMS"); do
        wait "$(cat "$VMDIR/vm-$i.pid")"
        echo $? > "$VMDIR/vm-$i.rc"
    done
    wait  # the watchers end with their VM
    wall=$(echo "$start $(date +%s.%N)" | awk '{ printf "%.1f", $2 - $1 }')
}
