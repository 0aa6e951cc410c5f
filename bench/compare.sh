#!/usr/bin/env bash
# Times each benchmark in Qel and in Lua 5.4 side by side and prints one table: the median run
# time of each (hyperfine), their ratio, and each one's peak memory (the median of a few runs of
# /usr/bin/time), then the geometric mean of the ratios.
#
#   bench/compare.sh [PROGRAM[=SIZE]...]
#
# With no PROGRAM every benchmark runs at its size in SIZES below; `fib=25` runs one at another
# size. Environment:
#   QEL=path     the qel binary to time (default: build/qel, built in Release first)
#   LUA=path     the Lua 5.4 interpreter (default: lua5.4)
#   RUNS=n       the least number of timed runs of each command (default 5; hyperfine does more
#                when they fit in its three seconds), after one warm-up run
#   MEM_RUNS=n   the runs of each command that measure peak memory (default 3)
#   MAX_SECONDS=n  a program whose first qel run takes longer is not timed but shown as slower
#                than that (default 60; 0 waits however long it takes)
set -euo pipefail

# The size each program runs at: its one argument. Chosen so that Lua 5.4 takes at least 0.3 s
# on the development machine (2 cores, x86-64); see bench/README.md.
SIZES=(
  fib=33
  loop=25000000
  methods=4000000
  objects=1200000
  sieve=3000000
  strings=1000000
  dictionary=120000
)

die() {
  echo "compare.sh: $*" >&2
  exit 1
}

