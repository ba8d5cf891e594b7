// Vector-lane forms of the products' fast paths, SSE2 only.
//
// Every lane does exactly the operations of one element of the scalar
// routine, in the same order and with the same operands on each side, so the
// results are the same bit for bit:
//   - matrix by matrix, sequential order: the columns j of a destination row
//     in lanes; d(i,j) = a(i,0) * b(0,j), then + a(i,k) * b(k,j) for k
//     ascending, a(i,k) broadcast across the lanes;
//   - matrix by vector at order 4: the four terms of a row in lanes, then
//     the pairs of the association the table names, rows gathered into lanes
//     by shuffles.
// Partial vectors are loaded and stored element by element (no read or write
// past an operand), their unused lanes hold +0.0.
#pragma once

// Sum4<__m128> and the like: the vector types' attributes do not matter to
// the template, which only holds and adds them.
#pragma GCC diagnostic ignored "-Wignored-attributes"
// 256-bit vectors pass through the association templates only inlined into
// functions built for AVX.
#pragma GCC diagnostic ignored "-Wpsabi"

#include <immintrin.h>

#include <cstddef>
#include <type_traits>
#include <utility>

#include "frame/frame.hpp"
#include "frame/simd.hpp"
#include "products/orders.hpp"

namespace zel::products::lanes {

// 32f rows of 4 or more elements read as stored: a(i,0..3) broadcast from
// the row loaded once.
template <class T, bool TA, int N>
inline constexpr bool kRowBcast = sizeof(T) == 4 && !TA && N >= 4;

template <class T>
ZEL_INLINE const T* at(const char* base, std::ptrdiff_t s1, int r, int c) {
    return reinterpret_cast<const T*>(base + std::ptrdiff_t(r) * s1) + c;
}

// ---------------------------------------------------------------------------
// Matrix by matrix, exact order N, sequential sums, b read as stored (its
// rows contiguous), a as stored or transposed (TA). Row strides in bytes.
template <int N, bool TA, class T>
ZEL_INLINE void mm_seq(const char* __restrict a, std::ptrdiff_t sa, const char* __restrict b, std::ptrdiff_t sb,
                       char* __restrict d, std::ptrdiff_t sd) {
    using X = simd::V128<T>;
    using V = typename X::V;
    constexpr int W = X::n;
    constexpr int C = (N + W - 1) / W;  // vectors per row
    constexpr int Last = N - (C - 1) * W;
    V bv[N][C];
#pragma GCC unroll 8
    for (int k = 0; k < N; ++k) {
        const T* r = at<T>(b, sb, k, 0);
#pragma GCC unroll 4
        for (int c = 0; c + 1 < C; ++c) bv[k][c] = X::template load<W>(r + c * W);
        bv[k][C - 1] = X::template load<Last>(r + (C - 1) * W);
    }
#pragma GCC unroll 8
    for (int i = 0; i < N; ++i) {
        V acc[C];
        // a(i,k) from the row of a loaded as a vector, where it is whole
        [[maybe_unused]] __m128 arow;
        if constexpr (kRowBcast<T, TA, N>) arow = _mm_loadu_ps(reinterpret_cast<const float*>(at<T>(a, sa, i, 0)));
        auto aik = [&](auto kc) ZEL_LAMBDA_INLINE -> V {
            constexpr int k = decltype(kc)::value;
            if constexpr (kRowBcast<T, TA, N> && k < 4) return X::template lane<k>(arow);
            else return X::bcast(TA ? at<T>(a, sa, k, i) : at<T>(a, sa, i, k));
        };
        const V a0 = aik(std::integral_constant<int, 0>{});
#pragma GCC unroll 4
        for (int c = 0; c < C; ++c) acc[c] = X::mul(a0, bv[0][c]);
        [&]<int... Ks>(std::integer_sequence<int, Ks...>) {
            ([&] {
                constexpr int k = Ks + 1;
                const V ak = aik(std::integral_constant<int, k>{});
#pragma GCC unroll 4
                for (int c = 0; c < C; ++c) acc[c] = X::add(acc[c], X::mul(ak, bv[k][c]));
            }(), ...);
        }(std::make_integer_sequence<int, N - 1>{});
        T* r = reinterpret_cast<T*>(d + std::ptrdiff_t(i) * sd);
#pragma GCC unroll 4
        for (int c = 0; c + 1 < C; ++c) X::template store<W>(r + c * W, acc[c]);
        X::template store<Last>(r + (C - 1) * W, acc[C - 1]);
    }
}

// ---------------------------------------------------------------------------
// Matrix by vector, order 4, rows of a as stored. Two associations of the
// four terms of a row: Spread (t0 + t2) + (t1 + t3), Adjacent (t0 + t1) +
// (t2 + t3).
enum class Pairs { Spread, Adjacent };

constexpr bool mv4_fits(Fast f) {
    return f == Fast::Spread || f == Fast::Adjacent || f == Fast::Split;
}
constexpr Pairs mv4_pairs(Fast f) {
    return f == Fast::Spread ? Pairs::Spread : Pairs::Adjacent;
}

// The rows of a 4x4 matrix, kept for any number of vectors.
template <class T>
struct Rows4;

template <>
struct Rows4<float> {
    __m128 r[4];
    ZEL_INLINE void load(const char* a, std::ptrdiff_t sa) {
        for (int i = 0; i < 4; ++i) r[i] = _mm_loadu_ps(at<float>(a, sa, i, 0));
    }
    // d(i) for i = 0..3 from x(0..3).
    template <Pairs P>
    ZEL_INLINE void apply(const float* __restrict x, float* __restrict d) const {
        const __m128 xv = _mm_loadu_ps(x);
        const __m128 p0 = _mm_mul_ps(r[0], xv), p1 = _mm_mul_ps(r[1], xv);
        const __m128 p2 = _mm_mul_ps(r[2], xv), p3 = _mm_mul_ps(r[3], xv);
        __m128 res;
        if constexpr (P == Pairs::Spread) {
            // s01 = [p0(0)+p0(2), p1(0)+p1(2), p0(1)+p0(3), p1(1)+p1(3)]
            const __m128 s01 = _mm_add_ps(_mm_unpacklo_ps(p0, p1), _mm_unpackhi_ps(p0, p1));
            const __m128 s23 = _mm_add_ps(_mm_unpacklo_ps(p2, p3), _mm_unpackhi_ps(p2, p3));
            res = _mm_add_ps(_mm_movelh_ps(s01, s23), _mm_movehl_ps(s23, s01));
        } else {
            // l01 = [p0(0), p1(0), p0(1), p1(1)], h01 = [p0(2), p1(2), p0(3), p1(3)]
            const __m128 l01 = _mm_unpacklo_ps(p0, p1), h01 = _mm_unpackhi_ps(p0, p1);
            const __m128 l23 = _mm_unpacklo_ps(p2, p3), h23 = _mm_unpackhi_ps(p2, p3);
            // t0 of rows 0..3, t1, t2, t3
            const __m128 t0 = _mm_movelh_ps(l01, l23), t1 = _mm_movehl_ps(l23, l01);
            const __m128 t2 = _mm_movelh_ps(h01, h23), t3 = _mm_movehl_ps(h23, h01);
            res = _mm_add_ps(_mm_add_ps(t0, t1), _mm_add_ps(t2, t3));
        }
        _mm_storeu_ps(d, res);
    }
};

template <>
struct Rows4<double> {
    __m128d r[4][2];
    ZEL_INLINE void load(const char* a, std::ptrdiff_t sa) {
        for (int i = 0; i < 4; ++i) {
            r[i][0] = _mm_loadu_pd(at<double>(a, sa, i, 0));
            r[i][1] = _mm_loadu_pd(at<double>(a, sa, i, 2));
        }
    }
    template <Pairs P>
    ZEL_INLINE void apply(const double* __restrict x, double* __restrict d) const {
        const __m128d x01 = _mm_loadu_pd(x), x23 = _mm_loadu_pd(x + 2);
#pragma GCC unroll 2
        for (int h = 0; h < 2; ++h) {
            const int i = 2 * h;
            const __m128d pa01 = _mm_mul_pd(r[i][0], x01), pa23 = _mm_mul_pd(r[i][1], x23);
            const __m128d pb01 = _mm_mul_pd(r[i + 1][0], x01), pb23 = _mm_mul_pd(r[i + 1][1], x23);
            // t(k) of rows i, i+1
            const __m128d t0 = _mm_unpacklo_pd(pa01, pb01), t1 = _mm_unpackhi_pd(pa01, pb01);
            const __m128d t2 = _mm_unpacklo_pd(pa23, pb23), t3 = _mm_unpackhi_pd(pa23, pb23);
            __m128d res;
            if constexpr (P == Pairs::Spread)
                res = _mm_add_pd(_mm_add_pd(t0, t2), _mm_add_pd(t1, t3));
            else
                res = _mm_add_pd(_mm_add_pd(t0, t1), _mm_add_pd(t2, t3));
            _mm_storeu_pd(d + i, res);
        }
    }
};

// ---------------------------------------------------------------------------
// Matrix by vector, order 4, one matrix for all objects: the rows of the
// destination in lanes, t(k) = a(.,k) times x(k) broadcast, summed in the
// fast-path association of the table (the same for every row at order 4).
template <class V>
struct Sum4 {
    V v;
    friend ZEL_INLINE Sum4 operator+(Sum4 a, Sum4 b) { return {add(a.v, b.v)}; }
    ZEL_INLINE Sum4& operator+=(Sum4 b) { return *this = *this + b; }
    static ZEL_INLINE __m128 add(__m128 a, __m128 b) { return _mm_add_ps(a, b); }
    static ZEL_INLINE __m128d add(__m128d a, __m128d b) { return _mm_add_pd(a, b); }
};

template <class T>
struct Cols4;

template <>
struct Cols4<float> {
    __m128 c[4];  // c[k] = a(0..3, k)
    template <class Elem>
    ZEL_INLINE void load(Elem a) {
        for (int k = 0; k < 4; ++k) c[k] = _mm_setr_ps(a(0, k), a(1, k), a(2, k), a(3, k));
    }
    template <Fast F>
    ZEL_INLINE void apply(const float* __restrict x, float* __restrict d) const {
        const __m128 xv = _mm_loadu_ps(x);
        const Sum4<__m128> t[4] = {{_mm_mul_ps(c[0], _mm_shuffle_ps(xv, xv, 0x00))},
                                   {_mm_mul_ps(c[1], _mm_shuffle_ps(xv, xv, 0x55))},
                                   {_mm_mul_ps(c[2], _mm_shuffle_ps(xv, xv, 0xaa))},
                                   {_mm_mul_ps(c[3], _mm_shuffle_ps(xv, xv, 0xff))}};
        _mm_storeu_ps(d, fast_sum<Sum4<__m128>>(F, 4, 0, t).v);
    }
    // Two objects x, y at once: rows 0, 1 of both in one vector
    // [d_x(0), d_x(1), d_y(0), d_y(1)], rows 2, 3 in another; x(k) and y(k)
    // paired by one shuffle for the four rows. Both loads come before the
    // stores (the caller checks that the destinations do not overlap the
    // other object's vector).
    struct Pair {
        __m128 lo[4], hi[4];  // lo[k] = [a(0,k), a(1,k), a(0,k), a(1,k)], hi[k] rows 2, 3
    };
    ZEL_INLINE Pair pair() const {
        Pair p;
        for (int k = 0; k < 4; ++k) {
            p.lo[k] = _mm_movelh_ps(c[k], c[k]);
            p.hi[k] = _mm_movehl_ps(c[k], c[k]);
        }
        return p;
    }
    template <Fast F>
    static ZEL_INLINE void apply2(const Pair& p, const float* x, const float* y, float* dx, float* dy) {
        const __m128 xv = _mm_loadu_ps(x), yv = _mm_loadu_ps(y);
        const __m128 xy[4] = {_mm_shuffle_ps(xv, yv, 0x00), _mm_shuffle_ps(xv, yv, 0x55),
                              _mm_shuffle_ps(xv, yv, 0xaa), _mm_shuffle_ps(xv, yv, 0xff)};
        const Sum4<__m128> tl[4] = {{_mm_mul_ps(p.lo[0], xy[0])},
                                    {_mm_mul_ps(p.lo[1], xy[1])},
                                    {_mm_mul_ps(p.lo[2], xy[2])},
                                    {_mm_mul_ps(p.lo[3], xy[3])}};
        const Sum4<__m128> th[4] = {{_mm_mul_ps(p.hi[0], xy[0])},
                                    {_mm_mul_ps(p.hi[1], xy[1])},
                                    {_mm_mul_ps(p.hi[2], xy[2])},
                                    {_mm_mul_ps(p.hi[3], xy[3])}};
        const __m128 rl = fast_sum<Sum4<__m128>>(F, 4, 0, tl).v;
        const __m128 rh = fast_sum<Sum4<__m128>>(F, 4, 0, th).v;
        // halves stored as they are, no shuffle back
        _mm_storel_pi(reinterpret_cast<__m64*>(dx), rl);
        _mm_storel_pi(reinterpret_cast<__m64*>(dx + 2), rh);
        _mm_storeh_pi(reinterpret_cast<__m64*>(dy), rl);
        _mm_storeh_pi(reinterpret_cast<__m64*>(dy + 2), rh);
    }
};

template <>
struct Cols4<double> {
    __m128d c[2][4];  // c[h][k] = a(2h .. 2h+1, k)
    template <class Elem>
    ZEL_INLINE void load(Elem a) {
        for (int h = 0; h < 2; ++h)
            for (int k = 0; k < 4; ++k) c[h][k] = _mm_setr_pd(a(2 * h, k), a(2 * h + 1, k));
    }
    template <Fast F>
    ZEL_INLINE void apply(const double* __restrict x, double* __restrict d) const {
        const __m128d x01 = _mm_loadu_pd(x), x23 = _mm_loadu_pd(x + 2);
        const __m128d xb[4] = {_mm_unpacklo_pd(x01, x01), _mm_unpackhi_pd(x01, x01), _mm_unpacklo_pd(x23, x23),
                               _mm_unpackhi_pd(x23, x23)};
#pragma GCC unroll 2
        for (int h = 0; h < 2; ++h) {
            const Sum4<__m128d> t[4] = {{_mm_mul_pd(c[h][0], xb[0])},
                                        {_mm_mul_pd(c[h][1], xb[1])},
                                        {_mm_mul_pd(c[h][2], xb[2])},
                                        {_mm_mul_pd(c[h][3], xb[3])}};
            _mm_storeu_pd(d + 2 * h, fast_sum<Sum4<__m128d>>(F, 4, 0, t).v);
        }
    }
};

// ---------------------------------------------------------------------------
// Matrix by matrix at order 3, float, sequential sums as in mm_seq, with AVX:
// two objects per 256-bit vector, one in each 128-bit half, the columns j in
// lanes 0..2 and a(i,k) broadcast within the half.
//  - Rows are read four elements wide: rows 0 and 1 run into the next row,
//    row 2 is read from one element before it, so no read leaves the object
//    (the fourth lane is never stored where it does not belong).
//  - Destination rows are contiguous (12 bytes apart): rows 0 and 1 are
//    stored four wide, each covering the next row's first element before
//    that row is stored, and row 2 from one element before it, with d(1,2)
//    in its first lane.
//  - Both objects are read before either is written: the caller checks that
//    pairs are safe. Objects lie at oa, ob, od bytes; returns how many were done.
ZEL_INLINE __attribute__((target("avx"))) __m256 load2(const char* p, std::ptrdiff_t next) {
    return _mm256_insertf128_ps(_mm256_castps128_ps256(_mm_loadu_ps(reinterpret_cast<const float*>(p))),
                                _mm_loadu_ps(reinterpret_cast<const float*>(p + next)), 1);
}
template <int K0, int K1, int K2>
ZEL_INLINE __attribute__((target("avx"))) __m256 row3(__m256 a, __m256 b0, __m256 b1, __m256 b2) {
    __m256 acc = _mm256_mul_ps(_mm256_permute_ps(a, K0 * 0x55), b0);
    acc = _mm256_add_ps(acc, _mm256_mul_ps(_mm256_permute_ps(a, K1 * 0x55), b1));
    return _mm256_add_ps(acc, _mm256_mul_ps(_mm256_permute_ps(a, K2 * 0x55), b2));
}
__attribute__((target("avx"), noinline)) inline int mm3_pairs_avx(const char* a, std::ptrdiff_t sa, std::ptrdiff_t oa,
                                                                const char* b, std::ptrdiff_t sb, std::ptrdiff_t ob,
                                                                char* d, std::ptrdiff_t od, int count) {
    int o = 0;
    for (; o + 1 < count; o += 2, a += 2 * oa, b += 2 * ob, d += 2 * od) {
        const __m256 b0 = load2(b, ob), b1 = load2(b + sb, ob);
        const __m256 b2 = _mm256_permute_ps(load2(b + 2 * sb - 4, ob), _MM_SHUFFLE(0, 3, 2, 1));
        const __m256 a0 = load2(a, oa), a1 = load2(a + sa, oa);
        const __m256 a2 = load2(a + 2 * sa - 4, oa);  // a(2,k) in lane k + 1
        const __m256 r0 = row3<0, 1, 2>(a0, b0, b1, b2);
        const __m256 r1 = row3<0, 1, 2>(a1, b0, b1, b2);
        const __m256 r2 = row3<1, 2, 3>(a2, b0, b1, b2);
        // [d(1,2), d(2,0), d(2,1), d(2,2)] for the store from one element before row 2
        const __m256 r2s = _mm256_blend_ps(_mm256_permute_ps(r2, _MM_SHUFFLE(2, 1, 0, 3)), _mm256_permute_ps(r1, 0xaa), 0x11);
        float* d0 = reinterpret_cast<float*>(d);
        float* d1 = reinterpret_cast<float*>(d + od);
        _mm_storeu_ps(d0, _mm256_castps256_ps128(r0));
        _mm_storeu_ps(d0 + 3, _mm256_castps256_ps128(r1));
        _mm_storeu_ps(d0 + 5, _mm256_castps256_ps128(r2s));
        _mm_storeu_ps(d1, _mm256_extractf128_ps(r0, 1));
        _mm_storeu_ps(d1 + 3, _mm256_extractf128_ps(r1, 1));
        _mm_storeu_ps(d1 + 5, _mm256_extractf128_ps(r2s, 1));
    }
    return o;
}

// fast_sum() of four 256-bit terms, its result through memory: a 256-bit
// value may not cross a call between functions compiled with and without
// AVX (clang refuses it; once inlined it costs nothing).
template <class V>
ZEL_INLINE void fast_sum_into(V* out, Fast f, const V* t) {
    *out = fast_sum<V>(f, 4, 0, t);
}

// Matrix by vector at order 4 with AVX, each lane doing the operations of its
// 128-bit counterpart above. float: two objects per vector, one in each 128-bit half
// (x(k) broadcast within the half), both vectors loaded before the stores,
// so only where pairs are safe; double: one object per vector, the four rows
// in lanes. Objects lie at xs and ds bytes; returns how many were done.
template <Fast F>
__attribute__((target("avx"), noinline)) int mv4_cols_avx(const Cols4<float>& cols, const char* xp,
                                                          std::ptrdiff_t xs, char* dp, std::ptrdiff_t ds,
                                                          int count) {
    __m256 c[4];
    for (int k = 0; k < 4; ++k) c[k] = _mm256_insertf128_ps(_mm256_castps128_ps256(cols.c[k]), cols.c[k], 1);
    const bool packed = xs == 16 && ds == 16;
    int o = 0;
    for (; o + 1 < count; o += 2, xp += 2 * xs, dp += 2 * ds) {
        const float* x = reinterpret_cast<const float*>(xp);
        float* d = reinterpret_cast<float*>(dp);
        const __m256 xv = packed ? _mm256_loadu_ps(x)
                                 : _mm256_insertf128_ps(_mm256_castps128_ps256(_mm_loadu_ps(x)),
                                                        _mm_loadu_ps(reinterpret_cast<const float*>(xp + xs)), 1);
        const __m256 t[4] = {_mm256_mul_ps(c[0], _mm256_permute_ps(xv, 0x00)),
                             _mm256_mul_ps(c[1], _mm256_permute_ps(xv, 0x55)),
                             _mm256_mul_ps(c[2], _mm256_permute_ps(xv, 0xaa)),
                             _mm256_mul_ps(c[3], _mm256_permute_ps(xv, 0xff))};
        __m256 r;
        fast_sum_into(&r, F, t);
        if (packed) {
            _mm256_storeu_ps(d, r);
        } else {
            _mm_storeu_ps(d, _mm256_castps256_ps128(r));
            _mm_storeu_ps(reinterpret_cast<float*>(dp + ds), _mm256_extractf128_ps(r, 1));
        }
    }
    return o;
}

template <Fast F>
__attribute__((target("avx"), noinline)) int mv4_cols_avx(const Cols4<double>& cols, const char* xp,
                                                          std::ptrdiff_t xs, char* dp, std::ptrdiff_t ds,
                                                          int count) {
    __m256d c[4];
    for (int k = 0; k < 4; ++k)
        c[k] = _mm256_insertf128_pd(_mm256_castpd128_pd256(cols.c[0][k]), cols.c[1][k], 1);
    for (int o = 0; o < count; ++o, xp += xs, dp += ds) {
        const double* x = reinterpret_cast<const double*>(xp);
        // x(k) loaded at any alignment (a broadcast from memory would assume 8 bytes)
        const __m256d t[4] = {_mm256_mul_pd(c[0], _mm256_set1_pd(load(x))),
                              _mm256_mul_pd(c[1], _mm256_set1_pd(load(x + 1))),
                              _mm256_mul_pd(c[2], _mm256_set1_pd(load(x + 2))),
                              _mm256_mul_pd(c[3], _mm256_set1_pd(load(x + 3)))};
        __m256d r;
        fast_sum_into(&r, F, t);
        _mm256_storeu_pd(reinterpret_cast<double*>(dp), r);
    }
    return count;
}

}  // namespace zel::products::lanes
