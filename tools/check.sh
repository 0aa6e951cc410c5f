#!/usr/bin/env bash
# Builds and runs every test, in the normal and in the sanitizer configuration.
set -euo pipefail
cd "$(dirname "$0")/.."
bash tools/setup.sh test
jobs=${QEL_JOBS:-2}
run_config() {
  local dir=$1; shift
  # Every test is asked for, so none is left out for want of what it needs.
  cmake -S . -B "$dir" -DCMAKE_BUILD_TYPE=Release -DQEL_BUILD_TESTS=ON -DQEL_BUILD_EXAMPLES=ON \
        -DQEL_BUILD_TOOLS=ON -DQEL_LINE_EDITING=ON "$@" >/dev/null
  cmake --build "$dir" -j"$jobs"
  ctest --test-dir "$dir" --output-on-failure -j"$jobs"
}
run_config build
# The sanitizer configuration also covers the switch form of the dispatch loop.
run_config build-sanitize -DQEL_SANITIZE=ON -DQEL_COMPUTED_GOTO=OFF
