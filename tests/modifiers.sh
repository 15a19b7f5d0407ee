#!/usr/bin/env bash
# modifiers.sh <kxadmin>: fails unless the manual page, the completions and the program know the
# same modifiers. Shows each that one of them alone has, behind its command.
set -euo pipefail
program=$1
cd "$(dirname "$0")/.."
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
all='stat opts list stop copy test bench'

# Turns lines "<commands>|<text>" into "<command> <letter>", for each letter behind the pattern.
letters() {
    local names text letter
    while IFS='|' read -r names text; do
        { grep -o -E -e "$1-[A-Za-z]" <<<"$text" || true; } | sed 's/.*-//' |
            while read -r letter; do
                # shellcheck disable=SC2086 # a line for each of the names
                printf "%s $letter\\n" $names
            done
    done | sort -u
}

awk -v all="$all" '/^\.S[sh] / { names = /Common modifiers/ ? all : $2 }
    /^\.It Fl [A-Za-z]( |$)/ { print names "|-" $3 }' docs/kxadmin.1 |
    letters '' | grep -w -E "^(${all// /|})" >"$work/page"
sed -n 's/^ *\([a-z]*\)) modifiers=/\1|/p' completion/kxadmin.bash | letters '\b|' >"$work/bash"
awk -v all="$all" '/^modifiers=/ { names = all }
    /^[a-z]+\) modifiers/ { names = substr($1, 1, length($1) - 1) }
    names != "" { print names "|" $0 } /;;/ { names = "" }' completion/_kxadmin |
    letters "'(\\([^)]*\\))?" >"$work/zsh"
sed -n "s/.*'__kxadmin_in \([a-z ]*\)' -s \(.\) .*/\1|-\2/p" completion/kxadmin.fish |
    letters '' >"$work/fish"

failed=0
for shell in bash zsh fish; do
    diff -U0 --label docs/kxadmin.1 --label "the completion of $shell" \
        "$work/page" "$work/$shell" || failed=1
done

# Whatever the command, the program takes all letters; it refuses -: as the last one.
for letter in {0..9} {A..Z} {a..z}; do
    said=$("$program" stat "-$letter" 2048 -: 2>&1 >/dev/null || true)
    [[ $said == *"invalid option -- $letter"* ]] || echo "$letter"
done | sort >"$work/program"
cut -d ' ' -f 2 "$work/page" | sort -u >"$work/letters"
diff -U0 --label docs/kxadmin.1 --label "$program" "$work/letters" "$work/program" || failed=1
exit "$failed"
