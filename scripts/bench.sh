#!/usr/bin/env bash
# bench.sh [<plot>.svg]: measures copy and stat against the bare loop (bench/bare.cpp), and copy
# against what one would use instead. What is compared alternates in one run; ratios are medians,
# with the least and the greatest behind them. Takes less than five minutes and needs 4 GB below
# /dev/shm. Draws the throughputs into the file, if one is named. Installs what is missing.
set -Eeuo pipefail
shopt -s inherit_errexit
trap 'echo "bench.sh: line $LINENO failed" >&2' ERR
plot=${1:+$(realpath "$1")}
cd "$(dirname "$0")/.."
. scripts/need.sh
need g++ cmake make strace valgrind time nbdkit libnbd-bin rsync socat iproute2 gnuplot-nox

cmake --preset release >/dev/null
cmake --build --preset release --parallel "$(nproc)" --target kxadmin kxsandbox bare >/dev/null
PATH=$PWD/build:$PATH
export LC_ALL=C

# With one request in flight only one of client and servers is at work at a time. On one processor
# it need not wake another one up, which in a virtual machine costs several times what is measured.
processors=$(taskset -cp $$ | sed 's/.*: //')
on_processors() { taskset -cp "$1" $$ >/dev/null; }
on_processors "${processors##*[,-]}"

pairs=7
work=$(mktemp -d -p /dev/shm)
source=$work/source
dest=$work/dest
mkdir "$source" "$dest"
namespaces=()
finish() {
    trap '' HUP INT TERM
    jobs -p | xargs -r kill 2>/dev/null || true
    [ ! -e "$work/listener" ] || kill "$(cat "$work/listener")" 2>/dev/null || true
    wait
    for namespace in "${namespaces[@]}"; do
        ip netns del "$namespace" || true
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
no_stat() { for ((i = 0; i < times; i++)); do /bin/true; done; }
nbdcopy_one() {
    nbdcopy --synchronous --threads=1 --request-size=32768 "nbd://127.0.0.1:$nbd_from" \
        "nbd://127.0.0.1:$nbd_to"
}
nbdcopy_default() { nbdcopy "nbd://127.0.0.1:$nbd_from" "nbd://127.0.0.1:$nbd_to"; }
rsync_default() { rsync "$source/$file" "rsync://127.0.0.1:$rsync_port/dest/rsync.rep"; }
socat_default() {
    socat -u "TCP-LISTEN:$socat_port,bind=127.0.0.1,reuseaddr,accept-timeout=10" \
        "OPEN:$dest/socat.rep,creat" &
    echo $! >"$work/listener"
    socat -u "OPEN:$source/$file" "TCP:127.0.0.1:$socat_port,retry=50,interval=0.01"
    wait "$(cat "$work/listener")"
    rm "$work/listener"
}
tracer=()

# What is copied to lies there already, wrong in the middle; or nothing does, where $anew says so.
anew=
spoil() {
    local copy=$dest/$1.rep
    if [ -n "$anew" ]; then
        rm -f "$copy"
        return
    fi
    [ -e "$copy" ] || cp "$source/$file" "$copy"
    printf 'spoilt..' | dd of="$copy" bs=8 seek=$((${file%.rep} << 16)) conv=notrunc status=none
}

# Whether a contestant has done its work: kxadmin's exit status does not tell.
has_worked() {
    case $1 in
    *_stat) [ "$1" = no_stat ] || [ "$(grep -c '^Uptime' "$work/log")" -eq "$times" ] ;;
    nbdcopy_*) ;;
    *) cmp "$source/$file" "$dest/${1%_*}.rep" ;;
    esac
}

# run <contestant>: leaves the seconds, user seconds and all CPU seconds that it took in $spent.
TIMEFORMAT='%R %U %S'
run() {
    local begin end used
    case $1 in
    *_stat | nbdcopy_*) ;;
    *) spoil "${1%_*}" ;;
    esac
    begin=$EPOCHREALTIME
    used=$({ time "$1" >"$work/log" 2>&1; } 2>&1) || used=
    end=$EPOCHREALTIME
    if [ -z "$used" ] || ! has_worked "$1"; then
        echo "$1 fails:"
        tail "$work/log"
        exit 1
    fi
    spent=$(awk -v begin="$begin" -v end="$end" '{ print end - begin, $2, $2 + $3 }' <<<"$used")
}

