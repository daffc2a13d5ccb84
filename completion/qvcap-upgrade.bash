# bash completion for qvcap-upgrade: options, board numbers, device paths, board:channel pairs. The
# numbers come from a listing, which only reads. It runs once in a shell, and is stopped after half a
# second: then there are no numbers.

# Sets _qvcap_upgrade_channels to "board:channel" of each channel that the command $1 lists, without
# leading zeros. The listing runs in a folder without packages, so that it need not read any.
_qvcap_upgrade_list() {
    [[ ${_qvcap_upgrade_listed_by-} != "$1" ]] || return 0
    _qvcap_upgrade_listed_by=$1
    local listing
    listing=$(cd / && timeout 0.5 "$1" -l 2>/dev/null </dev/null) || listing=
    _qvcap_upgrade_channels=$(
        sed -n 's/^0\{0,1\}\([0-9]\{1,\}\):0\{0,1\}\([0-9]\{1,\}\) .*/\1:\2/p' <<<"$listing"
    )
}

_qvcap_upgrade() {
    # The line is split only at blanks: bash would split 0:1.
    local line=${COMP_LINE:0:COMP_POINT}
    local current=${line##*[[:space:]]}
    local before=${line%"$current"}
    read -r -a before <<<"$before"
    local command=${before[0]} previous=${before[-1]} words=
    # Numbers only from an existing command: nothing else may be run.
    command=$(type -P "$command") || command=false
    [[ $command != */* || $command == /* ]] || command=$PWD/$command

    case $previous in
        -b | --board)
            _qvcap_upgrade_list "$command"
            words=$(cut -d: -f1 <<<"$_qvcap_upgrade_channels" | sort -nu) ;;
        -d | --device)
            _qvcap_upgrade_list "$command"
            words=$_qvcap_upgrade_channels$'\n'$(compgen -G '/dev/video[0-9]*') ;;
        *) words='-h -l -a -b -d -f -y --help --list --all --board --device --fource --yes' ;;
    esac
    mapfile -t COMPREPLY < <(compgen -W "$words" -- "$current")

    # bash replaces only the text after the last colon.
    if [[ $current == *:* && $COMP_WORDBREAKS == *:* ]]; then
        local kept=${current%"${current##*:}"}
        COMPREPLY=("${COMPREPLY[@]#"$kept"}")
    fi
}
complete -F _qvcap_upgrade qvcap-upgrade
