#!/usr/bin/env bash
# plot-bench.sh [-s <sweep size>] <results file> [<results file after a change>]: draws time and
# throughput over request size from what kxadmin bench wrote, as PNG and SVG in the current
# directory, named after the results files. Tell the sweep size if bench was told one, since the
# files do not say how much was read. Installs what is missing.
set -euo pipefail
# shellcheck source=scripts/need.sh
. "$(dirname "$0")/need.sh"

usage() {
    echo "Usage: plot-bench.sh [-s <sweep size>] <results file> [<results file after a change>]" >&2
    exit 2
}

fail() {
    printf 'plot-bench.sh: %s\n' "$1" >&2
    exit 1
}

sweep=4096
while getopts s: option; do
    case $option in
    s) sweep=$OPTARG ;;
    *) usage ;;
    esac
done
shift $((OPTIND - 1))
[ $# -eq 1 ] || [ $# -eq 2 ] || usage
[[ $sweep =~ ^[1-9][0-9]{0,4}$ ]] || usage
need gnuplot-nox

# Everything is made in here and moved when it is whole.
work=$(mktemp -d ./.plot-bench.XXXXXX) || fail 'no picture can be written to this directory'
trap 'rm -rf "$work"' EXIT

# prepare <results file> <target>: writes request size, milliseconds, mean milliseconds and
# throughput in MB/s. A clock of milliseconds makes steps of single times, for which reason the last
# two are taken over all sizes within an eighth of the one. How much bench has read of its scratch
# file follows from the request size and the sweep size, as in ops/bench.cpp.
prepare() {
    [ -e "$1" ] || fail "$1: there is no such file"
    { [ -f "$1" ] && [ -r "$1" ]; } || fail "$1: this is no file that can be read"
    [ -s "$1" ] || fail "$1: the file is empty"
    [ -z "$(tail -c 1 <"$1")" ] || fail "$1: the last line is cut off"
    LC_ALL=C awk -v sweep="$sweep" '
        function least(a, b) { return a < b ? a : b }
        function bytesRead(request,    pass, left, asked, amount, got, sum) {
            for (pass = 1; pass <= 8; ++pass) {
                left = 1280 + 100 * 4095 - (1 + pass * sweep)
                if (left <= 0)
                    stop("bench ends with an error when its sweep size is " sweep)
                got = 0
                for (asked = 0; asked < sweep; asked += amount) {
                    amount = least(request, sweep - got)
                    got = least(amount, left)
                    sum += got
                }
            }
            return sum
        }
        function stop(why) { print why; stopped = 1; exit 1 }
        !/^[1-9][0-9]* , [0-9]+ ?$/ { stop("line " NR " is none of the results of kxadmin bench") }
        { size[NR] = $1; time[NR] = $3; bytes[NR] = bytesRead($1); total += $3 }
        END {
            if (!stopped && total == 0)
                stop("all times are 0; bench measures longer with -s 51347")
            for (i = 1; i <= NR && !stopped; ++i) {
                t = b = n = 0
                for (j = 1; j <= NR; ++j)
                    if (size[j] >= size[i] * 7 / 8 && size[j] <= size[i] * 9 / 8) {
                        t += time[j]
                        b += bytes[j]
                        ++n
                    }
                print size[i], time[i], t / n, (t > 0 ? b / t / 1000 : "NaN")
            }
        }' <"$1" >"$2" || fail "$1: $(tail -n 1 "$2")"
}

number=0
for file; do
    number=$((number + 1))
    prepare "$file" "$work/$number"
    base=$(basename -- "$file")
    name=${name+$name-}${base%.log}
done

# The data have names of our own and the titles come as arguments, so that gnuplot need not
# understand what a file can be called.
cat >"$work/script" <<'END'
n = ARG3 eq "" ? 1 : 2
label(i) = n == 1 ? ARG2 : i == 1 ? "before: ".ARG2 : "after: ".ARG3
file(i) = sprintf("%d", i)
dot(i) = word("#801f5fa8 #80d1491b", i)
line(i) = word("#1f5fa8 #d1491b", i)

if (ARG1 eq "png") {
    set terminal pngcairo size 1200, 1000 fontscale 1.1
} else {
    set terminal svg size 1200, 1000 dynamic fontscale 1.1 background "white"
}
set output "picture.".ARG1
greatest = 0
do for [i=1:n] {
    stats file(i) using 1 nooutput
    greatest = greatest > STATS_max ? greatest : STATS_max
}
set multiplot layout 2, 1 margins char 11, char 3, char 4.5, char 3 spacing char 0, char 5
set logscale x 2
set xtics ("1" 1024, "1.5" 1536, "2" 2048, "3" 3072, "4" 4096, "6" 6144, "8" 8192, "12" 12288, \
    "16" 16384, "24" 24576, "32" 32768)
set xrange [1000:greatest * 1.03]
set yrange [0:*]
set border 3 lc rgb "#666666"
set tics nomirror
set grid lt 1 lc rgb "#dddddd"
set key top right noenhanced

set title "kxadmin bench: 8 passes of ".ARG4." bytes, each size (dots) and mean around it (line)"
set xlabel "request size (KiB)"
set ylabel "time (ms)"
plot for [i=1:n] file(i) using 1:2 with points pt 7 ps 0.7 lc rgb dot(i) notitle, \
     for [i=1:n] file(i) using 1:3 with lines lw 2.5 lc rgb line(i) title label(i)

unset title
set ylabel "throughput (MB/s)"
unset key
plot for [i=1:n] file(i) using 1:4 with linespoints pt 7 ps 0.2 lw 2.5 lc rgb line(i)
unset multiplot
END
for kind in png svg; do
    (cd "$work" && gnuplot -c script "$kind" "$1" "${2-}" "$sweep")
done
for kind in png svg; do
    mv -- "$work/picture.$kind" "./$name.$kind"
    printf '%s\n' "$name.$kind"
done
