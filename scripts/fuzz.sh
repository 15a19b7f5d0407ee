#!/usr/bin/env bash
# Fuzzes both targets for the given time each (60 seconds unless told), from the corpus in the tree.
# An input that ends a target is left in build-fuzz/ and named.
set -euo pipefail
cd "$(dirname "$0")/.."
. scripts/need.sh
need clang libclang-rt-14-dev cmake make libgtest-dev

cmake --preset fuzz >/dev/null
cmake --build --preset fuzz --parallel "$(nproc)" --target fuzz_replies fuzz_command_line
cd build-fuzz
for target in replies command_line; do
    echo "== $target"
    mkdir -p "found/$target"
    "./fuzz_$target" -max_total_time="${1:-60}" -close_fd_mask=1 -print_final_stats=1 \
        -artifact_prefix="$target-" "found/$target" "../fuzz/corpus/$target" 2>&1 |
        grep -E '^(stat::number_of_executed_units|SUMMARY|==|Test unit|.*: runtime error)|cov:.*DONE'
done
