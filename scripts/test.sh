#!/usr/bin/env bash
# Builds the module and runs every test three times: a normal build, AddressSanitizer with
# UndefinedBehaviorSanitizer, and ThreadSanitizer. Each test case runs in its own process.
# Then each fuzz target runs for a few seconds (clang build in build-fuzz/, scripts/fuzz.sh).
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/install-deps.sh
jobs=$(nproc)

run_suite() {
  local dir=$1 sanitize=$2
  echo "==== build $dir (sanitizers: ${sanitize:-none}) ===="
  cmake -S . -B "$dir" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DATCMD_SANITIZE="$sanitize" >/dev/null
  cmake --build "$dir" -j"$jobs"
  (cd "$dir" && ctest -j"$jobs" --output-on-failure --timeout 120)
}

run_suite build ""
run_suite build-asan "address,undefined"
run_suite build-tsan "thread"
echo "all three test runs passed"
scripts/fuzz.sh "${ATCMD_FUZZ_SECONDS:-10}"
