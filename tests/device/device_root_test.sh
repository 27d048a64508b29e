#!/usr/bin/env bash
# Tests scripts/device from outside: what a root keeps apart, passes through and refuses.
# KELCONF_BUILD names the build directory, as for scripts/device.
# shellcheck disable=SC2016 # what stands in single quotes is for the shell in the root
set -uo pipefail

project=$(cd "${BASH_SOURCE[0]%/*}/../.." && pwd -P)
build=${KELCONF_BUILD:-$project/build/release}
export KELCONF_BUILD=$build
device=$project/scripts/device
work=$(mktemp -d "${TMPDIR:-/tmp}/kelconf-root-test.XXXXXX")
trap 'rm -rf -- "$work"' EXIT
chmod 755 "$work"
failures=0

# check WHAT PATTERN ACTUAL
check() {
    # shellcheck disable=SC2053 # a pattern
    [[ $3 == $2 ]] && return
    printf 'FAILED: %s\n  expected: %s\n  actual:   %s\n' "$1" "$2" "$3"
    failures=$((failures + 1))
}

# run PATTERN COMMAND...: its exit status and its output, on one line, are held against the pattern.
run() {
    local pattern=$1 output
    shift
    output=$("$@" 2>&1 </dev/null)
    check "$*" "$pattern" "$?: ${output//$'\n'/ }"
}

# in_root PATTERN SCRIPT: the same for a script in the root.
in_root() {
    run "$1" "$device" "$root" sh -c "$2"
}

# Starts SCRIPT in a root in the background and waits until it has printed "ready". Its process
# is $started, its further output descriptor 3.
start() {
    mkfifo "$work/fifo"
    "$device" "$root" sh -c "$1" >"$work/fifo" &
    started=$!
    exec 3<"$work/fifo"
    rm "$work/fifo"
    read -r _ <&3
}

test_the_host_is_out_of_reach() {
    local place
    touch "$work/on-the-host"
    in_root '1: ' "test -e '$work/on-the-host'"
    for place in etc mnt tmp; do
        in_root '0: ' "echo mine >/$place/written-inside"
        check "/$place is the root's own" mine "$(cat "$root/$place/written-inside")"
        check "the host's /$place" no "$([ -e "/$place/written-inside" ] && echo yes || echo no)"
    done
    for place in / /usr /var /var/log /proc/sys "$project"; do
        in_root '[12]: *annot create*' ": >'$place/kelconf-written-inside'"
    done
    in_root '0: lo' 'sed -n "s/^ *\([a-z0-9]*\):.*/\1/p" /proc/net/dev'
    in_root '1: ' 'cat /proc/[0-9]*/comm | grep -vxE "bwrap|sh|cat|grep"'
    in_root '0: 0000000000000000' 'sed -n "s/^CapEff:\t//p" /proc/self/status'
}

test_etc_is_made_from_nothing() {
    in_root '0: ext_tree.xml group hosts neutral_tree.xml nsswitch.conf passwd' \
        'ls /etc | grep -vxE "localtime|alternatives|ld.so.cache" && id -un >/dev/null'
    run '0: ' cmp "$project/examples/ext_tree.xml" "$root/etc/ext_tree.xml"
    echo changed >"$root/etc/neutral_tree.xml"
    rm "$root/etc/ext_tree.xml"
    in_root '1: changed' 'cat /etc/neutral_tree.xml && test -e /etc/ext_tree.xml'
    run '1: ' "$device" --no-trees "$root-bare" test -e /etc/neutral_tree.xml
}

test_status_arguments_and_signals_pass_through() {
    in_root '7: ' 'exit 7'
    in_root '137: ' 'kill -KILL $$'
    run '127: *' "$device" "$root" no-such-command
    run '0: \[a b]\[]\[\*]\[{console}]\[--x]' "$device" "$root" printf '[%s]' 'a b' '' '*' '{console}' --x
    check "input and output" through "$(echo through | "$device" "$root" cat)"
    KEEP=kept TMPDIR=/nowhere in_root "0: kept /tmp $build/bin" 'echo "$KEEP $TMPDIR ${PATH%%:*}"'
    local signal
    for signal in TERM HUP; do
        start "trap 'echo got $signal >/dev/console; exit 9' $signal; echo ready; sleep 1000 & wait"
        kill -"$signal" "$started"
        wait "$started"
        check "the status after SIG$signal" 9 $?
        check "the command handled it" "got $signal" "$(tail -n 1 "$root/log/console")"
    done
    # The fifo is at its end only when its last writer has ended.
    start 'sleep 1000 & echo ready; sleep 1000'
    kill -KILL "$started"
    wait "$started" 2>/dev/null
    read -r -t 60 _ <&3
    check "the end of the wrapper is the end of all inside" 1 $?
}

