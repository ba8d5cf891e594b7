// The 32f inversions of contiguous rows in SSE registers: cofactors four at a
// time for the orders 3 and 4 (also two matrices in one pass), and the
// orders 5 and 6 by one or two pivot rows and the packed inverse of the 4x4
// Schur complement. No divide instruction: every reciprocal is the
// processor's estimate with one Newton step (objects::rcp_newton).
#pragma once

#include <emmintrin.h>

#include <cmath>
#include <cstddef>
#include <type_traits>
#include <utility>

#include "frame/simd.hpp"
#include "solvers/invert_table.hpp"
#include "solvers/objects.hpp"

namespace zel::invert::packed {

using V4 = simd::V128<float>;
using simd::shuf;

// The order-4 routines below are written once on GCC float vectors: one
// matrix in 128 bits, or (AVX) two matrices in the halves of 256 bits, each
// half doing exactly its matrix's operations. Every shuffle stays in a half.
// The 256-bit instances are always inlined into an AVX function, so their
// calling convention never matters.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wpsabi"
typedef float V8 __attribute__((vector_size(32)));
typedef int I4 __attribute__((vector_size(16)));
typedef int I8 __attribute__((vector_size(32)));

template <int A, int B, int C, int D, class V>
ZEL_INLINE V sh(V v) {  // lanes v[A], v[B], v[C], v[D] of each half
    return shuf<A, B, C, D>(v, v);
}
template <bool L0, bool L1, bool L2, bool L3, class V>
ZEL_INLINE V negate_lanes(V v) {
    using I = std::conditional_t<sizeof(V) == 16, I4, I8>;
    constexpr int s = int(0x80000000u);
    I m;
    for (int i = 0; i < int(sizeof(V) / 4); ++i) {
        const int k = i % 4;
        m[i] = (k == 0 ? L0 : k == 1 ? L1 : k == 2 ? L2 : L3) ? s : 0;
    }
    return V(I(v) ^ m);
}
template <class V>
ZEL_INLINE V neg(V v) {
    return negate_lanes<true, true, true, true>(v);
}
// (x0 + x1) + (x2 + x3) in every lane of each half.
template <class V>
ZEL_INLINE V hsum(V x) {
    const V y = x + sh<1, 0, 3, 2>(x);
    return y + sh<2, 3, 0, 1>(y);
}
ZEL_INLINE float lane0(__m128 v) { return _mm_cvtss_f32(v); }
// The halves of a vector as 128-bit vectors, and back.
ZEL_INLINE __m128 half(__m128 v, int) { return v; }
ZEL_INLINE __m128 half(V8 v, int h) {
    return h ? __builtin_shufflevector(v, v, 4, 5, 6, 7) : __builtin_shufflevector(v, v, 0, 1, 2, 3);
}
ZEL_INLINE V8 join(__m128 lo, __m128 hi) { return __builtin_shufflevector(lo, hi, 0, 1, 2, 3, 4, 5, 6, 7); }
// The test of every method: T greater than the magnitude of the determinant.
ZEL_INLINE bool below(float thr, __m128 det) {
    return _mm_comigt_ss(_mm_set_ss(thr), _mm_andnot_ps(_mm_set1_ps(-0.0f), det)) != 0;
}

// ---------------------------------------------------------------------------
// Order 4. With b0..b3 the columns of A (the rows of its transpose B), row i
// of the inverse is row i of B's cofactor matrix over det. Lane j of the
// three products of a row takes the columns other than j in ascending order,
// from the 2x2 minors q of B's rows 2 and 3 (rows 0 and 1: p):
//   C(0, j) = (-1)^j     (b1[k1] q(k2,k3) - b1[k2] q(k1,k3) + b1[k3] q(k1,k2))
//   C(1, j) = (-1)^(j+1) the same with b0
//   C(2, j) = (-1)^j     the same with b3 and p;  C(3, j): b2 and p, (-1)^(j+1)
// det = b0 . C(0, .) = (x0 + x1) + (x2 + x3): the expansion along A's first
// column.
template <class V>
struct Adj4 {
    V row[4];
    V det;  // in every lane of the matrix's half
};
template <class V>
ZEL_INLINE Adj4<V> adjugate4(V b0, V b1, V b2, V b3) {
    // lane j: the first, second and third of the columns other than j
    auto s1 = [](V v) { return sh<1, 0, 0, 0>(v); };
    auto s2 = [](V v) { return sh<2, 2, 1, 1>(v); };
    auto s3 = [](V v) { return sh<3, 3, 3, 2>(v); };
    auto minors = [&](V x, V y, V& m1, V& m2, V& m3) {
        const V x1 = s1(x), x2 = s2(x), x3 = s3(x), y1 = s1(y), y2 = s2(y), y3 = s3(y);
        m1 = x2 * y3 - x3 * y2;  // minors over columns k2, k3
        m2 = x1 * y3 - x3 * y1;  // k1, k3
        m3 = x1 * y2 - x2 * y1;  // k1, k2
    };
    V q1, q2, q3, p1, p2, p3;
    minors(b2, b3, q1, q2, q3);
    minors(b0, b1, p1, p2, p3);
    auto row = [&](V e, V m1, V m2, V m3) { return (s1(e) * m1 - s2(e) * m2) + s3(e) * m3; };
    Adj4<V> a;
    a.row[0] = negate_lanes<false, true, false, true>(row(b1, q1, q2, q3));
    a.row[1] = negate_lanes<true, false, true, false>(row(b0, q1, q2, q3));
    a.row[2] = negate_lanes<false, true, false, true>(row(b3, p1, p2, p3));
    a.row[3] = negate_lanes<true, false, true, false>(row(b2, p1, p2, p3));
    a.det = hsum(b0 * a.row[0]);
    return a;
}
// The inverse's rows, after the test: the adjugate times the reciprocal,
// which the SSE estimate gives for each half.
ZEL_INLINE __m128 reciprocal(__m128 det) { return objects::rcp_newton(det); }
ZEL_INLINE V8 reciprocal(V8 det) { return join(objects::rcp_newton(half(det, 0)), objects::rcp_newton(half(det, 1))); }
template <class V>
ZEL_INLINE void scale(Adj4<V>& a) {
    const V r = reciprocal(a.det);
    for (auto& x : a.row) x = x * r;
}

ZEL_INLINE const float* row_at(const float* p, std::ptrdiff_t s1, int i) {
    return reinterpret_cast<const float*>(reinterpret_cast<const char*>(p) + std::ptrdiff_t(i) * s1);
}
ZEL_INLINE float* row_at(float* p, std::ptrdiff_t s1, int i) {
    return reinterpret_cast<float*>(reinterpret_cast<char*>(p) + std::ptrdiff_t(i) * s1);
}

// One object of a call: its source and destination, each with its row stride.
struct SrcDst {
    const float* s;
    std::ptrdiff_t ss1;
    float* d;
    std::ptrdiff_t ds1;
};
ZEL_INLINE __m128 rows_at(const SrcDst* m, int i, __m128) { return V4::load(row_at(m[0].s, m[0].ss1, i)); }
ZEL_INLINE V8 rows_at(const SrcDst* m, int i, V8) {
    return join(V4::load(row_at(m[0].s, m[0].ss1, i)), V4::load(row_at(m[1].s, m[1].ss1, i)));
}
template <class V>
ZEL_INLINE Adj4<V> adjugate4_of(const SrcDst* m) {
    const V r0 = rows_at(m, 0, V{}), r1 = rows_at(m, 1, V{}), r2 = rows_at(m, 2, V{}), r3 = rows_at(m, 3, V{});
    const V t0 = shuf<0, 1, 0, 1>(r0, r1), t1 = shuf<2, 3, 2, 3>(r0, r1);
    const V t2 = shuf<0, 1, 0, 1>(r2, r3), t3 = shuf<2, 3, 2, 3>(r2, r3);
    return adjugate4(shuf<0, 2, 0, 2>(t0, t2), shuf<1, 3, 1, 3>(t0, t2), shuf<0, 2, 0, 2>(t1, t3),
                     shuf<1, 3, 1, 3>(t1, t3));
}
// The test for the matrix of half h (no vector crosses into or out of an
// AVX function by value: clang does not allow it).
template <class V>
ZEL_INLINE bool below(float thr, const Adj4<V>& a, int h) {
    return below(thr, half(a.det, h));
}
template <class V>
ZEL_INLINE void store4(const Adj4<V>& a, const SrcDst& m, int h) {
    for (int i = 0; i < 4; ++i) V4::store(row_at(m.d, m.ds1, i), half(a.row[i], h));
}

ZEL_INLINE zelStatus invert4(const SrcDst& m, float thr) {
    auto a = adjugate4_of<__m128>(&m);
    if (below(thr, a.det)) return zelStsErrSingular;
    scale(a);
    store4(a, m, 0);
    return zelStsOk;
}

// Two matrices in one pass; neither is stored unless both pass the test.
ZEL_INLINE zelStatus invert4_pair(const SrcDst (&m)[2], float thr) {
    auto a = adjugate4_of<__m128>(&m[0]), b = adjugate4_of<__m128>(&m[1]);
    if (below(thr, a.det) || below(thr, b.det)) return zelStsErrSingular;
    scale(a);
    scale(b);
    store4(a, m[0], 0);
    store4(b, m[1], 0);
    return zelStsOk;
}

// Objects from..count-1, two at a time in the halves of 256-bit vectors:
// at(o) gives object o. `pairs`: both matrices of a step are tested
// before either is stored (the aligned pairs); otherwise each is finished in
// turn. Returns the first object not finished: the end, or where a
// determinant fails the test (for pairs, the step's first), which the caller
// redoes one way or the other with the same result.
template <class At>
__attribute__((target("avx"), noinline)) int invert4_twos(const At& at, int from, int count, float thr, bool pairs) {
    int o = from;
    for (; o + 2 <= count; o += 2) {
        const SrcDst m[2] = {at(o), at(o + 1)};
        auto a = adjugate4_of<V8>(m);
        const bool b0 = below(thr, a, 0), b1 = below(thr, a, 1);
        if (b0 || (pairs && b1)) return o;
        scale(a);
        store4(a, m[0], 0);
        if (b1) return o + 1;
        store4(a, m[1], 1);
    }
    return o;
}
#pragma GCC diagnostic pop

// ---------------------------------------------------------------------------
// Order 3: with b0, b1, b2 the columns of A, rows of the inverse are the
// cross products b1 x b2, b2 x b0, b0 x b1 over det = b0 . (b1 x b2), summed
// (x0 + x1) + x2.
ZEL_INLINE __m128 cross(__m128 x, __m128 y) {
    return _mm_sub_ps(_mm_mul_ps(sh<1, 2, 0, 3>(x), sh<2, 0, 1, 3>(y)), _mm_mul_ps(sh<2, 0, 1, 3>(x), sh<1, 2, 0, 3>(y)));
}
ZEL_INLINE zelStatus invert3(const float* s, std::ptrdiff_t ss1, float* d, std::ptrdiff_t ds1, float thr) {
    __m128 b0 = V4::load<3>(row_at(s, ss1, 0)), b1 = V4::load<3>(row_at(s, ss1, 1)),
           b2 = V4::load<3>(row_at(s, ss1, 2)), b3 = _mm_setzero_ps();
    _MM_TRANSPOSE4_PS(b0, b1, b2, b3);
    const __m128 c0 = cross(b1, b2), c1 = cross(b2, b0), c2 = cross(b0, b1);
    // lane 3 of the products is 0 * 0: the sum is (x0 + x1) + x2
    const __m128 det = hsum(_mm_mul_ps(b0, c0));
    if (below(thr, det)) return zelStsErrSingular;
    const __m128 r = objects::rcp_newton(det);  // the packed estimate
    V4::store<3>(row_at(d, ds1, 0), _mm_mul_ps(c0, r));
    V4::store<3>(row_at(d, ds1, 1), _mm_mul_ps(c1, r));
    V4::store<3>(row_at(d, ds1, 2), _mm_mul_ps(c2, r));
    return zelStsOk;
}

// ---------------------------------------------------------------------------
// The pivot column of a row by its rule (invert_table.hpp).
ZEL_INLINE int pivot_column(const float* x, const PivotRule& rule) {
    float m = std::fabs(x[rule.first]);
    for (int j = rule.first + 1; j <= rule.last; ++j)
        if (std::fabs(x[j]) > m) m = std::fabs(x[j]);
    for (int j = rule.last_tied; j >= rule.first; --j)
        if (std::fabs(x[j]) == m) return j;
    return rule.last;
}

// A row of the assembled inverse: its first element and the four behind it.
struct Row5 {
    float first;
    __m128 rest;
};
ZEL_INLINE void store_row(float* d, const Row5& r) {
    store(d, r.first);
    V4::store(d + 1, r.rest);
}
ZEL_INLINE __m128 splat(float x) { return _mm_set1_ps(x); }

// The block formula for one pivot p (reciprocal r) with the rest of its row b,
// its column below times r in u, and B the inverse of the Schur complement
// given by rows (and columns Bc):
//   w = B (-u), the column below the corner
//   z = -r (b^T B), the row right of the corner
//   corner = r - r (b . w)
struct Block {
    __m128 w, z;
    float corner;
};
ZEL_INLINE Block block(float r, __m128 b, __m128 u, const __m128 (&B)[4], const __m128 (&Bc)[4]) {
    const __m128 nu = neg(u);
    Block k;
    k.w = _mm_add_ps(_mm_add_ps(_mm_add_ps(_mm_mul_ps(Bc[0], sh<0, 0, 0, 0>(nu)), _mm_mul_ps(Bc[1], sh<1, 1, 1, 1>(nu))),
                                _mm_mul_ps(Bc[2], sh<2, 2, 2, 2>(nu))),
                     _mm_mul_ps(Bc[3], sh<3, 3, 3, 3>(nu)));
    const __m128 y = _mm_add_ps(_mm_add_ps(_mm_add_ps(_mm_mul_ps(B[0], sh<0, 0, 0, 0>(b)), _mm_mul_ps(B[1], sh<1, 1, 1, 1>(b))),
                                           _mm_mul_ps(B[2], sh<2, 2, 2, 2>(b))),
                                _mm_mul_ps(B[3], sh<3, 3, 3, 3>(b)));
    k.z = _mm_mul_ps(y, splat(-r));
    k.corner = r - r * lane0(hsum(_mm_mul_ps(b, k.w)));
    return k;
}

// The inverse of the Schur complement given by its columns, tested against
// `thr`, as rows and columns.
ZEL_INLINE bool schur_inverse(const __m128 (&S)[4], float thr, __m128 (&B)[4], __m128 (&Bc)[4]) {
    auto a = adjugate4(S[0], S[1], S[2], S[3]);
    if (below(thr, a.det)) return false;
    scale(a);
    for (int i = 0; i < 4; ++i) B[i] = Bc[i] = a.row[i];
    _MM_TRANSPOSE4_PS(Bc[0], Bc[1], Bc[2], Bc[3]);
    return true;
}

// Rows 1 .. 4 of the source from row `first` on, as four columns of the
// first four elements and one of the fifth (and sixth).
template <int N>
ZEL_INLINE void load_columns(const float* s, std::ptrdiff_t s1, int first, __m128 (&col)[N]) {
    __m128 r0 = V4::load(row_at(s, s1, first)), r1 = V4::load(row_at(s, s1, first + 1)),
           r2 = V4::load(row_at(s, s1, first + 2)), r3 = V4::load(row_at(s, s1, first + 3));
    _MM_TRANSPOSE4_PS(r0, r1, r2, r3);
    col[0] = r0, col[1] = r1, col[2] = r2, col[3] = r3;
    for (int j = 4; j < N; ++j)
        col[j] = _mm_setr_ps(load(row_at(s, s1, first) + j), load(row_at(s, s1, first + 1) + j),
                             load(row_at(s, s1, first + 2) + j), load(row_at(s, s1, first + 3) + j));
}

// Order 5: one pivot row, then the Schur complement of its pivot.
ZEL_INLINE zelStatus invert5(const float* s, std::ptrdiff_t ss1, float* d, std::ptrdiff_t ds1, float thr) {
    float a0[5];
    for (int j = 0; j < 5; ++j) a0[j] = load(s + j);
    __m128 col[5];
    load_columns<5>(s, ss1, 1, col);
    for (int j = 0; j < 5; ++j) store(d + j, a0[j]);  // row 0 becomes the working row

    const int c = pivot_column(a0, kPivot5);
    if (thr > std::fabs(a0[c])) return zelStsErrSingular;
    std::swap(a0[0], a0[c]);
    std::swap(col[0], col[c]);
    const float r = objects::rcp_newton(a0[0]);
    a0[0] = r;
    for (int j = 0; j < 5; ++j) store(d + j, a0[j]);

    const __m128 u = _mm_mul_ps(col[0], splat(r));
    __m128 S[4];
    for (int j = 1; j < 5; ++j) S[j - 1] = _mm_sub_ps(col[j], _mm_mul_ps(splat(a0[j]), u));
    __m128 B[4], Bc[4];
    if (!schur_inverse(S, thr, B, Bc)) return zelStsErrSingular;

    const __m128 b = V4::load(a0 + 1);
    const Block k = block(r, b, u, B, Bc);
    Row5 rows[5];
    rows[0] = {k.corner, k.z};
    float w[4];
    V4::store(w, k.w);
    for (int i = 1; i < 5; ++i) rows[i] = {w[i - 1], B[i - 1]};
    std::swap(rows[0], rows[c]);
    for (int i = 0; i < 5; ++i) store_row(row_at(d, ds1, i), rows[i]);
    return zelStsOk;
}

// Order 6: pivot rows 0 and 1 in turn, the 4x4 Schur complement, and the
// block formula for row 1 and then for row 0 (on 5x5 blocks: a first element
// beside four lanes).
ZEL_INLINE zelStatus invert6(const float* s, std::ptrdiff_t ss1, float* d, std::ptrdiff_t ds1, float thr) {
    float a0[6], a1[6];
    for (int j = 0; j < 6; ++j) a0[j] = load(s + j), a1[j] = load(row_at(s, ss1, 1) + j);
    __m128 col[6];
    load_columns<6>(s, ss1, 2, col);
    float* d1 = row_at(d, ds1, 1);
    for (int j = 0; j < 6; ++j) store(d + j, a0[j]), store(d1 + j, a1[j]);

    // row 0
    const int c0 = pivot_column(a0, kPivot6Row0);
    if (thr > std::fabs(a0[c0])) return zelStsErrSingular;
    std::swap(a0[0], a0[c0]);
    std::swap(a1[0], a1[c0]);
    std::swap(col[0], col[c0]);
    const float r0 = objects::rcp_newton(a0[0]);
    a0[0] = r0;
    const float u01 = a1[0] * r0;
    const __m128 U0 = _mm_mul_ps(col[0], splat(r0));
    a1[0] = u01;
    for (int j = 1; j < 6; ++j) {
        a1[j] = a1[j] - a0[j] * u01;
        col[j] = _mm_sub_ps(col[j], _mm_mul_ps(splat(a0[j]), U0));
    }
    for (int j = 0; j < 6; ++j) store(d + j, a0[j]), store(d1 + j, a1[j]);

    // row 1
    const int c1 = pivot_column(a1, kPivot6Row1);
    if (thr > std::fabs(a1[c1])) return zelStsErrSingular;
    std::swap(a0[1], a0[c1]);
    std::swap(a1[1], a1[c1]);
    std::swap(col[1], col[c1]);
    const float r1 = objects::rcp_newton(a1[1]);
    a1[1] = r1;
    for (int j = 0; j < 6; ++j) store(d + j, a0[j]), store(d1 + j, a1[j]);

    const __m128 U1 = _mm_mul_ps(col[1], splat(r1));
    __m128 S[4];
    for (int j = 2; j < 6; ++j) S[j - 2] = _mm_sub_ps(col[j], _mm_mul_ps(splat(a1[j]), U1));
    __m128 B[4], Bc[4];
    if (!schur_inverse(S, thr, B, Bc)) return zelStsErrSingular;

    // the inverse of the trailing 5x5 block, rows and columns 1 .. 5
    const Block k1 = block(r1, V4::load(a1 + 2), U1, B, Bc);
    // the block formula for row 0 on it: b0 = (a0[1]; a0[2..5]), u0 = (u01; U0)
    const float b01 = a0[1];
    const __m128 b0v = V4::load(a0 + 2);
    const __m128 nU0 = neg(U0);
    // w0 = M1inv (-u0)
    const float w01 = k1.corner * -u01 + lane0(hsum(_mm_mul_ps(k1.z, nU0)));
    const __m128 w0v = _mm_add_ps(
        _mm_mul_ps(k1.w, splat(-u01)),
        _mm_add_ps(_mm_add_ps(_mm_add_ps(_mm_mul_ps(Bc[0], sh<0, 0, 0, 0>(nU0)), _mm_mul_ps(Bc[1], sh<1, 1, 1, 1>(nU0))),
                              _mm_mul_ps(Bc[2], sh<2, 2, 2, 2>(nU0))),
                   _mm_mul_ps(Bc[3], sh<3, 3, 3, 3>(nU0))));
    // z0 = -r0 (b0^T M1inv)
    const float y01 = b01 * k1.corner + lane0(hsum(_mm_mul_ps(b0v, k1.w)));
    const __m128 y0v = _mm_add_ps(
        _mm_mul_ps(k1.z, splat(b01)),
        _mm_add_ps(_mm_add_ps(_mm_add_ps(_mm_mul_ps(B[0], sh<0, 0, 0, 0>(b0v)), _mm_mul_ps(B[1], sh<1, 1, 1, 1>(b0v))),
                              _mm_mul_ps(B[2], sh<2, 2, 2, 2>(b0v))),
                   _mm_mul_ps(B[3], sh<3, 3, 3, 3>(b0v))));
    const float z01 = y01 * -r0;
    const __m128 z0v = _mm_mul_ps(y0v, splat(-r0));
    const float corner0 = r0 - r0 * (b01 * w01 + lane0(hsum(_mm_mul_ps(b0v, w0v))));

    // rows of the inverse: [first, second, four lanes]
    struct Row6 {
        float first, second;
        __m128 rest;
    };
    Row6 rows[6];
    rows[0] = {corner0, z01, z0v};
    rows[1] = {w01, k1.corner, k1.z};
    float w0[4], w1[4];
    V4::store(w0, w0v);
    V4::store(w1, k1.w);
    for (int i = 2; i < 6; ++i) rows[i] = {w0[i - 2], w1[i - 2], B[i - 2]};
    std::swap(rows[1], rows[c1]);
    std::swap(rows[0], rows[c0]);
    for (int i = 0; i < 6; ++i) {
        float* p = row_at(d, ds1, i);
        store(p, rows[i].first);
        store(p + 1, rows[i].second);
        V4::store(p + 2, rows[i].rest);
    }
    return zelStsOk;
}

}  // namespace zel::invert::packed
