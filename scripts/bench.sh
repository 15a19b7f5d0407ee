#!/usr/bin/env bash
# bench.sh [<plot>.svg]: measures copy and stat against the bare loop (bench/bare.cpp), and copy
# against what one would use instead. What is compared alternates in one run; ratios are medians,
# with the least and the greatest behind them. Takes less than five minutes and needs 4 GB below
# /dev/shm. Draws the throughputs into the file, if one is named. Installs what is missing.
set -euo pipefail
plot=${1:+$(realpath "$1")}
cd "$(dirname "$0")/.."
. scripts/need.sh
need g++ cmake make strace valgrind time nbdkit libnbd-bin rsync socat iproute2 gnuplot-nox

cmake --preset release >/dev/null
cmake --build --preset release --parallel "$(nproc)" --target kxadmin kxsandbox bare >/dev/null
PATH=$PWD/build:$PATH
export LC_ALL=C

pairs=7
work=$(mktemp -d -p /dev/shm)
source=$work/source
dest=$work/dest
mkdir "$source" "$dest"
namespaces=()
finish() {
    jobs -p | xargs -r kill 2>/dev/null || true
    wait
    for namespace in "${namespaces[@]}"; do
        ip netns del "$namespace"
    done
    rm -rf "$work"
}
trap finish EXIT

