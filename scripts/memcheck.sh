#!/usr/bin/env bash
# valgrind memcheck over the demonstration, or over the command given: fails on any invalid
# access, use of an uninitialised value, or block definitely lost.
#   scripts/memcheck.sh                      build/bin/atcmd_open_demo on the built module
#   scripts/memcheck.sh COMMAND [ARGS...]    any other program that opens the module
# The command must end by a normal exit, with the device still open: closing the device ends the
# process with SIGKILL, which leaves valgrind no moment to look for leaks. A run that ends by a
# signal is reported as such and fails. tests/memcheck.supp lists the reports accepted on purpose.
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/install-deps.sh
cmake -S . -B build -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build build -j2 >/dev/null
[ $# -gt 0 ] || set -- build/bin/atcmd_open_demo build/hw/atcmdprocess.default.so

log=build/memcheck.log
status=0
valgrind --tool=memcheck --leak-check=full --show-leak-kinds=definite \
  --errors-for-leak-kinds=definite --track-origins=yes --error-exitcode=99 \
  --suppressions=tests/memcheck.supp \
  --log-file="$log" "$@" >build/memcheck.out 2>&1 || status=$?

if grep -q "Process terminating with default action of signal" "$log"; then
  grep -A2 "Process terminating" "$log"
  echo "memcheck: the command ended by a signal (closing the device?); no leak check possible"
  exit 1
fi
grep -E "ERROR SUMMARY|definitely lost|in use at exit" "$log" || true
case $status in
  0) echo "memcheck: no invalid access, nothing definitely lost (full report: $log)" ;;
  99) echo "memcheck: errors found, see $log"; exit 1 ;;
  *) echo "memcheck: the command failed with status $status (its output: build/memcheck.out)"; exit 1 ;;
esac
