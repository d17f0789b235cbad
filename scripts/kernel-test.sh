#!/usr/bin/env bash
# The USB link against a real kernel: boots the distribution's kernel package under
# qemu-system-x86_64 with the host's root shared read-only over 9p and a busybox initramfs made
# here, loads the USB gadget and ACM drivers (dummy_hcd with two UDCs, libcomposite, usb_f_acm,
# cdc-acm), runs build/tests/kernel_usb_test inside the guest, where each case plays the
# accessory as a configfs gadget and the module takes the port cdc-acm makes, then reports
# each case here and replays the guest's module log with build/bin/atcmd_replay.
#
#   scripts/kernel-test.sh [BUILD_DIR]          every case (BUILD_DIR defaults to build)
#   ATCMD_KERNEL_FILTER='KernelUsb.Flood*'      a gtest filter for the guest's run
#   ATCMD_KERNEL_KVM=1                          use KVM when /dev/kvm answers (TCG otherwise)
#   ATCMD_KERNEL_TIMEOUT=240                    seconds before a hung guest is killed
#   ATCMD_KERNEL_KEEP=1                         keep the work directory (initramfs, logs)
#
# Exit 0 when every case passed, or SKIPPED (status 0) when qemu or the kernel package cannot
# be had; 1 on any failure, with the guest's kernel log and console printed.
set -euo pipefail
cd "$(dirname "$0")/.."
repo=$(pwd)
build=$(cd "${1:-build}" && pwd)
test_bin=$build/tests/kernel_usb_test
replay_bin=$build/bin/atcmd_replay

skip() {
  echo "SKIPPED: $*"
  exit 0
}

qemu=$(command -v qemu-system-x86_64 || true)
[ -n "$qemu" ] || skip "qemu-system-x86_64 is not installed (package qemu-system-x86)"
[ "$(uname -m)" = x86_64 ] || skip "the guest is x86_64 and this host is $(uname -m)"
busybox=""
for b in /bin/busybox /usr/bin/busybox; do
  if [ -x "$b" ] && ! ldd "$b" >/dev/null 2>&1; then busybox=$b; break; fi
done
[ -n "$busybox" ] || skip "no static busybox (package busybox-static)"

# The newest kernel package whose modules hold the gadget drivers.
kver=""
for k in $(ls -1 /boot/vmlinuz-* 2>/dev/null | sed 's|/boot/vmlinuz-||' | sort -V -r); do
  if [ -r "/boot/vmlinuz-$k" ] && [ -f "/lib/modules/$k/modules.dep" ] &&
      grep -q 'dummy_hcd\.ko' "/lib/modules/$k/modules.dep"; then
    kver=$k; break
  fi
done
[ -n "$kver" ] || skip "no readable /boot/vmlinuz-* with dummy_hcd in its modules (package linux-image-amd64)"

[ -x "$test_bin" ] || { echo "error: $test_bin is not built (cmake --build $build --target kernel_usb_test)"; exit 1; }
[ -x "$replay_bin" ] || { echo "error: $replay_bin is not built (cmake --build $build --target atcmd_replay)"; exit 1; }

work=$(mktemp -d /tmp/atcmd-kernel-XXXXXX)
cleanup() {
  if [ -n "${ATCMD_KERNEL_KEEP:-}" ]; then echo "kept: $work"; else rm -rf "$work"; fi
}
trap cleanup EXIT
initramfs=$work/initramfs
out=$work/out
mkdir -p "$initramfs"/{bin,dev,proc,sys,host,lib/modules} "$out"
cp "$busybox" "$initramfs/bin/busybox"

# The drivers and what they need, in load order (a module after everything it depends on).
moddir=/lib/modules/$kver
declare -A loaded=()
order=()
add_module() {
  local name=${1//-/_} line path dep
  [ -n "${loaded[$name]:-}" ] && return 0
  line=$(grep -E "(^|/)(${name//_/[-_]})\.ko(\.[a-z]+)?:" "$moddir/modules.dep" | head -1)
  [ -n "$line" ] || { echo "error: module $1 is not in $moddir/modules.dep"; exit 1; }
  loaded[$name]=1
  path=${line%%:*}
  for dep in ${line#*:}; do
    dep=$(basename "$dep"); dep=${dep%%.ko*}
    add_module "$dep"
  done
  # Compressed modules are unpacked here: busybox's insmod takes a plain object.
  case $path in
    *.ko) cp "$moddir/$path" "$initramfs/lib/modules/$name.ko" ;;
    *.ko.xz) xz -dc "$moddir/$path" >"$initramfs/lib/modules/$name.ko" ;;
    *.ko.zst) zstd -qdc "$moddir/$path" >"$initramfs/lib/modules/$name.ko" ;;
    *.ko.gz) gzip -dc "$moddir/$path" >"$initramfs/lib/modules/$name.ko" ;;
    *) echo "error: cannot load $path"; exit 1 ;;
  esac
  order+=("$name")
}
for m in virtio_pci 9pnet_virtio 9p dummy_hcd libcomposite usb_f_acm cdc_acm; do add_module "$m"; done
printf '%s\n' "${order[@]}" >"$initramfs/modules"

