#!/usr/bin/env bash
# Sweeps every fault over every command and prints for each kind how many were tried and survived:
# what a server can do (by the tests, under the sanitizers), each system call of a copy failing in
# turn (strace), and the commands under valgrind. Fails when anything did not survive.
set -euo pipefail
cd "$(dirname "$0")/.."
. scripts/need.sh
need g++ cmake make libgtest-dev valgrind

cmake --preset sanitize >/dev/null
cmake --build --preset sanitize --parallel "$(nproc)" >/dev/null
cmake -S . -B build >/dev/null
cmake --build build --parallel "$(nproc)" --target kxadmin kxsandbox >/dev/null

failed=0
KX_FAULTS=all build-sanitize/kxtests --gtest_filter='Faults.*' >faults.log || {
    failed=1
    grep -a -A 30 Failure faults.log
}
grep -a 'tried.*survived$' faults.log

PATH=$PWD/build:$PATH
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cd "$work"
{ printf '4321\005'; head -c 99995 /dev/urandom; } >a.rep

# The command line of a copy between the two hosts of a sandbox of its own, behind the words given.
copy() {
    rm -f b.rep
    timeout 60 kxsandbox -a 127.0.0.2 -- "$@" kxadmin copy -p '' 127.0.0.1:a.rep 127.0.0.2:b.rep \
        </dev/null
}

# Ends by itself with status 0, and claims no copy that is not equal.
survived() {
    [ "$1" -eq 0 ] && { ! grep -q 'copied to' out || cmp -s a.rep b.rep; }
}

# The calls of each kind fail one after the other, but for the loader's, which end with the opening of
# /dev/null: a program that is not loaded cannot survive.
inject() {
    local call=$1 error=$2 tried=0 survived=0 first total n status
    copy strace -o calls >/dev/null 2>&1
    first=$(sed '/\/dev\/null/,$d' calls | grep -c "^$call(" || true)
    total=$(grep -c "^$call(" calls || true)
    for ((n = first + 1; n <= total; n++)); do
        status=0
        copy strace -qq -o /dev/null -e trace="$call" -e inject="$call:error=$error:when=$n" \
            >out 2>err || status=$?
        tried=$((tried + 1))
        if survived "$status"; then survived=$((survived + 1)); else cat out err; fi
    done
    printf '%-24s %6d tried %6d survived\n' "$call $error" "$tried" "$survived"
    [ "$tried" -eq "$survived" ] || failed=1
}

if command -v strace >/dev/null; then
    inject socket EMFILE
    inject connect ETIMEDOUT
    inject setsockopt EINVAL
    inject ioctl EINVAL
    inject sendto EPIPE
    inject recvfrom ECONNRESET
    inject openat EMFILE
    inject write ENOSPC
    inject mmap ENOMEM
else
    echo "system calls             skipped: strace is not installed"
fi

tried=0
survived=0
for command in stat list 'list -s 1' 'list -l 1' opts 'opts -s 1 -p' 'stop -p -k 1' 'stop -p -Z 100' \
    'test -r a.rep' 'test -r no.rep' 'test -r a.rep -f report' 'copy -o a.rep b.rep -p' \
    'copy -f true a.rep b.rep -p' 'bench -c 1024'; do
    tried=$((tried + 1))
    # shellcheck disable=SC2086 # words of a command line
    if kxsandbox -- valgrind -q --error-exitcode=9 --leak-check=full \
        "$(command -v kxadmin)" $command >out 2>&1 </dev/null; then
        survived=$((survived + 1))
    else
        cat out
    fi
done
printf '%-24s %6d tried %6d survived\n' valgrind "$tried" "$survived"
[ "$tried" -eq "$survived" ] || failed=1
exit "$failed"
