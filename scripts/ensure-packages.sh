#!/usr/bin/env bash
# Installs the Debian packages the build needs, when any is missing.
# Usage: scripts/ensure-packages.sh [--windows]   (--windows adds MinGW-w64 and Wine)
set -euo pipefail

packages=(cmake ninja-build g++ googletest libgtest-dev libgmock-dev)
if [[ "${1:-}" == "--windows" ]]; then
  packages+=(g++-mingw-w64-x86-64-posix wine wine64)
fi

missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
if ((${#missing[@]})); then
  echo "Installing: ${missing[*]}"
  sudo_cmd=()
  [[ $(id -u) -ne 0 ]] && sudo_cmd=(sudo)
  "${sudo_cmd[@]}" apt-get update -qq
  # With recommends: the Wine set-up the test runs were proven on.
  DEBIAN_FRONTEND=noninteractive "${sudo_cmd[@]}" apt-get install -y -qq "${missing[@]}" >/dev/null
fi
