#!/usr/bin/env bash
# statuses.sh <directory>: runs the command lines below with the programs of the directory, against a
# sandbox with the password pw, and fails unless each ends with its status and says its words on
# standard error. Names each that does not.
set -euo pipefail
PATH=$(realpath "$1"):$PATH
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cd "$work"

# With one attempt to connect, so that what cannot be reached is known at once.
strict() {
    # shellcheck disable=SC2317 # the lines below do
    kxadmin-strict --tries 1 "$@"
}
export -f strict

failed=0
while IFS='|' read -r status words line; do
    rm -rf files
    mkdir files
    cd files
    { printf '4321\005' && head -c 2000 /dev/zero; } >a.rep
    cp a.rep b.rep
    head -c 3000 /dev/zero >long.rep
    printf 'pw\n' >password
    printf '\n' >empty
    printf '%031d' 0 >x31
    chmod 600 password empty x31
    got=0
    LC_ALL=C kxsandbox -p pw -- bash -c "$line" </dev/null >../out 2>../err || got=$?
    cd ..
    if [ "$got" -ne "$status" ] || { [ -n "$words" ] && ! grep -q -x -F -e "$words" err; } ||
        { [ -z "$words" ] && grep -q '^kxadmin-strict:' err; }; then
        echo "$line: status $got, not $status${words:+, or without \"$words\"}"
        sed 's/^/    /' out err
        failed=1
    fi
