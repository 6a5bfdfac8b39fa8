#!/usr/bin/env bash
# Installs what is missing (only what building takes), builds the library and its
# demonstration, and runs it: a package is written to a guarded temporary file and committed
# over an old one with a kept backup, on the local disk and in in-memory storage.
set -euo pipefail
root="$(cd "$(dirname "$0")/.." && pwd)"
cd "$root"
./scripts/setup-deps.sh build
cmake -S . -B build/demo -G Ninja -DCMAKE_BUILD_TYPE=Release \
  -DOPC_BUILD_TESTS=OFF -DOPC_BUILD_BENCH=OFF -DOPC_BUILD_EXAMPLES=ON >/dev/null
cmake --build build/demo --target save_package
exec ./build/demo/examples/save_package "$@"
