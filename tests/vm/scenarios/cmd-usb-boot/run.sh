# A USB controller running its boot firmware: after the IAP query the
# daemon sends nothing (no identification texts, no right-click step, no
# format 1: series 20), takes the multi-contact protocol, and still serves
# touches.
. /bed/lib.sh
. ../cmd-common/cmd.sh

start_sim sim.scn
cmd_start_daemon boot
cmd_wait_setup 150 && step "set-up done" || step "set-up not done"
cmd_logged "Device IAP Type = IAP_BFW" && step "logged: IAP_BFW"
cmd_logged "Multipoint device and Kernel is 2.6.36 upwards. EventType = SLOT_Multi protocol" &&
    step "logged: EventType 2"
for text in "Type:" "AllocateSeries" "GetRCLKFormat" "Enter SetFormat"; do
    cmd_logged "$text" && step "unexpected log: $text"
done
cmd_touch_once touch.events
cmd_received "$OUT/sim.log" > "$OUT/cmds.txt"
