# bash completion for qvftool: commands, their options, packages, descriptions, keys and folders.
_qvftool() {
    local current=${COMP_WORDS[COMP_CWORD]} previous=${COMP_WORDS[COMP_CWORD - 1]}
    local subcommand=${COMP_WORDS[1]} options='-h --help' suffix=
    case $subcommand in
        create) options+=' -o --output' suffix=toml ;;
        info) options+=' --json --all' suffix=qvf ;;
        check) options+=' --json --key --flash-size --firmware-area' suffix=qvf ;;
        diff) suffix=qvf ;;
        sign) options+=' --key' suffix=qvf ;;
        extract) options+=' -d --directory' suffix=qvf ;;
    esac
    compopt -o filenames 2>/dev/null
    if ((COMP_CWORD == 1)); then
        local words='--version'
        mapfile -t COMPREPLY < <(
            compgen -W '-h --help create info check diff sign extract' -- "$current"
            compgen -W "$words" -- "$current"
        )
    elif [[ $previous == -o || $previous == --output || $previous == --key ]]; then
        mapfile -t COMPREPLY < <(compgen -f -- "$current")
    elif [[ $previous == --flash-size || $previous == --firmware-area ]]; then
        COMPREPLY=() # numbers
    elif [[ $previous == -d || $previous == --directory ]]; then
        mapfile -t COMPREPLY < <(compgen -d -- "$current")
    elif [[ $current == -* ]]; then
        mapfile -t COMPREPLY < <(compgen -W "$options" -- "$current")
    else
        mapfile -t COMPREPLY < <(compgen -f -X "!*.$suffix" -- "$current"; compgen -d -- "$current")
    fi
}
complete -F _qvftool qvftool
