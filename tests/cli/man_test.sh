#!/usr/bin/env bash
# The man pages: they render without a warning, and say what the programs and headers have.
# KELCONF_BUILD names the build directory.
set -uo pipefail

project=$(cd "${BASH_SOURCE[0]%/*}/../.." && pwd -P)
build=${KELCONF_BUILD:-$project/build/release}
failures=0

# same WHAT EXPECTED ACTUAL: two lists of words, a word a line, in any order
same() {
    local difference
    if [ -n "$2" ] && difference=$(diff <(grep . <<<"$2" | sort -u) <(grep . <<<"$3" | sort -u)); then
        echo "ok: $1"
    else
        printf 'FAILED: %s (<: only in the program or header, >: only in the page)\n%s\n' "$1" "$difference"
        failures=$((failures + 1))
    fi
}

# rendered PAGE: as plain text, a paragraph a line
rendered() {
    groff -ww -man -Tascii -rLL=2000n -rHY=0 -P-cbu "$build/man/$1" 2>"$warnings"
}

words() { grep -oE -- "$1" || true; }

# Options that a line of help or a synopsis begins or lists.
options() { words '(^|[ ,|[])(-[A-Za-z0-9]|--[a-z][a-z-]*)' | tr -d ' ,|['; }

# The options of a help text: the first column alone, the texts may name others.
help_options() { sed -nE 's/^  (-[^ ].*)$/ \1/p' | sed -E 's/^( +[^ ]+( [A-Z]+)?)  .*/\1/' | options; }

warnings=$(mktemp)
trap 'rm -f -- "$warnings"' EXIT

for source in "$project"/man/*.scd; do
    page=$(basename "$source" .scd)
    text=$(rendered "$page")
    [ -s "$warnings" ] && same "$page renders" "no warning" "$(cat "$warnings")"
    same "$page names itself" "${page%.*}" "$(sed -nE '/^NAME/{n;s/^ +([^ ]+) - .*/\1/p}' <<<"$text")"
    for other in $(words '[a-z-]+\([1358]\)' <<<"$(grep -A 9 '^SEE ALSO' <<<"$text" | grep '^ ')"); do
        other=${other%)}
        [ -e "$build/man/${other/\(/.}" ] || same "$page refers to" "pages that are there" "$other"
    done
done

same "kelbus(3) has the functions of the header" \
    "$(words '\bkelbus_[a-z_]+\(' < <(cat "$project"/include/*.h))" \
    "$(rendered kelbus.3 | words '\bkelbus_[a-z_]+\(')"

kelctl=$build/bin/kelctl
text=$(rendered kelctl.1)
synopsis=$(grep -E '^ +kelctl [a-z]' <<<"$(sed '/^DESCRIPTION/q' <<<"$text")")
described=$(sed -nE '/^OPTIONS/,/^OUTPUT/s/^ +(-[^ ].*)/ \1/p' <<<"$text" | options)
everywhere=$("$kelctl" --help | help_options | sort -u | grep -vxE -- '-V|--version')
# "tree check" is listed as "tree": a group has commands below it instead of options
commands=$("$kelctl" --help | sed -nE '/^Commands:/,/^$/s/^  ([a-z]+) .*/\1/p' |
    while read -r name; do
        below=$("$kelctl" "$name" --help | sed -nE '/^Commands:/,/^$/s/^  ([a-z]+) .*/\1/p')
        echo "$name${below:+ $below}"
    done)
same "commands" "$commands" "$(sed -E 's/^ +kelctl ([a-z]+( [a-z]+)?).*/\1/' <<<"$synopsis")"
own=
while read -r name; do
    # shellcheck disable=SC2086 # two words of a name are two arguments
    listed=$("$kelctl" $name --help | help_options | grep -vxF -- "$everywhere")
    same "options of $name" "of $name"$'\n'"$listed" \
        "of $name"$'\n'"$(grep -E "^ +kelctl $name( |$)" <<<"$synopsis" | options)"
    own+=$'\n'$listed
done <<<"$commands"
same "options described" "-V"$'\n'"--version"$'\n'"$everywhere$own" "$described"

[ "$failures" -eq 0 ]
