#!/usr/bin/env bash
# Kill -9 campaign: backups are killed at random points of first runs, second runs (new
# files) and version-moving runs (changed files), on the local store and on Apache's
# WebDAV. After every kill: the store's database passes its integrity check (local), the
# next run ends 0, a whole restore equals the source, there is one task, and the History
# holds no stray or doubled version. Seeded, so a failure can be run again as it was.
#
#   scripts/kill-campaign.sh [BUILD]     KILLS=20 SEED=17 STORES="local apache"
set -uo pipefail
build=${1:-build}
bin="$(cd "$build" && pwd)/cirrovault"
kills=${KILLS:-20}
seed=${SEED:-17}
stores=${STORES:-local apache}
work=$(mktemp -d /tmp/cirrovault-kills.XXXXXX)
apache_pid=
failures=0

cleanup() {
  if [ -n "$apache_pid" ]; then
    kill "$apache_pid" 2>/dev/null
    wait "$apache_pid" 2>/dev/null
  fi
  if [ "$failures" -eq 0 ] && [ -z "${KEEP:-}" ]; then rm -rf "$work"; else echo "kept: $work"; fi
}
trap cleanup EXIT
trap 'exit 130' INT TERM

say() { printf '%s\n' "$*"; }
fail() {
  say "FAIL [$label]: $*"
  failures=$((failures + 1))
}

# Deterministic pseudo-random numbers from the seed, also across bash versions.
rng_state=$seed
rand() { # rand N: sets r to 0..N-1 (no subshell, so the state moves on)
  rng_state=$(( (rng_state * 1103515245 + 12345) % 2147483648 ))
  r=$(( (rng_state / 65536) % $1 ))
}

