#!/usr/bin/env bash
# Draws a console trace as a picture: lays the trace out as a trace viewer does
# (scripts/trace-picture.js, plain Node: the whole run, and a window the trace itself picks,
# both titled from the trace) and takes a screenshot with Debian's headless Chromium. Offline.
#
#   scripts/trace-picture.sh TRACE [OUT.png]     OUT defaults to TRACE with .png for .json
#   scripts/trace-picture.sh --demo [OUT.png]    runs the demonstration with --trace first;
#                                                OUT defaults to a fresh directory under /tmp
#
# It writes OUT and nothing else; the picture shown in README.md and docs/traces.md is remade
# only when asked:
#   scripts/trace-picture.sh --demo docs/demo-trace.png
set -euo pipefail

usage="usage: $0 TRACE [OUT.png] | --demo [OUT.png]"
[ $# -ge 1 ] && [ $# -le 2 ] || { echo "$usage" >&2; exit 2; }
case "$1" in -h|--help) echo "$usage"; exit 0 ;; esac
# Paths as the caller wrote them, from the caller's directory.
absolute() { case "$1" in /*) echo "$1" ;; *) echo "$PWD/$1" ;; esac; }
out=""
[ $# -eq 2 ] && out=$(absolute "$2")
if [ "$1" != "--demo" ]; then
  trace=$(absolute "$1")
  [ -r "$trace" ] || { echo "$0: cannot read $trace" >&2; exit 1; }
fi
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
if [ "$1" = "--demo" ]; then
  cmake -S . -B build -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
  cmake --build build -j2 --target atcmdprocess_module atcmd_console >/dev/null
  trace="$work/demo-trace.json"
  mkdir -p "$work/root"
  ATCMD_ROOT="$work/root" build/bin/atcmd_console --sim --trace "$trace" tools/demo/demo.atcmd >/dev/null
  out=${out:-$work/demo-trace.png}
else
  out=${out:-${trace%.json}.png}
fi

node scripts/trace-picture.js "$trace" >"$work/page.html"
mkdir -p "$(dirname "$out")"
chromium --headless --no-sandbox --disable-gpu --hide-scrollbars --window-size=1410,490 \
  --screenshot="$out" "file://$work/page.html" 2>/dev/null
echo "$out from $trace"
