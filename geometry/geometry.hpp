// Fixed-size geometry: vectors of 2, 3 and 4 floats and 4x4 float matrices,
// row-major, points as row vectors (v' = v * M). No strides, no forms, no
// argument tests (but for zelmMul_mm4x4_32f and the 3DH transform): the API
// function does the arithmetic itself.
//
// This header holds the arithmetic that several exports share: a function
// that the constructors or transforms call (Normalize, CrossProduct, the
// product of two matrices, the inversion, the homogeneous transform of a
// point) is written once here and called both by its own export and by the
// others, so a result is the same bits whichever way it is reached.
#pragma once

#include <emmintrin.h>

#include <bit>
#include <cmath>
#include <cstdint>

#include "frame/frame.hpp"
#include "frame/simd.hpp"

namespace zel::geometry {

using F4 = simd::V128<float>;
using V = __m128;

// The API function of an export on v2, v3 and v4, each the template at that
// length: ZEL_V234(Add, add, (args...), (names...)) defines
// w7_zelmAdd_v2_32f .. w7_zelmAdd_v4_32f.
#define ZEL_V234(Name, fn, params, args)                                                                   \
    extern "C" ZEL_INTERNAL zelStatus w7_zelm##Name##_v2_32f params { return zel::geometry::fn<2> args; } \
    extern "C" ZEL_INTERNAL zelStatus w7_zelm##Name##_v3_32f params { return zel::geometry::fn<3> args; } \
    extern "C" ZEL_INTERNAL zelStatus w7_zelm##Name##_v4_32f params { return zel::geometry::fn<4> args; }

// ---------------------------------------------------------------------------
// Small vectors. Elements are computed and stored one at a time in ascending
// order, reading the sources as they stand at that moment: nothing guards
// against a destination that overlaps a source.

// The squared length, summed in index order in 32 bits.
template <int N>
ZEL_INLINE float len_sqr(const float* v) {
    float s = v[0] * v[0];
    for (int i = 1; i < N; ++i) s += v[i] * v[i];
    return s;
}

// The length: the 32-bit sum of squares widened, its square root taken in 64
// bits and rounded once to 32.
template <int N>
ZEL_INLINE float len(const float* v) {
    return float(std::sqrt(double(len_sqr<N>(v))));
}

// dst = src / |src|, a division per element. A zero vector gives 0/0 = NaN.
template <int N>
ZEL_INLINE zelStatus normalize(const float* src, float* dst) {
    const float L = len<N>(src);
    for (int i = 0; i < N; ++i) dst[i] = src[i] / L;
    return zelStsOk;
}

// The dot product, products rounded and added in index order.
template <int N>
ZEL_INLINE float dot(const float* a, const float* b) {
    float s = a[0] * b[0];
    for (int i = 1; i < N; ++i) s += a[i] * b[i];
    return s;
}

// The 3-vector cross product, components stored in turn.
ZEL_INLINE zelStatus cross3(const float* a, const float* b, float* dst) {
    dst[0] = a[1] * b[2] - a[2] * b[1];
    dst[1] = a[2] * b[0] - a[0] * b[2];
    dst[2] = a[0] * b[1] - a[1] * b[0];
    return zelStsOk;
}

template <int N>
ZEL_INLINE zelStatus sub(const float* a, const float* b, float* dst) {
    for (int i = 0; i < N; ++i) dst[i] = a[i] - b[i];
    return zelStsOk;
}

// The view matrices' row 3 takes its three dot products from this one
// (index order, like the 3-vector DotProduct); it has no export.
ZEL_INLINE float w7_zelmMul_v3_32f(const float* a, const float* b) { return dot<3>(a, b); }

// ---------------------------------------------------------------------------
// 4x4 matrices, a row per 128-bit register.

struct Rows {
    V r[4];
};
ZEL_INLINE Rows load_rows(const float* m) {
    return {{F4::load(m), F4::load(m + 4), F4::load(m + 8), F4::load(m + 12)}};
}
ZEL_INLINE void store_rows(float* d, const Rows& m) {
    for (int i = 0; i < 4; ++i) F4::store(d + 4 * i, m.r[i]);
}

// Lane K of v in all four lanes.
template <int K>
ZEL_INLINE V lane(V v) {
    return F4::lane<K>(v);
}

// Row i of the product a * b: the columns in lanes, the terms of each element
// in the order of k, ((a0 * b0 + a1 * b1) + a2 * b2) + a3 * b3.
ZEL_INLINE V product_row(V ai, const Rows& b) {
    V s = _mm_mul_ps(lane<0>(ai), b.r[0]);
    s = _mm_add_ps(s, _mm_mul_ps(lane<1>(ai), b.r[1]));
    s = _mm_add_ps(s, _mm_mul_ps(lane<2>(ai), b.r[2]));
    return _mm_add_ps(s, _mm_mul_ps(lane<3>(ai), b.r[3]));
}
// The whole product, every source element read before it is returned.
ZEL_INLINE Rows product(const float* a, const float* b) {
    const Rows A = load_rows(a), B = load_rows(b);
    return {{product_row(A.r[0], B), product_row(A.r[1], B), product_row(A.r[2], B), product_row(A.r[3], B)}};
}

// The internal product of the unprojection, (a * b) with sums in the order of
// k: the same arithmetic as zelmMul_mm4x4_32f, without its test.
ZEL_INLINE void w7_ownMulMat_32f(const float* a, const float* b, float* dst) { store_rows(dst, product(a, b)); }

// Gauss-Jordan inversion with the pivot taken along the row (see m4.cpp).
zelStatus invert(const float* src, float* det, float* dst);

// ---------------------------------------------------------------------------
// Point transforms, the four columns of the result in lanes: M's row r
// scaled by the point's coordinate r. Each function is one export's
// arithmetic; the single and array forms both call it.
struct Point {
    V x, y, z, w;  // each coordinate in all four lanes
};
template <int N>
ZEL_INLINE Point point_of(V v) {
    Point p{lane<0>(v), lane<1>(v), {}, {}};
    if constexpr (N >= 3) p.z = lane<2>(v);
    if constexpr (N == 4) p.w = lane<3>(v);
    return p;
}

// AffineTransform: all four components.
ZEL_INLINE V transform2(const Rows& m, const Point& p) {
    return _mm_add_ps(_mm_add_ps(_mm_mul_ps(m.r[0], p.x), _mm_mul_ps(m.r[1], p.y)), m.r[3]);
}
ZEL_INLINE V transform3(const Rows& m, const Point& p) {
    const V s = _mm_add_ps(_mm_add_ps(m.r[3], _mm_mul_ps(m.r[0], p.x)), _mm_mul_ps(m.r[1], p.y));
    return _mm_add_ps(s, _mm_mul_ps(m.r[2], p.z));
}
ZEL_INLINE V transform4(const Rows& m, const Point& p) {
    const V s = _mm_add_ps(_mm_add_ps(_mm_mul_ps(m.r[0], p.x), _mm_mul_ps(m.r[1], p.y)), _mm_mul_ps(m.r[2], p.z));
    return _mm_add_ps(s, _mm_mul_ps(m.r[3], p.w));
}

// AffineTransformCoord: lane 3 of the sum is the transformed w, and every
// lane is divided by it (lanes past the source's length are not stored).
ZEL_INLINE V coord2(const Rows& m, const Point& p) {
    const V s = _mm_add_ps(_mm_add_ps(_mm_mul_ps(m.r[0], p.x), m.r[3]), _mm_mul_ps(m.r[1], p.y));
    return _mm_div_ps(s, lane<3>(s));
}
ZEL_INLINE V coord3(const Rows& m, const Point& p) {
    const V s = _mm_add_ps(_mm_add_ps(m.r[3], _mm_mul_ps(m.r[2], p.z)),
                           _mm_add_ps(_mm_mul_ps(m.r[0], p.x), _mm_mul_ps(m.r[1], p.y)));
    return _mm_div_ps(s, lane<3>(s));
}

// AffineTransformNormal: no translation.
ZEL_INLINE V normal2(const Rows& m, const Point& p) {
    return _mm_add_ps(_mm_mul_ps(m.r[0], p.x), _mm_mul_ps(m.r[1], p.y));
}
ZEL_INLINE V normal3(const Rows& m, const Point& p) {
    return _mm_add_ps(normal2(m, p), _mm_mul_ps(m.r[2], p.z));
}

// zelmAffineTransformCoord_m4v3_32f on one point in memory.
ZEL_INLINE void coord3_at(const Rows& m, const float* src, float* dst) {
    F4::store<3>(dst, coord3(m, point_of<3>(F4::load<3>(src))));
}

}  // namespace zel::geometry
