# Start-up and single instance: -E with -k is refused, -E detaches and
# writes /data/TouchPID, -f replaces the running daemon, -k stops it, and a
# second -k finds nothing to stop. ScanInterface 4 keeps the daemon away
# from every port (the console is /dev/ttyS0).
. /bed/lib.sh

write_settings 4
step "settings: ScanInterface 4"

TavrineD -E -k > "$OUT/start-E-k.out" 2>&1
step "start -E -k: exit status $? ($(grep -c "can not be set at the same time" "$OUT/start-E-k.out") refusal line)"
step "TavrineD processes: $(daemon_count)"

TavrineD -E > "$OUT/start-E.out" 2>&1
step "start -E: exit status $?"
wait_until 'pid_file_well_formed && is_daemon "$(pid_file_pid)"' 50
first=$(pid_file_pid)
pid_file_well_formed && step "pid file: 10 bytes, '<pid> ' padded with NUL bytes" || step "pid file: malformed"
is_daemon "$first" && step "pid file names a live TavrineD: yes" || step "pid file names a live TavrineD: no"
step "TavrineD processes: $(daemon_count)"

TavrineD -f > "$OUT/start-f.out" 2>&1
step "start -f: exit status $?"
wait_until '[ "$(pid_file_pid)" != "$first" ] && is_daemon "$(pid_file_pid)"' 50
second=$(pid_file_pid)
pid_file_well_formed && step "pid file: 10 bytes, '<pid> ' padded with NUL bytes" || step "pid file: malformed"
[ "$second" != "$first" ] && is_daemon "$second" && step "pid file names the new TavrineD: yes" ||
    step "pid file names the new TavrineD: no"
wait_until '! is_daemon "$first"' 30
is_daemon "$first" && step "first daemon gone: no" || step "first daemon gone: yes"
step "TavrineD processes: $(daemon_count)"

TavrineD -k > "$OUT/stop-k.out" 2>&1
step "stop -k: exit status $?"
wait_until '[ "$(daemon_count)" = 0 ]' 50
step "TavrineD processes: $(daemon_count)"

# The PID file now names a dead process: -k finds nothing to stop and ends.
TavrineD -k > "$OUT/stop-k-again.out" 2>&1
step "stop -k again: exit status $?"
sleep 1  # the detached -k process probes the system before it ends
wait_until '[ "$(daemon_count)" = 0 ]' 150
step "TavrineD processes: $(daemon_count)"
