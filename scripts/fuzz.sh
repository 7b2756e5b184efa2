#!/usr/bin/env bash
# Runs the fuzz hosts (tests/fuzz/): generated program texts, text tables,
# binary tables, model files and adjacency files, each input in a child
# process through the C interface. Prints the outcomes per host and fails if
# any input ended in a defect (a crash, a sanitizer report, an undocumented
# assertion, a hang).
#
#   scripts/fuzz.sh --short [--build DIR]          seeded, some 2500 inputs (the CI step)
#   scripts/fuzz.sh --long [--seed S] [--count N] [--build DIR]
#
# The hosts are built in DIR (default build-asan, the sanitizer build of
# scripts/sanitize.sh, which must be configured; build/ works as well).
set -euo pipefail
cd "$(dirname "$0")/.."
mode=short seed=1 count="" dir=build-asan
while [ $# -gt 0 ]; do
  case "$1" in
    --short) mode=short ;;
    --long) mode=long seed=$(date +%s) ;;
    --seed) seed="$2"; shift ;;
    --count) count="$2"; shift ;;
    --build) dir="$2"; shift ;;
    *) echo "usage: $0 [--short|--long] [--seed S] [--count N] [--build DIR]" >&2; exit 2 ;;
  esac
  shift
done
targets=(fuzz_program fuzz_csv fuzz_bin fuzz_model fuzz_adj)
cmake --build "$dir" -j"$(nproc)" --target "${targets[@]}" >/dev/null
if [ "$mode" = short ]; then
  # A fixed seed and count, each host stopped after 30 s on a slow machine.
  : "${count:=500}"
  extra=(--budget 30)
else
  : "${count:=20000}"
  extra=()
fi
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
export OMP_WAIT_POLICY=passive
# For the sanitizer build: reports go to standard error, where the hosts read
# them; an allocation above 3 GB is refused as if memory had run out.
export ASAN_OPTIONS="${ASAN_OPTIONS:-detect_leaks=0:alloc_dealloc_mismatch=0:allocator_may_return_null=1:max_allocation_size_mb=3072}"
export UBSAN_OPTIONS="${UBSAN_OPTIONS:-print_stacktrace=1}"
status=0
for t in "${targets[@]}"; do
  "$dir/tests/fuzz/$t" --seed "$seed" --count "$count" --out "$scratch" "${extra[@]}" || status=1
done
exit $status
