#!/usr/bin/env bash
# Cross-builds coll.dll for 64-bit and 32-bit Windows with mingw-w64, checks
# the export tables of both, and runs the test suite and the example program
# under wine64 (headless, in a throw-away wine prefix).
#
#   tools/win32-check.sh [build-dir-prefix]      (default: build-win)
#
# Installs mingw-w64 and wine64 (Debian packages) when they are missing
# (through tools/deps.sh).
set -euo pipefail
cd "$(dirname "$0")/.."
src=$PWD
out=${1:-build-win}
export TZ=UTC

tools/deps.sh --win32

wine=/usr/lib/wine/wine64
wineserver=/usr/lib/wine/wineserver
export WINEDEBUG=-all
WINEPREFIX=$(mktemp -d /tmp/coll-wine.XXXXXX)
export WINEPREFIX
cleanup() {
  "$wineserver" -k >/dev/null 2>&1 || true
  rm -rf "$WINEPREFIX"
}
trap cleanup EXIT

# One wine server for the whole run, with its services started before any
# test: services started by a test would hold the test's output open.
echo "== wine prefix $WINEPREFIX"
"$wineserver" -p </dev/null >/dev/null 2>&1
"$wine" wineboot -i </dev/null >/dev/null 2>&1
"$wine" cmd /c exit </dev/null >/dev/null 2>&1 || true

echo "== 32-bit coll.dll"
cmake -S "$src" -B "$out-i686" -G Ninja -DCMAKE_TOOLCHAIN_FILE="$src/cmake/mingw-i686.cmake" \
  -DCOLL_TESTS=OFF -DCOLL_EXAMPLES=OFF -DCOLL_BENCH=OFF -DCOLL_TOOLS=OFF >/dev/null
cmake --build "$out-i686"
status=0
cmake -DOBJDUMP=i686-w64-mingw32-objdump -DDLL="$out-i686/coll.dll" -DHEADERS="$src/include" -DBITS=32 \
  -P "$src/tests/check_dll_exports.cmake" || status=1

echo "== 64-bit coll.dll and the tests"
cmake -S "$src" -B "$out-x86_64" -G Ninja -DCMAKE_TOOLCHAIN_FILE="$src/cmake/mingw-x86_64.cmake" -DCOLL_BENCH=OFF -DCOLL_TOOLS=OFF >/dev/null
cmake --build "$out-x86_64"

echo "== the example against coll.dll"
cp "$out-x86_64/coll.dll" "$out-x86_64/examples/"
"$wine" "$out-x86_64/examples/coll_example.exe" </dev/null | tr -d '\r'

# One at a time: they share the clipboard. A test that fails is run once more:
# now and then wine fails to start a program at all (no output, 20 ms).
echo "== the tests under wine"
ctest --test-dir "$out-x86_64" --output-on-failure -j1 --timeout 120 --repeat until-pass:2 || status=1
exit $status
