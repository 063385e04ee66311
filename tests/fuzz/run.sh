#!/usr/bin/env bash
# Runs every fuzzer of BUILD (default build-fuzz): first each checked-in seed once, as a
# regression test, then new inputs for FUZZ_SECONDS (default 20), FUZZ_JOBS at a time.
# New inputs that grew coverage go to BUILD/corpus, never into the checked-in seeds;
# a crash leaves its input in BUILD/artifacts and fails the run.
# usage: run.sh [BUILD] [fuzzer names...]
set -uo pipefail
here="$(cd "$(dirname "$0")" && pwd)"
build="${1:-build-fuzz}"
shift || true
seconds="${FUZZ_SECONDS:-20}"
jobs="${FUZZ_JOBS:-2}"
names=("$@")
if [ ${#names[@]} -eq 0 ]; then
  for d in "$here"/corpus/*/; do names+=("$(basename "$d")"); done
fi
mkdir -p "$build/artifacts" "$build/logs"
export ASAN_OPTIONS="${ASAN_OPTIONS:-detect_leaks=1:abort_on_error=1}"
export UBSAN_OPTIONS="${UBSAN_OPTIONS:-halt_on_error=1:print_stacktrace=1}"

run_one() {
  local name="$1" bin="$build/tests/fuzz/fuzz_$1" seeds="$here/corpus/$1"
  local work="$build/corpus/$1" log="$build/logs/$1.log"
  mkdir -p "$work"
  # The seeds once each: a fixed crash must stay fixed.
  if ! "$bin" -runs=0 -artifact_prefix="$build/artifacts/$name-" "$seeds" >"$log" 2>&1; then
    echo "fuzz_$name: a seed fails (see $log)"; return 1
  fi
  if ! "$bin" -max_total_time="$seconds" -timeout=10 -rss_limit_mb=2048 -print_final_stats=1 \
      -artifact_prefix="$build/artifacts/$name-" "$work" "$seeds" >>"$log" 2>&1; then
    echo "fuzz_$name: FAILED (see $log)"; tail -n 30 "$log"; return 1
  fi
  local stats
  stats=$(grep -E '^#[0-9]+.*(DONE|cov:)' "$log" | tail -n 1)
  echo "fuzz_$name: ok ${seconds}s  $stats"
}

failed=0
running=0
for name in "${names[@]}"; do
  run_one "$name" &
  running=$((running + 1))
  if [ "$running" -ge "$jobs" ]; then
    wait -n || failed=1
    running=$((running - 1))
  fi
done
while [ "$running" -gt 0 ]; do
  wait -n || failed=1
  running=$((running - 1))
done
exit $failed
