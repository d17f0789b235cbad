#!/usr/bin/env bash
# Makes docs/demo-trace.png, the README's picture of the demonstration's trace: runs the
# demonstration with --trace (or takes TRACE), lays the trace out as a trace viewer does
# (scripts/trace-picture.js, plain Node) and takes a screenshot with Debian's headless Chromium.
# Offline; not part of the tests. Usage: scripts/trace-picture.sh [TRACE]
set -euo pipefail
cd "$(dirname "$0")/.."

missing=()
command -v chromium >/dev/null || missing+=(chromium)
command -v node >/dev/null || missing+=(nodejs)
if [ ${#missing[@]} -ne 0 ]; then
  sudo=""
  [ "$(id -u)" -eq 0 ] || sudo="sudo"
  $sudo apt-get update -qq
  DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -qq "${missing[@]}" fonts-dejavu-core
fi

work=$(mktemp -d /tmp/atcmd-trace-picture-XXXXXX)
trace=${1:-}
if [ -z "$trace" ]; then
  cmake -S . -B build -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
  cmake --build build -j2 --target atcmdprocess_module atcmd_console >/dev/null
  trace="$work/demo-trace.json"
  mkdir -p "$work/root"
  ATCMD_ROOT="$work/root" build/bin/atcmd_console --sim --trace "$trace" tools/demo/demo.atcmd >/dev/null
fi

# The second panel: from the plug to the unanswered query's -110 (the demonstration's first 450 ms).
node scripts/trace-picture.js "$trace" 0 450 >"$work/page.html"
mkdir -p docs
chromium --headless --no-sandbox --disable-gpu --hide-scrollbars --window-size=1410,490 \
  --screenshot="$PWD/docs/demo-trace.png" "file://$work/page.html" 2>/dev/null
echo "docs/demo-trace.png from $trace"
