#!/usr/bin/env bash
# Tests scripts/device from outside: what a root keeps apart, passes through and refuses.
# KELCONF_BUILD names the build directory, as for scripts/device.
# shellcheck disable=SC2016 # what stands in single quotes is for the shell in the root
set -uo pipefail
project=$(cd "${BASH_SOURCE[0]%/*}/../.." && pwd -P)
export KELCONF_BUILD=${KELCONF_BUILD:-$project/build/release}
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

# Starts SCRIPT in the root and waits until it has printed "ready". Its process is $started, its
# further output descriptor 3.
start() {
    exec 3< <(exec "$device" "$root" sh -c "$1")
    started=$!
    read -r _ <&3
}

test_what_is_kept_apart() {
    touch "$work/on-the-host"
    in_root '1: ' "test -e '$work/on-the-host'"
    in_root '0: ' 'for place in etc mnt tmp; do echo mine >/$place/written-inside; done'
    check "the root's own" "mine mine mine" "$(cat "$root"/{etc,mnt,tmp}/written-inside | paste -sd ' ')"
    check "the host's" "" "$(ls /{etc,mnt,tmp}/written-inside 2>/dev/null)"
    for place in / /usr /var/log /proc/sys "$project"; do
        in_root '[12]: *annot create*' ": >'$place/kelconf-written-inside'"
    done
    in_root '0: lo' 'sed -n "s/^ *\([a-z0-9]*\):.*/\1/p" /proc/net/dev'
    in_root '1: ' 'cat /proc/[0-9]*/comm | grep -vxE "bwrap|sh|cat|grep"'
    in_root '0: 0000000000000000' 'sed -n "s/^CapEff:\t//p" /proc/self/status'
    in_root '0: ext_tree.xml group hosts neutral_tree.xml nsswitch.conf passwd' \
        'ls /etc | grep -vxE "written-inside|localtime|alternatives|ld.so.cache" && id -un >/dev/null'
    echo changed >"$root/etc/neutral_tree.xml"
    in_root '0: changed' 'cat /etc/neutral_tree.xml'
    run '1: ' "$device" --no-trees "$root-bare" test -e /etc/neutral_tree.xml
}

test_what_passes_through() {
    in_root '7: ' 'exit 7'
    in_root '137: ' 'kill -KILL $$'
    run '127: *' "$device" "$root" no-such-command
    run '0: \[a b]\[]\[\*]\[{console}]\[--x]' "$device" "$root" printf '[%s]' 'a b' '' '*' '{console}' --x
    check "input and output" through "$(echo through | "$device" "$root" cat)"
    KEEP=kept TMPDIR=/nowhere in_root "0: kept /tmp $KELCONF_BUILD/bin" 'echo "$KEEP $TMPDIR ${PATH%%:*}"'
    for signal in TERM HUP; do
        start "trap 'echo got $signal >/dev/console; exit 9' $signal; echo ready; sleep 1000 & wait"
        kill -"$signal" "$started"
        wait "$started"
        check "SIG$signal" "9 got $signal" "$? $(tail -n 1 "$root/log/console")"
    done
    start 'sleep 1000 & echo ready; sleep 1000'
    kill -KILL "$started"
    read -r -t 60 _ <&3 # its end comes when the last writer has ended
    check "the end of the wrapper is the end of all inside" 1 $?
}

