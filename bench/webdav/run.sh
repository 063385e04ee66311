#!/usr/bin/env bash
# Our WebDAV store beside `rclone copy`, both against Apache (mod_dav) on loopback:
# a full backup of N small files into an empty account, then a run with nothing
# changed, and the floor: one curl connection PUTting the same files. Reports seconds
# and the HTTP requests per file each run cost (counted in Apache's access log).
#
# usage: bench/webdav/run.sh [--files N] [--work DIR] [--build DIR]
#   --files  number of small files (default 10000, in folders of 100)
#   --work   scratch folder (default /tmp/cirrovault-webdav-bench; emptied first)
#   --build  build folder holding the `cirrovault` program (default build)
# Installs rclone (apt) when it is missing; needs apache2 (scripts/install-deps.sh).
set -euo pipefail

here="$(cd "$(dirname "$0")" && pwd)"
top="$(cd "$here/../.." && pwd)"
files=10000
work=/tmp/cirrovault-webdav-bench
build="$top/build"
while [ $# -gt 0 ]; do
    case "$1" in
    --files) files="$2"; shift 2 ;;
    --work) work="$2"; shift 2 ;;
    --build) build="$(cd "$2" && pwd)"; shift 2 ;;
    -h|--help) sed -n '2,12p' "$0"; exit 0 ;;
    *) echo "unknown argument: $1" >&2; exit 1 ;;
    esac
done
cli="$build/cirrovault"
[ -x "$cli" ] || { echo "no $cli: build the project first" >&2; exit 1; }
command -v apache2 >/dev/null || [ -x /usr/sbin/apache2 ] || { echo "apache2 missing: run scripts/install-deps.sh" >&2; exit 1; }
if ! command -v rclone >/dev/null; then
    sudo=""; [ "$(id -u)" -eq 0 ] || sudo="sudo"
    $sudo apt-get update -qq && DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -qq --no-install-recommends rclone
fi

say() { printf '[%s] %s\n' "$(date -u +%H:%M:%S)" "$*" >&2; }

rm -rf "$work"
mkdir -p "$work/server/data/alice" "$work/source" "$work/state/config" "$work/state/data"
port=$(python3 -c 'import socket; s=socket.socket(); s.bind(("127.0.0.1",0)); print(s.getsockname()[1])')

# ---- the server ------------------------------------------------------------------------
htpasswd -bc "$work/server/users" alice secret >/dev/null 2>&1
mods=/usr/lib/apache2/modules
cat > "$work/server/httpd.conf" <<CONF
ServerRoot $work/server
ServerName 127.0.0.1
Listen 127.0.0.1:$port
PidFile $work/server/httpd.pid
ErrorLog $work/server/error.log
DefaultRuntimeDir $work/server
LoadModule mpm_event_module $mods/mod_mpm_event.so
LoadModule authz_core_module $mods/mod_authz_core.so
LoadModule authn_core_module $mods/mod_authn_core.so
LoadModule authn_file_module $mods/mod_authn_file.so
LoadModule authz_user_module $mods/mod_authz_user.so
LoadModule auth_basic_module $mods/mod_auth_basic.so
LoadModule dav_module $mods/mod_dav.so
LoadModule dav_fs_module $mods/mod_dav_fs.so
LogFormat "%m %U %>s" short
CustomLog $work/server/access.log short
DAVLockDB $work/server/DAVLock
DocumentRoot $work/server/data
KeepAliveTimeout 30
MaxKeepAliveRequests 0
<Directory $work/server/data>
  Dav On
  AuthType Basic
  AuthName dav
  AuthUserFile $work/server/users
  Require valid-user
  Options None
  AllowOverride None
</Directory>
CONF
apache2 -f "$work/server/httpd.conf" -DFOREGROUND &
server=$!
trap 'kill $server 2>/dev/null; wait $server 2>/dev/null || true' EXIT
for _ in $(seq 200); do
    (exec 3<>/dev/tcp/127.0.0.1/$port) 2>/dev/null && break
    sleep 0.05
done

