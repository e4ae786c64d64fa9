#!/usr/bin/env bash
# Installs the Debian packages the build needs, when any is missing.
# Usage: scripts/ensure-packages.sh [--windows] [--tests]
#   --windows adds MinGW-w64 and Wine; --tests adds what the test and tool
#   builds use (OpenSSL, CLI11, nlohmann-json, pytest, clang's fuzzer runtime, Doxygen), and what
#   the Python package's offline install needs (setuptools, wheel, venv).
set -euo pipefail

packages=(cmake ninja-build g++ pkg-config libssl-dev libcli11-dev nlohmann-json3-dev)
for arg in "$@"; do
  case "$arg" in
    --windows) packages+=(g++-mingw-w64-x86-64-posix wine wine64) ;;
    --tests) packages+=(googletest libgtest-dev libgmock-dev python3 python3-pytest python3-pip
                        python3-setuptools python3-wheel python3-venv
                        clang libclang-rt-14-dev doxygen libbenchmark-dev openssl) ;;
  esac
done

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
