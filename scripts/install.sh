#!/usr/bin/env bash
# Builds the library with its API reference and installs it into a prefix:
#   install.sh [prefix]    (default /usr/local)
# Uses its own build folder, build/install, so it works after demo.sh, after test.sh or alone.
set -euo pipefail
root="$(cd "$(dirname "$0")/.." && pwd)"
prefix="${1:-/usr/local}"
case "$prefix" in
  /*) ;;
  *) echo "install.sh: the prefix must be an absolute path, not '$prefix'" >&2; exit 2 ;;
esac
cd "$root"
./scripts/setup-deps.sh build docs
cmake -S . -B build/install -G Ninja -DCMAKE_BUILD_TYPE=Release -DOPC_BUILD_TESTS=OFF \
  -DOPC_BUILD_EXAMPLES=OFF -DOPC_BUILD_DOCS=ON -DCMAKE_INSTALL_PREFIX="$prefix" >/dev/null
cmake --build build/install
cmake --install build/install
echo "installed into $prefix"
