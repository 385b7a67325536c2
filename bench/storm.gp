# gnuplot -e "results='DIRECTORY'" storm.gp: draws the data that storm_trial.py wrote.
set terminal svg size 900,500 font "sans,13" background "white"
set output results . "/storm.svg"
set title "Users of one host who come at about the same time: how long the unluckiest 1 % wait"
set xlabel "users who come"
set ylabel "seconds until admitted, 99th percentile"
set logscale xy
set grid
set key left top
data = results . "/storm.dat"
plot data using 1:2 with linespoints title "within a minute, no front", \
    data using 1:3 with linespoints title "within a minute, front that tries again", \
    data using 1:4 with linespoints title "within five minutes, no front", \
    data using 1:5 with linespoints title "within five minutes, front that tries again"
