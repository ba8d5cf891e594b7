#!/usr/bin/env bash
# The AddressSanitizer + UndefinedBehaviorSanitizer build in build-sanitize,
# shared by tools/test.sh (the whole suite) and tools/fuzz.sh (the argument
# fuzzer): clang-14 at -O1 with line tables, the libraries also carrying
# libFuzzer's coverage, so one compile of the library serves both.
#
#   tools/sanitize-build.sh [cmake --build options...]    e.g. --target zelm_fuzz
set -euo pipefail
cd "$(dirname "$0")/.."
tools/apt-ensure.sh clang-14 libclang-rt-14-dev libomp-14-dev libgtest-dev libeigen3-dev liblapacke-dev cmake make \
  python3
CC=clang-14 CXX=clang++-14 cmake -S . -B build-sanitize -DCMAKE_BUILD_TYPE=Debug \
  -DCMAKE_C_FLAGS_DEBUG="-O1 -gline-tables-only" -DCMAKE_CXX_FLAGS_DEBUG="-O1 -gline-tables-only" \
  -DZELM_SANITIZE=address,undefined -DZELM_FUZZ=ON -DZELM_EXAMPLES=OFF >/dev/null
cmake --build build-sanitize -j"$(nproc)" "$@"
