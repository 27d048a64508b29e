#!/usr/bin/env bash
# Runs list_bench and prints what it means as ratios, in Markdown. Every pair is measured in one
# run, the repetitions of all benchmarks in random turn, and the medians of the processor time are
# compared.
# usage: bench/list.sh [PROGRAM]   (default: build/bench/bin/list_bench)
set -euo pipefail
project=$(cd "${BASH_SOURCE[0]%/*}/.." && pwd)
program=${1:-$project/build/bench/bin/list_bench}

"$program" --benchmark_repetitions=9 --benchmark_min_time=0.1 \
    --benchmark_enable_random_interleaving=true --benchmark_report_aggregates_only=true \
    --benchmark_format=csv 2>/dev/null |
    awk -F, '
        function unit(ns) {
            return ns < 1e3 ? sprintf("%.0f ns", ns) : ns < 1e6 ? sprintf("%.2f us", ns / 1e3) \
                 : sprintf("%.2f ms", ns / 1e6)
        }
        function row(what, a, b, goal) {
            if (!(a in median) || !(b in median)) {
                print "list.sh: no figure for " a " or " b > "/dev/stderr"
                missing = 1
                return
            }
            printf "| %s | %s | %s | %.2f | %s |\n", what, unit(median[a]), unit(median[b]),
                   median[a] / median[b], goal
        }
        { gsub(/"/, "", $1) }
        sub(/_median$/, "", $1) { median[$1] = $4 }
        END {
            print "| What | Measured | Against | Ratio | Goal |"
            print "|---|---:|---:|---:|---|"
            row("read 100,000 by position, against 10,000", "readList/100000", "readList/10000", "<= 15")
            row("read 50,000 by position, against 10,000", "readList/50000", "readList/10000", "")
            row("the same in an array of pointers: 100,000, against 10,000", "readArray/100000", "readArray/10000", "")
            row("read 100,000 by position, against the array of pointers", "readList/100000", "readArray/100000", "")
            row("search among 100,000, against std::lower_bound over pointers",
                "searchByPosition/100000", "searchLowerBound/100000", "<= 2")
            for (n = split("4 100 1000 10000 100000", sizes, " "); n > 0; n--)
                order[n] = sizes[n]
            for (n = 1; n <= 5; n++)
                row("insert and remove anywhere among " order[n] ", against the quarter walk",
                    "changeList/" order[n], "changeWalkList/" order[n], "<= 1")
            for (n = split("random sorted reversed equal", shapes, " "); n > 0; n--)
                order[n] = shapes[n]
            for (n = 1; n <= 4; n++)
                row("sort 100,000 names, " order[n] ", against std::sort over pointers",
                    "sortList/" order[n], "sortArray/" order[n], "report")
            exit missing
        }'
