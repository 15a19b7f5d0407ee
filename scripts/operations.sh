#!/usr/bin/env bash
# Runs what operations/ holds on two hundred servers, five of which are faulty, and fails unless
# exactly those five are named with their reasons: by Ansible, by the monitoring check and by the
# journal of systemd. Then 40 repositories are copied while one destination is killed, and a tunnel
# is compared with a bare connection. Prints how long the check of 20 and of 200 servers takes.
# Installs what is missing, and leaves nothing running.
#
# As root the units run under a systemd of their own, in a container that has nothing of this
# system's but its programs, and the network is listened to. Others run the units' command lines.
set -euo pipefail
cd "$(dirname "$0")/.."
. scripts/need.sh
need g++ cmake make ansible-core ansible-lint openssh-client openssh-server python3 shellcheck \
    systemd systemd-container tcpdump

cmake -S . -B build >/dev/null
cmake --build build --parallel "$(nproc)" --target kxadmin kxadmin-strict kxsandbox >/dev/null
parts=$PWD/operations
programs=$PWD/build

work=$(mktemp -d)
cd "$work"
started=() # the processes of this script
holder=    # one that has to take its command along
finish() {
    kill ${holder:+"$holder"} 2>/dev/null || true
    kill -KILL "${started[@]}" 2>/dev/null || true
    rm -rf --one-file-system "$work"
}
trap finish EXIT

fail() {
    echo "FAILED: $*" >&2
    exit 1
}

# As a site installs them.
mkdir -p local/bin local/lib/systemd/system local/lib/sysusers.d home etc
cp "$programs"/{kxadmin,kxadmin-strict,kxsandbox} "$parts/systemd/kxadmin-copy" \
    "$parts/monitoring/check_kxsrv" local/bin
cp "$parts"/systemd/kxadmin-copy@.{service,timer} local/lib/systemd/system
cp "$parts/systemd/kxcopy.conf" local/lib/sysusers.d
PATH=$work/local/bin:$PATH
export HOME=$work/home # of what ssh and Ansible leave there

