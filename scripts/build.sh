#!/usr/bin/env bash
# Configures and builds the library, qzrun, the tests and the benchmarks in build/.
set -euo pipefail
cd "$(dirname "$0")/.."
./scripts/deps.sh
cmake -S . -B build -DCMAKE_BUILD_TYPE=Release >/dev/null
cmake --build build -j"$(nproc)"
