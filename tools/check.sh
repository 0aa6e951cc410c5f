#!/usr/bin/env bash
# Builds and runs every test, in the normal and in the sanitizer configuration.
set -euo pipefail
cd "$(dirname "$0")/.."
jobs=${QEL_JOBS:-2}
run_config() {
  local dir=$1; shift
  cmake -S . -B "$dir" -DCMAKE_BUILD_TYPE=Release "$@" >/dev/null
  cmake --build "$dir" -j"$jobs"
  ctest --test-dir "$dir" --output-on-failure -j"$jobs"
}
run_config build
# The sanitizer configuration also covers the switch form of the dispatch loop.
run_config build-sanitize -DQEL_SANITIZE=ON -DQEL_COMPUTED_GOTO=OFF
