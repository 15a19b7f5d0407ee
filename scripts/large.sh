#!/usr/bin/env bash
# Copies a repository of more than 4 GB between two hosts of a sandbox, so that offsets pass 2^32 for
# real, and compares. Takes about a minute and 4 GB below $TMPDIR (/dev/shm unless it is set), for
# which reason it is not one of the tests.
#   large.sh [folder]    with the programs that are built there, and else with those of build/
set -euo pipefail
cd "$(dirname "$0")/.."
. scripts/need.sh
need g++ cmake make

if [ $# -eq 0 ]; then
    cmake -S . -B build >/dev/null
    cmake --build build --parallel "$(nproc)" --target kxadmin kxsandbox >/dev/null
fi
PATH=$(realpath "${1:-build}"):$PATH

work=$(mktemp -d -p "${TMPDIR:-/dev/shm}")
trap 'rm -rf "$work"' EXIT
cd "$work"

# All holes, but for the header and a mark on either side of 2^32.
printf '4321\006' >large.rep
truncate -s $((2**32 + 100000)) large.rep
printf below | dd of=large.rep bs=1 seek=$((2**32 - 5)) conv=notrunc status=none
printf above | dd of=large.rep bs=1 seek=$((2**32)) conv=notrunc status=none

time kxsandbox -a 127.0.0.2 -- kxadmin copy 127.0.0.1:large.rep 127.0.0.2:copy.rep -p 2>&1 |
    awk '{ sub(/.*\r/, ""); print }'
stat -c '%n: %s bytes' large.rep copy.rep
cmp large.rep copy.rep
echo "The copy is equal."
