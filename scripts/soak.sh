#!/usr/bin/env bash
# The long form of the reliability campaigns (`make soak`): each campaign of the reliability
# tests runs for SOAK_SECONDS in the AddressSanitizer+UndefinedBehaviorSanitizer build (the
# thread stress in the ThreadSanitizer build), then each libFuzzer target for SOAK_FUZZ_SECONDS,
# one after the other, all at low priority. Every campaign appends its figures to the report;
# the fuzz targets' figures (runs, corpus, CPU time) are appended here. Any finding stops
# nothing: the run goes on, names every finding at the end and fails.
#
# Usage: scripts/soak.sh ASAN_BUILD TSAN_BUILD OUT_DIR
# Settings: SOAK_SECONDS (default 300), SOAK_FUZZ_SECONDS (default 1800), SOAK_NICE (10).
set -u
asan=$1 tsan=$2 out=$3
seconds=${SOAK_SECONDS:-300}
fuzz_seconds=${SOAK_FUZZ_SECONDS:-1800}
niceness=${SOAK_NICE:-10}
source_dir=$(cd "$(dirname "$0")/.." && pwd)
mkdir -p "$out"
out=$(cd "$out" && pwd) asan=$(cd "$asan" && pwd) tsan=$(cd "$tsan" && pwd)
report=$out/report.txt
findings=()

{
  echo "soak started $(date -u '+%Y-%m-%d %H:%M UTC') at $(git -C "$source_dir" rev-parse --short HEAD 2>/dev/null || echo unknown)"
  echo "settings SOAK_SECONDS=$seconds SOAK_FUZZ_SECONDS=$fuzz_seconds cores=$(nproc)"
} > "$report"

# One campaign: a test of a reliability executable, run for `seconds`.
campaign() {
  local binary=$1 test=$2 sanitizer_env=$3
  local log=$out/${test//[.*]/_}.log
  local start=$SECONDS
  echo "== $test ($binary), ${seconds}s"
  local TIMEFORMAT='%U %S'
  local cpu
  cpu=$( { time (cd "$source_dir/tests/reliability" && env $sanitizer_env TARVEL_SOAK_SECONDS="$seconds" \
          TARVEL_SOAK_REPORT="$report" TARVEL_TEST_DATA="$source_dir/tests" \
          nice -n "$niceness" "$binary" --gtest_filter="$test" > "$log" 2>&1) ; } 2>&1 )
  local status=$?
  if [ $status -ne 0 ] || ! grep -q '^\[  PASSED  \] 1 test' "$log"; then
    findings+=("$test: see $log")
    echo "finding $test status=$status log=$log" >> "$report"
  fi
  echo "cpu $test wall_seconds=$((SECONDS - start)) cpu_seconds=$(echo "$cpu" | awk '{printf "%.0f", $1 + $2}')" >> "$report"
}

asan_env="ASAN_OPTIONS=detect_leaks=1 UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1"
tsan_env="TSAN_OPTIONS=halt_on_error=1"
# Every test of a gtest executable, as Suite.Test.
tests_of() {
  "$1" --gtest_list_tests | awk '/^[^ ]/ {suite = $1} /^  / {print suite $1}'
}
for test in $(tests_of "$asan/tests/reliability/reliability_tests"); do
  campaign "$asan/tests/reliability/reliability_tests" "$test" "$asan_env"
done
for test in $(tests_of "$tsan/tests/reliability/reliability_thread_tests"); do
  campaign "$tsan/tests/reliability/reliability_thread_tests" "$test" "$tsan_env"
done

# The fuzz targets, one at a time, each growing its corpus in the build tree from the seeds.
fuzz() {
  local target=$1 corpus_name=$2 max_len=$3
  local corpus=$asan/fuzz/corpus/$corpus_name seeds=$source_dir/fuzz/corpus/$corpus_name
  local log=$out/$target.log artifacts=$out/$target-findings/
  mkdir -p "$corpus" "$artifacts"
  local before
  before=$(ls "$corpus" | wc -l)
  echo "== $target, ${fuzz_seconds}s"
  local TIMEFORMAT='%U %S' start=$SECONDS cpu
  cpu=$( { time (nice -n "$niceness" "$asan/fuzz/$target" -max_total_time="$fuzz_seconds" -timeout=10 \
          -max_len="$max_len" -rss_limit_mb=2048 -artifact_prefix="$artifacts" -print_final_stats=1 \
          "$corpus" "$seeds" > "$log" 2>&1) ; } 2>&1 )
  local status=$?
  local runs
  runs=$(sed -n 's/^stat::number_of_executed_units: *//p' "$log" | tail -1)
  if [ $status -ne 0 ] || [ -n "$(ls -A "$artifacts")" ]; then
    findings+=("$target: see $log and $artifacts")
    echo "finding $target status=$status log=$log" >> "$report"
  fi
  echo "fuzz $target runs=${runs:-0} corpus_before=$before corpus_after=$(ls "$corpus" | wc -l)" \
       "wall_seconds=$((SECONDS - start)) cpu_seconds=$(echo "$cpu" | awk '{printf "%.0f", $1 + $2}')" >> "$report"
}
fuzz raw_reader_fuzz raw_reader 16384
fuzz typeinfo_fuzz typeinfo 4096
fuzz vcd_import_fuzz vcd_import 8192

echo "soak ended $(date -u '+%Y-%m-%d %H:%M UTC')" >> "$report"
if [ ${#findings[@]} -ne 0 ]; then
  echo "findings: ${#findings[@]}" >> "$report"
  printf '%s\n' "${findings[@]}"
  exit 1
fi
echo "findings: none" >> "$report"
cat "$report"
