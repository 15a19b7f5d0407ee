#!/usr/bin/env bash
# sample-capture.sh [<folder>]: makes docs/wireshark/sample.pcapng anew, a session of the kxadmin in
# the folder (build) with its sandbox. Every request travels in it, and so do errors, a wrong
# password and a refused connection. Installs what is missing.
set -Eeuo pipefail
trap 'echo "sample-capture.sh: line $LINENO failed" >&2' ERR

# In a network of its own the session has port 4800 to itself, nothing else is captured, and it
# takes no privilege to capture.
if [ "${1:-}" != --inside ]; then
    programs=$(realpath "${1:-"$(dirname "$0")/../build"}")
    cd "$(dirname "$0")/.."
    . scripts/need.sh
    need tshark iproute2 util-linux
    exec unshare --user --map-root-user --net scripts/sample-capture.sh --inside "$programs"
fi
PATH=$2:$PATH
ip link set lo up
sample=$PWD/docs/wireshark/sample.pcapng
dissector=$PWD/docs/wireshark/kxsrv.lua

work=$(mktemp -d)
finish() {
    jobs -p | xargs -r kill 2>/dev/null || true
    wait
    rm -rf "$work"
}
trap finish EXIT
cd "$work"

# Waits until the command succeeds, for ten seconds at most.
await() {
    local left
    for ((left = 100; left > 0; --left)); do
        "$@" >/dev/null 2>&1 && return
        sleep 0.1
    done
    echo "In vain waited for: $*" >&2
    return 1
}

# A client as bare as can be, on an open descriptor: ask <descriptor> <code> [<parameters>], where
# parameters are written as printf takes them. Returns when the reply has been read.
number() {
    printf '\\x%02x' $(($1 >> 24 & 255)) $(($1 >> 16 & 255)) $(($1 >> 8 & 255)) $(($1 & 255))
}

read_number() {
    echo $((16#$(head -c 4 <&"$1" | od -An -v -tx1 | tr -d ' \n')))
}

ask() {
    local parameters=${3:-} length
    length=$(printf '%b' "$parameters" | wc -c)
    # One write, so that it travels in one segment.
    printf '%b' "$(number "$2")$(number 0)$(number "$length")$parameters" >request
    cat request >&"$1"
    read_number "$1" >result
    length=$(($(read_number "$1") + $(read_number "$1")))
    head -c "$length" <&"$1" >result
}

connect() {
    exec 3<>/dev/tcp/127.0.0.1/4800
    read_number 3
}

session() {
    kxadmin stat
    kxadmin list
    kxadmin opts
    kxadmin opts -s 2 -p secret
    kxadmin opts -s 2 -p wrong
    kxadmin test -r sample.rep
    kxadmin test -r missing.rep
    kxadmin copy -q -p secret sample.rep 127.0.0.2:copy.rep

    # What no command sends, and a little of what bench sends thousands of.
    connect
    ask 3 7 "$(number 0)scratch.rep"
    ask 3 4 "$(number 16)$(number 12)Hello, world"
    ask 3 3 "$(number 16)$(number 64)"
    ask 3 8
    ask 3 11 'admin\0secret\0'
    # A lock at 4 GB, for the list of locks.
    ask 3 47 "$(number 1)$(number 0)$(number 0)$(number 100)"
    kxadmin list -s 1
    kxadmin list -l 1
    # Two connections are allowed.
    exec 4<>/dev/tcp/127.0.0.1/4800
    read_number 4
    kxadmin list
    ask 4 10
    kxadmin stop -k 1 -p secret
    kxadmin stop -Z 100 -p secret
}

# Whether the capture holds the connection that stopped the server up to the server's last frame.
is_whole() {
    local stream
    stream=$(tshark -r capture.pcap -X "lua_script:$dissector" \
        -Y 'kxsrv.opcode == 17 && kxsrv.result' -T fields -e tcp.stream)
    tshark -r capture.pcap -Y "tcp.stream == $stream && tcp.srcport == 4800 && tcp.flags.fin" |
        grep -q .
}

dumpcap -q -i lo -P -w capture.pcap 2>dumpcap.log &
dumpcap=$!
await grep -q '^File:' dumpcap.log

{ printf '4321\006'; head -c 1295 /dev/zero; } >sample.rep
mkfifo ready
kxsandbox -a 127.0.0.2 -p secret -c 2 -m 1000 >ready 2>sandbox.log &
sandbox=$!
read -r _ <ready
session >session.log

wait "$sandbox"
await is_whole # frames may still be on their way to the file
kill -INT "$dumpcap"
wait "$dumpcap"
# A file of the older format has no place for the names of the machine and of its system.
# Nor is the first block, which is 28 bytes without the options that editcap writes into it.
editcap -F pcapng capture.pcap named.pcapng
{
    printf '\x0a\x0d\x0d\x0a\x1c\0\0\0\x4d\x3c\x2b\x1a\1\0\0\0'
    printf '\xff\xff\xff\xff\xff\xff\xff\xff\x1c\0\0\0'
    tail -c +$((1 + $(od -An -j 4 -N 4 -t u4 named.pcapng))) named.pcapng
} >"$sample"
capinfos -c -s "$sample"
echo "Look at it, then: tests/wireshark.sh --accept"
