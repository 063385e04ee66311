#!/usr/bin/env bash
# Non-blank lines of C++ in tests/ against src/ and apps/, and the share they make.
# usage: scripts/test-share.sh [--by-folder]
set -euo pipefail
cd "$(dirname "$0")/.."
count() { find "$@" -type f \( -name '*.cpp' -o -name '*.h' \) -print0 | xargs -0 -r cat | grep -cv '^[[:space:]]*$'; }
code=$(count src apps)
tests=$(count tests)
if [ "${1:-}" = "--by-folder" ]; then
    for d in tests/*/; do printf '%7d  %s\n' "$(count "$d")" "$d"; done | sort -rn
fi
awk -v t="$tests" -v c="$code" 'BEGIN { printf "tests %d, code %d: %.1f%% (35%% allows %d)\n", t, c, 100 * t / c, int(0.35 * c) }'
