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
# libedit-dev: line editing at the console's prompt; libxml2-utils: xmllint, which checks the
# service's VINTF fragment and compatibility matrix; nodejs, librsvg2-bin and fonts-dejavu-core:
# scripts/trace-picture.sh draws a trace as SVG and turns it into a PNG (no browser).
# qemu-system-x86, linux-image-amd64 and busybox-static: the kernel stage's guest
# (scripts/kernel-test.sh), installed without their recommendations and only on an amd64 machine;
# a failed install of these is reported and leaves the stage to say SKIPPED.
# scripts/android-check.sh asks for clang-19, libc++-19-dev and python3 itself, when it runs;
# scripts/sepolicy-check.sh for checkpolicy, policycoreutils (setfiles) and m4.
packages=(cmake make g++ binutils googletest:all libgtest-dev android-liblog-dev
          clang libclang-rt-14-dev valgrind blueprint-tools jq libedit-dev libxml2-utils
          nodejs librsvg2-bin fonts-dejavu-core:all "$@")

kernel_stage=()
[ "$native" = amd64 ] && kernel_stage=(qemu-system-x86 linux-image-amd64 busybox-static)

installed() {
  [ "$(dpkg-query -W -f '${Status}' "$1" 2>/dev/null || true)" = "install ok installed" ]
}

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
kernel_missing=()
for p in "${kernel_stage[@]+"${kernel_stage[@]}"}"; do
  installed "$p:$native" || kernel_missing+=("$p")
done
[ ${#missing[@]} -eq 0 ] && [ ${#kernel_missing[@]} -eq 0 ] && exit 0

[ ${#missing[@]} -gt 0 ] && echo "installing: ${missing[*]}"
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
if [ ${#missing[@]} -gt 0 ]; then
  $sudo apt-get -o DPkg::Lock::Timeout=600 install -y -qq "${missing[@]}"
fi
if [ ${#kernel_missing[@]} -gt 0 ]; then
  echo "installing for the kernel stage: ${kernel_missing[*]}"
  $sudo apt-get -o DPkg::Lock::Timeout=600 install -y -qq --no-install-recommends "${kernel_missing[@]}" ||
    echo "warning: the kernel stage's packages could not be installed; the stage will be skipped" >&2
fi