test_logs_of_runs_side_by_side_are_complete() {
    local first=$root-first run
    for run in 1 2 3 4 5 6 7 8 9 10; do
        in_root '0: ' "logger -t t 'record $run'; printf 'line %s\n' $run >/dev/console"
    done
    check "ten console lines" "$(printf 'line %s\n' 1 2 3 4 5 6 7 8 9 10)" "$(cat "$root/log/console")"
    check "ten syslog records" "$(printf 'record %s\n' 1 2 3 4 5 6 7 8 9 10)" \
        "$(sed 's/.* t: //' "$root/log/syslog")"
    check "no socket is left" 'etc log mnt tmp .[[]*' "$(cd "$root" && echo * .[!.]*)"
    root=$first start 'echo ready; while [ ! -e /tmp/go ]; do sleep 0.01; done
        head -c 100000 /dev/zero >/dev/console; cat /mnt/nand/conf/name'
    echo of-first >"$first/mnt/nand/conf/name"
    in_root '0: ' 'echo of-second >/mnt/nand/conf/name'
    touch "$first/tmp/go"
    check "each root has its own files" of-first "$(cat <&3)"
    wait "$started"
    check "the last bytes are not lost" 100000 "$(stat -c %s "$first/log/console")"
}

test_a_small_and_a_read_only_nand() {
    run '1: *No space left on device' "$device" --nand-size 65536 "$root" \
        sh -c 'head -c 70000 /dev/zero >/mnt/nand/conf/x'
    run '0: ' "$device" --nand-size 65536 "$root" \
        sh -c 'head -c 60000 /dev/zero >/mnt/nand/conf/x && touch /mnt/backup/conf/y'
    check "it leaves nothing behind" "" "$(ls "$root/mnt/nand/conf")"
    echo there >"$root/mnt/nand/conf/z"
    run '1: there *Read-only file system' "$device" --nand-ro "$root" \
        sh -c 'cat /mnt/nand/conf/z; touch /mnt/backup/conf/new /mnt/nand/conf/new'
}

test_paths_of_any_shape() {
    run '0: ' "$device" "$work/$(printf 'a-rather-long-name-%s/' 1 2 3 4 5 6 7 8)" logger x
    run '0: ' "$device" "$work/a b" logger x
    (cd "$work" && "$device" relative sh -c 'echo here >/tmp/x')
    check "a relative root" here "$(cat "$work/relative/tmp/x")"
    mkdir -p "$work/elsewhere"/{bin,libexec}
    cp "$build/libexec/device-sinks" "$work/elsewhere/libexec"
    printf '#!/bin/sh\necho found\n' >"$work/elsewhere/bin/a-program"
    chmod 755 "$work/elsewhere/bin/a-program"
    KELCONF_BUILD=$work/elsewhere run '0: found' "$device" "$root" a-program
}

test_refusals_name_the_cure() {
    mkdir "$work/tools"
    printf '#!/bin/sh\necho "bwrap: No permissions to create a new namespace" >&2\nexit 1\n' >"$work/tools/bwrap"
    chmod 755 "$work/tools/bwrap"
    PATH=$work/tools:$PATH run '125: *sysctl*' "$device" "$root" true
    PATH=/nowhere run '125: *apt-get install bubblewrap*' /bin/bash "$device" "$root" true
    KELCONF_BUILD=/nowhere run '125: *cmake --build*' "$device" "$root" true
    run '2: *--frobnicate*' "$device" --frobnicate "$root" true
    run '2: *' "$device"
    run '2: *' "$device" --nand-size big "$root" true
    run '2: *' "$device" --nand-size
    run '0: usage*' "$device" --help
    run '2: *' "$build/libexec/device-sinks" a b c d
}

# As an ordinary user; where the tests run as root, as nobody with a copy of the script.
test_an_ordinary_user() {
    local copy=$work/copy as=()
    mkdir -p "$copy/scripts" "$copy/build/release/libexec" "$work/of-user"
    cp "$device" "$copy/scripts"
    cp "$build/libexec/device-sinks" "$copy/build/release/libexec"
    chmod -R a+rX "$copy"
    if [ "$EUID" -eq 0 ]; then
        chown nobody "$work/of-user"
        as=(setpriv --reuid nobody --regid nogroup --clear-groups)
    fi
    cd / || return
    as+=(env -u KELCONF_BUILD)
    if "${as[@]}" bwrap --ro-bind / / --dev /dev --proc /proc --unshare-pid true 2>/dev/null; then
        run '0: ' "${as[@]}" "$copy/scripts/device" "$work/of-user/r" \
            sh -c 'echo mine >/mnt/nand/conf/x && echo c >/dev/console && logger s'
        check "its file and its console" "mine c" \
            "$(cat "$work/of-user/r"/{mnt/nand/conf/x,log/console} | paste -sd ' ')"
    else
        echo "an ordinary user may not make a root here: the refusal is what is tested"
        run '125: *sysctl*' "${as[@]}" "$copy/scripts/device" "$work/of-user/r" true
    fi
}

test_in_device_cleans_up() {
    local in_device=$project/tests/in_device
    mkdir "$work/tmp"
    TMPDIR=$work/tmp run '0: ' "$in_device" touch /mnt/x
    check "leaves no root" "" "$(ls "$work/tmp")"
    TMPDIR=$work/tmp run "3: *$work/tmp/*clue*" "$in_device" --nand-size 8192 \
        sh -c 'test ! -e /etc/neutral_tree.xml && echo clue >/dev/console && exit 3'
    run '2: *' "$in_device"
}

for test in $(compgen -A function test_); do
    echo "== $test"
    root=$work/$test
    "$test"
done
[ "$failures" -eq 0 ] || { echo "$failures checks failed" && exit 1; }
