#!/usr/bin/env bash
# Builds and installs the library and qvtool, then runs the main job on the
# sample model: create both stores, load the feeder terminal model, write a
# measured value with its quality, read it back and show a data set.
set -euo pipefail
cd "$(dirname "$0")/.."

cmake -S . -B build -DCMAKE_BUILD_TYPE=RelWithDebInfo
cmake --build build -j"$(nproc)"
cmake --install build
ldconfig

ref='QVFTU1MEAS/MMXU1$MX$TotW$mag$f'
set -x
qvtool init --fresh --conf-sample samples/conf_sample.sql
qvtool load samples/feeder_terminal.cid
qvtool set "$ref" 231.5 1
qvtool get "$ref"
qvtool dump QVFTU1 dsAin
qvtool routes qvacq
