#!/usr/bin/env bash
# Builds and runs the whole test suite twice, as CI does: an optimised build, and a build
# under AddressSanitizer and UndefinedBehaviorSanitizer (any report fails the run). The
# optimised build also compiles the benchmarks and examples so that they cannot rot.
set -euo pipefail

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
"$root/tools/install-deps.sh"

jobs=$(nproc 2>/dev/null || echo 2)

echo "== optimised build =="
cmake -S "$root" -B "$root/build/release" -DCMAKE_BUILD_TYPE=Release
cmake --build "$root/build/release" -j "$jobs"
ctest --test-dir "$root/build/release" --output-on-failure -j "$jobs"

echo "== sanitizer build (ASan + UBSan) =="
cmake -S "$root" -B "$root/build/sanitize" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DQZSSE_SANITIZE=ON \
  -DQZSSE_BUILD_BENCHMARKS=OFF -DQZSSE_BUILD_EXAMPLES=OFF
cmake --build "$root/build/sanitize" -j "$jobs"
ctest --test-dir "$root/build/sanitize" --output-on-failure -j "$jobs"