echo "== The parts themselves"
shellcheck "$parts/systemd/kxadmin-copy"
cp -r "$parts/ansible" .
(cd ansible && ansible-lint -q --offline ./*.yml tasks/*.yml)
mkdir units
for unit in service timer; do
    sed 's,/usr/local/bin/kxadmin-copy,/bin/true,' "$parts/systemd/kxadmin-copy@.$unit" \
        >"units/kxadmin-copy@.$unit" # verify wants a program that is there
done
systemd-analyze --man=no verify units/kxadmin-copy@{.service,.timer}
systemd-analyze security --offline=true --threshold=15 units/kxadmin-copy@.service | tail -1

# The servers

password=secret-$RANDOM$RANDOM
(umask 077 && echo "$password" >password)
mkfifo ready

# Serves a directory on addresses until the end. The first finds the port that all have.
port=0
serve() { # <directory> <password> <address>...
    local directory=$1 options=(-p "$2" -A "$3") line
    for address in "${@:4}"; do
        options+=(-a "$address")
    done
    mkdir -p "$directory"
    kxsandbox -c 999 -P "$port" -d "$directory" "${options[@]}" >"$work/ready" 2>>"$work/log" &
    server=$!
    started+=("$server")
    disown # the shell need not tell of its end
    read -r line <"$work/ready" || fail "$(cat "$work/log")"
    port=${line##* }
}

repository() { # <file>
    { printf '4321\005' && head -c 20000 /dev/urandom; } >"$1"
}

# The faulty ones, and what is to be said of each.
declare -A reasons=(
    [127.24.1.7]='Unable to connecto to KXSRV' # nobody is there
    [127.24.2.7]='no answer within|had not ended after' # it accepts connections, and says nothing
    [127.24.3.7]='Password is invalid'
    [127.24.4.7]='Could not read from the repository .*Access was denied' # it is locked
    [127.24.4.9]='Check pattern missing in header' # it is no repository
)

hosts=()
for group in 1 2 3 4; do
    group_hosts=()
    for number in {1..50}; do
        host=127.24.$group.$number
        hosts+=("$host")
        [ -n "${reasons[$host]:-}" ] || group_hosts+=("$host")
    done
    serve "group$group" "$password" "${group_hosts[@]}"
    for host in "${group_hosts[@]}"; do
        repository "group$group/$host.rep"
    done
done
serve silent "$password" 127.24.2.7
kill -STOP "$server"
serve other "another $password" 127.24.3.7
repository other/127.24.3.7.rep
serve locked "$password" 127.24.4.7
repository locked/127.24.4.7.rep
serve zeros "$password" 127.24.4.9
head -c 200000 /dev/zero >zeros/127.24.4.9.rep
serve backup "$password" 127.24.5.1
export KXSRV_CTRL_PORT=$port

# A copy whose command waits keeps its source locked.
mkfifo held
kxadmin-strict --password-file password \
    copy -f 'sleep infinity #' 127.24.4.7:{127.24.4.7,copy}.rep >held 2>>log &
holder=$!
while read -r line && [[ $line != Locked* ]]; do :; done <held
[[ $line == Locked* ]] || fail "127.24.4.7 is not locked"
echo "== ${#hosts[@]} servers on port $port, ${#reasons[@]} of them faulty"

# Fails unless the lines of a file, each of a host and a text, name each faulty host once with its
# reason, and nobody else.
exactly_the_faulty() { # <who says so> <file>
    local host
    sed 's/^/    /' "$2"
    [ "$(wc -l <"$2")" -eq ${#reasons[@]} ] || fail "$1 does not name ${#reasons[@]}"
    for host in "${!reasons[@]}"; do
        grep -qE "^${host}[: ].*(${reasons[$host]})" "$2" || fail "$1 does not say what $host has"
    done
}

echo "== Ansible"
cd ansible
{
    printf 'kxsrv:\n  hosts:\n'
    printf '    %s:\n' "${hosts[@]}"
} >inventory/servers.yml
cat >inventory/group_vars/kxsrv/site.yml <<END
kxsrv_port: $port
kxsrv_repositories: ["{{ inventory_hostname }}.rep"]
kxsrv_copies_at_once: 4
kxsrv_copy_to: 127.24.5.1:{{ inventory_hostname }}-%F-{{ kxsrv_repository }}
END
echo "vault_kxsrv_password: $password" >inventory/group_vars/kxsrv/vault.yml
echo "of the vault $RANDOM" >"$work/vault"
export ANSIBLE_VAULT_PASSWORD_FILE=$work/vault ANSIBLE_CALLBACK_RESULT_FORMAT=json
export ANSIBLE_REMOTE_TMP=$HOME/.ansible/tmp # which it would not take from HOME
ansible-vault encrypt inventory/group_vars/kxsrv/vault.yml 2>/dev/null

# Told as much as Ansible tells, and with each program's arguments and those of its parent.
mkdir ../spy
cat >../spy/kxadmin-strict <<END
#!/bin/sh
{ cat "/proc/\$\$/cmdline" "/proc/\$PPID/cmdline" && env; } >>"$work/seen"
exec "$work/local/bin/kxadmin-strict" "\$@"
END
chmod +x ../spy/kxadmin-strict
PATH=$work/spy:$PATH ansible-playbook -vvvv check.yml --limit 127.24.1.1 >"$work/told"
grep -q 'opts' ../seen || fail "the spy has seen nothing"

# Runs a playbook that is to do all of its work.
play() { # <playbook> [<option>...]
    ansible-playbook "$@" </dev/null >"$work/play" 2>&1 || fail "$(cat "$work/play")"
}

# Has a playbook fail, and leaves its faults in the file faults, a line for each host.
failing_play() { # <playbook> [<option>...]
    ! ansible-playbook "$@" >"$work/play" 2>&1 || fail "$1 has found nothing"
    sed -nE 's/^(fatal|failed): \[([^]]*)\].* => /\2 /p' "$work/play" >"$work/faults"
    # The summary has to name the same.
    diff <(cut -d' ' -f1 "$work/faults" | sort) \
        <(sed -n 's/ .*failed=[1-9].*//p' "$work/play" | sort) || fail "$1 names others at its end"
}

twenty=("${!reasons[@]}" "${hosts[@]:160:15}")
for limit in "$(IFS=: && echo "${twenty[*]}")" all; do
    SECONDS=0
    failing_play check.yml --limit "$limit"
    count=$(grep -c 'failed=' "$work/play")
    echo "$count servers checked in $SECONDS seconds, with 10 for the one that says nothing"
    exactly_the_faulty "check.yml" "$work/faults"
done

cd "$work"
echo "== Monitoring"
# shellcheck disable=SC2016 # the variables of the shells below
printf '%s\n' "${hosts[@]}" | port=$port xargs -P 8 -I{} sh -c '
    echo {} $(check_kxsrv -H {} -p $port -m password --password-file password -l 1 &&
        check_kxsrv -H {} -p $port -m repository -r {}.rep -M {}.prom)' >checks || true
grep -v ' KXSRV OK .* KXSRV OK ' checks >faults || true
exactly_the_faulty check_kxsrv faults

echo "== systemd"
mkdir credentials
for host in "${hosts[@]}"; do
    limit=4h
    [ "$host" != 127.24.2.7 ] || limit=10s
    cat >"etc/$host.conf" <<END