# measure <runs> <contestant>...: so many runs of each, in turns and in changing order. The times of
# each are in its file.
measure() {
    local runs=$1 round contestant
    shift
    for contestant; do
        rm -f "$work/times.$contestant"
    done
    for ((round = 0; round < runs; round++)); do
        for contestant; do
            run "$contestant"
            echo "$spent" >>"$work/times.$contestant"
        done
        set -- "${@: -1}" "${@:1:$#-1}"
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
    paste -d ' ' "$work/times.$2" "$work/times.$3" | awk -v c="$1" '{ print $(c + 3) / $c }' | spread
}

# median <contestant> <factor>: of its seconds, as <factor> divided by them, or times them when it
# begins with an x.
median() {
    sort -g "$work/times.$1" | awk -v f="$2" '{ x[NR] = $1 } END {
        m = x[int((NR + 1) / 2)]
        m = f ~ /^x/ ? m * substr(f, 2) : f / m
        printf (m < 100 ? "%.3g\n" : "%.0f\n"), m }'
}

# per_gib <column> <contestant>: the total of its figures for copies of 256 MiB, for each GiB.
per_gib() {
    awk -v c="$1" '{ t += $c } END { printf "%.3f\n", 4 * t / NR }' "$work/times.$2"
}

header() { printf '\n%s\n' "$1"; }
row() { printf '  %-34s %10s %10s   %s\n' "$@"; }
compare() { row "$1" "$2" "$3" "$(quotient "$2" "$3")"; }

