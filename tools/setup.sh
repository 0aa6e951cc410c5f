#!/usr/bin/env bash
# Installs the Debian packages a job needs when they are missing. The README's commands
# and CI run it first, so that what they need is said in one place.
#   setup.sh demo   a C and C++ compiler, make and CMake: the library and qel
#   setup.sh package  the demo's, libedit and nlohmann-json (line editing and the editor
#                   tools go into the package), dpkg-dev and file
#   setup.sh test   the package's, and what the tests need: GoogleTest, node and npm
#                   (the editor tools' clients), binutils
#   setup.sh ci     the test's, and clang and libFuzzer for the fuzz targets
# As root it installs with apt-get, else through sudo when that needs no password;
# otherwise it prints the apt-get line to run and stops with status 1.
set -euo pipefail

job=${1:-test}
need=()
# want PACKAGE PROBE: PACKAGE is missing when PROBE (a command name or an absolute
# path) is not found.
want() {
  case $2 in
    /*) [ -e "$2" ] && return ;;
    *) command -v "$2" >/dev/null 2>&1 && return ;;
  esac
  need+=("$1")
}

want_demo() {
  want g++ g++
  want gcc cc
  want make make
  want cmake cmake
}
want_package() {
  want_demo
  want pkg-config pkg-config
  want libedit-dev /usr/include/histedit.h
  want nlohmann-json3-dev /usr/include/nlohmann/json.hpp
  want dpkg-dev dpkg-shlibdeps
  want file file
}
want_test() {
  want_package
  want libgtest-dev /usr/include/gtest/gtest.h
  want nodejs node
  want npm npm
  want binutils readelf
}
want_ci() {
  want_test
  want clang clang++
  if ! command -v clang >/dev/null 2>&1 ||
     ! ls "$(clang -print-resource-dir)"/lib/linux/libclang_rt.fuzzer-*.a >/dev/null 2>&1; then
    need+=(libclang-rt-dev)
  fi
}

case $job in
  demo) want_demo ;;
  package) want_package ;;
  test) want_test ;;
  ci) want_ci ;;
  *) echo "usage: setup.sh demo|package|test|ci" >&2; exit 64 ;;
esac
[ ${#need[@]} -eq 0 ] && exit 0

if [ "$(id -u)" -eq 0 ]; then
  as_root=(env DEBIAN_FRONTEND=noninteractive)
elif command -v sudo >/dev/null 2>&1 && sudo -n true 2>/dev/null; then
  as_root=(sudo env DEBIAN_FRONTEND=noninteractive)
else
  echo "setup: these Debian packages are missing: ${need[*]}" >&2
  echo "setup: install them as root, then run this command again:" >&2
  echo "  apt-get update && apt-get install -y ${need[*]}" >&2
  exit 1
fi
echo "setup: installing ${need[*]}" >&2
"${as_root[@]}" apt-get update -qq
"${as_root[@]}" apt-get install -y -qq --no-install-recommends "${need[@]}" >/dev/null
