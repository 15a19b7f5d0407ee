#!/usr/bin/env bash
# mutants.sh <source> [count]: what the tests do not see. Changes one place of the source at a time,
# chosen by chance but alike on every run, builds that in a copy of HEAD and runs the tests up to the
# first that fails. A change that all tests pass is shown as a diff: it is harmless, or a test is
# missing. Takes half a minute a change.
set -euo pipefail
source=$1
count=${2:-20}
cd "$(dirname "$0")/.."
. scripts/need.sh
need g++ cmake make libgtest-dev

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
git archive HEAD | tar -x -C "$work"
cd "$work"
cmake -S . -B build -DCMAKE_BUILD_TYPE=Debug >/dev/null

# Whether the tests pass. Those that read what is not compiled are left out.
passes() {
    cmake --build build --parallel "$(nproc)" >/dev/null &&
        ctest --test-dir build --quiet --stop-on-failure --parallel 8 --timeout 60 \
            -E '^(Hardened|Modifiers|Wireshark)' </dev/null >/dev/null 2>&1
}
passes || {
    echo "The tests fail without any change."
    exit 1
}

# What is changed, as expressions for sed: the other branch, the other bound, one more, nothing done.
changes=(
    's/ == / != /' 's/ != / == /' 's/ < / <= /' 's/ <= / < /' 's/ > / >= /' 's/ >= / > /'
    's/ && / || /' 's/ || / \&\& /' 's/ + / - /' 's/ - / + /' 's/\b0\b/1/' 's/\b1\b/2/'
    's/\btrue\b/false/' 's/\bfalse\b/true/' 's/if (\(.*\))\( {\)\?$/if (!(\1))\2/'
    's/return \([^;{]*\);/return {};/' 's/^\( *\)[a-zA-Z:]*(.*);$/\1;/' 's/^\( *\)[a-zA-Z.>-]* [+|]\?= .*;$/\1;/'
)

cp "$source" original
tried=0
survived=0
# Every line with every change that it takes, in an order that is no order but always the same.
while read -r line change && [ "$tried" -lt "$count" ]; do
    sed "$line${changes[change]}" original >"$source"
    cmp -s original "$source" && continue
    if ! cmake --build build --parallel "$(nproc)" >/dev/null 2>&1; then
        continue # it does not compile, or the compiler complains
    fi
    tried=$((tried + 1))
    if passes; then
        survived=$((survived + 1))
        diff -U0 --label "$source" --label "change $tried" original "$source" || true
    fi
done < <(grep -n -v -E '^ *(//|#|$)' original | cut -d : -f 1 | while read -r line; do
    for change in "${!changes[@]}"; do
        echo "$(cksum <<<"$source $line $change") $line $change"
    done
done | sort -n | cut -d ' ' -f 3-)
cp original "$source"
echo "$source: $tried changes, $survived of them unseen"