done <<'END'
0||strict opts -s2 <<<pw
4|kxadmin-strict: no password was given|strict opts -s2
1||strict opts -s4 -p pw
3||strict opts -s1 -p no
3||strict list -s 77
3|kxadmin-strict: standard output was lost|strict stat >/dev/full
3|kxadmin-strict: standard output was lost|strict stat >&-
2||strict stat -P1
2||strict test -r a.rep -P1ab -f report
0||kxadmin test -r a.rep -P1ab -f report; diff report <(printf '%s\n' 1 'Could not connect to an KXSRV on localhost:1. Ensure that you have the correct server address and port number and that KXSRV is running on that machine.')
0||kxadmin test -r a.rep -f b.rep | grep -q '^2nd open returned .*, errno = 17.$' && head -n 1 b.rep | grep -q -x 0
3|Error creating temporary file /dev.|strict test -r a.rep -f /dev
3|Error writing temporary file /dev/full.|strict test -r a.rep -f /dev/full
0||strict test -r a.rep -f report >&-
3||strict test -r 'x appears to be a valid repository with a maximum size of 1 GB.'
3|Error writing log file /dev/full.|strict bench -c1024 -l /dev/full
0||strict copy -p pw a.rep $'b\nc'
0||strict copy -qop pw a.rep b.rep
4||strict copy -p pw a.rep b.rep <<<n
0||strict copy -qp pw -f 'echo Copy cancelled.; cp' a.rep c.rep
3|kxadmin-strict: the system command failed with status 5|strict copy -qp pw -f 'exit 5;' a.rep b.rep
3|kxadmin-strict: the system command was ended by signal 9|strict copy -qp pw -f 'kill -9 $$;' a.rep b.rep
0||strict --verify copy -p pw a.rep d.rep
3|kxadmin-strict: the copy goes on where the source ends, at [0:2005]|strict --progress --verify copy -op pw a.rep long.rep
1|kxadmin-strict: --verify goes with a copy through the servers only|strict --verify stat
1|kxadmin-strict: --verify goes with a copy through the servers only|strict --verify copy -f cp a.rep b.rep
1|kxadmin-strict: --tries takes a number from 1 to 30|strict --tries 31 stat
1|kxadmin-strict: --tries takes a number from 1 to 30|strict --tries=0 stat
1|kxadmin-strict: unknown option --try; see kxadmin-strict --help|strict --try stat
1|kxadmin-strict: option --verify takes no value|strict --verify=1 stat
1|kxadmin-strict: option --tries takes a value|kxadmin-strict --tries
0||strict --version | grep -q -x 'kxadmin-strict (.*)'
0||strict --help | grep -q '^exit status: 0 done'
0||strict --password-file password opts -s1
0||strict --password-file - stop < <(printf 'pw\ny\n')
1|kxadmin-strict: -p and --password-file exclude each other|strict --password-file password opts -s1 -p pw
1|kxadmin-strict: password file a.rep: others may read or change it|strict --password-file a.rep stat
1|kxadmin-strict: password file none: No such file or directory|strict --password-file none stat
1|kxadmin-strict: password file .: Is a directory|strict --password-file . stat
1|kxadmin-strict: password file empty: its first line is empty|strict --password-file empty stat
1|kxadmin-strict: password file /dev/zero: its first line is too long for a password|strict --password-file /dev/zero stat
1|kxadmin-strict: password file x31: its first line is too long for a password|strict --password-file x31 stat
0||kxsandbox -t3 -- true
0||kxadmin list -l1 | grep -q '^Connection 1 holds no locks'
0||kxsandbox -V | grep -q '^kxsandbox (sandbox'
0||echo no >kxadmin; PATH=$PWD:/usr/bin:/bin "$(command -v kxsandbox)" -- kxadmin stat | grep -q ^Uptime
0||kxsandbox -t2 -- kxadmin stat | grep -q '^Server type  *2 (unnamed)'
0||kxsandbox -p x -- kxadmin opts | grep -q '^Administrator.s password  *set'
0||kxsandbox -m 4096 -- kxadmin opts | grep -q '^Data limit  *4096'
0||kxsandbox -- sh -c 'kxadmin opts -s3 -p; kxadmin opts' | grep -q '^Logging level  *3 (Debug)'
0||kxsandbox -A 127.0.0.2 -- kxadmin-strict --tries 1 opts 127.0.0.2 | grep -c '^Address' | grep -q -x 1
0||kxsandbox -a 127.0.0.2 -a 127.0.0.2 -- kxadmin-strict --tries 1 opts 127.0.0.2 | grep -c '^Address' | grep -q -x 2
0||coproc kxsandbox -A 127.9.$(($$ / 256 % 256)).$(($$ % 256)); read -r line <&"${COPROC[0]}"; kill "$COPROC_PID"; [[ $line == *' port 4800' ]]
0||kxsandbox "$(printf %0600d 0)" 2>&1 | head -n 1 | wc -c | grep -q -x 500 # cut to its buffer
7||kxsandbox -- sh -c 'exit 7'
137||kxsandbox -- sh -c 'kill -9 $$'
143||kxsandbox -- sh -c 'kill -TERM $PPID; sleep 9'
127|kxsandbox: cannot run /no/such: No such file or directory|kxsandbox -- /no/such
2|kxsandbox: -a: '126.255.255.255' is not a loopback address; the sandbox listens below 127.0.0.0/8 only|kxsandbox -a 126.255.255.255
2|kxsandbox: -A: '128.0.0.1' is not a loopback address; the sandbox listens below 127.0.0.0/8 only|kxsandbox -A 128.0.0.1
2|kxsandbox: -A: '0.0.0.0' is not a loopback address; the sandbox listens below 127.0.0.0/8 only|kxsandbox -A 0.0.0.0
2|kxsandbox: -a: '127.1' is not a dotted address|kxsandbox -a 127.1
2|kxsandbox: -P: the port '65536' is not a number from 0 to 65535|kxsandbox -P 65536
2|kxsandbox: -m: the data limit '0' is not a number from 1 to 32768|kxsandbox -m 0
2|kxsandbox: -c: the number of connections '0' is not a number from 1 to 999|kxsandbox -c 0
2|kxsandbox: unknown option -x|kxsandbox -xy
2|kxsandbox: unknown option --x|kxsandbox --x
2|kxsandbox: unknown option --help=x|kxsandbox --help=x
127|kxsandbox: cannot run : No such file or directory|kxsandbox -- ''
2|kxsandbox: option -p needs a value|kxsandbox -p
2|kxsandbox: there is no command behind --|kxsandbox --
2|kxsandbox: unexpected argument 'x' (a command to run stands behind --)|kxsandbox x
END
exit "$failed"
