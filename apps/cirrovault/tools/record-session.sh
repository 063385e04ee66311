#!/usr/bin/env bash
# Records a terminal session of `cirrovault backup` with its progress display (tmux
# capture-pane), for docs/cirrovault-backup-session.txt. Usage: record-session.sh BUILD OUT
set -euo pipefail
build=$(cd "${1:-build}" && pwd)
out=${2:-/dev/stdout}
command -v tmux >/dev/null || { sudo apt-get install -y tmux >/dev/null; }
work=$(mktemp -d /tmp/cirrovault-session-XXXXXX)
trap 'tmux kill-session -t cvsession 2>/dev/null || true; rm -rf "$work"' EXIT
mkdir -p "$work/Pictures/2024" "$work/Pictures/2025"
for i in $(seq 1 24); do head -c 40000000 /dev/urandom > "$work/Pictures/2024/IMG_$((1000 + i)).jpg"; done
for i in $(seq 1 200); do head -c 20000 /dev/urandom > "$work/Pictures/2025/note$i.txt"; done
cat > "$work/env.sh" <<ENV
export HOME=$work/home XDG_DATA_HOME=$work/data XDG_CONFIG_HOME=$work/config CIRROVAULT_PASSWORD=demo
export PATH=$build:\$PATH PS1='\$ '
cd $work
ENV
tmux new-session -d -s cvsession -x 100 -y 16 "bash --norc --noprofile"
keys() { tmux send-keys -t cvsession "$@"; }
shot() { { echo "--- $1"; tmux capture-pane -p -t cvsession | sed -e "s|$work|~|g" -e 's/[[:space:]]*$//' | cat -s; echo; } >> "$out"; }
: > "$out"
keys "source $work/env.sh; clear" Enter; sleep 0.5

keys "cirrovault --user alice backup Pictures" Enter
sleep 4.5; shot "1. The first backup of a folder: the task is made, its sources scanned, and the upload runs"
sleep 9; shot "2. The end of the first backup"
keys "clear" Enter; sleep 0.3

for i in $(seq 1 24); do head -c 40000000 /dev/urandom > "$work/Pictures/2024/IMG_$((1000 + i)).jpg"; done
keys "cirrovault --user alice backup Pictures" Enter
sleep 2; shot "3. Every photo changed: the second run sends them, not the unchanged notes"
keys C-c; sleep 4; shot "4. Ctrl-C: the run stops cleanly through its progress object (exit code 5)"
keys "clear" Enter; sleep 0.3
keys "cirrovault --user alice backup Pictures; echo exit code \$?" Enter
sleep 8; shot "5. The next run goes on where the last one stopped (an interrupted file resumes from its .part)"
keys "clear" Enter; sleep 0.3
keys "cirrovault --user alice versions Pictures Pictures/2024/IMG_1013.jpg; cirrovault --user alice log --last 6" Enter
sleep 2; shot "6. The older version kept, and the event log"
