# Local users against the daemon, one round per attack (table below), each on
# a fresh /data with the daemon started anew. The attacker is uid 65534;
# "member" (uid 601) is in the group "tavrine" (gid 600) that the install
# gives the data directory for the maintenance tool; "system" (uid 1000) may
# write /data as on Android. After each attack the round checks that no file
# outside /data changed (md5 of the files the attack aimed at), that a touch
# still reaches the touch device (not diverted to the tool pipe, not blinded),
# and that the daemon still runs; it notes the daemon's refusal lines.
. ../touch-devices/touch-env.sh

# Rounds: name, platform (linux: no getprop; android: getprop answers 9),
# mode of /data, controller (serial, usb). The function attack_<name> runs
# the attack; plant_<name>, when defined, prepares /data before the start.
CASES='
pipe-world     linux   0755 serial
pipe-group     linux   0750 serial
pipe-planted   android 0771 serial
serial-files   linux   0771 serial
uinput-file    linux   0771 usb
hardlinks      linux   0777 usb
'

SEC=/tmp/sec               # files outside /data that attacks aim at
root_mode=$(stat -c %a /)
hardlinks=$(cat /proc/sys/fs/protected_hardlinks)
cp /etc/passwd /tmp/passwd.orig 2>/dev/null
cp /etc/group /tmp/group.orig 2>/dev/null
cleanup() {
    chmod "$root_mode" /
    echo "$hardlinks" > /proc/sys/fs/protected_hardlinks
    cp /tmp/passwd.orig /etc/passwd 2>/dev/null || rm -f /etc/passwd
    cp /tmp/group.orig /etc/group 2>/dev/null || rm -f /etc/group
    # The hardlinks round's mounts, if a failure left them.
    if grep -q " $SEC " /proc/mounts; then
        [ "$(grep -c ' /data ' /proc/mounts)" -gt 1 ] && umount /data
        umount "$SEC"
    fi
    chown 0:0 /data
    chmod 0771 /data
}
trap cleanup EXIT
# A root made by mktemp is 0700: nobody but root would reach anything, and
# every attack would fail for the wrong reason.
chmod 755 /
printf 'attacker:x:65534:65534::/tmp:/bin/sh\nmember:x:601:601::/tmp:/bin/sh\nsystem:x:1000:1000::/tmp:/bin/sh\n' >> /etc/passwd
printf 'tavrine:x:600:member\n' >> /etc/group
step "modes relied on: / $(stat -c %a /), /tmp $(stat -c %a /tmp), /bed/bin $(stat -c %a /bed/bin), TavrineD $(stat -c %a /bed/bin/TavrineD)"

