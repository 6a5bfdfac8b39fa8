#!/usr/bin/env bash
# Builds the benchmarks (a release build in build/bench) and runs them, each beside its baseline.
#
#   bench.sh [name...] [-- flag...]    names: those of bench/bench_<name>.cpp (s3, commit, ...),
#                                      all by default; flags go to each program (--benchmark_...)
#
# s3 runs through a model of an internet link against the object store of scripts/s3-server.sh,
# beside awscli and rclone; the store is started here when none answers, and then stopped at the
# end. Installs what is missing first (./scripts/setup-deps.sh build bench).
set -euo pipefail
root="$(cd "$(dirname "$0")/.." && pwd)"
cd "$root"

names=()
while [ $# -gt 0 ] && [ "$1" != -- ]; do
  names+=("$1")
  shift
done
[ $# -eq 0 ] || shift
if [ ${#names[@]} -eq 0 ]; then
  for source in bench/bench_*.cpp; do
    name="${source#bench/bench_}"
    names+=("${name%.cpp}")
  done
fi

./scripts/setup-deps.sh build bench
cmake -S . -B build/bench -G Ninja -DCMAKE_BUILD_TYPE=Release -DOPC_BUILD_BENCH=ON -DOPC_BUILD_TESTS=OFF >/dev/null
cmake --build build/bench --target "${names[@]/#/bench_}"

for name in "${names[@]}"; do
  if [ "$name" = s3 ]; then
    if ! ./scripts/s3-server.sh status 2>/dev/null; then
      trap './scripts/s3-server.sh stop >/dev/null 2>&1 || true' EXIT
    fi
    eval "$(./scripts/s3-server.sh start)"
  fi
  "build/bench/bench/bench_$name" "$@"
done
