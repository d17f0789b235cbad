#!/usr/bin/env bash
# valgrind memcheck over the demonstration, or over the command given: fails on any invalid
# access, use of an uninitialised value, or block definitely lost.
#   scripts/memcheck.sh                      the demonstration (the console with --sim on
#                                            tools/demo/demo.atcmd, in a fresh sandbox)
#   scripts/memcheck.sh COMMAND [ARGS...]    any other program that opens the module
# The command must end by a normal exit, with the device still open: closing the device ends the
# process with SIGKILL, which leaves valgrind no moment to look for leaks. The console leaves at
# the end of its script without closing the device, so the demonstration qualifies. A run that
# ends by a signal is reported as such and fails. tests/memcheck.supp lists the reports accepted
# on purpose.
set -euo pipefail
cd "$(dirname "$0")/.."

# Valgrind runs the demonstration many times slower; its waits get this many times their
# deadlines (the module's own timers, and so the story, keep real time).
wait_scale=${ATCMD_MEMCHECK_WAIT_SCALE:-4}

scripts/install-deps.sh
cmake -S . -B build -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build build -j2 >/dev/null
if [ $# -eq 0 ]; then
  ATCMD_ROOT=$(mktemp -d /tmp/atcmd-memcheck-XXXXXX)
  export ATCMD_ROOT
  echo "memcheck: the demonstration in $ATCMD_ROOT"
  set -- build/bin/atcmd_console --sim --wait-scale "$wait_scale" tools/demo/demo.atcmd
fi

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
