#!/usr/bin/env bash
# mutants.sh <source> [count]: what the tests do not see. Changes one place of the source at a time,
# chosen by chance but alike on every run, builds that in a copy of HEAD, tests included, and runs
# them up to the first that fails. A change that all tests pass is shown as a diff: it is harmless,
# or a test is missing. Takes half a minute a change.
set -euo pipefail
source=${1:?the source to change, as in scripts/mutants.sh ops/copy.cpp 20}
count=${2:-20}
cd "$(dirname "$0")/.."
. scripts/need.sh
need git g++ cmake make libgtest-dev
git cat-file -e "HEAD:$source"

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
git archive HEAD | tar -x -C "$work"
cd "$work"
cmake -S . -B build -DCMAKE_BUILD_TYPE=Debug >/dev/null

builds() {
    cmake --build build --parallel "$(nproc)" </dev/null >build.log 2>&1
}

# Whether the tests pass. Those that nothing compiled takes part in, or that look at how it is
# linked, are left out.
passes() {
    ctest --test-dir build --stop-on-failure --parallel 8 --output-on-failure \
        -E '^(Completion|Hardened|Wireshark)' </dev/null >test.log 2>&1
}
builds || {
    cat build.log
    exit 1
}
passes || {
    cat test.log
    echo "The tests fail without any change."
    exit 1
}

# What is changed, as commands of sed: the other branch, the other bound, one more, nothing done.
changes=(
    's/ == / != /' 's/ != / == /' 's/ < / <= /' 's/ <= / < /' 's/ > / >= /' 's/ >= / > /'
    's/ && / || /' 's/ || / \&\& /' 's/ + / - /' 's/ - / + /' 's/\b0\b/1/' 's/\b1\b/2/'
    's/\btrue\b/false/' 's/\bfalse\b/true/' 's/if (\(.*\))\( {\)\?$/if (!(\1))\2/'
    '/return \(0\|false\|nullptr\);/!s/return \([^;{]*\);/return {};/'
    's/^\( *\)[a-zA-Z:]*(.*);$/\1;/' 's/^\( *\)[a-zA-Z.>-]* [+|]\?= .*;$/\1;/'
)

cp "$source" original
tried=0
survived=0
# Every line with every change that it takes, in an order that is no order but always the same.
while read -r line change && [ "$tried" -lt "$count" ]; do
    sed "$line{${changes[change]}}" original >"$source"
    cmp -s original "$source" && continue
    builds || continue # it does not compile
    tried=$((tried + 1))
    if passes; then
        survived=$((survived + 1))
        diff -pU0 --label "$source" --label "change $tried" original "$source" || true
    fi
done < <(grep -n -v -E '^ *(//|#|$)' original | cut -d : -f 1 | while read -r line; do
    for change in "${!changes[@]}"; do
        echo "$(cksum <<<"$source $line $change") $line $change"
    done
done | sort -n | cut -d ' ' -f 3-)
cp original "$source"
echo "$source: $tried changes, $survived of them unseen"