# as USER COMMAND: "ok", or "failed: <the shell's error>" (a write into a
# FIFO that nobody reads waits, and is ended after 3 s).
as() {
    local out rc
    out=$(timeout 3 su -s /bin/sh "$1" -c "$2" 2>&1)
    rc=$?
    if [ "$rc" = 0 ]; then echo ok
    elif [ -z "$out" ]; then echo "failed: no reader (ended after 3 s)"
    else echo "failed: ${out##*: }"; fi
}
# Bytes USER can read from the output pipe within 2 s.
read_out() {
    timeout 2 su -s /bin/sh "$1" -c 'head -c 256 /data/MorvelPipe_out' 2>/dev/null | wc -c | tr -d ' '
}
log_file() { ls /data/Tavrine_*.log 2>/dev/null | head -n 1; }
sums() { md5sum "$SEC"/* 2>/dev/null; }
note() { step "$NAME: $*"; }
# The daemon's refusals in log $1, each once.
logged() {
    grep -o 'Refused [^:]*: .*\|Tool pipe [^:]*refused: .*\|Unable to open assigned uninput path.*' "$1" 2>/dev/null |
        sort -u | sed "s|^|$NAME: logged: |" >> "$OUT/steps.txt"
}

settings() {  # SCAN SERIALPATH... (DeviceNums 2 when set by the round)
    local scan=$1 p
    shift
    printf '[TavrineA.ini]\nDebugEnableBits 4fffff\nShowDebugPosition 0\nDeviceNums %s\nScanInterface %s\n[String]\n' \
        "${DEVICES:-1}" "$scan" > /data/TavrineA.ini
    for p in "$@"; do printf 'SerialPath %s\n' "$p" >> /data/TavrineA.ini; done
    [ -n "$UINPUT" ] && printf 'UinputPath %s\n' "$UINPUT" >> /data/TavrineA.ini
    printf '\n[Device_No.0]\nPhysical_Address %s\nSupportPoints 5\nVKEYReportMod 1\n[EndOfDevice]\n[EndOfFile]' \
        "${ADDRESS:-}" >> /data/TavrineA.ini
}

# --- the attacks ----------------------------------------------------------

# The README's former advice, /data 0755: the tool switches the serial
# controller's touches to itself, reads them, and asks for 100 speed
# searches (each blinds the screen for its length).
attack_pipe_world() {
    note "attacker writes the report switch: $(as attacker "printf '\012\002\064\000' > /data/MorvelPipe_in")"
    note "attacker writes 100 reset commands: $(as attacker 'i=0; while [ $i -lt 100 ]; do printf "\012\003\122\072\377"; i=$((i+1)); done > /data/MorvelPipe_in')"
}
after_touch_pipe_world() { note "attacker read from the output pipe: $(read_out attacker) bytes"; }

# The install: /data 0750 root:tavrine. Others cannot reach the pipes; a
# member of the group drives the relay as before.
plant_pipe_group() { chgrp 600 /data; }
attack_pipe_group() {
    note "pipes: $(stat -c '%a %g' /data/MorvelPipe_in /data/MorvelPipe_out 2>&1 | tr '\n' ' ')"
    note "attacker writes the report switch: $(as attacker "printf '\012\002\064\000' > /data/MorvelPipe_in")"
    timeout 3 su -s /bin/sh member -c 'head -c 3 /data/MorvelPipe_out' > /tmp/member.out 2>&1 &
    local reader=$!
    sleep 0.3
    note "member writes a loop-back: $(as member "printf '\012\001\101' > /data/MorvelPipe_in")"
    wait "$reader"
    note "member reads: $(od -An -tx1 /tmp/member.out | tr -s ' ' | sed 's/^ //')"
}

# Android: a process of the system user (which may write /data there) makes
# the input pipe before the daemon does, mode 0666, and writes the switch.
plant_pipe_planted() {
    chgrp 1000 /data
    su -s /bin/sh system -c 'mkfifo /data/MorvelPipe_in && chmod 666 /data/MorvelPipe_in'
    note "planted: $(stat -c '%a %u' /data/MorvelPipe_in)"
}
attack_pipe_planted() {
    note "output pipe: $(stat -c '%a %u' /data/MorvelPipe_out 2>&1)"
    note "attacker writes the report switch: $(as attacker "printf '\012\002\064\000' > /data/MorvelPipe_in")"
}

# Serial paths naming the settings file itself and a file that reads back
# like a controller's answer (bytes 3-5 are 0A 01 41), before the real port.
plant_serial_files() {
    printf '\001\002\003\012\001\101\012\001\101' > "$SEC/lure"
    cp /data/TavrineA.ini "$SEC/settings.copy"
}
attack_serial_files() {
    cmp -s "$SEC/settings.copy" /data/TavrineA.ini && note "settings file unchanged" || note "settings file changed"
    note "lure: $([ -f "$SEC/lure" ] && echo still there || echo removed)"
}

# UinputPath naming a regular file.
plant_uinput_file() { echo keep > "$SEC/uinput"; }
attack_uinput_file() { note "uinput lure: $(wc -c < "$SEC/uinput" 2>/dev/null) bytes"; }

# /data writable by everyone and fs.protected_hardlinks 0: the attacker links
# the PID file and the settings copy to files outside /data before the start,
# and the log file after it.
plant_hardlinks() {
    echo 0 > /proc/sys/fs/protected_hardlinks
    note "fs.protected_hardlinks: $(cat /proc/sys/fs/protected_hardlinks)"
    echo pid-victim > "$SEC/pid-victim"
    echo tmp-victim > "$SEC/tmp-victim"
    echo log-victim > "$SEC/log-victim"
    chmod 644 "$SEC"/*-victim
    # Linked through the file system's own mount: a link across the bind mount
    # of /data would be refused as a cross-device link.
    note "attacker links TouchPID: $(as attacker "ln $SEC/pid-victim $SEC/data/TouchPID")"
    note "attacker links TavrineA.tmp: $(as attacker "ln $SEC/tmp-victim $SEC/data/TavrineA.tmp")"
    cp /data/TavrineA.ini "$SEC/settings.copy"
}
attack_hardlinks() {
    local log
    log=$(log_file)
    logged "$log"   # the attack below removes this log
    cmp -s "$SEC/settings.copy" /data/TavrineA.ini && note "settings file unchanged" || note "settings file changed"
    note "attacker links the log file: $(as attacker "rm -f $log && ln $SEC/log-victim $SEC/data/${log##*/}")"
    sleep 1  # the scan loop logs on
}

