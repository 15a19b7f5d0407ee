# shellcheck shell=bash
# Completion of kxsandbox for bash.

_kxsandbox() {
    local cur prev words cword i
    _init_completion || return
    for ((i = 1; i < cword; i++)); do
        case ${words[i]} in
        --)
            _command_offset $((i + 1))
            return
            ;;
        -[aAPdptmc]) ((++i)) ;; # its value
        esac
    done
    if ((i == cword)); then
        mapfile -t COMPREPLY < <(compgen -W '-a -A -P -d -p -t -m -c -h -V --help --version --' \
            -- "$cur")
        return
    fi
    case $prev in
    -[aA]) mapfile -t COMPREPLY < <(compgen -W '127.0.0.{1..4}' -- "$cur") ;;
    -d) _filedir -d ;;
    -t) mapfile -t COMPREPLY < <(compgen -W '0 1 2 3' -- "$cur") ;;
    esac
}
complete -F _kxsandbox kxsandbox
