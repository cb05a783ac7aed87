#!/usr/bin/env bash
# Builds the library and runs its demonstration program: a height image through every
# subsystem, leaving pictures, a mesh and a matrix store in ./qzsse-demo-output (or the
# folder given with --out). Arguments go to the program: tools/demo.sh [INPUT] [--out DIR]
set -euo pipefail

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
"$root/tools/install-deps.sh"

cmake -S "$root" -B "$root/build/release" -DCMAKE_BUILD_TYPE=Release
cmake --build "$root/build/release" -j "$(nproc 2>/dev/null || echo 2)" --target qzsse-demo
"$root/build/release/examples/qzsse-demo" "$@"
