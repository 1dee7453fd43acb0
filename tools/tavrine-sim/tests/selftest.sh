#!/bin/sh
# Host test of tavrine-sim and tavrine-evrec, without a VM: the script parser (good and bad
# scripts, dump round trip), the conversion of TavrineD logs into replay scripts, the pty
# port with its reply table and link rule, the control FIFO, and the multi-touch checker.
#
#   tools/tavrine-sim/tests/selftest.sh SIM_BIN EVREC_BIN
#
# Prints one line per check and "tavrine-sim: N passed, N failed".
set -u
SIM_BIN=$(cd "$(dirname "$1")" && pwd)/$(basename "$1")
EVREC_BIN=$2
FIX=$(cd "$(dirname "$0")" && pwd)/fixtures
WORK=$(mktemp -d)
trap 'rm -rf "$WORK"' EXIT
passed=0
failed=0

check() {  # check NAME STATUS(0 = pass) [DETAIL]
    if [ "$2" = 0 ]; then
        passed=$((passed + 1)); echo "ok   $1"
    else
        failed=$((failed + 1)); echo "FAIL $1${3:+: $3}"
    fi
}

# Waits up to 5 s for file $1.
wait_file() {
    tries=50
    while [ ! -e "$1" ] && [ $tries -gt 0 ]; do sleep 0.1; tries=$((tries - 1)); done
}

# A script and two logs read to their expected dumps, and each dump reads back to itself.
for case in "full-syntax.scn:" "replay-usb.log:--from-log" "replay-rs232.log:--from-log"; do
    file=${case%%:*}
    (cd "$FIX" && "$SIM_BIN" ${case#*:} "$file" --dump) > "$WORK/dump" 2> "$WORK/err"
    diff -u "$FIX/${file%.*}.dump" "$WORK/dump" > "$WORK/diff"
    check "$file reads to ${file%.*}.dump" $? "$(cat "$WORK/err" "$WORK/diff")"
    "$SIM_BIN" "$WORK/dump" --dump 2>&1 | grep -v '^#' > "$WORK/again"
    grep -v '^#' "$WORK/dump" | diff -u - "$WORK/again" > "$WORK/diff"
    check "${file%.*}.dump reads back to itself" $? "$(cat "$WORK/diff")"
done

# --fast: the reports after a command all at the time of the first, one step per wake-up.
(cd "$FIX" && "$SIM_BIN" --fast --from-log replay-rs232.log --dump 2> /dev/null) > "$WORK/fast"
[ "$(sed -n 's/^at \([0-9]*\) send .*/\1/p' "$WORK/fast" | uniq -c | awk '{ print $1 }')" = 6 ] &&
    grep -qx 'burst 1' "$WORK/fast"
check "--fast drops the pauses" $? "$(cat "$WORK/fast")"

# Each bad script is refused with status 2 and the message its first line names
# (file, line and what was expected).
for scn in "$FIX"/bad-*.scn; do
    want=$(sed -n '1s/^# error: //p' "$scn")
    "$SIM_BIN" "$scn" --check > "$WORK/out" 2>&1
    rc=$?
    [ "$rc" = 2 ] && grep -qF -- "$want" "$WORK/out"
    check "refuses $(basename "$scn")" $? "status $rc, said: $(cat "$WORK/out")"
done

# The multi-touch checker accepts good streams and names each fault.
for trace in "$FIX"/mt-good*.trace; do
    "$EVREC_BIN" check "$trace" > "$WORK/out" 2>&1
    check "accepts $(basename "$trace")" $? "$(cat "$WORK/out")"
done
for trace in "$FIX"/mt-bad-*.trace; do
    want=$(sed -n '1s/^# expect: //p' "$trace")
    "$EVREC_BIN" check "$trace" > "$WORK/out" 2>&1
    rc=$?
    [ "$rc" = 1 ] && grep -qF -- "$want" "$WORK/out"
    check "rejects $(basename "$trace")" $? "status $rc, said: $(cat "$WORK/out")"
done

# The pty port: the line speed the client sets is seen, the loop-back command is echoed
# (a wildcard rule; the rule for 9600 must not answer), and the point report follows it.
link=$WORK/ttyTV0
sed "s|@LINK@|$link|" "$FIX/serial-loopback.scn" > "$WORK/loop.scn"
"$SIM_BIN" "$WORK/loop.scn" --log "$WORK/sim.log" --ready "$WORK/ready" --max-ms 8000 &
sim=$!
wait_file "$WORK/ready"
got=""
if [ -e "$link" ] && exec 3<> "$link"; then
    stty -F "$link" 115200 raw -echo
    sleep 0.1
    printf '\012\002\101\125' >&3
    got=$(timeout 3 dd bs=9 count=1 iflag=fullblock <&3 2>/dev/null | od -An -tx1 | tr -s ' \n' ' ')
    exec 3>&-
fi
wait $sim
rc=$?
check "pty: simulator ends with status 0" $rc "status $rc"
check "pty: client reads reply and report" "$([ "$got" = " 0a 02 41 55 81 0f 7f 00 00 " ]; echo $?)" "read '$got'"
grep -q ' line 115200 8N1$' "$WORK/sim.log"
check "pty: log shows the line speed 115200 8N1" $? "$(cat "$WORK/sim.log")"
grep -q ' rx 0a 02 41 55$' "$WORK/sim.log" && grep -q ' tx 0a 02 41 55$' "$WORK/sim.log"
check "pty: log shows the command and its echo" $?
[ ! -e "$link" ]
check "pty: link removed at exit" $?

# A file that is not a link is never replaced by the port's link.
echo keep > "$WORK/ttyReal"
printf 'port rs232 %s\n' "$WORK/ttyReal" > "$WORK/real.scn"
"$SIM_BIN" "$WORK/real.scn" --log "$WORK/real.log" --max-ms 2000
rc=$?
[ "$rc" = 4 ] && [ "$(cat "$WORK/ttyReal")" = keep ]
check "pty: a real file at the link path is left alone (status 4)" $? "status $rc, $(cat "$WORK/real.log")"

# The control FIFO: a line sends at once, a bad line is logged and skipped, "exit 5" ends
# the simulator with status 5.
link=$WORK/ttyTV1
printf 'port rs232 %s\n' "$link" > "$WORK/ctl.scn"
rm -f "$WORK/ready"
"$SIM_BIN" "$WORK/ctl.scn" --log "$WORK/ctl.log" --ready "$WORK/ready" --control "$WORK/ctl" --max-ms 8000 &
sim=$!
wait_file "$WORK/ready"
got=""
if [ -e "$link" ] && exec 3<> "$link"; then
    stty -F "$link" raw -echo
    timeout 2 sh -c "echo 'send 80 01 02 03 04' > '$WORK/ctl'; echo 'sned 01' > '$WORK/ctl'"
    got=$(timeout 3 dd bs=5 count=1 iflag=fullblock <&3 2>/dev/null | od -An -tx1 | tr -s ' \n' ' ')
    timeout 2 sh -c "echo 'exit 5' > '$WORK/ctl'"
    exec 3>&-
fi
wait $sim
rc=$?
check "control: a sent line reaches the port" "$([ "$got" = " 80 01 02 03 04 " ]; echo $?)" "read '$got'"
grep -q "error control: expected an action (send, rate, plug, unplug, exit, note or clock), found 'sned'" "$WORK/ctl.log"
check "control: a bad line is logged" $? "$(cat "$WORK/ctl.log")"
check "control: exit 5 ends with status 5" "$([ "$rc" = 5 ]; echo $?)" "status $rc"

echo "tavrine-sim: $passed passed, $failed failed"
[ "$failed" = 0 ]
