# gnuplot -e "results='DIRECTORY'" plot.gp: draws the data that report.py wrote.
file(name) = results . "/" . name
targets = "vorl_proxy systemd-socket-proxyd haproxy nginx socat none"
title(i) = word(targets, i) eq "none" ? "no relay" : word(targets, i)
measures = "echo one_way frames frames_20_ms keystroke keystroke_slow_line frames_in_upload frames_in_slow_upload busy"
titles = '"64-byte echo" "64 bytes, shadow to client" "frames, 60/s of 40 KB" \
    "frames over 20 ms, client types" "keystroke, downstream full" \
    "keystroke, full line of 2 Mbit/s" "frames while the client uploads" \
    "frames while the client uploads, shadow reads slowly" "frames on 100 connections"'
array colour[6] = ["#d62728", "#1f77b4", "#2ca02c", "#9467bd", "#8c564b", "#7f7f7f"]
array width[6] = [3, 1, 1, 1, 1, 1]

set terminal svg size 1200,1800 font "sans,12" background "white"
set output file("latency.svg")
set multiplot layout 5,2 title "Latency: what share of messages took how long"
set xlabel "percentile"
set ylabel "µs"
set logscale y
set grid
set key left top
do for [m = 1:words(measures)] {
    set title word(titles, m)
    plot for [i = 1:6] file(word(measures, m) . ".dat") using 1:(column(i + 1)) with lines \
        linecolor rgb colour[i] linewidth width[i] title title(i)
}
unset multiplot

set terminal svg size 900,500 font "sans,12" background "white"
set output file("throughput.svg")
unset logscale
unset xlabel
set title "Throughput of one connection"
set ylabel "MB/s"
set yrange [0:*]
set style data histogram
set style fill solid 0.8
set key right top
plot file("throughput.dat") using 2:xticlabels(1) title "shadow to client" linecolor rgb "#1f77b4", \
     "" using 3 title "client to shadow" linecolor rgb "#ff7f0e"
