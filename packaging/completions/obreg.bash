# bash completion for obreg(1). The tool itself knows what fits; here words are only taken out of their quotes and back.
_obreg() {
    local word=${COMP_WORDS[COMP_CWORD]} quoted='' candidate words=()
    [[ $word == [\'\"]* ]] && quoted=yes
    for word in "${COMP_WORDS[@]:1:COMP_CWORD}"; do
        case $word in
        [\'\"]*) word=${word#[\'\"]} && word=${word%[\'\"]} ;;
        *) word=${word//\\\\/$'\1'} && word=${word//\\/} && word=${word//$'\1'/\\} ;;
        esac
        words+=("$word")
    done
    COMPREPLY=()
    while IFS= read -r candidate; do
        [[ $quoted ]] || printf -v candidate %q "$candidate"
        COMPREPLY+=("$candidate")
    done < <("${COMP_WORDS[0]}" __complete "${words[@]}" 2>/dev/null)
    # A key goes on below its separator.
    if [[ ${#COMPREPLY[@]} == 1 && ${COMPREPLY[0]} == *[/\\] ]]; then compopt -o nospace 2>/dev/null; fi
}
complete -o default -F _obreg obreg
