# The costs of an operation as bars, a group a work: data (what lumbra_peers --plot wrote) and plot_file are set before.
set terminal svg size 1200,520 font "sans-serif,13" background "white"
set output plot_file
set datafile separator "\t"
set datafile missing "nan"
set style data histograms
set style histogram clustered gap 1
set style fill solid 0.9 noborder
set logscale y
set format y "%g"
set ylabel "µs of CPU an operation"
set grid ytics
set xtics rotate by -25 noenhanced
set key outside top horizontal
set bmargin 7
plot for [column = 2:7] data using column:xtic(1) title columnheader(column)
