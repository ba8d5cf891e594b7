#!/usr/bin/env bash
# Builds zelm and runs the demo in examples/.
set -euo pipefail
cd "$(dirname "$0")/.."
tools/deps.sh
cmake -S . -B build -DCMAKE_BUILD_TYPE=Release >/dev/null
cmake --build build -j"$(nproc)" --target zelm_demo
./build/examples/zelm_demo
