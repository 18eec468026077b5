#!/usr/bin/env bash
# Simulates the designs of this folder and writes their VCD fixtures into OUTDIR:
# counter.iverilog.vcd (Icarus Verilog, counter.v) and counter.ghdl.vcd (GHDL, counter.vhd).
# The committed fixtures beside this script were made so; the tests regenerate them into the build
# tree when both simulators are installed (scripts/install-deps.sh vcd) and compare them with the
# committed ones. To refresh the committed fixtures: tests/designs/simulate.sh tests/designs
#
# Usage: simulate.sh OUTDIR
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
out=$(mkdir -p "$1" && cd "$1" && pwd)
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cd "$work"

iverilog -g2012 -DVCD_FILE="\"$out/counter.iverilog.vcd\"" -o counter.vvp "$here/counter.v"
vvp -n counter.vvp > /dev/null

ghdl -a --std=08 --workdir="$work" "$here/counter.vhd"
ghdl -e --std=08 --workdir="$work" tb
ghdl -r --std=08 --workdir="$work" tb --vcd="$out/counter.ghdl.vcd"
