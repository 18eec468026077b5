#!/usr/bin/env bash
# The VCD benchmark: tarvel import-vcd against GTKWave's vcd2fst, and tarvel export-vcd against
# GTKWave's fst2vcd, on a VCD of about 1.1 GB that Icarus Verilog writes for
# bench/vcd/bench_design.v, all in one run; wall time and peak memory (RSS) of each program. The
# import is also timed on a VCD a quarter as long, to show that its memory does not grow with the
# input. Figures and how to read them: docs/performance.md, "VCD import and export".
#
# Usage: bench/vcd/vcd_bench.sh TARVEL_BINARY [MEGABYTES]
#   The VCDs are made once in $TARVEL_VCD_BENCH_DIR (default /tmp/tarvel_vcd_bench) and reused;
#   delete them to make them anew. Needs iverilog, gtkwave and GNU time (scripts/install-deps.sh
#   vcd); without them it says so and does nothing.
set -euo pipefail
tarvel=$(realpath "${1:?usage: vcd_bench.sh TARVEL_BINARY [MEGABYTES]}")
megabytes=${2:-1100}
here=$(cd "$(dirname "$0")" && pwd)
for program in iverilog vvp vcd2fst fst2vcd /usr/bin/time; do
  if ! command -v "$program" > /dev/null; then
    echo "vcd_bench: skipped: $program is not installed (scripts/install-deps.sh vcd)"
    exit 0
  fi
done
dir=${TARVEL_VCD_BENCH_DIR:-/tmp/tarvel_vcd_bench}
mkdir -p "$dir"
cd "$dir"

# About 4.2 KB of VCD per cycle of the design.
make_vcd() {  # NAME MEGABYTES
  local cycles=$(( $2 * 1000000 / 4200 ))
  if [ ! -s "$1" ]; then
    echo "vcd_bench: simulating $cycles cycles into $dir/$1 ..."
    iverilog -g2012 -DVCD_FILE="\"$1\"" -o design.vvp "$here/bench_design.v"
    vvp -n design.vvp +cycles="$cycles" > /dev/null
  fi
}
make_vcd big.vcd "$megabytes"
make_vcd quarter.vcd $(( megabytes / 4 ))

# measure LABEL COMMAND...: runs the command, prints "label  seconds  MB/s of INPUT  peak MB".
measure() {
  local label=$1 input=$2
  shift 2
  /usr/bin/time -f "%e %M" -o time.txt "$@" > /dev/null 2> stderr.txt || { cat stderr.txt; exit 1; }
  read -r seconds kilobytes < time.txt
  local bytes
  bytes=$(stat -c %s "$input")
  awk -v l="$label" -v s="$seconds" -v b="$bytes" -v k="$kilobytes" \
    'BEGIN { printf "| %-40s | %8.2f | %8.0f | %8.0f |\n", l, s, b / 1e6 / s, k / 1024 }'
  echo "$seconds" > "last_seconds"
}

cat big.vcd > /dev/null  # into the page cache, for every program alike
echo "VCD: $(( $(stat -c %s big.vcd) / 1000000 )) MB; tarvel: $tarvel; load before: $(cut -d' ' -f1-3 /proc/loadavg)"
echo "| run | seconds | MB/s of its input | peak MB |"
echo "|---|---|---|---|"
measure "tarvel import-vcd" big.vcd "$tarvel" import-vcd big.vcd -o big.twf
import=$(cat last_seconds)
measure "vcd2fst (GTKWave)" big.vcd vcd2fst big.vcd big.fst
vcd2fst=$(cat last_seconds)
measure "tarvel export-vcd" big.twf "$tarvel" export-vcd big.twf -o export.vcd
export=$(cat last_seconds)
measure "fst2vcd (GTKWave)" big.fst fst2vcd -f big.fst -o fst2vcd.vcd
fst2vcd=$(cat last_seconds)
measure "tarvel import-vcd, a quarter as long" quarter.vcd "$tarvel" import-vcd quarter.vcd -o quarter.twf
awk -v i="$import" -v v="$vcd2fst" -v e="$export" -v f="$fst2vcd" 'BEGIN {
  printf "import: %.2f times as fast as vcd2fst (target: at least 2)\n", v / i
  printf "export: %.2f times as fast as fst2vcd (target: at least 1)\n", f / e }'
echo "load after: $(cut -d' ' -f1-3 /proc/loadavg) (other work on the machine slows the two-threaded import most)"
echo "sizes: VCD $(stat -c %s big.vcd), tarvel $(stat -c %s big.twf), FST $(stat -c %s big.fst)," \
     "exported VCD $(stat -c %s export.vcd) bytes"
rm -f big.twf big.twf.log quarter.twf big.fst export.vcd fst2vcd.vcd time.txt stderr.txt last_seconds