# The two servers of a copy: start_servers <data limit> [<host> <host> [<words in front>...]]. Sets
# KXSRV_CTRL_PORT and the hosts.
servers=()
start_servers() {
    local limit=$1 line
    from=${2:-127.0.0.1}
    to=${3:-127.0.0.2}
    shift $(($# < 3 ? $# : 3))
    [ ${#servers[@]} -eq 0 ] || kill "${servers[@]}"
    mkfifo "$work/ready"
    "$@" kxsandbox -A "$from" -P 0 -m "$limit" -d "$source" >"$work/ready" &
    servers=($!)
    read -r line <"$work/ready"
    export KXSRV_CTRL_PORT=${line##* }
    "$@" kxsandbox -A "$to" -P "$KXSRV_CTRL_PORT" -m "$limit" -d "$dest" >"$work/ready" &
    servers+=($!)
    read -r line <"$work/ready"
    rm "$work/ready"
}

# The contestants; each copies the source file $file or runs as often as $times says.
kxadmin_copy() { "${tracer[@]}" kxadmin copy -o -q "$from:$file" "$to:kxadmin.rep" -p; }
bare_copy() { "${tracer[@]}" bare copy "$KXSRV_CTRL_PORT" "$from" "$file" "$to" bare.rep; }
kxadmin_stat() { for ((i = 0; i < times; i++)); do "${tracer[@]}" kxadmin stat "$from"; done; }
bare_stat() {
    for ((i = 0; i < times; i++)); do "${tracer[@]}" bare stat "$KXSRV_CTRL_PORT" "$from"; done
}
nbdcopy_one() {
    nbdcopy --synchronous --threads=1 --request-size=32768 "nbd://127.0.0.1:$nbd_from" \
        "nbd://127.0.0.1:$nbd_to"
}
nbdcopy_default() { nbdcopy "nbd://127.0.0.1:$nbd_from" "nbd://127.0.0.1:$nbd_to"; }
rsync_default() {
    rm -f "$dest/rsync.rep"
    rsync "$source/$file" "rsync://127.0.0.1:$rsync_port/dest/rsync.rep"
}
socat_default() {
    socat -u "TCP-LISTEN:$socat_port,bind=127.0.0.1,reuseaddr" "OPEN:$dest/socat.rep,creat,trunc" &
    local listener=$!
    socat -u "OPEN:$source/$file" "TCP:127.0.0.1:$socat_port,retry=50,interval=0.01"
    wait "$listener"
}
tracer=()

# measure <contestant>: appends the seconds, user seconds and all CPU seconds that it took to its
# file.
TIMEFORMAT='%R %U %S'
measure() {
    local begin end used
    begin=$EPOCHREALTIME
    used=$({ time "$1" >/dev/null 2>&1; } 2>&1)
    end=$EPOCHREALTIME
    awk -v begin="$begin" -v end="$end" '{ print end - begin, $2, $2 + $3 }' <<<"$used" \
        >>"$work/times.$1"
}

# alternate <contestant>...: as many times as there are pairs, in turns and in changing order.
alternate() {
    local round contestant
    for contestant; do
        rm -f "$work/times.$contestant"
        "$contestant" >/dev/null 2>&1 || { echo "$contestant fails"; exit 1; }
    done
    for ((round = 0; round < pairs; round++)); do
        for contestant; do
            measure "$contestant"
        done
        set -- "${@: -1}" "${@:1:$#-1}"
    done
}

equal() {
    local copy
    for copy; do
        cmp "$source/$file" "$dest/$copy"
    done
}

# quotient <number> <number>: with two decimals.
quotient() {
    awk -v a="$1" -v b="$2" 'BEGIN { if (b > 0) printf "%.2f\n", a / b; else print "-" }'
}

# Median, least and greatest of the numbers on standard input.
spread() {
    sort -g | awk '{ x[NR] = $1 } END {
        printf "%.2f (%.2f to %.2f)\n", (x[int((NR + 1) / 2)] + x[int((NR + 2) / 2)]) / 2, x[1], x[NR] }'
}

# ratio <column> <contestant> <contestant>: of the second one's figures to the first one's.
ratio() {
    paste -d ' ' "$work/times.$2" "$work/times.$3" |
        awk -v c="$1" '{ print $(c + 3) / $c }' | spread
}

# median <column> <contestant> <factor>: of its figures, as <factor> divided by them, or times them
# when it begins with an x.
median() {
    sort -g -k "$1,$1" "$work/times.$2" | awk -v c="$1" -v f="$3" '{ x[NR] = $c } END {
        m = x[int((NR + 1) / 2)]; printf "%.3g\n", (f ~ /^x/ ? m * substr(f, 2) : f / m) }'
}

# per_gib <column> <contestant> <MiB a run>: the total of its figures, for each GiB.
per_gib() {
    awk -v c="$1" -v m="$3" '{ t += $c } END { printf "%.3f\n", t * 1024 / (m * NR) }' "$work/times.$2"
}

header() {
    printf '\n%s\n' "$1"
}

# throughput <label> <contestant>...: a line of each one's MB/s, for the plot as well.
throughput() {
    local label=$1 megabytes contestant mbs
    shift
    megabytes=$(awk "BEGIN { print ${file%.rep} * 1.048576 }")
    for contestant; do
        mbs=$(median 1 "$contestant" "$megabytes")
        printf '  %-34s %8s MB/s\n' "$label${label:+ }${contestant//_/ }" "$mbs"
        printf '"%s" %s\n' "${contestant//_/ }${label:+, $label}" "$mbs" >>"$work/plot"
    done
}

# use <MiB>: that much to copy, and nothing yet where it goes.
use() {
    file=$1.rep
    rm -f "$dest"/*
}
{ printf '4321\006'; head -c $(((256 << 20) - 5)) /dev/urandom; } >"$source/256.rep"
for size in 16 32 64; do
    head -c $((size << 20)) "$source/256.rep" >"$source/$size.rep"
done
cat "$source"/256.rep "$source"/256.rep "$source"/256.rep "$source"/256.rep >"$source/1024.rep"

# Less is copied where a chunk is smaller: what counts is the time of a chunk, and this one's.
header "1. copy between two servers: throughput of kxadmin, the bare loop's being 1"
declare -A size_at=([32768]=256 [16384]=64 [4096]=32)
for limit in 32768 16384 4096; do
    use "${size_at[$limit]}"
    start_servers "$limit"
    alternate kxadmin_copy bare_copy
    equal kxadmin.rep bare.rep
    printf '  %-34s %s\n' "${file%.rep} MiB at a data limit of $limit" "$(ratio 1 kxadmin_copy bare_copy)"
    throughput "at $limit" kxadmin_copy bare_copy
    cp "$work/times.kxadmin_copy" "$work/times.kxadmin_$limit"
    cp "$work/times.bare_copy" "$work/times.bare_$limit"
done

# per_chunk <contestant> <what counts, a number at the end of its output>: what the second 512
# chunks of 32 KiB add, so that start and end do not count.
per_chunk() {
    local contestant=$1 n=()
    shift
    for file in 16.rep 32.rep; do
        n+=("$("$@" "$contestant")")
    done
    awk -v a="${n[0]}" -v b="${n[1]}" 'BEGIN { printf "%.4g", (b - a) / 512 }'
}
calls() {
    tracer=(strace -c -o "$work/calls")
    "$1" >/dev/null 2>&1
    awk '$NF == "total" { print $4 }' "$work/calls"
}
instructions() {
    # They depend on the environment, which is searched.
    tracer=(env -i "PATH=$PATH" LC_ALL=C "KXSRV_CTRL_PORT=$KXSRV_CTRL_PORT" valgrind
        --tool=callgrind --callgrind-out-file=/dev/null "--log-file=$work/log")
    "$1" >/dev/null 2>&1
    awk '/Collected/ { print $NF }' "$work/log"
}

# The kernel counts CPU time by sampling its ticks: one run has a few of them in user mode, only all
# runs together tell something.
header "2. what the client spends on those copies: kxadmin, the bare loop, and the ratio"
row() { printf '  %-34s %10s %10s   %s\n' "$@"; }
compare() { row "$1" "$2" "$3" "$(quotient "$2" "$3")"; }
for limit in 32768 16384 4096; do
    for column in '2 user' '3 all'; do
        read -r column what <<<"$column"
        compare "$what CPU seconds per GiB at $limit" \
            "$(per_gib "$column" "kxadmin_$limit" "${size_at[$limit]}")" \
            "$(per_gib "$column" "bare_$limit" "${size_at[$limit]}")"
    done
done
start_servers 32768
for what in calls instructions; do
    compare "$what per chunk" "$(per_chunk kxadmin_copy "$what")" "$(per_chunk bare_copy "$what")"
done
tracer=()

header "3. stat as a whole process: kxadmin, the bare exchange, and the ratio"
times=100
alternate kxadmin_stat bare_stat
row 'milliseconds' "$(median 1 kxadmin_stat x10)" "$(median 1 bare_stat x10)" \
    "$(ratio 1 bare_stat kxadmin_stat)"
times=1
compare 'instructions' "$(instructions kxadmin_stat)" "$(instructions bare_stat)"
tracer=()

header "4. the same 256 MiB by other means: throughput of kxadmin, the other's being 1"
use 256
nbd_from=$(kxsandbox -- printenv KXSRV_CTRL_PORT)
nbdkit -f -i 127.0.0.1 -p "$nbd_from" memory 256M 2>/dev/null &
nbd_to=$(kxsandbox -- printenv KXSRV_CTRL_PORT)
nbdkit -f -i 127.0.0.1 -p "$nbd_to" memory 256M 2>/dev/null &
rsync_port=$(kxsandbox -- printenv KXSRV_CTRL_PORT)
printf 'use chroot = no\n[dest]\npath = %s\nread only = no\nuid = %s\ngid = %s\n' "$dest" \
    "$(id -u)" "$(id -g)" >"$work/rsyncd.conf"
rsync --daemon --no-detach "--config=$work/rsyncd.conf" --address=127.0.0.1 "--port=$rsync_port" &
socat_port=$(kxsandbox -- printenv KXSRV_CTRL_PORT)
for port in "$nbd_from" "$nbd_to" "$rsync_port"; do
    until (exec 3<>"/dev/tcp/127.0.0.1/$port") 2>/dev/null; do
        sleep 0.05
    done
done
nbdcopy "$source/$file" "nbd://127.0.0.1:$nbd_from"
others=(nbdcopy_one nbdcopy_default rsync_default socat_default)
alternate kxadmin_copy "${others[@]}"
for other in "${others[@]}"; do
    printf '  %-34s %s\n' "${other//_/ }" "$(ratio 1 kxadmin_copy "$other")"
done
throughput '' kxadmin_copy "${others[@]}"

header "5. growth: milliseconds per MiB, and the client's peak memory in KiB"
for size in 16 64 256 1024; do
    use "$size"
    rm -f "$work/times.kxadmin_copy"
    tracer=(/usr/bin/time -o "$work/peak" -f %M)
    for ((i = 0; i < (size < 1024 ? 3 : 1); i++)); do
        measure kxadmin_copy
    done
    tracer=()
    row "$size MiB" "$(median 1 kxadmin_copy "x$(awk "BEGIN { print 1000 / $size }")")" \
        "$(cat "$work/peak")" ''
done

header "6. copy of 16 MiB over a link of 1500-byte packets: throughput of kxadmin, the bare loop's being 1"
use 16
here=kxbench-here-$$
there=kxbench-there-$$
if ip netns add "$here" 2>/dev/null; then
    namespaces=("$here")
    ip netns add "$there"
    namespaces+=("$there")
    ip link add kxlink0 netns "$here" type veth peer name kxlink1 netns "$there"
    # Loopback addresses on the link, as the server listens on no other. No packet is joined to a
    # larger one on the way.
    for end in "$here kxlink0 127.9.0.1" "$there kxlink1 127.9.0.2 127.9.0.3"; do
        read -r namespace link addresses <<<"$end"
        ip netns exec "$namespace" sysctl -qw "net.ipv4.conf.$link.route_localnet=1"
        ip -n "$namespace" link set "$link" mtu 1500 gso_max_segs 1 up
        for address in $addresses; do
            ip -n "$namespace" addr add "$address/24" dev "$link"
        done
    done
    start_servers 32768 127.9.0.2 127.9.0.3 ip netns exec "$there"
    tracer=(ip netns exec "$here")
    alternate kxadmin_copy bare_copy
    equal kxadmin.rep bare.rep
    printf '  %-34s %s\n' 'at a data limit of 32768' "$(ratio 1 kxadmin_copy bare_copy)"
    throughput 'on a 1500-byte link' kxadmin_copy bare_copy
else
    echo "  skipped: no network namespace can be made here"
fi

[ -z "$plot" ] || gnuplot <<END
rows = $(wc -l <"$work/plot")
set terminal svg size 900, 44 * rows + 90 dynamic background 'white'
set output '$plot'
set title 'Throughput of a copy, medians of $pairs runs'
set xlabel 'MB/s'
set xrange [0:*]
set yrange [rows - 0.4:-0.6]
set ytics scale 0
set xtics nomirror
set border 3 lc rgb '#666666'
set grid x
set style fill solid 0.85 noborder
set lmargin 36
unset key
plot '$work/plot' using (\$2 / 2):0:(\$2 / 2):(0.35):(strcol(1)[1:7] eq 'kxadmin' ? 0x1f5fa8 : 0x9aa7b5):\
    ytic(1) with boxxyerror lc rgb variable
END
