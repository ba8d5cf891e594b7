#!/usr/bin/env bash
# Checks what a user gets from an existing build (default: build/, Release):
#  1. `cmake --install` into a temporary prefix, which is then moved: the
#     libraries find each other and libomp with no LD_LIBRARY_PATH, and two
#     consumer projects build and run against the moved tree, one in C with
#     find_package(zelm), one in C++ with `pkg-config --cflags --libs zelm`;
#  2. `cpack -G DEB`: the package holds the expected files, depends on the
#     OpenMP runtime's package, and the same consumers build and run against
#     it unpacked with `dpkg -x`.
set -euo pipefail
cd "$(dirname "$0")/.."
src="$PWD"
build="$(cd "${1:-build}" && pwd)"
tmp="$(mktemp -d)"
trap 'rm -rf "$tmp"' EXIT
unset LD_LIBRARY_PATH
fail() { echo "package check: $*" >&2; exit 1; }

# The libraries of an install tree resolve their dependencies from where they lie.
check_libs() {
  local libdir="$1" lib deps
  for lib in libzelmw7.so libzelcore.so; do
    readelf -d "$libdir/$lib" | grep -q 'RUNPATH.*\$ORIGIN' || fail "$lib has no \$ORIGIN in its run path"
    deps="$(ldd "$libdir/$lib")"
    if grep -q 'not found' <<<"$deps"; then fail "$lib: $(grep 'not found' <<<"$deps")"; fi
    grep -q 'libomp\.so' <<<"$deps" || fail "$lib does not load libomp"
  done
  grep -q "libzelcore.so.7 => $libdir/libzelcore.so.7" <<<"$(ldd "$libdir/libzelmw7.so")" \
    || fail "libzelmw7.so does not find libzelcore.so.7 beside it"
}

# The two consumer projects, built and run against the install tree at $1.
check_consumers() {
  local prefix="$1" name="$2" pcdir libdir
  cmake -S "$src/tests/consumers/c_cmake" -B "$tmp/$name-c" -DCMAKE_BUILD_TYPE=Release \
    -DCMAKE_PREFIX_PATH="$prefix" >/dev/null
  grep -q "^zelm_DIR:PATH=$prefix/" "$tmp/$name-c/CMakeCache.txt" || fail "find_package(zelm) took another zelm"
  cmake --build "$tmp/$name-c" >/dev/null
  "$tmp/$name-c/consumer_c"

  pcdir="$(dirname "$(find "$prefix" -name zelm.pc)")"
  libdir="$(PKG_CONFIG_LIBDIR="$pcdir" pkg-config --variable=libdir zelm)"
  # shellcheck disable=SC2046
  g++ -std=c++17 -O2 "$src/tests/consumers/cxx_pkgconfig/main.cpp" -o "$tmp/$name-cxx" \
    $(PKG_CONFIG_LIBDIR="$pcdir" pkg-config --cflags --libs zelm) -Wl,-rpath,"$libdir"
  "$tmp/$name-cxx"
  check_libs "$libdir"
}

# 1. Install, move, use.
cmake --install "$build" --prefix "$tmp/staged" >/dev/null
mv "$tmp/staged" "$tmp/moved"
check_consumers "$tmp/moved" install

# 2. The Debian package.
(cd "$build" && rm -f zelm_*.deb && cpack -G DEB >/dev/null)
deb="$(ls "$build"/zelm_*.deb)"
contents="$(dpkg-deb -c "$deb" | awk '{print $6}')"
for f in include/zelm.h include/zelm_types.h include/zelcore.h \
         lib/libzelmw7.so lib/libzelmw7.so.7 lib/libzelcore.so lib/libzelcore.so.7 \
         lib/cmake/zelm/zelmConfig.cmake lib/cmake/zelm/zelmConfigVersion.cmake lib/cmake/zelm/zelmTargets.cmake \
         lib/pkgconfig/zelm.pc lib/pkgconfig/zelcore.pc share/doc/zelm/reference/README.md; do
  grep -qx "./usr/$f" <<<"$contents" || fail "$(basename "$deb") lacks /usr/$f"
done
depends="$(dpkg-deb -f "$deb" Depends)"
grep -q 'libomp5' <<<"$depends" || fail "$(basename "$deb") does not depend on the OpenMP runtime: $depends"
dpkg -x "$deb" "$tmp/deb"
check_consumers "$tmp/deb/usr" deb
echo "package check: install tree, pkg-config, CMake package and $(basename "$deb") ($depends) ok"
