# A controller that never answers, and one that answers every command with
# garbage: random bytes, a 'F' first fragment announcing 255 bytes followed
# by 45 continuation fragments (more than a reply buffer holds), a long
# packet with an unknown command byte and a parallel report with a wrong
# count. Each polled command goes out three times and set-up ends within the
# bounds of the retry rules: IAP query, type check, version and format are
# polled commands of three writes, each followed by a 500 ms read period
# when nothing comes (1.5 s a command), while an answer of any kind ends the
# period after the third write at once (two periods a command, 4 s in all).
# The measured times are in setup-times.txt. A touch is served afterwards.
. /bed/lib.sh
. ../cmd-common/cmd.sh

frags=$(i=0; while [ $i -lt 45 ]; do printf ' ; reply 03 04 00 47 47 47'; i=$((i + 1)); done)
burst="reply garbage 64 ; reply 03 04 46 ff 47 47$frags ; reply 03 3f ff 01 02 03 ; reply 06 ff ff ff 00 10"
{ sed "s#\.\./\.\./#$PWD/../../#" silent.scn; echo "on 03 $burst"; echo "on 05 $burst"; } > /tmp/garbage.scn

round() {  # label, script, lowest and highest set-up time in ms
    start_sim "$2"
    cmd_start_daemon "$1"
    cmd_wait_setup 150 && step "$1: set-up done" || step "$1: set-up not done"
    cmd_received "$OUT/sim.log" > "$OUT/cmds-$1.txt"
    ms=$(cmd_setup_ms)
    echo "$1 set-up ms: $ms" >> "$OUT/setup-times.txt"
    [ -n "$ms" ] && [ "$ms" -ge "$3" ] && [ "$ms" -le "$4" ] &&
        step "$1: set-up within $3..$4 ms" || step "$1: set-up took ${ms:-?} ms"
    cmd_logged "Controller didn't feedback. Device IAP Type = IAP_FW" && step "$1: IAP_FW assumed"
    cmd_logged "Type:UNKNOWN, Model:UNKNOWN , Version:UNKNOWN, IAP:1" && step "$1: texts UNKNOWN"
    cmd_touch_once "touch-$1.events"
    cmd_end_round "$1"
}

round silent silent.scn 6000 7500
round garbage /tmp/garbage.scn 4000 9000
cat "$OUT/setup-times.txt"
