#!/usr/bin/env bash
# Installs the Debian packages the project needs, and only when one is missing.
set -euo pipefail

packages=(
  g++ cmake ninja-build pkg-config
  libboost-system1.74-dev libboost-date-time1.74-dev
  libboost-filesystem1.74-dev libboost-iostreams1.74-dev
  libicu-dev zlib1g-dev tzdata
  libgtest-dev libgmock-dev libbenchmark-dev
  strace
)

missing=()
for p in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed'; then
    missing+=("$p")
  fi
done

[ ${#missing[@]} -eq 0 ] && exit 0

sudo=""
[ "$(id -u)" -ne 0 ] && sudo="sudo"
echo "Installing: ${missing[*]}"
export DEBIAN_FRONTEND=noninteractive
$sudo apt-get update -qq
$sudo apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
