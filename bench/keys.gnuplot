# Cost by number of keys.
set terminal pngcairo size 1000,560 font "Sans,10"
set output "keys.png"
set title "Time by number of keys (log off)"
set logscale xy
set xlabel "key pairs on the token"
set ylabel "microseconds"
set grid
set key left top
plot for [part = 0:1] "keys.dat" index part using 1:2 with linespoints title columnheader(1), \
     for [part = 0:1] "keys.dat" index part using 1:4 with linespoints dashtype 2 title columnheader(1)." (own time)"
