# awk -f latency.awk SIM_LOG TRACE: per probe touch the us from the simulator's tx of report 06 to
# the first frame showing its (unique) position, then "sent N received N".
BEGIN { for (i = 0; i < 256; i++) h[sprintf("%02x", i)] = i }
FNR == NR && $2 == "tx" && $3 == "06" && $5 == "01" {
    k = (h[$7] + 256 * h[$8]) "," (h[$9] + 256 * h[$10]); if (!(k in tx)) { tx[k] = $1; sent++ } }
FNR == NR { next }
$3 == "0003" && $4 ~ /^003[56]$/ { v = $5; sub(/^0+/, "", v); if ($4 == "0035") x = v + 0; else y = v + 0 }
/^E:/ && $3 == "0000" && $4 == "0000" && ((x "," y) in tx) && !((x "," y) in seen) {
    seen[x "," y] = 1; received++; printf "%.0f\n", ($2 - tx[x "," y]) * 1000000 }
END { printf "sent %d received %d\n", sent, received }
