#!/usr/bin/env bash
# Builds everything and runs the whole test suite.
set -euo pipefail
cd "$(dirname "$0")/.."
# --sanitize: the same suite built with AddressSanitizer and
# UndefinedBehaviorSanitizer in build-asan/, plus a short fuzz run.
if [ "${1:-}" = "--sanitize" ]; then exec ./scripts/sanitize.sh; fi
./scripts/build.sh
cd build
ctest --output-on-failure -j"$(nproc)" --timeout 600
