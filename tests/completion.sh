#!/usr/bin/env bash
# Completes command lines with completion/*.bash and compares what is offered. Ends with 77, for
# skipped, where there is no bash-completion.
cd "$(dirname "$0")/../completion" || exit
library=/usr/share/bash-completion/bash_completion
if [ ! -e "$library" ]; then
    echo "Skipped: there is no $library (Debian's package bash-completion brings it)"
    exit 77
fi
for file in "$library" ./*.bash; do
    # shellcheck disable=SC1090
    . "$file"
done
compopt() { :; } # belongs to a terminal

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cd "$work" || exit
mkdir folder
echo '127.0.0.1 one.host other.host' >hosts
touch pass.word kxcommand
chmod +x kxcommand
HOSTFILE=$work/hosts PATH=$work:$PATH

# Behind the bar: what is offered for the line in front of it.
cat >expected <<'END'
kxadmin |bench copy help list opts stat stop test
kxadmin ST|stat stop
kxadmin --|
kxadmin copy -qf kxcom|kxcommand
kxadmin COPY -|-P -Z -b -f -h -o -p -q
kxadmin copy o|one.host: other.host:
kxadmin copy one.host:|
kxadmin copy -Z 99 one.host:a -p o one.host|one.host:
kxadmin copy -oq one.host:a one.host:b o|
kxadmin bench -P 1 -c 1 -s 1 -l x -t x -k 1 -r x o|one.host other.host
kxadmin opts -p |
kxadmin opts -p -|-P -h -p -s
kxadmin stat -P |
kxadmin stat -P 4801 one.|one.host
kxadmin stat one.host o|
kxadmin test -f p|pass.word
kxadmin-strict --|--help --password-file --progress --tries --verify --version
kxadmin-strict --password-file p|pass.word
kxadmin-strict --tries=3|3 30
kxadmin-strict --tries 2 --password-file=x sta|stat
kxadmin-strict --verify --tries 2 copy -Z |99
kxsandbox --|-- --help --version
kxsandbox -d |folder
kxsandbox -d -- --v|--version
kxsandbox -P 0 -- kxadmin stop -Z |100
END

# Puts the line together with what is offered, sorted and without blanks behind it.
complete_line() {
    COMP_LINE=$1 COMP_POINT=${#1} COMPREPLY=()
    mapfile -t COMP_WORDS < <(grep -oE '[^ :=]+|[:=]' <<<"$1")
    [[ $1 == *' ' ]] && COMP_WORDS+=('')
    COMP_CWORD=$((${#COMP_WORDS[@]} - 1))
    "_${COMP_WORDS[0]%-strict}" "${COMP_WORDS[0]}"
    mapfile -t COMPREPLY < <(printf '%s\n' "${COMPREPLY[@]% }" | LC_ALL=C sort -u)
    echo "$1|${COMPREPLY[*]}"
}

cut -d'|' -f1 expected | while IFS= read -r line; do
    complete_line "$line"
done >offered
diff -u expected offered
