#!/usr/bin/env bash
# Builds the library, qzrun, the tests and the fuzz hosts with AddressSanitizer
# and UndefinedBehaviorSanitizer into build-asan/, runs the whole test suite
# and a short seeded fuzz run there, and fails on any sanitizer report, also
# on one from a death test's child or a fuzzed input (reports go to files in a
# log folder, which must stay empty).
#
#   scripts/sanitize.sh [--no-fuzz]
set -euo pipefail
cd "$(dirname "$0")/.."
fuzz=1
[ "${1:-}" = "--no-fuzz" ] && fuzz=0
./scripts/deps.sh
san="-fsanitize=address,undefined -fno-sanitize-recover=undefined -fno-omit-frame-pointer"
cmake -S . -B build-asan -DCMAKE_BUILD_TYPE=Release -DQZ_BUILD_BENCH=OFF \
  -DCMAKE_CXX_FLAGS="$san -g" -DCMAKE_EXE_LINKER_FLAGS="$san" -DCMAKE_SHARED_LINKER_FLAGS="$san" >/dev/null
cmake --build build-asan -j"$(nproc)"

logs="$PWD/build-asan/sanitizer-logs"
rm -rf "$logs"
mkdir -p "$logs"
# Leak checking stays off: some allocations live to the end of the process by
# design (the weights of a model built in memory, a context's last program).
# A failed allocation returns null, so that the library's std::bad_alloc path
# runs instead of the sanitizer's out-of-memory report.
export ASAN_OPTIONS="detect_leaks=0:allocator_may_return_null=1:log_path=$logs/asan"
export UBSAN_OPTIONS="print_stacktrace=1:log_path=$logs/ubsan"
export OMP_WAIT_POLICY=passive
status=0
(cd build-asan && ctest --output-on-failure -j"$(nproc)" --timeout 900) || status=1
if [ "$fuzz" = 1 ]; then
  ./scripts/fuzz.sh --short --build build-asan || status=1
fi
if [ -n "$(ls -A "$logs")" ]; then
  echo "sanitizer reports:" >&2
  for f in "$logs"/*; do echo "== $f" >&2; head -60 "$f" >&2; done
  status=1
fi
exit $status
