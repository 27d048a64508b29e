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

# check WHAT EXPECTED ACTUAL
check() {
    if [ "$2" = "$3" ]; then
        echo "ok: $1"
    else
        printf 'FAILED: %s\n  expected: %q\n  actual:   %q\n' "$1" "$2" "$3"
        failures=$((failures + 1))
    fi
}

# check_contains WHAT PART TEXT
check_contains() {
    case $3 in
        *"$2"*) echo "ok: $1" ;;
        *) check "$1" "...$2..." "$3" ;;
    esac
}

# status_of COMMAND...: its exit status; its output is in $work/output.
status_of() {
    "$@" >"$work/output" 2>&1 </dev/null
    echo $?
}

test_the_host_is_out_of_reach() {
    local root=$work/apart place
    touch "$work/on-the-host"
    check "a file of the host's /tmp is not there" 1 \
        "$(status_of "$device" "$root" test -e "$work/on-the-host")"
    "$device" "$root" sh -c 'for d in /etc /mnt /tmp; do echo mine >$d/written-inside; done'
    for place in etc mnt tmp; do
        check "/$place is the root's own" mine "$(cat "$root/$place/written-inside")"
        check "the host's /$place is untouched" no \
            "$([ -e "/$place/written-inside" ] && echo yes || echo no)"
    done
    for place in / /usr /var /var/log /proc/sys "$project"; do
        check "$place cannot be written" 1 \
            "$(status_of "$device" "$root" sh -c "(: >'$place/kelconf-written-inside')" |
                sed 's/^2$/1/')"
        check_contains "$place says why" "annot create" "$(cat "$work/output")"
    done
    check "only the loopback interface" lo \
        "$("$device" "$root" sed -n 's/^ *\([a-z0-9]*\):.*/\1/p' /proc/net/dev)"
    check "no processes but its own" "" \
        "$("$device" "$root" sh -c 'cat /proc/[0-9]*/comm' | grep -vxE 'bwrap|sh|cat')"
    check "no capabilities" 0000000000000000 \
        "$("$device" "$root" sed -n 's/^CapEff:\t//p' /proc/self/status)"
}

test_etc_is_made_from_nothing() {
    local root=$work/etc names
    names=$("$device" --no-trees "$root" ls /etc | grep -vxE 'localtime|alternatives|ld.so.cache')
    check "a few files in /etc" "group hosts nsswitch.conf passwd" "${names//$'\n'/ }"
    check "the user has a name" 0 "$(status_of "$device" --no-trees "$root" id -un)"
    "$device" "$root" true
    for tree in neutral_tree.xml ext_tree.xml; do
        check "$tree is the example's" 0 \
            "$(status_of cmp "$project/examples/$tree" "$root/etc/$tree")"
    done
    echo changed >"$root/etc/neutral_tree.xml"
    rm "$root/etc/ext_tree.xml"
    "$device" "$root" true
    check "a tree that is there stays" changed "$(cat "$root/etc/neutral_tree.xml")"
    check "and no other comes beside it" no "$([ -e "$root/etc/ext_tree.xml" ] && echo yes || echo no)"
}

test_status_and_arguments_pass_through() {
    local root=$work/status status
    for status in 0 1 2 7 125 255; do
        check "exit status $status" "$status" "$(status_of "$device" "$root" sh -c "exit $status")"
    done
    check "killed by SIGKILL" 137 "$(status_of "$device" "$root" sh -c 'kill -KILL $$')"
    check "no such command" 127 "$(status_of "$device" "$root" no-such-command)"
    check "arguments as given" "[a b][][*][{console}][--x]" \
        "$("$device" "$root" printf '[%s]' 'a b' '' '*' '{console}' --x)"
    check "input and output" "through" "$(echo through | "$device" "$root" cat)"
    check "the environment" "kept /tmp $build/bin" \
        "$(KEEP=kept TMPDIR=/nowhere "$device" "$root" sh -c 'echo "$KEEP $TMPDIR ${PATH%%:*}"')"
}

