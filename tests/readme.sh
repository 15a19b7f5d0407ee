#!/usr/bin/env bash
# readme.sh <directory of the built programs>: runs the commands of README.md from top to bottom in
# one shell and compares what they print with what the page says. Only what builds or installs is
# left out. Says where they differ, as a diff.
set -euo pipefail
programs=$(cd "$1" && pwd)
cd "$(dirname "$0")/.."
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
unset BASH_ENV
export TMPDIR=$work

# The indented blocks. A line that begins with "$ " is a command, and what follows it is what it
# prints; in a block that does not begin so, every line is a command.
blocks() {
    awk '
        /^    / {
            line = substr($0, 5)
            if (!inside)
                printing = line ~ /^[$] /
            inside = 1
            print (printing ? "" : "$ ") line
            next
        }
        /./ { inside = 0 }
        inside { print "" }' README.md
}

# Writes the commands, each behind one that shows it, and the part of the page that they are to
# print.
left_out=
while IFS= read -r line; do
    case $line in
    '$ scripts/'* | '$ cmake '* | '$ ctest '* | '$ cpack '* | '$ sudo '* | '$ apt'* | \
        '$ dpkg '* | '$ dnf '*)
        echo "Left out, it builds or installs: ${line#'$ '}"
        left_out=1
        ;;
    '$ '*)
        printf 'echo %q\n%s\n' "$line" "${line#'$ '}" >>"$work/commands"
        left_out=
        ;;
    esac
    [ -n "$left_out" ] || printf '%s\n' "$line" >>"$work/page"
done < <(blocks)

# From a pipe a shell takes no more than the command that it runs next: a command that is a shell
# itself gets those that follow, as on a terminal.
ln -s "$programs" "$work/build"
cd "$work"
bash < <(cat commands) >printed 2>&1 || true # the status of the page's last command

# Leaves what a terminal shows, without what differs from run to run. A blank line in front of a
# command is the page's own.
mask() {
    sed -E 's/\r$//; s/.*\r//; s/ +$//
        s/^Locale: .*/Locale: <locale>/
        s/(127[.][0-9.]+:)[0-9]+ +[0-9:]{7} +/\1<port>  <age>  /
        s/port [0-9]+$/port <port>/' "$1" | awk '
        /./ { if (blank && !/^[$] /) print ""; print; blank = 0; next }
        { blank = 1 }'
}
diff -u --label README.md --label 'what its commands print' \
    <(mask page) <(mask printed)

# The folders of its table and what its links lead to.
cd "$OLDPWD"
{
    sed -n 's/^| \(`[^|]*\) |.*/\1/p' README.md | grep -oE '[a-z/]+/'
    grep -oE '\]\([^)]+' README.md | cut -c 3-
} | while IFS= read -r path; do
    [ -e "$path" ] || { echo "README.md names $path, which is not there" && exit 1; }
done
