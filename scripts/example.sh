#!/usr/bin/env bash
# Builds everything and runs the main example program.
set -euo pipefail
cd "$(dirname "$0")/.."
./scripts/build.sh
exec ./build/qzrun examples/vote.qz -p NXX -p GVX -p GEX -p DIM -p GP0 -p LNZ
