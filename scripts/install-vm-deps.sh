#!/bin/sh
# Installs what the VM test bed needs: qemu, a static busybox, a stock Debian
# kernel and Debian's udev and libinput unpacked into a cache outside the work
# tree. Idempotent: a second run with everything present does nothing and
# needs no network.
set -eu

CACHE="${TAVRINE_CACHE:-$HOME/.cache/tavrine}"
KDIR="$CACHE/kernel"

die() { echo "install-vm-deps: $*" >&2; exit 1; }

installed() {
    dpkg-query -W -f='${Status}' "$1" 2>/dev/null | grep -q 'ok installed'
}

# busybox-static, not busybox: the initramfs has no shared libraries.
have_tools() {
    installed qemu-system-x86 && installed busybox-static && command -v qemu-system-x86_64 >/dev/null 2>&1 &&
        [ -x /bin/busybox ]
}

install_tools() {
    have_tools && return 0
    [ "$(id -u)" = 0 ] || die "qemu-system-x86 and busybox-static are missing; run as root to install them"
    export DEBIAN_FRONTEND=noninteractive
    apt-get update -qq || die "apt-get update failed"
    apt-get install -y -qq --no-install-recommends qemu-system-x86 busybox-static >/dev/null ||
        die "apt-get install qemu-system-x86 busybox-static failed"
    have_tools || die "qemu-system-x86_64 or a static busybox is still missing after install"
}

# Prints the versioned kernel package that linux-image-amd64 depends on.
resolve_kernel_package() {
    apt-cache depends linux-image-amd64 2>/dev/null |
        awk '/Depends: linux-image-[0-9]/ { print $2; exit }'
}

install_kernel() {
    if [ -f "$KDIR/ready" ]; then return 0; fi
    pkg=$(resolve_kernel_package)
    if [ -z "$pkg" ]; then
        apt-get update -qq || true
        pkg=$(resolve_kernel_package)
    fi
    [ -n "$pkg" ] || die "cannot resolve the package behind linux-image-amd64 (apt-cache depends found nothing)"
    tmp="$CACHE/download.$$"
    rm -rf "$tmp" "$KDIR"
    mkdir -p "$tmp"
    (cd "$tmp" && apt-get download -qq "$pkg" >/dev/null 2>&1) || { rm -rf "$tmp"; die "apt-get download $pkg failed"; }
    deb=$(ls "$tmp"/*.deb 2>/dev/null | head -n 1)
    [ -n "$deb" ] || { rm -rf "$tmp"; die "no .deb for $pkg after download"; }
    mkdir -p "$KDIR"
    dpkg -x "$deb" "$KDIR/root" || { rm -rf "$tmp" "$KDIR"; die "dpkg -x $deb failed"; }
    rm -rf "$tmp"
    vmlinuz=$(ls "$KDIR"/root/boot/vmlinuz-* 2>/dev/null | head -n 1)
    [ -n "$vmlinuz" ] || die "the package $pkg has no /boot/vmlinuz-*"
    ln -sf "$vmlinuz" "$KDIR/vmlinuz"
    echo "$pkg" > "$KDIR/ready"
}

# udev and libinput for the scenarios that check the daemon's devices with the desktop's
# own reader (tests/vm/scenarios/*/needs-libinput): Debian's packages and the libraries they
# load, downloaded and unpacked into the cache (libc comes from the host). Not installed on
# the host: udev would pull a systemd upgrade, libinput-tools a GTK stack.
LIBINPUT_PACKAGES="udev libudev1 libinput10 libinput-bin libinput-tools libwacom9 libwacom-common
    libevdev2 libmtdev1 libgudev-1.0-0 libglib2.0-0 libffi8 libpcre2-8-0 libacl1 libblkid1 libcap2
    libkmod2 liblzma5 libzstd1 libssl3 libselinux1"

install_libinput() {
    if [ -f "$LDIR/ready" ]; then return 0; fi
    tmp="$CACHE/libinput-download.$$"
    rm -rf "$tmp" "$LDIR"
    mkdir -p "$tmp"
    # shellcheck disable=SC2086 # one word per package
    if ! (cd "$tmp" && apt-get download -qq $LIBINPUT_PACKAGES >/dev/null 2>&1); then
        apt-get update -qq || true   # a fresh machine may have no package lists yet
        (cd "$tmp" && apt-get download -qq $LIBINPUT_PACKAGES >/dev/null 2>&1) ||
            { rm -rf "$tmp"; die "apt-get download of the udev and libinput packages failed"; }
    fi
    mkdir -p "$LDIR/root"
    for deb in "$tmp"/*.deb; do
        dpkg -x "$deb" "$LDIR/root" || { rm -rf "$tmp" "$LDIR"; die "dpkg -x $deb failed"; }
    done
    rm -rf "$tmp"
    [ -x "$LDIR/root/usr/libexec/libinput/libinput-debug-events" ] && [ -x "$LDIR/root/bin/udevadm" ] ||
        die "the unpacked packages have no libinput-debug-events or udevadm"
    echo "$LIBINPUT_PACKAGES" | tr -s ' \n' ' ' > "$LDIR/ready"
}

LDIR="$CACHE/libinput"
mkdir -p "$CACHE"
install_tools
install_kernel
install_libinput
echo "install-vm-deps: ready (kernel $(cat "$KDIR/ready"), udev and libinput in $LDIR, cache $CACHE)"
