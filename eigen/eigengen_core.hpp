// The general eigenproblem's core, written once for all four families:
// Householder reduction to upper Hessenberg form, the double-shift QR
// iteration with its budget of sweeps, the standardisation of 2x2 blocks,
// and for the vector families the accumulated transformations, the two
// back-substitutions with their small solves and the normalisation.
//
// The working matrix H lies in pBuffer with its columns contiguous (H[r][c]
// is element c*n + r), so that copying the source row by row makes H the
// transpose of the source. A family row of eigen/eigengen_table.hpp says how
// the QR stage scans, shifts and reaches, and which vector sets follow.
//
// Types: T is the element type, in which everything stored in pBuffer is
// held; W is the type of the scalars (float or double, see Wide<>). N is the
// order where it is fixed at compile time (3 to 6), 0 for any order.
#pragma once

#include <algorithm>
#include <cmath>
#include <type_traits>
#include <utility>

#include "eigen/eigengen_table.hpp"
#include "eigen/lane_kit.hpp"
#include "frame/frame.hpp"
#include "frame/simd.hpp"

// The kit functions take and return 256-bit vectors between always-inline
// code only, inside the functions built for AVX.
#pragma GCC diagnostic ignored "-Wpsabi"

namespace zel::eigengen {


// Written once against a lane kit (eigen/lane_kit.hpp): One<S> for a
// single object, Pack for several in vector lanes, selecting where the
// scalar code branches.
template <class K>
ZEL_INLINE typename K::V sgn_k(typename K::V x) {
    using S = typename K::S;
    return x < K::splat(S(0)) ? K::splat(S(-1)) : K::splat(S(1));  // +1 for -0.0 too
}
template <class W>
ZEL_INLINE W sgn(W x) {
    return sgn_k<kit::One<W>>(x);
}

// Rounds through 32 bits and back: the shift scalars of the left/right
// families.
template <class W>
ZEL_INLINE W r32(double x) {
    return W(float(x));
}

// hyp(x, y) = sqrt(x^2 + y^2) without overflow; never below safmin2.
template <class K, class C>
ZEL_INLINE typename K::V hyp_k(typename K::V x, typename K::V y) {
    using S = typename K::S;
    const auto ax = K::abs(x), ay = K::abs(y);
    const auto safmin = K::splat(S(C::safmin));
    typename K::V w = ax < ay ? ay : ax;  // std::max
    const auto z = ay < ax ? ay : ax;     // std::min
    w = !(z < safmin) ? w * K::sqrt(K::splat(S(1)) + (z * z) / (w * w)) : w;
    return w < safmin ? K::splat(S(C::safmin2)) : w;
}
template <class W, class C>
ZEL_INLINE W hyp(W x, W y) {
    return hyp_k<kit::One<W>, C>(x, y);
}

// The reflector I - tau v v^T, v = (1, x), that takes (alpha, x) to
// (beta, 0): alpha becomes beta, x becomes the tail of v. Returns tau (0,
// and nothing changed, when x is negligible).
template <class W, class C, int M>
ZEL_INLINE W reflector(W& alpha, W (&x)[M], int m) {
    W ss = 0;
    for (int i = 0; i < m; ++i) ss += x[i] * x[i];
    const W xnorm = std::sqrt(ss);
    if (xnorm < W(C::safmin)) return W(0);
    const W beta = -sgn(alpha) * hyp<W, C>(alpha, xnorm);
    const W tau = (beta - alpha) / beta;
    const W f = W(1) / (alpha - beta);
    for (int i = 0; i < m; ++i) x[i] *= f;
    alpha = beta;
    return tau;
}

// ---------------------------------------------------------------------------
// The state of one object: pBuffer split into its blocks.
template <class T, class W, int N>
struct Object {
    using C = Consts<T>;
    Loose<T>* buf;
    int n_;
    int n() const { return N ? N : n_; }
    Loose<T>& h(int r, int c) const { return buf[c * n() + r]; }
    Loose<T>* block(int b) const { return buf + b * n() * n(); }
    W hw(int r, int c) const { return W(h(r, c)); }
    // element (r, c) of the accumulated transformations in block b
    Loose<T>& z(int b, int r, int c) const { return block(b)[c * n() + r]; }
};

// Matrix element (r, c) of a column-contiguous block of order n.
template <class T>
ZEL_INLINE Loose<T>& at(Loose<T>* b, int n, int r, int c) {
    return b[c * n + r];
}

// ---------------------------------------------------------------------------
// Phase 1: reduction to Hessenberg form in the element type. Reflector k
// stays in column k below the subdiagonal (v[k+1] = 1 implied), its scalar
// in tau(k). Written against a kit K of the element type: o.h(r, c) and
// tau(k) give a K::V (or what converts to it and takes one).
template <class K, class O, class Tau>
ZEL_INLINE void reduce_on(const O& o, Tau&& tau) {
    using S = typename K::S;
    using V = typename K::V;
    using C = Consts<S>;
    const int n = o.n();
    const V zero = K::splat(S(0)), one = K::splat(S(1)), safmin = K::splat(C::safmin);
    for (int k = 0; k + 2 <= n; ++k) {
        // reflector on alpha = H[k+1][k], x = H[k+2..n-1][k]
        V ss = zero;
        for (int i = k + 2; i < n; ++i) ss += V(o.h(i, k)) * V(o.h(i, k));
        const V xnorm = K::sqrt(ss);
        const V alpha = V(o.h(k + 1, k));
        const auto big = !(xnorm < safmin);
        const V b = -sgn_k<K>(alpha) * hyp_k<K, C>(alpha, xnorm);
        const V t = big ? (b - alpha) / b : zero;
        const V beta = big ? b : alpha;
        const V f = one / (alpha - b);
        for (int i = k + 2; i < n; ++i) o.h(i, k) = big ? V(o.h(i, k)) * f : V(o.h(i, k));
        tau(k) = t;
        o.h(k + 1, k) = one;
        const auto on = K::abs(t) > safmin;
        if (K::any(on)) {
            // from the right: every row j, over columns k+1..n-1
            for (int j = 0; j < n; ++j) {
                V w = zero;
                for (int c = k + 1; c < n; ++c) w += V(o.h(j, c)) * V(o.h(c, k));
                for (int c = k + 1; c < n; ++c) {
                    const V e = V(o.h(j, c));
                    o.h(j, c) = on ? e - (t * V(o.h(c, k))) * w : e;
                }
            }
            // from the left: every column c > k, over rows k+1..n-1
            for (int c = k + 1; c < n; ++c) {
                V w = zero;
                for (int r = k + 1; r < n; ++r) w += V(o.h(r, c)) * V(o.h(r, k));
                for (int r = k + 1; r < n; ++r) {
                    const V e = V(o.h(r, c));
                    o.h(r, c) = on ? e - (t * V(o.h(r, k))) * w : e;
                }
            }
        }
        o.h(k + 1, k) = beta;
    }
}

template <class T, class W, int N>
void reduce(const Object<T, W, N>& o, Loose<T>* tau) {
    reduce_on<kit::One<T>>(o, [tau](int k) -> Loose<T>& { return tau[k]; });
}

template <class T, class W, int N>
void clear_below_subdiagonal(const Object<T, W, N>& o) {
    const int n = o.n();
    for (int c = 0; c < n; ++c)
        for (int r = c + 2; r < n; ++r) o.h(r, c) = T(0);
}

// Q = P[0] P[1] ... P[n-2] into block q, last reflector first, in the
// element type.
template <class T, class W, int N>
void form_q(const Object<T, W, N>& o, Loose<T>* q, const Loose<T>* tau) {
    const int n = o.n();
    for (int c = 0; c < n; ++c)
        for (int r = 0; r < n; ++r) at<T>(q, n, r, c) = T(r == c ? 1 : 0);
    for (int k = n - 2; k >= 0; --k) {
        const T t = tau[k];
        auto v = [&](int r) { return r == k + 1 ? T(1) : T(o.h(r, k)); };
        for (int c = k + 1; c < n; ++c) {
            T s = 0;
            for (int r = k + 1; r < n; ++r) s += v(r) * T(at<T>(q, n, r, c));
            for (int r = k + 1; r < n; ++r) at<T>(q, n, r, c) = T(at<T>(q, n, r, c)) - (t * v(r)) * s;
        }
    }
}

// ---------------------------------------------------------------------------
// Phase 3: a 2x2 block [a b; c d] in standard form, with the rotation that
// takes it there.
template <class W>
struct Pair {
    W a, b, c, d;
    W cs = 1, sn = 0;
    W y = 0;  // imaginary part of a complex pair (0: two real values)
};

template <class W, class C>
Pair<W> standardise(W a, W b, W c, W d) {
    Pair<W> p{a, b, c, d};
    const W safmin = W(C::safmin);
    if (std::fabs(c) <= safmin) return p;
    if (std::fabs(b) <= safmin) {
        p.a = d;
        p.d = a;
        p.b = -c;
        p.c = 0;
        p.cs = 0;
        p.sn = 1;
        return p;
    }
    const W t = a - d;
    if (std::fabs(t) <= safmin && sgn(b) != sgn(c)) {
        p.y = std::sqrt(std::fabs(b)) * std::sqrt(std::fabs(c));
        return p;
    }
    const W pp = W(0.5) * t;
    const W bcmax = std::max(std::fabs(b), std::fabs(c));
    const W bcmis = std::min(std::fabs(b), std::fabs(c)) * sgn(b) * sgn(c);
    const W scale = std::max(std::fabs(pp), bcmax);
    W z = (pp / scale) * pp + (bcmax / scale) * bcmis;
    if (z >= W(C::eps4)) {
        // two real values
        const W root = std::sqrt(scale) * std::sqrt(z);
        z = pp > 0 ? pp + root : pp - root;
        p.a = d + z;
        p.d = d - (bcmax / z) * bcmis;
        const W tau = hyp<W, C>(c, z);
        p.cs = z / tau;
        p.sn = c / tau;
        p.b = b - c;
        p.c = 0;
        return p;
    }
    // equal diagonal by a rotation
    const W sigma = b + c;
    const W tau = hyp<W, C>(sigma, t);
    W cs = std::sqrt(W(0.5) * (W(1) + std::fabs(sigma) / tau));
    W sn = -(pp / (tau * cs)) * sgn(sigma);
    const W aa = a * cs + b * sn, bb = b * cs - a * sn;
    const W cc = c * cs + d * sn, dd = d * cs - c * sn;
    b = bb * cs + dd * sn;
    c = cc * cs - aa * sn;
    const W m = W(0.5) * ((aa + dd) * cs + (cc - bb) * sn);
    p.a = p.d = m;
    if (std::fabs(b) > safmin && std::fabs(c) > safmin) {
        if (sgn(b) != sgn(c)) {
            p.y = std::sqrt(std::fabs(b)) * std::sqrt(std::fabs(c));
        } else {
            const W sab = std::sqrt(std::fabs(b)), sac = std::sqrt(std::fabs(c));
            const W rt = W(1) / std::sqrt(std::fabs(b + c));
            W v = sab * sac;
            if (c < 0) v = -v;
            p.a = m + v;
            p.d = m - v;
            const W cs1 = (cs * sab - sn * sac) * rt;
            sn = (cs * sac + sn * sab) * rt;
            cs = cs1;
            b = b - c;
            c = 0;
        }
    } else if (std::fabs(c) <= safmin) {
        c = 0;
    } else {
        b = -c;
        c = 0;
        const W cs1 = -sn;
        sn = cs;
        cs = cs1;
    }
    p.b = b;
    p.c = c;
    p.cs = cs;
    p.sn = sn;
    return p;
}

// One reflector I - tau v v^T, v = (1, v1[, v2]), on R consecutive entries
// e(0..R-1) of a row or column: s = e0 + v1 e1 + v2 e2, then e_i -= s t_i
// with t_i = tau v_i.
template <int R, class T, class W, class Entry>
ZEL_INLINE void reflect(Entry e, W v1, W v2, W t1, W t2, W t3) {
    W s = W(e(0)) + v1 * W(e(1));
    if constexpr (R == 3) s = s + v2 * W(e(2));
    e(0) = T(W(e(0)) - s * t1);
    e(1) = T(W(e(1)) - s * t2);
    if constexpr (R == 3) e(2) = T(W(e(2)) - s * t3);
}

// reflect<R> on rows 0..cnt-1 of the R columns that start at c and follow
// at stride n. The rows are independent and contiguous: with double
// scalars and Lanes, pairs of them go through the two lanes of a vector,
// each lane doing exactly its row's operations. (The values family's short
// active rows gain nothing from it.)
template <int R, class T, class W, bool Lanes>
ZEL_INLINE void reflect_rows(Loose<T>* c, int n, int cnt, W v1, W v2, W t1, W t2, W t3) {
    int j = 0;
    if constexpr (Lanes && std::is_same_v<W, double>) {
        auto ld = [](const Loose<T>* p) __attribute__((always_inline)) {
            if constexpr (std::is_same_v<T, float>) return _mm_cvtps_pd(_mm_castpd_ps(simd::load_sd(p)));
            else return _mm_loadu_pd(reinterpret_cast<const double*>(p));
        };
        auto st = [](Loose<T>* p, __m128d v) __attribute__((always_inline)) {
            if constexpr (std::is_same_v<T, float>) simd::store_sd(p, _mm_castps_pd(_mm_cvtpd_ps(v)));
            else _mm_storeu_pd(reinterpret_cast<double*>(p), v);
        };
        const __m128d w1 = _mm_set1_pd(v1), w2 = _mm_set1_pd(v2);
        const __m128d s1 = _mm_set1_pd(t1), s2 = _mm_set1_pd(t2), s3 = _mm_set1_pd(t3);
        for (; j + 2 <= cnt; j += 2) {
            const __m128d e0 = ld(c + j), e1 = ld(c + n + j);
            __m128d sum = _mm_add_pd(e0, _mm_mul_pd(w1, e1));
            if constexpr (R == 3) {
                const __m128d e2 = ld(c + 2 * n + j);
                sum = _mm_add_pd(sum, _mm_mul_pd(w2, e2));
                st(c + 2 * n + j, _mm_sub_pd(e2, _mm_mul_pd(sum, s3)));
            }
            st(c + j, _mm_sub_pd(e0, _mm_mul_pd(sum, s1)));
            st(c + n + j, _mm_sub_pd(e1, _mm_mul_pd(sum, s2)));
        }
    }
    for (; j < cnt; ++j)
        reflect<R, T, W>([&](int i) -> Loose<T>& { return c[i * n + j]; }, v1, v2, t1, t2, t3);
}

// One double-shift sweep over the active block lo..hi from start row m.
// Orders 3 and 4 call it with the block's bounds as compile-time constants
// (see with_block), so that its loops unroll; the arithmetic is the same.
template <Family F, class T, class W, int N, class Lo, class Hi, class M>
ZEL_INLINE void sweep(const Object<T, W, N>& o, Loose<T>* z, Lo lo_, Hi hi_, M m_, W u1, W u2, W u3) {
    using C = Consts<T>;
    const int lo = lo_, hi = hi_, m = m_;
    constexpr bool whole = F.reach == Reach::Whole;
    const int n = o.n();
#pragma GCC unroll 8
    for (int k2 = m; k2 < hi; ++k2) {
        const int nr = std::min(3, hi - k2 + 1);
        W v0, x[2];
        if (k2 == m) {
            v0 = u1;
            x[0] = u2;
            x[1] = u3;
        } else {
            v0 = o.hw(k2, k2 - 1);
            x[0] = o.hw(k2 + 1, k2 - 1);
            x[1] = nr == 3 ? o.hw(k2 + 2, k2 - 1) : W(0);
        }
        const W t1 = reflector<W, C>(v0, x, nr - 1);
        if (k2 > m) {
            o.h(k2, k2 - 1) = T(v0);
            o.h(k2 + 1, k2 - 1) = T(0);
            if (k2 < hi - 1) o.h(k2 + 2, k2 - 1) = T(0);
        } else if (m > lo) {
            o.h(k2, k2 - 1) = T(-o.hw(k2, k2 - 1));
        }
        const W v1 = x[0], v2 = x[1];
        const W t2 = t1 * v1, t3 = t1 * v2;
        const int jend = whole ? n - 1 : hi;
        const int rbeg = whole ? 0 : lo;
        const int rend = std::min(k2 + 3, hi);
        // rows k2.. of columns k2..jend, columns k2.. of rows rbeg..rend, and Z
        auto apply = [&]<int R>() __attribute__((always_inline)) {
            for (int j = k2; j <= jend; ++j)
                reflect<R, T, W>([&](int i) -> Loose<T>& { return o.h(k2 + i, j); }, v1, v2, t1, t2, t3);
            reflect_rows<R, T, W, whole>(&o.h(rbeg, k2), n, rend - rbeg + 1, v1, v2, t1, t2, t3);
            if constexpr (whole) reflect_rows<R, T, W, whole>(&at<T>(z, n, 0, k2), n, n, v1, v2, t1, t2, t3);
        };
        if (nr == 3) apply.template operator()<3>();
        else apply.template operator()<2>();
    }
}

// Calls fn(lo, hi, m) with the three as std::integral_constant when the
// order is 3 or 4 (one of the 1 or 4 blocks a sweep can meet), as ints
// otherwise.
template <int N, int I, class Fn>
ZEL_INLINE bool try_block(int lo, int hi, int m, Fn& fn) {
    constexpr int LO = I / (N * N), HI = I / N % N, M = I % N;
    if constexpr (HI - LO < 2 || M < LO || M > HI - 2) {
        return false;
    } else {
        if (lo != LO || hi != HI || m != M) return false;
        fn(std::integral_constant<int, LO>{}, std::integral_constant<int, HI>{}, std::integral_constant<int, M>{});
        return true;
    }
}

template <int N, class Fn>
ZEL_INLINE void with_block(int lo, int hi, int m, Fn&& fn) {
    if constexpr (N == 3 || N == 4) {
        const bool done = [&]<int... I>(std::integer_sequence<int, I...>) {
            return (try_block<N, I>(lo, hi, m, fn) || ...);
        }(std::make_integer_sequence<int, N * N * N>{});
        // every block a sweep meets has lo <= m <= hi - 2 < n - 2: covered
        if (!done) __builtin_unreachable();
    } else {
        fn(lo, hi, m);
    }
}

// The plain shifts of a sweep on the block ending at row hi, written once
// against a lane kit, from its trailing entries d = h(hi, hi), c = h(hi-1,
// hi-1), sub = h(hi, hi-1), sup = h(hi-1, hi), sub2 = h(hi-1, hi-2): the
// exceptional ones where `ex`, else the corner's values (real roots: the
// one nearer the corner, twice).
template <class K>
struct Shifts3 {
    typename K::V h33, h44, hh;
};
template <class K>
ZEL_INLINE Shifts3<K> plain_shifts(typename K::M ex, typename K::V d, typename K::V c, typename K::V sub,
                                   typename K::V sup, typename K::V sub2) {
    using S = typename K::S;
    using V = typename K::V;
    constexpr bool one = K::W == 1;  // a single object computes only its branch
    const V es = K::abs(sub) + K::abs(sub2);
    const V e44 = K::splat(S(kExShift)) * es + d, ehh = K::splat(S(kExShiftSq)) * es * es;
    if constexpr (one)
        if (ex) return {e44, e44, ehh};
    const V hh = sub * sup, half = (c - d) * K::splat(S(0.5));
    const V disc = half * half + hh;
    const auto real = disc > K::splat(S(0));
    if constexpr (one)
        if (!real) return {c, d, hh};
    const V ave = K::splat(S(0.5)) * (c + d);
    const V q = sgn_k<K>(ave) * K::sqrt(disc);
    const V r44 = K::abs(c) - K::abs(d) > K::splat(S(0)) ? (c * d - hh) / (q + ave) : q + ave;
    const V h44 = ex ? e44 : real ? r44 : d;
    return {ex ? e44 : real ? r44 : c, h44, ex ? ehh : real ? K::splat(S(0)) : hh};
}

// The start vector of a sweep from row m (h11 = h(m, m), h22, h21, h12 and
// h32 = h(m+2, m+1)), scaled by the sum of its magnitudes, which passes
// through double in the float kernels too.
template <class K>
ZEL_INLINE void start_vector(const Shifts3<K>& s, typename K::V h11, typename K::V h22, typename K::V h21,
                             typename K::V h12, typename K::V h32, typename K::V& u1, typename K::V& u2,
                             typename K::V& u3) {
    using S = typename K::S;
    using V = typename K::V;
    const V a = s.h44 - h11, b = s.h33 - h11;
    u1 = (b * a - s.hh) / h21 + h12;
    u2 = h22 - h11 - a - b;
    u3 = h32;
    V sum;
    if constexpr (sizeof(S) == sizeof(double)) {
        sum = K::abs(u1) + K::abs(u2) + K::abs(u3);
    } else if constexpr (K::W == 1) {
        sum = S(double(std::fabs(u1)) + double(std::fabs(u2)) + double(std::fabs(u3)));
    } else {
        typedef double D __attribute__((vector_size(K::W * sizeof(double))));
        auto wide = [](V x) ZEL_LAMBDA_INLINE { return __builtin_convertvector(x, D); };
        sum = __builtin_convertvector(wide(K::abs(u1)) + wide(K::abs(u2)) + wide(K::abs(u3)), V);
    }
    u1 /= sum;
    u2 /= sum;
    u3 /= sum;
}

// Whether a sweep may start at row m > lo: the subdiagonal entry h(m, m-1)
// (sub) is negligible against the start vector; left = h(m-1, m-1).
template <class K, class C>
ZEL_INLINE typename K::M starts_here(typename K::V u1, typename K::V u2, typename K::V u3, typename K::V h11,
                                     typename K::V h22, typename K::V left, typename K::V sub) {
    using S = typename K::S;
    return K::splat(S(C::eps)) * K::abs(u1) * (K::abs(left) + K::abs(h11) + K::abs(h22)) >=
           K::abs(sub) * (K::abs(u2) + K::abs(u3));
}

// ---------------------------------------------------------------------------
// Phase 2: the double-shift QR iteration of family F. Values are stored as
// they split off; for the vector families H ends as the Schur form T and Z
// (block F.z_block) holds the accumulated transformations.
//
// The iteration of one object between its sweeps: hi is the last row of the
// part not yet split off, lo the first row of its active block, its the
// sweeps spent on hi and itn the budget left; m and u are the next sweep's
// start row and start vector. The left/right families may keep u from the
// sweep before; before their first sweep it is e1, whose reflector is the
// identity.
template <class W>
struct Iter {
    int hi, lo, its, itn, m;
    W u1, u2, u3;
    bool failed;
    Iter() = default;
    explicit Iter(int n) : hi(n - 1), lo(0), its(0), itn(kSweepsPerOrder * n), m(0), u1(1), u2(0), u3(0), failed(false) {}
};

// The block that split off at hi (one row when lo == hi, else two): its
// values stored, and for the vector families the 2x2 block standardised
// with its rotation applied to H and Z.
template <Family F, class T, class W, class O>
ZEL_INLINE void deflate(const O& o, int lo, int hi, T* re, T* im) {
    using C = Consts<T>;
    const int n = o.n();
    if (lo == hi) {
        store(re + hi, T(o.h(hi, hi)));
        store(im + hi, T(0));
        return;
    }
    const Pair<W> p = standardise<W, C>(o.hw(hi - 1, hi - 1), o.hw(hi - 1, hi), o.hw(hi, hi - 1), o.hw(hi, hi));
    store(re + hi - 1, T(p.a));
    store(re + hi, T(p.d));
    // (a real pair's two imaginary parts +0, not 0 and -0)
    store(im + hi - 1, T(p.y));
    store(im + hi, p.y == 0 ? T(0) : T(-p.y));
    if constexpr (F.reach == Reach::Whole) {
        o.h(hi - 1, hi - 1) = T(p.a);
        o.h(hi - 1, hi) = T(p.b);
        o.h(hi, hi - 1) = T(p.c);
        o.h(hi, hi) = T(p.d);
        const W cs = p.cs, sn = p.sn;
        auto rot = [cs, sn](auto& pe, auto& qe) {
            const W pv = W(pe), qv = W(qe);
            pe = T(cs * pv + sn * qv);
            qe = T(cs * qv - sn * pv);
        };
        for (int j = hi + 1; j < n; ++j) rot(o.h(hi - 1, j), o.h(hi, j));
        for (int j = 0; j + 2 <= hi; ++j) rot(o.h(j, hi - 1), o.h(j, hi));
        for (int j = 0; j < n; ++j) rot(o.z(F.z_block, j, hi - 1), o.z(F.z_block, j, hi));
    }
}

// The largest column sum of magnitudes of the active block lo..hi: the
// relative scan's measure where two diagonal entries are negligible.
template <class W, class O>
W block_norm(const O& o, int lo, int hi) {
    W t = 0;
    for (int c = lo; c <= hi; ++c) {
        W s = 0;
        for (int r = lo; r <= std::min(c + 1, hi); ++r) s += std::fabs(o.hw(r, c));
        t = std::max(t, s);
    }
    return t;
}

// Whether the scan stops at a subdiagonal entry of magnitude a: the
// absolute test, a not above eps (NaN too); the relative one, a not above
// eps times t (its two diagonal neighbours' magnitudes, or the block's norm
// where those are negligible), and never below smlnum.
template <Scan Sc, class K, class C>
ZEL_INLINE typename K::M scan_stops(typename K::V a, typename K::V t, typename K::V smlnum) {
    using S = typename K::S;
    const typename K::V eps = K::splat(S(C::eps));
    if constexpr (Sc == Scan::Absolute) {
        return !(a > eps);
    } else {
        const typename K::V et = eps * t;
        return a <= (et < smlnum ? smlnum : et);  // std::max
    }
}

// Takes one object to its next sweep: scans for a negligible subdiagonal,
// stores what splits off, forms the shifts and finds the start row (in
// it.lo, it.hi, it.m, it.u). False when the object is done, or out of
// sweeps (it.failed). o is any object with h(r, c), hw(r, c), z(b, r, c).
//
// Not inlined: inlined into qr, g++ 12 (-O3) built the left/right families'
// order-4 sweeps with other bits (its basic-block vectoriser, on the
// reflections); a call per sweep costs little.
template <Family F, class T, class W, class O>
__attribute__((noinline)) bool next_sweep(const O& o, Iter<W>& it, T* re, T* im) {
    using C = Consts<T>;
    using One = kit::One<W>;
    constexpr bool rounded = F.shifts == Shifts::Rounded32;
    const int n = o.n();
    const W safmin = W(C::safmin), tiny = W(kTiny32);
    const W smlnum = W(n) * W(C::small_unit);
    auto ab = [&](int r, int c) { return std::fabs(o.hw(r, c)); };
    W& u1 = it.u1;
    W& u2 = it.u2;
    W& u3 = it.u3;
    while (it.hi >= 0) {
        const int hi = it.hi;
        if (it.its < it.itn) {
            // scan for a negligible subdiagonal
            int k = hi;
            const int lo0 = it.lo;
            for (; k > lo0; --k) {
                W t = 0;
                if constexpr (F.scan == Scan::Relative) {
                    t = ab(k - 1, k - 1) + ab(k, k);
                    if (t <= safmin) t = block_norm<W>(o, lo0, hi);
                }
                if (scan_stops<F.scan, One, C>(ab(k, k - 1), t, smlnum)) break;
            }
            const int lo = it.lo = k;
            if (lo > 0) o.h(lo, lo - 1) = T(0);
            if (lo < hi - 1) {
                // shifts
                const int its = it.its;
                W h33, h44, hh;
                const bool ex = its == kExceptional1 || its == kExceptional2;
                if constexpr (!rounded) {
                    const Shifts3<One> sh = plain_shifts<One>(ex, o.hw(hi, hi), o.hw(hi - 1, hi - 1), o.hw(hi, hi - 1),
                                                               o.hw(hi - 1, hi), o.hw(hi - 1, hi - 2));
                    h33 = sh.h33;
                    h44 = sh.h44;
                    hh = sh.hh;
                } else if (ex) {
                    const W s = W(float(std::fabs(float(o.hw(hi, hi - 1)))) + float(std::fabs(float(o.hw(hi - 1, hi - 2)))));
                    h44 = r32<W>(W(kExShift) * s + o.hw(hi, hi));
                    hh = r32<W>(W(kExShiftSq) * s * s);
                    h33 = h44;
                } else {
                    h44 = r32<W>(o.hw(hi, hi));
                    h33 = r32<W>(o.hw(hi - 1, hi - 1));
                    hh = r32<W>(o.hw(hi, hi - 1) * o.hw(hi - 1, hi));
                    const W half = r32<W>((h33 - h44) * W(0.5));
                    const W disc = r32<W>(half * half + hh);
                    if (disc > tiny) {
                        const W root = r32<W>(std::sqrt(disc));
                        const W ave = W(0.5) * (h33 + h44);
                        const W g = -h44 > h33 ? ave - root : ave + root;
                        const W rg = std::fabs(g) > tiny ? W(1) / g : g;
                        h44 = r32<W>(std::fabs(h33) > std::fabs(h44) ? rg * (h33 * h44 - hh) : g);
                        h33 = h44;
                        hh = 0;
                    }
                }

                // start row
                int m = hi - 2;
                for (;; --m) {
                    if constexpr (rounded) {
                        if (ab(m + 1, m) <= tiny) break;
                        const W h11 = r32<W>(o.hw(m, m)), h22 = r32<W>(o.hw(m + 1, m + 1));
                        const W h21 = r32<W>(o.hw(m + 1, m)), h12 = r32<W>(o.hw(m, m + 1));
                        const W a = r32<W>(h44 - h11), b = r32<W>(h33 - h11);
                        u1 = (b * a - hh) / h21 + h12;
                        u2 = h22 - h11 - a - b;
                        u3 = o.hw(m + 2, m + 1);
                        const W s = r32<W>(double(std::fabs(u1)) + double(std::fabs(u2)) + double(std::fabs(u3)));
                        const W rs = std::fabs(s) > tiny ? W(1) / s : s;
                        u1 *= rs;
                        u2 *= rs;
                        u3 *= rs;
                        if (m == lo) break;
                        const float left = float(std::fabs(u1)) * (float(ab(m - 1, m - 1)) + float(std::fabs(h11)) +
                                                                   float(std::fabs(h22)));
                        const float right = float(ab(m, m - 1)) * (float(std::fabs(u2)) + float(std::fabs(u3)));
                        if (W(C::eps) * W(left) >= W(right)) break;
                    } else {
                        const W h11 = o.hw(m, m), h22 = o.hw(m + 1, m + 1);
                        start_vector<One>({h33, h44, hh}, h11, h22, o.hw(m + 1, m), o.hw(m, m + 1),
                                          o.hw(m + 2, m + 1), u1, u2, u3);
                        if (m == lo) break;
                        if (starts_here<One, C>(u1, u2, u3, h11, h22, o.hw(m - 1, m - 1), o.hw(m, m - 1))) break;
                    }
                }
                it.m = m;
                ++it.its;
                return true;
            }
        } else if (it.lo < hi - 1) {
            it.failed = true;
            return false;
        }
        deflate<F, T, W>(o, it.lo, hi, re, im);
        it.itn -= it.its;
        it.hi = it.lo - 1;
        it.lo = 0;
        it.its = 0;
    }
    return false;
}

template <Family F, class T, class W, int N>
zelStatus qr(const Object<T, W, N>& o, T* re, T* im) {
    Loose<T>* z = F.reach == Reach::Whole ? o.block(F.z_block) : nullptr;
    Iter<W> it(o.n());
    while (next_sweep<F, T, W>(o, it, re, im)) {
        // the sweep: chase the bulge from m down to hi
        with_block<N>(it.lo, it.hi, it.m, [&](auto blo, auto bhi, auto bm) __attribute__((always_inline)) {
            sweep<F, T, W, N>(o, z, blo, bhi, bm, it.u1, it.u2, it.u3);
        });
    }
    return it.failed ? zelStsErrNoConvergence : zelStsOk;
}

// ---------------------------------------------------------------------------
// Small solves: (C - w) X = scale * B for a 1x1 or 2x2 block C of T (its
// transpose in the second set), w = wr + i wi, with X kept from overflow by
// scale <= 1. xnorm is the largest magnitude of X.
template <class W>
struct Solved {
    W xr[2], xi[2];
    W scale = 1, xnorm = 0;
    bool failed = false;  // every entry of a 2x2 block below smini
};

// One complex quotient (br + i bi) / (cr + i ci), formed directly.
template <class W>
ZEL_INLINE void cdiv(W br, W bi, W cr, W ci, W& xr, W& xi) {
    const W d = cr * cr + ci * ci;
    xr = (br * cr + bi * ci) / d;
    xi = (bi * cr - br * ci) / d;
}

template <class W, class C>
Solved<W> solve1(W t, W wr, W wi, bool cplx, W br, W bi, W smini) {
    Solved<W> s;
    const W bignum2 = W(C::bignum2);
    W cr = t - wr, ci = -wi;
    if (!cplx) {
        if (std::fabs(cr) < smini) cr = smini;
        const W bn = std::fabs(br), cn = std::fabs(cr);
        if (cn < 1 && bn > 1 && bn > bignum2 * cn) s.scale = W(1) / bn;
        s.xr[0] = (br * s.scale) / cr;
        s.xi[0] = 0;
        s.xnorm = std::fabs(s.xr[0]);
        return s;
    }
    if (std::fabs(cr) + std::fabs(ci) < smini) {
        cr = smini;
        ci = 0;
    }
    const W bn = std::fabs(br) + std::fabs(bi), cn = std::fabs(cr) + std::fabs(ci);
    if (cn < 1 && bn > 1 && bn > bignum2 * cn) s.scale = W(1) / bn;
    cdiv(s.scale * br, s.scale * bi, cr, ci, s.xr[0], s.xi[0]);
    s.xnorm = std::fabs(s.xr[0]) + std::fabs(s.xi[0]);
    return s;
}

// 2x2 by Gaussian elimination with complete pivoting. c holds c11, c21, c12,
// c22 of the block as it enters (already transposed for the second set).
template <class W, class C>
Solved<W> solve2(const W (&blk)[4], W wr, W wi, bool cplx, const W (&br)[2], const W (&bi)[2], W smini) {
    static constexpr int piv[4][4] = {{0, 1, 2, 3}, {1, 0, 3, 2}, {2, 3, 0, 1}, {3, 2, 1, 0}};
    static constexpr bool rswap[4] = {false, true, false, true}, zswap[4] = {false, false, true, true};
    const W bignum2 = W(C::bignum2);
    Solved<W> s;
    W cr[4], ci[4] = {-wi, 0, 0, -wi};
    for (int i = 0; i < 4; ++i) cr[i] = blk[i] - (i == 0 || i == 3 ? wr : W(0));
    if (!cplx) ci[0] = ci[3] = 0;
    W cmax = 0;
    int ic = 0;
    for (int i = 0; i < 4; ++i) {
        const W mag = std::fabs(cr[i]) + std::fabs(ci[i]);
        if (mag > cmax) {
            cmax = mag;
            ic = i;
        }
    }
    if (cmax < smini) {
        // Every entry negligible: the block is taken as smini times the
        // identity (a real vector goes on with it; a complex one fails).
        s.failed = cplx;
        const W bn = std::max(std::fabs(br[0]) + std::fabs(bi[0]), std::fabs(br[1]) + std::fabs(bi[1]));
        if (smini < 1 && bn > 1 && bn > bignum2 * smini) s.scale = W(1) / bn;
        const W f = s.scale / smini;
        for (int i = 0; i < 2; ++i) {
            s.xr[i] = f * br[i];
            s.xi[i] = f * bi[i];
        }
        s.xnorm = f * bn;
        return s;
    }
    const W u11 = cr[ic], c21 = cr[piv[ic][1]], u12 = cr[piv[ic][2]], c22 = cr[piv[ic][3]];
    W b1r = br[0], b2r = br[1], b1i = bi[0], b2i = bi[1];
    if (rswap[ic]) {
        std::swap(b1r, b2r);
        std::swap(b1i, b2i);
    }
    W x1r, x1i = 0, x2r, x2i = 0;
    if (!cplx) {
        const W u11r = W(1) / u11;
        const W l21 = u11r * c21;
        W u22 = c22 - u12 * l21;
        if (std::fabs(u22) < smini) u22 = smini;
        b2r = b2r - l21 * b1r;
        const W bbnd = std::max(std::fabs(b1r * (u22 * u11r)), std::fabs(b2r));
        if (bbnd > 1 && std::fabs(u22) < 1 && bbnd >= bignum2 * std::fabs(u22)) s.scale = W(1) / bbnd;
        x2r = (b2r * s.scale) / u22;
        x1r = (s.scale * b1r) * u11r - x2r * (u11r * u12);
    } else {
        const W ui11 = ci[ic], ci21 = ci[piv[ic][1]], ui12 = ci[piv[ic][2]], ci22 = ci[piv[ic][3]];
        W u11r, u11i, l21r, l21i, u12sr, u12si, u22r, u22i;
        if (ic == 0 || ic == 3) {
            // the pivot is complex, the entries beside and below it real
            if (std::fabs(u11) > std::fabs(ui11)) {
                const W q = ui11 / u11;
                u11r = W(1) / (u11 * (W(1) + q * q));
                u11i = -q * u11r;
            } else {
                const W q = u11 / ui11;
                u11i = -W(1) / (ui11 * (W(1) + q * q));
                u11r = -q * u11i;
            }
            l21r = c21 * u11r;
            l21i = c21 * u11i;
            u12sr = u12 * u11r;
            u12si = u12 * u11i;
            u22r = c22 - u12 * l21r;
            u22i = ci22 - u12 * l21i;
        } else {
            // the pivot is real, the diagonal entries complex
            u11r = W(1) / u11;
            u11i = 0;
            l21r = c21 * u11r;
            l21i = ci21 * u11r;
            u12sr = u12 * u11r;
            u12si = ui12 * u11r;
            u22r = c22 - u12 * l21r + ui12 * l21i;
            u22i = -u12 * l21i - ui12 * l21r;
        }
        const W u22abs = std::fabs(u22r) + std::fabs(u22i);
        if (u22abs < smini) {
            u22r = smini;
            u22i = 0;
        }
        const W nb2r = b2r - l21r * b1r + l21i * b1i;
        const W nb2i = b2i - l21i * b1r - l21r * b1i;
        b2r = nb2r;
        b2i = nb2i;
        const W bbnd = std::max((std::fabs(b1r) + std::fabs(b1i)) * (u22abs * (std::fabs(u11r) + std::fabs(u11i))),
                                std::fabs(b2r) + std::fabs(b2i));
        if (bbnd > 1 && u22abs < 1 && bbnd >= bignum2 * u22abs) {
            s.scale = W(1) / bbnd;
            b1r *= s.scale;
            b1i *= s.scale;
            b2r *= s.scale;
            b2i *= s.scale;
        }
        cdiv(b2r, b2i, u22r, u22i, x2r, x2i);
        x1r = u11r * b1r - u11i * b1i - u12sr * x2r + u12si * x2i;
        x1i = u11i * b1r + u11r * b1i - u12si * x2r - u12sr * x2i;
    }
    if (zswap[ic]) {
        std::swap(x1r, x2r);
        std::swap(x1i, x2i);
    }
    s.xr[0] = x1r;
    s.xr[1] = x2r;
    s.xi[0] = x1i;
    s.xi[1] = x2i;
    s.xnorm = std::max(std::fabs(x1r) + std::fabs(x1i), std::fabs(x2r) + std::fabs(x2i));
    if (s.xnorm > 1 && cmax > 1 && s.xnorm > bignum2 / cmax) {
        const W f = cmax * W(C::safmin2);
        for (int i = 0; i < 2; ++i) {
            s.xr[i] *= f;
            s.xi[i] *= f;
        }
        s.xnorm *= f;
        s.scale *= f;
    }
    return s;
}

// ---------------------------------------------------------------------------
// The vector phases on the Schur form T (in H) and a block V that holds Z.
template <class T, class W, int N>
struct Vectors {
    using C = Consts<T>;
    const Object<T, W, N>& o;
    Loose<T>* colsum;  // s[j] = sum over i < j of |T[i][j]|
    Loose<T>* re;
    Loose<T>* im;

