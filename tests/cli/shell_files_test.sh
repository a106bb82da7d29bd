#!/usr/bin/env bash
# shell_files_test.sh DAK DAK_AGENT SOURCES: what shells and readers are told of the programs agrees
# with what the programs say of themselves.
set -euo pipefail
dak=$1 agent=$2 sources=$3
failures=0
fail() {
    printf 'FAILED: %s\n' "$*"
    failures=$((failures + 1))
}

for word in cat ls push; do
    [[ -n $("$dak" "$word" --help) ]] || fail "no help for $word"
done
mapfile -t verbs < <("$dak" --help | sed -n '/^Verbs:/,/^$/s/^  \([a-z]*\) .*/\1/p')
[[ ${#verbs[@]} -ge 17 ]] || fail "only ${#verbs[@]} verbs in the help"
# The long options of a program's help.
options_of() { "$@" --help | grep -oE '^ +(-[a-z],)?--[a-z-]+' | grep -oE -- '--[a-z-]+' | sort -u; }

bash -n "$sources/cli/completion/dak.bash" || fail "the completion for bash does not parse"
# shellcheck source=/dev/null
source "$sources/cli/completion/dak.bash"
# complete_words WORD...: what is offered for the last of the words.
# There is no completion in work that it could change.
# shellcheck disable=SC2317 # the completion calls it
compopt() { :; }
complete_words() {
    COMP_WORDS=(dak "$@") COMP_CWORD=$#
    _dak
}
offers() { [[ " ${COMPREPLY[*]} " == *" $1 "* ]]; }

complete_words ''
for verb in "${verbs[@]}"; do
    offers "$verb" || fail "bash is not offered $verb"
done
[[ ${#COMPREPLY[@]} == "${#verbs[@]}" ]] || fail "bash is offered verbs that there are not"
complete_words --json st
[[ ${COMPREPLY[*]} == 'stat status storages' ]] || fail "st gives ${COMPREPLY[*]}"

for verb in "${verbs[@]}"; do
    grep -qE "^        '$verb:" "$sources/cli/completion/_dak" || fail "zsh is not offered $verb"
    grep -qE "^\.B[IR]? \"?$verb\b" "$sources/docs/man/dak.1" || fail "dak.1 lacks $verb"
    complete_words "$verb" --
    for option in $(options_of "$dak" "$verb"); do
        offers "$option" || fail "bash is not offered $verb $option"
        grep -qF -- "$option" "$sources/cli/completion/_dak" || fail "zsh lacks $verb $option"
        grep -qF -- "${option//-/\\-}" "$sources/docs/man/dak.1" || fail "dak.1 lacks $verb $option"
    done
done
for option in $(options_of "$agent"); do
    grep -qF -- "${option//-/\\-}" "$sources/docs/man/dak-agent.1" ||
        fail "dak-agent.1 lacks $option"
done

folder=$(mktemp -d)
trap 'rm -rf "$folder"' EXIT
mkdir "$folder/in" && : >"$folder/in one"
complete_words push "$folder/i"
[[ ${#COMPREPLY[@]} == 2 ]] || fail "push is offered ${COMPREPLY[*]}"
complete_words pull /Docs "$folder/i"
[[ ${COMPREPLY[*]} == "$folder/in" ]] || fail "pull is offered ${COMPREPLY[*]}"
complete_words ioctl --in "$folder/in o"
[[ ${COMPREPLY[*]} == "$folder/in one" ]] || fail "--in is offered ${COMPREPLY[*]}"
complete_words run player -
[[ ${#COMPREPLY[@]} == 0 ]] || fail "a program of the device is offered ${COMPREPLY[*]}"

# Where there are the programs for it.
if command -v zsh >/dev/null; then
    zsh -n "$sources/cli/completion/_dak" || fail "the completion for zsh does not parse"
fi
if command -v groff >/dev/null; then
    for page in dak dak-agent; do
        [[ -z $(groff -man -ww -Tascii "$sources/docs/man/$page.1" 2>&1 >/dev/null) ]] ||
            fail "groff complains about $page.1"
    done
fi
exit $((failures > 0))
