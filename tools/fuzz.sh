#!/usr/bin/env bash
# Builds the libFuzzer targets (clang-14, ASan + UBSan) and runs each over its checked-in
# seed corpus for a fixed time, one after the other. Any crash, leak, time-out or
# out-of-memory report (2 GiB) fails the run; the offending input is kept in
# build/fuzz/artifacts/.
#
#   tools/fuzz.sh [seconds per target] [target ...]     (default: 15 s, every target)
#   tools/fuzz.sh --write-corpus                        rewrites tests/fuzz/corpus/
set -euo pipefail

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
build="$root/build/fuzz"
seeds="$root/tests/fuzz/corpus"
jobs=$(nproc 2>/dev/null || echo 2)

CXX=clang++-14 CC=clang-14 cmake -S "$root" -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DQZSSE_FUZZ=ON \
  -DQZSSE_BUILD_TESTS=OFF -DQZSSE_BUILD_BENCHMARKS=OFF -DQZSSE_BUILD_EXAMPLES=OFF >/dev/null
cmake --build "$build" -j "$jobs" --target qzsse_fuzz_all

if [[ ${1:-} == --write-corpus ]]; then
  rm -rf "$seeds"
  "$build/tests/fuzz/qzsse_fuzz_corpus" "$seeds"
  exit 0
fi

seconds=${1:-15}
shift || true
targets=("$@")
if [[ ${#targets[@]} -eq 0 ]]; then
  targets=()
  for dir in "$seeds"/*/; do targets+=("$(basename "$dir")"); done
fi

mkdir -p "$build/artifacts"
failed=()
for target in "${targets[@]}"; do
  echo "== $target: ${seconds} s =="
  # New inputs go to the working corpus in the build folder; the seeds stay as checked in.
  work="$build/corpus/$target"
  mkdir -p "$work"
  if ! "$build/tests/fuzz/qzsse_fuzz_$target" "$work" "$seeds/$target" \
      -max_total_time="$seconds" -timeout=10 -rss_limit_mb=2048 -malloc_limit_mb=2048 \
      -print_final_stats=1 -artifact_prefix="$build/artifacts/$target-" 2>"$build/$target.log"; then
    failed+=("$target")
    tail -n 40 "$build/$target.log"
  fi
  grep -E "^stat::(number_of_executed_units|peak_rss_mb)|^Done" "$build/$target.log" || true
done

if [[ ${#failed[@]} -ne 0 ]]; then
  echo "fuzzing failed: ${failed[*]} (inputs in $build/artifacts/)" >&2
  exit 1
fi
