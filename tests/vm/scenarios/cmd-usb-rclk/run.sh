# A USB controller with the vendor report but without the set-feature
# report: the daemon switches the controller's right-click emulation off.
# fen: it asks the right-click format (0x35) and sends it back with the
# emulation bit cleared (0x34 0x07, report id 3, count 20); series 8 gets no
# format 1. lom: series 2 reads the report id from EEPROM word 0x39 (0x0123:
# id 3, count 0) instead of asking, then gets format 1.
. /bed/lib.sh
. ../cmd-common/cmd.sh

round() {  # label, then texts the log must hold
    local label=$1 text
    shift
    start_sim "$label.scn"
    cmd_start_daemon "$label"
    cmd_wait_setup 150 && step "$label: set-up done" || step "$label: set-up not done"
    cmd_received "$OUT/sim.log" > "$OUT/cmds-$label.txt"
    for text in "$@"; do
        cmd_logged "$text" && step "$label: logged: $text"
    done
    cmd_end_round "$label"
}

round fen "Type:FEN1, Model:FEN , Version:V7, IAP:1" "AllocateSeries: SERIES_FEN" \
    "ReportID[3], RCLKControl[1], RCLKCount[14]" "Leave SetRCLKFormat with ret=0"
round lom "Type:xLOMy, Model:K2593 , Version:V8, IAP:1" "AllocateSeries: SERIES_LOMBAR" \
    " GetEEData value 123" "Leave SetRCLKFormat with ret=0"
