# bash completion for zymctl. It asks the program itself for its commands and options.

_zymctl() {
    local word=${COMP_WORDS[COMP_CWORD]} previous=${COMP_WORDS[COMP_CWORD - 1]} program=${COMP_WORDS[0]}
    local each help command=
    COMPREPLY=()
    case $previous in
        --unix | --*-file | --ca | --ca-folder | --cert | --key)
            mapfile -t COMPREPLY < <(compgen -f -- "$word")
            return
            ;;
    esac
    help=$("$program" --help 2>/dev/null)
    for each in "${COMP_WORDS[@]:1:COMP_CWORD-1}"; do
        if [[ $each =~ ^[a-z]+$ ]] && grep -qE "^  $each +[A-Z]" <<<"$help"; then
            command=$each
        fi
    done
    if [[ $word == -* ]]; then
        [[ -z $command ]] || help+=$'\n'$("$program" "$command" --help 2>/dev/null)
        mapfile -t COMPREPLY < <(compgen -W "$(grep -oE '^  (-h,)? *--[a-z-]+' <<<"$help" | grep -oE -- '--.*')" -- "$word")
    elif [[ -z $command ]]; then
        mapfile -t COMPREPLY < <(compgen -W "$(sed -n '/^subcommands:/I,/^$/s/^  \([a-z]\+\) .*/\1/p' <<<"$help")" -- "$word")
    elif [[ $previous == check ]]; then
        mapfile -t COMPREPLY < <(compgen -W "collection link clean" -- "$word")
    fi
}

complete -F _zymctl zymctl