# What the guest runs, in the host's root (its libraries, the build tree) under its own /dev,
# /sys, /proc and a tmpfs /tmp; the results come back through a second, writable share. The
# module logs every step to standard output: that goes to the tmpfs and is copied once at the
# end, since every write through 9p costs an emulated round trip.
cat >"$initramfs/run.conf" <<EOF
test_bin='$test_bin'
tree='$repo'
build_dir='$build'
filter='${ATCMD_KERNEL_FILTER:-*}'
tests_limit=$(( ${ATCMD_KERNEL_TIMEOUT:-240} - 45 ))
EOF
cat >"$initramfs/init" <<'EOF'
#!/bin/busybox sh
/bin/busybox --install -s /bin
mount -t proc proc /proc
mount -t sysfs sysfs /sys
mount -t devtmpfs devtmpfs /dev
. /run.conf
for m in $(cat /modules); do
  args=""
  [ "$m" = dummy_hcd ] && args="num=2"
  insmod /lib/modules/$m.ko $args || echo "guest: insmod $m failed"
done
mount -t 9p -o trans=virtio,version=9p2000.L,ro,cache=loose,msize=262144 hostroot /host ||
  echo "guest: the host's root cannot be mounted"
mount -t proc proc /host/proc
mount -t sysfs sysfs /host/sys
mount -t devtmpfs devtmpfs /host/dev
mkdir -p /host/dev/pts && mount -t devpts devpts /host/dev/pts
mount -t configfs configfs /host/sys/kernel/config
mount -t tmpfs tmpfs /host/tmp
mkdir -p /host/tmp/out
mount -t 9p -o trans=virtio,version=9p2000.L,msize=262144 out /host/tmp/out
# The source tree and the build are shared again at their own paths, so that a clone under /tmp
# (hidden by the tmpfs above) is still seen by the tests.
for share in tree:"$tree" build:"$build_dir"; do
  dir=${share#*:}
  mkdir -p "/host$dir" 2>/dev/null
  mount -t 9p -o trans=virtio,version=9p2000.L,ro,cache=loose,msize=262144 "${share%%:*}" "/host$dir" ||
    echo "guest: $dir cannot be mounted"
done
echo "guest: $(uname -r), UDCs: $(ls /sys/class/udc | tr '\n' ' ')"
ls /sys/class/udc >/host/tmp/out/udcs
# The tests get the guest's limit less its boot and shutdown, so that a hung case still leaves
# its output and the kernel's log behind.
chroot /host /usr/bin/timeout -k 5 "$tests_limit" /usr/bin/env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin HOME=/tmp TMPDIR=/tmp \
  ATCMD_KERNEL_GUEST=1 ATCMD_KERNEL_OUT=/tmp/out \
  "$test_bin" --gtest_filter="$filter" >/host/tmp/gtest.txt 2>&1
status=$?
[ $status -eq 124 ] && echo "guest: the tests did not finish within $tests_limit s" >>/host/tmp/gtest.txt
echo $status >/host/tmp/out/status
cp /host/tmp/gtest.txt /host/tmp/out/gtest.txt
dmesg >/host/tmp/out/dmesg.txt
sync
echo "guest: done"
poweroff -f
EOF
chmod +x "$initramfs/init"
(cd "$initramfs" && find . | cpio -o -H newc --quiet | gzip -1) >"$work/initramfs.gz"

accel=(-accel tcg)
if [ -n "${ATCMD_KERNEL_KVM:-}" ]; then
  if [ -r /dev/kvm ] && [ -w /dev/kvm ]; then
    accel=(-accel kvm -cpu host)
  else
    echo "note: ATCMD_KERNEL_KVM asked for, but /dev/kvm is not usable: TCG"
  fi
fi

limit=${ATCMD_KERNEL_TIMEOUT:-240}
echo "==== kernel stage: $kver under qemu (${accel[1]}), ${limit} s limit ===="
start=$(date +%s)
qemu_status=0
timeout --kill-after=10 "$limit" "$qemu" "${accel[@]}" -m 768 -smp 2 -nographic -no-reboot \
  -kernel "/boot/vmlinuz-$kver" -initrd "$work/initramfs.gz" \
  -append "console=ttyS0 loglevel=3 panic=-1 rdinit=/init" \
  -virtfs "local,path=/,mount_tag=hostroot,security_model=none,readonly=on,multidevs=remap" \
  -virtfs "local,path=$out,mount_tag=out,security_model=none" \
  -virtfs "local,path=$repo,mount_tag=tree,security_model=none,readonly=on,multidevs=remap" \
  -virtfs "local,path=$build,mount_tag=build,security_model=none,readonly=on,multidevs=remap" \
  </dev/null >"$work/console.log" 2>&1 || qemu_status=$?
elapsed=$(( $(date +%s) - start ))

show_failure() {
  echo "---- guest console ($work/console.log) ----"
  tail -n 40 "$work/console.log" || true
  if [ -s "$out/dmesg.txt" ]; then
    cp "$out/dmesg.txt" "$build/kernel-dmesg.txt"
    echo "---- guest kernel log, last 60 lines (all of it: $build/kernel-dmesg.txt) ----"
    tail -n 60 "$out/dmesg.txt"
  fi
}

[ -f "$out/gtest.txt" ] && cp "$out/gtest.txt" "$build/kernel-gtest.txt"
if [ "$qemu_status" -eq 124 ] || [ "$qemu_status" -eq 137 ]; then
  echo "FAILED: the guest did not finish within $limit s"
  [ -f "$out/gtest.txt" ] && cat "$out/gtest.txt"
  show_failure
  exit 1
fi
if [ ! -f "$out/status" ]; then
  echo "FAILED: the guest ended without running the tests (qemu status $qemu_status)"
  show_failure
  exit 1
fi

# Each case's result as GoogleTest printed it in the guest, then the replay of the log that the
# replay case left, then one tally line.
passed=0 failed=0 skipped=0
while IFS= read -r line; do
  case $line in
    "[       OK ] "*) passed=$((passed + 1)) ;;
    "[  FAILED  ] "*) failed=$((failed + 1)) ;;
    "[  SKIPPED ] "*) skipped=$((skipped + 1)) ;;
  esac
  echo "$line"
