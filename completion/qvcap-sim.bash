# bash completion for qvcap-sim: commands, their options, folders and scenario files. Behind `--`
# stands a command of its own.
_qvcap_sim() {
    local current=${COMP_WORDS[COMP_CWORD]} previous=${COMP_WORDS[COMP_CWORD - 1]}
    local subcommand=${COMP_WORDS[1]} i
    for ((i = 2; i < COMP_CWORD; i++)); do
        if [[ ${COMP_WORDS[i]} == -- ]]; then
            mapfile -t COMPREPLY < <(compgen -c -- "$current")
            return
        fi
    done
    compopt -o filenames 2>/dev/null
    if ((COMP_CWORD == 1)); then
        mapfile -t COMPREPLY < <(compgen -W '-h --help init run serve usb status power-cycle journal' -- "$current")
    elif [[ $previous == --scenario ]]; then
        mapfile -t COMPREPLY < <(compgen -f -X '!*.toml' -- "$current"; compgen -d -- "$current")
    elif [[ $current == -* ]]; then
        local options='-h --help'
        [[ $subcommand == init ]] && options+=' --scenario'
        [[ $subcommand == usb ]] && options+=' --scenario --played'
        [[ $subcommand == run ]] && options+=' --state --'
        mapfile -t COMPREPLY < <(compgen -W "$options" -- "$current")
    else
        mapfile -t COMPREPLY < <(compgen -d -- "$current")
    fi
}
complete -F _qvcap_sim qvcap-sim
