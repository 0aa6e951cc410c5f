#!/usr/bin/env bash
# Soak test (not part of the quick suite): every script test runs ROUNDS times (default
# 1000) in one machine, re-initialised between scripts, and the run fails if the resident
# memory grows by more than one page after the first tenth of the rounds (at least 50).
#   tools/soak.sh [ROUNDS]
set -euo pipefail
rounds=${1:-1000}
root=$(cd "$(dirname "$0")/.." && pwd)
build=$root/build-soak
cmake -S "$root" -B "$build" -DCMAKE_BUILD_TYPE=Release -DQEL_BUILD_SOAK=ON > /dev/null
cmake --build "$build" -j2 --target qel_soak > /dev/null
# The scripts write and read files beside themselves and read standard input: they run
# in a copy, with nothing to read.
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cp -r "$root/tests/scripts/." "$work/"
cd "$work"
"$build/qel_soak" "$rounds" "$work"/*.qel < /dev/null > /dev/null
