#!/usr/bin/env bash
# Holds the picture of the folders in docs/architecture.md against src/: each include goes where the
# picture allows it, each line drawn is a real one, and what a folder includes stands above it. No
# fixed path is spelt out beside paths.h and the bus's endpoints.
set -euo pipefail
cd "${BASH_SOURCE[0]%/*}/.."
# shellcheck disable=SC2016 # no expansion is meant
picture=$(sed -n '/^```includes$/,/^```$/{/^```/!p}' docs/architecture.md)

find src -name '*.h' -o -name '*.cpp' | sort | xargs grep -HoE '^#include ["<][^">]+' |
    sed -E 's,^src/([^:]*):#include .(.*),\1 \2,' |
    while read -r file included; do
        [ ! -f "src/$included" ] && [ ! -f "include/$included" ] || echo "$file $included"
    done | awk -v picture="$picture" '
    function wrong(text) { print "FAILED: " text; failed = 1 }
    function row(path) { while (!(path in place) && sub(/\/?[^\/]*$/, "", path) && path != "") {} return place[path] }
    BEGIN {
        rows = split(picture, lines, "\n")
        for (i = 1; i <= rows; ++i) {
            split(lines[i], sides, ":")
            for (n = split(sides[1], names, /[ +]+/); n > 0; --n) if (names[n] != "") place[names[n]] = i
            for (n = split(sides[2], targets, / +/); n > 0; --n) if (targets[n] != "") {
                if (!(targets[n] in place)) wrong(lines[i] ": " targets[n] " does not stand above")
                drawn[i, place[targets[n]]] = lines[i] ": " targets[n]
            }
        }
    }
    { from = row($1); to = row($2); ++includes }
    !from || !to || (from != to && !((from, to) in drawn)) { wrong($1 " includes " $2 ", which is not drawn") }
    { used[from, to] = 1 }
    END {
        for (edge in drawn) if (!(edge in used)) wrong("drawn, but not there: " drawn[edge])
        if (rows < 10 || includes < 100) wrong("no picture or no includes")
        exit failed
    }'
if grep -rnE '"(/[a-z]+)+[/"]' src include | grep -v '^src/paths\.h:\|^src/bus/endpoints\.h:'; then
    echo "FAILED: these paths belong into src/paths.h"
    exit 1
fi
