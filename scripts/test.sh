#!/usr/bin/env bash
# Builds and runs every test: a normal build, the same tests under
# AddressSanitizer and UndefinedBehaviorSanitizer, and a short run of every
# fuzz target. Exits non-zero on the first failure.
#
#   scripts/test.sh            everything
#   QUOR_FUZZ_SECONDS=60 ...   longer fuzz runs (default 15 s per target)
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/deps.sh

jobs=$(nproc)
fuzz_seconds=${QUOR_FUZZ_SECONDS:-15}

echo "== Build and test"
cmake -S . -B build -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build build -j"$jobs"
ctest --test-dir build --output-on-failure -j"$jobs"

echo "== Build and test under AddressSanitizer and UndefinedBehaviorSanitizer"
cmake -S . -B build-asan -DCMAKE_BUILD_TYPE=Debug -DQUOR_SANITIZE=ON -DQUOR_BENCH=OFF >/dev/null
cmake --build build-asan -j"$jobs"
ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
  ctest --test-dir build-asan --output-on-failure -j"$jobs"

echo "== Fuzz smoke run (${fuzz_seconds}s per target)"
CXX=clang++ cmake -S . -B build-fuzz -DCMAKE_BUILD_TYPE=RelWithDebInfo -DQUOR_FUZZ=ON >/dev/null
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
echo "All tests passed."
