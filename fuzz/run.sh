#!/usr/bin/env bash
# Builds the SCL reader fuzz target with clang and runs it for the given
# number of seconds (default 60), seeded with the sample models. Exits
# non-zero when the fuzzer finds a crash, a leak or undefined behaviour.
set -euo pipefail

seconds=${1:-60}
here=$(cd "$(dirname "$0")" && pwd)
root=$(dirname "$here")
build=${QV_FUZZ_BUILD_DIR:-$root/build-fuzz}

cmake -S "$root" -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DQV_BUILD_FUZZ=ON \
  -DQV_BUILD_TESTS=OFF -DQV_BUILD_BENCH=OFF \
  -DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++ >/dev/null
cmake --build "$build" --target fuzz_scl_reader -j2

# The fuzzer adds inputs to its corpus directory: never let it write into samples/.
corpus=$(mktemp -d)
trap 'rm -rf "$corpus"' EXIT
cp "$root"/samples/*.icd "$root"/samples/*.cid "$corpus"/

# The reader's own one-line verdicts on malformed inputs are expected by the
# thousand; only the fuzzer's and the sanitizers' lines are worth showing.
mkdir -p "$build/fuzz/artifacts"
set +e
"$build/fuzz/fuzz_scl_reader" -max_total_time="$seconds" -max_len=32768 \
  -dict="$here/scl.dict" -artifact_prefix="$build/fuzz/artifacts/" \
  -print_final_stats=1 "$corpus" 2>&1 |
  grep -a -v -E '^(Failed to parse xml file:|Root is empty\.|The root is not SCL\.|SCL (error|model too large|parse error|warning):|Cannot read |cid )'
status=${PIPESTATUS[0]}
exit "$status"
