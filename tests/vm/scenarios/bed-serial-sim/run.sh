# Bed self-test on the serial stand-ins: a client sets the line, sends the
# loop-back command and reads the reply and a point report through the
# linked path; the simulator records the line speed and the bytes.
. /bed/lib.sh

# Talks to port $1 at speed $2: sends the loop-back command, reads $3 bytes.
talk() {
    stty -F "$1" "$2" raw -echo
    exec 3<> "$1"
    printf '\012\001\101' >&3
    timeout 3 dd bs=1 count="$3" <&3 2>/dev/null | od -An -tx1 | tr -s ' \n' ' '
    exec 3>&-
}

for port in rs232 ps2; do
    rm -f /tmp/bed.sim.ready
    tavrine-sim "$port.scn" --log "$OUT/$port.log" --ready /tmp/bed.sim.ready &
    sim=$!
    wait_until '[ -e /tmp/bed.sim.ready ]' 50 || step "$port: simulator not ready"
    link=$(sed -n 's/^port [a-z0-9]* //p' "$port.scn")
    [ -L "$link" ] && step "$port: $link links to $(readlink "$link" | sed 's/[0-9]*$/N/')"
    [ "$port" = rs232 ] && got=$(talk "$link" 9600 8) || got=$(talk "$link" 9600 9)
    step "$port: client read$got"
    wait "$sim"
    step "$port: simulator exit status $?"
    [ -e "$link" ] && step "$port: link left behind" || step "$port: link removed"
    sed -nE 's/^[0-9.]+ ((rx|tx|line|match|wait).*)/\1/p' "$OUT/$port.log" > "$OUT/$port.bytes"
done
