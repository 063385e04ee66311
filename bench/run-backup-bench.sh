#!/usr/bin/env bash
# Builds the backup-run benchmark in Release and runs it; the results table replaces the
# one in bench/README.md (between the RESULTS markers).
# usage: bench/run-backup-bench.sh [WHERE] [extra benchmark options, e.g. --keep]
set -euo pipefail

here="$(cd "$(dirname "$0")" && pwd)"
top="$(dirname "$here")"
build="$top/build-bench"
where="${1:-/tmp}"
shift || true

cmake -G Ninja -S "$top" -B "$build" -DCMAKE_BUILD_TYPE=Release \
      -DCV_BUILD_TESTS=OFF -DCV_BUILD_BENCH=ON >/dev/null
cmake --build "$build" -j2 --target backup_run_bench

out="$(mktemp)"
trap 'rm -f "$out" "$out.section"' EXIT
note=""
status=0
"$build/bench/backup_run_bench" --files 100000 "$@" "$where" >"$out" || status=$?
if [ "$status" -eq 3 ]; then
    note="A run over 100,000 files went past 10 minutes and was stopped; these figures are for 10,000 files."
    status=0
    "$build/bench/backup_run_bench" --files 10000 "$@" "$where" >"$out" || status=$?
fi
cat "$out"
[ "$status" -eq 0 ] || { echo "benchmark failed ($status)" >&2; exit "$status"; }

mem_kb="$(awk '/^MemTotal:/ {print $2}' /proc/meminfo)"
fs_type="$(df -T "$where" | awk 'NR==2 {print $2}')"
{
    echo "<!-- RESULTS -->"
    echo "Measured $(date -u '+%Y-%m-%d %H:%M UTC') on: $(nproc) CPUs," \
         "$((mem_kb / 1024)) MiB memory, temp folder on $fs_type, kernel $(uname -r)," \
         "warm cache (the tree is generated just before the runs)."
    echo
    [ -n "$note" ] && { echo "$note"; echo; }
    cat "$out"
    echo "<!-- /RESULTS -->"
} >"$out.section"

readme="$here/README.md"
if [ -f "$readme" ] && grep -q '^<!-- RESULTS -->$' "$readme"; then
    awk -v section="$out.section" '
        /^<!-- RESULTS -->$/ { while ((getline line < section) > 0) print line; skip = 1; next }
        /^<!-- \/RESULTS -->$/ { skip = 0; next }
        !skip { print }' "$readme" >"$readme.new"
    mv "$readme.new" "$readme"
else
    cat "$out.section" >>"$readme"
fi
rm -f "$out.section"
echo "table written to $readme"
