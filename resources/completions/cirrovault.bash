# bash completion for cirrovault
_cirrovault() {
    local cur=${COMP_WORDS[COMP_CWORD]} command="" sub="" i word
    local commands="logon logoff status task backup daemon restore versions log options check repair service"
    local globals="--service --user --limit-upload --json --verbose --quiet --version --help"
    for ((i = 1; i < COMP_CWORD; i++)); do
        word=${COMP_WORDS[i]}
        case $word in
            --service | --user | --limit-upload) ((i++)) ;;
            -*) ;;
            *) if [[ -z $command ]]; then command=$word; elif [[ -z $sub ]]; then sub=$word; fi ;;
        esac
    done
    if [[ -z $command ]]; then
        if [[ $cur == -* ]]; then
            COMPREPLY=($(compgen -W "$globals" -- "$cur"))
        else
            COMPREPLY=($(compgen -W "$commands" -- "$cur"))
        fi
        return
    fi
    if [[ -z $sub ]]; then
        case $command in
            task) COMPREPLY=($(compgen -W "list show new edit delete migrate" -- "$cur")); return ;;
            service) COMPREPLY=($(compgen -W "enable disable" -- "$cur")); return ;;
        esac
    fi
    if [[ $cur == -* ]]; then
        COMPREPLY=($(compgen -W "--help $globals" -- "$cur"))
    else
        COMPREPLY=($(compgen -f -- "$cur"))
    fi
}
complete -o filenames -F _cirrovault cirrovault
