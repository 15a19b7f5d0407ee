#!/usr/bin/env bash
# Makes the packages kxadmin and kxsandbox as .deb and .rpm and an archive of both in build-package/,
# twice, from different folders, and compares. Passes the .deb through lintian. Each kind is
# installed, run and removed, and may leave nothing: the .deb in a fresh Debian below a temporary
# directory, the .rpm below an empty root. What cannot be had, for want of root or of a mirror of
# Debian, is left out with a word: the packages are then unpacked and run. Installs what is missing,
# and leaves nothing mounted.
set -euo pipefail
cd "$(dirname "$0")/.."
. scripts/need.sh
need g++ cmake make binutils dpkg-dev lintian rpm

work=$(mktemp -d)
finish() {
    rm -rf --one-file-system "$work"
}
trap finish EXIT

fail() {
    echo "package.sh: $*" >&2
    exit 1
}

# make_packages <source> <build directory>: all packages.
make_packages() {
    rm -f "$2"/kx*.{deb,rpm,tar.gz}
    cmake -S "$1" -B "$2" -DCMAKE_BUILD_TYPE=Release -DKX_TESTS=OFF >/dev/null
    cmake --build "$2" --parallel "$(nproc)" >/dev/null
    local name epoch stage
    stage=$(mktemp -d -p "$work")
    # rpmbuild takes no path with a blank.
    cpack --config "$2/CPackConfig.cmake" -B "$stage/packages" >"$2/cpack.log" 2>&1 ||
        fail "$(cat "$2/cpack.log")"
    mv "$stage"/packages/*.{deb,rpm} "$2"
    name=kxadmin-$version-linux-$(uname -m)
    epoch=$(dpkg-parsechangelog -l "$2/packaging/changelog" -S Timestamp)
    cmake --install "$2" --prefix "$stage/$name" --strip >/dev/null
    cp "$2/packaging/INSTALL" "$stage/$name"
    tar -C "$stage" --sort=name --mtime="@${SOURCE_DATE_EPOCH:-$epoch}" --owner=0 --group=0 \
        --numeric-owner --mode=u=rwX,go=rX -c "$name" | gzip -9n >"$2/$name.tar.gz"
}

echo "== Packages"
version=$(sed -n 's/^project(kxadmin VERSION \([^ ]*\).*/\1/p' CMakeLists.txt)
make_packages . build-package
debs=(build-package/kxadmin_*.deb build-package/kxsandbox_*.deb)
rpms=(build-package/kxadmin-*.rpm build-package/kxsandbox-*.rpm)
archive=(build-package/kxadmin-*.tar.gz)
packages=("${debs[@]}" "${rpms[@]}" "${archive[@]}")
ls -l "${packages[@]}"

echo "== The same once more, from a copy of the sources alone in a folder with a blank"
mkdir "$work/the sources"
tar -c --exclude=./.git --exclude='./build*' . | tar -x -C "$work/the sources"
make_packages "$work/the sources" "$work/second build"
for package in "${packages[@]}"; do
    cmp "$package" "$work/second build/${package##*/}" || {
        need diffoscope-minimal && diffoscope "$package" "$work/second build/${package##*/}"
        fail "${package##*/} is not the same when it is made again"
    }
done

echo "== Names"
glibc=$(objdump -T build-package/kx{admin,sandbox} | grep -o 'GLIBC_[0-9.]*' | sort -uV | tail -1)
grep -F "glibc ${glibc#GLIBC_} " build-package/packaging/INSTALL >/dev/null ||
    fail "INSTALL tells another C library than $glibc"
tar -xzf "${archive[0]}" -C "$work"
tree=$(basename "${archive[0]}" .tar.gz)
tree=$work/$tree
# Every page that a page links to, and every file below a folder that a text or manual page names.
(
    cd "$tree/share/doc/kxadmin"
    grep -roE '\]\([^):#]+' --include='*.md' . | while IFS=: read -r page link; do
        [ -e "$(dirname "$page")/${link#](}" ] || echo "$page links to ${link#](}"
    done
    { cat README.md "$tree/INSTALL"; zcat "$tree"/share/man/man1/*.gz; } |
        grep -oE '\b(docs|scripts|examples|packaging|tools|share|bin)/[A-Za-z0-9./_-]*[A-Za-z0-9]' |
        sort -u | while read -r name; do
        [ -e "$name" ] || [ -e "$tree/$name" ] || echo "$name is named"
    done
) >"$work/names"
[ ! -s "$work/names" ] || fail "not in the package: $(cat "$work/names")"
for page in kxadmin kxadmin-strict kxsandbox; do
    [ -e "$tree/share/man/man1/$page.1.gz" ] || fail "the page $page(1) is missing"
done

echo "== lintian"
as_user=()
[ "$(id -u)" -ne 0 ] || as_user=(--allow-root)
lintian "${as_user[@]}" --fail-on error "${debs[@]}"

root=$work/root
mkdir "$root"

# What the packages are to do, in a shell whose PATH finds them.
# shellcheck disable=SC2016
trial='set -eu
cd "$(mktemp -d)"
kxsandbox -- kxadmin stat
kxsandbox -- kxadmin-strict list
printf "4321\005" >small.rep
status=0
kxsandbox -- kxadmin-strict test -r small.rep || status=$?
[ "$status" -eq 3 ]
status=0
kxadmin-strict >/dev/null || status=$?
[ "$status" -eq 1 ]
rm small.rep
rmdir "$PWD"'

# The files of the tree, but for what dpkg itself keeps a record of.
files() {
    (cd "$root" && find . -xdev ! -path './var/lib/dpkg/*' ! -path './var/log/*' \
        ! -path './var/cache/*' ! -path './dev/*' ! -path './proc/*' ! -path './sys/*' | sort)
}

# In a mount namespace of its own, so that what is mounted below the root goes with the command.
# shellcheck disable=SC2016
in_root() {
    unshare --mount sh -c 'mount -t proc proc "$0/proc" && exec chroot "$0" "$@"' "$root" "$@"
}

# The packages are of one system; programs that are unpacked anywhere run with its libraries.
try_in() {
    PATH=$1:$PATH sh -c "$trial"
}

echo "== The archive"
try_in "$tree/bin"

# As root, or as one whom a user namespace takes for root.
as_root() {
    if [ "$(id -u)" -eq 0 ]; then "$@"; else unshare --map-root-user "$@"; fi
}
echo "== The .rpm below an empty root"
mkdir -p "$work/rpm root"
if as_root true 2>/dev/null; then
    # Fedora's package "filesystem" has these.
    (cd "$work/rpm root" && mkdir -p usr/bin usr/share/{doc,fish/vendor_completions.d,man/man1} \
        usr/share/{bash-completion/completions,zsh/site-functions})
    in_rpm_root() {
        as_root rpm --root "$work/rpm root" --dbpath /rpmdb "$@"
    }
    (cd "$work/rpm root" && find . ! -path './rpmdb*' | sort) >"$work/before"
    rpm -qp --requires "${rpms[@]}" | grep -v '^rpmlib' | sort -u
    in_rpm_root --nodeps -i "${rpms[@]}" # there is no C library in an empty root
    in_rpm_root -V --nodeps kxadmin kxsandbox
    try_in "$work/rpm root/usr/bin"
    in_rpm_root -e kxadmin kxsandbox
    (cd "$work/rpm root" && find . ! -path './rpmdb*' | sort) >"$work/after"
    diff "$work/before" "$work/after"
else
    echo "rpm is left out, for want of root; unpacked instead"
    for package in "${rpms[@]}"; do
        rpm2archive - <"$package" | tar -xz -C "$work/rpm root"
    done
    try_in "$work/rpm root/usr/bin"
fi

fresh_debian() {
    unshare --mount debootstrap --variant=minbase --include=libstdc++6 bookworm "$root" \
        >"$work/log" 2>&1
}
echo "== The .deb in a fresh Debian"
if [ "$(id -u)" -eq 0 ] && need debootstrap && fresh_debian; then
    echo '127.0.0.1 localhost' >"$root/etc/hosts" # an installer would have done this
    files >"$work/before"
    cp "${debs[@]}" "$root/tmp"
    in_root sh -c 'dpkg -i /tmp/*.deb && rm /tmp/*.deb'
    in_root sh -c "$trial"
    in_root dpkg --purge kxadmin kxsandbox
    files >"$work/after"
    diff "$work/before" "$work/after"
else
    echo "left out, for want of root or of a mirror of Debian; unpacked instead"
    for package in "${debs[@]}"; do
        dpkg -x "$package" "$work/unpacked"
    done
    try_in "$work/unpacked/usr/bin"
fi
echo "The packages work, and leave nothing behind."