    int n() const { return o.n(); }
    W t(int r, int c) const { return o.hw(r, c); }
    W smlnum() const { return W(n()) * W(C::small_unit); }
    W bignum() const { return W(C::big_num) / smlnum(); }

    void column_sums() const {
        colsum[0] = T(0);
        for (int j = 1; j < n(); ++j) {
            W s = 0;
            for (int i = 0; i < j; ++i) s += std::fabs(t(i, j));
            colsum[j] = T(s);
        }
    }

    // x[lo..hi] *= f
    void scale_vector(int lo, int hi, W f, bool cplx) const {
        for (int k = lo; k <= hi; ++k) {
            re[k] = T(W(re[k]) * f);
            if (cplx) im[k] = T(W(im[k]) * f);
        }
    }

    // The eigenvalue at ki (a pair at ki, ki+1 when `pair`): wr, wi, smini.
    struct Shift {
        W wr, wi, smini;
    };
    Shift shift_of(W wr, W wi) const {
        const W smin = std::max(W(C::eps) * (std::fabs(wr) + std::fabs(wi)), smlnum());
        return {wr, wi, std::max(smin, W(C::safmin2))};
    }

    // First set: H x = lambda x, ki descending, back-transformed by the
    // columns of V to the left of ki. Returns a status.
    zelStatus first_set(Loose<T>* v) const {
        const int n = this->n();
        const W safmin = W(C::safmin);
        for (int ki = n - 1; ki >= 0; --ki) {
            const bool pair = ki > 0 && std::fabs(t(ki, ki - 1)) > safmin;
            const W wi = pair ? std::sqrt(std::fabs(t(ki, ki - 1))) * std::sqrt(std::fabs(t(ki - 1, ki))) : W(0);
            const Shift sh = shift_of(t(ki, ki), wi);
            int top;  // the last position of the vector's own block
            if (!pair) {
                re[ki] = T(1);
                for (int k = 0; k < ki; ++k) re[k] = T(-t(k, ki));
                top = ki - 1;
            } else {
                W r1, i2;
                if (std::fabs(t(ki - 1, ki)) > std::fabs(t(ki, ki - 1))) {
                    r1 = 1;
                    i2 = wi / t(ki - 1, ki);
                } else {
                    r1 = -wi / t(ki, ki - 1);
                    i2 = 1;
                }
                re[ki - 1] = T(r1);
                im[ki] = T(i2);
                re[ki] = T(0);
                im[ki - 1] = T(0);
                for (int k = 0; k < ki - 1; ++k) {
                    re[k] = T(-W(re[ki - 1]) * t(k, ki - 1));
                    im[k] = T(-W(im[ki]) * t(k, ki));
                }
                top = ki - 2;
            }
            for (int j = top; j >= 0;) {
                const bool blk2 = j > 0 && std::fabs(t(j, j - 1)) > safmin;
                const int j1 = blk2 ? j - 1 : j;
                Solved<W> x;
                if (!blk2) {
                    x = solve1<W, C>(t(j, j), sh.wr, sh.wi, pair, W(re[j]), pair ? W(im[j]) : W(0), sh.smini);
                } else {
                    const W blk[4] = {t(j1, j1), t(j, j1), t(j1, j), t(j, j)};
                    const W br[2] = {W(re[j1]), W(re[j])};
                    const W bi[2] = {pair ? W(im[j1]) : W(0), pair ? W(im[j]) : W(0)};
                    x = solve2<W, C>(blk, sh.wr, sh.wi, pair, br, bi, sh.smini);
                    if (x.failed) return zelStsErrGeneric;
                }
                // growth guard against the columns above the block
                const W cs = blk2 ? std::max(W(colsum[j1]), W(colsum[j])) : W(colsum[j]);
                if (x.xnorm > 1 && cs > bignum() / x.xnorm) {
                    for (int i = 0; i < 2; ++i) {
                        x.xr[i] /= x.xnorm;
                        x.xi[i] /= x.xnorm;
                    }
                    x.scale /= x.xnorm;
                }
                if (std::fabs(x.scale - 1) > safmin) scale_vector(0, ki, x.scale, pair);
                for (int b = 0; b <= j - j1; ++b) {
                    const int jj = j1 + b;
                    re[jj] = T(x.xr[b]);
                    if (pair) im[jj] = T(x.xi[b]);
                    for (int k = 0; k < j1; ++k) {
                        re[k] = T(W(re[k]) - x.xr[b] * t(k, jj));
                        if (pair) im[k] = T(W(im[k]) - x.xi[b] * t(k, jj));
                    }
                }
                j = j1 - 1;
            }
            // back-transform over columns 0..top of V
            if (!pair) {
                transform(v, ki, 0, top, re, W(re[ki]));
            } else {
                transform(v, ki - 1, 0, top, re, W(re[ki - 1]));
                transform(v, ki, 0, top, im, W(im[ki]));
                if (!scale_pair(v, ki - 1, true)) return zelStsErrNoConvergence;
                --ki;
            }
        }
        return zelStsOk;
    }

