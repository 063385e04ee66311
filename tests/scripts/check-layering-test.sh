#!/usr/bin/env bash
# scripts/check-layering.sh on a tiny planted tree: every kind of upward include is named
# with its file and line, and nothing else is; the same tree without them passes.
set -uo pipefail
script="$1/scripts/check-layering.sh"
tree=$(mktemp -d)
trap 'rm -rf "$tree"' EXIT

plant() { mkdir -p "$tree/$(dirname "$1")"; printf '%s\n' "${@:2}" > "$tree/$1"; }
plant src/platform/os/Date.h '#pragma once'
plant src/platform/store/Store.h '#pragma once' '#include "platform/os/Date.h"'
plant src/platform/view/View.h '#pragma once' '#include <string>' '#include "platform/os/Date.h"'
plant src/platform/framework/Api.cpp '#include "platform/store/Store.h"' '#include "platform/view/View.h"'
plant src/support/Util.cpp '#include "platform/os/Date.h"' '#include "Util.h"'
plant src/engine/manager/Manage.h '#pragma once' '#include "engine/task/Task.h"'
plant src/engine/task/Task.h '#pragma once' '#include "service/List.h"'
plant src/service/List.h '#pragma once'
plant src/ui/Dialog.h '#pragma once' '#include "engine/manager/Manage.h"'
plant apps/host/main.cpp '#include "Local.h"' '#include "ui/Dialog.h"' '#include "platform/os/Date.h"'
plant apps/host/Local.h '#pragma once'

fail() { echo "FAIL: $*"; exit 1; }
out=$(bash "$script" "$tree") || fail "the clean tree was refused: $out"

# Upward across the platform, between the two sides of it, up a relative path, and from
# a layer into the one that shares its first folder name.
plant src/platform/store/Bad.cpp '#include "platform/os/Date.h"' '#include "platform/framework/Api.h"'
plant src/platform/view/Side.cpp '  #  include "platform/store/Store.h"'
plant src/support/Reach.cpp '#include "../ui/Dialog.h"'
plant src/engine/task/Up.cpp '#include "engine/task/Task.h"' '#include "engine/manager/Manage.h"'
out=$(bash "$script" "$tree"); rc=$?
[[ $rc -eq 1 ]] || fail "exit $rc, not 1: $out"
expected='src/engine/task/Up.cpp:2: engine/task includes engine/manager/Manage.h of engine/manager, which is above it
src/platform/store/Bad.cpp:2: platform/store includes platform/framework/Api.h of platform/framework, which is above it
src/platform/view/Side.cpp:1: platform/view includes platform/store/Store.h of platform/store, which sits beside it
src/support/Reach.cpp:1: support includes ../ui/Dialog.h of ui, which is above it
check-layering: 4 include(s) point up the layer order'
[[ "$out" == "$expected" ]] || fail "$(diff <(echo "$expected") <(echo "$out"))"
echo "ok"
