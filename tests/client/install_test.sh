#!/usr/bin/env bash
# Installs the library into a directory of its own and builds the examples against it, as a user
# would: with pkg-config, shared and static, and with CMake. KELCONF_BUILD names the build directory.
set -euo pipefail
project=$(cd "${BASH_SOURCE[0]%/*}/../.." && pwd -P)
build=${KELCONF_BUILD:-$project/build/release}
work=$(mktemp -d "${TMPDIR:-/tmp}/kelbus-install.XXXXXX")
trap 'rm -rf -- "$work"' EXIT
prefix=$work/usr

# Moved after its installation: both packages find their own place.
cmake --install "$build" --prefix "$work/first" >"$work/log"
mv "$work/first" "$prefix"
pc=$(find "$prefix" -name kelbus.pc)
export PKG_CONFIG_PATH=${pc%/*}
flags() { pkg-config "$@" kelbus; }

# shellcheck disable=SC2046 # words
{
    cc -std=c11 -Wall -Wextra -Wpedantic -Werror "$project/examples/get_set.c" -o "$work/shared" \
        $(flags --cflags --libs)
    g++ -std=c++20 "$project/examples/watch.cpp" -o "$work/watch" $(flags --cflags --libs)
    cc -std=c11 -Wall -Wextra -Wpedantic -Werror "$project/examples/set_checked.c" -o "$work/checked" \
        $(flags --cflags --libs) $(pkg-config --cflags --libs kelbus-catalog)
    cc -std=c11 "$project/examples/get_set.c" -o "$work/static" $(flags --cflags) \
        "$(find "$prefix" -name libkelbus.a)" $(pkg-config --libs libzmq libxml-2.0) -lstdc++ -pthread
}
cmake -S "$project/examples" -B "$work/build" -DCMAKE_PREFIX_PATH="$prefix" >>"$work/log"
cmake --build "$work/build" >>"$work/log"

lib=$(dirname "$(find "$prefix" -name libkelbus.so)")
for program in "$work/shared" "$work/static" "$work/checked" "$work/build/kelbus-get-set"; do
    said=$(LD_LIBRARY_PATH=$lib "$program" no.such 1 2>&1) && exit 1
    case $said in
        get_set:* | set_checked:*) echo "ok: ${program##*/}: $said" ;;
        *) echo "FAILED: $program: $said" && exit 1 ;;
    esac
done
foreign=$(nm -D --defined-only "$lib"/libkelbus*.so | grep -v ' kelbus_\| KELBUS_\|^$\|:$' || true)
ldd "$lib/libkelbus.so" | grep sqlite && foreign="SQLite behind libkelbus"
[ -z "$foreign" ] || { echo "FAILED: symbols that are not ours: $foreign"; exit 1; }

# What programs are linked against today stays under the version that they know.
versions=$(nm -D --defined-only --with-symbol-versions "$lib/libkelbus.so")
for symbol in kelbus_get@@KELBUS_1 kelbus_watch_open@@KELBUS_1 kelbus_list@@KELBUS_1.1; do
    grep -q " $symbol\$" <<<"$versions" || { echo "FAILED: no symbol $symbol"; exit 1; }
done
# The module finds the library that it was installed with.
module=$(find "$prefix" -name kelbus -path '*-packages/*')
PYTHONDONTWRITEBYTECODE=1 PYTHONPATH=${module%/*} python3 -c '
import kelbus
try: kelbus.Client().get("no.such"), exit("FAILED: python")
except kelbus.NoService as error: print("ok: python:", kelbus.__version__, error)
try: kelbus.Catalog().find("no.such"), exit("FAILED: python")
except kelbus.NoCatalog as error: print("ok: python:", error)'
