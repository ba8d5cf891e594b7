// Cholesky decomposition and back-substitution of the fixed orders, W
// objects at a time across vector lanes (solvers/triangular_lanes.hpp), for
// the kernels with contiguous rows in the standard and list forms. Only the
// lower triangle is loaded and stored. The 32f reciprocal square root is the
// packed estimate instruction on each 128-bit piece (the scalar estimate of
// every lane) with the same Newton step. A batch in which any lane fails
// stores nothing and is left to the scalar code.
#pragma once

#include <emmintrin.h>
#include <xmmintrin.h>

#include "solvers/cholesky_table.hpp"
#include "solvers/triangular_lanes.hpp"

namespace zel::cholesky::lanes {

using tri::lanes::Pack;

template <class T, int W>
ZEL_INLINE typename Pack<T, W>::V rsqrt(typename Pack<T, W>::V d) {
    using P = Pack<T, W>;
    using Q = typename P::Q;
    if constexpr (sizeof(T) == 4) {
        const auto r0 = P::by_piece(d, [](Q x) { return (Q)_mm_rsqrt_ps((__m128)x); });
        return (r0 * -0.5f) * (d * r0 * r0 - 3.0f);
    } else {
        return 1.0 / P::by_piece(d, [](Q x) { return (Q)_mm_sqrt_pd((__m128d)x); });
    }
}

template <class T, int W, int N, Form F>
ZEL_INLINE bool decomp_batch(const Call<T>& c, int first) {
    using P = Pack<T, W>;
    using V = typename P::V;
    V a[N][N];
    static_for<0, N>([&](auto r) {
        const T* rows[W];
        #pragma GCC unroll 8
        for (int l = 0; l < W; ++l) rows[l] = view_of<T, F, true>(c.src[0], first + l, N).ptr(r, 0);
        P::template load_row<r + 1>(rows, a[r]);
    });
    typename P::M fail{};
    #pragma GCC unroll 8
    for (int i = 0; i < N; ++i) {
        #pragma GCC unroll 8
        for (int j = 0; j < i; ++j) {
            V t = a[i][j];
            #pragma GCC unroll 8
            for (int k = 0; k < j; ++k) t -= a[i][k] * a[j][k];
            a[i][j] = t * a[j][j];
        }
        V d = a[i][i];
        #pragma GCC unroll 8
        for (int k = 0; k < i; ++k) d -= a[i][k] * a[i][k];
        fail |= d <= radicand_bound<T>(tri::kern_of(F, true), N);
        a[i][i] = rsqrt<T, W>(d);
    }
    if (P::any(fail)) return false;
    static_for<0, N>([&](auto r) {
        T* rows[W];
        #pragma GCC unroll 8
        for (int l = 0; l < W; ++l) rows[l] = view_of<T, F, true>(c.dst[0], first + l, N).ptr(r, 0);
        P::template store_row<r + 1>(rows, a[r]);
    });
    return true;
}

template <class T, int W, int N, Form F>
ZEL_INLINE bool back_batch(const Call<T>& c, int first) {
    using P = Pack<T, W>;
    using V = typename P::V;
    V f[N][N], y[N];
    static_for<0, N>([&](auto r) {
        const T* rows[W];
        #pragma GCC unroll 8
        for (int l = 0; l < W; ++l) rows[l] = view_of<T, F, true>(c.src[0], first + l, N).ptr(r, 0);
        P::template load_row<r + 1>(rows, f[r]);
    });
    const T* b[W];
    T* x[W];
    #pragma GCC unroll 8
    for (int l = 0; l < W; ++l) {
        b[l] = view_of<T, F, true>(c.src[1], first + l, 0).ptr(0, 0);
        x[l] = view_of<T, F, true>(c.dst[0], first + l, 0).ptr(0, 0);
    }
    P::template load_row<N>(b, y);
    #pragma GCC unroll 8
    for (int i = 0; i < N; ++i) {
        V v = y[i];
        #pragma GCC unroll 8
        for (int j = 0; j < i; ++j) v -= f[i][j] * y[j];
        y[i] = v * f[i][i];
    }
    #pragma GCC unroll 8
    for (int i = N - 1; i >= 0; --i) {
        V v = y[i];
        #pragma GCC unroll 8
        for (int j = i + 1; j < N; ++j) v -= f[j][i] * y[j];
        y[i] = v * f[i][i];
    }
    P::template store_row<N>(x, y);
    return true;
}

struct Family {
    static constexpr int lo = kFixedLo, hi = kFixedHi;
    template <int N>
    static constexpr int ahead = ahead_of(N);
    template <class T, int W, int N, Form F, bool Decomp>
    static ZEL_INLINE bool batch(const Call<T>& c, int first) {
        if constexpr (Decomp) return decomp_batch<T, W, N, F>(c, first);
        else return back_batch<T, W, N, F>(c, first);
    }
};

}  // namespace zel::cholesky::lanes
