#!/bin/bash
# Installs every Debian package that building, running and testing this project needs, and
# unpacks chrony's programs under build/chrony without installing its package.
# Safe to run again: it only installs what is missing. It removes nothing, enables nothing and
# ends no process: chrony's package would replace the host's own time service (it conflicts with
# systemd-timesyncd) and enable a daemon that disciplines this machine's clock, so the project
# never installs it; the tests run their own chronyd from build/chrony, with -x or -Q only.
set -euo pipefail
cd "$(dirname "$0")/.."

packages=(
  cmake ninja-build g++ clang libclang-rt-14-dev libboost-context-dev
  g++-mingw-w64-x86-64-posix binutils-mingw-w64-i686 mingw-w64-tools
  wine wine64 googletest python3 python3-ntplib valgrind procps util-linux iproute2 faketime
  # what chronyd itself links against (its package's other dependencies serve the installed
  # service only)
  libcap2 libedit2 libgnutls30 libnettle8 libseccomp2
)

missing=()
for package in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q "install ok installed"; then
    missing+=("$package")
  fi
done

export DEBIAN_FRONTEND=noninteractive
updated=0
if [ ${#missing[@]} -gt 0 ]; then
  echo "setup: installing ${missing[*]}"
  apt-get update -q
  updated=1
  # --no-remove: fail rather than take anything off this machine.
  apt-get install -y -q --no-install-recommends --no-remove "${missing[@]}"
fi

chrony_root=build/chrony
if [ ! -x "$chrony_root/usr/sbin/chronyd" ]; then
  echo "setup: unpacking chrony's programs into $chrony_root (no package installed)"
  [ "$updated" = 1 ] || apt-get update -q
  download=$(mktemp -d)
  trap 'rm -rf "$download"' EXIT
  chmod 777 "$download"   # apt's download sandbox user writes here
  (cd "$download" && apt-get download -q chrony)
  rm -rf "$chrony_root.part"
  mkdir -p "$chrony_root.part"
  dpkg-deb -x "$download"/chrony_*.deb "$chrony_root.part"
  rm -rf "$chrony_root"
  mv "$chrony_root.part" "$chrony_root"
fi
