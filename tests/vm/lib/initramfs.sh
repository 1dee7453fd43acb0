# Builds the VM's initramfs into INITRAMFS (sourced by run-vm.sh); TAVRINE_VM_EXTRA, a folder
# copied over the root, brings programs only some scenarios use (tslib for scripts/bench.sh).
MODULES="hid uhid hid-generic hid-multitouch uinput evdev serio_raw serport"

# Copies module $1 as plain .ko into $2 (Debian ships .ko, or .ko.xz from trixie on).
copy_module() {
    src=$(find "$KROOT"/lib/modules/*/kernel -name "$1.ko" -o -name "$1.ko.xz" | head -n 1)
    [ -n "$src" ] || { echo "run-vm: module $1 not found in the kernel package" >&2; return 1; }
    case "$src" in *.xz) xz -dc "$src" > "$2/$1.ko" ;; *) cp "$src" "$2/$1.ko" ;; esac
}

build_initramfs() {
    root=$VMDIR/initramfs-root
    rm -rf "$root"
    for d in bin sbin etc dev proc sys lib/modules bed/bin bed/scenarios bed/sim; do mkdir -p "$root/$d"; done
    cp /bin/busybox "$root/bin/busybox"
    for applet in $(/bin/busybox --list | grep -vx busybox); do ln -s busybox "$root/bin/$applet"; done
    ln -s /bin/busybox "$root/init"
    mknod -m 600 "$root/dev/console" c 5 1 2> /dev/null
    cp "$BED/guest/inittab" "$root/etc/inittab"
    cp "$BED/guest/guest-init.sh" "$BED/guest/lib.sh" "$root/bed/"
    for m in $MODULES; do copy_module "$m" "$root/lib/modules" || return 1; done
    cp "$SIM_BIN" "$EVREC_BIN" "$root/bed/bin/"
    [ -n "$DAEMON_BIN" ] && cp "$DAEMON_BIN" "$root/bed/bin/TavrineD"
    [ -n "${CTL_BIN:-}" ] && cp "$CTL_BIN" "$root/bed/bin/tavrinectl"
    # Where scripts name them: ../../sim/descriptors/default.hex from /bed/scenarios/<name>/.
    cp -r "$STAGE/share/tavrine-sim/descriptors" "$root/bed/sim/descriptors"
    for dir in $SCENARIO_ROOTS; do [ -d "$dir" ] && cp -r "$dir/." "$root/bed/scenarios/"; done
    if wants_libinput; then add_libinput "$root" || return 1; fi
    [ -z "${TAVRINE_VM_EXTRA:-}" ] || cp -a "$TAVRINE_VM_EXTRA/." "$root/" || return 1
    INITRAMFS=$VMDIR/initramfs.cpio.gz
    (cd "$root" && find . | /bin/busybox cpio -o -H newc 2> /dev/null) | gzip -1 > "$INITRAMFS"
    rm -rf "$root"
}

wants_libinput() {
    for s in $SCENARIOS; do [ -f "$(scenario_dir "$s")/needs-libinput" ] && return 0; done
    return 1
}

LIBINPUT_RULES="50-udev-default 60-evdev 60-input-id 60-persistent-input 65-libwacom 70-mouse
    70-touchpad 80-libinput-device-groups 90-libinput-fuzz-override"
LIBINPUT_HWDB="60-evdev 60-input-id 65-libwacom 70-mouse 70-pointingstick 70-touchpad"

# Copies Debian's udev and libinput (unpacked by scripts/install-vm-deps.sh) into root $1:
# programs, input rules, a compiled hwdb, quirks, libwacom's data and their libraries.
add_libinput() {
    src=$CACHE/libinput/root
    [ -x "$src/bin/udevadm" ] || { echo "run-vm: no udev/libinput in $src (scripts/install-vm-deps.sh)" >&2; return 1; }
    libs=$src/lib/x86_64-linux-gnu:$src/usr/lib/x86_64-linux-gnu progs=""
    mkdir -p "$1/lib/systemd" "$1/lib/udev/rules.d" "$1/lib/udev/hwdb.d" "$1/usr/share" "$1/run"
    for p in bin/udevadm bin/systemd-hwdb usr/bin/libinput usr/libexec/libinput/libinput-debug-events \
        usr/libexec/libinput/libinput-list-devices lib/udev/libinput-device-group \
        lib/udev/libinput-fuzz-extract lib/udev/libinput-fuzz-to-zero; do
        mkdir -p "$1/${p%/*}" && cp "$src/$p" "$1/$p" && progs="$progs $1/$p"
    done
    ln -sf /bin/udevadm "$1/lib/systemd/systemd-udevd"
    for r in $LIBINPUT_RULES; do cp "$src/lib/udev/rules.d/$r.rules" "$1/lib/udev/rules.d/"; done
    for h in $LIBINPUT_HWDB; do cp "$src/lib/udev/hwdb.d/$h.hwdb" "$1/lib/udev/hwdb.d/"; done
    LD_LIBRARY_PATH=$libs "$src/bin/systemd-hwdb" --root "$1" update || {
        echo "run-vm: systemd-hwdb could not compile the input hwdb" >&2; return 1; }
    cp -r "$src/usr/share/libinput" "$src/usr/share/libwacom" "$1/usr/share/"
    missing=$(LD_LIBRARY_PATH=$libs ldd $progs 2>&1 | grep 'not found' | sort -u)
    [ -z "$missing" ] || { echo "run-vm: libraries missing for udev/libinput: $missing" >&2; return 1; }
    # The libraries the programs load, at their paths under the root.
    for lib in $(LD_LIBRARY_PATH=$libs ldd $progs | awk '$2 == "=>" && $3 ~ /^\// { print $3 }
        $1 ~ /^\// && $2 ~ /^\(0x/ { print $1 }' | sort -u); do
        dest=${lib#"$src"} && mkdir -p "$1${dest%/*}" && cp -L "$lib" "$1$dest"
    done
    mkdir -p "$1/bed/platform" && cp -r "$REPO/platform/linux" "$1/bed/platform/"
    printf 'root:x:0:0:root:/tmp:/bin/sh\nnobody:x:65534:65534:nobody:/:/bin/false\n' > "$1/etc/passwd"
    printf '%s:x:%s:\n' root 0 input 101 video 44 audio 29 kvm 102 render 103 plugdev 46 nogroup 65534 > "$1/etc/group"
}
