# Late and doubled answers. A late answer (after the 500 ms read period)
# costs one more write of the command and is still taken; the second copy of
# the version answer, read while the model is asked (before the tool pipes
# exist), is not taken for the model; the copy of the format answer that
# comes after set-up is awaited by nobody and goes to the tool's output pipe.
. /bed/lib.sh
. ../cmd-common/cmd.sh

start_sim sim.scn
cmd_start_daemon late
cmd_wait_setup 150 && step "set-up done" || step "set-up not done"
cmd_logged "Controller didn't feedback" && step "late IAP answer missed"
for text in "Device IAP Type = IAP_FW" "Type:TX, Model:MQ , Version:V1.2, IAP:1" \
    "AllocateSeries: SERIES_UNKNOWN" "Leave SetFormat with ret=0"; do
    cmd_logged "$text" && step "logged: $text"
done
timeout 3 dd if=/data/MorvelPipe_out bs=128 count=1 2>/dev/null | od -An -tx1 -v |
    tr -s ' \n' '  ' | sed 's/^ //; s/ $//' > "$OUT/tool-out.txt"
echo >> "$OUT/tool-out.txt"
cmd_received "$OUT/sim.log" > "$OUT/cmds.txt"
echo "set-up ms: $(cmd_setup_ms)"
