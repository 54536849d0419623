# Completion for corvane-host:  corvane-host completion fish | source

function __corvane_host
    set -l line (commandline -opc)
    set -l word (commandline -ct)
    set -l host $line[1]
    set -l before
    set -l subcommand
    set -l request
    for given in $line[2..]
        if contains -- "$before" --plugin --params --engine --names --color; or string match -q -- '-*' $given
        else if string match -q 'QZ*' $given
            set -q request[1]; or set request $given
        else
            set -q subcommand[1]; or set subcommand $given
        end
        set before $given
    end
    contains -- "$before" --plugin --params --engine --names; and __fish_complete_path "$word"; and return

    switch "$subcommand:$request:$word"
        case 'explain:*'
            $host explain --brief
        case '*:-*'
            $host $subcommand --help | string replace -rf '^  (-.,)?(--[a-z-]+).*' '$2'
        case ':*' 'help:*'
            $host --help | sed -n '/^Subcommands/,/^$/p' | string replace -rf '^  ([a-z]+) .*' '$1'
        case 'completion:*'
            printf '%s\n' bash zsh fish
        case 'call::*' 'describe::*' 'bench::*'
            $host list --brief
        # Names with their values while a value is typed, names alone before.
        case 'call:*=*' 'bench:*=*'
            $host describe $request --brief
        case 'call:*' 'bench:*'
            $host describe $request --brief | string replace -r '=.*' '=' | uniq
        case '*'
            __fish_complete_path "$word"
    end 2>/dev/null
end
complete -c corvane-host -f -a '(__corvane_host)'
