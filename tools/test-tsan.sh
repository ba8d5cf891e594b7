#!/usr/bin/env bash
# ThreadSanitizer over the parallel fan-out: builds the library and the tests
# with -fsanitize=thread in build-tsan and runs the multi-threaded tests (the
# fan-out suites, the thread-count tests of each family, application threads
# calling at once) and the fuzz target's drawn calls on 1 to 4 threads, which
# reach every family's wrapper with its scratch and status merging.
# LLVM's OpenMP runtime is not instrumented; its tool libarcher tells
# ThreadSanitizer about the runtime's barriers, joins and critical sections.
set -euo pipefail
cd "$(dirname "$0")/.."
tools/apt-ensure.sh g++ cmake make python3 libgtest-dev libeigen3-dev libomp-14-dev
jobs="$(nproc)"
B=build-tsan
cmake -S . -B "$B" -DCMAKE_BUILD_TYPE=Debug -DCMAKE_C_FLAGS_DEBUG="-O1 -g" -DCMAKE_CXX_FLAGS_DEBUG="-O1 -g" \
  -DZELM_SANITIZE=thread -DZELM_EXAMPLES=OFF >/dev/null
cmake --build "$B" -j"$jobs" --target zelm_tests zelm_fuzz_replay

archer="$(dirname "$(grep -m1 '^ZELM_LIBOMP:' "$B/CMakeCache.txt" | cut -d= -f2)")/libarcher.so"
[ -f "$archer" ] || { echo "no libarcher.so beside the OpenMP runtime"; exit 1; }
export OMP_TOOL_LIBRARIES="$archer"
export ARCHER_OPTIONS="verbose=1"
# ignore_noninstrumented_modules: the runtime's own locks and thread start-up
# (pthread calls from libomp, which is not instrumented) are not ours to
# check; archer asks for it. Suppressions, each explained: tools/tsan.supp.
export TSAN_OPTIONS="halt_on_error=1 second_deadlock_stack=1 ignore_noninstrumented_modules=1 suppressions=$PWD/tools/tsan.supp"
# the multi-threaded suites; FanOut covers the wrappers' slices, scratch and status.
"$B/tests/zelm_tests" --gtest_filter='*FanOut*:*Thread*:*Concurren*:*Parallel*'
"$B/tests/zelm_fuzz_replay" tests/fuzz/corpus --random 3000
