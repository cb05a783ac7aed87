#!/usr/bin/env bash
# Builds and runs the whole test suite as CI does:
#   1. an optimised build with g++, which also compiles the benchmarks and examples so that
#      they cannot rot;
#   2. a build with clang 14 under AddressSanitizer and UndefinedBehaviorSanitizer (any
#      report fails the run), so the suite also compiles and passes with the second compiler;
#   3. the fuzz smoke: every libFuzzer target over its seed corpus for a short, fixed time
#      (QZSSE_FUZZ_SECONDS, default 10).
# A compiler warning in either build fails the run.
set -euo pipefail

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
"$root/tools/install-deps.sh"

jobs=$(nproc 2>/dev/null || echo 2)

# Builds a configured tree and fails on any compiler warning.
build_without_warnings() {
  local dir=$1 log
  log="$dir/build-output.log"
  cmake --build "$dir" -j "$jobs" 2>&1 | tee "$log"
  if grep -q "warning:" "$log"; then
    echo "compiler warnings in $dir (see $log)" >&2
    exit 1
  fi
}

echo "== optimised build (g++) =="
CXX=g++ CC=gcc cmake -S "$root" -B "$root/build/release" -DCMAKE_BUILD_TYPE=Release
build_without_warnings "$root/build/release"
ctest --test-dir "$root/build/release" --output-on-failure -j "$jobs"

echo "== sanitizer build (clang 14, ASan + UBSan) =="
CXX=clang++-14 CC=clang-14 cmake -S "$root" -B "$root/build/sanitize-clang" -DCMAKE_BUILD_TYPE=RelWithDebInfo \
  -DQZSSE_SANITIZE=ON -DQZSSE_BUILD_BENCHMARKS=OFF
build_without_warnings "$root/build/sanitize-clang"
ctest --test-dir "$root/build/sanitize-clang" --output-on-failure -j "$jobs"

echo "== fuzz smoke =="
"$root/tools/fuzz.sh" "${QZSSE_FUZZ_SECONDS:-10}"
