# fish completion for obreg(1). The tool itself knows what fits; where it offers nothing, files do.
function __obreg_candidates
    set -l words (commandline -opc) (commandline -ct | string unescape)
    command $words[1] __complete $words[2..-1] 2>/dev/null
end
complete -c obreg -n 'test (count (__obreg_candidates)) -gt 0' -f -a '(__obreg_candidates)'
