#!/usr/bin/env bash
# A tour of kxadmin against its sandbox server: builds the release, starts a sandbox of two hosts,
# and shows each command with its output. Leaves nothing running. Installs what is missing.
set -euo pipefail
cd "$(dirname "$0")/.."
. scripts/need.sh
need g++ cmake make

cmake -S . -B build >/dev/null
cmake --build build --parallel "$(nproc)" --target kxadmin kxadmin-strict kxsandbox
PATH=$PWD/build:$PATH

work=$(mktemp -d)
finish() {
    jobs -p | xargs -r kill 2>/dev/null || true
    wait
    rm -rf "$work"
}
trap finish EXIT
cd "$work"

# Shows a command line, then what it leaves on a terminal: of progress that overwrites itself on
# one line, the last state.
show() {
    printf '\n$ %s\n' "$1"
    eval "$1" 2>&1 | awk '{ sub(/\r$/, ""); sub(/.*\r/, ""); print }'
}

note() {
    printf '\n# %s\n' "$*"
}

note "A sandbox of two hosts, with an administrator's password"
printf '$ kxsandbox -a 127.0.0.2 -P 0 -p secret &\n'
mkfifo ready
kxsandbox -a 127.0.0.2 -P 0 -p secret >ready &
read -r line <ready
echo "$line"
export KXSRV_CTRL_PORT=${line##* }

note "What the server tells"
show 'kxadmin stat'
show 'kxadmin list'
show 'kxadmin list -s 1'
show 'kxadmin opts'
show 'kxadmin opts -s 3 -p wrong'
show 'kxadmin opts -s 2 -p secret'

note "A client that does nothing, and its end"
exec 3<>"/dev/tcp/127.0.0.1/$KXSRV_CTRL_PORT"
show 'kxadmin list'
show 'kxadmin stop -k 1 -p secret'
exec 3>&-

note "A repository of 64 MiB"
{ printf '4321\005'; head -c $((64 * 1024 * 1024 - 5)) /dev/urandom; } >sample.rep
show 'kxadmin test -r sample.rep'
show 'kxadmin test -r missing.rep'
show 'kxadmin test -r sample.rep -f report.txt && cat report.txt'

note "Copied from one host to the other, and by a system command"
show 'kxadmin copy -p secret 127.0.0.1:sample.rep 127.0.0.2:copy.rep'
show 'cmp sample.rep copy.rep && echo equal'
show 'kxadmin copy -p secret -f cp sample.rep second.rep'
show 'cmp sample.rep second.rep && echo equal'

note "While another copy holds the source locked, it cannot be copied"
mkfifo release
echo 'read -r line <release' >hold.sh
mkfifo held
printf '$ %s\n' "kxadmin copy -p secret -f 'sh hold.sh' sample.rep third.rep &"
kxadmin copy -p secret -f 'sh hold.sh' sample.rep third.rep >held &
exec 4<held
while read -r line <&4; do
    case $line in Locked*) break ;; esac
done
show 'kxadmin list'
show 'kxadmin list -l 1'
show 'kxadmin copy -p secret 127.0.0.1:sample.rep 127.0.0.2:third.rep'
echo >release
cat <&4 >/dev/null

note "How fast it reads"
show 'kxadmin bench -c 1408 -l results.txt'
show 'head -3 results.txt'

note "The end"
show 'kxadmin stop -p secret <<< y'
