#!/usr/bin/env bash
# Installs the Debian 12 packages that the build, the tests and the benchmarks need.
# Packages already present are not fetched again.
set -euo pipefail

packages=(
  cmake ninja-build g++ pkg-config make
  libgtest-dev libgmock-dev libbenchmark-dev
  libcurl4-openssl-dev libplist-dev libplist-utils libsqlite3-dev libsodium-dev
  libfmt-dev libcli11-dev nlohmann-json3-dev libxml2-dev libutf8proc-dev python3-aiosmtpd
  libsecret-1-dev gnome-keyring dbus libsystemd-dev help2man man-db
  apache2 lighttpd lighttpd-mod-webdav rclone php-cli php-sabre-dav openssl
  clang libclang-rt-14-dev llvm-14
  libgtk-4-dev xvfb xauth
)
packages+=("$@")

missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
[ ${#missing[@]} -eq 0 ] && exit 0

sudo=""
[ "$(id -u)" -eq 0 ] || sudo="sudo"
echo "Installing: ${missing[*]}"
$sudo apt-get update
DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y --no-install-recommends "${missing[@]}"
