# Security: each line of cases is one regression case run by a fresh daemon (play_case in
# /bed/lib.sh); both cases start their daemons and controllers themselves.
. ../usb-touch/touch-env.sh

# Local users against the daemon, one round per attack (table below), each on
# a fresh /data with the daemon started anew. The attacker is uid 65534;
# "member" (uid 601) is in the group "tavrine" (gid 600) that the install
# gives the data directory for the maintenance tool; "system" (uid 1000) may
# write /data as on Android. After each attack the round checks that no file
# outside /data changed (md5 of the files the attack aimed at), that a touch
# still reaches the touch device (not diverted to the tool pipe, not blinded),
# and that the daemon still runs; it notes the daemon's refusal lines.
attacks() {
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
        if [ "$controller" = serial ]; then start_sim serial.scn; else start_sim ../usb-touch/pcap4155.scn; fi
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
}

# Descriptor inheritance: every command the daemon starts inherits standard
# input, output and error and nothing else, while the daemon holds the
# controller's hidraw node, two uinput devices, both tool FIFOs and the
# syslog socket, and although its own starter left two descriptors open. /bin/sh is replaced for the scenario's length by
# fd-probe.sh, which records the descriptors of each shell the daemon starts
# (the one it opened itself to read its script is left out by name).
fd_inheritance() {
    set -f  # descriptor targets such as pipe:[123] are words, not patterns

    PROBE=/tmp/fd-probe/sh
    LOG=/tmp/fd-probe.log
    SYSLOG_PID=
    restore_sh() { ln -sf busybox /bin/sh; }
    cleanup() {
        restore_sh
        if [ -n "$SYSLOG_PID" ]; then kill "$SYSLOG_PID" 2>/dev/null; fi
    }
    trap cleanup EXIT

    has_input() { grep -q "^N: Name=\"$1\"$" /proc/bus/input/devices; }
    # Descriptors of the probe log lines from line $1 on that are not 0, 1, 2 or
    # the probe's own script, one "command @fds: N=TARGET" per line.
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

    # The syslog socket of the daemon's platform log stays connected only when
    # something listens on /dev/log.
    syslogd -n -O /tmp/messages &
    SYSLOG_PID=$!
    wait_until '[ -S /dev/log ]' 50

    mkdir -p /tmp/fd-probe
    cp fd-probe.sh "$PROBE"
    chmod 755 "$PROBE"
    ln -sf "$PROBE" /bin/sh
    rm -f "$LOG"

    # Control: a descriptor a shell inherits is reported.
    FD_PROBE_ALL=1 /bin/sh -c true 7< /proc/version
    extras_from 1 | grep -q ' 7=/proc/version$' && step "control: an inherited descriptor is reported" ||
        step "control: an inherited descriptor is missed"
    rm -f "$LOG"

    # DeviceNums 2 lets a second controller be served while the first is open;
    # ShowDebugPosition 2 sends the log to the syslog socket as well;
    # DebugEnableBits 3 adds the <Init> lines of the receive thread.
    write_settings 1
    sed -i 's/^DeviceNums 1$/DeviceNums 2/; s/^ShowDebugPosition 0$/ShowDebugPosition 2/; s/^DebugEnableBits 1$/DebugEnableBits 3/' /data/TavrineA.ini
    start_sim loopback.scn && step "controller plugged"
    # Started with two descriptors of its own starter open (7 and 9): the daemon
    # must close them, or every command it runs inherits them too.
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

    # Commands started while the first controller is open: a second controller
    # plugged now is set up by a receive thread of its own, which runs its
    # commands while the daemon holds everything listed above. (The scan loop
    # runs no command while the USB bus keeps the same devices.)
    open_from=$(($(lines) + 1))
    tavrine-sim loopback.scn --log "$OUT/sim2.log" --ready /tmp/sim2.ready &
    SIM2_PID=$!
    wait_until '[ "$(grep -c "^N: Name=\"MorvelTouch_VirtualDevice\"$" /proc/bus/input/devices)" -ge 2 ]' 300
    [ "$(lines)" -ge "$open_from" ] &&
        step "commands started with a device open: 1 or more" ||
        step "commands started with a device open: none"
    stop_pid "$SIM2_PID"
    wait_until '[ "$(grep -c "^N: Name=\"MorvelTouch_VirtualDevice\"$" /proc/bus/input/devices)" -le 1 ]' 150

    # Unplug: the receive thread removes the stale node through a shell while it
    # still holds the port and its uinput devices; when the kernel has already
    # removed the node there is nothing to remove and the daemon says so. Either
    # controller's unplug may be the one that shows it (the main thread's own
    # plug-and-play check can retire a device before its thread reads the end).
    stop_pid "$SIM_PID"
    step "controller unplugged"
    wait_until 'grep -q -e "^-c rm /dev/hidraw[0-9]* @fds:" "$LOG" ||
        grep -q "Port path \[/dev/hidraw[0-9]*\] is not a device node under /dev" /data/Tavrine_*.log' 150 &&
        step "stale port node from the receive thread: removed or already gone" ||
        step "stale port node from the receive thread: neither removed nor reported gone"
    wait_until '! has_input MorvelTouch_VirtualDevice && ! has_input MorvelTouch_VirtualPen' 150
    restore_sh

    grep -q ' 1=/data/tmpDrvLog .* 2=/data/tmpDrvLog' "$LOG" &&
        step "captured output: standard output and error on /data/tmpDrvLog" ||
        step "captured output: not seen"
    cp "$LOG" "$OUT/fd-probe.log"
    extras_from 1 > "$OUT/extras.txt"
    if [ -s "$OUT/extras.txt" ]; then
        step "descriptors beyond 0, 1, 2: see extras.txt"
    else
        step "descriptors beyond 0, 1, 2: none"
    fi
    echo "$(lines) commands probed" > "$OUT/count.txt"
}

play_case
