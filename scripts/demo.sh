#!/usr/bin/env bash
# Builds (Release) and installs the library and qvtool alone, then runs the
# main job on the sample model: create both stores, load the feeder terminal
# model, write a measured value with its quality, read it back and show a
# data set.
set -euo pipefail
cd "$(dirname "$0")/.."

cmake -S . -B build-demo -DCMAKE_BUILD_TYPE=Release -DQV_BUILD_TESTS=OFF -DQV_BUILD_BENCH=OFF
cmake --build build-demo -j"$(nproc)"
cmake --install build-demo
ldconfig

ref='QVFTU1MEAS/MMXU1$MX$TotW$mag$f'
set -x
qvtool init --fresh --conf-sample samples/conf_sample.sql
qvtool load samples/feeder_terminal.cid
qvtool set "$ref" 231.5 1
qvtool get "$ref"
qvtool dump QVFTU1 dsAin
qvtool routes qvacq
