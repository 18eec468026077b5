#!/usr/bin/env bash
# Installs the Debian packages the build, tests, benchmarks and `make package` need (pkgconf for
# the install test, dpkg-dev for the package's dependencies), when they are missing.
# As root it installs them with apt-get; otherwise it prints the command to run and fails.
set -euo pipefail
packages=(cmake ninja-build g++ clang libclang-rt-14-dev libgtest-dev libgmock-dev libbenchmark-dev libcli11-dev make
          pkgconf dpkg-dev)
missing=()
for p in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed"; then
    missing+=("$p")
  fi
done
[ ${#missing[@]} -eq 0 ] && exit 0
if [ "$(id -u)" -eq 0 ]; then
  echo "Installing: ${missing[*]}"
  export DEBIAN_FRONTEND=noninteractive
  apt-get update -q
  apt-get install -y -q --no-install-recommends "${missing[@]}"
else
  echo "Missing packages: ${missing[*]}" >&2
  echo "Run: sudo apt-get install -y ${missing[*]}" >&2
  exit 1
fi