test_logs_of_roots_side_by_side() {
    for run in 1 2 3; do
        in_root '0: ' "logger -t t 'record $run'; printf 'line %s\n' $run >/dev/console"
    done
    check "logs" "line 1 line 2 line 3 record 1 record 2 record 3" \
        "$(sed 's/.* t: //' "$root/log/console" "$root/log/syslog" | paste -sd ' ')"
    check "no socket is left" 'etc log mnt tmp .[[]*' "$(cd "$root" && echo * .[!.]*)"
    local first=$root-first
    root=$first start 'echo ready; while [ ! -e /tmp/go ]; do sleep 0.01; done
        cat /mnt/nand/conf/name; head -c 1000 /dev/zero >/dev/console'
    echo of-first >"$first/mnt/nand/conf/name"
    in_root '0: ' 'echo of-second >/mnt/nand/conf/name'
    kill -STOP "$started" # the recorder sees the last bytes and the end at once
    touch "$first/tmp/go"
    until [[ $(ps -o stat= --ppid "$started") == Z* ]]; do sleep 0.01; done
    kill -CONT "$started"
    check "files" of-first "$(cat <&3)"
    wait "$started"
    check "the last bytes are not lost" 1000 "$(stat -c %s "$first/log/console")"
    run '0: ' "$device" "$work/$(printf 'a rather long name %s/' 1 2 3 4 5 6 7 8)" logger x
    (cd "$work" && "$device" relative sh -c 'echo here >/tmp/x')
    check "a relative root" here "$(cat "$work/relative/tmp/x")"
}

test_a_small_and_a_read_only_nand() {
    run '1: *No space left on device' "$device" --nand-size 65536 "$root" sh -c \
        'head -c 60000 /dev/zero >/mnt/nand/conf/x && touch /mnt/backup/conf/y &&
            head -c 70000 /dev/zero >/mnt/nand/conf/x'
    check "it leaves nothing behind" "" "$(ls "$root/mnt/nand/conf")"
    echo there >"$root/mnt/nand/conf/z"
    run '1: there *Read-only file system' "$device" --nand-ro "$root" \
        sh -c 'cat /mnt/nand/conf/z; touch /mnt/backup/conf/new /mnt/nand/conf/new'
}

test_refusals_name_the_cure() {
    mkdir "$work/tools" "$work/tmp"
    printf '#!/bin/sh\necho "bwrap: No permissions to create a new namespace" >&2\nexit 1\n' >"$work/tools/bwrap"
    chmod 755 "$work/tools/bwrap"
    PATH=$work/tools:$PATH run '125: *sysctl*' "$device" "$root" true
    PATH=/nowhere run '125: *apt-get install bubblewrap*' /bin/bash "$device" "$root" true
    KELCONF_BUILD=/nowhere run '125: *cmake --build*' "$device" "$root" true
    run '2: *--frobnicate*' "$device" --frobnicate "$root" true
    run '2: *' "$device" --nand-size big "$root" true
    run '0: usage*' "$device" --help
    TMPDIR=$work/tmp run '0: ' "$project/tests/in_device" touch /mnt/x
    check "no root is left" "" "$(ls "$work/tmp")"
    TMPDIR=$work/tmp run "3: *$work/tmp/*clue*" "$project/tests/in_device" --nand-size 8192 \
        sh -c 'test ! -e /etc/neutral_tree.xml && echo clue >/dev/console && exit 3'
}

# Where the tests run as root: nobody, with a copy of the script.
test_an_ordinary_user() {
    [ "$EUID" -eq 0 ] || return
    install -D -t "$work/copy/scripts" "$device"
    install -D -t "$work/copy/build/release/libexec" "$KELCONF_BUILD/libexec/device-sinks"
    install -d -o nobody "$work/of-user"
    chmod -R a+rX "$work/copy"
    cd / || return
    local as=(setpriv --reuid nobody --regid nogroup --clear-groups env -u KELCONF_BUILD) expected='0: mine c'
    "${as[@]}" bwrap --ro-bind / / --dev /dev --proc /proc --unshare-pid true 2>/dev/null || expected='125: *sysctl*'
    run "$expected" "${as[@]}" "$work/copy/scripts/device" "$work/of-user/r" sh -c 'echo mine >/mnt/nand/conf/x &&
        echo c >/dev/console && logger s && cat /mnt/nand/conf/x && while ! cat /var/log/console | grep c; do :; done'
}

for test in $(compgen -A function test_); do
    echo "== $test"
    root=$work/$test
    "$test"
done
[ "$failures" -eq 0 ] || { echo "$failures checks failed" && exit 1; }
