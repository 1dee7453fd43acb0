# awk -f latency.awk SIM_LOG TRACE: per probe touch the us from the simulator's tx of report
# 06 to the first frame showing its (unique) position, then "sent N received N".
function hexv(s,   i, v) {
    v = 0; s = tolower(s)
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
    if ($2 == "tx" && $3 == "06" && $5 == "01") {
        key = (hexv($7) + 256 * hexv($8)) "," (hexv($9) + 256 * hexv($10))
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
            seen[key] = 1; received++
            printf "%.0f\n", ($2 - tx[key]) * 1000000
        }
    }
}
END { printf "sent %d received %d\n", sent, received }
