# Cost by entry: the provider's time over that of its demanded calls, with quartiles.
set terminal pngcairo size 1000,560 font "Sans,10"
set output "entries.png"
set title "Time of a call over the time of its demanded calls (log off; bars: quartiles)"
set style fill solid 0.6
set boxwidth 0.6
set xtics rotate by -35
set grid ytics
set yrange [0.8:*]
set key off
plot "entries.dat" using 0:2:xtic(1) with boxes linecolor rgb "#4060a0", \
     "" using 0:2:3:4 with yerrorbars pointtype 0 linecolor rgb "#202020", \
     1 linecolor rgb "#a04040"
