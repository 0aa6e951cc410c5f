#!/usr/bin/env bash
# Builds the library and qel for installing under /usr and makes the Debian package
# (build-package/qel_VERSION_ARCH.deb); install it with apt-get install ./build-package/qel_*.deb.
set -euo pipefail
cd "$(dirname "$0")/.."
bash tools/setup.sh package
build=build-package
cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=Release -DQEL_BUILD_TESTS=OFF -DQEL_BUILD_EXAMPLES=OFF \
      -DQEL_BUILD_BENCHMARKS=OFF -DQEL_LINE_EDITING=ON -DQEL_BUILD_TOOLS=ON >/dev/null
cmake --build "$build" -j"${QEL_JOBS:-2}"
(cd "$build" && cpack -G DEB)
ls "$build"/qel_*.deb
