#!/usr/bin/env bash
# Builds the library and the host program, then runs the demo script through qel.
set -euo pipefail
cd "$(dirname "$0")/.."
bash tools/setup.sh demo
cmake -S . -B build -DCMAKE_BUILD_TYPE=Release >/dev/null
cmake --build build -j"${QEL_JOBS:-2}" --target qel_cli
./build/qel examples/demo.qel
