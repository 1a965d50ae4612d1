#!/usr/bin/env bash
# Installs the library into a temporary prefix and builds small consumers
# against it, once through the CMake package and once through pkg-config.
set -euo pipefail
build=$1
src=$2
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
