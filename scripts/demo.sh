#!/usr/bin/env bash
# The main job: builds the module and loads it the way the platform does, in a sandbox root
# under /tmp, then shows what it logged.
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/install-deps.sh
cmake -S . -B build -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build build -j"$(nproc)"

root=$(mktemp -d /tmp/atcmd-demo-XXXXXX)
echo "sandbox root: $root"
ATCMD_ROOT="$root" build/bin/atcmd_open_demo build/hw/atcmdprocess.default.so
