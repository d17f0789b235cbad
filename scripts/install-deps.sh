#!/usr/bin/env bash
# Installs what the build and the tests need on a Debian machine, only when something is missing.
set -euo pipefail

# clang and libclang-rt-14-dev: the libFuzzer targets; valgrind: scripts/memcheck.sh.
packages=(cmake make g++ binutils googletest libgtest-dev android-liblog-dev
          clang libclang-rt-14-dev valgrind)
missing=()
for p in "${packages[@]}"; do
  dpkg -s "$p" >/dev/null 2>&1 || missing+=("$p")
done
[ ${#missing[@]} -eq 0 ] && exit 0

echo "installing: ${missing[*]}"
sudo=""
[ "$(id -u)" -eq 0 ] || sudo="sudo"
export DEBIAN_FRONTEND=noninteractive
$sudo apt-get update -qq
$sudo apt-get install -y -qq "${missing[@]}"