    // Second set: y^H H = lambda y^H, ki ascending, back-transformed by the
    // columns of V to the right of the vector's block.
    zelStatus second_set(Loose<T>* v) const {
        const int n = this->n();
        const W safmin = W(C::safmin);
        for (int ki = 0; ki < n; ++ki) {
            const bool pair = ki < n - 1 && std::fabs(t(ki + 1, ki)) > safmin;
            const W wi = pair ? std::sqrt(std::fabs(t(ki + 1, ki))) * std::sqrt(std::fabs(t(ki, ki + 1))) : W(0);
            // the solves use the shift wr - i wi
            const Shift sh = shift_of(t(ki, ki), wi);
            int first;  // the first position below the vector's own block
            if (!pair) {
                re[ki] = T(1);
                for (int k = ki + 1; k < n; ++k) re[k] = T(-t(ki, k));
                first = ki + 1;
            } else {
                W r1, i2;
                if (std::fabs(t(ki, ki + 1)) >= std::fabs(t(ki + 1, ki))) {
                    r1 = wi / t(ki, ki + 1);
                    i2 = 1;
                } else {
                    r1 = 1;
                    i2 = -wi / t(ki + 1, ki);
                }
                re[ki] = T(r1);
                im[ki + 1] = T(i2);
                re[ki + 1] = T(0);
                im[ki] = T(0);
                for (int k = ki + 2; k < n; ++k) {
                    re[k] = T(-W(re[ki]) * t(ki, k));
                    im[k] = T(-W(im[ki + 1]) * t(ki + 1, k));
                }
                first = ki + 2;
            }
            for (int j = first; j < n;) {
                const bool blk2 = j < n - 1 && std::fabs(t(j + 1, j)) > safmin;
                const int j2 = blk2 ? j + 1 : j;
                // the right-hand side less the part solved so far
                W br[2], bi[2] = {0, 0};
                for (int b = 0; b <= j2 - j; ++b) {
                    const int jj = j + b;
                    W sr = 0, si = 0;
                    for (int k = first; k < j; ++k) {
                        sr += t(k, jj) * W(re[k]);
                        if (pair) si += t(k, jj) * W(im[k]);
                    }
                    br[b] = W(re[jj]) - sr;
                    if (pair) bi[b] = W(im[jj]) - si;
                }
                Solved<W> x;
                if (!blk2) {
                    x = solve1<W, C>(t(j, j), sh.wr, -sh.wi, pair, br[0], bi[0], sh.smini);
                } else {
                    // the transposed block
                    const W blk[4] = {t(j, j), t(j, j2), t(j2, j), t(j2, j2)};
                    x = solve2<W, C>(blk, sh.wr, -sh.wi, pair, br, bi, sh.smini);
                    if (x.failed) return zelStsErrGeneric;
                }
                if (std::fabs(x.scale - 1) > safmin) scale_vector(ki, n - 1, x.scale, pair);
                for (int b = 0; b <= j2 - j; ++b) {
                    re[j + b] = T(x.xr[b]);
                    if (pair) im[j + b] = T(x.xi[b]);
                }
                j = j2 + 1;
            }
            if (!pair) {
                transform(v, ki, first, n - 1, re, W(re[ki]));
            } else {
                transform(v, ki, first, n - 1, re, W(re[ki]));
                transform(v, ki + 1, first, n - 1, im, W(im[ki + 1]));
                scale_pair(v, ki, false);
                ++ki;
            }
        }
        return zelStsOk;
    }

