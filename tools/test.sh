#!/usr/bin/env bash
# Builds zelm and runs all tests: a Release build, then a build under
# AddressSanitizer and UndefinedBehaviorSanitizer that fails on any report.
set -euo pipefail
cd "$(dirname "$0")/.."
tools/deps.sh
jobs="$(nproc)"

cmake -S . -B build -DCMAKE_BUILD_TYPE=Release -DZELM_BENCH=ON >/dev/null
cmake --build build -j"$jobs"
(cd build && ctest --output-on-failure -j"$jobs")
# What a user installs: the install tree, pkg-config, the CMake package, the Debian package.
tools/package_check.sh build
echo "--- Release build, tests and packages: $SECONDS s"

# The sanitizer build, whose fuzz target tools/fuzz.sh runs.
tools/sanitize-build.sh
export ASAN_OPTIONS=detect_leaks=1:abort_on_error=1
export UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1
(cd build-sanitize && ctest --output-on-failure -j"$jobs")