# --- one round -------------------------------------------------------------

round() {
    NAME=$1 platform=$2 mode=$3 controller=$4
    local fn=$(echo "$NAME" | tr - _) path getprop_path=
    rm -rf /data/* "$SEC"
    mkdir -p "$SEC"
    DEVICES= UINPUT= ADDRESS=
    if [ "$NAME" = hardlinks ]; then
        # The victims must share a file system with /data: /data becomes a
        # directory of the tmpfs that holds them.
        mount -t tmpfs sec "$SEC"
        mkdir "$SEC/data"
        mount -o bind "$SEC/data" /data
        DEVICES=2 ADDRESS=usb-elsewhere/input0
    fi
    chown 0:0 /data
    chmod "$mode" /data
    [ "$platform" = android ] && getprop_path=/tmp/touchbin:
    [ "$NAME" = uinput-file ] && UINPUT=$SEC/uinput
    if [ "$controller" = serial ]; then
        case $NAME in
        serial-files) settings 2 /data/TavrineA.ini "$SEC/lure" /dev/ttyTAV0 ;;
        *) settings 2 /dev/ttyTAV0 ;;
        esac
    else
        settings 1
    fi
    command -v "plant_$fn" > /dev/null && "plant_$fn"
    sums > /tmp/sums.before
    if [ "$controller" = serial ]; then start_sim serial.scn; else start_sim ../fault-data-dir/sim.scn; fi
    PATH=$getprop_path$PATH TavrineD -f > "$OUT/start-$NAME.out" 2>&1
    wait_until '[ -n "$(pid_file_pid)" ] || [ -n "$(log_file)" ]' 100
    # The attack comes once the device's receive loop runs (set-up's own
    # command exchanges would take touches in meanwhile).
    wait_until 'grep -q "Entering DevRxLoop\|DevSetup failed" "$(log_file)" 2>/dev/null' 300 ||
        note "set-up not seen"
    sleep 0.5
    PID=$(daemon_pids | head -n 1)
    "attack_$fn"

    # A touch and its lift, then the device trace.
    if has_input MorvelTouch_VirtualDevice; then
        rm -f /tmp/touch.evrec.ready
        start_evrec MorvelTouch_VirtualDevice "touch-$NAME.trace" --ready /tmp/touch.evrec.ready --wait-ms 3000 --idle-ms 2000
        wait_until '[ -e /tmp/touch.evrec.ready ]' 50
        if [ "$controller" = serial ]; then
            sim_do send 81 08 10 04 20; sleep 0.2; sim_do send 80 08 10 04 20
        else
            sim_do send 06 01 01 00 e8 03 d0 07; sleep 0.2; sim_do send 06 01 00 00 e8 03 d0 07
        fi
        wait "$EVREC_PID"
        note "touch on the screen: $(grep -q ' 0003 0035 ' "$OUT/touch-$NAME.trace" && echo yes || echo no)"
    else
        note "touch device: none"
    fi
    command -v "after_touch_$fn" > /dev/null && "after_touch_$fn"
    sums > /tmp/sums.after
    cmp -s /tmp/sums.before /tmp/sums.after && note "files outside /data unchanged" ||
        { note "files outside /data changed:"; diff /tmp/sums.before /tmp/sums.after >> "$OUT/steps.txt"; }
    note "daemon running: $(is_daemon "$PID" && echo yes || echo no)"
    logged "$(log_file)"
    cp "$(log_file)" "$OUT/daemon-$NAME.log" 2>/dev/null

    kill -9 $(daemon_pids) 2>/dev/null
    stop_pid "$SIM_PID"
    mv "$OUT/sim.log" "$OUT/sim-$NAME.log"
    wait_until '[ ! -e /dev/hidraw0 ]' 30
    rm -rf /data/*
    if [ "$NAME" = hardlinks ]; then
        echo "$hardlinks" > /proc/sys/fs/protected_hardlinks
        umount /data
        umount "$SEC"
    fi
}

echo "$CASES" | while read -r name platform mode controller; do
    if [ -n "$name" ]; then round "$name" "$platform" "$mode" "$controller"; fi
done
