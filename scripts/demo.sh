#!/usr/bin/env bash
# The main job, for a first look: back up a sample folder into the embedded local store,
# run again (nothing changed: nothing is sent), change a file, run once more, look at the
# older version it kept and restore both. Everything lives under BUILD/demo, so the
# user's own store is left alone.
set -euo pipefail
build=${1:-build}
demo="$(cd "$build" && pwd)/demo"
bin="$(cd "$build" && pwd)/cirrovault"

rm -rf "$demo"
mkdir -p "$demo/Documents/Letters" "$demo/Documents/Photos"
for i in $(seq 1 20); do
  printf 'Letter %d\n%s\n' "$i" "$(head -c 2000 /dev/urandom | base64)" > "$demo/Documents/Letters/letter $i.txt"
done
head -c 3000000 /dev/urandom > "$demo/Documents/Photos/holiday.jpg"
echo "draft" > "$demo/Documents/.notes"

export HOME="$demo/home" XDG_DATA_HOME="$demo/data" XDG_CONFIG_HOME="$demo/config" CIRROVAULT_PASSWORD=demo-password
run() { echo "\$ cirrovault $*"; "$bin" --user demo "$@"; echo; }

run backup --list "$demo/Documents"
run backup "$demo/Documents"
echo "changed" >> "$demo/Documents/Letters/letter 3.txt"
run backup --list Documents
run versions Documents "$demo/Documents/Letters/letter 3.txt"
run restore Documents "Documents/Letters/letter 3.txt" --version 0 --to "$demo/restored-older"
run restore Documents --to "$demo/restored"
diff -r "$demo/Documents" "$demo/restored/Documents" && echo "The restored copy equals the folder, its dotfiles included." && echo
run log
run status
store="$XDG_DATA_HOME/cirrovault/store/accounts"
echo "The store is a plain folder tree under $store:"
(cd "$store" && find . -path '*Letters/letter 3*' -o -path '*Photos/*' | sort)
echo "(the older copy of the changed letter is kept under History as \"letter 30.txt\")"
