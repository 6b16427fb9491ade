#!/usr/bin/env bash
# Installs every Debian package the project needs to build, run and test.
# Idempotent: asks apt only for what is missing.
set -euo pipefail
packages=(
  cmake ninja-build ccache g++ pkg-config git binutils
  qtbase5-dev libqt5xml5 qtwebengine5-dev libqt5webchannel5-dev libqt5websockets5-dev
  qtkeychain-qt5-dev libssl-dev openssl liblzma-dev xz-utils libx11-dev
  tar gzip zip unzip curl nginx-light tinyproxy python3 procps strace
  chromium xvfb xauth dbus
  clang libclang-rt-14-dev
)
# Node.js and npm drive the browser tests. A machine may already have a Node.js whose package
# carries npm itself (and conflicts with Debian's npm): take Debian's only where a command is missing.
command -v node >/dev/null 2>&1 || packages+=(nodejs)
command -v npm >/dev/null 2>&1 || packages+=(npm)
missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
[ ${#missing[@]} -eq 0 ] && exit 0
sudo=""
[ "$(id -u)" -eq 0 ] || sudo="sudo"
echo "Installing: ${missing[*]}"
$sudo apt-get update -q
DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -q --no-install-recommends "${missing[@]}"
