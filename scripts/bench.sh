#!/usr/bin/env bash
# Builds the module (RelWithDebInfo, build/) and prints the performance table.
#   scripts/bench.sh           the full run (about six minutes: a minute idle in each of four
#                              link states, then the rates)
#   scripts/bench.sh --quick   shorter runs
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/install-deps.sh
cmake -S . -B build -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build build -j2 --target atcmd_bench >/dev/null
build/bin/atcmd_bench "$@"
