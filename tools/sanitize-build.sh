#!/usr/bin/env bash
# The AddressSanitizer + UndefinedBehaviorSanitizer build in build-sanitize,
# shared by tools/test.sh (the whole suite) and tools/fuzz.sh (the argument
# fuzzer): clang-14, the libraries also carrying libFuzzer's coverage, so one
# compile of the library serves both. -O1 with line tables: at -O2 the
# sanitizers triple the compile time of the heavy generated units.
#
#   tools/sanitize-build.sh [cmake --build options...]    e.g. --target zelm_fuzz
set -euo pipefail
cd "$(dirname "$0")/.."
tools/deps.sh
tools/apt-ensure.sh clang-14 libclang-rt-14-dev
CC=clang-14 CXX=clang++-14 cmake -S . -B build-sanitize -DCMAKE_BUILD_TYPE=Debug \
  -DCMAKE_C_FLAGS_DEBUG="-O1 -gline-tables-only" -DCMAKE_CXX_FLAGS_DEBUG="-O1 -gline-tables-only" \
  -DZELM_SANITIZE=address,undefined -DZELM_FUZZ=ON -DZELM_EXAMPLES=OFF >/dev/null
cmake --build build-sanitize -j"$(nproc)" "$@"
