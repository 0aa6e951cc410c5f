#!/usr/bin/env bash
# Times each benchmark script through qel: the median of several runs, in milliseconds.
#   bench/run.sh [RUNS]     (default 5; builds build/qel first)
set -euo pipefail
cd "$(dirname "$0")/.."
runs=${1:-5}
cmake -S . -B build -DCMAKE_BUILD_TYPE=Release >/dev/null
cmake --build build -j2 --target qel_cli >/dev/null
for script in bench/*.qel; do
  times=()
  for ((r = 0; r < runs; ++r)); do
    start=$(date +%s%N)
    ./build/qel "$script" >/dev/null
    end=$(date +%s%N)
    times+=("$(( (end - start) / 1000000 ))")
  done
  median=$(printf '%s\n' "${times[@]}" | sort -n | awk '{a[NR]=$1} END {print a[int((NR+1)/2)]}')
  printf '%-14s median %5d ms over %d runs\n' "$(basename "$script")" "$median" "$runs"
done
