#!/usr/bin/env bash
# Builds the benchmarks (Release) and writes bench/REPORT.md: every library
# operation next to its bare baselines (best bare design and, where there is
# one, the old bare pattern), with the ratios, and the machine it ran on.
# Each figure is the median of nine runs, interleaved in random order.
set -euo pipefail
cd "$(dirname "$0")/.."
cmake -S . -B build-release -DCMAKE_BUILD_TYPE=Release -DQV_BUILD_TESTS=OFF >/dev/null
cmake --build build-release -j"$(nproc)" --target qv_bench
table=$(mktemp)
load_before=$(cut -d' ' -f1-3 /proc/loadavg)
build-release/bench/qv_bench --benchmark_color=false --benchmark_min_time=0.5 \
  --benchmark_repetitions=9 --benchmark_enable_random_interleaving=true --report="$table"
{
  echo "Machine: $(lscpu | sed -n 's/^Model name: *//p'), $(nproc) cores, $(uname -sr)," \
       "SQLite $(sqlite3 --version | cut -d' ' -f1); load average $load_before before the run," \
       "$(cut -d' ' -f1-3 /proc/loadavg) after."
  echo "Medians of nine interleaved runs; ratio = library time / baseline time."
  echo "Best bare: the same SQL on a bare connection, write-ahead log, each list in one"
  echo "transaction. Best bare + lock: the same with a semaphore taken and given back around each"
  echo "statement, as the store lock is. Old pattern: bare, rollback journal, autocommit per value"
  echo "(the library before)."
  echo
  cat "$table"
} > bench/REPORT.md
rm -f "$table"
cat bench/REPORT.md
