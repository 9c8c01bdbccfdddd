# bash completion for obreg(1). The tool itself knows what fits; here words are only taken out of their quotes and back.
_obreg() {
    local cur cword candidate head word quoted='' words=() plain=()
    # Where it is there, bash-completion knows a word that has : or = in it; without, such a word is not completed.
    if declare -F _get_comp_words_by_ref >/dev/null; then
        _get_comp_words_by_ref -n := cur cword words
    else
        words=("${COMP_WORDS[@]}") cword=$COMP_CWORD cur=${COMP_WORDS[COMP_CWORD]}
    fi
    [[ $cur == [\'\"]* ]] && quoted=yes
    for word in "${words[@]:1:cword}"; do
        case $word in
        [\'\"]*) word=${word#[\'\"]} && word=${word%[\'\"]} ;;
        *) word=${word//\\\\/$'\1'} && word=${word//\\/} && word=${word//$'\1'/\\} ;;
        esac
        plain+=("$word")
    done
    head=${cur%"${cur##*[:=]}"} # bash itself puts back only what comes behind it
    COMPREPLY=()
    while IFS= read -r candidate; do
        [[ $quoted ]] || printf -v candidate %q "$candidate"
        [[ $quoted ]] || candidate=${candidate#"$head"}
        COMPREPLY+=("$candidate")
    done < <("${COMP_WORDS[0]}" __complete "${plain[@]}" 2>/dev/null)
    # A key goes on below its separator.
    if [[ ${#COMPREPLY[@]} == 1 && ${COMPREPLY[0]} == *[/\\] ]]; then compopt -o nospace 2>/dev/null; fi
}
complete -o default -F _obreg obreg