# ---- the data: N small files in folders of 100 -------------------------------------------
say "making $files files"
python3 - "$work/source" "$files" <<'PY'
import os, sys
root, n = sys.argv[1], int(sys.argv[2])
for i in range(n):
    folder = os.path.join(root, "d%03d" % (i // 100))
    os.makedirs(folder, exist_ok=True)
    with open(os.path.join(folder, "f%05d.txt" % i), "w") as f:
        f.write("file %d\n" % i * (1 + i % 40))
PY

requests() { wc -l < "$work/server/access.log"; }
# One timed run: prints "seconds requests".
measure() {
    local before after start end
    before=$(requests)
    start=$(date +%s.%N)
    "$@" >"$work/last-run.log" 2>&1 || { cat "$work/last-run.log" >&2; return 1; }
    end=$(date +%s.%N)
    sleep 0.2 # the access log is written after the reply
    after=$(requests)
    echo "$(echo "$end - $start" | bc) $((after - before))"
}

export HOME="$work/state" XDG_CONFIG_HOME="$work/state/config" XDG_DATA_HOME="$work/state/data"
export CIRROVAULT_PASSWORD=secret
ours=(env "$cli" --service "webdav://127.0.0.1:$port/alice/" --user alice backup "$work/source")
obscured=$(rclone obscure secret)
theirs=(rclone copy "$work/source" :webdav:rclone --webdav-url "http://127.0.0.1:$port/alice/"
        --webdav-user alice --webdav-pass "$obscured" --transfers 4 --checkers 8)

say "cirrovault: full run";       read -r o_full_s o_full_r < <(measure "${ours[@]}")
say "cirrovault: no-change run";  read -r o_same_s o_same_r < <(measure "${ours[@]}")
# The floor: one curl process PUTting the same files over one kept-alive connection into
# folders made beforehand (the folders' requests are not counted).
floor_conf="$work/floor.curl"
( cd "$work/source" && for d in */; do
      printf 'user = "alice:secret"\nurl = "http://127.0.0.1:%s/alice/floor/%s"\nrequest = "MKCOL"\noutput = "/dev/null"\nnext\n' "$port" "$d"
  done ) | sed '$d' > "$work/floor-folders.curl" # no "next" after the last
( cd "$work/source" && find . -type f | sed 's|^\./||' | sort | while read -r f; do
      printf 'user = "alice:secret"\nupload-file = "%s"\nurl = "http://127.0.0.1:%s/alice/floor/%s"\noutput = "/dev/null"\nnext\n' \
          "$work/source/$f" "$port" "$f"
  done ) | sed '$d' > "$floor_conf"
curl -sS -u alice:secret -X MKCOL -o /dev/null "http://127.0.0.1:$port/alice/floor/"
curl -sS -u alice:secret -K "$work/floor-folders.curl"
say "floor: one curl connection"; read -r f_full_s f_full_r < <(measure curl -sS -u alice:secret -K "$floor_conf")
say "rclone: full run";           read -r r_full_s r_full_r < <(measure "${theirs[@]}")
say "rclone: no-change run";      read -r r_same_s r_same_r < <(measure "${theirs[@]}")

per() { echo "scale=2; $1 / $files" | bc; }
printf '\n%d small files, Apache mod_dav on 127.0.0.1\n\n' "$files"
printf '| tool | run | seconds | HTTP requests | requests per file |\n|---|---|---|---|---|\n'
printf '| cirrovault | full | %.2f | %d | %s |\n' "$o_full_s" "$o_full_r" "$(per "$o_full_r")"
printf '| cirrovault | no change | %.2f | %d | %s |\n' "$o_same_s" "$o_same_r" "$(per "$o_same_r")"
printf '| floor: one curl connection, PUT only | full | %.2f | %d | %s |\n' "$f_full_s" "$f_full_r" "$(per "$f_full_r")"
printf '| rclone copy | full | %.2f | %d | %s |\n' "$r_full_s" "$r_full_r" "$(per "$r_full_r")"
printf '| rclone copy | no change | %.2f | %d | %s |\n' "$r_same_s" "$r_same_r" "$(per "$r_same_r")"
echo
echo "requests of our full run by method:"
head -n "$o_full_r" "$work/server/access.log" | awk '{print $1}' | sort | uniq -c | sort -rn
echo "requests of our no-change run by method:"
head -n "$((o_full_r + o_same_r))" "$work/server/access.log" | tail -n "$o_same_r" |
    awk '{print $1}' | sort | uniq -c | sort -rn
