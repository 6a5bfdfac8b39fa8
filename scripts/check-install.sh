#!/usr/bin/env bash
# Checks what a user gets, by building the consumer project (tests/consumer) and running it:
#   1. against `cmake --install` into a scratch prefix, with find_package(opccore) and with
#      pkg-config;
#   2. against the .deb files (cpack -G DEB) installed with apt-get, found without any path;
#      the packages are removed again afterwards, with whatever apt brought along for them.
# Usage: check-install.sh [build folder]   (default build/release; configured for /usr, with
# -DOPC_BUILD_DOCS=ON, and built, as ./scripts/test.sh does)
set -euo pipefail
root="$(cd "$(dirname "$0")/.." && pwd)"
given="${1:-$root/build/release}"
fail() { echo "check-install.sh: $*" >&2; exit 1; }

[ -f "$given/CMakeCache.txt" ] || fail "$given is not a configured build folder: run ./scripts/test.sh first"
build="$(cd "$given" && pwd)"
cached() { sed -n "s/^$1:[A-Z]*=//p" "$build/CMakeCache.txt"; }
libdir="$(cached CMAKE_INSTALL_LIBDIR)"
for tool in pkg-config g++ dpkg-shlibdeps file; do
  command -v "$tool" >/dev/null || fail "$tool is missing: run ./scripts/setup-deps.sh build package"
done
sudo=""
if [ "$(id -u)" -ne 0 ]; then
  command -v sudo >/dev/null || fail "installing the .deb files needs root: run this as root"
  sudo="sudo"
fi
for p in libopccore0 libopccore-dev; do
  if dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed'; then
    fail "$p is installed already, so the check could not leave it as it was: apt-get remove $p first"
  fi
done

work="$build/install-check"
rm -rf "$work"
mkdir -p "$work"

# Builds and runs the consumer twice: CMake package, then pkg-config. $1 names the run; the
# environment (CMAKE_PREFIX_PATH, PKG_CONFIG_PATH, LD_LIBRARY_PATH) says where to look.
consume() {
  local name=$1
  echo "-- consumer against $name: find_package(opccore)"
  cmake -S "$root/tests/consumer" -B "$work/consumer-$name" -G Ninja -DCMAKE_COMPILE_WARNING_AS_ERROR=ON >/dev/null
  cmake --build "$work/consumer-$name" >/dev/null
  "$work/consumer-$name/opc_consumer"
  echo "-- consumer against $name: pkg-config"
  local libs
  libs="$(pkg-config --libs opccore)"
  case "$libs" in *rpath*) fail "opccore.pc puts a run path into Libs: $libs" ;; esac
  g++ -std=c++17 -Wall -Wextra -Wpedantic -Werror "$root/tests/consumer/consumer.cpp" \
      $(pkg-config --cflags opccore) $libs -o "$work/pkgconfig-$name"
  "$work/pkgconfig-$name"
}

echo "== Prefix install"
prefix="$work/prefix"
cmake --install "$build" --prefix "$prefix" >/dev/null
for dir in vela stratum; do
  [ ! -e "$prefix/include/$dir" ] || fail "include/$dir is installed at the top of the prefix"
done
CMAKE_PREFIX_PATH="$prefix" PKG_CONFIG_PATH="$prefix/$libdir/pkgconfig" LD_LIBRARY_PATH="$prefix/$libdir" \
  consume prefix
echo "-- consumer against prefix: the flags the README gives for a build by hand"
g++ -std=c++17 -Wall -Wextra -Wpedantic -Werror "$root/tests/consumer/consumer.cpp" \
    -I"$prefix/include" -I"$prefix/include/opccore" -L"$prefix/$libdir" -lopccore -lstratum_vfs -o "$work/by-hand"
LD_LIBRARY_PATH="$prefix/$libdir" "$work/by-hand"

echo "== .deb files"
cpack -G DEB --config "$build/CPackConfig.cmake" -B "$work/debs" >/dev/null
debs=("$work"/debs/*.deb)
# The test double's library is for tests only: in the -dev package, never in the runtime one.
dev_files="$(dpkg-deb -c "$work"/debs/libopccore-dev_*.deb)"
runtime_files="$(dpkg-deb -c "$work"/debs/libopccore[0-9]*_*.deb)"
grep -q 'libopccore_testing\.so\.' <<<"$dev_files" || fail "libopccore-dev does not carry libopccore_testing.so"
if grep -q opccore_testing <<<"$runtime_files"; then
  fail "the runtime package carries libopccore_testing.so"
fi
before="$work/packages-before"
dpkg-query -W -f='${Package}\n' | sort >"$before"
remove_new_packages() {
  local added
  added=$(dpkg-query -W -f='${Package}\n' | sort | comm -13 "$before" -)
  if [ -n "$added" ]; then
    echo "-- removing what the check installed: $(echo $added)"
    # shellcheck disable=SC2086 # one package name per word
    DEBIAN_FRONTEND=noninteractive $sudo apt-get purge -y -q $added >/dev/null
  fi
}
trap remove_new_packages EXIT
DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -q --no-install-recommends "${debs[@]}" >/dev/null
dpkg-query -W -f='   ${Package} ${Version}: ${Depends}\n' libopccore0 libopccore-dev
[ -f /usr/share/doc/opccore/html/index.html ] || fail "libopccore-dev carries no API reference"
(unset CMAKE_PREFIX_PATH PKG_CONFIG_PATH LD_LIBRARY_PATH; consume deb)
echo "install check passed"
