# Self-test of the bed's comparison: writes a trace whose first touch lands at ABS_X 2048,
# compared with an expected trace that says 2049 (see expect-fail).
printf 'E: 0003 0000 2048\nE: 0003 0001 1024\nE: 0000 0000 0000\n' > "$OUT/mouse.events"
