# Completion of kxadmin and kxadmin-strict for bash. Asks no server.

_kxadmin() {
    local cur=${COMP_WORDS[COMP_CWORD]} prev=${COMP_WORDS[COMP_CWORD - 1]} command modifiers i
    local value='^-[hoqb]*[PpsklrtcZf]$' # a modifier whose value is the next argument
    COMPREPLY=()
    if ((COMP_CWORD == 1)); then
        mapfile -t COMPREPLY < <(compgen -W 'stat opts list stop copy test bench help' -- "$cur")
        return
    fi
    # The letters by which the program knows its commands.
    [[ ${COMP_WORDS[1],,} =~ ^(sta|sto|cop|[olbt]) ]] || return
    command=$(compgen -W 'stat opts list stop copy test bench' -- "${BASH_REMATCH[1]}")
    case $command in
    stat) modifiers='-P -h' ;;
    opts) modifiers='-P -h -s -p' ;;
    list) modifiers='-P -h -s -l' ;;
    stop) modifiers='-P -h -k -p -Z' ;;
    copy) modifiers='-P -h -f -p -o -q -b -Z' ;;
    test) modifiers='-P -h -r -f' ;;
    bench) modifiers='-P -h -c -s -t -l' ;;
    esac
    case "$command $prev" in
    'opts -s') mapfile -t COMPREPLY < <(compgen -W '0 1 2 3' -- "$cur") ;;
    'stop -Z') mapfile -t COMPREPLY < <(compgen -W '100' -- "$cur") ;;
    'copy -Z') mapfile -t COMPREPLY < <(compgen -W '99' -- "$cur") ;;
    'copy -f') mapfile -t COMPREPLY < <(compgen -c -- "$cur") ;;
    'test -f' | 'bench -l')
        mapfile -t COMPREPLY < <(compgen -f -- "$cur")
        compopt -o filenames
        ;;
    *' '-[PsklrtcZ]) ;; # a number or a name on the server
    *)
        if [[ $cur == -* ]]; then
            mapfile -t COMPREPLY < <(compgen -W "$modifiers" -- "$cur")
        elif [[ $prev =~ $value || $cur == : || $prev == : ]]; then
            : # a password, or a path on a server
        elif [[ $command == copy ]]; then
            mapfile -t COMPREPLY < <(compgen -A hostname -S : -- "$cur")
            compopt -o nospace
        else
            for ((i = 2; i < COMP_CWORD; i++)); do # one host is enough
                [[ ${COMP_WORDS[i]} == -* || ${COMP_WORDS[i - 1]} =~ $value ]] || return
            done
            mapfile -t COMPREPLY < <(compgen -A hostname -- "$cur")
        fi
        ;;
    esac
}
complete -F _kxadmin kxadmin kxadmin-strict
