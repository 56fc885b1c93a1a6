#!/usr/bin/env bash
# Installs the build dependencies, then builds and runs every test twice:
# a normal build and an ASan+UBSan build, plus the concurrency tests under
# TSan.
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/install-deps.sh

jobs=$(nproc 2>/dev/null || echo 2)

run_build() {
  local dir=$1; shift
  cmake -S . -B "$dir" -DCMAKE_BUILD_TYPE=RelWithDebInfo "$@" >/dev/null
  cmake --build "$dir" -j "$jobs"
}

echo "== normal build =="
run_build build
(cd build && ctest --output-on-failure -j "$jobs")

echo "== address and undefined-behaviour sanitizer build =="
run_build build-asan -DKEL_SANITIZE=address -DKEL_BUILD_BENCH=OFF
(cd build-asan && ASAN_OPTIONS=detect_leaks=1 UBSAN_OPTIONS=print_stacktrace=1 \
   ctest --output-on-failure -j "$jobs")

echo "== thread sanitizer build (concurrency tests, the tool's batches, the loudness meter's two threads) =="
cmake -S . -B build-tsan -DCMAKE_BUILD_TYPE=RelWithDebInfo -DKEL_SANITIZE=thread \
  -DKEL_BUILD_BENCH=OFF >/dev/null
cmake --build build-tsan -j "$jobs" --target test_core_bsfile test_rbuffer2 test_errors kel_cli
(cd build-tsan && ctest --output-on-failure -R 'test_core_bsfile|test_rbuffer2|test_errors|test_cli$|test_cli_loudness')
