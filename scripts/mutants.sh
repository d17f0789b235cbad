#!/usr/bin/env bash
# Planted faults: what the tests are worth. Changes one small thing at a time in the module's
# code under src/ (a flipped comparison, && and || swapped, a bound moved by one, a dropped call,
# another returned value, an inverted boolean), rebuilds incrementally in build-mutants/, runs
# the plain tests until the first failure and puts the file back. A fault is caught when a test
# fails or overruns its time limit; else it survived. Faults are drawn with a seed: the same seed
# on the same src/ draws the same faults.
#   scripts/mutants.sh [-n COUNT] [-s SEED] [-j JOBS] [--all]
# --all runs every test on each fault and names every test that catches it.
set -euo pipefail
cd "$(dirname "$0")/.."
top=$PWD

count=50 seed=15 jobs=2 all=0
while [ $# -gt 0 ]; do
  case $1 in
    -n) count=$2; shift 2 ;;
    -s) seed=$2; shift 2 ;;
    -j) jobs=$2; shift 2 ;;
    --all) all=1; shift ;;
    *) echo "usage: $0 [-n COUNT] [-s SEED] [-j JOBS] [--all]" >&2; exit 2 ;;
  esac
done
git diff --quiet -- src || { echo "src/ has changes of its own: commit or stash them first" >&2; exit 2; }

build=$top/build-mutants
work=$(mktemp -d)
mutated=""  # the file holding a fault right now
restore() { if [ -n "$mutated" ]; then cp "$work/pristine" "$mutated"; mutated=""; fi; }
trap 'restore; rm -rf "$work"' EXIT
trap 'exit 130' INT TERM

# The normal build's optimisation (the code behaves differently at -O1), but no debug information
# and gold: each fault relinks every test, and that is most of the time.
scripts/install-deps.sh || echo "install-deps.sh failed: going on with what is installed" >&2
if [ ! -f "$build/CMakeCache.txt" ]; then
  generator=(); command -v ninja >/dev/null && generator=(-G Ninja)
  cmake -S . -B "$build" "${generator[@]}" -DCMAKE_BUILD_TYPE=RelWithDebInfo \
    -DCMAKE_CXX_FLAGS_RELWITHDEBINFO="-O2 -DNDEBUG" -DCMAKE_C_FLAGS_RELWITHDEBINFO="-O2 -DNDEBUG" \
    -DCMAKE_EXE_LINKER_FLAGS=-fuse-ld=gold -DCMAKE_SHARED_LINKER_FLAGS=-fuse-ld=gold \
    -DCMAKE_MODULE_LINKER_FLAGS=-fuse-ld=gold >/dev/null
fi
rebuild() { cmake --build "$build" -j"$jobs" >"$work/build.log" 2>&1; }
rebuild || { cat "$work/build.log"; exit 1; }

