# Latency of each scan: from the simulator's write of the scan's first report
# ('tx' line, time taken before the write) to the SYN_REPORT of the first
# frame that shows the scan's last contact (contact n - 1 of a scan of n) at
# its new position on the output device (event time, same clock). Positions
# are unique within the run, so a frame is matched by the X and Y it leaves
# in the reader's state of that slot (values the kernel filtered because they
# did not change are kept from earlier frames).
#   awk -v rid=06 -v cf=4 -v sf=5 -v ss=10 -f latency.awk sim.log trace
# rid: report id (hex text) of the load; cf: field of the contact count in a
# 'tx' line (0 in the continuation reports of a scan); sf: field of the
# first slot; ss: slot size in bytes. Five slots a report, contact k in slot
# k % 5 of the scan's report k / 5; a slot is state (bit 0 touching),
# contact id, X (2 bytes), Y (2 bytes), then padding.
# Prints "n latency_us" per matched scan of n contacts, then one line
# "sent n N received N" per contact count.
BEGIN {
    for (i = 0; i < 256; i++) h[sprintf("%02x", i)] = i
    slot = 0
}
function dec(s,   neg) {
    neg = substr(s, 1, 1) == "-"
    if (neg) s = substr(s, 2)
    sub(/^0+/, "", s)
    if (s == "") s = 0
    return neg ? -s : s + 0
}
FNR == NR {
    if ($2 != "tx" || $3 != rid) next
    c = h[$cf]
    if (c > 0) { n = c; t0 = $1; r = 0 } else r++
    if (r != int((n - 1) / 5)) next
    b = sf + ((n - 1) % 5) * ss
    if (h[$b] % 2 != 1 || h[$(b + 1)] != n - 1) next
    key = n ":" (h[$(b + 2)] + 256 * h[$(b + 3)]) "," (h[$(b + 4)] + 256 * h[$(b + 5)])
    if (!(key in tx)) { tx[key] = t0; sent[n]++ }
    next
}
/^E:/ {
    if ($3 == "0003") {
        if ($4 == "002f") slot = dec($5)
        else if ($4 == "0035") x[slot] = dec($5)
        else if ($4 == "0036") y[slot] = dec($5)
    } else if ($3 == "0000" && $4 == "0000") {
        for (n in sent) {
            key = n ":" x[n - 1] "," y[n - 1]
            if ((key in tx) && !(key in seen)) {
                seen[key] = 1
                received[n]++
                printf "%d %.0f\n", n, ($2 - tx[key]) * 1000000
            }
        }
    }
}
END { for (n in sent) printf "sent %d %d received %d\n", n, sent[n], received[n] + 0 }
