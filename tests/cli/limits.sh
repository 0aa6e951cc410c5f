#!/usr/bin/env bash
# The qel options that bound a run (--max-instructions, --max-memory, with their usage
# errors) and Ctrl-C: each stops the script with its runtime error after the destructors
# of dying objects ran; an interrupt exits with status 130.
#   limits.sh QEL
set -u
qel=$1
# shellcheck source=common.sh
. "$(dirname "$0")/common.sh"

cat > "$work/limits.qel" <<'QEL'
class Guard { Guard(); ~Guard(); }
Guard::Guard() {}
Guard::~Guard() { print("~Guard\n"); }
spin(; g) { g = new Guard(); print("spinning\n"); while (1) {} }
hoard(; g, v) { g = new Guard(); v = T(1); while (1) v = T(v, v); }
QEL

"$qel" --max-instructions 100000 -e spin "$work/limits.qel" > "$work/out" 2> "$work/err"
check "instruction status" 70 $?
check "instruction output" "spinning
~Guard" "$(cat "$work/out")"
check "instruction error" "instruction limit exceeded
  at spin ($work/limits.qel:4)" "$(cat "$work/err")"

"$qel" --max-memory 4M -e hoard "$work/limits.qel" > "$work/out" 2> "$work/err"
check "memory status" 70 $?
check "memory output" "~Guard" "$(cat "$work/out")"
check "memory error" "out of memory
  at hoard ($work/limits.qel:5)" "$(cat "$work/err")"

for bad in "--max-instructions" "--max-instructions x" "--max-memory 4X" "--max-memory -1" \
           "--max-memory 99999999999999999999"; do
  # shellcheck disable=SC2086
  "$qel" $bad "$work/limits.qel" > /dev/null 2>&1
  check "usage $bad" 64 $?
done

# Ctrl-C once the script is running.
"$qel" -e spin "$work/limits.qel" > "$work/out" 2> "$work/err" &
pid=$!
for _ in $(seq 100); do
  grep -q spinning "$work/out" 2>/dev/null && break
  sleep 0.05
done
kill -INT $pid
wait $pid
check "interrupt status" 130 $?
check "interrupt error" "interrupted
  at spin ($work/limits.qel:4)" "$(cat "$work/err")"
check "interrupt output" "spinning
~Guard" "$(cat "$work/out")"

exit $failed
