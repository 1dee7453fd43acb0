# awk -f latency.awk SIM_LOG TRACE: per probe touch the us from the simulator's tx of report
# 06 to the first frame showing its (unique) position, then "sent N received N".
BEGIN { for (i = 0; i < 256; i++) h[sprintf("%02x", i)] = i }
function dec(s) { sub(/^0+/, "", s); return s + 0 }  # "%04d" values: awk would read octal
FNR == NR {
    key = (h[$7] + 256 * h[$8]) "," (h[$9] + 256 * h[$10])
    if ($2 == "tx" && $3 == "06" && $5 == "01" && !(key in tx)) { tx[key] = $1; sent++ }
    next
}
$3 == "0003" && $4 == "0035" { x = dec($5) }
$3 == "0003" && $4 == "0036" { y = dec($5) }
/^E:/ && $3 == "0000" && $4 == "0000" && ((x "," y) in tx) && !((x "," y) in seen) {
    seen[x "," y] = 1; received++
    printf "%.0f\n", ($2 - tx[x "," y]) * 1000000
}
END { printf "sent %d received %d\n", sent, received }
