#!/usr/bin/env bash
# Builds the libFuzzer targets (build-fuzz, clang) and runs each for SECONDS seconds, one
# after another:
#
#   bash tools/fuzz.sh SECONDS [TARGET...]     (targets: compile module value format)
#
# Seeds are generated into build-fuzz/fuzz-work/seeds; what the fuzzers add stays in
# build-fuzz/fuzz-work/corpus for the next run. An input that crashes, hangs or makes a
# sanitizer report is kept in build-fuzz/fuzz-work/findings/TARGET, and the script then
# exits 1 (after running the remaining targets). Copy such an input into tests/fuzz/TARGET
# once the fault is fixed: the test suite replays it from then on.
set -euo pipefail
cd "$(dirname "$0")/.."
root=$PWD
seconds=${1:?usage: tools/fuzz.sh SECONDS [TARGET...]}
shift
targets=("$@")
[ ${#targets[@]} -gt 0 ] || targets=(compile module value format)
jobs=${QEL_JOBS:-2}
build=build-fuzz
work=$root/$build/fuzz-work

CC=${QEL_FUZZ_CC:-clang} CXX=${QEL_FUZZ_CXX:-clang++} \
  cmake -S . -B "$build" -DQEL_FUZZ=ON -DQEL_BUILD_TESTS=OFF -DQEL_BUILD_EXAMPLES=OFF -DQEL_BUILD_BENCHMARKS=OFF \
        -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build "$build" -j"$jobs" >/dev/null

# Reference cycles are legal (and leak by design), so leak reports are off where
# scripts or value streams make the objects.
export ASAN_OPTIONS=detect_leaks=0:abort_on_error=1:symbolize=1
export UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1

# ---- Seeds ----
rm -rf "$work/seeds"
mkdir -p "$work/seeds"/{compile,module,value,format}
cp -r tests/scripts/*.qel tests/scripts/*.inc tests/scripts/lib examples/*.qel examples/*/*.qel "$work/seeds/compile/"
# Module files written by the engine: every script test that compiles, written by qel -c.
(
  cd tests/scripts
  for script in *.qel; do
    "$root/$build/qel" -c "$work/seeds/module/${script%.qel}.qem" "$script" >/dev/null 2>&1 </dev/null || true
  done
)
# Value streams written by the engine, each as a regular file (first byte even) and as
# a memory stream (odd).
mkdir -p "$work/seeds/values-raw"
"$build/qel" fuzz/seed_values.qel "$work/seeds/values-raw" >/dev/null </dev/null
for f in "$work/seeds/values-raw"/*; do
  name=$(basename "$f")
  { printf '\000'; cat "$f"; } >"$work/seeds/value/$name.file"
  { printf '\001'; cat "$f"; } >"$work/seeds/value/$name.stream"
done
rm -rf "$work/seeds/values-raw"

# ---- Runs ----
found=()
for target in "${targets[@]}"; do
  corpus=$work/corpus/$target
  findings=$work/findings/$target
  mkdir -p "$corpus" "$findings"
  options=(-max_total_time="$seconds" -timeout=10 -rss_limit_mb=2048 -print_final_stats=1
           -artifact_prefix="$findings/")
  [ "$target" = compile ] && options+=(-dict="$root/fuzz/qel.dict")
  [ "$target" = format ] || options+=(-detect_leaks=0)
  dirs=("$corpus" "$work/seeds/$target")
  for d in "$root/fuzz/seeds/$target" "$root/tests/fuzz/$target"; do
    [ -d "$d" ] && dirs+=("$d")
  done
  log=$work/$target.log
  echo "fuzz: $target for ${seconds}s (log $log)"
  status=0
  # The scripts' relative #include names resolve in the seed directory.
  (cd "$work/seeds/compile" &&
     "$root/$build/fuzz/qel_fuzz_$target" "${options[@]}" "${dirs[@]}" </dev/null >"$log" 2>&1) || status=$?
  runs=$(grep -o 'stat::number_of_executed_units: *[0-9]*' "$log" | grep -o '[0-9]*$' || echo "?")
  echo "fuzz: $target: exit $status, $runs runs, corpus $(ls "$corpus" | wc -l) inputs"
  if [ "$status" -ne 0 ]; then
    found+=("$target")
    echo "fuzz: $target found a fault; inputs kept in $findings:" >&2
    ls "$findings" >&2
    tail -n 40 "$log" >&2
  fi
done
if [ ${#found[@]} -gt 0 ]; then
  echo "fuzz: faults found by: ${found[*]}" >&2
  exit 1
fi
echo "fuzz: nothing found"
