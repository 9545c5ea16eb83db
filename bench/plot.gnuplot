# plot.gnuplot - the figures of a run as one picture.
#
#   usage: gnuplot -e "results='DIR'" plot.gnuplot     reads DIR/*.dat, writes DIR/results.svg

set terminal svg size 1320,460 font 'sans,11' background 'white'
set output results . '/results.svg'
set style data histograms
set style histogram clustered gap 1
set style fill solid 0.85 noborder
set boxwidth 0.9
set grid ytics linecolor rgb '#d0d0d0'
set border 3
set tics nomirror
set key below
set rmargin 8
set bmargin 9

set multiplot layout 1,3

set title 'Register read, one asker, µs'
set logscale y
set yrange [1:*]
set xtics rotate by -25
plot for [column=2:5] results . '/latency.dat' using column:xtic(1) \
  title word('p50 p99 p99.9 max', column - 1)

unset logscale y
set yrange [0:*]
set title 'Reads a second, by askers'
set xtics norotate
plot results . '/reads.dat' using 2:xtic(1) title 'libqnm', '' using 3 title 'floor, two threads'

set title 'Announcements a second, without loss'
set xtics rotate by -25
unset key
plot results . '/intake.dat' using 2:xtic(1)

unset multiplot
