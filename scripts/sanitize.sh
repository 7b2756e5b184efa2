#!/usr/bin/env bash
# Builds the library, qzrun, the tests and the fuzz hosts with AddressSanitizer
# and UndefinedBehaviorSanitizer into build-asan/, runs the whole test suite
# and a short seeded fuzz run there, and fails on any sanitizer report, also
# on one from a death test's child or a fuzzed input (reports go to files in a
# log folder, which must stay empty).
#
#   scripts/sanitize.sh [--no-fuzz]
#   scripts/sanitize.sh --thread   ThreadSanitizer, in build-tsan/, on the tests
#                                  that read registers while a program runs
set -euo pipefail
cd "$(dirname "$0")/.."
fuzz=1
[ "${1:-}" = "--no-fuzz" ] && fuzz=0
./scripts/deps.sh
if [ "${1:-}" = "--thread" ]; then
  tsan="-fsanitize=thread"
  cmake -S . -B build-tsan -DCMAKE_BUILD_TYPE=Release -DQZ_BUILD_BENCH=OFF \
    -DCMAKE_CXX_FLAGS="$tsan -g" -DCMAKE_EXE_LINKER_FLAGS="$tsan" -DCMAKE_SHARED_LINKER_FLAGS="$tsan" >/dev/null
  cmake --build build-tsan -j"$(nproc)" --target test_capi test_reliability
  # libgomp is not built with ThreadSanitizer: its barriers and thread pool
  # are invisible to it, so what it reports inside the OpenMP runtime is
  # suppressed (tests/tsan.supp); reports in qz's own code are not.
  export TSAN_OPTIONS="suppressions=$PWD/tests/tsan.supp halt_on_error=1 second_deadlock_stack=1"
  export OMP_WAIT_POLICY=passive
  build-tsan/tests/test_capi --gtest_filter='CApi.ReadFromAnotherThreadDuringARun'
  build-tsan/tests/test_reliability --gtest_filter='Reliability.Reading*'
  exit 0
fi
# Two checks of the undefined-behaviour sanitizer are left out because the
# design relies on what they flag: registers carry objects as untyped
# pointers that the machine reads under the instantiation IDX and VAL name
# (the width of GVX is specified that way), so calls through another
# instantiation's class are intended (vptr); and the register kinds are an
# enum that tests set to values outside it on purpose (enum).
san="-fsanitize=address,undefined -fno-sanitize=vptr,enum -fno-sanitize-recover=undefined -fno-omit-frame-pointer"
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
# alloc_dealloc_mismatch is off for the prebuilt GoogleTest library, whose
# uninstrumented code frees strings that instrumented inline code made.
export ASAN_OPTIONS="detect_leaks=0:alloc_dealloc_mismatch=0:allocator_may_return_null=1:log_path=$logs/asan"
export UBSAN_OPTIONS="print_stacktrace=1:log_path=$logs/ubsan"
export OMP_WAIT_POLICY=passive
status=0
(cd build-asan && ctest --output-on-failure -j"$(nproc)" --timeout 900 -E '^(python_|install_)') || status=1
# The Python package and the installed-package test load the library into
# programs built without the sanitizers: its runtime goes in first.
preload="$(${CXX:-g++} -print-file-name=libasan.so):$(${CXX:-g++} -print-file-name=libubsan.so)"
(cd build-asan && LD_PRELOAD="$preload" ctest --output-on-failure -j"$(nproc)" --timeout 900 -R '^(python_|install_)') ||
  status=1
if [ "$fuzz" = 1 ]; then
  # The fuzz hosts read what their children report on standard error, and
  # take an allocation the sanitizer gives up on (none may exceed 3 GB here)
  # for the std::bad_alloc it is without the sanitizer.
  ASAN_OPTIONS="detect_leaks=0:alloc_dealloc_mismatch=0:allocator_may_return_null=1:max_allocation_size_mb=3072" \
    UBSAN_OPTIONS="print_stacktrace=1" ./scripts/fuzz.sh --short --build build-asan || status=1
fi
if [ -n "$(ls -A "$logs")" ]; then
  echo "sanitizer reports:" >&2
  for f in "$logs"/*; do echo "== $f" >&2; head -60 "$f" >&2; done
  status=1
fi
exit $status