# Starts COMMAND in a root in the background and waits until it has printed "ready".
# The process id is in $started, its output in $work/started.
start() {
    mkfifo "$work/fifo"
    "$device" "$@" >"$work/fifo" &
    started=$!
    exec 3<"$work/fifo"
    rm "$work/fifo"
    read -r _ <&3
}

test_signals_reach_the_command() {
    local root=$work/signals signal started
    for signal in TERM HUP; do
        start "$root" sh -c "trap 'echo got $signal >/dev/console; exit 9' $signal
            echo ready; sleep 1000 & wait"
        kill -"$signal" "$started"
        wait "$started"
        check "the status after SIG$signal is the command's" 9 $?
        check "the command handled SIG$signal" "got $signal" "$(tail -n 1 "$root/log/console")"
    done
    start "$root" sh -c 'echo ready; exec sleep 1000'
    kill -TERM "$started"
    wait "$started"
    check "a command without a handler ends" 143 $?
}

test_nothing_survives_the_root() {
    local root=$work/survivors
    # The fifo is at its end only when its last writer has ended.
    start "$root" sh -c 'sleep 1000 & echo ready; sleep 1000'
    kill -KILL "$started"
    wait "$started" 2>/dev/null
    read -r -t 60 _ <&3
    check "the end of the wrapper is the end of all inside" 1 $?
}

test_logs_of_a_run_are_complete() {
    local root=$work/logs run
    for run in 1 2 3 4 5 6 7 8 9 10; do
        "$device" "$root" sh -c "logger -t t 'record $run'; printf 'line %s\n' $run >/dev/console"
    done
    check "ten runs, ten console lines" "$(printf 'line %s\n' 1 2 3 4 5 6 7 8 9 10)" \
        "$(cat "$root/log/console")"
    check "ten runs, ten syslog records" "$(printf 'record %s\n' 1 2 3 4 5 6 7 8 9 10)" \
        "$(sed 's/.* t: //' "$root/log/syslog")"
    check "the last bytes are not lost" 100000 \
        "$("$device" "$work/big" sh -c 'head -c 100000 /dev/zero >/dev/console' &&
            stat -c %s "$work/big/log/console")"
    check "no socket is left" "$(printf '%s\n' etc log mnt tmp)" "$(ls -A "$root")"
}

test_two_roots_side_by_side() {
    local first=$work/first second=$work/second
    start "$first" sh -c 'echo ready; while [ ! -e /tmp/go ]; do sleep 0.01; done
        echo first >/dev/console; cat /mnt/nand/conf/name'
    echo of-first >"$first/mnt/nand/conf/name"
    "$device" "$second" sh -c 'echo second >/dev/console; echo of-second >/mnt/nand/conf/name'
    touch "$first/tmp/go"
    check "the first root has its own files" of-first "$(cat <&3)"
    wait "$started"
    check "the first root's console" first "$(cat "$first/log/console")"
    check "the second root's console" second "$(cat "$second/log/console")"
}

test_a_small_and_a_read_only_nand() {
    local root=$work/nand
    check "a small file system fills up" 1 \
        "$(status_of "$device" --nand-size 65536 "$root" sh -c 'head -c 70000 /dev/zero >/mnt/nand/conf/x')"
    check_contains "with the right error" "No space left on device" "$(cat "$work/output")"
    check "it takes what fits" 0 "$(status_of "$device" --nand-size 65536 "$root" \
        sh -c 'head -c 60000 /dev/zero >/mnt/nand/conf/x && touch /mnt/backup/conf/y')"
    check "and leaves nothing behind" "" "$(ls "$root/mnt/nand/conf")"
    echo there >"$root/mnt/nand/conf/z"
    check "a read-only flash can be read" there "$("$device" --nand-ro "$root" cat /mnt/nand/conf/z)"
    check "but not written" 1 "$(status_of "$device" --nand-ro "$root" touch /mnt/nand/conf/new)"
    check_contains "with the right error" "Read-only file system" "$(cat "$work/output")"
    check "the backup beside it can" 0 \
        "$(status_of "$device" --nand-ro "$root" touch /mnt/backup/conf/new)"
}

