# Local users' attacks on the daemon, and the descriptors commands it starts inherit.

# Local users (attacker 65534, system 1000 as on Android), one attack a round on a fresh daemon.
attacks() {
    SEC=/tmp/sec
    root_mode=$(stat -c %a /) hardlinks=$(cat /proc/sys/fs/protected_hardlinks)
    cp /etc/passwd /tmp/passwd.orig 2>/dev/null
    trap 'chmod $root_mode /; echo $hardlinks > /proc/sys/fs/protected_hardlinks
          cp /tmp/passwd.orig /etc/passwd 2>/dev/null || rm -f /etc/passwd
          grep -q " $SEC " /proc/mounts && umount /data && umount $SEC; chown 0:0 /data; chmod 0771 /data' EXIT
    chmod 755 /  # the initramfs root is 0700: every attack would fail for the wrong reason
    printf 'attacker:x:65534:65534::/tmp:/bin/sh\nsystem:x:1000:1000::/tmp:/bin/sh\n' >> /etc/passwd

    as() {  # USER COMMAND: "ok" or "failed: <error>" (a write to a FIFO nobody reads ends after 3 s)
        out=$(timeout 3 su -s /bin/sh "$1" -c "$2" 2>&1) && echo ok || echo "failed: ${out:-no reader (ended after 3 s)}" | sed 's/: .*: /: /'
    }
    note() { step "$NAME: $*"; }
    switch_by() { note "$1 writes the report switch: $(as "$1" "printf '\012\002\064\000' > /data/MorvelPipe_in")"; }
    refusals() { grep -o 'Refused [^:]*: .*\|Tool pipe [^:]*refused: .*\|Unable to open assigned uninput path.*' "$1" |
        sort -u | sed "s|^|$NAME: logged: |" >> "$OUT/steps.txt"; }
    same_settings() { cmp -s "$SEC/settings.copy" /data/TavrineA.ini && note "settings file unchanged" || note "settings file changed"; }
    # hook PHASE: attack NAME's steps before the start, once the receive loop runs, after the touch.
    hook() {
        case $1/$NAME in
        # /data 0755 (the former advice): the report switch, reading the touches.
        attack/pipe-world) switch_by attacker ;;
        after/pipe-world)
            note "attacker read from the output pipe: $(timeout 2 su -s /bin/sh attacker -c 'head -c 256 /data/MorvelPipe_out' 2>/dev/null | wc -c | tr -d ' ') bytes" ;;
        # Android: the system user makes the input pipe first, mode 0666.
        plant/pipe-planted)
            chgrp 1000 /data
            su -s /bin/sh system -c 'mkfifo /data/MorvelPipe_in && chmod 666 /data/MorvelPipe_in' ;;
        attack/pipe-planted)
            note "output pipe: $(stat -c '%a %u' /data/MorvelPipe_out 2>&1)"
            switch_by attacker ;;
        # Serial paths naming the settings file and a lure that reads like an answer (0A 01 41).
        plant/serial-files)
            printf '\001\002\003\012\001\101\012\001\101' > "$SEC/lure"
            cp /data/TavrineA.ini "$SEC/settings.copy" ;;
        attack/serial-files) same_settings ;;
        plant/uinput-file) echo keep > "$SEC/uinput" ;;
        # /data 0777, unprotected hard links to files outside /data (made through the tmpfs mount).
        plant/hardlinks)
            echo 0 > /proc/sys/fs/protected_hardlinks
            for v in pid tmp log; do echo "$v-victim" > "$SEC/$v-victim" && chmod 644 "$SEC/$v-victim"; done
            note "attacker links TouchPID: $(as attacker "ln $SEC/pid-victim $SEC/data/TouchPID")"
            note "attacker links TavrineA.tmp: $(as attacker "ln $SEC/tmp-victim $SEC/data/TavrineA.tmp")"
            cp /data/TavrineA.ini "$SEC/settings.copy" ;;
        attack/hardlinks)
            log=$(daemon_log) && refusals "$log"  # the attack removes this log
            same_settings
            note "attacker links the log file: $(as attacker "rm -f $log && ln $SEC/log-victim $SEC/data/${log##*/}")"
            sleep 1 ;;
        esac
    }

    # name, PATH before the daemon's (/tmp/bin: getprop), mode of /data, ScanInterface, SerialPaths
    echo 'pipe-world - 0755 2 /dev/ttyTAV0
          pipe-planted /tmp/bin: 0771 2 /dev/ttyTAV0
          serial-files - 0771 2 /data/TavrineA.ini /tmp/sec/lure /dev/ttyTAV0
          uinput-file - 0771 1
          hardlinks - 0777 1' |
    while read -r NAME bin mode scan paths; do
        rm -rf /data/* "$SEC" && mkdir -p "$SEC"
        nums=1 address=
        if [ "$NAME" = hardlinks ]; then  # /data on the victims' tmpfs, a second device to add
            mount -t tmpfs sec "$SEC" && mkdir "$SEC/data" && mount -o bind "$SEC/data" /data
            nums=2 address=usb-elsewhere/input0
        fi
        chown 0:0 /data && chmod "$mode" /data
        { printf '[TavrineA.ini]\nDebugEnableBits 4fffff\nShowDebugPosition 0\nDeviceNums %s\nScanInterface %s\n[String]\n' $nums $scan
          for p in $paths; do echo "SerialPath $p"; done
          [ "$NAME" = uinput-file ] && echo "UinputPath $SEC/uinput"
          printf '\n[Device_No.0]\nPhysical_Address %s\nSupportPoints 5\nVKEYReportMod 1\n[EndOfDevice]\n[EndOfFile]' "$address"
        } > /data/TavrineA.ini
        hook plant
        md5sum "$SEC"/* > /tmp/sums.before 2>/dev/null
        if [ "$scan" = 2 ]; then start_sim serial.scn; else start_sim ../usb-touch/pcap4155.scn; fi
        PATH=${bin#-}$PATH TavrineD -f > "$OUT/start-$NAME.out" 2>&1
        wait_until 'grep -q "Entering DevRxLoop\|DevSetup failed" "$(daemon_log)" 2>/dev/null' 300 || note "set-up not seen"
        sleep 0.5
        PID=$(daemon_pids | head -n 1)
        hook attack
        go="sim_do send 06 01 01 00 e8 03 d0 07; sleep 0.2; sim_do send 06 01 00 00 e8 03 d0 07"
        [ "$scan" = 2 ] && go="sim_do send 81 08 10 04 20; sleep 0.2; sim_do send 80 08 10 04 20"
        has_input MorvelTouch_VirtualDevice || note "touch device: none"
        has_input MorvelTouch_VirtualDevice && rec_touch 2000 "$go" &&
            note "touch on the screen: $(grep -q '^ABS_MT_POSITION_X' "$OUT/touch.events" && echo yes || echo no)"
        hook after
        md5sum "$SEC"/* > /tmp/sums.after 2>/dev/null
        cmp -s /tmp/sums.before /tmp/sums.after && note "files outside /data unchanged" ||
            { note "files outside /data changed:"; diff /tmp/sums.before /tmp/sums.after >> "$OUT/steps.txt"; }
        note "daemon running: $(is_daemon "$PID" && echo yes || echo no)"
        refusals "$(daemon_log)"
        kill -9 $(daemon_pids) 2>/dev/null; stop_pid "$SIM_PID" && wait_until '[ ! -e /dev/hidraw0 ]' 30
        rm -rf /data/*  # hardlinks comes last: the exit trap undoes its mounts
    done
}

# Commands the daemon starts (fd-probe.sh as /bin/sh logs them) inherit descriptors 0-2 only.
fd_inheritance() {
    PROBE=/tmp/fd-probe/sh LOG=/tmp/fd-probe.log
    syslogd -n -O /tmp/messages &  # the daemon's syslog socket stays connected only to a listener
    trap "ln -sf busybox /bin/sh; kill $!" EXIT
    extras() {  # the descriptors logged other than 0, 1, 2 and the probe's own script
        awk -F ' @fds:' -v probe="=$PROBE" '{ n = split($2, fd, " ")
            for (i = 1; i <= n; i++) if (fd[i] !~ /^[012]=/ && !index(fd[i], probe)) print $1 " @fds: " fd[i] }' "$LOG"
    }
    lines() { cat "$LOG" 2>/dev/null | wc -l; }
    touches() { grep -c '^N: Name="MorvelTouch_VirtualDevice"$' /proc/bus/input/devices; }
    wait_until '[ -S /dev/log ]' 50
    mkdir -p "${PROBE%/*}" && cp fd-probe.sh "$PROBE" && chmod 755 "$PROBE" && ln -sf "$PROBE" /bin/sh
    FD_PROBE_ALL=1 /bin/sh -c true 7< /proc/version
    extras | grep -q ' 7=/proc/version$' && step "control: an inherited descriptor is reported" ||
        step "control: an inherited descriptor is missed"
    rm -f "$LOG"

    # Two devices, logging to syslog too.
    case_settings bits=3 pos=2 nums=2
    start_sim loopback.scn
    TavrineD -f > "$OUT/start.out" 2>&1 7< /proc/version 9> /tmp/inherited.txt
    wait_until 'has_input MorvelTouch_VirtualPen && [ -e /data/MorvelPipe_in ] && [ -e /data/MorvelPipe_out ]' 300
    ls -l "/proc/$(pid_file_pid)/fd" > "$OUT/daemon-fds.txt" 2>&1
    step "daemon holds:$(for what in /dev/hidraw0 uinput /data/MorvelPipe_in /data/MorvelPipe_out socket:; do
        grep -q -- "-> .*$what" "$OUT/daemon-fds.txt" && printf ' %s' "$what"; done)"

    # A second controller's receive thread runs commands while the daemon holds all the above.
    before=$(lines); tavrine-sim loopback.scn --log "$OUT/sim2.log" &
    wait_until '[ "$(touches)" -ge 2 ]' 300
    [ "$(lines)" -gt "$before" ] && step "commands started with a device open: 1 or more" ||
        step "commands started with a device open: none"
    stop_pid $! && stop_pid "$SIM_PID"
    wait_until '[ "$(touches)" = 0 ] && ! has_input MorvelTouch_VirtualPen' 150
    ln -sf busybox /bin/sh
    grep -q ' 1=/data/tmpDrvLog .* 2=/data/tmpDrvLog' "$LOG" &&
        step "captured output: standard output and error on /data/tmpDrvLog" || step "captured output: not seen"
    extras > "$OUT/extras.txt"
    [ -s "$OUT/extras.txt" ] && step "descriptors beyond 0, 1, 2: see extras.txt" || step "descriptors beyond 0, 1, 2: none"
}
