#!/usr/bin/env bash
# Builds the libFuzzer targets (clang, build-fuzz/) and runs each for a bounded time.
#   scripts/fuzz.sh            10 seconds per target (part of scripts/test.sh)
#   scripts/fuzz.sh 3600       an hour per target: the long run
# Each target starts from fuzz/corpus/<target>/ with the protocol dictionary fuzz/at.dict; what it
# learns goes to build-fuzz/corpus/<target>/, crashes to build-fuzz/artifacts/ (and fail the run).
set -euo pipefail
cd "$(dirname "$0")/.."

seconds=${1:-10}
CC=clang CXX=clang++ cmake -S . -B build-fuzz -DCMAKE_BUILD_TYPE=RelWithDebInfo -DATCMD_FUZZ=ON \
  -DCMAKE_CXX_FLAGS_RELWITHDEBINFO="-O2 -g1 -DNDEBUG" -DCMAKE_C_FLAGS_RELWITHDEBINFO="-O2 -g1 -DNDEBUG" \
  -DATCMD_BENCH=OFF -DBUILD_TESTING=OFF >/dev/null
cmake --build build-fuzz -j2 --target fuzz_line_parser fuzz_extractors fuzz_rx_framing

mkdir -p build-fuzz/artifacts
for target in fuzz_line_parser fuzz_extractors fuzz_rx_framing; do
  mkdir -p "build-fuzz/corpus/$target"
  echo "==== $target: ${seconds}s ===="
  log="build-fuzz/$target.log"
  if ! build-fuzz/fuzz/$target -max_total_time="$seconds" -dict=fuzz/at.dict -print_final_stats=1 \
      -artifact_prefix="build-fuzz/artifacts/$target-" \
      "build-fuzz/corpus/$target" "fuzz/corpus/$target" >"$log" 2>&1; then
    tail -40 "$log"
    echo "$target failed; the input is in build-fuzz/artifacts/, the output in $log"
    exit 1
  fi
  grep -E "^stat::number_of_executed_units|^Done" "$log" || true
done
echo "fuzzing: no crash"
