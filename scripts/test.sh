#!/usr/bin/env bash
# Builds and runs every test: a normal build with the Debian package and its
# tests, the same tests under AddressSanitizer and UndefinedBehaviorSanitizer,
# a short run of every fuzz target, and the line and branch coverage the
# tests reach. Exits non-zero on the first failure.
#
#   scripts/test.sh            everything
#   QUOR_FUZZ_SECONDS=60 ...   longer fuzz runs (default 15 s per target)
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/deps.sh

jobs=$(nproc)
fuzz_seconds=${QUOR_FUZZ_SECONDS:-15}

passed=0
failed=0
# Runs ctest in build directory $1 and adds its counts to the totals.
run_ctest() {
  local log
  log=$(mktemp)
  local rc=0
  ctest --test-dir "$1" --output-on-failure -j"$jobs" 2>&1 | tee "$log" || rc=$?
  local total bad
  total=$(sed -n 's/.*tests failed out of \([0-9]*\).*/\1/p' "$log" | tail -n 1)
  bad=$(sed -n 's/.*, \([0-9]*\) tests failed out of.*/\1/p' "$log" | tail -n 1)
  rm -f "$log"
  passed=$((passed + ${total:-0} - ${bad:-0}))
  failed=$((failed + ${bad:-0}))
  if [ "$rc" -ne 0 ]; then
    echo "$passed passed, $((failed > 0 ? failed : 1)) failed"
    exit "$rc"
  fi
}

echo "== Build and test"
cmake -S . -B build -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build build -j"$jobs"
echo "== Debian package (tested with the normal build's tests)"
scripts/package.sh build/pkg
run_ctest build

echo "== Build and test under AddressSanitizer and UndefinedBehaviorSanitizer"
cmake -S . -B build-asan -DCMAKE_BUILD_TYPE=Debug -DQUOR_SANITIZE=ON -DQUOR_BENCH=OFF >/dev/null
cmake --build build-asan -j"$jobs"
export ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1
run_ctest build-asan
unset ASAN_OPTIONS UBSAN_OPTIONS

echo "== Fuzz smoke run (${fuzz_seconds}s per target)"
CC=clang CXX=clang++ cmake -S . -B build-fuzz -DCMAKE_BUILD_TYPE=RelWithDebInfo -DQUOR_FUZZ=ON >/dev/null
cmake --build build-fuzz -j"$jobs"
for target in build-fuzz/fuzz/*_fuzz; do
  name=$(basename "$target")
  corpus="build-fuzz/corpus/$name"
  mkdir -p "$corpus"
  seeds="fuzz/seeds/$name"
  [ -d "$seeds" ] || seeds=""
  echo "-- $name"
  "$target" -max_total_time="$fuzz_seconds" -timeout=10 -print_final_stats=0 \
    "$corpus" $seeds 2>&1 | tail -n 3
  test "${PIPESTATUS[0]}" -eq 0
done
echo "== Coverage of src/ lib/ tools/ agents/ (the tests again, in a coverage build)"
scripts/coverage.sh | tail -n 6
echo "All tests passed."
echo "$passed passed, $failed failed"
