# bash completion for qvcap-sim: commands, their options, folders and scenario files. After `--`
# comes another command, which completes its own words.

# Completes the command that begins at word $1 of the line.
_qvcap_sim_behind() {
    local offset
    for offset in _comp_command_offset _command_offset; do # of the package bash-completion
        if declare -F "$offset" >/dev/null; then
            "$offset" "$1"
            return
        fi
    done
    if ((COMP_CWORD == $1)); then
        mapfile -t COMPREPLY < <(compgen -c -- "${COMP_WORDS[COMP_CWORD]}")
        return
    fi
    local COMP_WORDS=("${COMP_WORDS[@]:$1}") COMP_CWORD=$((COMP_CWORD - $1))
    local command=${COMP_WORDS[0]} line=${COMP_LINE:0:COMP_POINT}
    local COMP_LINE=$command${line#*" -- "*"$command"}
    local COMP_POINT=${#COMP_LINE} completer
    completer=$(complete -p "${command##*/}" 2>/dev/null) && completer=${completer##*-F } || completer=
    if [[ $completer ]]; then
        "${completer%% *}" "$command" "${COMP_WORDS[COMP_CWORD]}" "${COMP_WORDS[COMP_CWORD - 1]}"
    else
        compopt -o filenames 2>/dev/null
        mapfile -t COMPREPLY < <(compgen -f -- "${COMP_WORDS[COMP_CWORD]}")
    fi
}

_qvcap_sim() {
    local current=${COMP_WORDS[COMP_CWORD]} previous=${COMP_WORDS[COMP_CWORD - 1]}
    local subcommand=${COMP_WORDS[1]} i
    for ((i = 2; i < COMP_CWORD; i++)); do
        if [[ ${COMP_WORDS[i]} == -- ]]; then
            _qvcap_sim_behind $((i + 1))
            return
        fi
    done
    compopt -o filenames 2>/dev/null
    if ((COMP_CWORD == 1)); then
        mapfile -t COMPREPLY < <(compgen -W '-h --help --version init run serve usb status power-cycle fault flash journal reset' -- "$current")
    elif [[ $previous == --scenario ]]; then
        mapfile -t COMPREPLY < <(compgen -f -X '!*.toml' -- "$current"; compgen -d -- "$current")
    elif [[ $current == -* ]]; then
        local options='-h --help'
        [[ $subcommand == init ]] && options+=' --scenario --packages'
        [[ $subcommand == usb ]] && options+=' --scenario --played --state'
        [[ $subcommand == run ]] && options+=' --state --'
        [[ $subcommand == status || $subcommand == fault ]] && options+=' --json'
        [[ $subcommand == journal ]] && options+=' --json --follow --clear'
        mapfile -t COMPREPLY < <(compgen -W "$options" -- "$current")
    elif ((COMP_CWORD == 2)) && [[ $subcommand == fault ]]; then
        mapfile -t COMPREPLY < <(compgen -W 'add list clear' -- "$current")
    elif ((COMP_CWORD == 2)) && [[ $subcommand == flash ]]; then
        mapfile -t COMPREPLY < <(compgen -W 'read write' -- "$current")
    elif ((COMP_CWORD > 4)) && [[ $subcommand == flash ]]; then
        mapfile -t COMPREPLY < <(compgen -f -- "$current")
    else
        mapfile -t COMPREPLY < <(compgen -d -- "$current")
    fi
}
complete -F _qvcap_sim qvcap-sim
