#compdef corvane-host
# Completion for corvane-host:  source <(corvane-host completion zsh)

_corvane_host()
{
    local host=$words[1] word=$PREFIX before= given= subcommand= request=
    for given in ${words[1,CURRENT-1]}; do
        case $before:$given in
        :*|--plugin:*|--params:*|--engine:*|--names:*|--color:*|*:-*) ;;
        *:QZ*) request=${request:-$given} ;;
        *) subcommand=${subcommand:-$given} ;;
        esac
        before=$given
    done
    [[ $before != --(plugin|params|engine|names) ]] || { _files; return }

    local -a found
    case $subcommand:$request:$word in
    explain:*) found=(${(f)"$($host explain --brief)"}) ;;
    *:-*) found=(${(f)"$($host $subcommand --help | sed -nE 's/^  (-.,)?(--[a-z-]+).*/\2/p')"}) ;;
    :*|help:*) found=(${(f)"$($host --help | sed -nE '/^Subcommands/,/^$/s/^  ([a-z]+) .*/\1/p')"}) ;;
    completion:*) found=(bash zsh fish) ;;
    call::*|describe::*|bench::*) found=(${(f)"$($host list --brief)"}) ;;
    # Names with their values while a value is typed, names alone before.
    call:*=*|bench:*=*) found=(${(f)"$($host describe $request --brief)"}) ;;
    call:*|bench:*) found=(${(f)"$($host describe $request --brief | sed 's/=.*/=/' | uniq)"}) ;;
    esac 2>/dev/null

    if [[ $word == *=* ]]; then
        found=(${${(M)found:#${word%%=*}=?*}#*=})
        compset -P '*='
    fi
    # No blank behind "name=", where its value goes.
    (( ! $#found )) || compadd -S '' -- ${(M)found:#*=}
    (( ! $#found )) || compadd -- ${found:#*=}
    (( $#found )) || _files
}

# Loaded by its name from a folder of completions, or sourced.
if [[ $funcstack[1] == _corvane-host ]]; then
    _corvane_host "$@"
else
    compdef _corvane_host corvane-host
fi
