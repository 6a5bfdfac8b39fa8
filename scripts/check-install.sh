#!/usr/bin/env bash
# Installs a built tree into a scratch prefix and builds a consumer against it, once with
# find_package(opccore) and once with pkg-config, then runs both.
set -euo pipefail
root="$(cd "$(dirname "$0")/.." && pwd)"
build="$(cd "${1:-$root/build/release}" && pwd)"
work="$build/install-check"
rm -rf "$work"
mkdir -p "$work"

cmake --install "$build" --prefix "$work/prefix" >/dev/null

cmake -S "$root/tests/consumer" -B "$work/consumer" -G Ninja \
  -DCMAKE_PREFIX_PATH="$work/prefix" -DCMAKE_COMPILE_WARNING_AS_ERROR=ON >/dev/null
cmake --build "$work/consumer"
"$work/consumer/opc_consumer"

PKG_CONFIG_PATH="$work/prefix/lib/pkgconfig" \
  g++ -std=c++17 -Wall -Wextra -Wpedantic -Werror "$root/tests/consumer/consumer.cpp" \
      $(PKG_CONFIG_PATH="$work/prefix/lib/pkgconfig" pkg-config --cflags --libs opccore) \
      -o "$work/opc_consumer_pkgconfig"
"$work/opc_consumer_pkgconfig"
echo "install check passed"
