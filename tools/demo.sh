#!/usr/bin/env bash
# Builds the library and runs its demonstration program.
set -euo pipefail

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
"$root/tools/install-deps.sh"

cmake -S "$root" -B "$root/build/release" -DCMAKE_BUILD_TYPE=Release
cmake --build "$root/build/release" -j "$(nproc 2>/dev/null || echo 2)" --target qzsse-demo
"$root/build/release/examples/qzsse-demo" "$@"
