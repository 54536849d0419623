# Completion for corvane-host:  source <(corvane-host completion)

_corvane_host() # PROGRAM, as it was typed
{
    # The line's own words: bash would split them at "=".
    local host=$1 line=${COMP_LINE:0:COMP_POINT} word before="" given subcommand="" request=""
    word=${line##*[[:space:]]}
    for given in ${line%"$word"}; do
        case $before:$given in
        :* | --plugin:* | --params:* | --engine:* | --names:* | --color:* | *:-*) ;;
        *:QZ*) request=${request:-$given} ;;
        *) subcommand=${subcommand:-$given} ;;
        esac
        before=$given
    done

    local words=""
    case $subcommand:$request:$word in
    explain:*) words=$("$host" explain --brief) ;;
    *:-*) words=$("$host" $subcommand --help | sed -nE 's/^  (-.,)?(--[a-z-]+).*/\2/p') ;;
    :* | help:*) words=$("$host" --help | sed -nE '/^Subcommands/,/^$/s/^  ([a-z]+) .*/\1/p') ;;
    completion:*) words="bash zsh fish" ;;
    call::* | describe::* | bench::*) words=$("$host" list --brief) ;;
    # Names with their values while a value is typed, names alone before.
    call:*=* | bench:*=*) words=$("$host" describe "$request" --brief) ;;
    call:* | bench:*) words=$("$host" describe "$request" --brief | sed 's/=.*/=/' | uniq) ;;
    esac 2>/dev/null

    COMPREPLY=()
    for given in $words; do
        [[ $given == "$word"* ]] || continue
        [[ $word == *=* ]] && given=${given#*=}  # to bash a word begins behind "="
        [ -z "$given" ] || COMPREPLY+=("$given")
    done
    case ${COMPREPLY[0]-} in
    *=) compopt -o nospace 2>/dev/null || : ;;
    esac
}
complete -o default -F _corvane_host corvane-host
