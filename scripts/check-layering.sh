#!/usr/bin/env bash
# Fails on any #include "..." in src/ or apps/ that points up the layer order, or across
# between two layers side by side, naming the file, the line and the two layers.
# Usage: scripts/check-layering.sh [TREE] (default: this repository). Needs only bash,
# find, grep and awk.
#
# The order, top to bottom. Each layer may include itself and, directly or through the
# layers named after it, everything below: store and view sit side by side and do not
# include each other. Keep it the same as the layers of DESIGN.md and docs/architecture.md.
LAYERS='
apps                ui
ui                  engine/manager
engine/manager      engine/task
engine/task         service
service             support
support             platform/framework
platform/framework  platform/store platform/view
platform/store      platform/os
platform/view       platform/os
platform/os
'
# What it says when a store file reaches up into the framework (a copy of the tree with
# `#include "platform/framework/NimboSetting.h"` planted as line 6 of StoreFactory.cpp):
#   $ bash scripts/check-layering.sh /tmp/layering-copy; echo "rc=$?"
#   src/platform/store/StoreFactory.cpp:6: platform/store includes platform/framework/NimboSetting.h of platform/framework, which is above it
#   check-layering: 1 include(s) point up the layer order
#   rc=1
set -euo pipefail
tree="${1:-$(dirname "$0")/..}"
cd "$tree"
[[ -d src ]] || { echo "check-layering: no src/ in $tree" >&2; exit 2; }

folders=(src)
[[ -d apps ]] && folders+=(apps)
mapfile -t sources < <(find "${folders[@]}" -type f \( -name '*.h' -o -name '*.hpp' -o -name '*.cpp' -o -name '*.inc' \) | sort)
[[ ${#sources[@]} -gt 0 ]] || { echo "check-layering: no sources under $tree" >&2; exit 2; }

# The file list first (to resolve includes next to the including file), then the includes.
{
    printf 'FILE %s\n' "${sources[@]}"
    grep -Hn '^[[:space:]]*#[[:space:]]*include[[:space:]]*"' "${sources[@]}" || true
} | awk -v table="$LAYERS" '
function normalise(path,    parts, n, i, out, k) {
    n = split(path, parts, "/"); k = 0
    for (i = 1; i <= n; i++) {
        if (parts[i] == "" || parts[i] == ".") continue
        if (parts[i] == "..") { if (k > 0) k--; continue }
        out[++k] = parts[i]
    }
    path = ""
    for (i = 1; i <= k; i++) path = path (i > 1 ? "/" : "") out[i]
    return path
}
# The layer a repository path belongs to: the longest layer folder it lies in.
function layerOf(path,    best, layer, folder) {
    best = ""
    for (layer in below) {
        folder = (layer == "apps") ? "apps/" : "src/" layer "/"
        if (index(path, folder) == 1 && length(layer) > length(best)) best = layer
    }
    return best
}
# Whether "from" may include "to": itself, or anything reachable down the table.
function mayInclude(from, to,    queue, seen, head, tail, cur, n, i, next_) {
    if (from == to) return 1
    head = 1; tail = 0; queue[++tail] = from; seen[from] = 1
    while (head <= tail) {
        cur = queue[head++]
        n = split(below[cur], next_, " ")
        for (i = 1; i <= n; i++) {
            if (next_[i] == to) return 1
            if (!(next_[i] in seen)) { seen[next_[i]] = 1; queue[++tail] = next_[i] }
        }
    }
    return 0
}
BEGIN {
    n = split(table, rows, "\n")
    for (i = 1; i <= n; i++) {
        m = split(rows[i], cells, " ")
        if (m == 0) continue
        below[cells[1]] = ""
        for (j = 2; j <= m; j++) below[cells[1]] = below[cells[1]] " " cells[j]
    }
    bad = 0
}
$1 == "FILE" { exists[$2] = 1; next }
{
    # file:line:text, with the include between the first pair of quotes
    file = $0; sub(/:.*/, "", file)
    rest = substr($0, length(file) + 2)
    line = rest; sub(/:.*/, "", line)
    inc = rest; sub(/^[^"]*"/, "", inc); sub(/".*/, "", inc)
    dir = file; sub(/\/[^\/]*$/, "", dir)
    from = layerOf(file)
    if (from == "") next
    target = normalise(dir "/" inc)
    if (!(target in exists)) target = "src/" normalise(inc)
    to = layerOf(target)
    if (to == "" || mayInclude(from, to)) next
    printf "%s:%s: %s includes %s of %s, which %s it\n", file, line, from, inc, to,
           mayInclude(to, from) ? "is above" : "sits beside"
    bad++
}
END {
    if (bad) {
        printf "check-layering: %d include(s) point up the layer order\n", bad
        exit 1
    }
}'
