#!/usr/bin/env bash
# Runs the comparison harness at a few thousand events per workload into a copy of a document with
# its markers, and checks the outcome: every measurement succeeded and read back every event
# (the harness answers non-zero otherwise), the table replaced what stood between the markers,
# and it has the rows of every workload and peer.
# Usage: smoke_test.sh COMPARE_BENCH TARVEL_TOOL DESIGNS_DIR
set -euo pipefail
dir=$(mktemp -d)
trap 'rm -rf "$dir"' EXIT
printf 'before\n<!-- compare_bench: begin -->\nold table\n<!-- compare_bench: end -->\nafter\n' > "$dir/doc.md"
"$1" --events 3000 --dir "$dir/work" --tarvel "$2" --designs "$3" --docs "$dir/doc.md" > "$dir/out.md" 2> "$dir/err.txt" || {
  cat "$dir/err.txt"; echo "smoke_test: the harness failed"; exit 1; }
fail() { echo "smoke_test: $1"; cat "$dir/doc.md"; exit 1; }
grep -q 'old table' "$dir/doc.md" && fail "the old table is still there"
[ "$(head -1 "$dir/doc.md")" = before ] && [ "$(tail -1 "$dir/doc.md")" = after ] || fail "text outside the markers changed"
rows=$(grep -c '^|.*| tarvel |' "$dir/doc.md")
[ "$rows" -eq 6 ] || fail "$rows tarvel rows instead of 6 (four workloads, two traces)"
grep -q 'FST peer skipped' "$dir/err.txt" || [ "$(grep -c '| FST |' "$dir/doc.md")" -eq 6 ] || fail "FST rows missing"
[ "$(grep -c 'tarvel ÷ VCD' "$dir/doc.md")" -eq 6 ] || fail "ratio rows missing"
echo "smoke_test: ok"
