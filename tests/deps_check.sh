#!/bin/sh
# tools/deps.sh against fake roots: it names exactly the packages whose files
# are missing, is silent when nothing is, and (not root) prints the line to
# run and fails.
set -eu
deps=$1/tools/deps.sh
tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT
fail() { echo "FAIL: $*" >&2; exit 1; }

mkdir -p "$tmp/usr/bin" "$tmp/usr/include/gtest" "$tmp/usr/include/CLI"
for c in cmake ninja g++ pkg-config python3; do touch "$tmp/usr/bin/$c" && chmod +x "$tmp/usr/bin/$c"; done
touch "$tmp/usr/include/gtest/gtest.h" "$tmp/usr/include/sqlite3.h" "$tmp/usr/include/CLI/CLI.hpp"
out=$(COLL_DEPS_ROOT=$tmp COLL_DEPS_DRY_RUN=1 "$deps")
[ "$out" = "apt-get install -y libbenchmark-dev nlohmann-json3-dev" ] || fail "partial root: $out"
out=$(COLL_DEPS_ROOT=$tmp COLL_DEPS_DRY_RUN=1 "$deps" --fuzz)
[ "$out" = "apt-get install -y libbenchmark-dev nlohmann-json3-dev clang" ] || fail "--fuzz: $out"

mkdir -p "$tmp/usr/include/benchmark" "$tmp/usr/include/nlohmann"
touch "$tmp/usr/include/benchmark/benchmark.h" "$tmp/usr/include/nlohmann/json.hpp"
out=$(COLL_DEPS_ROOT=$tmp COLL_DEPS_DRY_RUN=1 "$deps")
[ -z "$out" ] || fail "full root: $out"

# Not root (as root: as nobody, when runuser can do that).
user=""
if [ "$(id -u)" = 0 ]; then
  command -v runuser >/dev/null 2>&1 || { echo "deps.sh checks passed (not as root: no runuser)"; exit 0; }
  user="runuser -u nobody --"
fi
rm "$tmp/usr/bin/ninja"
chmod -R a+rX "$tmp"
cp "$deps" "$tmp/deps.sh" && chmod a+rx "$tmp/deps.sh"
if $user env COLL_DEPS_ROOT="$tmp" sh "$tmp/deps.sh" 2>"$tmp/err"; then fail "not root: exit 0"; fi
grep -q "missing: ninja-build" "$tmp/err" || fail "not root: $(cat "$tmp/err")"
if command -v apt-get >/dev/null 2>&1; then
  grep -q "sudo apt-get install -y ninja-build" "$tmp/err" || fail "not root: $(cat "$tmp/err")"
fi
echo "deps.sh checks passed"
