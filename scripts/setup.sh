#!/bin/bash
# Installs every Debian package that building, running and testing this project needs.
# Safe to run again: it only installs what is missing.
set -euo pipefail

packages=(
  cmake ninja-build g++ clang libclang-rt-14-dev
  g++-mingw-w64-x86-64-posix binutils-mingw-w64-i686 mingw-w64-tools
  wine wine64 googletest chrony python3 python3-ntplib valgrind procps util-linux iproute2
)

missing=()
for package in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q "install ok installed"; then
    missing+=("$package")
  fi
done

if [ ${#missing[@]} -gt 0 ]; then
  echo "setup: installing ${missing[*]}"
  export DEBIAN_FRONTEND=noninteractive
  apt-get update -q
  apt-get install -y -q --no-install-recommends "${missing[@]}"
fi

# chrony's package may start a daemon that disciplines this machine's clock; the project only
# ever runs its own chronyd instances with -x or -Q, so the system one is not wanted.
if command -v systemctl >/dev/null 2>&1 && systemctl is-active --quiet chrony 2>/dev/null; then
  systemctl stop chrony || true
fi
pkill -x chronyd 2>/dev/null || true
