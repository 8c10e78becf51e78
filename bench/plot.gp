# The picture of a run: gnuplot -e "data='FILE'" plot.gp >PICTURE. It has a row for each piece of
# work, with the time of each contestant as a multiple of the bare calls' time.
set terminal svg size 900,760 dynamic background rgb 'white' font 'sans-serif,13'
set datafile separator tab
stats data using 1 nooutput
rows = STATS_max

set title 'Pages of 4 KiB: time as a multiple of the bare calls that do the same work'
set logscale x 2
set xrange [0.03125:8]
set xtics ('1/32' 0.03125, '1/16' 0.0625, '1/8' 0.125, '1/4' 0.25, '1/2' 0.5, '1' 1, '2' 2, '4' 4, '8' 8)
set xlabel 'faster than the bare calls  ←  multiple  →  slower'
set yrange [rows + 0.6:0.4]
set ytics scale 0
set grid xtics linecolor rgb '#dddddd'
set key outside top center horizontal reverse Left samplen 1 maxrows 2
set arrow from 1, graph 0 to 1, graph 1 nohead linecolor rgb '#888888' linewidth 1.5
set lmargin 30

is(name) = strcol(3) eq name
own(name) = name[1:5] eq 'qziop' || name eq 'on qziop'
at(name) = is(name) ? column(4) : NaN

plot data using (own(strcol(3)) ? column(4) : NaN):1:5:6:ytic(2) with xerrorbars \
       pointtype 7 pointsize 1 linecolor rgb '#c0392b' title 'qziop', \
     data using (at('Berkeley DB memory pool')):1 with points \
       pointtype 4 linecolor rgb '#2980b9' title 'Berkeley DB', \
     data using (at('Berkeley DB memory pool, DB_THREAD')):1 with points \
       pointtype 5 linecolor rgb '#2980b9' title 'Berkeley DB, threads', \
     data using (at('LMDB')):1 with points \
       pointtype 8 linecolor rgb '#27ae60' title 'LMDB', \
     data using (at('SQLite blobs')):1 with points \
       pointtype 12 linecolor rgb '#8e44ad' title 'SQLite', \
     data using (at('stdio')):1 with points \
       pointtype 1 linecolor rgb '#555555' title 'stdio', \
     data using (at('mmap')):1 with points \
       pointtype 2 linecolor rgb "#555555" title "mmap"
