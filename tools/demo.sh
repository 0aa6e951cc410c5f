#!/usr/bin/env bash
# Builds the library and the host program, then runs the demo script through qel.
set -euo pipefail
cd "$(dirname "$0")/.."
cmake -S . -B build -DCMAKE_BUILD_TYPE=Release >/dev/null
cmake --build build -j"${QEL_JOBS:-2}"
./build/qel examples/demo.qel
