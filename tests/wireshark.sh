#!/usr/bin/env bash
# wireshark.sh [--accept]: shows captures with the dissector of docs/wireshark and compares what is
# shown with the files in tests/wireshark, which --accept writes anew for you to look at. Ends with
# 77, for skipped, where there is no tshark.
set -euo pipefail
cd "$(dirname "$0")/.."
for tool in tshark sharkd text2pcap mergecap editcap; do
    command -v "$tool" >/dev/null && continue
    echo "Skipped: there is no $tool (Debian's package tshark brings it)"
    exit 77
done

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
export WIRESHARK_CONFIG_DIR=$work/config # nobody's preferences and plugins
with_dissector=(-X lua_script:docs/wireshark/kxsrv.lua)
sample=docs/wireshark/sample.pcapng
accept=${1:-}

fail() {
    echo "FAILED: $1" >&2
    touch "$work/failed"
}

# In two passes, as in the window: the second one knows the replies to come.
dissect() {
    tshark "${with_dissector[@]}" -2 "$@" 2>"$work/complaints" ||
        fail "tshark $*: $(cat "$work/complaints")"
}

# Compares the expected file with standard input.
compare() {
    if [ "$accept" = --accept ]; then
        cat >"$work/accepted"
        cp "$work/accepted" "$1"
    else
        diff -u --label "$1" --label 'shown now' "$1" - || fail "$1 is not what is shown"
    fi
}

same() {
    diff -u --label "$2" --label "$3" "$4" "$5" || fail "$1"
}

# Every message of the sample that differs from those before it, as <field>=<value>, the request
# code first. Values are cut, of times only the presence counts, and there are no pad bytes.
mapfile -t fields < <(tshark -G fields "${with_dissector[@]}" 2>/dev/null | awk -F '\t' '
    $1 == "F" && $5 == "kxsrv" && $3 !~ /[.]note[.]/ { print ($3 != "kxsrv.opcode") $3 }' |
    sort | cut -c 2-)
dissect -r "$sample" -Y kxsrv -T fields -E header=y "${fields[@]/#/-e}" | awk -F '\t' '
    NR == 1 {
        for (i = 1; i <= NF; ++i) {
            name[i] = $i
            sub(/^kxsrv[.]/, "", name[i])
        }
        next
    }
    {
        line = ""
        for (i = 1; i <= NF; ++i)
            if ($i != "" && name[i] !~ /_in$|^pad/)
                line = line " " name[i] "=" (name[i] == "time" ? "*" : substr($i, 1, 26))
        if (!seen[line]++)
            print substr(line, 2)
    }' | compare tests/wireshark/sample.txt

# The client's codes, all of them in the sample, and replies that point to the requests that point
# to them.
tshark -G values "${with_dissector[@]}" 2>/dev/null |
    awk -F '\t' '$2 == "kxsrv.opcode" { print $4, "=", $3 }' | sort >"$work/known"
sed -n 's/^ *\(REQUEST_[A-Z0-9_]* = [0-9]*\),.*/\1/p' client/protocol.h | sort >"$work/defined"
same "not the request codes of the client" client/protocol.h kxsrv.lua "$work/defined" "$work/known"
sed 's/.* //' "$work/known" | sort >"$work/codes"
dissect -r "$sample" -Y kxsrv.request_in -T fields -e kxsrv.opcode | sort -u >"$work/replied"
same "a code is not in the sample" known replied "$work/codes" "$work/replied"
dissect -r "$sample" -Y kxsrv.reply_in -T fields -e frame.number -e kxsrv.reply_in >"$work/there"
dissect -r "$sample" -Y kxsrv.request_in -T fields -e kxsrv.request_in -e frame.number |
    sort -n >"$work/back"
same "requests and replies do not match" 'request, reply' 'the same backwards' \
    "$work/there" "$work/back"

