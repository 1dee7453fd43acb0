# Scenario 7: hostile reports (random bytes, a count of 255, contact ids 10
# to 255, oversized and truncated reports, reply fragments announcing 255
# bytes) change nothing: the daemon keeps running, logs what it dropped and
# serves the valid reports that follow. The one visible effect, by the
# daemon's frame rule: after a frame cut short (7 contacts announced, 5 sent)
# the next first packet is a wrong count and is dropped; the same packet sent
# again is served. Expected trace by hand: contacts 0-4 down at
# (500 + 100k, 600 + 100k), lifted, then contact 0 at (1111, 2222), lifted.
. ../touch-devices/touch-env.sh

touch_settings 180803
touch_start sim.scn && step "set-up done" || step "set-up not done"
pid=$(pid_file_pid)
touch_record touch.trace --idle-ms 2000
touch_go
wait "$EVREC_PID"
step "protocol check status $?"
touch_events "$OUT/touch.trace" "$OUT/touch.events"
log=$(daemon_log)
for line in 'NumsofContacts mismatch, skip packet' 'Get error ContactID.' \
    'Reply of 258 bytes exceeds the reply buffer, dropped'; do
    grep -qF "$line" "$log" && step "logged: $line" || step "not logged: $line"
done
dmesg | grep -q 'Event data for report 6 was too short' && step "truncated report dropped by the HID core"
step "daemon still running: $(is_daemon "$pid" && echo yes), TavrineD processes: $(daemon_count)"
