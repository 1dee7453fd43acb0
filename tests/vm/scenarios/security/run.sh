# Security regressions, one case a line of cases; each case plugs its own controllers.
. ../usb-touch/touch-env.sh

# Local users (attacker 65534; system 1000, who may write /data as on Android) against the
# daemon, one round per attack on a fresh /data and daemon; then the files aimed at are
# unchanged, a touch still arrives, the daemon runs, and its refusals are noted.
attacks() {
    # name, platform (android: getprop answers 9), mode of /data, controller
    CASES='pipe-world linux 0755 serial
    pipe-planted android 0771 serial
    serial-files linux 0771 serial
    uinput-file linux 0771 usb
    hardlinks linux 0777 usb'
    SEC=/tmp/sec
    root_mode=$(stat -c %a /)
    hardlinks=$(cat /proc/sys/fs/protected_hardlinks)
    cp /etc/passwd /tmp/passwd.orig 2>/dev/null
    cleanup() {
        chmod "$root_mode" /
        echo "$hardlinks" > /proc/sys/fs/protected_hardlinks
        cp /tmp/passwd.orig /etc/passwd 2>/dev/null || rm -f /etc/passwd
        if grep -q " $SEC " /proc/mounts; then
            [ "$(grep -c ' /data ' /proc/mounts)" -gt 1 ] && umount /data
            umount "$SEC"
        fi
        chown 0:0 /data
        chmod 0771 /data
    }
    trap cleanup EXIT
    chmod 755 /  # the initramfs root is 0700: every attack would fail for the wrong reason
    printf 'attacker:x:65534:65534::/tmp:/bin/sh\nsystem:x:1000:1000::/tmp:/bin/sh\n' >> /etc/passwd
    step "modes relied on: / $(stat -c %a /), /tmp $(stat -c %a /tmp), /bed/bin $(stat -c %a /bed/bin), TavrineD $(stat -c %a /bed/bin/TavrineD)"

    # as USER COMMAND: "ok" or "failed: <error>" (a write to a FIFO nobody reads ends after 3 s).
    as() {
        local out rc
        out=$(timeout 3 su -s /bin/sh "$1" -c "$2" 2>&1)
        rc=$?
        if [ "$rc" = 0 ]; then echo ok
        elif [ -z "$out" ]; then echo "failed: no reader (ended after 3 s)"
        else echo "failed: ${out##*: }"; fi
    }
    note() { step "$NAME: $*"; }
    switch_by() { note "$1 writes the report switch: $(as "$1" "printf '\012\002\064\000' > /data/MorvelPipe_in")"; }
    refusals() {
        grep -o 'Refused [^:]*: .*\|Tool pipe [^:]*refused: .*\|Unable to open assigned uninput path.*' "$1" 2>/dev/null |
            sort -u | sed "s|^|$NAME: logged: |" >> "$OUT/steps.txt"
    }
    settings() {  # SCAN SERIALPATH...
        local scan=$1 p
        shift
        printf '[TavrineA.ini]\nDebugEnableBits 4fffff\nShowDebugPosition 0\nDeviceNums %s\nScanInterface %s\n[String]\n' \
            "${DEVICES:-1}" "$scan" > /data/TavrineA.ini
        for p in "$@"; do printf 'SerialPath %s\n' "$p" >> /data/TavrineA.ini; done
        [ -n "$UINPUT" ] && printf 'UinputPath %s\n' "$UINPUT" >> /data/TavrineA.ini
        printf '\n[Device_No.0]\nPhysical_Address %s\nSupportPoints 5\nVKEYReportMod 1\n[EndOfDevice]\n[EndOfFile]' \
            "${ADDRESS:-}" >> /data/TavrineA.ini
    }

    # /data 0755 (the former advice): the switch, 100 speed searches, reading the touches.
    attack_pipe_world() {
        switch_by attacker
        note "attacker writes 100 reset commands: $(as attacker 'i=0; while [ $i -lt 100 ]; do printf "\012\003\122\072\377"; i=$((i+1)); done > /data/MorvelPipe_in')"
    }
    after_touch_pipe_world() {
        note "attacker read from the output pipe: $(timeout 2 su -s /bin/sh attacker -c 'head -c 256 /data/MorvelPipe_out' 2>/dev/null | wc -c | tr -d ' ') bytes"
    }
    # Android: the system user makes the input pipe first, mode 0666.
    plant_pipe_planted() {
        chgrp 1000 /data
        su -s /bin/sh system -c 'mkfifo /data/MorvelPipe_in && chmod 666 /data/MorvelPipe_in'
        note "planted: $(stat -c '%a %u' /data/MorvelPipe_in)"
    }
    attack_pipe_planted() {
        note "output pipe: $(stat -c '%a %u' /data/MorvelPipe_out 2>&1)"
        switch_by attacker
    }
    # Serial paths naming the settings file and a lure that reads like an answer (0A 01 41).
    plant_serial_files() {
        printf '\001\002\003\012\001\101\012\001\101' > "$SEC/lure"
        cp /data/TavrineA.ini "$SEC/settings.copy"
    }
    same_settings() { cmp -s "$SEC/settings.copy" /data/TavrineA.ini && note "settings file unchanged" || note "settings file changed"; }
    attack_serial_files() {
        same_settings
        note "lure: $([ -f "$SEC/lure" ] && echo still there || echo removed)"
    }
    # UinputPath naming a regular file.
    plant_uinput_file() { echo keep > "$SEC/uinput"; }
    attack_uinput_file() { note "uinput lure: $(wc -c < "$SEC/uinput" 2>/dev/null) bytes"; }
    # /data 0777, fs.protected_hardlinks 0: PID file and settings copy linked to files outside
    # /data before the start (through the tmpfs's own mount: the bind mount refuses links),
    # the log file after it.
    plant_hardlinks() {
        echo 0 > /proc/sys/fs/protected_hardlinks
        note "fs.protected_hardlinks: $(cat /proc/sys/fs/protected_hardlinks)"
        for v in pid tmp log; do echo "$v-victim" > "$SEC/$v-victim"; done
        chmod 644 "$SEC"/*-victim
        note "attacker links TouchPID: $(as attacker "ln $SEC/pid-victim $SEC/data/TouchPID")"
        note "attacker links TavrineA.tmp: $(as attacker "ln $SEC/tmp-victim $SEC/data/TavrineA.tmp")"
        cp /data/TavrineA.ini "$SEC/settings.copy"
    }
    attack_hardlinks() {
        local log=$(daemon_log)
        refusals "$log"  # the attack removes this log
        same_settings
        note "attacker links the log file: $(as attacker "rm -f $log && ln $SEC/log-victim $SEC/data/${log##*/}")"
        sleep 1
    }

    round() {
        NAME=$1 platform=$2 mode=$3 controller=$4
        local fn=$(echo "$NAME" | tr - _) getprop_path=
        rm -rf /data/* "$SEC"
        mkdir -p "$SEC"
        DEVICES= UINPUT= ADDRESS=
        if [ "$NAME" = hardlinks ]; then  # /data on the victims' tmpfs
            mount -t tmpfs sec "$SEC"
            mkdir "$SEC/data"
            mount -o bind "$SEC/data" /data
            DEVICES=2 ADDRESS=usb-elsewhere/input0
        fi
        chown 0:0 /data
        chmod "$mode" /data
        [ "$platform" = android ] && getprop_path=/tmp/touchbin:
        [ "$NAME" = uinput-file ] && UINPUT=$SEC/uinput
        case $controller/$NAME in
        serial/serial-files) settings 2 /data/TavrineA.ini "$SEC/lure" /dev/ttyTAV0 ;;
        serial/*) settings 2 /dev/ttyTAV0 ;;
        *) settings 1 ;;
        esac
        command -v "plant_$fn" > /dev/null && "plant_$fn"
        md5sum "$SEC"/* > /tmp/sums.before 2>/dev/null
        if [ "$controller" = serial ]; then start_sim serial.scn; else start_sim ../usb-touch/pcap4155.scn; fi
        PATH=$getprop_path$PATH TavrineD -f > "$OUT/start-$NAME.out" 2>&1
        wait_until '[ -n "$(pid_file_pid)" ] || [ -n "$(daemon_log)" ]' 100
        # The attack comes once the receive loop runs (set-up's exchanges would take touches).
        wait_until 'grep -q "Entering DevRxLoop\|DevSetup failed" "$(daemon_log)" 2>/dev/null' 300 ||
            note "set-up not seen"
        sleep 0.5
        PID=$(daemon_pids | head -n 1)
        "attack_$fn"
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
        md5sum "$SEC"/* > /tmp/sums.after 2>/dev/null
        cmp -s /tmp/sums.before /tmp/sums.after && note "files outside /data unchanged" ||
            { note "files outside /data changed:"; diff /tmp/sums.before /tmp/sums.after >> "$OUT/steps.txt"; }
        note "daemon running: $(is_daemon "$PID" && echo yes || echo no)"
        refusals "$(daemon_log)"
        cp "$(daemon_log)" "$OUT/daemon-$NAME.log" 2>/dev/null
        kill -9 $(daemon_pids) 2>/dev/null
        stop_pid "$SIM_PID"
        mv "$OUT/sim.log" "$OUT/sim-$NAME.log"
        wait_until '[ ! -e /dev/hidraw0 ]' 30
        rm -rf /data/*  # hardlinks comes last: the exit trap undoes its mounts
    }
    echo "$CASES" | while read -r name platform mode controller; do round "$name" "$platform" "$mode" "$controller"; done
}

# Descriptor inheritance: each command the daemon starts inherits descriptors 0-2 only, while
# the daemon holds hidraw, uinput, both FIFOs and the syslog socket and its starter left two
# open. fd-probe.sh stands in for /bin/sh and logs each daemon-started shell's descriptors.
fd_inheritance() {
    set -f  # descriptor targets such as pipe:[123] are words, not patterns
    PROBE=/tmp/fd-probe/sh
    LOG=/tmp/fd-probe.log
    SYSLOG_PID=
    trap 'ln -sf busybox /bin/sh; [ -n "$SYSLOG_PID" ] && kill "$SYSLOG_PID" 2>/dev/null' EXIT
    # Descriptors logged from line $1 on other than 0, 1, 2 and the probe's own script.
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
    touches() { grep -c '^N: Name="MorvelTouch_VirtualDevice"$' /proc/bus/input/devices; }
    syslogd -n -O /tmp/messages &  # the daemon's syslog socket stays connected only to a listener
    SYSLOG_PID=$!
    wait_until '[ -S /dev/log ]' 50
    mkdir -p /tmp/fd-probe
    cp fd-probe.sh "$PROBE"
    chmod 755 "$PROBE"
    ln -sf "$PROBE" /bin/sh
    rm -f "$LOG"
    FD_PROBE_ALL=1 /bin/sh -c true 7< /proc/version
    extras_from 1 | grep -q ' 7=/proc/version$' && step "control: an inherited descriptor is reported" ||
        step "control: an inherited descriptor is missed"
    rm -f "$LOG"

    # Two devices; log to syslog too; <Init> lines of the receive thread.
    write_settings 1
    sed -i 's/^DeviceNums 1$/DeviceNums 2/; s/^ShowDebugPosition 0$/ShowDebugPosition 2/; s/^DebugEnableBits 1$/DebugEnableBits 3/' /data/TavrineA.ini
    start_sim loopback.scn && step "controller plugged"
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

    # A second controller is set up by its own receive thread, which runs commands while the
    # daemon holds all the above.
    open_from=$(($(lines) + 1))
    tavrine-sim loopback.scn --log "$OUT/sim2.log" --ready /tmp/sim2.ready &
    SIM2_PID=$!
    wait_until '[ "$(touches)" -ge 2 ]' 300
    [ "$(lines)" -ge "$open_from" ] && step "commands started with a device open: 1 or more" ||
        step "commands started with a device open: none"
    stop_pid "$SIM2_PID"
    wait_until '[ "$(touches)" -le 1 ]' 150

    stop_pid "$SIM_PID"
    wait_until '! has_input MorvelTouch_VirtualDevice && ! has_input MorvelTouch_VirtualPen' 150
    ln -sf busybox /bin/sh
    grep -q ' 1=/data/tmpDrvLog .* 2=/data/tmpDrvLog' "$LOG" &&
        step "captured output: standard output and error on /data/tmpDrvLog" || step "captured output: not seen"
    cp "$LOG" "$OUT/fd-probe.log"
    extras_from 1 > "$OUT/extras.txt"
    [ -s "$OUT/extras.txt" ] && step "descriptors beyond 0, 1, 2: see extras.txt" || step "descriptors beyond 0, 1, 2: none"
    echo "$(lines) commands probed" > "$OUT/count.txt"
}

play_case
