#!/usr/bin/env bash
# Long run of the link race test before a release: N seeded sequences of racing plug, unplug,
# bounce and Wi-Fi events (default 5000), in shards of 100 with fresh seeds, run two at a time.
# Prints each shard's count and the total of sequences that ended in the true state.
set -euo pipefail
cd "$(dirname "$0")/.."
total=${1:-5000}
per_shard=$(( total < 100 ? total : 100 ))
scripts/install-deps.sh
cmake -S . -B build -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build build -j"$(nproc)" --target link_race_test
logs=$(mktemp -d)
shards=$(( (total + per_shard - 1) / per_shard ))
base=$(date +%s)
for i in $(seq 0 $((shards - 1))); do
  echo "$i"
done | xargs -P 2 -I{} sh -c "ATCMD_RACE_SEED=\$(( $base + {} )) ATCMD_RACE_SEQUENCES=$per_shard \
  build/tests/link_race_test --gtest_filter='Shards/LinkRaceTest.*/0' > $logs/{}.log 2>&1 || true"
grep -ho 'link races: .*' "$logs"/*.log
grep -h -A1 '^seed [0-9]*, sequence' "$logs"/*.log || true
awk '/link races:/ { ok += $3; all += $5 } END { printf "%d of %d sequences ended true\n", ok, all }' \
  <(grep -ho 'link races: [0-9]* of [0-9]*' "$logs"/*.log)
echo "logs: $logs"
