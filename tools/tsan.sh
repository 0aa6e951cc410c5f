#!/usr/bin/env bash
# Builds the engine with the thread sanitizer (build-tsan) and runs the test of machines
# on several threads; any report fails the run.
#
#   bash tools/tsan.sh [REPEAT]     (REPEAT: how many times the test runs, default 1)
set -euo pipefail
cd "$(dirname "$0")/.."
repeat=${1:-1}
jobs=${QEL_JOBS:-2}
build=build-tsan

cmake -S . -B "$build" -DQEL_TSAN=ON -DQEL_BUILD_EXAMPLES=OFF -DQEL_BUILD_BENCHMARKS=OFF -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
# The test program, the library and the native module it loads: nothing else.
cmake --build "$build" -j"$jobs" --target qel_thread_tests
TSAN_OPTIONS="halt_on_error=1 second_deadlock_stack=1 ${TSAN_OPTIONS:-}" \
  "$build/tests/qel_thread_tests" --gtest_repeat="$repeat" --gtest_brief=1
