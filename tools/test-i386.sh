#!/usr/bin/env bash
# The library's own target, 32-bit x86 (SSE2 arithmetic), on this x86-64
# machine: builds it in build-i386 with g++-multilib and runs the whole test
# suite there, the exports checked with nm -D, every export called from a
# stack aligned to 4 bytes, and the result digests compared with the 64-bit
# build's (build/, which is built first if missing).
set -euo pipefail
cd "$(dirname "$0")/.."
tools/apt-ensure.sh --i386 g++-multilib cmake make python3 binutils libgtest-dev:i386 libeigen3-dev
jobs="$(nproc)"
B=build-i386

# LLVM's OpenMP runtime for i386 cannot be installed beside the 64-bit one
# (both own the same file in LLVM's library folder): a copy unpacked into the
# build folder, which the build links and runs against.
omp="$PWD/$B/libomp-i386"
if [ ! -f "$omp/usr/lib/llvm-14/lib/libomp.so.5" ]; then
  mkdir -p "$omp/debs"
  (cd "$omp/debs" && apt-get download libomp5-14:i386 libomp-14-dev:i386 2>&1 | grep -v '^W: Download is performed unsandboxed' || true)
  for deb in "$omp"/debs/*.deb; do dpkg -x "$deb" "$omp"; done
fi

if [ ! -x build/tests/zelm_digest ]; then
  cmake -S . -B build -DCMAKE_BUILD_TYPE=Release >/dev/null
  cmake --build build -j"$jobs" --target zelm_digest
fi

cmake -S . -B "$B" --toolchain cmake/i386-linux-gnu.cmake -DCMAKE_BUILD_TYPE=Release -DZELM_EXAMPLES=OFF \
  -DZELM_LIBOMP="$omp/usr/lib/llvm-14/lib/libomp.so.5" -DZELM_DIGEST_REFERENCE="$PWD/build/tests/zelm_digest" >/dev/null
cmake --build "$B" -j"$jobs"
file -L "$B"/libzelmw7.so.7 | grep -q 'ELF 32-bit.*80386' || { echo "build-i386 is not a 32-bit x86 build"; exit 1; }
(cd "$B" && ctest --output-on-failure -j"$jobs")