test_paths_of_any_shape() {
    local deep
    deep=$work/$(printf 'a-rather-long-name-%s/' 1 2 3 4 5 6 7 8)
    check "a root with a long path" 0 "$(status_of "$device" "$deep" logger x)"
    check "a root with a blank in its path" 0 "$(status_of "$device" "$work/a b" logger x)"
    (cd "$work" && "$device" relative sh -c 'echo here >/tmp/x')
    check "a relative root" here "$(cat "$work/relative/tmp/x")"
    mkdir -p "$work/elsewhere"/{bin,libexec}
    cp "$build/libexec/device-sinks" "$work/elsewhere/libexec"
    printf '#!/bin/sh\necho found\n' >"$work/elsewhere/bin/a-program"
    chmod 755 "$work/elsewhere/bin/a-program"
    check "a build below /tmp is visible" found \
        "$(KELCONF_BUILD=$work/elsewhere "$device" "$work/r" a-program)"
}

test_refusals_name_the_cure() {
    local tools=$work/tools
    mkdir "$tools"
    printf '#!/bin/sh\necho "bwrap: No permissions to create a new namespace" >&2\nexit 1\n' >"$tools/bwrap"
    chmod 755 "$tools/bwrap"
    check "namespaces denied" 125 "$(PATH=$tools:$PATH status_of "$device" "$work/r" true)"
    check_contains "with the cure" "sysctl" "$(cat "$work/output")"
    check "bubblewrap missing" 125 "$(PATH=/nowhere status_of /bin/bash "$device" "$work/r" true)"
    check_contains "with the cure" "apt-get install bubblewrap" "$(cat "$work/output")"
    check "no build" 125 "$(KELCONF_BUILD=/nowhere status_of "$device" "$work/r" true)"
    check_contains "with the cure" "cmake --build" "$(cat "$work/output")"
    check "an unknown option" 2 "$(status_of "$device" --frobnicate "$work/r" true)"
    check_contains "is named" "--frobnicate" "$(cat "$work/output")"
    check "no DIR" 2 "$(status_of "$device")"
    check "a size that is none" 2 "$(status_of "$device" --nand-size big "$work/r" true)"
    check "a size without a DIR" 2 "$(status_of "$device" --nand-size)"
    check "help" 0 "$(status_of "$device" --help)"
    check "wrong use of the sinks" 2 "$(status_of "$build/libexec/device-sinks" a b c d)"
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
    as+=(env -u KELCONF_BUILD)
    if (cd / && "${as[@]}" bwrap --ro-bind / / --dev /dev --proc /proc --unshare-pid true) 2>/dev/null; then
        check "an ordinary user's root" 0 "$(cd / && status_of "${as[@]}" "$copy/scripts/device" \
            "$work/of-user/r" sh -c 'echo mine >/mnt/nand/conf/x && echo c >/dev/console && logger s')"
        check "its files" mine "$(cat "$work/of-user/r/mnt/nand/conf/x")"
        check "its console" c "$(cat "$work/of-user/r/log/console")"
    else
        echo "an ordinary user may not make a root here: the refusal is what is tested"
        check "an ordinary user is refused" 125 "$(cd / &&
            status_of "${as[@]}" "$copy/scripts/device" "$work/of-user/r" true)"
        check_contains "with the cure" "sysctl" "$(cat "$work/output")"
    fi
}

test_in_device_cleans_up() {
    local in_device=$project/tests/in_device kept
    mkdir "$work/tmp"
    check "a command that succeeds" 0 "$(TMPDIR=$work/tmp status_of "$in_device" touch /mnt/x)"
    check "leaves no root" "" "$(ls "$work/tmp")"
    check "one that fails gives its status" 3 "$(TMPDIR=$work/tmp status_of "$in_device" \
        --nand-size 8192 sh -c 'test ! -e /etc/neutral_tree.xml && echo clue >/dev/console && exit 3')"
    kept=$(cat "$work/output")
    check_contains "and the end of its log" clue "$kept"
    check_contains "and where its root is" "$work/tmp/" "$kept"
    check "nothing to run" 2 "$(status_of "$in_device")"
}

for test in $(compgen -A function test_); do
    echo "== $test"
    "$test"
done
[ "$failures" -eq 0 ] || { echo "$failures checks failed" && exit 1; }
