#!/usr/bin/env bash
# `make install DESTDIR=...` lays out the whole tree: the program, its man page (which
# renders), the completions (which load) and the user unit (which runs the installed
# program). Usage: install-tree.sh SOURCE_ROOT BINARY
set -euo pipefail
root=$1 binary=$2
stage=$(mktemp -d)
trap 'rm -rf "$stage"' EXIT

make -s -C "$root" install BIN="$binary" DESTDIR="$stage" PREFIX=/opt/cv >/dev/null
tree=$(cd "$stage" && find . -type f | sort)
expected="./opt/cv/bin/cirrovault
./opt/cv/share/bash-completion/completions/cirrovault
./opt/cv/share/fish/vendor_completions.d/cirrovault.fish
./opt/cv/share/man/man1/cirrovault.1
./opt/cv/share/systemd/user/cirrovault.service
./opt/cv/share/zsh/site-functions/_cirrovault"
# The desktop host comes along when it was built beside the program.
if [ -x "$(dirname "$binary")/cirrovault-gtk" ]; then
  expected=$(printf '%s\n' "$expected" ./opt/cv/bin/cirrovault-gtk \
    ./opt/cv/share/applications/org.cirrovault.Desktop.desktop \
    ./opt/cv/share/icons/hicolor/scalable/apps/cirrovault.svg | sort)
  entry=$stage/opt/cv/share/applications/org.cirrovault.Desktop.desktop
fi
if [ "$tree" != "$expected" ]; then
  echo "installed tree differs:"; diff <(echo "$expected") <(echo "$tree"); exit 1
fi
[ -x "$stage/opt/cv/bin/cirrovault" ] || { echo "the program is not executable"; exit 1; }
if [ -n "${entry:-}" ]; then
  grep -qx 'Exec=/opt/cv/bin/cirrovault-gtk' "$entry" || { echo "menu entry does not start the installed program"; exit 1; }
  if command -v desktop-file-validate >/dev/null; then desktop-file-validate "$entry"; fi
fi

unit=$stage/opt/cv/share/systemd/user/cirrovault.service
grep -qx 'ExecStart=/opt/cv/bin/cirrovault daemon' "$unit" || { echo "unit does not run the installed program"; exit 1; }
grep -qx 'Type=notify' "$unit" || { echo "unit is not Type=notify"; exit 1; }
if grep -q '^[^#].*network-online' "$unit"; then echo "a user unit cannot wait for network-online"; exit 1; fi

page=$stage/opt/cv/share/man/man1/cirrovault.1
if command -v man >/dev/null; then
  rendered=$(MANWIDTH=80 man -l "$page" 2>&1)
elif command -v groff >/dev/null; then
  rendered=$(groff -man -Tutf8 "$page" 2>&1)
else
  rendered=$(cat "$page")
fi
for want in NAME SYNOPSIS --json --version Subcommands restore; do
  grep -q -- "$want" <<<"$rendered" || { echo "man page lacks $want:"; echo "$rendered" | head -30; exit 1; }
done

loaded=$(bash -c "source '$stage/opt/cv/share/bash-completion/completions/cirrovault'; complete -p cirrovault")
[[ $loaded == *"-F _cirrovault cirrovault"* ]] || { echo "bash completion did not load: $loaded"; exit 1; }
offered=$(bash -c "source '$stage/opt/cv/share/bash-completion/completions/cirrovault'
  COMP_WORDS=(cirrovault --user alice ta); COMP_CWORD=3; _cirrovault; echo \${COMPREPLY[*]}")
[ "$offered" = task ] || { echo "bash completion offered '$offered' for 'ta'"; exit 1; }
if command -v zsh >/dev/null; then zsh -n "$stage/opt/cv/share/zsh/site-functions/_cirrovault"; fi
if command -v fish >/dev/null; then fish -n "$stage/opt/cv/share/fish/vendor_completions.d/cirrovault.fish"; fi
echo "installed tree, man page and completions are in order"
