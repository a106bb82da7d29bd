# Completion of dak for bash: verbs, options, and paths of this computer where a verb takes them.
# shellcheck shell=bash

_dak() {
    local verbs='cat cp devices df format ioctl ls message mkdir mv pull push rm run stat status storages write'
    local cur=${COMP_WORDS[COMP_CWORD]} prev=${COMP_WORDS[COMP_CWORD - 1]}
    local verb='' operands=0 word i
    for ((i = 1; i < COMP_CWORD; ++i)); do
        word=${COMP_WORDS[i]}
        if [[ ! ($verb == run && $operands -gt 0) && ($word == --device || $word =~ ^-[a-z]*d$) ]]; then
            i=$((i + 1)) # the name behind it
        elif [[ -z $verb ]]; then
            [[ $word == -* ]] || verb=$word
        elif [[ $word != -* ]]; then
            operands=$((operands + 1))
        fi
    done
    COMPREPLY=()
    # What follows the program of a run is the program's.
    if [[ $verb == run && $operands -gt 0 ]]; then
        return
    fi
    if [[ $prev == --device || $prev =~ ^-[a-z]*d$ ]]; then
        mapfile -t COMPREPLY < <(compgen -W "$("${COMP_WORDS[0]}" devices 2>/dev/null)" -- "$cur")
        return
    fi
    if [[ $verb == ioctl && $prev == --in ]]; then
        compopt -o filenames 2>/dev/null
        mapfile -t COMPREPLY < <(compgen -f -- "$cur")
        return
    fi
    if [[ $cur == -* ]]; then
        local options='--device --help --json --quiet'
        case $verb in
        ls) options+=' -l --long' ;;
        cp) options+=' --no-clobber' ;;
        format) options+=' --yes' ;;
        run) options+=' --wait' ;;
        ioctl) options+=' --in --out-size --raw' ;;
        esac
        mapfile -t COMPREPLY < <(compgen -W "$options" -- "$cur")
        return
    fi
    case $verb in
    '') mapfile -t COMPREPLY < <(compgen -W "$verbs" -- "$cur") ;;
    push)
        compopt -o filenames 2>/dev/null
        mapfile -t COMPREPLY < <(compgen -f -- "$cur")
        ;;
    pull)
        # The first operand is the device's.
        if ((operands > 0)); then
            compopt -o filenames 2>/dev/null
            mapfile -t COMPREPLY < <(compgen -d -- "$cur")
        fi
        ;;
    esac
}

complete -F _dak dak
