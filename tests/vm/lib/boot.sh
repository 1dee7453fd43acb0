# Boots the VM with the initramfs and watches it (sourced by run-vm.sh).
# Needs: BED, CACHE, INITRAMFS, OUT, CONSOLE, SCENARIOS, VM_TIMEOUT (may be
# empty). Sets qemu_rc, wall (seconds), HUNG (why the guest was stopped).

# Stops the guest (through the timeout process $1) when it has not reached
# its script after BOOT_LIMIT s, or its console stood still for longer than
# the longest scenario may take; sets HUNG to the reason.
BOOT_LIMIT=90
watch_guest() {
    waited=0
    still=0
    last_size=-1
    while kill -0 "$1" 2> /dev/null; do
        sleep 1
        waited=$((waited + 1))
        size=$(wc -c < "$CONSOLE")
        if [ "$size" = "$last_size" ]; then still=$((still + 1)); else still=0; fi
        last_size=$size
        if [ $waited -ge $BOOT_LIMIT ] && ! grep -q '@@BED-BOOTED' "$CONSOLE"; then
            HUNG="the guest did not reach its script within $BOOT_LIMIT s"
        elif [ $still -ge $((STALL_LIMIT)) ]; then
            HUNG="the guest console stood still for $STALL_LIMIT s"
        fi
        if [ -n "$HUNG" ]; then
            kill "$1" 2> /dev/null
            return
        fi
    done
}

# Runs qemu in the background under the whole-boot limit and waits for it.
boot_guest() {
    STALL_LIMIT=30
    sum=0
    for s in $SCENARIOS; do
        t=30
        [ -f "$BED/scenarios/$s/timeout" ] && t=$(cat "$BED/scenarios/$s/timeout")
        sum=$((sum + t + 5))
        [ $((t + 30)) -gt $STALL_LIMIT ] && STALL_LIMIT=$((t + 30))
    done
    # Capped below CTest's limit for the run (1200 s), so that a slow run is
    # still reported by the bed itself; hangs are caught by watch_guest.
    [ $sum -gt 1000 ] && sum=1000
    [ -n "$VM_TIMEOUT" ] || VM_TIMEOUT=$((60 + sum))

    echo "run-vm: booting $(cat "$CACHE/kernel/ready") with:$SCENARIOS (limit ${VM_TIMEOUT} s, logs in $OUT)"
    start=$(date +%s.%N)
    timeout -k 5 "$VM_TIMEOUT" qemu-system-x86_64 -accel tcg -cpu max -m 512 -smp 1 -nographic -no-reboot \
        -kernel "$CACHE/kernel/vmlinuz" -initrd "$INITRAMFS" \
        -append "console=ttyS0 quiet panic=-1" < /dev/null > "$CONSOLE" 2>&1 &
    qemu_pid=$!
    HUNG=""
    watch_guest "$qemu_pid"
    wait "$qemu_pid"
    qemu_rc=$?
    wall=$(echo "$start $(date +%s.%N)" | awk '{ printf "%.1f", $2 - $1 }')
}
