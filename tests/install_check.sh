#!/usr/bin/env bash
# Installs the library into a temporary prefix and builds small consumers
# against it, once through the CMake package and once through pkg-config;
# the installed collctl runs from there as it is.
set -euo pipefail
build=$1
src=$2
version=$3
tools=${4:-0}
tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT
cmake --install "$build" --prefix "$tmp/prefix" >/dev/null
cmake -S "$src/tests/consumer" -B "$tmp/consumer" -G Ninja -DCMAKE_PREFIX_PATH="$tmp/prefix" >/dev/null
cmake --build "$tmp/consumer" >/dev/null
"$tmp/consumer/consumer_c"
"$tmp/consumer/consumer_cpp"
export PKG_CONFIG_PATH="$tmp/prefix/lib/pkgconfig"
cc $(pkg-config --cflags coll) "$src/tests/consumer/consumer.c" -o "$tmp/pc_consumer" $(pkg-config --libs coll) \
  -Wl,-rpath,"$tmp/prefix/lib"
"$tmp/pc_consumer"
grep -q "^License: MIT" "$PKG_CONFIG_PATH/coll.pc"
test -f "$tmp/prefix/share/licenses/coll/LICENSE"
if [ "$tools" = 1 ]; then
  test "$(env -u LD_LIBRARY_PATH "$tmp/prefix/bin/collctl" --version)" = "collctl $version"
  env -u LD_LIBRARY_PATH "$tmp/prefix/bin/collctl" check "$src/examples/sample.dump" >/dev/null
  test -f "$tmp/prefix/share/man/man1/collctl.1"
fi
