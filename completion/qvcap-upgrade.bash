# bash completion for qvcap-upgrade: options, board numbers, device paths, board:channel pairs.
# Numbers are those of a listing, which only reads; without a listing there are none.

# Prints "board:channel" of each channel listed by the command $1, without leading zeros.
_qvcap_upgrade_channels() {
    "$1" -l 2>/dev/null </dev/null |
        sed -n 's/^0\{0,1\}\([0-9]\{1,\}\):0\{0,1\}\([0-9]\{1,\}\) .*/\1:\2/p'
}

_qvcap_upgrade() {
    # The line is split at blanks alone: bash would take 0:1 apart.
    local line=${COMP_LINE:0:COMP_POINT}
    local current=${line##*[[:space:]]}
    local before=${line%"$current"}
    read -r -a before <<<"$before"
    local command=${before[0]} previous=${before[-1]} words=
    # Numbers only from a command that is there: nothing else may be run.
    command -v "$command" >/dev/null 2>&1 || command=false

    case $previous in
        -b | --board) words=$(_qvcap_upgrade_channels "$command" | cut -d: -f1 | sort -nu) ;;
        -d | --device)
            words=$(_qvcap_upgrade_channels "$command"; compgen -G '/dev/video[0-9]*') ;;
        *) words='-h -l -a -b -d -f -y --help --list --all --board --device --fource --yes' ;;
    esac
    mapfile -t COMPREPLY < <(compgen -W "$words" -- "$current")

    # bash replaces what stands behind the last colon only.
    if [[ $current == *:* && $COMP_WORDBREAKS == *:* ]]; then
        local kept=${current%"${current##*:}"}
        COMPREPLY=("${COMPREPLY[@]#"$kept"}")
    fi
}
complete -F _qvcap_upgrade qvcap-upgrade
