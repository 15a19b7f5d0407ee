#!/usr/bin/env bash
# operations-page.sh [--print]: runs the commands of docs/operations.md, all in one shell and in the
# page's order, and fails where one prints something else than the page has. With --print it prints
# the page with what was really printed, which is how the page is made. Installs what is missing.
#
# A block that begins with #! is a program that the commands use; its second line begins with its
# name. Times, dates and numbers of processes and ports differ at each run and are not compared.
set -euo pipefail
cd "$(dirname "$0")/.."
. scripts/need.sh
need g++ cmake make ansible-core openssh-client openssh-server python3 rsync tcpdump >&2

cmake -S . -B build >/dev/null
cmake --build build --parallel "$(nproc)" --target kxadmin kxadmin-strict kxsandbox >/dev/null
page=$PWD/docs/operations.md
# shellcheck disable=SC2034 # the page's commands use it
doc=$PWD # of the page; where it is installed /usr/share/doc/kxadmin
PATH=$PWD/build:$PATH:/usr/sbin
work=$(mktemp -d)
finish() {
    jobs -p | xargs -r kill 2>/dev/null || true
    rm -rf "$work"
}
trap finish EXIT
export HOME=$work/home PATH=$work/bin:$PATH LC_ALL=C.UTF-8
mkdir "$work/bin" "$HOME"
cd "$HOME"

# The ports of the page, and what they are here: nobody else has them.
free_port() {
    # shellcheck disable=SC2016 # the sandbox sets it
    kxsandbox -- sh -c 'echo "$KXSRV_CTRL_PORT"' 2>/dev/null
}
ports=("4807 $(free_port)" "2222 $(free_port)")
here() {
    sed "s/${ports[0]/ //}/g; s/${ports[1]/ //}/g"
}
there() {
    sed "s/${ports[0]#* }/${ports[0]% *}/g; s/${ports[1]#* }/${ports[1]% *}/g; s,$HOME,~,g"
}

# Runs a command in this shell. What a process in the background prints may come a moment later, so
# the end is when there are as many lines as the page has.
run() { # <command> <lines>
    local tries=100
    : >"$work/out"
    eval "$(here <<<"$1")" >>"$work/out" 2>&1 </dev/null || true
    while [ "$(wc -l <"$work/out")" -lt "$2" ] && [ $((tries--)) -gt 0 ]; do sleep 0.1; done
    tr -d '\r' <"$work/out" | there | sed 's/^/    /; s/ *$//' >"$work/printed"
}

mask() {
    sed -E -i 's/[0-9]{4}-[0-9]{2}-[0-9]{2}/DATE/g
        s/[A-Z][a-z]{2} [ 0-9][0-9] [0-9]{2}:[0-9]{2}/DATE/g
        s/[0-9]+:[0-9]{2}:[0-9]{2}(\.[0-9]+)?/TIME/g
        s/127\.0\.0\.1:[0-9]{4,5} */PEER/g
        s/[0-9]+(\.[0-9]+)? ?s\b/SECONDS/g
        s/[0-9]{9,10}/TIME/g' "$@"
}

# A program of the page, from line i on.
take_program() {
    local name=${lines[i + 1]#*# }
    name=$work/bin/${name%%[ :]*}
    while [[ ${lines[i]-} == '    '* ]]; do
        echo "${lines[i]}"
        here <<<"${lines[i]:4}" >>"$name"
        ((i += 1))
    done
    chmod +x "$name"
}

# A command of the page, from line i on, with what the page has it print.
take_command() {
    local command=${lines[i]:6} blank=
    echo "${lines[i++]}"
    while [[ $command == *\\ ]]; do
        command=${command%\\}${lines[i]:4}
        echo "${lines[i++]}"
    done
    : >"$work/expected"
    while [[ ${lines[i]-none} =~ ^(\ \ \ \ [^\$]|$) ]]; do
        if [ -z "${lines[i]}" ]; then
            blank+=$'\n'
        else
            printf '%s%s\n' "$blank" "${lines[i]}" >>"$work/expected"
            blank=
        fi
        ((i += 1))
    done
    run "$command" "$(wc -l <"$work/expected")"
    # An empty line ends what a program prints as often as not: the page need not have it.
    sed -i -e :a -e '/^\n*$/{$d;N;ba' -e '}' "$work/printed"
    cat "$work/printed"
    printf '%s' "$blank"
    mask "$work/expected" "$work/printed" # a process substitution would set the page's $!
    diff "$work/expected" "$work/printed" >>"$work/differences" ||
        echo "above: \$ $command" >>"$work/differences"
}

mapfile -t lines <"$page"
i=0
while [ "$i" -lt "${#lines[@]}" ]; do
    case ${lines[i]} in
    '    #!'*) take_program ;;
    '    $ '*) take_command ;;
    *) echo "${lines[i++]}" ;;
    esac
done >"$work/page"

if [ "${1-}" = --print ]; then
    cat "$work/page"
else
    cat "$work/differences"
    [ ! -s "$work/differences" ] || exit 1
    echo "The page says what its commands print."
fi
