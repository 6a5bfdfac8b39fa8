#!/usr/bin/env bash
# Installs what is missing, then builds and runs every test twice: a normal build and one with
# AddressSanitizer and UndefinedBehaviorSanitizer. A third build with ThreadSanitizer builds
# and runs only the tests that start threads (CTest label "threads"); any report fails it.
# Warnings are errors, and so are the API reference's (built with the normal build). Last, the
# installed package and the .deb files are checked by building a consumer project against them.
# The s3 tests run against a real object store (scripts/s3-server.sh: Ceph's radosgw on
# loopback), started first and stopped at the end; when it cannot be started they are skipped
# and this script says so.
#
# The output ends with the reason of each group of skipped cases, then one line
# "N passed, N failed, N skipped" counting every case of every build (each GoogleTest case, each
# other test as one). A failed test does not stop the run; the script exits 1 when anything
# failed.
set -euo pipefail
root="$(cd "$(dirname "$0")/.." && pwd)"
cd "$root"
results="$root/build/test-summary"
rm -rf "$results"
mkdir -p "$results"
: >"$results/tally"
step="installing the tools"
failed=0

# Sums one ctest run ($1: its build folder, $2: its JUnit file) into $results/tally.
tally() {
  awk -v results="$1/test-results" -f "$root/scripts/tally.awk" "$2" >>"$results/tally"
}

# Ends every run, passed or not: stops the object store, then prints the skip reasons and the
# summary line last.
finish() {
  local rc=$? passed failed_cases skipped
  [ -z "${store_started:-}" ] || ./scripts/s3-server.sh stop >/dev/null 2>&1 || true
  if [ "$rc" -ne 0 ]; then
    failed=1
    echo "count failed 1" >>"$results/tally"
    echo "step $step failed (exit code $rc; the output above says why)" >>"$results/tally"
  fi
  read -r passed failed_cases skipped < <(awk '
    $1 == "counts" { p += $2; f += $3; s += $4 }
    $1 == "count" && $2 == "failed" { f += $3 }
    END { print p + 0, f + 0, s + 0 }' "$results/tally")
  echo "== Summary"
  sed -n 's/^skip //p' "$results/tally" | sort | uniq -c | sed 's/^ *\([0-9]*\) /   skipped \1: /'
  sed -n 's/^fail /   FAILED: /p; s/^step /   FAILED: /p' "$results/tally" | sort -u
  [ -z "${s3_missing:-}" ] || echo "   NOTE: $s3_missing"
  echo "$passed passed, $failed_cases failed, $skipped skipped"
  [ "$failed" -eq 0 ] && [ "$failed_cases" -eq 0 ] || exit 1
}
trap finish EXIT

./scripts/setup-deps.sh all

jobs=$(nproc)

echo "== Object store for the s3 tests"
step="starting the object store"
export OPC_S3_DIR="${OPC_S3_DIR:-/tmp/opc-s3-test}"
# Its progress is shown and kept, for the reason of a failed start.
exec 3> >(tee "$results/s3-server.log" >&2)
tee_pid=$!
settings="$(./scripts/s3-server.sh start 2>&3 3>&-)" && store_started=1 || true
exec 3>&-
wait "$tee_pid" 2>/dev/null || true
if [ -n "${store_started:-}" ]; then
  eval "$settings"
  echo "   radosgw at $AWS_ENDPOINT_URL, bucket $S3_BUCKET"
else
  s3_missing="the object store could not be started, so the s3 tests are skipped: $(tail -n 1 "$results/s3-server.log" | sed 's/^s3-server.sh: \[[0-9]*s\] //')"
  echo "   NOTE: $s3_missing"
fi

configure() {
  local dir=$1; shift
  cmake -S . -B "$dir" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DOPC_WERROR=ON "$@" >/dev/null
}

# Runs ctest in the build folder $1 with the arguments after it and sums its cases; a failed
# test is counted and the run goes on.
run_tests() {
  local dir=$1
  shift
  rm -rf "$dir/test-results"
  ctest --test-dir "$dir" --parallel "$jobs" --output-on-failure --timeout 900 \
    --output-junit "$root/$dir/junit.xml" "$@" || failed=1
  tally "$dir" "$root/$dir/junit.xml"
}

build_and_test() {
  step="building $1"
  configure "$@"
  cmake --build "$1" --parallel "$jobs"
  run_tests "$1"
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
step="building build/tsan"
configure build/tsan -DOPC_TSAN=ON -DOPC_BUILD_EXAMPLES=OFF
cmake --build build/tsan --parallel "$jobs" --target opc_threaded_tests
run_tests build/tsan --label-regex threads --no-tests=error
unset TSAN_OPTIONS

echo "== Installed package and .deb files"
step="the install check"
if ./scripts/check-install.sh build/release; then
  echo "counts 1 0 0" >>"$results/tally"
else
  failed=1
  echo "counts 0 1 0" >>"$results/tally"
  echo "fail the install check (scripts/check-install.sh)" >>"$results/tally"
fi
step="the summary"
