# Scenario 7: hostile reports (random bytes, a count of 255, contact ids 10
# to 255, oversized and truncated reports, reply fragments announcing 255
# bytes) change nothing: the daemon keeps running, logs what it dropped and
# serves the valid reports that follow. Slots with a valid contact id are
# served whatever the count says: the count of 255 brings contact 0 down at
# (100, 100) (five slots of id 0; the frame is written when the next first
# packet arrives). A frame cut short (7 contacts announced, 5 sent) is
# written when the next first packet begins a new frame, which lifts 0-4;
# the same lifts again change nothing the reader sees. Expected trace by
# hand: contact 0 at (100, 100); contacts 0-4 at (500 + 100k, 600 + 100k)
# in one frame, lifted in one; then contact 0 at (1111, 2222), lifted.
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
