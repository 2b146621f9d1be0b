#!/usr/bin/env bash
# Builds the library and runs the whole test suite, fuzzes the SCL reader for
# a bounded time when clang is available, then runs the suite again under
# AddressSanitizer + UndefinedBehaviorSanitizer.
set -euo pipefail
cd "$(dirname "$0")/.."
jobs=$(nproc)

cmake -S . -B build -DCMAKE_BUILD_TYPE=RelWithDebInfo
cmake --build build -j"$jobs"
ctest --test-dir build --output-on-failure

if command -v clang++ >/dev/null 2>&1 && [ -x fuzz/run.sh ]; then
  fuzz/run.sh 60
fi

cmake -S . -B build-asan -DCMAKE_BUILD_TYPE=Debug -DQV_SANITIZE=ON -DQV_BUILD_BENCH=OFF
cmake --build build-asan -j"$jobs"
ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
  ctest --test-dir build-asan --output-on-failure
