#!/usr/bin/env bash
# Builds the benchmarks (Release) and writes bench/REPORT.md: every library
# operation next to its bare-SQLite or bare-IPC baseline, with the ratio, and
# the machine it ran on.
set -euo pipefail
cd "$(dirname "$0")/.."
cmake -S . -B build-release -DCMAKE_BUILD_TYPE=Release -DQV_BUILD_TESTS=OFF >/dev/null
cmake --build build-release -j"$(nproc)" --target qv_bench
table=$(mktemp)
build-release/bench/qv_bench --benchmark_color=false --benchmark_min_time=0.5 --report="$table"
{
  echo "Machine: $(lscpu | sed -n 's/^Model name: *//p'), $(nproc) cores, $(uname -sr)," \
       "SQLite $(sqlite3 --version | cut -d' ' -f1); ratio = library time / baseline time."
  echo
  cat "$table"
} > bench/REPORT.md
rm -f "$table"
cat bench/REPORT.md