done < <(grep -aoE '\[(       OK |  FAILED  |  SKIPPED )\] [A-Za-z0-9_/.]+ \(([0-9]+ ms|status [0-9]+)\)' "$out/gtest.txt" |
         grep -vE '\[  FAILED  \] .* \([0-9]+ ms\)')
replay_case="KernelUsb.GuestLogReplaysWithoutDivergence (host)"
if [ -s "$out/replay.log" ]; then
  replay_status=0
  "$replay_bin" "$out/replay.log" >"$work/replay.txt" 2>&1 || replay_status=$?
  # The replay leaves its sandbox under /tmp and names it; this run's is removed here.
  replay_box=$(sed -n 's|^sandbox: \(/tmp/atcmd-replay-[A-Za-z0-9]*\) .*|\1|p' "$work/replay.txt" | head -1)
  [ -n "$replay_box" ] && [ -z "${ATCMD_KERNEL_KEEP:-}" ] && rm -rf "$replay_box"
  if [ "$replay_status" -eq 0 ]; then
    passed=$((passed + 1)); echo "[       OK ] $replay_case"
  else
    failed=$((failed + 1)); echo "[  FAILED  ] $replay_case"
    cp "$out/replay.log" "$build/kernel-replay.log"
    echo "---- atcmd_replay $build/kernel-replay.log ----"
    tail -n 30 "$work/replay.txt"
  fi
elif [ "${ATCMD_KERNEL_FILTER:-*}" = "*" ]; then
  failed=$((failed + 1)); echo "[  FAILED  ] $replay_case: the guest left no module log to replay"
fi
# The figure: the same flood and round trips through cdc-acm and through a pseudo-terminal.
if [ -s "$out/figure-usb" ] && [ -s "$out/figure-pty" ]; then
  read -r _ usb_lps usb_rtt <"$out/figure-usb"
  read -r _ pty_lps pty_rtt <"$out/figure-pty"
  awk -v ul="$usb_lps" -v ur="$usb_rtt" -v pl="$pty_lps" -v pr="$pty_rtt" 'BEGIN {
    printf "figure: cdc-acm %d lines/s, round trip %.1f ms; pty %d lines/s, round trip %.1f ms; ", ul, ur, pl, pr
    printf "cdc-acm/pty: %.2f x lines/s, %.2f x round trip\n", ul / pl, ur / pr }'
fi
guest_status=$(cat "$out/status")
if [ "$failed" -ne 0 ] || [ "$guest_status" -ne 0 ] || [ "$passed" -eq 0 ]; then
  echo "---- the guest's test output (all of it: $build/kernel-gtest.txt) ----"
  grep -v '^\[\(       OK \|  SKIPPED \| RUN      \)\]' "$out/gtest.txt" | tail -n 80
  show_failure
  echo "kernel stage: $passed passed, $failed failed, $skipped skipped in ${elapsed} s (guest status $guest_status)"
  exit 1
fi
echo "kernel stage: $passed passed, $failed failed, $skipped skipped in ${elapsed} s"