    // Column c of V becomes V[:, lo..hi] x[lo..hi] + x_c V[:, c].
    void transform(Loose<T>* v, int c, int lo, int hi, const Loose<T>* x, W xc) const {
        const int n = this->n();
        for (int r = 0; r < n; ++r) {
            W s = 0;
            for (int k = lo; k <= hi; ++k) s += W(at<T>(v, n, r, k)) * W(x[k]);
            at<T>(v, n, r, c) = T(s + xc * W(at<T>(v, n, r, c)));
        }
    }

    // A complex vector in columns c, c+1 divided by its largest |re| + |im|.
    // The first set fails on a vector that small; the second leaves it.
    bool scale_pair(Loose<T>* v, int c, bool first) const {
        const int n = this->n();
        W emax = 0;
        for (int r = 0; r < n; ++r)
            emax = std::max(emax, std::fabs(W(at<T>(v, n, r, c))) + std::fabs(W(at<T>(v, n, r, c + 1))));
        if (first ? emax <= W(C::eps) : emax <= W(C::safmin)) return !first;
        const W f = W(1) / emax;
        for (int r = 0; r < n; ++r) {
            at<T>(v, n, r, c) = T(W(at<T>(v, n, r, c)) * f);
            at<T>(v, n, r, c + 1) = T(W(at<T>(v, n, r, c + 1)) * f);
        }
        return true;
    }