# The paragraphs of hostile.txt are connections, their lines segments; what is lost travels and is
# not captured. The result is the same file, with what is shown behind each "=".
mkdir "$work/hostile"
awk -v folder="$work/hostile" '
    BEGIN { for (i = 32; i < 127; ++i) code[sprintf("%c", i)] = i }
    function add(byte) {
        printf "%s%s", size % 16 ? " " : sprintf("\n%06x ", size), byte >file
        ++size
    }
    /^$/ || NR == 1 { file = sprintf("%s/%03d", folder, ++connections); segments = 0 }
    match($0, /^(lost )?[<>] /) {
        ++segments
        if (/^lost/)
            print segments >(file ".lost")
        printf "\n%s\n", /^(lost )?</ ? "I" : "O" >file
        rest = substr($0, RLENGTH + 1)
        size = 0
        while (rest != "") {
            if (match(rest, /^"[^"]*"/))
                for (i = 2; i < RLENGTH; ++i)
                    add(sprintf("%02x", code[substr(rest, i, 1)]))
            else if (match(rest, /^[0-9a-f][0-9a-f]x[0-9]+/))
                for (i = substr(rest, 4, RLENGTH - 3); i > 0; --i)
                    add(substr(rest, 1, 2))
            else if (match(rest, /^[0-9a-f][0-9a-f]/))
                add(substr(rest, 1, 2))
            else
                RLENGTH = 1
            rest = substr(rest, RLENGTH + 1)
        }
    }' tests/wireshark/hostile.txt
for segments in "$work"/hostile/???; do
    port=$((40000 + 10#${segments##*/}))
    text2pcap -q -D -T "4800,$port" "$segments" "$work/whole" 2>/dev/null
    if [ -e "$segments.lost" ]; then
        mapfile -t lost <"$segments.lost"
        editcap "$work/whole" "$segments.pcapng" "${lost[@]}"
    else
        mv "$work/whole" "$segments.pcapng"
    fi
done
mergecap -w "$work/hostile.pcapng" "$work"/hostile/*.pcapng
dissect -r "$work/hostile.pcapng" -Y kxsrv -T fields -E aggregator=';' -e tcp.port \
    -e _ws.col.Info -e _ws.expert.message >"$work/shown"
awk -F '\t' '
    FNR == NR {
        split($1, ports, ";")
        connection = (ports[1] == 4800 ? ports[2] : ports[1]) - 40000
        note = $3 == "" ? "" : " {" $3 "}"
        shown[connection] = shown[connection] "= " substr($2, 1, 80) note "\n"
        next
    }
    FNR == 1 { connection = 1 }
    /^=/ { next }
    /^$/ { printf "%s", shown[connection++] }
    { print }
    END { printf "%s", shown[connection] }' "$work/shown" tests/wireshark/hostile.txt |
    compare tests/wireshark/hostile.txt

# A list that is shown again is the same, as in the window after scrolling.
mkdir -p "$work/installed/plugins"
cp docs/wireshark/kxsrv.lua "$work/installed/plugins"
list='{"jsonrpc": "2.0", "id": 2, "method": "frames", "params": {"filter": "kxsrv"}}'
printf '%s\n' '{"jsonrpc": "2.0", "id": 1, "method": "load", "params": {"file": "'"$sample"'"}}' \
    "$list" "$list" | WIRESHARK_CONFIG_DIR=$work/installed sharkd - 2>/dev/null |
    grep '"id":2' | sed 's/},{/},\n{/g' >"$work/lists"
frames=$(($(wc -l <"$work/lists") / 2))
head -n "$frames" "$work/lists" >"$work/first"
tail -n "$frames" "$work/lists" >"$work/second"
grep -q 'reply to stop server' "$work/first" || fail "sharkd shows no stop"
same "a list is not the same when it is shown again" first again "$work/first" "$work/second"

# Passwords are shown on demand alone, also where they are not where they should be.
dissect -r "$sample" -V -o kxsrv.show_password:TRUE >"$work/asked"
for password in secret wrong; do
    grep -q "Password: $password\$" "$work/asked" || fail "the password $password is not shown"
done
for capture in "$sample" "$work/hostile.pcapng"; do
    ! dissect -r "$capture" -V | grep -E 'secret|wrong|736563726574|77726f6e67' ||
        fail "a password of $capture is shown unasked"
done

# Where Wireshark is not to reassemble, the data in a later segment are no requests.
! dissect -r "$work/hostile.pcapng" -o tcp.desegment_tcp_streams:FALSE -Y 'kxsrv.opcode == 0' |
    grep . || fail "data are taken for a request"

# Whatever is cut off or falsified, the script goes on.
editcap -s 90 "$sample" "$work/cut.pcapng"
dissect -r "$work/cut.pcapng" -Y kxsrv.note.in_part >"$work/in_part"
dissect -r "$work/cut.pcapng" -Y 'kxsrv.note.cut_short || kxsrv.note.wrong_amount' >"$work/taken"
if [ ! -s "$work/in_part" ] || [ -s "$work/taken" ]; then
    fail "what a capture leaves out is taken for missing: $(cat "$work/taken")"
fi
editcap -E 0.03 --seed 1 "$sample" "$work/falsified.pcapng" >/dev/null 2>&1
for capture in "$sample" "$work/hostile.pcapng" "$work/cut.pcapng" "$work/falsified.pcapng"; do
    ! dissect -r "$capture" -V | grep -A 1 'Lua Error' || fail "an error in the script: $capture"
done

[ ! -e "$work/failed" ]
