#!/usr/bin/env bash
# Compiles every module Android.bp declares the way the platform build does: the device modules
# for arm64, arm and x86_64 against bionic, the host tests and fuzz targets with the host flags.
#   scripts/android-check.sh [TREE]     TREE: a platform tree's root (default $ANDROID_BUILD_TOP),
#                                       or ../shared/android-platform-headers
# Prints one line per failing compile and a tally; exits non-zero on any failure. The compiler is
# Debian's clang-19 with LLVM's libc++ headers (ATCMD_CLANG and ATCMD_LLVM_ROOT choose others);
# ATCMD_JOBS sets how many compiles run at once. scripts/android-check.py holds the details.
set -euo pipefail
tree=${1:-${ANDROID_BUILD_TOP:-}}
if [ -z "$tree" ]; then
  echo "usage: scripts/android-check.sh TREE (or set ANDROID_BUILD_TOP)" >&2
  exit 2
fi
tree=$(cd "$tree" && pwd)
cd "$(dirname "$0")/.."
scripts/install-deps.sh clang-19 libc++-19-dev python3
exec python3 scripts/android-check.py "$tree"
