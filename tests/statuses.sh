#!/usr/bin/env bash
# statuses.sh <directory> [text]: runs the command lines below, or those of them that have the text,
# with the programs of the directory and a sandbox that has the password pw. Fails and names each
# that does not end with the status in front of it, or that says on standard error something else
# than what stands indented below it, behind the name of the program.
set -euo pipefail
unset BASH_ENV
PATH=$(realpath "$1"):$PATH
text=${2-}
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cd "$work"

# With one attempt to connect, so that what cannot be reached is known at once.
# shellcheck disable=SC2317 # the lines below call it
strict() {
    kxadmin-strict --tries 1 "$@"
}
# The last two lines that a command prints are looked at too.
# shellcheck disable=SC2317
ends() {
    local status=0
    "$@" >out || status=$?
    grep . out | tail -n 2 >&2
    return "$status"
}
export -f strict ends

tried=0
failed=0
# Runs the line in a directory of its own and compares.
try() {
    local got=0
    [[ $line == *"$text"* ]] || return 0
    tried=$((tried + 1))
    rm -rf files
    mkdir files
    cd files
    { printf '4321\005' && head -c 2000 /dev/zero; } >a.rep
    chmod 644 a.rep
    cp a.rep b.rep
    head -c 3000 /dev/zero >long.rep
    printf 'pw\n' >password
    printf '\n' >empty
    printf '%031d' 0 >x31
    chmod 600 password empty x31
    LC_ALL=C timeout -k 5 60 kxsandbox -p pw -- \
        bash -c "$line" </dev/null >../out 2>../err || got=$?
    cd ..
    # Left out: that stty finds no terminal, the log, and the advice that follows every complaint.
    printf %s "$words" >expected
    sed -E '/^(stty: |[0-9:.]{12} |Try )/d; s/^kx[a-z-]+: |\r| +$//g' err >said
    [ "$got" -eq "$status" ] && cmp -s expected said && return
    failed=1
    echo "$line: status $got"
    {
        [ "$got" -eq "$status" ] || echo "Expected: status $status"
        diff -U9 --label 'expected on standard error' --label said expected said || true
        cat out
    } | sed 's/^/    /'
}
line=''
while IFS= read -r row; do
    if [[ $row == ' '* ]]; then
        words+=${row#  }$'\n'
        continue
    fi
    [ -z "$line" ] || try
    status=${row%% *} line=${row#* } words=''
done <<'END'
0 strict opts -s2 <<<pw
4 strict opts -s2
  no password was given
1 strict opts -s4 -p pw
3 strict stat >/dev/full
  standard output was lost
3 strict stat >&-
  standard output was lost
2 strict stat -P1
2 ends strict copy -P1 -p pw a.rep b.rep
  Unable to connecto to KXSRV at [localhost] or IP Address is unkown.
  Failed to connect to source server
2 ends strict copy -p pw a.rep 127.7.7.7:b.rep
  Unable to connecto to KXSRV at [127.7.7.7] or IP Address is unkown.
  Failed to connect to destination server
3 ends kxsandbox -t1 -- kxadmin-strict copy a.rep b.rep -p
  Connected to source server
  Supported PXSRV commands are OPTS and STOP only.
2 strict test -r a.rep -P1ab -f report || (fold -s -w 95 report >&2; exit 2)
  1
  Could not connect to an KXSRV on localhost:1. Ensure that you have the correct server address
  and port number and that KXSRV is running on that machine.
0 kxadmin test -r a.rep -f b.rep | sed -n 's/^2nd open.* e/2nd e/p' >&2; head -n1 b.rep >&2
  2nd errno = 17.
  0
3 strict test -r a.rep -f /dev
  Error creating temporary file /dev.
3 strict test -r a.rep -f /dev/full
  Error writing temporary file /dev/full.
0 strict test -r a.rep -f report >&-
3 strict bench -c1024 -l /dev/full
  Error writing log file /dev/full.
0 strict copy -qo a.rep -p pw b.rep
4 strict copy -p pw a.rep b.rep <<<n
1 strict test -f report
  Repository path must be specified using -r for test command.
  see kxadmin help
3 strict copy -qp pw -f 'exit 5;' a.rep b.rep
  the system command failed with status 5
3 strict copy -qp pw -f 'kill -9 $$;' a.rep b.rep
  the system command was ended by signal 9
143 timeout 30 kxadmin-strict copy -qp pw -f '(sleep 1; kill $PPID) & kill -STOP $$;' a.rep b.rep
  the system command was ended by signal 15
0 strict copy -qp pw -f 'exec grep SigBlk /proc/self/status >&2 #' a.rep b.rep
  SigBlk:	0000000000000000
3 strict --progress --verify copy -op pw a.rep long.rep
  [0:2005]
  the copy goes on where the source ends, at [0:2005]
1 strict --verify stat >&2
  --verify goes with a copy through the servers only
1 strict --verify copy -f cp a.rep b.rep
  --verify goes with a copy through the servers only
1 strict --tries 31 stat
  --tries takes a number from 1 to 30
1 strict --tries=0 stat >&2
  --tries takes a number from 1 to 30
1 strict --try=secret stat >&2
  unknown option --try; see kxadmin-strict --help
1 strict --verify=1 stat >&2
  option --verify takes no value
1 kxadmin-strict --tries
  option --tries takes a value
0 strict --version | grep -q '^kxadmin-strict ('
0 strict --help | grep -q '^exit status: 0'
0 strict --password-file - stop < <(printf 'pw\ny\n')
1 strict --password-file password opts -s1 -p pw
  -p and --password-file exclude each other
1 strict --password-file a.rep stat
  password file a.rep: others may read or change it
1 chmod 602 password; strict --password-file password stat
  password file password: others may read or change it
1 strict --password-file none stat
  password file none: No such file or directory
1 strict --password-file . stat
  password file .: Is a directory
1 strict --password-file empty stat >&2
  password file empty: its first line is empty
1 strict --password-file /dev/zero stat
  password file /dev/zero: its first line is too long for a password
1 strict --password-file x31 stat
  password file x31: its first line is too long for a password
0 kxadmin list -l1 | grep '^Connection 1' >&2
  Connection 1 holds no locks.
0 cp a.rep $'b\ac'; kxadmin copy -qp pw -f 'kxadmin list | grep -o b.c >&2; :' $'b\ac' x
  b?c
0 kxsandbox -V | grep -q '^kxsandbox ('
0 >kxadmin; PATH=$PWD:/usr/bin:/bin "$(command -v kxsandbox)" -- kxadmin stat | grep -q ^Uptime
0 kxsandbox -t3 -- kxadmin stat | grep '^Server type' >&2
  Server type               3 (unnamed)
2 kxsandbox -t4
  -t: the server type '4' is not a number from 0 to 3
0 kxsandbox -p secret -- sh -c 'tr "\0" . </proc/$PPID/cmdline | head -c 22; echo' >&2
  kxsandbox.-p........--
0 kxsandbox -m 4096 -- kxadmin opts | grep '^Data limit' >&2
  Data limit                4096
0 kxsandbox -- kxadmin-strict opts -s3 -p
0 kxsandbox -A 127.0.0.2 -a 127.0.0.3 -a 127.0.0.3 -- kxadmin opts 127.0.0.3 | grep -o '127.*' >&2
  127.0.0.2
  127.0.0.3
0 exec 3< <(exec kxsandbox -A 127.9.9.9 2>&1); grep -om1 'port [0-9]*' <&3 >&2; kill $! 2>&-; :
  port 4800
0 kxsandbox "$(printf %0600d 0)" 2>&1 | head -n 1 | wc -c >&2 # cut to its buffer
  500
7 kxsandbox -- sh -c 'trap "exit 7" HUP; kill -HUP $PPID; while :; do sleep .1; done'
7 kxsandbox -- sh -c 'kxadmin stop -p -Z100 >/dev/null; sleep .1; exit 7'
7 trap "" CHLD; kxsandbox -- sh -c 'yes | head -n 1 >&2; exit 7' # and SIGPIPE ends yes
  y
3 ulimit -f 1; kxsandbox -- kxadmin-strict copy a.rep c.rep -qp >/dev/null # its file ends at 1 KB
137 kxsandbox -- sh -c 'kill -9 $$'
143 kxsandbox -- sh -c 'kill -TERM $PPID; exec sleep 60'
127 kxsandbox -- /no/such
  cannot run /no/such: No such file or directory
127 kxsandbox -- ''
  cannot run : No such file or directory
2 kxsandbox -a 126.9.9.9
  -a: '126.9.9.9' is not a loopback address; the sandbox listens below 127.0.0.0/8 only
2 kxsandbox -A 128.0.0.1
  -A: '128.0.0.1' is not a loopback address; the sandbox listens below 127.0.0.0/8 only
2 kxsandbox -a 127.1
  -a: '127.1' is not a dotted address
2 kxsandbox -P 65536
  -P: the port '65536' is not a number from 0 to 65535
2 kxsandbox -m 0
  -m: the data limit '0' is not a number from 1 to 32768
2 kxsandbox -c 0
  -c: the number of connections '0' is not a number from 1 to 999
2 kxsandbox -xy
  unknown option -x
2 kxsandbox --x
  unknown option --x
2 kxsandbox --help=x
  unknown option --help=x
2 kxsandbox -p
  option -p needs a value
2 kxsandbox --
  there is no command behind --
2 kxsandbox x
  unexpected argument 'x' (a command to run stands behind --)
end
END
[ "$tried" -gt 0 ] || {
    echo "No line has \"$text\"."
    exit 1
}
exit "$failed"