# throughput <label> <contestant>...: a line of each one's MB/s, for the plot as well.
throughput() {
    local label=$1 megabytes contestant mbs
    shift
    megabytes=$(awk "BEGIN { print ${file%.rep} * 1.048576 }")
    for contestant; do
        mbs=$(median "$contestant" "$megabytes")
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
for size in 8 16 32 64; do
    head -c $((size << 20)) "$source/256.rep" >"$source/$size.rep"
done
cat "$source"/256.rep "$source"/256.rep "$source"/256.rep "$source"/256.rep >"$source/1024.rep"

header "1. copy of 256 MiB between two servers: throughput of kxadmin, the bare loop's being 1"
for limit in 32768 16384 4096; do
    use 256
    start_servers "$limit"
    measure "$pairs" kxadmin_copy bare_copy
    printf '  %-34s %s\n' "at a data limit of $limit" "$(ratio 1 kxadmin_copy bare_copy)"
    throughput "at $limit" kxadmin_copy bare_copy
    cp "$work/times.kxadmin_copy" "$work/times.kxadmin_$limit"
    cp "$work/times.bare_copy" "$work/times.bare_$limit"
done

# The kernel counts CPU time by sampling its ticks: one run has a few of them in user mode, only all
# runs together tell something.
header "2. what the client spends on those copies: kxadmin, the bare loop, and the ratio"
for limit in 32768 16384 4096; do
    for column in '2 user' '3 all'; do
        read -r column what <<<"$column"
        compare "$what CPU seconds per GiB at $limit" \
            "$(per_gib "$column" "kxadmin_$limit")" "$(per_gib "$column" "bare_$limit")"
    done
done

# What is counted of one run of a contestant.
calls() {
    tracer=(strace -c -o "$work/calls")
    run "$1"
    awk '$NF == "total" { n = $4 } END { print n; exit !n }' "$work/calls"
}
instructions() {
    # They depend on the environment, which is searched.
    tracer=(env -i "PATH=$PATH" LC_ALL=C "KXSRV_CTRL_PORT=$KXSRV_CTRL_PORT" valgrind
        --tool=callgrind --callgrind-out-file=/dev/null "--log-file=$work/instructions")
    run "$1"
    awk '/Collected/ { n = $NF } END { print n; exit !n }' "$work/instructions"
}
# compare_chunks <calls or instructions>: what the second 512 chunks of 32 KiB add, so that start
# and end do not count.
compare_chunks() {
    local contestant less more spent=()
    for contestant in kxadmin_copy bare_copy; do
        use 16
        less=$("$1" "$contestant")
        use 32
        more=$("$1" "$contestant")
        spent+=($(((more - less + 256) / 512)))
    done
    compare "$1 per chunk" "${spent[@]}"
}
for contestant in kxadmin bare; do
    cat "$work/times.$contestant"_[0-9]* >"$work/times.${contestant}_all"
done
compare 'user CPU seconds per GiB, mean' "$(per_gib 2 kxadmin_all)" "$(per_gib 2 bare_all)"
start_servers 32768
compare_chunks calls
compare_chunks instructions

header "3. stat as a whole process: kxadmin, the bare exchange, and the ratio"
start_servers 32768
times=100
measure "$pairs" kxadmin_stat bare_stat no_stat
row 'milliseconds' "$(median kxadmin_stat x10)" "$(median bare_stat x10)" \
    "$(ratio 1 bare_stat kxadmin_stat)"
row 'milliseconds of /bin/true' '' "$(median no_stat x10)" ''
times=1
ours=$(instructions kxadmin_stat)
theirs=$(instructions bare_stat)
compare 'instructions' "$ours" "$theirs"

header "4. the same on all processors, and by other means: throughput of kxadmin, the other's being 1"
on_processors "$processors"
start_servers 32768
use 256
free_port() { kxsandbox -- printenv KXSRV_CTRL_PORT; }
nbd_from=$(free_port)
nbdkit -f -i 127.0.0.1 -p "$nbd_from" memory 256M 2>>"$work/others" &
nbd_to=$(free_port)
nbdkit -f -i 127.0.0.1 -p "$nbd_to" memory 256M 2>>"$work/others" &
rsync_port=$(free_port)
printf 'use chroot = no\n[dest]\npath = %s\nread only = no\nuid = %s\ngid = %s\n' "$dest" \
    "$(id -u)" "$(id -g)" >"$work/rsyncd.conf"
rsync --daemon --no-detach "--config=$work/rsyncd.conf" --address=127.0.0.1 "--port=$rsync_port" \
    2>>"$work/others" &
socat_port=$(free_port)
for port in "$nbd_from" "$nbd_to" "$rsync_port"; do
    for ((i = 0; i < 200; i++)); do
        (exec 3<>"/dev/tcp/127.0.0.1/$port") 2>/dev/null && break
        sleep 0.05
    done
    [ "$i" -lt 200 ] || { cat "$work/others"; exit 1; }
done
nbdcopy "$source/$file" "nbd://127.0.0.1:$nbd_from"
others=(nbdcopy_one nbdcopy_default rsync_default socat_default)
anew=yes
measure "$pairs" kxadmin_copy "${others[@]}"
anew=
nbdcopy "nbd://127.0.0.1:$nbd_to" - | cmp - "$source/$file"
for other in "${others[@]}"; do
    printf '  %-34s %s\n' "${other//_/ }" "$(ratio 1 kxadmin_copy "$other")"
done
throughput '' kxadmin_copy "${others[@]}"

header "5. growth: milliseconds per MiB, and the client's peak memory in KiB"
on_processors "${processors##*[,-]}"
start_servers 32768
tracer=(/usr/bin/time -o "$work/peak" -f %M)
for size in 16 64 256 1024; do
    use "$size"
    measure $((size < 256 ? pairs : size < 1024 ? 3 : 1)) kxadmin_copy
    row "$size MiB" "$(awk -v m="$size" '{ print 1000 * $1 / m }' "$work/times.kxadmin_copy" | spread)" \
        '' "$(cat "$work/peak")"
done
tracer=()

# Two network namespaces, and a link of 1500-byte packets between them. They have loopback addresses
# on it, as the server listens on no other.
here=kxbench-here-$$
there=kxbench-there-$$
make_link() {
    local end namespace link addresses address
    for namespace in "$here" "$there"; do
        ip netns add "$namespace" || return
        namespaces+=("$namespace")
    done
    ip link add kxlink0 netns "$here" type veth peer name kxlink1 netns "$there" || return
    for end in "$here kxlink0 127.9.0.1" "$there kxlink1 127.9.0.2 127.9.0.3"; do
        read -r namespace link addresses <<<"$end"
        ip netns exec "$namespace" \
            sh -c "echo 1 >/proc/sys/net/ipv4/conf/$link/route_localnet" || return
        ip -n "$namespace" link set "$link" mtu 1500 up || return
        for address in $addresses; do
            ip -n "$namespace" addr add "$address/24" dev "$link" || return
        done
    done
}

# across <MiB> <how the packets travel>
across() {
    use "$1"
    measure "$pairs" kxadmin_copy bare_copy
    printf '  %-34s %s\n' "$1 MiB, $2" "$(ratio 1 kxadmin_copy bare_copy)"
    throughput "$2" kxadmin_copy bare_copy
}

header "6. copy over a link of 1500-byte packets: throughput of kxadmin, the bare loop's being 1"
if make_link 2>"$work/others"; then
    start_servers 32768 127.9.0.2 127.9.0.3 ip netns exec "$there"
    tracer=(ip netns exec "$here")
    across 32 'in bursts'
    # No packet is joined to a larger one on the way.
    ip -n "$here" link set kxlink0 gso_max_segs 1
    ip -n "$there" link set kxlink1 gso_max_segs 1
    across 8 'each by itself'
else
    echo "  skipped: the link cannot be made here: $(head -1 "$work/others")"
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