SOURCE=$host:$host.rep
DESTINATION=127.24.5.1:%F-$host.rep
PORT=$port
TRIES=1
TIME_LIMIT=$limit
END
    cp -p password "etc/$host.password"
done

# Starts all instances under a systemd, which ends with them, and leaves their journal behind.
start_in_container() {
    mkdir trial
    cat >local/lib/systemd/system/trial.service <<'END'
[Unit]
SuccessAction=exit
FailureAction=exit
[Service]
Type=oneshot
ExecStart=/trial/run
END
    cat >trial/run <<'END'
#!/bin/sh
for conf in /etc/kxadmin/*.conf; do
    instance=${conf##*/}
    echo "kxadmin-copy@${instance%.conf}.service"
done | xargs -P 8 -n 1 systemctl start
systemctl list-units --plain --no-legend --failed 'kxadmin-copy@*' >/trial/failed
journalctl -o cat -t kxadmin-copy >/trial/journal
journalctl -o cat -t kxadmin-copy -p err >/trial/errors
END
    chmod +x trial/run
    systemd-nspawn --quiet --directory=/ --volatile=yes --register=no --keep-unit --boot \
        --machine="kxtrial-$$" --console=pipe --bind-ro="$work/local:/usr/local" \
        --bind-ro="$work/etc:/etc/kxadmin" --bind="$work/trial:/trial" \
        -- systemd.unit=trial.service </dev/null >container 2>&1 || fail "$(tail -5 container)"
    [ "$(wc -l <trial/failed)" -eq ${#reasons[@]} ] || fail "$(cat trial/failed)"
}

# What the unit has systemd do, as far as a shell can: the settings, the credential, the directory
# of the state, and the command line.
start_unit() { # <instance>
    local unit=$parts/systemd/kxadmin-copy@.service command credential settings
    command=$(sed -n "s,^ExecStart=/usr/local,$work/local,p" "$unit")
    credential=$(sed -n "s,^LoadCredential=password:/etc/kxadmin,$work/etc,p" "$unit")
    mapfile -t settings < <(grep -v '^#' "etc/$1.conf")
    mkdir -p "credentials/$1"
    cp -p "${credential//%i/$1}" "credentials/$1/password"
    env "${settings[@]}" "CREDENTIALS_DIRECTORY=$work/credentials/$1" \
        "STATE_DIRECTORY=$work/state/$1" "${command% %i}" "$1"
}

if [ "$(id -u)" -eq 0 ]; then
    start_in_container
else
    mkdir trial
    for host in "${hosts[@]}"; do
        start_unit "$host" || true
    done >trial/journal
    grep 'NOT COPIED' trial/journal >trial/errors || true
fi
exactly_the_faulty 'the journal' trial/errors
[ "$(grep -c 'copied to .* and verified' trial/journal)" -eq 195 ] || fail "$(cat trial/journal)"
for original in group*/*.rep; do
    cmp "$original" backup/????-??-??-"${original#*/}"
done

echo "== Four nights, of which two copies are kept, and one that fails"
cat >remove-copy <<END
#!/bin/sh
rm "$work/backup/\$2"
END
chmod +x remove-copy
cp -p password etc/nights.password
cat >etc/nights.conf <<END
SOURCE=127.24.1.1:127.24.1.1.rep
DESTINATION=127.24.5.1:night %s%N.rep
PORT=$port
KEEP=2
REMOVE=$work/remove-copy
END
for _ in 1 2 3 4; do
    start_unit nights
