#!/usr/bin/env bash
# What somebody new sees of the scripts: refusals before any harm, and no noise.
set -euo pipefail
project=$(cd "${BASH_SOURCE[0]%/*}/../.." && pwd -P)
work=$(mktemp -d "${TMPDIR:-/tmp}/kelconf-scripts.XXXXXX")
trap 'rm -rf -- "$work"' EXIT
failed=0

# expect WHAT TEXT OUTPUT: the output holds the text; "!TEXT": it does not.
expect() {
    case $2 in
        !*) [[ $3 != *"${2#!}"* ]] ;;
        *) [[ $3 == *"$2"* ]] ;;
    esac || { failed=1 && printf 'FAILED: %s: "%s" in\n%s\n' "$1" "$2" "$3"; }
}

# An open device keeps its files.
mkfifo "$work/hold"
"$project/scripts/device" "$work/d" sh -c "echo open && read -r _" <"$work/hold" >"$work/said" &
device=$!
exec {hold}>"$work/hold"
until [ -s "$work/said" ]; do sleep 0.01; done
expect "run beside an open device" "is in use by process" "$("$project/scripts/run" "$work/d" 2>&1 || true)"
expect "the files of it" neutral_tree.xml "$(ls "$work/d/etc")"
echo >&"$hold"
wait "$device"

# A shell is told whether it has a service.
told() { SHELL=/bin/true "$project/scripts/device" "$work/d" 2>&1; }
expect "a shell without a service" "no service runs here yet" "$(told)"
mkdir "$work/d/tmp/kelbus"
exec {lock}>"$work/d/tmp/kelbus/kelconfd.lock"
flock -x "$lock"
expect "a shell beside a service" "!no service" "$(told)"

# The cure that is named fits what bubblewrap said.
cure() {
    mkdir -p "$work/bin"
    printf '#!/bin/sh\necho "%s" >&2\nexit 1\n' "$1" >"$work/bin/bwrap"
    chmod 755 "$work/bin/bwrap"
    PATH=$work/bin:$PATH bash -c ". '$project/scripts/common.sh' && check_roots" 2>&1 || true
}
expect "in a chroot" "mount --rbind" "$(cure "bwrap: Failed to make / slave: Invalid argument")"
expect "in a chroot" "!sysctl" "$(cure "bwrap: Failed to make / slave: Invalid argument")"
expect "without user namespaces" "sysctl" "$(cure "bwrap: No permissions to create a new namespace")"
exit $failed
