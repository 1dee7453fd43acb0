# Writes a first touch at ABS_X 2048; expected.mouse.events says 2049 (see expect-fail).
printf 'E: 0003 0000 2048\nE: 0003 0001 1024\nE: 0000 0000 0000\n' > "$OUT/mouse.events"