# Every test case as "executable name", as CTest runs them: each in its own process.
for exe in "$build"/tests/*_test; do
  "$exe" --gtest_list_tests | awk -v exe="$exe" '/^[^ ]/ { suite = $1 } /^  / { print exe, suite $1 }'
done >"$work/tests"

# Runs the tests in the order of file $1 ("executable name seconds-allowed"), $jobs at a time;
# prints each failing one, and stops at the first unless --all. Times each one into $work/times.
run_tests() {
  local -A names=() started=()
  local exe name limit pid rc failed=0 stopping=0
  : >"$work/times"
  reap() {
    pid="" rc=0; wait -n -p pid || rc=$?
    if [ -z "${pid:-}" ]; then  # wait -n misses a test whose end was already taken: find it
      for pid in "${!names[@]}"; do kill -0 "$pid" 2>/dev/null || break; done
      rc=0; wait "$pid" || rc=$?
    fi
    echo "${names[$pid]} $(( (${EPOCHREALTIME/./} - ${started[$pid]}) / 1000 ))" >>"$work/times"
    [ "$rc" -eq 0 ] || [ $stopping -eq 1 ] || { echo "${names[$pid]}$([ "$rc" -ne 124 ] || echo ' (time-out)')"; failed=1; }
    unset "names[$pid]"
  }
  cd "$build/tests"
  while read -r exe name limit; do
    while [ ${#names[@]} -ge "$jobs" ]; do reap; done
    [ $failed -eq 0 ] || [ $all -eq 1 ] || break
    timeout -k 5 "$limit" "$exe" --gtest_filter="$name" >/dev/null 2>&1 </dev/null &
    names[$!]=$name; started[$!]=${EPOCHREALTIME/./}
  done <"$1"
  if [ $failed -eq 1 ] && [ $all -eq 0 ] && [ ${#names[@]} -gt 0 ]; then
    stopping=1; kill "${!names[@]}" 2>/dev/null || true
  fi
  while [ ${#names[@]} -gt 0 ]; do reap; done
  cd "$top"
}

# The unchanged code must pass, and gives each test's time: fastest first, limit 10 s + 3 times.
awk '{ print $1, $2, 120 }' "$work/tests" >"$work/order"
if [ -n "$(all=1 run_tests "$work/order")" ]; then
  echo "the tests fail without any fault: fix that first" >&2; exit 1
fi
sort -k2,2n "$work/times" | awk 'NR == FNR { exe[$2] = $1; next }
  { print exe[$1], $1, 10 + int($2 * 3 / 1000) }' "$work/tests" - >"$work/order"

# The candidate faults in src/*.cpp (code only: no comments, strings, ATCMD_LOG calls or preprocessor
# lines), shuffled by the seed: "file line column old new".
git ls-files 'src/*.cpp' | sort | SEED=$seed xargs perl -e '
  use List::Util qw(shuffle);
  my @ops = ([qr/==/, "!="], [qr/!=/, "=="], [qr/ < /, " <= "], [qr/ <= /, " < "],
             [qr/ > /, " >= "], [qr/ >= /, " > "], [qr/ && /, " || "], [qr/ \|\| /, " && "],
             [qr/ [+-] 1(?![\w.])/, ""], [qr/\(!(?!=)/, "("], [qr/\btrue\b/, "false"],
             [qr/\bfalse\b/, "true"], [qr/(?<=return )0(?=;)/, "1"], [qr/(?<=return )-?[1-9]\d*(?=;)/, "0"]);
  my @c;
  for my $f (@ARGV) {
    open my $in, "<", $f or die $f; my $block = 0;
    while (my $l = <$in>) {
      chomp $l;
      if ($block) { $block = 0 if $l =~ m{\*/}; next }
      if ($l =~ m{^\s*/\*}) { $block = 1 unless $l =~ m{\*/}; next }
      next if $l =~ m{^\s*(//|\*|#)} || $l =~ /ATCMD_LOG|static_assert/;
      (my $m = $l) =~ s{"(?:[^"\\]|\\.)*"|\x27(?:[^\x27\\]|\\.)*\x27}{" " x length $&}ge;
      $m =~ s{//.*}{" " x length $&}e;
      for my $o (@ops) {
        while ($m =~ /$o->[0]/g) { push @c, [$f, $., $-[0], $&, $o->[1]] }
      }
      if ($m =~ /^(\s*)((?:\w+(?:::|\.|->))*(\w+)\(.*\);)\s*$/ && $3 !~ /^(return|if|while|for|switch|sizeof)$/
          && ($2 =~ tr/(//) == ($2 =~ tr/)//)) {
        push @c, [$f, $., length $1, substr($l, length $1, length $2), "(void)0;"];
      }
    }
  }
  srand($ENV{SEED}); print join("\x1f", @$_), "\n" for shuffle @c;
' >"$work/candidates"

# One fault at a time until $count of them built.
tried=0 caught=0 start=$SECONDS
while [ $tried -lt "$count" ] && IFS=$'\x1f' read -r file line col old new; do
  cp "$file" "$work/pristine"; mutated=$file
  OLD=$old NEW=$new perl -pi -e "substr(\$_, $col, length \$ENV{OLD}) = \$ENV{NEW} if \$. == $line" "$file"
  change="$file:$line  '$old' -> '$new'"
  if ! rebuild; then restore; continue; fi
  tried=$((tried + 1))
  catchers=$(run_tests "$work/order" | paste -sd, -)
  restore
  if [ -n "$catchers" ]; then
    caught=$((caught + 1))
    printf 'caught    %s  by %s\n' "$change" "$catchers"
    # The test that caught this one runs first from now on.
    first=${catchers%%,*}; first=${first% (time-out)}
    { grep -F " $first " "$work/order" || true; grep -vF " $first " "$work/order" || true; } >"$work/next"
    mv "$work/next" "$work/order"
  else
    printf 'survived  %s\n' "$change"
  fi
done <"$work/candidates"
rebuild || true  # the build left as the code is
git diff --quiet -- src || { echo "src/ was left changed" >&2; exit 1; }
echo "caught $caught of $tried planted faults ($(( tried ? caught * 100 / tried : 0 ))%), seed $seed, $(( (SECONDS - start) / 60 )) min"
