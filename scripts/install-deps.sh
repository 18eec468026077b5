#!/usr/bin/env bash
# Installs the Debian packages the build, tests, benchmarks and `make package` need (pkgconf for
# the install test, dpkg-dev for the package's dependencies), when they are missing.
# As root it installs them with apt-get (waiting for another apt or dpkg to finish); otherwise it
# prints the command to run and fails.
#
#   scripts/install-deps.sh        what the build, `make test` and `make package` need
#   scripts/install-deps.sh vcd    that, and the simulators and viewer tools of the VCD tests and
#                                  benchmarks: Icarus Verilog, GHDL, GTKWave (vcd2fst, fst2vcd),
#                                  GNU time (the benchmark's wall time and peak memory)
#   scripts/install-deps.sh python the Python module's build and tests, for Debian's own
#                                  /usr/bin/python3: its headers, pybind11, numpy, pytest,
#                                  matplotlib (the example of docs/python.md), venv (pip install .)
#   scripts/install-deps.sh bench  that, the VCD target's tools, and what `make bench` compares
#                                  against: Verilator (its package ships the FST format's C
#                                  sources, which the comparison harness compiles in), the zlib
#                                  headers they need, and perf and Valgrind for profiles
set -euo pipefail
packages=(cmake ninja-build g++ clang libclang-rt-14-dev libgtest-dev libgmock-dev libbenchmark-dev libcli11-dev make
          pkgconf dpkg-dev)
for target in "$@"; do
  case "$target" in
    vcd) packages+=(iverilog ghdl gtkwave time) ;;
    python) packages+=(python3-dev pybind11-dev python3-numpy python3-pytest python3-matplotlib python3-venv) ;;
    bench) packages+=(iverilog ghdl gtkwave time verilator zlib1g-dev linux-perf valgrind) ;;
    *) echo "install-deps.sh: unknown target '$target' (known: vcd, python, bench)" >&2; exit 2 ;;
  esac
done
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
  # Another apt-get or dpkg may hold the lock (a second worktree, unattended upgrades): wait.
  wait_lock=(-o DPkg::Lock::Timeout=600)
  apt-get "${wait_lock[@]}" update -q
  apt-get "${wait_lock[@]}" install -y -q --no-install-recommends "${missing[@]}"
else
  echo "Missing packages: ${missing[*]}" >&2
  echo "Run: sudo apt-get install -y ${missing[*]}" >&2
  exit 1
fi
