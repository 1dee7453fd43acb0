# A USB controller with the vendor and set-feature reports running its
# application firmware: the daemon sends the IAP query, the type check,
# version, model, type, the set-feature report, and format 1 only for a
# series below 3 (s2: series 2; s3: series 3); it logs the identification
# and series lines and serves a touch afterwards. The set-up time of the
# series-2 controller is printed (setup-times.txt).
. /bed/lib.sh
. ../cmd-common/cmd.sh

round() {  # label, identification line, series name
    start_sim "$1.scn"
    cmd_start_daemon "$1"
    cmd_wait_setup 150 && step "$1: set-up done" || step "$1: set-up not done"
    cmd_received "$OUT/sim.log" > "$OUT/cmds-$1.txt"
    cmd_logged "$2" && step "$1: identification: $2"
    cmd_logged "AllocateSeries: $3" && step "$1: series: $3"
    cmd_logged "Single point device, EventType = QEVO_Multi protocol" && step "$1: EventType 1"
    echo "$1 set-up ms: $(cmd_setup_ms)" >> "$OUT/setup-times.txt"
    cmd_touch_once "touch-$1.events"
    cmd_end_round "$1"
}

round s2 "Type:LOM5, Model:K2593 , Version:V1.23, IAP:1" SERIES_LOMBAR
ms=$(sed -n 's/^s2 set-up ms: //p' "$OUT/setup-times.txt")
[ -n "$ms" ] && [ "$ms" -lt 1000 ] && step "s2: set-up under 1 s" || step "s2: set-up took ${ms:-?} ms"
round s3 "Type:TW8, Model:JOP7555 , Version:V2.00, IAP:1" SERIES_JORVAKS
cat "$OUT/setup-times.txt"
