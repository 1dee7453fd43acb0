# Builds the VM's initramfs (sourced by run-vm.sh).
# Needs: BED, VMDIR (this run's own folder), KROOT (unpacked kernel package), STAGE (the
# staging prefix), SIM_BIN, EVREC_BIN, DAEMON_BIN and CTL_BIN (may be empty), SCENARIOS
# (names). Sets INITRAMFS.
# TAVRINE_VM_EXTRA (optional): a folder whose tree is copied over the root, for programs
# that only some scenarios use (scripts/bench.sh puts tslib there).

MODULES="hid uhid hid-generic hid-multitouch uinput evdev serio_raw serport"

# Copies module $1 as plain .ko into $2, decompressing when needed.
copy_module() {
    src=$(find "$KROOT"/lib/modules/*/kernel -name "$1.ko" -o -name "$1.ko.xz" -o -name "$1.ko.zst" -o \
        -name "$1.ko.gz" | head -n 1)
    [ -n "$src" ] || { echo "run-vm: module $1 not found in the kernel package" >&2; return 1; }
    case "$src" in
    *.xz) xz -dc "$src" > "$2/$1.ko" ;;
    *.zst) zstd -qdc "$src" > "$2/$1.ko" ;;
    *.gz) gzip -dc "$src" > "$2/$1.ko" ;;
    *) cp "$src" "$2/$1.ko" ;;
    esac
}

build_initramfs() {
    root=$VMDIR/initramfs-root
    rm -rf "$root"
    mkdir -p "$root/bin" "$root/sbin" "$root/etc" "$root/dev" "$root/proc" "$root/sys" "$root/lib/modules" \
        "$root/bed/bin" "$root/bed/scenarios"
    cp /bin/busybox "$root/bin/busybox"
    for applet in $(/bin/busybox --list); do
        [ "$applet" = busybox ] && continue
        ln -s busybox "$root/bin/$applet"
    done
    ln -s /bin/busybox "$root/init"
    mknod -m 600 "$root/dev/console" c 5 1 2>/dev/null || true
    cp "$BED/guest/inittab" "$root/etc/inittab"
    cp "$BED/guest/guest-init.sh" "$BED/guest/lib.sh" "$root/bed/"
    for m in $MODULES; do
        copy_module "$m" "$root/lib/modules" || return 1
    done
    cp "$SIM_BIN" "$EVREC_BIN" "$root/bed/bin/"
    [ -n "$DAEMON_BIN" ] && cp "$DAEMON_BIN" "$root/bed/bin/TavrineD"
    [ -n "${CTL_BIN:-}" ] && cp "$CTL_BIN" "$root/bed/bin/tavrinectl"
    # The installed sample descriptors, where scenario scripts name them
    # (descriptor-file ../../sim/descriptors/default.hex from /bed/scenarios/<name>/).
    mkdir -p "$root/bed/sim"
    cp -r "$STAGE/share/tavrine-sim/descriptors" "$root/bed/sim/descriptors"
    cp -r "$BED/scenarios/." "$root/bed/scenarios/"   # all: scenarios may share files
    echo "$SCENARIOS" | tr ' ' '\n' | sed '/^$/d' > "$root/bed/run-list"
    if [ -n "${TAVRINE_VM_EXTRA:-}" ]; then
        cp -a "$TAVRINE_VM_EXTRA/." "$root/" || return 1
    fi
    INITRAMFS=$VMDIR/initramfs.cpio.gz
    (cd "$root" && find . | /bin/busybox cpio -o -H newc 2>/dev/null) | gzip -1 > "$INITRAMFS"
    rm -rf "$root"
}
