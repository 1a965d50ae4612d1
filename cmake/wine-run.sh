#!/bin/sh
# Runs a Windows program under wine64 for CTest. Its output goes through a
# file: processes that wine starts on the side (the desktop, services) would
# otherwise hold CTest's pipe open long after the program has ended.
out=$(mktemp) || exit 1
/usr/lib/wine/wine64 "$@" >"$out" 2>&1 </dev/null
rc=$?
tr -d '\r' <"$out"
rm -f "$out"
exit $rc
