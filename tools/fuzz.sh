#!/usr/bin/env bash
# Argument fuzzing of every implemented export (tests/fuzz/fuzz_exports.cpp)
# with clang's libFuzzer, the library built with AddressSanitizer and
# UndefinedBehaviorSanitizer in build-fuzz.
#
#   tools/fuzz.sh [seconds] [libFuzzer options...]    default: 90 seconds
#   tools/fuzz.sh 0 -runs=1000000                     a number of executions instead
#
# The kept corpus (tests/fuzz/corpus) is read, never written: new inputs go to
# build-fuzz/corpus; merge the interesting ones with
#   build-fuzz/tests/zelm_fuzz -merge=1 tests/fuzz/corpus build-fuzz/corpus
# A fault stops the run, prints the call and leaves build-fuzz/crash-*.
set -euo pipefail
cd "$(dirname "$0")/.."
tools/apt-ensure.sh clang-14 libclang-rt-14-dev libomp-14-dev cmake make python3
seconds="${1:-90}"
shift || true
jobs="$(nproc)"
B=build-fuzz

# -O1: the sanitizers' checks stay, and the build takes half the time of -O2
CC=clang-14 CXX=clang++-14 cmake -S . -B "$B" -DCMAKE_BUILD_TYPE=Debug -DCMAKE_C_FLAGS_DEBUG="-O1 -gline-tables-only" \
  -DCMAKE_CXX_FLAGS_DEBUG="-O1 -gline-tables-only" -DZELM_SANITIZE=address,undefined -DZELM_FUZZ=ON \
  -DZELM_TESTS=OFF -DZELM_EXAMPLES=OFF >/dev/null
cmake --build "$B" -j"$jobs" --target zelm_fuzz

mkdir -p "$B/corpus"
export ASAN_OPTIONS=detect_leaks=0:abort_on_error=1
export UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1
limit=()
[ "$seconds" = 0 ] || limit=(-max_total_time="$seconds")
cd "$B"
exec tests/zelm_fuzz "${limit[@]}" -max_len=4096 -timeout=60 -rss_limit_mb=4096 -print_final_stats=1 \
  "$@" corpus ../tests/fuzz/corpus
