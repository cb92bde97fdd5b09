#!/usr/bin/env bash
# Runs every fuzz target of a fuzz build for a bounded time.
#   tests/fuzz/run.sh [SECONDS_PER_TARGET] [BUILD_DIR]   (defaults: 30, build-fuzz)
# Each target starts from its checked-in corpus (tests/fuzz/corpus/NAME, read
# only) plus a scratch corpus, with its dictionary (tests/fuzz/dict/NAME.dict,
# else request.dict). Findings go to BUILD_DIR/fuzz-findings/. Ends with the
# line "fuzz: T targets, E executions, C crashes"; exits 1 when C > 0.
set -uo pipefail
here=$(cd "$(dirname "$0")" && pwd)
top=$(cd "$here/../.." && pwd)
secs=${1:-30}
build=${2:-$top/build-fuzz}
case "$build" in /*) ;; *) build="$top/$build" ;; esac
findings="$build/fuzz-findings"
mkdir -p "$findings"
targets=0 execs=0 crashes=0
for bin in "$build"/bin/fuzz_*; do
  [ -x "$bin" ] || continue
  name=${bin##*/fuzz_}
  work="$build/fuzz-work/$name"
  mkdir -p "$work" "$here/corpus/$name"
  dict="$here/dict/$name.dict"
  [ -f "$dict" ] || dict="$here/dict/request.dict"
  log="$build/fuzz-$name.log"
  (cd "$findings" && "$bin" -max_total_time="$secs" -timeout=20 -rss_limit_mb=2048 \
      -print_final_stats=1 -dict="$dict" -artifact_prefix="$findings/$name-" \
      "$work" "$here/corpus/$name" >"$log" 2>&1)
  rc=$?
  runs=$(sed -n 's/^stat::number_of_executed_units: *//p' "$log" | tail -1)
  rate=$(sed -n 's/^stat::average_exec_per_sec: *//p' "$log" | tail -1)
  cov=$(grep -o 'cov: [0-9]*' "$log" | tail -1)
  targets=$((targets + 1))
  execs=$((execs + ${runs:-0}))
  if [ "$rc" -ne 0 ]; then
    crashes=$((crashes + 1))
    echo "fuzz_$name: FOUND A FAULT (exit $rc); see $log and $findings/"
    grep -m3 -E 'invariant broken|ERROR: (AddressSanitizer|libFuzzer)|runtime error' "$log" || true
  fi
  echo "fuzz_$name: ${runs:-0} executions in ${secs}s, ${rate:-0} per second, ${cov:-cov: ?} edges"
done
echo "fuzz: $targets targets, $execs executions, $crashes crashes"
[ "$targets" -gt 0 ] && [ "$crashes" -eq 0 ]
