# shellcheck shell=bash
# Completion of kelctl for bash 4.4 and later. Sourcing this file is enough, the package
# bash-completion is not needed. What is offered comes from "kelctl __complete".

_kelctl() {
    local line=${COMP_LINE:0:COMP_POINT} words current before='' quote='' kept found status candidate
    COMPREPLY=()
    read -ra words <<<"${line#*"$1"}"
    case $line in *[[:blank:]]) words+=('') ;; esac
    [ ${#words[@]} -gt 0 ] || return 0
    current=${words[-1]}
    case $current in
        \"* | \'*) quote=${current:0:1} current=${current:1} ;;
    esac
    words[-1]=$current
    # The file of a redirection is bash's own matter.
    [ ${#words[@]} -lt 2 ] || before=${words[-2]}
    case "$before $current" in
        *[\<\>]' '* | *' '[\<\>]*) compopt -o default +o nospace && return 0 ;;
    esac
    found=$("${1/#\~\//$HOME/}" __complete "${words[@]}" 2>/dev/null </dev/null)
    status=$?
    if [ $status -eq 9 ]; then
        compopt -o default +o nospace
        return 0
    fi
    [ -n "$found" ] || return 0
    # Readline replaces only what stands behind the last of COMP_WORDBREAKS, "=" among them; an "@"
    # it replaces, too.
    kept=${current%"${current##*["$COMP_WORDBREAKS"]}"}
    kept=${kept%@}
    while IFS= read -r candidate; do
        candidate=${candidate%%$'\t'*}
        candidate=${candidate#"$kept"}
        # Readline itself closes a quote.
        if [ -z "$quote" ]; then
            printf -v candidate %q "$candidate"
            case $candidate in
                *[!.=]) candidate+=' ' ;;
            esac
        fi
        COMPREPLY+=("$candidate")
    done <<<"$found"
}

complete -o nospace -o nosort -F _kelctl kelctl
