#!/usr/bin/env bash
# The side-by-side suite: our engine and other tools on the same generated data, run by
# run, the tools taking turns; the results table replaces the one in bench/README.md
# (between the SUITE markers).
#
# usage: bench/run.sh [--runs N] [--work DIR] [--no-install] PROFILE...
#   PROFILE   tiny, small, large, mixed (bench/dataset.py)
#   --runs    counted rounds after one warm-up round (default 3)
#   --work    where the data, destinations and raw results go (default /tmp/cirrovault-suite;
#             emptied first, removed at the end unless BENCH_KEEP=1)
#
# A round is, per profile: every tool backs the tree up into an empty destination
# (full); every tool runs again with nothing changed (nochange); 1% of the files get a
# new modification time and every tool runs (touch); for our engine, 1% of the files
# get new content (version: the old copies move into the history folders). Floors:
# find (the metadata walk), cat of every file (the read), cp -a (the copy).
set -euo pipefail

here="$(cd "$(dirname "$0")" && pwd)"
top="$(dirname "$here")"
runs=3
work="${BENCH_WORK:-/tmp/cirrovault-suite}"
install=1
profiles=()
while [ $# -gt 0 ]; do
    case "$1" in
    --runs) runs="$2"; shift 2 ;;
    --work) work="$2"; shift 2 ;;
    --no-install) install=0; shift ;;
    -h|--help) sed -n '2,17p' "$0"; exit 0 ;;
    *) profiles+=("$1"); shift ;;
    esac
done
[ ${#profiles[@]} -gt 0 ] || { echo "usage: $0 [--runs N] [--work DIR] PROFILE..." >&2; exit 1; }

say() { printf '[%s] %s\n' "$(date -u +%H:%M:%S)" "$*" >&2; }

# ---- tools -----------------------------------------------------------------------------
if [ "$install" -eq 1 ]; then
    need=()
    command -v rsync >/dev/null || need+=(rsync)
    command -v rclone >/dev/null || need+=(rclone)
    command -v restic >/dev/null || need+=(restic)
    command -v borg >/dev/null || need+=(borgbackup)
    [ -x /usr/bin/time ] || need+=(time)
    command -v python3 >/dev/null || need+=(python3)
    if [ ${#need[@]} -gt 0 ]; then
        sudo=""
        [ "$(id -u)" -eq 0 ] || sudo="sudo"
        say "installing ${need[*]}"
        $sudo apt-get update -qq
        DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -qq --no-install-recommends "${need[@]}"
    fi
fi
for tool in rsync rclone restic borg python3; do
    command -v "$tool" >/dev/null || { echo "missing: $tool" >&2; exit 1; }
done

build="$top/build-bench"
say "building engine_run (Release) in $build"
cmake -G Ninja -S "$top" -B "$build" -DCMAKE_BUILD_TYPE=Release \
      -DCV_BUILD_TESTS=OFF -DCV_BUILD_BENCH=ON >/dev/null
cmake --build "$build" -j"$(nproc)" --target engine_run >/dev/null
engine="$build/bench/engine_run"

# ---- work folder -----------------------------------------------------------------------
case "$work" in /|"") echo "refusing work folder '$work'" >&2; exit 1 ;; esac
rm -rf "$work"
mkdir -p "$work"
results="$work/results.tsv"
printf 'profile\tjob\ttool\tround\twall\tuser\tsys\tmaxrss_kb\twork\trss_before_kb\thwm_kb\tuploads\n' >"$results"
export RESTIC_PASSWORD=bench
export RESTIC_CACHE_DIR="$work/cache/restic"
export BORG_BASE_DIR="$work/cache/borg"
export BORG_UNKNOWN_UNENCRYPTED_REPO_ACCESS_IS_OK=yes
export BORG_RELOCATED_REPO_ACCESS_IS_OK=yes
export RCLONE_CONFIG="$work/cache/rclone.conf" # none: rclone's defaults

# measure PROFILE JOB TOOL ROUND COMMAND...: one timed run, one line of results.
measure() {
    local profile="$1" job="$2" tool="$3" round="$4"
    shift 4
    local log="$work/logs/$profile-$job-$tool-$round.log" times="$work/time.out"
    local report="$work/engine.report"
    rm -f "$report"
    mkdir -p "$work/logs"
    # Nothing another tool left unwritten may be paid by this one: ours makes its files
    # durable at the end of a run (a sync of the file system), the others do not.
    sync
    if ! /usr/bin/time -f '%e %U %S %M' -o "$times" "$@" >"$log" 2>&1; then
        echo "failed: $tool $job (round $round), see $log" >&2
        tail -5 "$log" >&2
        exit 1
    fi
    local wall user sys rss
    read -r wall user sys rss < <(tail -1 "$times")
    local w="" before="" hwm="" uploads=""
    if [ -f "$report" ]; then
        w="$(sed -n 's/.*work=\([^ ]*\).*/\1/p' "$report")"
        before="$(sed -n 's/.*rss_before_kb=\([^ ]*\).*/\1/p' "$report")"
        hwm="$(sed -n 's/.*hwm_kb=\([^ ]*\).*/\1/p' "$report")"
        uploads="$(sed -n 's/.*uploads=\([^ ]*\).*/\1/p' "$report")"
    fi
    printf '%s\t%s\t%s\t%s\t%s\t%s\t%s\t%s\t%s\t%s\t%s\t%s\n' "$profile" "$job" "$tool" "$round" \
        "$wall" "$user" "$sys" "$rss" "$w" "$before" "$hwm" "$uploads" >>"$results"
    say "  $profile $job $tool: ${wall}s${w:+ (work ${w}s)}"
}

# run_tool PROFILE JOB TOOL ROUND: the tool's command for the job; "full" starts from
# an empty destination (made outside the timing).
run_tool() {
    local profile="$1" job="$2" tool="$3" round="$4"
    local src="$work/data/$profile" dest="$work/dest/$profile/$tool"
    if [ "$job" = full ]; then
        rm -rf "$dest"
        mkdir -p "$dest"
        case "$tool" in
        restic) rm -rf "$RESTIC_CACHE_DIR"; restic init --repo "$dest/repo" >/dev/null 2>&1 ;;
        borg) rm -rf "$BORG_BASE_DIR"; borg init --encryption=none "$dest/repo" >/dev/null 2>&1 ;;
        esac
    fi
    case "$tool" in
    ours) measure "$@" "$engine" "$src" "$dest/store" "$dest/state" "$work/engine.report" ;;
    rsync) measure "$@" rsync -a "$src/" "$dest/copy/" ;;
    rclone) measure "$@" rclone copy "$src" "$dest/copy" ;;
    restic) measure "$@" restic --repo "$dest/repo" backup "$src" ;;
    borg) measure "$@" borg create "$dest/repo::$job-$round" "$src" ;;
    cp) rm -rf "$dest/copy"; measure "$@" cp -a "$src" "$dest/copy" ;;
    cat) measure "$@" sh -c 'find "$1" -type f -print0 | xargs -0 cat >/dev/null' sh "$src" ;;
    find) measure "$@" find "$src" -type f -printf '%s %T@\n' ;;
    esac
}

