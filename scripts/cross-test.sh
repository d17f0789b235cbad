#!/usr/bin/env bash
# Builds the module, the tools and the tests for a phone's processor and runs the plain suite
# under qemu-user:
#   scripts/cross-test.sh arm64    64-bit ARM (aarch64-linux-gnu), in build-arm64/
#   scripts/cross-test.sh armhf    32-bit ARM (arm-linux-gnueabihf), in build-armhf/
# Installs what is missing first: Debian's cross compilers, qemu-user, and the target's GoogleTest
# and liblog as multiarch packages. CTest starts every test through the emulator
# (CMAKE_CROSSCOMPILING_EMULATOR in the toolchain file), and the tests start the console and the
# simulators through it too; no binfmt registration is needed.
set -euo pipefail
cd "$(dirname "$0")/.."

case ${1:-} in
  arm64) triplet=aarch64-linux-gnu ;;
  armhf) triplet=arm-linux-gnueabihf ;;
  *) echo "usage: scripts/cross-test.sh arm64|armhf" >&2; exit 2 ;;
esac
arch=$1
dir=build-$arch

scripts/install-deps.sh "crossbuild-essential-$arch:all" qemu-user \
  "libgtest-dev:$arch" "android-liblog-dev:$arch"

start=$(date +%s)
echo "==== build $dir ($triplet, tests under qemu-user) ===="
# Line tables only and -O1: the compiles take half the time of -O2 -g, and what this stage looks
# for (the processor's word sizes, alignment and memory order) does not need the last pass.
cmake -S . -B "$dir" -DCMAKE_BUILD_TYPE=RelWithDebInfo \
  -DCMAKE_CXX_FLAGS_RELWITHDEBINFO="-O1 -g1 -DNDEBUG" -DCMAKE_C_FLAGS_RELWITHDEBINFO="-O1 -g1 -DNDEBUG" \
  -DCMAKE_TOOLCHAIN_FILE="cmake/toolchains/$triplet.cmake" -DATCMD_BENCH=OFF >/dev/null
cmake --build "$dir" -j"$(nproc)"
built=$(date +%s)
# The tests mostly wait on pseudo-terminals, FIFOs and timers, also under the emulator: twice as
# many at once as there are cores keeps both busy. All at once here, the tools' "timed" cases too:
# under the emulator they are mostly its work, and the cases whose comparison an emulated run
# upsets skip themselves.
(cd "$dir" && ctest -j"$(( $(nproc) * 2 ))" --output-on-failure --timeout 120)
echo "$arch: built in $(( built - start )) s, tested in $(( $(date +%s) - built )) s"
