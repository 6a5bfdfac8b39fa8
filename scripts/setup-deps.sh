#!/usr/bin/env bash
# Installs the Debian packages a task needs, and only those that are missing.
#
#   setup-deps.sh [group...]    groups: build (the default), test, bench, profile, docs, package, s3, all
#
# build: compile the library and the examples; test: the unit tests; bench: the benchmarks and
# the tools bench_s3 compares with (awscli, rclone);
# profile: instruction counts and system-call traces of a benchmark (callgrind, perf, strace);
# docs: the API reference; package: the .deb files; s3: the one-node Ceph object store
# (radosgw) that scripts/s3-server.sh runs for the s3 scheme's tests, and awscli.
# all: every group but profile and s3 (a few hundred MB, for the object-store tests only). apt's own progress is shown.
set -euo pipefail

declare -A groups=(
  [build]="g++ cmake ninja-build pkg-config libboost-system1.74-dev libboost-date-time1.74-dev
           libboost-filesystem1.74-dev libboost-iostreams1.74-dev libicu-dev libssl-dev tzdata
           libcurl4-openssl-dev libpugixml-dev"
  [test]="libgtest-dev libgmock-dev strace acl"
  [bench]="libbenchmark-dev awscli rclone"
  [profile]="valgrind linux-perf strace"
  [docs]="doxygen"
  [package]="dpkg-dev file"
  [s3]="ceph-mon ceph-osd radosgw ceph-common awscli curl iproute2"
)

wanted=("$@")
[ ${#wanted[@]} -eq 0 ] && wanted=(build)
[ "${wanted[*]}" = all ] && wanted=(build test bench docs package)

packages=()
for g in "${wanted[@]}"; do
  if [ -z "${groups[$g]+set}" ]; then
    echo "setup-deps.sh: unknown group '$g'; the groups are: build test bench profile docs package s3 all" >&2
    exit 2
  fi
  # shellcheck disable=SC2206 # the lists are plain words
  packages+=(${groups[$g]})
done

missing=()
for p in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed'; then
    missing+=("$p")
  fi
done
[ ${#missing[@]} -eq 0 ] && exit 0

if ! command -v apt-get >/dev/null; then
  echo "setup-deps.sh: apt-get not found; install these packages by hand: ${missing[*]}" >&2
  exit 1
fi
sudo=""
if [ "$(id -u)" -ne 0 ]; then
  if ! command -v sudo >/dev/null; then
    echo "setup-deps.sh: missing ${missing[*]}; run as root: ./scripts/setup-deps.sh ${wanted[*]}" >&2
    exit 1
  fi
  sudo="sudo"
fi

echo "== Installing: ${missing[*]}"
export DEBIAN_FRONTEND=noninteractive
$sudo apt-get update
# -q: one line per package fetched, unpacked and set up, without the redrawn progress bars.
if ! $sudo apt-get install -y -q --no-install-recommends "${missing[@]}"; then
  echo "setup-deps.sh: apt-get could not install: ${missing[*]} (these names are Debian 12's)" >&2
  exit 1
fi
