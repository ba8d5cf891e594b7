#!/usr/bin/env bash
# Argument fuzzing of every implemented export (tests/fuzz/fuzz_exports.cpp)
# with clang's libFuzzer, the library built with AddressSanitizer and
# UndefinedBehaviorSanitizer in build-sanitize (tools/sanitize-build.sh, the
# build tools/test.sh runs the suite in; after it, nothing is compiled again).
#
#   tools/fuzz.sh [seconds] [libFuzzer options...]    default: 90 seconds
#   tools/fuzz.sh 0 -runs=1000000                     a number of executions instead
#
# The kept corpus (tests/fuzz/corpus) is read, never written: new inputs go to
# build-sanitize/corpus; merge the interesting ones with
#   build-sanitize/tests/zelm_fuzz -merge=1 tests/fuzz/corpus build-sanitize/corpus
# A fault stops the run, prints the call and leaves build-sanitize/crash-*.
set -euo pipefail
cd "$(dirname "$0")/.."
seconds="${1:-90}"
shift || true
B=build-sanitize
tools/sanitize-build.sh --target zelm_fuzz

mkdir -p "$B/corpus"
export ASAN_OPTIONS=detect_leaks=0:abort_on_error=1
export UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1
limit=()
[ "$seconds" = 0 ] || limit=(-max_total_time="$seconds")
cd "$B"
exec tests/zelm_fuzz "${limit[@]}" -max_len=4096 -timeout=60 -rss_limit_mb=4096 -print_final_stats=1 \
  "$@" corpus ../tests/fuzz/corpus
