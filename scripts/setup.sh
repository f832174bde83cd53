#!/usr/bin/env bash
# Installs what a fresh Debian machine lacks, then configures and builds the tree in ./build.
# Sourced by the other scripts; BUILD_DIR and CMAKE_ARGS may be set by the caller.
set -euo pipefail
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
BUILD_DIR=${BUILD_DIR:-$root/build}

packages=(cmake ninja-build g++ pkg-config python3 libgtest-dev libgmock-dev libbenchmark-dev libssl-dev)
missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
if [ ${#missing[@]} -gt 0 ]; then
  echo "Installing: ${missing[*]}"
  sudo=""
  [ "$(id -u)" -ne 0 ] && sudo=sudo
  $sudo apt-get update -qq
  DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -qq "${missing[@]}" >/dev/null
fi

if [ ! -f "$BUILD_DIR/build.ninja" ]; then
  cmake -S "$root" -B "$BUILD_DIR" -G Ninja ${CMAKE_ARGS:-} >/dev/null
fi
cmake --build "$BUILD_DIR" -- -j"$(nproc)"
