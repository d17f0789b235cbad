#!/usr/bin/env bash
# The main job: installs what is missing, builds, then runs the demonstration: the module loaded
# as the platform does, against the simulated accessory (USB) and Wi-Fi daemon, in a fresh
# sandbox under /tmp that is left in place for a look at the log file, the properties and the
# run's trace (a timeline for a trace viewer).
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/install-deps.sh
cmake -S . -B build -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build build -j"$(nproc)" --target atcmdprocess_module atcmd_console atcmd_accessory_sim atcmd_daemon_sim atcmd_replay >/dev/null

root=$(mktemp -d /tmp/atcmd-demo-XXXXXX)
status=0
trace="$root/demo-trace.json"
ATCMD_ROOT="$root" build/bin/atcmd_console --sim --echo --trace "$trace" tools/demo/demo.atcmd || status=$?

echo
echo "sandbox left in place: $root"
echo "  module log:  $root/sdcard/quorvanta/.log/atcmdprocess"
echo "  properties:  $root/property/ ($(ls "$root/property" | tr '\n' ' '))"
echo "  replay it:   build/bin/atcmd_replay $root/sdcard/quorvanta/.log/atcmdprocess"
echo "               (about as long as the demonstration: the module's own timers set the pace)"
echo "  trace:       $trace"
echo "               (open it in a trace viewer: Perfetto UI > Open trace file, or speedscope)"
if [ "$status" -ne 0 ]; then
  echo "some steps of the demonstration did not happen (see the \"error:\" lines above)"
fi
exit "$status"