# Each round starts the tools at a different place in the list, so no tool always
# runs first (or right after the same neighbour).
rotate() {
    local shift_by="$1"
    shift
    local tools=("$@") n=$# i
    for ((i = 0; i < n; i++)); do
        echo "${tools[(i + shift_by) % n]}"
    done
}

peers=(ours rsync rclone restic borg)
for profile in "${profiles[@]}"; do
    say "$profile: making the data set"
    python3 "$here/dataset.py" make "$profile" "$work/data/$profile"
    read -r files bytes < <(python3 "$here/dataset.py" count "$work/data/$profile")
    printf '%s\t%s\t%s\n' "$profile" "$files" "$bytes" >>"$work/profiles.tsv"
    for ((round = 0; round <= runs; round++)); do
        say "$profile: round $round of $runs (0 is the warm-up)"
        for tool in $(rotate "$round" "${peers[@]}" cp cat find); do
            run_tool "$profile" full "$tool" "$round"
        done
        for tool in $(rotate "$round" "${peers[@]}" find); do
            run_tool "$profile" nochange "$tool" "$round"
        done
        python3 "$here/dataset.py" touch "$work/data/$profile" 1 --round "$((2 * round + 1))" >/dev/null
        for tool in $(rotate "$round" "${peers[@]}" find); do
            run_tool "$profile" touch "$tool" "$round"
        done
        python3 "$here/dataset.py" version "$work/data/$profile" 1 --round "$((2 * round + 2))" >/dev/null
        run_tool "$profile" version ours "$round"
    done
    rm -rf "$work/dest/$profile"
done

# ---- report ----------------------------------------------------------------------------
mem_kb="$(awk '/^MemTotal:/ {print $2}' /proc/meminfo)"
machine="$(nproc) CPUs ($(grep -m1 'model name' /proc/cpuinfo | cut -d: -f2 | sed 's/^ *//')), $((mem_kb / 1024)) MiB memory, data on $(df -T "$work" | awk 'NR==2 {print $2}'), kernel $(uname -r); warm cache (the data were just written and are read again each run)"
section="$work/section.md"
python3 "$here/report.py" "$results" "$work/profiles.tsv" "$runs" "$machine" \
    "$(rsync --version | head -1 | awk '{print "rsync " $3}'), $(rclone version 2>/dev/null | head -1), $(restic version | awk '{print $1 " " $2}'), $(borg --version)" \
    >"$section"
cat "$section"
cp "$results" "$here/last-results.tsv"

readme="$here/README.md"
if grep -q '^<!-- SUITE -->$' "$readme"; then
    awk -v section="$section" '
        /^<!-- SUITE -->$/ { while ((getline line < section) > 0) print line; skip = 1; next }
        /^<!-- \/SUITE -->$/ { skip = 0; next }
        !skip { print }' "$readme" >"$readme.new"
    mv "$readme.new" "$readme"
else
    cat "$section" >>"$readme"
fi
say "table written to $readme; raw figures in $here/last-results.tsv"
[ "${BENCH_KEEP:-0}" = 1 ] || rm -rf "$work"
