#!/usr/bin/env bash
# Checks Android.bp, builds the module and runs every test three times: a normal build,
# AddressSanitizer with UndefinedBehaviorSanitizer, and ThreadSanitizer. Each test case runs in
# its own process. After the normal build, the USB link's cases that need a real kernel run in
# a qemu guest (scripts/kernel-test.sh). Then each fuzz target runs for a few seconds (clang
# build in build-fuzz/, scripts/fuzz.sh), and last the plain suite is built for 64-bit and
# 32-bit ARM and run under qemu-user (scripts/cross-test.sh).
# ATCMD_ANDROID_TREE, when set to a platform tree (or ../shared/android-platform-headers), adds
# a stage after the Android.bp check: every module compiled as the platform build would, against
# bionic for arm64, arm and x86_64 (scripts/android-check.sh). Unset, that stage is skipped, and
# the run says so.
# ATCMD_ANDROID_SEPOLICY, when set to a folder of the platform's SELinux policy per release
# (../shared/android-platform-sepolicy), adds the next stage: the project's policy (sepolicy/)
# compiled into each release's with neverallow checks on, its contexts files checked, and the
# check's self-test (scripts/sepolicy-check.sh --selftest). Unset or absent, it is skipped.
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/install-deps.sh
jobs=$(nproc)
# Each stage ends with its time and the run's so far, so a slow stage is seen in CI's output.
stage_at=$SECONDS
took() {
  echo "---- $1: $((SECONDS - stage_at)) s (the run so far: $((SECONDS / 60)) min $((SECONDS % 60)) s)"
  stage_at=$SECONDS
}

# Android.bp (and the interface's) must parse and be written as bpfmt writes them.
echo "==== Android.bp (bpfmt -d) ===="
bp_diff=$(bpfmt -d Android.bp interfaces/atcmd/aidl/Android.bp)
if [ -n "$bp_diff" ]; then
  echo "$bp_diff"
  echo "Android.bp is not in bpfmt's form (bpfmt -w Android.bp rewrites it)"
  exit 1
fi

echo "==== platform compile check (scripts/android-check.sh) ===="
if [ -n "${ATCMD_ANDROID_TREE:-}" ]; then
  scripts/android-check.sh "$ATCMD_ANDROID_TREE"
else
  echo "SKIPPED: no platform tree given (set ATCMD_ANDROID_TREE to one, or to"
  echo "../shared/android-platform-headers); the module was not compiled against bionic"
fi
took "platform compile check"

echo "==== vendor policy check (scripts/sepolicy-check.sh --selftest) ===="
if [ -n "${ATCMD_ANDROID_SEPOLICY:-}" ] && [ -d "$ATCMD_ANDROID_SEPOLICY" ]; then
  scripts/sepolicy-check.sh --selftest "$ATCMD_ANDROID_SEPOLICY"
elif [ -n "${ATCMD_ANDROID_SEPOLICY:-}" ]; then
  echo "SKIPPED: ATCMD_ANDROID_SEPOLICY names $ATCMD_ANDROID_SEPOLICY, which is not a folder;"
  echo "the policy in sepolicy/ was not compiled"
else
  echo "SKIPPED: no platform policy given (set ATCMD_ANDROID_SEPOLICY to"
  echo "../shared/android-platform-sepolicy); the policy in sepolicy/ was not compiled"
fi
took "vendor policy check"

# The test builds keep line tables only (-g1): a failure or a sanitizer's report still names file
# and line, and the compiles take a third less time. The sanitizer builds are -O1, as the sanitizers'
# own guides advise. The tests mostly wait on terminals, FIFOs and timers (the plain suite keeps a
# core busy a tenth of its time), so CTest runs several per core; fewer under ThreadSanitizer,
# whose processes do use their cores. The cases labelled "timed" (tests/CMakeLists.txt) run
# after the rest, one a core.
run_suite() {
  local dir=$1 sanitize=$2 opt=$3 per_core=$4
  local flags="-O$opt -g1 -DNDEBUG"
  echo "==== build $dir (sanitizers: ${sanitize:-none}) ===="
  # The bench measures the plain build; a sanitizer build leaves it out.
  local bench=ON
  [ -z "$sanitize" ] || bench=OFF
  cmake -S . -B "$dir" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DATCMD_SANITIZE="$sanitize" \
    -DCMAKE_CXX_FLAGS_RELWITHDEBINFO="$flags" -DCMAKE_C_FLAGS_RELWITHDEBINFO="$flags" \
    -DATCMD_BENCH="$bench" >/dev/null
  cmake --build "$dir" -j"$jobs"
  (cd "$dir" && ctest -j"$((jobs * per_core))" -LE timed --output-on-failure --timeout 120 &&
    ctest -j"$jobs" -L timed --output-on-failure --timeout 120)
  took "$dir"
}

# The link race test runs its 81 sequences in the plain stage; the slower stages run fewer
# (ATCMD_RACE_SEQUENCES, per shard of nine), enough for the sanitizers to see each path.
run_suite build "" 2 4
# The USB link against the real kernel's cdc-acm port, in a qemu guest (scripts/kernel-test.sh),
# with the plain build's test binary and replay tool.
scripts/kernel-test.sh build
took "kernel stage"
ATCMD_RACE_SEQUENCES=2 run_suite build-asan "address,undefined" 1 4
ATCMD_RACE_SEQUENCES=4 run_suite build-tsan "thread" 1 2
echo "all three test runs passed"
scripts/fuzz.sh "${ATCMD_FUZZ_SECONDS:-10}"
took "fuzz"
ATCMD_RACE_SEQUENCES=2 scripts/cross-test.sh arm64
took "arm64"
ATCMD_RACE_SEQUENCES=2 scripts/cross-test.sh armhf
took "armhf"
echo "native, sanitizer, fuzz and ARM runs passed"
