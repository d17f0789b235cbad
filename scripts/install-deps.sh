#!/usr/bin/env bash
# Installs what the build and the tests need on a Debian machine, only when something is missing.
#   scripts/install-deps.sh                  the native build, the tests, the fuzz targets
#   scripts/install-deps.sh NAME:ARCH ...    these packages as well (scripts/cross-test.sh)
# Each package is checked for one architecture: on a machine that also holds another
# architecture's packages, a bare name is ambiguous to dpkg. A name without ":ARCH" means the
# machine's own architecture; architecture-independent packages are written NAME:all.
set -euo pipefail

native=$(dpkg --print-architecture)
# clang and libclang-rt-14-dev: the libFuzzer targets; valgrind: scripts/memcheck.sh;
# blueprint-tools: bpfmt, which checks Android.bp; jq: the trace tests read the console's trace;
# libedit-dev: line editing at the console's prompt; nodejs, librsvg2-bin and fonts-dejavu-core:
# scripts/trace-picture.sh draws a trace as SVG and turns it into a PNG (no browser).
# scripts/android-check.sh asks for clang-19, libc++-19-dev and python3 itself, when it runs.
packages=(cmake make g++ binutils googletest:all libgtest-dev android-liblog-dev
          clang libclang-rt-14-dev valgrind blueprint-tools jq libedit-dev
          nodejs librsvg2-bin fonts-dejavu-core:all "$@")

missing=()
foreign=()
for p in "${packages[@]}"; do
  [[ $p == *:* ]] || p="$p:$native"
  status=$(dpkg-query -W -f '${Status}' "$p" 2>/dev/null || true)
  [ "$status" = "install ok installed" ] && continue
  missing+=("$p")
  arch=${p##*:}
  if [ "$arch" != all ] && [ "$arch" != "$native" ] &&
      ! dpkg --print-foreign-architectures | grep -qx "$arch"; then
    foreign+=("$arch")
  fi
done
[ ${#missing[@]} -eq 0 ] && exit 0

echo "installing: ${missing[*]}"
sudo=""
[ "$(id -u)" -eq 0 ] || sudo="sudo"
export DEBIAN_FRONTEND=noninteractive
for arch in $(printf '%s\n' "${foreign[@]+"${foreign[@]}"}" | sort -u); do
  echo "adding the architecture $arch"
  $sudo dpkg --add-architecture "$arch"
done
# One mirror index caught mid-sync makes the update exit non-zero though every other index
# came; the install below still succeeds when what it needs was fetched, and fails if not.
if ! $sudo apt-get update -qq; then
  echo "warning: apt-get update reported errors; trying the install with the indexes it has" >&2
fi
$sudo apt-get install -y -qq "${missing[@]}"
