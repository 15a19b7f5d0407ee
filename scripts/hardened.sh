#!/usr/bin/env bash
# hardened.sh <program>...: fails unless each program was built with every protection.
set -euo pipefail

# Says what is missing unless the output of a command on the program holds a pattern.
expect() {
    local what=$1 pattern=$2
    shift 2
    "$@" "$program" | grep -E -e "$pattern" >/dev/null || {
        echo "$program: $what is missing"
        failed=1
    }
}

failed=0
for program; do
    expect 'position independence' 'Type: +DYN' readelf -hW
    expect 'read-only relocation' 'GNU_RELRO' readelf -lW
    expect 'binding at start-up' 'BIND_NOW|NOW' readelf -dW
    expect 'a stack that cannot be executed' 'GNU_STACK.* RW +0x' readelf -lW
    expect 'the stack protector' '__stack_chk_fail' readelf -sW
    expect 'checked copying' '__(memcpy|vfprintf|vsnprintf|snprintf|fprintf|printf)_chk' readelf -sW
    # Other processors probe the stack in other words.
    if readelf -hW "$program" | grep -E 'Machine:.*(X86-64|80386)' >/dev/null; then
        # shellcheck disable=SC2016 # an assembler's dollar
        expect 'probing of the stack, page by page' 'sub +\$0x1000,%[er]sp' objdump -d
    fi
done
exit "$failed"
