#!/usr/bin/env bash
# Sweeps every fault over every command and prints for each kind how many were tried and survived:
# what a server, the streams and signals can do (by the tests, under the sanitizers), each system
# call failing in turn (strace), and the commands under valgrind. Fails when anything did not
# survive. Takes about ten minutes on two cores.
set -euo pipefail
cd "$(dirname "$0")/.."
. scripts/need.sh
need g++ cmake make libgtest-dev strace valgrind

cmake --preset sanitize >/dev/null
cmake --build --preset sanitize --parallel "$(nproc)" >/dev/null
cmake --preset release >/dev/null
cmake --build --preset release --parallel "$(nproc)" \
    --target kxadmin kxadmin-strict kxsandbox >/dev/null

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
failed=0

row() {
    printf '%-24s %6d tried %6d survived\n' "$1" "$2" "$3"
    [ "$2" -gt 0 ] && [ "$2" -eq "$3" ] || failed=1
}

# The tests, as many at a time as there are processors, each with a log of its own.
tests=$(build-sanitize/kxtests --gtest_list_tests --gtest_filter='Faults.*' |
    sed -n 's/^  /Faults./p')
export KX_FAULTS=all
xargs -P "$(nproc)" -I '{}' sh -c "build-sanitize/kxtests --gtest_filter={} >'$work/{}' 2>&1" \
    <<<"$tests" || failed=1
for test in $tests; do
    grep -a ' [1-9][0-9]* tried .* survived$' "$work/$test" || failed=1
    grep -q -a '^\[  PASSED  \] 1 test' "$work/$test" || {
        failed=1
        cat "$work/$test"
    }
done
ended=1
build-sanitize/kxtests --gtest_filter='EndToEnd.ACopyThatIsEndedLeavesNoLock' >"$work/ended" || {
    ended=0
    cat "$work/ended"
}
row 'ends of a copy' 3 $((3 * ended))

PATH=$PWD/build:$PATH
cd "$work"
{ printf '4321\005'; head -c 99995 /dev/urandom; } >a.rep

# Each run has a sandbox to itself and no file of another run, and is followed by a copy that
# nothing disturbs: it finds the source unlocked. $@ is the command line, behind the tracer's words;
# `status` is its status then, and the files out and err hold what it said.
in_sandbox() {
    rm -f b.rep after.rep report kxbench.log
    status=0
    # shellcheck disable=SC2016 # the inner shell's
    timeout 60 kxsandbox -a 127.0.0.2 -- sh -c '
        "$@"
        status=$?
        kxadmin copy -o 127.0.0.1:a.rep 127.0.0.2:after.rep -p >after 2>&1
        exit $status' sh "$@" </dev/null >out 2>err || status=$?
}

# The lines that a run said, without the numbers, which are never the same.
said() {
    {
        cat out err
        [ ! -e report ] || cat report
    } | tr -d 0-9
}

# Whether a run ended by itself as it should, and the copy behind it worked, so that no lock was
# left: with status 0 and the work done, or with another and a line that is not in `usual`. $@ is a
# command that succeeds where the work is done.
survived() {
    cmp -s a.rep after.rep || return 1
    case $status in
    0) "$@" ;;
    [2-4]) [ "$(said | grep . | grep -c -v -x -F -f usual)" -gt 0 ] ;;
    *) return 1 ;;
    esac
}

# inject <call> <error> <done> <command>...: the calls of one kind fail, one after the other and
# each in a run of its own, but for the loader's, which end with the opening of /dev/null: a program
# that is not loaded cannot survive. The words of <done> are a command that succeeds when the work
# is done.
inject() {
    local call=$1 error=$2 done=$3
    shift 3
    local tried=0 survived=0 first total n status
    # The run that is counted has to succeed itself.
    in_sandbox strace -o calls kxadmin-strict "$@"
    # shellcheck disable=SC2086 # words of a command
    if [ "$status" -ne 0 ] || ! survived $done; then
        echo "$* fails undisturbed: status $status"
        cat out err
        row "$1: $call $error" 1 0
        return
    fi
    said >usual
    first=$(sed '/\/dev\/null/,$d' calls | grep -c "^$call(" || true)
    total=$(grep -c "^$call(" calls || true)
    for ((n = first + 1; n <= total; n++)); do
        in_sandbox strace -qq -o /dev/null -e trace="$call" \
            -e inject="$call:error=$error:when=$n" kxadmin-strict "$@"
        tried=$((tried + 1))
        # shellcheck disable=SC2086 # words of a command
        if survived $done; then
            survived=$((survived + 1))
        else
            echo "$call $n of $total fails with $error, $*: status $status"
            cat out err
        fi
    done
    row "$1: $call $error" "$tried" "$survived"
}

for call in socket:EMFILE connect:ETIMEDOUT setsockopt:EINVAL ioctl:EINVAL sendto:EPIPE \
    sendmsg:EPIPE recvfrom:ECONNRESET openat:EMFILE write:ENOSPC mmap:ENOMEM; do
    inject "${call%:*}" "${call#*:}" 'cmp -s a.rep b.rep' \
        copy 127.0.0.1:a.rep 127.0.0.2:b.rep -p
done
# What must not be forgotten in the rest: an open, a lock, a password.
for call in socket:EMFILE connect:ETIMEDOUT sendto:EPIPE recvfrom:ECONNRESET; do
    inject "${call%:*}" "${call#*:}" 'grep -q Uptime out' stat 127.0.0.1
    inject "${call%:*}" "${call#*:}" 'cmp -s a.rep b.rep' copy -f cp 127.0.0.1:a.rep b.rep -p
    inject "${call%:*}" "${call#*:}" 'grep -q killed out' stop 127.0.0.1 -k 1 -p
done
for call in openat:EACCES write:ENOSPC close:EIO mmap:ENOMEM; do
    inject "${call%:*}" "${call#*:}" 'grep -q appears report' test -r a.rep -f report
    inject "${call%:*}" "${call#*:}" 'grep -q ^1024 kxbench.log' bench -c 1024
done

# Each command with what it says at the end.
tried=0
survived=0
while IFS='|' read -r command end; do
    tried=$((tried + 1))
    # shellcheck disable=SC2086 # words of a command line
    if kxsandbox -- valgrind -q --error-exitcode=9 --leak-check=full \
        "$(command -v kxadmin)" $command >out 2>&1 </dev/null && grep -q "$end" out; then
        survived=$((survived + 1))
    else
        echo "$command:"
        cat out
    fi
done <<'END'
stat|^=====
list|^=====
list -s 1|Connection  *1
list -l 1|locks
opts|^=====
opts -s 1 -p|set to .Warning
opts -s 1|set to .Warning
stop -p -k 1|killed
stop -p -Z 100|scheduled to stop
test -r a.rep|valid repository with
test -r no.rep|does not exist
copy -o a.rep b.rep -p|copied to
copy -f true a.rep b.rep -p|using system command
test -r a.rep -f /dev/stdout|valid repository with
bench -c 1024|finished
END
row valgrind "$tried" "$survived"
exit "$failed"
