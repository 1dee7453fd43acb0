# Bed self-test of plug, unplug and load: the hidraw node goes away on
# unplug (its reader gets an error) and comes back on plug; 1000 reports
# sent at 500 a second all arrive, spread over 2 s (not in a burst; a busy
# host may stretch it, so only the lower bound is tight); a serial link
# follows unplug and plug.
. /bed/lib.sh

node_count() { ls /sys/class/hidraw 2>/dev/null | wc -l | tr -d ' '; }

start_sim usb.scn && step "usb: plugged, hidraw nodes $(node_count)"
node=$(ls /sys/class/hidraw | head -n 1)
dd if="/dev/$node" of=/dev/null bs=64 2> "$OUT/reader1.err" &
reader=$!
wait "$reader"
step "usb: first reader ended with status $?"
wait_until '[ "$(node_count)" = 0 ]' 30
step "usb: after unplug, hidraw nodes $(node_count)"
wait_until '[ "$(node_count)" = 1 ]' 30
step "usb: after plug, hidraw nodes $(node_count)"
node=$(ls /sys/class/hidraw | head -n 1)
timeout 10 dd if="/dev/$node" of=/tmp/bed.load bs=64 count=1000 2>/dev/null
step "usb: reports read $(($(wc -c < /tmp/bed.load) / 52)) of 52 bytes"
wait "$SIM_PID"
step "usb: simulator exit status $?"
sent=$(grep -c ' tx 06 ' "$OUT/sim.log")
step "usb: reports sent $sent"
first=$(grep ' tx 06 ' "$OUT/sim.log" | head -n 1 | cut -d' ' -f1)
last=$(grep ' tx 06 ' "$OUT/sim.log" | tail -n 1 | cut -d' ' -f1)
echo "$first $last" | awk '{ d = $2 - $1; print "usb: load lasted " d " s"; exit !(d > 1.9 && d < 5) }' \
    > "$OUT/load-time.txt" && step "usb: load lasted about 2 s" || step "usb: load took $(cat "$OUT/load-time.txt")"

tavrine-sim rs232.scn --log "$OUT/rs232.log" &
sim=$!
wait_until '[ -L /dev/ttyTV1 ]' 30 && step "rs232: linked"
wait_until '[ ! -e /dev/ttyTV1 ]' 30 && step "rs232: link gone after unplug"
wait_until '[ -L /dev/ttyTV1 ]' 30 && step "rs232: linked again after plug"
wait "$sim"
step "rs232: simulator exit status $?"
