#!/usr/bin/env bash
# Makes the packages kxadmin and kxsandbox in build-package/, passes them through lintian, installs
# them into a fresh Debian below a temporary directory, runs them there, removes them, and fails if
# they leave anything. Without root or debootstrap the packages are unpacked into an empty directory
# and run from there. Installs what is missing, and leaves nothing mounted.
set -euo pipefail
cd "$(dirname "$0")/.."
. scripts/need.sh
need g++ cmake make dpkg-dev lintian

echo "== Packages"
rm -f build-package/*.deb
cmake -S . -B build-package -DCMAKE_BUILD_TYPE=Release -DKX_TESTS=OFF >/dev/null
cmake --build build-package --parallel "$(nproc)"
(cd build-package && cpack >cpack.log) || {
    cat build-package/cpack.log
    exit 1
}
packages=(build-package/kxadmin_*.deb build-package/kxsandbox_*.deb)
ls -l "${packages[@]}"
for page in kxadmin kxadmin-strict kxsandbox; do
    for package in "${packages[@]}"; do
        dpkg -c "$package"
    done | grep -F "/man1/$page.1.gz" >/dev/null || {
        echo "The page $page(1) is missing"
        exit 1
    }
done

echo "== lintian"
as_user=()
[ "$(id -u)" -ne 0 ] || as_user=(--allow-root)
lintian "${as_user[@]}" --fail-on error "${packages[@]}"

work=$(mktemp -d)
root=$work/root
finish() {
    rm -rf --one-file-system "$work"
}
trap finish EXIT
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

if [ "$(id -u)" -eq 0 ]; then
    need debootstrap
fi
if [ "$(id -u)" -eq 0 ] && command -v debootstrap >/dev/null; then
    echo "== A fresh Debian"
    unshare --mount debootstrap --variant=minbase --include=libstdc++6 bookworm "$root" \
        >"$work/log" || {
        tail "$work/log"
        exit 1
    }
    echo '127.0.0.1 localhost' >"$root/etc/hosts" # an installer would have done this
    files >"$work/before"
    cp "${packages[@]}" "$root/tmp"
    in_root sh -c 'dpkg -i /tmp/*.deb && rm /tmp/*.deb'
    echo "== Trial"
    in_root sh -c "$trial"
    echo "== Removal"
    in_root dpkg --purge kxadmin kxsandbox
    files >"$work/after"
    diff "$work/before" "$work/after"
else
    echo "== Unpacked into an empty directory, for want of root or of debootstrap"
    for package in "${packages[@]}"; do
        dpkg -x "$package" "$root"
    done
    echo "== Trial"
    PATH=$root/usr/bin:$PATH sh -c "$trial"
fi
echo "The packages work, and leave nothing behind."
