// LU decomposition and back-substitution of the fixed orders, W objects at a
// time across vector lanes (solvers/triangular_lanes.hpp), for the kernels
// with contiguous rows in the standard and list forms.
//
// The decomposition holds each lane's rows in table order and exchanges
// them physically, lane by lane, by compare and select: searching positions
// k .. N-1 of that order for the first strictly greater magnitude and
// exchanging positions k and best is what the scalar code does through its
// table, so every element sees the same operations. A batch in which any
// lane fails stores nothing and is left to the scalar code, which stops at
// the failing object with the state the path prescribes.
#pragma once

#include <cstring>

#include "solvers/lu_table.hpp"
#include "solvers/triangular_lanes.hpp"

namespace zel::lu::lanes {

using tri::lanes::Pack;

template <class T, int W, int N, Form F>
ZEL_INLINE bool decomp_batch(const Call<T>& c, int first) {
    using P = Pack<T, W>;
    using V = typename P::V;
    V a[N][N];
    #pragma GCC unroll 8
    for (int r = 0; r < N; ++r) {
        const T* rows[W];
        #pragma GCC unroll 8
        for (int l = 0; l < W; ++l) rows[l] = view_of<T, F, true>(c.src[0], first + l, N).ptr(r, 0);
        P::template load_row<N>(rows, a[r]);
    }
    V pos[N];  // the source row at each table position
    #pragma GCC unroll 8
    for (int i = 0; i < N; ++i) pos[i] = P::splat(T(i));
    typename P::M fail{};
    #pragma GCC unroll 8
    for (int k = 0; k < N - 1; ++k) {
        V big = P::abs(a[k][k]), best = P::splat(T(k));
        #pragma GCC unroll 8
        for (int i = k + 1; i < N; ++i) {
            const V m = P::abs(a[i][k]);
            const auto gt = m > big;
            big = gt ? m : big;
            best = gt ? P::splat(T(i)) : best;
        }
        #pragma GCC unroll 8
        for (int i = k + 1; i < N; ++i) {
            const auto sw = best == P::splat(T(i));
            #pragma GCC unroll 8
            for (int j = 0; j < N; ++j) {
                const V t = a[k][j];
                a[k][j] = sw ? a[i][j] : t;
                a[i][j] = sw ? t : a[i][j];
            }
            const V t = pos[k];
            pos[k] = sw ? pos[i] : t;
            pos[i] = sw ? t : pos[i];
        }
        fail |= big < Pivot<T>::fixed;
        if (k < N - 2) {
            const V r = T(1) / a[k][k];
            #pragma GCC unroll 8
            for (int i = k + 1; i < N; ++i) {
                const V m = a[i][k] * r;
                a[i][k] = m;
                #pragma GCC unroll 8
                for (int j = k + 1; j < N; ++j) a[i][j] -= m * a[k][j];
            }
        } else {
            const V m = a[N - 1][k] / a[k][k];
            a[N - 1][k] = m;
            a[N - 1][N - 1] -= m * a[k][N - 1];
        }
    }
    fail |= P::abs(a[N - 1][N - 1]) < Pivot<T>::fixed;
    if (P::any(fail)) return false;
    T p[N][W];
    std::memcpy(p, pos, sizeof p);
    int* table = const_cast<int*>(c.idx) + std::ptrdiff_t(first) * N;
    #pragma GCC unroll 8
    for (int l = 0; l < W; ++l)
        #pragma GCC unroll 8
        for (int i = 0; i < N; ++i) table[l * N + i] = int(p[i][l]);
    #pragma GCC unroll 8
    for (int i = 0; i < N; ++i) {
        T* rows[W];
        #pragma GCC unroll 8
        for (int l = 0; l < W; ++l) rows[l] = view_of<T, F, true>(c.dst[0], first + l, N).ptr(int(p[i][l]), 0);
        P::template store_row<N>(rows, a[i]);
    }
    return true;
}

// Factor rows through each lane's table, b gathered through it, the passes
// on lanes, x stored back: the scalar mava code on W objects.
template <class T, int W, int N, Form F>
ZEL_INLINE bool back_batch(const Call<T>& c, int first) {
    using P = Pack<T, W>;
    using V = typename P::V;
    const int* tab = c.idx + std::ptrdiff_t(first) * N;
    V f[N][N], y[N];
    // No unroll pragma on this loop: g++ 12 under -fsanitize=thread fetches
    // b from the wrong rows when it is forced (the optimiser unrolls the
    // constant trip count by itself in the other builds).
    for (int i = 0; i < N; ++i) {
        const T* rows[W];
        #pragma GCC unroll 8
        for (int l = 0; l < W; ++l) rows[l] = view_of<T, F, true>(c.src[0], first + l, N).ptr(tab[l * N + i], 0);
        P::template load_row<N>(rows, f[i]);
        T bl[W];
        #pragma GCC unroll 8
        for (int l = 0; l < W; ++l) bl[l] = load(view_of<T, F, true>(c.src[1], first + l, 0).ptr(0, tab[l * N + i]));
        std::memcpy(&y[i], bl, sizeof bl);
    }
    #pragma GCC unroll 8
    for (int i = 1; i < N; ++i)
        #pragma GCC unroll 8
        for (int j = 0; j < i; ++j) y[i] -= f[i][j] * y[j];
    #pragma GCC unroll 8
    for (int i = N - 1; i >= 0; --i) {
        V v = y[i];
        #pragma GCC unroll 8
        for (int j = i + 1; j < N; ++j) v -= f[i][j] * y[j];
        y[i] = v / f[i][i];
    }
    T* rows[W];
    #pragma GCC unroll 8
    for (int l = 0; l < W; ++l) rows[l] = view_of<T, F, true>(c.dst[0], first + l, 0).ptr(0, 0);
    P::template store_row<N>(rows, y);
    return true;
}

struct Family {
    static constexpr int lo = kFixedLo, hi = kFixedHi;
    template <class T, int W, int N, Form F, bool Decomp>
    static ZEL_INLINE bool batch(const Call<T>& c, int first) {
        if constexpr (Decomp) return decomp_batch<T, W, N, F>(c, first);
        else return back_batch<T, W, N, F>(c, first);
    }
};

}  // namespace zel::lu::lanes
