#!/usr/bin/env bash
# Installs what is missing, then builds and runs every test twice: a normal build and one with
# AddressSanitizer and UndefinedBehaviorSanitizer. A third build with ThreadSanitizer builds
# and runs only the tests that start threads (CTest label "threads"); any report fails it.
# Warnings are errors, and so are the API reference's (built with the normal build). Last, the
# installed package and the .deb files are checked by building a consumer project against them.
# The s3 tests run against a real object store (scripts/s3-server.sh: Ceph's radosgw on
# loopback), started first and stopped at the end; when it cannot be started they are skipped
# and this script says so.
set -euo pipefail
root="$(cd "$(dirname "$0")/.." && pwd)"
cd "$root"
./scripts/setup-deps.sh all

jobs=$(nproc)

echo "== Object store for the s3 tests"
export OPC_S3_DIR="${OPC_S3_DIR:-/tmp/opc-s3-test}"
if settings="$(./scripts/s3-server.sh start)"; then
  eval "$settings"
  trap './scripts/s3-server.sh stop >/dev/null 2>&1 || true' EXIT
  echo "   radosgw at $AWS_ENDPOINT_URL, bucket $S3_BUCKET"
else
  s3_missing="the object store could not be started (the reason is above): the s3 tests are SKIPPED"
  echo "   NOTE: $s3_missing"
fi

configure() {
  local dir=$1; shift
  cmake -S . -B "$dir" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DOPC_WERROR=ON "$@" >/dev/null
}

build_and_test() {
  configure "$@"
  cmake --build "$1" --parallel "$jobs"
  ctest --test-dir "$1" --parallel "$jobs" --output-on-failure --timeout 900
}

echo "== Normal build"
build_and_test build/release -DOPC_SANITIZE=OFF -DOPC_BUILD_BENCH=ON -DOPC_BUILD_DOCS=ON \
  -DCMAKE_INSTALL_PREFIX=/usr

echo "== AddressSanitizer + UndefinedBehaviorSanitizer build"
export ASAN_OPTIONS=detect_leaks=1:abort_on_error=1
export UBSAN_OPTIONS=print_stacktrace=1
build_and_test build/sanitize -DOPC_SANITIZE=ON -DOPC_BUILD_EXAMPLES=OFF
unset ASAN_OPTIONS UBSAN_OPTIONS

echo "== ThreadSanitizer build (tests that start threads)"
export TSAN_OPTIONS=halt_on_error=1
configure build/tsan -DOPC_TSAN=ON -DOPC_BUILD_EXAMPLES=OFF
cmake --build build/tsan --parallel "$jobs" --target opc_threaded_tests
ctest --test-dir build/tsan --label-regex threads --no-tests=error --parallel "$jobs" --output-on-failure --timeout 900
unset TSAN_OPTIONS

echo "== Installed package and .deb files"
./scripts/check-install.sh build/release
[ -z "${s3_missing:-}" ] || echo "NOTE: $s3_missing"