done
sed -i 's/127.24.1.1.rep/missing.rep/' etc/nights.conf
! start_unit nights || fail "a repository that is not there was copied"
nights=(backup/night*)
[ ${#nights[@]} -eq 2 ] || fail "left are: ${nights[*]}"
cmp group1/127.24.1.1.rep "${nights[0]}" && cmp group1/127.24.1.1.rep "${nights[1]}"
check_kxsrv -m age -s state/nights -c 86400

echo "== Forty copies, one destination killed"
doomed=127.24.1.20
serve doomed "$password" 127.24.5.2
cd ansible
head -c 512M /dev/zero >>"../group1/$doomed.rep"
cat >inventory/group_vars/kxsrv/zcopies.yml <<END
kxsrv_copy_to: "{{ backup }}:{{ kxsrv_repository }}.%F"
backup: "{{ '127.24.5.2' if inventory_hostname == '$doomed' else '127.24.5.1' }}"
END
forty=$(IFS=: && echo "${hosts[*]:9:40}")
failing_play copy.yml --limit "$forty" &
copying=$!
until find ../doomed -size +0 -name "$doomed.*" | grep -q .; do
    kill -0 "$copying" 2>/dev/null || fail "$(cat "$work/play")"
    sleep 0.01
done
kill -KILL "$server"
wait "$copying"
sed 's/^/    /' "$work/faults"
[ "$(cut -d' ' -f1 "$work/faults")" = "$doomed" ] || fail "one was to be told, $doomed"
grep -q "127.24.5.2:$doomed.rep.* is left incomplete" "$work/faults" || fail "it is not told"
# No lock is left: what is locked cannot be read.
play check.yml --limit "$forty"
equal() { # <directory> <host>...
    local host
    for host in "${@:2}"; do
        cmp "../group1/$host.rep" "../$1/$host".rep.*
    done
}
equal backup "${hosts[@]:9:10}" "${hosts[@]:20:29}"

# Run again, it makes what is missing and nothing else.
touch -d yesterday ../backup/*
serve "$work/doomed" "$password" 127.24.5.2
play copy.yml --limit "$forty"
equal doomed "$doomed"
[ -z "$(find ../backup -type f -newermt -12hours)" ] || fail "copies that were whole were made again"

echo "== Logging level, and an end"
play loglevel.yml --limit 127.24.4.9 -e kxsrv_log_level=3
kxadmin-strict opts 127.24.4.9 | grep 'Debug'
exec {client}<>"/dev/tcp/127.24.4.9/$port"
play stop.yml --limit 127.24.4.9 -e kxsrv_drain_minutes=0
kxadmin-strict --tries 1 list 127.24.4.9 >/dev/null || fail "it was stopped without an answer"
play stop.yml --limit 127.24.4.9 -e kxsrv_stop=yes {client}>&- &
stopping=$!
until grep -q 'RETRYING' "$work/play"; do
    kill -0 "$stopping" || fail "it was stopped under a client: $(cat "$work/play")"
    sleep 0.1
done
exec {client}>&-
wait "$stopping"
! kxadmin-strict --tries 1 list 127.24.4.9 >/dev/null || fail "it was not stopped"
cd "$work"

echo "== Tunnels"
mkdir -m 700 ssh
ssh-keygen -q -t ed25519 -N '' -f ssh/key
ssh-keygen -q -t ed25519 -N '' -f ssh/host
cp ssh/key.pub ssh/authorized
# A port that nobody has.
# shellcheck disable=SC2016 # the sandbox sets it
ssh_port=$(kxsandbox -- sh -c 'echo "$KXSRV_CTRL_PORT"' 2>/dev/null)
cat >ssh/config <<END
Port $ssh_port
ListenAddress 127.0.0.1
HostKey "$work/ssh/host"
AuthorizedKeysFile "$work/ssh/authorized"
PidFile none
StrictModes no
END
[ "$(id -u)" -ne 0 ] || mkdir -p /run/sshd
"$(command -v sshd || echo /usr/sbin/sshd)" -D -f ssh/config 2>>log &
started+=("$!")
disown
for number in 1 2; do
    tunnels+=(-L "127.24.6.$number:$port:127.24.$number.1:$port")
done
ssh -N "${tunnels[@]}" -p "$ssh_port" -i ssh/key -o ExitOnForwardFailure=yes \
    -o ConnectionAttempts=30 -o StrictHostKeyChecking=accept-new \
    -o UserKnownHostsFile=ssh/known 127.0.0.1 2>>log &
started+=("$!")
disown
kxadmin-strict --password-file password --verify copy \
    127.24.6.1:127.24.1.1.rep "127.24.6.2:through the tunnel.rep" >/dev/null
cmp group1/127.24.1.1.rep "group2/through the tunnel.rep"

# Listens while a server is asked for what needs the password, and then, past the tunnel, for a
# marker: when that is heard, so is all before it.
if [ "$(id -u)" -eq 0 ]; then
    tcpdump -i lo --immediate-mode -U -w wire tcp port "$port" or tcp port "$ssh_port" 2>listening &
    started+=("$!")
    disown
    until grep -qs 'listening on' listening; do sleep 0.1; done
    kxadmin-strict --password-file password opts 127.24.6.1 -s 1 >/dev/null
    kxadmin-strict test -r marker 127.24.1.1 >/dev/null || true
    until grep -qs 'marker' wire; do sleep 0.1; done
    heard() { # <filter>...
        tcpdump -r wire -w - "$@" 2>>log | grep -caF "$password" || true
    }
    count="$(heard dst host 127.24.6.1) $(heard tcp port "$ssh_port") $(heard dst host 127.24.1.1)"
    echo "lines with the password in front of the tunnel, in it, and behind it: $count"
    [ "$count" = "1 0 1" ] || fail "it was not to be heard in the tunnel, and elsewhere once"
    rm wire
fi

# In no log, no journal and no temporary file.
left=$(grep -rlF -e "$password" . | grep -vE '^./(password$|etc/.*\.password$|credentials/)' || true)
[ -z "$left" ] || fail "the password is in $left"
echo "All parts work."