# Resolve paths given relative to the caller's directory before moving to the source tree.
qel=${QEL:-}
if [[ -n $qel && $qel == */* && $qel != /* ]]; then qel=$PWD/$qel; fi
cd "$(dirname "$0")/.."
lua=${LUA:-lua5.4}
runs=${RUNS:-5}
mem_runs=${MEM_RUNS:-3}
max_seconds=${MAX_SECONDS:-60}
[[ $runs =~ ^[0-9]+$ && $runs -ge 2 ]] || die "RUNS must be a number of at least 2"
[[ $mem_runs =~ ^[0-9]+$ && $mem_runs -ge 1 ]] || die "MEM_RUNS must be a positive number"
[[ $max_seconds =~ ^[0-9]+$ ]] || die "MAX_SECONDS must be a number"

missing=()
command -v hyperfine >/dev/null || missing+=(hyperfine)
command -v "$lua" >/dev/null || missing+=(lua5.4)
[[ -x /usr/bin/time ]] || missing+=(time)
if ((${#missing[@]})); then
  die "missing ${missing[*]}; install with: apt-get install ${missing[*]}"
fi

size_of() {
  local entry
  for entry in "${SIZES[@]}"; do
    if [[ ${entry%%=*} == "$1" ]]; then
      echo "${entry#*=}"
      return 0
    fi
  done
  return 1
}

# The programs to run, each as NAME=SIZE.
selected=()
if (($# == 0)); then
  selected=("${SIZES[@]}")
else
  for word in "$@"; do
    name=${word%%=*}
    [[ -f bench/$name.qel && -f bench/$name.lua ]] || die "no benchmark '$name' (bench/$name.qel and bench/$name.lua)"
    if [[ $word == *=* ]]; then
      size=${word#*=}
    else
      size=$(size_of "$name") || die "no size for '$name' in SIZES"
    fi
    [[ $size =~ ^[0-9]+$ ]] || die "size of '$name' must be a number, not '$size'"
    selected+=("$name=$size")
  done
fi

if [[ -z $qel ]]; then
  echo "building build/qel (Release)..." >&2
  cmake -S . -B build -DCMAKE_BUILD_TYPE=Release >/dev/null
  cmake --build build -j2 --target qel_cli >/dev/null
  qel=$PWD/build/qel
fi
[[ -x $qel ]] || qel=$(command -v "$qel") || die "qel binary '${QEL:-$qel}' not found"

load_before=$(uptime | sed 's/.*load average: *//')
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

# The median of the numbers on standard input, one a line.
median() {
  sort -n | awk '{ v[NR] = $1 } END { if (NR % 2) print v[(NR + 1) / 2]; else print (v[NR / 2] + v[NR / 2 + 1]) / 2 }'
}

# peak_kb OUTFILE LIMIT COMMAND...: the median maximum resident set (KB) of MEM_RUNS runs; the
# output of the last run goes to OUTFILE. The first run is stopped after LIMIT seconds (0: never),
# and then the answer is "timeout".
peak_kb() {
  local out=$1 limit=$2 r status kbs=()
  shift 2
  for ((r = 0; r < mem_runs; ++r)); do
    status=0
    if ((r == 0 && limit > 0)); then
      /usr/bin/time -f %M -o "$work/rss" timeout "$limit" "$@" >"$out" || status=$?
    else
      /usr/bin/time -f %M -o "$work/rss" "$@" >"$out" || status=$?
    fi
    if ((status == 124 && r == 0 && limit > 0)); then
      echo timeout
      return 0
    fi
    ((status == 0)) || die "'$*' failed with exit status $status"
    kbs+=("$(tail -n 1 "$work/rss")")
  done
  printf '%s\n' "${kbs[@]}" | median
}

# medians_ms CSV JSON: the median times (ms) of hyperfine's two commands, one a line.
medians_ms() {
  if command -v jq >/dev/null; then
    jq -r '.results[].median * 1000' "$2"
  else
    awk -F, 'NR > 1 { printf "%.3f\n", $4 * 1000 }' "$1"
  fi
}

rows=()
for entry in "${selected[@]}"; do
  name=${entry%%=*}
  size=${entry#*=}
  echo "== $name $size" >&2
  # Memory first: these runs also check that both programs print the same.
  qel_kb=$(peak_kb "$work/qel.out" "$max_seconds" "$qel" "bench/$name.qel" "$size")
  if [[ $qel_kb == timeout ]]; then
    echo "   qel takes over $max_seconds s: not timed" >&2
    rows+=("$name $size timeout")
    continue
  fi
  lua_kb=$(peak_kb "$work/lua.out" 0 "$lua" "bench/$name.lua" "$size")
  if ! cmp -s "$work/qel.out" "$work/lua.out"; then
    die "$name $size: qel and lua print different output:
$(diff "$work/qel.out" "$work/lua.out" | head -n 10)"
  fi
  hyperfine -N --style basic --warmup 1 --min-runs "$runs" \
    --export-csv "$work/$name.csv" --export-json "$work/$name.json" \
    "$(printf '%q bench/%s.qel %s' "$qel" "$name" "$size")" \
    "$(printf '%q bench/%s.lua %s' "$lua" "$name" "$size")" >&2
  ms=($(medians_ms "$work/$name.csv" "$work/$name.json"))
  rows+=("$name $size ${ms[0]} ${ms[1]} $qel_kb $lua_kb")
done

echo
echo "qel: $qel"
echo "lua: $("$lua" -v 2>&1 | head -n 1)"
echo "load average: $load_before at the start, $(uptime | sed 's/.*load average: *//') at the end"
printf '%s\n' "${rows[@]}" | awk -v max="$max_seconds" '
  BEGIN {
    printf "%-12s %10s %10s %10s %8s %8s %8s\n", "program", "size", "qel ms", "lua ms", "qel/lua", "qel MB", "lua MB"
  }
  $3 == "timeout" {
    printf "%-12s %10d %10s   (qel takes over %d s: not timed)\n", $1, $2, ">" max * 1000, max
    next
  }
  {
    ratio = $3 / $4
    logs += log(ratio)
    ++timed
    printf "%-12s %10d %10.1f %10.1f %8.2f %8.1f %8.1f\n", $1, $2, $3, $4, ratio, $5 / 1024, $6 / 1024
  }
  END { if (timed) printf "geometric mean of qel/lua over %d programs: %.2f\n", timed, exp(logs / timed) }'
