# Bash completion of dhctl: commands, options, and the node paths of the daemon dhctl would talk
# to (the same --socket/--host/--port/$DH_SOCKET as the command line). Paths come from the
# daemon's `list`, cached per user for a few seconds so that repeated tabs do not ask it again;
# when no daemon answers there is nothing to offer.

# Seconds a fetched path list is used before the daemon is asked again.
_DHCTL_PATH_CACHE_SECONDS=10

# Prints the leaf paths of the daemon selected by the connection options in "$@".
_dhctl_paths() {
    local target=${DH_SOCKET:-/tmp/device_handlers/sysrepo/dh.sock}
    case " $* " in
    *" --host "* | *" --port "*) target="tcp $*" ;;
    *" --socket "*) target="unix $*" ;;
    esac
    local dir=${XDG_CACHE_HOME:-$HOME/.cache}/dhctl
    local key
    key=$(printf '%s' "$target" | cksum)
    local cache="$dir/paths-${key%% *}"
    local now mtime
    printf -v now '%(%s)T' -1
    if [[ -f $cache ]] && mtime=$(stat -c %Y -- "$cache" 2>/dev/null) &&
        ((now - mtime < _DHCTL_PATH_CACHE_SECONDS && mtime <= now)); then
        cat -- "$cache"
        return
    fi
    local listing
    listing=$(dhctl --timeout 2 "$@" ls 2>/dev/null) || return 0
    listing=$(printf '%s\n' "$listing" | while read -r path _; do printf '%s\n' "$path"; done)
    if mkdir -p -m 700 -- "$dir" 2>/dev/null; then
        printf '%s\n' "$listing" >"$cache.$$" && mv -f -- "$cache.$$" "$cache"
    fi
    printf '%s\n' "$listing"
}

_dhctl() {
    local cur=${COMP_WORDS[COMP_CWORD]} prev=""
    ((COMP_CWORD > 0)) && prev=${COMP_WORDS[COMP_CWORD - 1]}
    local commands="get set run confirm watch ls info history help"
    local options="--socket --host --port --json --timeout --table --since --heartbeat --confirm --help --version"
    COMPREPLY=()

    case $prev in
    --socket)
        COMPREPLY=($(compgen -f -- "$cur"))
        return
        ;;
    --host | --port | --timeout | --since | --heartbeat | --confirm) return ;;
    esac

    # The command, its arguments so far, and the connection options given before the word.
    local command="" i word connection=() args=0 after_dashes=""
    for ((i = 1; i < COMP_CWORD; i++)); do
        word=${COMP_WORDS[i]}
        if [[ -n $after_dashes ]]; then
            [[ -z $command ]] && command=$word || ((args++))
            continue
        fi
        case $word in
        --) after_dashes=1 ;;
        --socket | --host | --port)
            connection+=("$word" "${COMP_WORDS[i + 1]}")
            ((i++))
            ;;
        --timeout | --since | --heartbeat | --confirm) ((i++)) ;;
        -?*) ;;
        *) [[ -z $command ]] && command=$word || ((args++)) ;;
        esac
    done

    if [[ $cur == -* && -z $after_dashes ]]; then
        COMPREPLY=($(compgen -W "$options" -- "$cur"))
        return
    fi
    if [[ -z $command ]]; then
        COMPREPLY=($(compgen -W "$commands" -- "$cur"))
        return
    fi
    case $command in
    help) ((args == 0)) && COMPREPLY=($(compgen -W "$commands" -- "$cur")) ;;
    get | info | ls | run)
        ((args == 0)) && COMPREPLY=($(compgen -W "$(_dhctl_paths "${connection[@]}")" -- "$cur"))
        ;;
    set)
        # PATH VALUE pairs: a path at every even position.
        ((args % 2 == 0)) && COMPREPLY=($(compgen -W "$(_dhctl_paths "${connection[@]}")" -- "$cur"))
        ;;
    watch) COMPREPLY=($(compgen -W "$(_dhctl_paths "${connection[@]}")" -- "$cur")) ;;
    esac
}

complete -F _dhctl dhctl
