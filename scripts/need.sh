# shellcheck shell=bash
# Sourced by the other scripts: need <package>... installs the Debian packages that are missing.
need() {
    local missing=() package
    if ! command -v dpkg-query >/dev/null; then
        echo "This is no Debian system: please see to it that it has what these packages hold: $*"
        return
    fi
    for package; do
        dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q 'ok installed' ||
            missing+=("$package")
    done
    [ ${#missing[@]} -eq 0 ] && return
    echo "Installing with apt-get: ${missing[*]}"
    local as_root=()
    [ "$(id -u)" -eq 0 ] || as_root=(sudo)
    "${as_root[@]}" apt-get -qq update &&
        DEBIAN_FRONTEND=noninteractive "${as_root[@]}" apt-get -qq -o DPkg::Lock::Timeout=300 \
            install --no-install-recommends "${missing[@]}" >/dev/null
}
