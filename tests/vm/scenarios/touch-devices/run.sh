# Scenario 1: the controller is found as /dev/hidraw0, identified, and both
# virtual devices appear with their names, ids, axes, keys and properties.
# The daemon gives ABS_MT_TRACKING_ID 0..20, but with ABS_MT_SLOT registered
# the input core itself resets that axis to 0..65535 (input_mt_init_slots).
# The pen has no tilt axes: kernel 6.1 has minor number 1 and the release
# (getprop) is 9, not 0.
. ./touch-env.sh

touch_settings 80807
touch_start sim.scn && step "set-up done, touch device present" || step "set-up not done"
log=$(daemon_log)
grep -q 'Found an QEVO Device at port \[/dev/hidraw0\]' "$log" && step "found at /dev/hidraw0"
for line in 'Support Mouse Report. Resolution shift = 1' 'Support Vendor Report' \
    'Support MTouch Report. Resolution shift = 3' 'Support Set Feature' \
    'Support Parallel Report. Resolution shift = 1' 'Device IAP Type = IAP_FW' \
    'AllocateSeries: SERIES_PCAP_4155' 'EventType = SLOT_Multi protocol'; do
    grep -qF "$line" "$log" && step "log: $line" || step "log missing: $line"
done
for dev in MorvelTouch_VirtualDevice MorvelTouch_VirtualPen; do
    tavrine-evrec record --name "$dev" --out /tmp/dev.trace --duration-ms 200
    grep -v '^[E#]' /tmp/dev.trace >> "$OUT/devices.txt"
done
step "TavrineD processes: $(daemon_count)"
