# p50, p99 and max of sorted numbers (one per line): "p50 p99 max count".
{ v[NR] = $1 }
END {
    if (NR == 0) { print "- - - 0"; exit }
    i50 = int((NR - 1) * 0.50) + 1
    i99 = int((NR - 1) * 0.99) + 1
    print v[i50], v[i99], v[NR], NR
}
