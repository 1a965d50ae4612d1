#!/bin/sh
# Installs the Debian packages that building and testing libcoll need and
# that this machine lacks; does nothing (quickly) when nothing is missing.
#
#   tools/deps.sh            the build, the tests, collctl and the benchmarks
#   tools/deps.sh --fuzz     and clang, for the fuzz targets
#   tools/deps.sh --win32    and mingw-w64 and wine, for tools/win32-check.sh
#
# As root it runs apt-get; otherwise it prints the apt-get line to run and
# exits 1. COLL_DEPS_ROOT=DIR looks for everything under DIR instead of /
# and COLL_DEPS_DRY_RUN=1 prints the apt-get command instead of running it
# (both for testing this script).
set -eu

root=${COLL_DEPS_ROOT:-}
missing=""

# need PACKAGE FILE...: PACKAGE is missing unless one of the files exists.
# A bare command name is looked up in the PATH (under a test root: usr/bin).
need() {
  package=$1
  shift
  for f in "$@"; do
    case $f in
      /*) [ -e "$root$f" ] && return 0 ;;
      *)
        if [ -n "$root" ]; then
          [ -x "$root/usr/bin/$f" ] && return 0
        else
          command -v "$f" >/dev/null 2>&1 && return 0
        fi
        ;;
    esac
  done
  case " $missing " in *" $package "*) ;; *) missing="$missing $package" ;; esac
}

need cmake cmake
need ninja-build ninja
need g++ g++
need pkg-config pkg-config
need libgtest-dev /usr/include/gtest/gtest.h
need libbenchmark-dev /usr/include/benchmark/benchmark.h
need libsqlite3-dev /usr/include/sqlite3.h
need libcli11-dev /usr/include/CLI/CLI.hpp
need nlohmann-json3-dev /usr/include/nlohmann/json.hpp
need python3 python3

for option in "$@"; do
  case $option in
    --fuzz) need clang clang++ ;;
    --win32)
      need mingw-w64 x86_64-w64-mingw32-g++-posix
      need wine64 /usr/lib/wine/wine64
      need libgtest-dev /usr/src/googletest
      ;;
    *) echo "deps.sh: unknown option $option (known: --fuzz --win32)" >&2; exit 2 ;;
  esac
done

[ -z "$missing" ] && exit 0

install="apt-get install -y$missing"
if [ -n "${COLL_DEPS_DRY_RUN:-}" ]; then
  echo "$install"
  exit 0
fi
if [ "$(id -u)" != 0 ] || ! command -v apt-get >/dev/null 2>&1; then
  echo "deps.sh: missing:$missing" >&2
  if command -v apt-get >/dev/null 2>&1; then
    echo "deps.sh: install them with:  sudo apt-get update && sudo $install" >&2
  else
    echo "deps.sh: install these (Debian package names) with your system's package manager" >&2
  fi
  exit 1
fi
echo "deps.sh: installing$missing" >&2
export DEBIAN_FRONTEND=noninteractive
apt-get update -qq
# shellcheck disable=SC2086
apt-get install -y -qq $missing
