#!/usr/bin/env bash
# Draws a console trace as a picture: lays the trace out as a trace viewer does
# (scripts/trace-picture.js, plain Node, writes an SVG: the whole run, and a window the trace
# itself picks, both titled from the trace) and turns it into a PNG with rsvg-convert
# (librsvg2-bin). No browser; offline. It installs nothing: what is missing is named, and
# scripts/install-deps.sh installs it.
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
command -v node >/dev/null || missing+=("node (Debian package nodejs)")
command -v rsvg-convert >/dev/null || missing+=("rsvg-convert (Debian package librsvg2-bin)")
[ -e /usr/share/fonts/truetype/dejavu/DejaVuSans.ttf ] || missing+=("the DejaVu fonts (Debian package fonts-dejavu-core)")
if [ ${#missing[@]} -ne 0 ]; then
  printf '%s: missing: %s\n' "$0" "${missing[*]}" >&2
  echo "$0: scripts/install-deps.sh installs them (nothing is installed from here)" >&2
  exit 1
fi

work=$(mktemp -d /tmp/atcmd-trace-picture-XXXXXX)
cleanup() { rm -f "$work/picture.svg"; rmdir "$work" 2>/dev/null || true; }
trap cleanup EXIT
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

node scripts/trace-picture.js "$trace" >"$work/picture.svg"
mkdir -p "$(dirname "$out")"
rsvg-convert --format=png --background-color=white -o "$out" "$work/picture.svg"
echo "$out from $trace"
