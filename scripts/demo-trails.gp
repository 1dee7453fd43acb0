# Touch and pen trails of the demonstration, drawn from the events the kernel delivered.
# Called by scripts/demo.sh with: dir (data folder), xmax, ymax (axis maxima of the
# touch device), pxmax, pymax (of the pen device), out (PNG path).
# Data files: touch-slot0.dat, touch-slot1.dat ("x y" per frame, a blank line after a
# lift), pen-drawn.dat (tip down), pen-hover.dat (in range, tip up). Pen points are
# scaled to the touch device's range so that both share one screen.
set terminal pngcairo size 900,900 font "DejaVu Sans,11"
set output out
set termoption noenhanced  # names with underscores stay as they are
set title "Tavrine demo: what MorvelTouch_VirtualDevice and MorvelTouch_VirtualPen delivered"
set size square
set xrange [0:xmax]
set yrange [ymax:0]          # screen coordinates: y grows downwards
set xlabel "X"
set ylabel "Y"
set grid
set key outside below horizontal
set style line 1 lc rgb "#1f77b4" lw 3 pt 7 ps 0.8
set style line 2 lc rgb "#ff7f0e" lw 3 pt 7 ps 0.8
set style line 3 lc rgb "#2ca02c" lw 3 pt 5 ps 0.6
set style line 4 lc rgb "#7f7f7f" pt 6 ps 1.0
sx = xmax / pxmax
sy = ymax / pymax
plot dir."/touch-slot0.dat" using 1:2 with linespoints ls 1 title "finger 0 (slot 0)", \
     dir."/touch-slot1.dat" using 1:2 with linespoints ls 2 title "finger 1 (slot 1)", \
     dir."/pen-drawn.dat" using ($1*sx):($2*sy) with linespoints ls 3 title "pen, tip down", \
     dir."/pen-hover.dat" using ($1*sx):($2*sy) with points ls 4 title "pen hovering"
