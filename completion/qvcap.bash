# bash completion for qvcap: commands, their options, folders and devices.
_qvcap() {
    local current=${COMP_WORDS[COMP_CWORD]} previous=${COMP_WORDS[COMP_CWORD - 1]}
    local options='-h --help'
    case ${COMP_WORDS[1]} in
        status) options+=' --packages --quick --json --exit-code' ;;
        verify) options+=' --packages --all --board --device --json' ;;
        backup) options+=' --all --board --device --json' ;;
        doctor) options+=' --packages --timeout --json' ;;
        upgrade)
            options+=' --all --board --device'
            options+=' --packages --force --force-busy --dry-run --wait --stop-on-failure --power-off'
            options+=' --jobs --retries --stalled-after --earlier --backup --log --lock --json'
            ;;
        history) options+=' --log --serial --last --json' ;;
    esac
    compopt -o filenames 2>/dev/null
    if ((COMP_CWORD == 1)); then
        local words='--version'
        mapfile -t COMPREPLY < <(
            compgen -W '-h --help status verify backup doctor upgrade history' -- "$current"
            compgen -W "$words" -- "$current"
        )
        return
    fi
    case $previous in
        --packages | --earlier | --backup | --log)
            mapfile -t COMPREPLY < <(compgen -d -- "$current") ;;
        --lock) mapfile -t COMPREPLY < <(compgen -f -- "$current") ;;
        --device) mapfile -t COMPREPLY < <(compgen -G "${current:-/dev/video}*") ;;
        --board | --jobs | --retries | --stalled-after | --timeout | --serial | --last)
            COMPREPLY=() ;; # numbers and texts
        *)
            if [[ $current == -* ]]; then
                mapfile -t COMPREPLY < <(compgen -W "$options" -- "$current")
            elif [[ ${COMP_WORDS[1]} == backup ]]; then
                mapfile -t COMPREPLY < <(compgen -d -- "$current")
            fi
            ;;
    esac
}
complete -F _qvcap qvcap
