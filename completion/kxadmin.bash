# shellcheck shell=bash
# Completion of kxadmin and kxadmin-strict for bash. Asks no server.

# Completes the options of kxadmin-strict in front of the command word. False when the cursor is
# behind them: they are taken out of words then.
_kxadmin_long_options() {
    local i=1 option=
    while ((i < cword)) && [[ ${words[i]} == --* ]]; do
        option=${words[i++]}
        [[ $option == --@(tries|password-file) ]] && ((i++))
    done
    if ((i == cword)) && [[ $cur == --*=* ]]; then
        option=${cur%%=*} cur=${cur#*=}
    elif ((i == cword)) && [[ $cur == -* ]]; then
        mapfile -t COMPREPLY < <(compgen -W '--tries --password-file --verify --progress
            --version --help' -- "$cur")
        return
    elif ((i <= cword)); then
        words=("${words[0]}" "${words[@]:i}")
        ((cword -= i - 1))
        return 1
    fi
    case $option in
    --tries) mapfile -t COMPREPLY < <(compgen -W '{1..30}' -- "$cur") ;;
    --password-file) _filedir ;;
    esac
}

# Reads the words between the command word and the cursor as the program does: leaves in value the
# modifier whose value comes next, and in count how many arguments are no modifiers.
_kxadmin_arguments() {
    local i
    value='' count=0
    for ((i = 2; i < cword; i++)); do
        if [[ $value == [^p] || $value == p && ${words[i]} != -* ]]; then
            value=''
        elif [[ ${words[i]} =~ ^-[hoqbp]*([PsklrtcZfp])$ ]]; then
            value=${BASH_REMATCH[1]}
        else
            value=''
            [[ ${words[i]} == -?* ]] || ((++count))
        fi
    done
}

_kxadmin() {
    # shellcheck disable=SC2034 # prev, which the library sets
    local cur prev words cword command modifiers value count
    _init_completion -n := || return
    [[ ${words[0]} == *kxadmin-strict ]] && _kxadmin_long_options && return
    if ((cword == 1)); then
        mapfile -t COMPREPLY < <(compgen -W 'stat opts list stop copy test bench help' \
            -- "${cur,,}")
        return
    fi
    # The letters by which the program knows its commands.
    [[ ${words[1],,} =~ ^(sta|sto|cop|[olbt]) ]] || return
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
    _kxadmin_arguments
    case "$command $value" in
    'opts s') mapfile -t COMPREPLY < <(compgen -W '0 1 2 3' -- "$cur") ;;
    'stop Z') mapfile -t COMPREPLY < <(compgen -W '100' -- "$cur") ;;
    'copy Z') mapfile -t COMPREPLY < <(compgen -W '99' -- "$cur") ;;
    'copy f') mapfile -t COMPREPLY < <(compgen -c -- "$cur") ;;
    'test f' | 'bench l') _filedir ;;
    *' '[^p]) ;; # a number or a name on the server
    *)
        if [[ $cur == -* ]]; then
            mapfile -t COMPREPLY < <(compgen -W "$modifiers" -- "$cur")
        elif [[ $value == p ]]; then
            : # nobody but the administrator knows it
        elif [[ $command == copy && $cur != *:* ]] && ((count < 2)); then
            mapfile -t COMPREPLY < <(compgen -A hostname -S : -- "$cur")
            compopt -o nospace
        elif [[ $command != copy ]] && ((count < 1)); then
            mapfile -t COMPREPLY < <(compgen -A hostname -- "$cur")
        fi
        ;;
    esac
}
complete -F _kxadmin kxadmin kxadmin-strict
