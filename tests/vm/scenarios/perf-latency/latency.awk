# Latency of each frame: from the simulator's write of report f ('tx' line,
# time taken before the write) to the SYN_REPORT of the first frame that
# shows report f's position on the output device (event time, same clock).
# Reports carry a position unique within the run, so a frame is matched by
# the X and Y it leaves in the reader's state (values the kernel filtered
# because they did not change are kept from earlier frames).
#   awk -v rid=10 -v xf=6 -f latency.awk sim.log trace > latencies
# rid: report id (hex text) of the load; xf: field of X's low byte in a
# 'tx' line (Y follows X). Prints one latency in microseconds per matched
# frame, and on the last line "sent N received N".
function hexv(s,   i, v) {
    v = 0
    s = tolower(s)
    for (i = 1; i <= length(s); i++) v = v * 16 + index("0123456789abcdef", substr(s, i, 1)) - 1
    return v
}
function dec(s,   neg) {
    neg = substr(s, 1, 1) == "-"
    if (neg) s = substr(s, 2)
    sub(/^0+/, "", s)
    if (s == "") s = 0
    return neg ? -s : s + 0
}
FNR == NR {
    if ($2 == "tx" && $3 == rid) {
        key = (hexv($xf) + 256 * hexv($(xf + 1))) "," (hexv($(xf + 2)) + 256 * hexv($(xf + 3)))
        if (!(key in tx)) { tx[key] = $1; sent++ }
    }
    next
}
/^E:/ {
    if ($3 == "0003" && $4 == "0035") x = dec($5)
    else if ($3 == "0003" && $4 == "0036") y = dec($5)
    else if ($3 == "0000" && $4 == "0000") {
        key = x "," y
        if ((key in tx) && !(key in seen)) {
            seen[key] = 1
            received++
            printf "%.0f\n", ($2 - tx[key]) * 1000000
        }
    }
}
END { printf "sent %d received %d\n", sent, received }
