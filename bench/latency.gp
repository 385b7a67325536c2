# gnuplot -e "results='DIRECTORY'" latency.gp: draws the data that report.py wrote.
file(name) = results . "/" . name . ".dat"
measures = "echo one_way frames frames_20_ms keystroke frames_in_upload busy"
titles = '"64-byte echo" "64 bytes, shadow to client" "frames, 60/s of 40 KB" \
    "frames over 20 ms, client types" "keystroke, downstream full" \
    "frames while the client uploads" "frames on 100 connections"'
array target[6] = ["vorl_proxy", "vorl_proxy behind a front", "systemd-socket-proxyd", "haproxy", \
    "nginx", "no relay"]
array colour[6] = ["#d62728", "#ff9896", "#1f77b4", "#2ca02c", "#9467bd", "#7f7f7f"]

set terminal svg size 1200,1200 font "sans,12" background "white" noenhanced
set output results . "/latency.svg"
set multiplot layout 4,2 title "Latency: what share of messages took how long"
set xlabel "percentile"
set ylabel "µs"
set logscale y
set grid
unset key
do for [m = 1:words(measures)] {
    set title word(titles, m)
    plot for [i = 1:6] file(word(measures, m)) every 2 using 1:(column(i + 1)) with lines \
        linecolor rgb colour[i] linewidth (i == 1 ? 3 : 1)
}
# The last place has the key of all.
unset title
unset xlabel
unset ylabel
unset tics
unset border
unset logscale
set key center center
set yrange [0:1]
plot for [i = 1:6] NaN with lines linecolor rgb colour[i] linewidth (i == 1 ? 3 : 1) title target[i]