# Files with contents unique to (name, generation): a version equal to another is stray.
generate() { # generate FOLDER GENERATION COUNT [CHANGE_EVERY]
  python3 - "$@" <<'EOF'
import hashlib, os, sys, random
folder, generation, count = sys.argv[1], int(sys.argv[2]), int(sys.argv[3])
every = int(sys.argv[4]) if len(sys.argv) > 4 else 1
rng = random.Random(generation * 7919 + count)
for i in range(count):
    if i % every:
        continue
    sub = os.path.join(folder, "d%d" % (i % 4), "e%d" % (i % 3))
    os.makedirs(sub, exist_ok=True)
    size = rng.choice([700, 5000, 40000, 300000, 1500000]) if i % 9 else 3000000
    head = ("%s gen %d\n" % ("f%d" % i, generation)).encode()
    block = hashlib.sha256(head).digest() * (size // 32 + 1)
    path = os.path.join(sub, "f%d.txt" % i)
    with open(path, "wb") as f:
        f.write(head + block[: max(0, size - len(head))])
    st = os.stat(path)
    # Changes are told by size and whole seconds: step the time on with each generation.
    os.utime(path, (st.st_atime, 1_700_000_000 + generation * 100 + i))
EOF
}

# Checks the History below ROOT: no two versions alike, none equal to a current copy.
check_history() { # check_history STORE_FILES_ROOT
  python3 - "$1" <<'EOF'
import hashlib, os, sys
root = sys.argv[1]
seen, current, problems = {}, set(), []
for folder, dirs, files in os.walk(root):
    dirs[:] = [d for d in dirs if d != ".DAV"]
    history = "History" in os.path.relpath(folder, root).split(os.sep)
    for name in files:
        if name.endswith(".part") or name.startswith(".cirrovault"):
            continue
        path = os.path.join(folder, name)
        digest = hashlib.sha256(open(path, "rb").read()).hexdigest()
        if history:
            if digest in seen:
                problems.append("doubled version %s and %s" % (seen[digest], path))
            seen[digest] = path
        else:
            current.add(digest)
for digest, path in seen.items():
    if digest in current:
        problems.append("version equal to the current copy: %s" % path)
print("\n".join(problems))
sys.exit(1 if problems else 0)
EOF
}

integrity() { # integrity STORE_FOLDER
  python3 - "$1/store.db" <<'EOF'
import os, sqlite3, sys
if not os.path.exists(sys.argv[1]):
    sys.exit(0)  # cut off before the store was made: the next run makes it
try:
    answer = sqlite3.connect(sys.argv[1]).execute("PRAGMA integrity_check").fetchone()[0]
except sqlite3.Error as error:
    answer = "cannot be read: %s" % error
print(answer)
sys.exit(0 if answer == "ok" else 1)
EOF
}

start_apache() {
  local dir=$1
  mkdir -p "$dir/data/alice"
  htpasswd -bc "$dir/users" alice secret >/dev/null 2>&1 || { say "htpasswd is missing"; return 1; }
  port=$(python3 -c 'import socket; s=socket.socket(); s.bind(("127.0.0.1",0)); print(s.getsockname()[1])')
  local modules=/usr/lib/apache2/modules
  {
    printf 'ServerRoot %s\nServerName 127.0.0.1\nListen 127.0.0.1:%s\n' "$dir" "$port"
    printf 'PidFile %s/httpd.pid\nErrorLog %s/error.log\nLogLevel warn\nDefaultRuntimeDir %s\n' "$dir" "$dir" "$dir"
    for m in mpm_event authz_core authn_core authn_file authz_user auth_basic dav dav_fs; do
      printf 'LoadModule %s_module %s/mod_%s.so\n' "$m" "$modules" "$m"
    done
    printf 'DAVLockDB %s/DAVLock\nDocumentRoot %s/data\n<Directory %s/data>\n' "$dir" "$dir" "$dir"
    printf '  Dav On\n  AuthType Basic\n  AuthName dav\n  AuthUserFile %s/users\n  Require valid-user\n' "$dir"
    printf '  Options None\n  AllowOverride None\n</Directory>\n'
  } >"$dir/httpd.conf"
  /usr/sbin/apache2 -f "$dir/httpd.conf" -DFOREGROUND >"$dir/output.log" 2>&1 &
  apache_pid=$!
  for _ in $(seq 1 200); do
    if (echo >"/dev/tcp/127.0.0.1/$port") 2>/dev/null; then return 0; fi
    sleep 0.05
  done
  say "apache did not start: $(cat "$dir/error.log" "$dir/output.log" 2>/dev/null)"
  return 1
}

cv() { timeout -k 10 120 "$bin" --user alice --service "$service" "$@"; }

# One run of backup SRC, killed at a random point of the run's expected length: a share
# (percent) of the first run's, until a run of this kind is seen to end, then that run's.
# Answers 1 when the run ended before its kill.
killed_run() { # killed_run SHARE
  local expected=${phase_ms[$phase]:-$(( run_ms * $1 / 100 ))}
  rand $(( expected > 100 ? expected * 9 / 10 : 90 ))
  local delay_ms=$(( 20 + r )) start elapsed rc
  start=$(date +%s%N)
  "$bin" --user alice --service "$service" backup "$src" >"$work/killed.out" 2>&1 &
  local pid=$!
  while :; do
    elapsed=$(( ($(date +%s%N) - start) / 1000000 ))
    if ! kill -0 "$pid" 2>/dev/null; then
      wait "$pid"
      rc=$?
      phase_ms[$phase]=$elapsed
      say "[$label] the run ended (exit $rc, ${elapsed} ms) before its kill at ${delay_ms} ms"
      return 1
    fi
    if [ "$elapsed" -ge "$delay_ms" ]; then
      kill -9 "$pid"
      wait "$pid" 2>/dev/null
      landed=$((landed + 1))
      say "[$label] killed after ${elapsed} ms"
      return 0
    fi
    sleep 0.01
  done
}

verify() {
  if [ "$kind" = local ] && ! integrity "$store_folder" >"$work/integrity.out"; then
    fail "integrity check: $(cat "$work/integrity.out")"
  fi
  if ! cv backup "$src" >"$work/next.out" 2>&1; then
    fail "the next run did not end 0: $(tail -5 "$work/next.out")"
    return
  fi
  rm -rf "$work/restored"
  if ! cv restore Docs --to "$work/restored" >"$work/restore.out" 2>&1; then
    fail "restore: $(tail -5 "$work/restore.out")"
  elif ! diff -r "$src" "$work/restored/Docs" >"$work/diff.out" 2>&1; then
    fail "the restore differs from the source: $(head -5 "$work/diff.out")"
  fi
  if [ "$phase" = 0 ]; then # a kill while the task was being made must not make two
    local tasks
    tasks=$(cv --json task list 2>/dev/null | grep -o '"name":"[^"]*"' | sort | tr '\n' ' ')
    [ "$tasks" = '"name":"Docs" ' ] || fail "tasks after the kill: $tasks"
  fi
  if ! check_history "$(files_root_of)" >"$work/history.out"; then
    fail "History: $(head -5 "$work/history.out")"
  fi
}

campaign() { # campaign KIND ROUNDS
  kind=$1
  local rounds=$2
  export HOME="$work/$kind/home" XDG_DATA_HOME="$work/$kind/xdg-data" XDG_CONFIG_HOME="$work/$kind/xdg-config"
  export CIRROVAULT_PASSWORD=secret
  mkdir -p "$HOME"
  src="$work/$kind/Docs"
  if [ "$kind" = local ]; then
    store_folder="$work/$kind/store"
    service="file://$store_folder"
    files_root_of() { ls -d "$store_folder"/accounts/*/files 2>/dev/null | head -1; }
  else
    start_apache "$work/apache" || { fail "no Apache"; return; }
    service="webdav://127.0.0.1:$port/alice"
    files_root_of() { echo "$work/apache/data/alice"; }
  fi
  local generation=0 round phase share
  local goal=$((landed + rounds))
  declare -gA phase_ms=()
  # Rounds whose run ended before its kill do not count; a bound keeps the time bounded.
  for ((round = 0; landed < goal && round < 2 * rounds; round++)); do
    phase=$((round % 3))
    case $phase in
    0) # a first run: a new store, a new folder
      label="$kind first run $round"
      if [ "$kind" = local ]; then rm -rf "$store_folder"; else rm -rf "$work/apache/data/alice"/* "$work/apache/data/alice"/.[!.]*; fi
      rm -rf "$src" "$XDG_DATA_HOME" "$XDG_CONFIG_HOME"
      generation=$((generation + 1))
      generate "$src" "$generation" 24
      share=90
      ;;
    1) # a second run: new files beside the stored ones
      label="$kind second run $round"
      generation=$((generation + 1))
      generate "$src/new$generation" "$generation" 8
      share=60
      ;;
    2) # a version-moving run: every other file changed
      label="$kind version run $round"
      generation=$((generation + 1))
      generate "$src" "$generation" 24 2
      share=70
      ;;
    esac
    if [ -z "${run_ms:-}" ]; then
      # The first run's length, measured once on a copy, bounds the kill points.
      local t0 t1
      t0=$(date +%s%N)
      cv backup "$src" >/dev/null 2>&1
      t1=$(date +%s%N)
      run_ms=$(( (t1 - t0) / 1000000 ))
      say "[$kind] a whole first run takes ${run_ms} ms"
      if [ "$kind" = local ]; then rm -rf "$store_folder"; else rm -rf "$work/apache/data/alice"/* "$work/apache/data/alice"/.[!.]*; fi
      rm -rf "$XDG_DATA_HOME" "$XDG_CONFIG_HOME"
    fi
    killed_run "$share" || true
    verify
  done
  unset run_ms
  if [ -n "$apache_pid" ]; then
    kill "$apache_pid" 2>/dev/null
    wait "$apache_pid" 2>/dev/null
    apache_pid=
  fi
}

landed=0
set -- $stores
per_store=$(( kills / $# ))
for kind in "$@"; do
  campaign "$kind" "$per_store"
done
say "kill campaign (seed $seed): $landed of $kills kills landed mid-run, $failures failures"
[ "$failures" -eq 0 ] && [ "$landed" -ge "$kills" ]