    // Unit 2-norm for each vector; a complex one turned so that its largest
    // component is real.
    void normalise(Loose<T>* v, const T* val_im) const {
        const int n = this->n();
        const W safmin = W(C::safmin);
        for (int j = 0; j < n; ++j) {
            if (!(std::fabs(W(load(val_im + j))) < safmin) && j + 1 < n) {
                W q = 0;
                for (int r = 0; r < n; ++r) {
                    const W a = W(at<T>(v, n, r, j)), b = W(at<T>(v, n, r, j + 1));
                    q += a * a + b * b;
                }
                const W f = W(1) / std::sqrt(q);
                W big = -1;
                int kb = 0;
                for (int r = 0; r < n; ++r) {
                    const W a = W(at<T>(v, n, r, j)) * f, b = W(at<T>(v, n, r, j + 1)) * f;
                    at<T>(v, n, r, j) = T(a);
                    at<T>(v, n, r, j + 1) = T(b);
                    const W a2 = W(T(a)), b2 = W(T(b));
                    if (a2 * a2 + b2 * b2 > big) {
                        big = a2 * a2 + b2 * b2;
                        kb = r;
                    }
                }
                const W a = W(at<T>(v, n, kb, j)), b = W(at<T>(v, n, kb, j + 1));
                const W rr = std::sqrt(a * a + b * b);
                W cs = a / rr, sn = b / rr;
                if (std::fabs(a) > std::fabs(b) && cs < 0) {
                    cs = -cs;
                    sn = -sn;
                }
                for (int r = 0; r < n; ++r) {
                    const W x = W(at<T>(v, n, r, j)), y = W(at<T>(v, n, r, j + 1));
                    at<T>(v, n, r, j) = T(cs * x + sn * y);
                    at<T>(v, n, r, j + 1) = T(cs * y - sn * x);
                }
                ++j;
            } else {
                W q = 0;
                for (int r = 0; r < n; ++r) q += W(at<T>(v, n, r, j)) * W(at<T>(v, n, r, j));
                if (q > safmin) {
                    const W f = W(1) / std::sqrt(q);
                    for (int r = 0; r < n; ++r) at<T>(v, n, r, j) = T(W(at<T>(v, n, r, j)) * f);
                }
            }
        }
    }
};

// ---------------------------------------------------------------------------
// One object of family F whose source is already in pBuffer (row by row):
// values to re/im, vectors left in their blocks. In three phases: the
// reduction (with Q for the vector families), the QR stage, the vectors.
// The reflectors' scalars: n - 1 of them.
template <Family F, class T, class W, int N>
ZEL_INLINE Loose<T>* tau_of(const Object<T, W, N>& o) {
    return o.block(F.work_block) + (F.sets ? 3 * o.n() : 0);
}

template <Family F, class T, class W, int N>
ZEL_INLINE void reduce_object(const Object<T, W, N>& o) {
    Loose<T>* tau = tau_of<F>(o);
    reduce(o, tau);
    if constexpr (F.sets != kNoSet) {
        form_q(o, o.block(F.z_block), tau);
    }
    clear_below_subdiagonal(o);
}

template <Family F, class T, class W, int N>
zelStatus vectors_of_object(const Object<T, W, N>& o, T* im) {
    const int n = o.n();
    const int nn = n * n;
    Loose<T>* work = o.block(F.work_block);
    const Vectors<T, W, N> vec{o, work, work + n, work + 2 * n};
    vec.column_sums();
    Loose<T>* z = o.block(F.z_block);
    Loose<T>* second = F.copy_block ? o.block(F.copy_block) : z;
    if (F.copy_block)
        for (int i = 0; i < nn; ++i) second[i] = z[i];
    if constexpr ((F.sets & kFirst) != 0) {
        const zelStatus s1 = vec.first_set(z);
        if (s1 != zelStsOk) return s1;
        vec.normalise(z, im);
    }
    if constexpr ((F.sets & kSecond) != 0) {
        const zelStatus s2 = vec.second_set(second);
        if (s2 != zelStsOk) return s2;
        vec.normalise(second, im);
    }
    return zelStsOk;
}

template <Family F, class T, class W, int N>
__attribute__((noinline)) zelStatus solve_object(Loose<T>* buf, int n_rt, T* re, T* im) {
    const Object<T, W, N> o{buf, n_rt};
    reduce_object<F>(o);
    const zelStatus st = qr<F, T, W, N>(o, re, im);
    if (st != zelStsOk || F.sets == kNoSet) return st;
    return vectors_of_object<F>(o, im);
}

}  // namespace zel::eigengen
