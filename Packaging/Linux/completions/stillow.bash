# bash completion for stillow                                  -*- shell-script -*-

_stillow_collection() # sites or groups
{
    stillow "$1" list --json 2>/dev/null | if [[ $1 == groups ]]; then
        grep -o '"name":"[^"\\]*"' | cut -d'"' -f4
    else
        grep -o '"domain":"[^"\\]*"' | cut -d'"' -f4
    fi
}

_stillow()
{
    local cur prev words cword
    _init_completion || return

    local commands='start add extend status watch acknowledge validate explain sites groups rpc
        removal-check doctor'
    local command= edit= index
    for ((index = 1; index < cword; index++)); do
        [[ ${words[index]} == -* ]] && continue
        if [[ ! $command ]]; then
            command=${words[index]}
        elif [[ ! $edit ]]; then
            edit=${words[index]}
        fi
    done

    case $prev in
        --group)
            local IFS=$'\n'
            COMPREPLY=($(compgen -W "$(_stillow_collection groups)" -- "$cur"))
            return
            ;;
        --for | --by)
            COMPREPLY=($(compgen -W '15m 30m 45m 60m 90m 2h 4h 8h' -- "$cur"))
            return
            ;;
        --until) return ;;
    esac

    if [[ ! $command ]]; then
        COMPREPLY=($(compgen -W "$commands --help --version" -- "$cur"))
        return
    fi
    if [[ $command == @(sites|groups) && ! $edit ]]; then
        COMPREPLY=($(compgen -W 'add remove list import --help' -- "$cur"))
        return
    fi
    if [[ $cur == -* ]]; then
        local options='--help --json'
        case $command in
            start) options+=' --group --all --for --until --yes' ;;
            add) options+=' --group --all --yes' ;;
            extend) options+=' --by --until --yes' ;;
            status) options+=' --watch' ;;
            sites) [[ $edit == remove ]] || options+=' --group' ;;
        esac
        COMPREPLY=($(compgen -W "$options" -- "$cur"))
        return
    fi
    case $command-$edit in
        start-* | add-* | explain-* | sites-remove)
            COMPREPLY=($(compgen -W "$(_stillow_collection sites)" -- "$cur"))
            ;;
        groups-add | groups-remove)
            local IFS=$'\n'
            COMPREPLY=($(compgen -W "$(_stillow_collection groups; _stillow_collection sites)" -- "$cur"))
            ;;
        sites-import | groups-import) _filedir ;;
        rpc-*)
            COMPREPLY=($(compgen -W 'status activate strengthen extend subscribeToStatusChanges
                validateEnforcement acknowledgeExpiry armFilterConfiguration announceUserInterface' \
                -- "$cur"))
            ;;
    esac
} &&
    complete -F _stillow stillow
