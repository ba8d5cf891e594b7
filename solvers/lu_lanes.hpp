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

template <class T, int W, int N, Form F, int B = 1>
ZEL_INLINE bool decomp_batch(const Call<T>& c, int first) {
    using P = Pack<T, W>;
    using V = typename P::V;
    V a[B][N][N];
    #pragma GCC unroll 2
    for (int b = 0; b < B; ++b)
        #pragma GCC unroll 8
        for (int r = 0; r < N; ++r) {
            const T* rows[W];
            #pragma GCC unroll 8
            for (int l = 0; l < W; ++l) rows[l] = view_of<T, F, true>(c.src[0], first + b * W + l, N).ptr(r, 0);
            P::template load_row<N>(rows, a[b][r]);
        }
    V pos[B][N];  // the source row at each table position
    #pragma GCC unroll 2
    for (int b = 0; b < B; ++b)
        #pragma GCC unroll 8
        for (int i = 0; i < N; ++i) pos[b][i] = P::splat(T(i));
    typename P::M fail{};
    #pragma GCC unroll 8
    for (int k = 0; k < N - 1; ++k) {
        V big[B], best[B];
        #pragma GCC unroll 2
        for (int b = 0; b < B; ++b) big[b] = P::abs(a[b][k][k]), best[b] = P::splat(T(k));
        #pragma GCC unroll 8
        for (int i = k + 1; i < N; ++i)
            #pragma GCC unroll 2
            for (int b = 0; b < B; ++b) {
                const V m = P::abs(a[b][i][k]);
                const auto gt = m > big[b];
                big[b] = gt ? m : big[b];
                best[b] = gt ? P::splat(T(i)) : best[b];
            }
        #pragma GCC unroll 8
        for (int i = k + 1; i < N; ++i)
            #pragma GCC unroll 2
            for (int b = 0; b < B; ++b) {
                const auto sw = best[b] == P::splat(T(i));
                #pragma GCC unroll 8
                for (int j = 0; j < N; ++j) {
                    const V t = a[b][k][j];
                    a[b][k][j] = sw ? a[b][i][j] : t;
                    a[b][i][j] = sw ? t : a[b][i][j];
                }
                const V t = pos[b][k];
                pos[b][k] = sw ? pos[b][i] : t;
                pos[b][i] = sw ? t : pos[b][i];
            }
        #pragma GCC unroll 2
        for (int b = 0; b < B; ++b) fail |= big[b] < Pivot<T>::fixed;
        if (k < N - 2) {
            V r[B];
            #pragma GCC unroll 2
            for (int b = 0; b < B; ++b) r[b] = T(1) / a[b][k][k];
            #pragma GCC unroll 8
            for (int i = k + 1; i < N; ++i)
                #pragma GCC unroll 2
                for (int b = 0; b < B; ++b) {
                    const V m = a[b][i][k] * r[b];
                    a[b][i][k] = m;
                    #pragma GCC unroll 8
                    for (int j = k + 1; j < N; ++j) a[b][i][j] -= m * a[b][k][j];
                }
        } else {
            #pragma GCC unroll 2
            for (int b = 0; b < B; ++b) {
                const V m = a[b][N - 1][k] / a[b][k][k];
                a[b][N - 1][k] = m;
                a[b][N - 1][N - 1] -= m * a[b][k][N - 1];
            }
        }
    }
    #pragma GCC unroll 2
    for (int b = 0; b < B; ++b) fail |= P::abs(a[b][N - 1][N - 1]) < Pivot<T>::fixed;
    if (P::any(fail)) return false;
    #pragma GCC unroll 2
    for (int b = 0; b < B; ++b) {
        T p[N][W];
        std::memcpy(p, pos[b], sizeof p);
        int* table = const_cast<int*>(c.idx) + std::ptrdiff_t(first + b * W) * N;
        if constexpr (W % 4 == 0) {
            // the positions as 32-bit integers in lanes, stored by the
            // transposes of the float rows
            using PF = Pack<float, W>;
            typedef std::int32_t IV __attribute__((vector_size(W * 4)));
            typename PF::V t[N];
            #pragma GCC unroll 8
            for (int i = 0; i < N; ++i) t[i] = (typename PF::V)__builtin_convertvector(pos[b][i], IV);
            float* rows[W];
            #pragma GCC unroll 8
            for (int l = 0; l < W; ++l) rows[l] = reinterpret_cast<float*>(table + l * N);
            PF::template store_row<N>(rows, t);
        } else {
            #pragma GCC unroll 8
            for (int l = 0; l < W; ++l)
                #pragma GCC unroll 8
                for (int i = 0; i < N; ++i) table[l * N + i] = int(p[i][l]);
        }
        #pragma GCC unroll 8
        for (int i = 0; i < N; ++i) {
            T* rows[W];
            #pragma GCC unroll 8
            for (int l = 0; l < W; ++l) rows[l] = view_of<T, F, true>(c.dst[0], first + b * W + l, N).ptr(int(p[i][l]), 0);
            P::template store_row<N>(rows, a[b][i]);
        }
    }
    return true;
}

// Factor rows through each lane's table, b gathered through it, the passes
// on lanes, x stored back: the scalar mava code on W objects.
template <class T, int W, int N, Form F, int B = 1>
ZEL_INLINE bool back_batch(const Call<T>& c, int first) {
    using P = Pack<T, W>;
    using V = typename P::V;
    V f[B][N][N], y[B][N];
    #pragma GCC unroll 2
    for (int b = 0; b < B; ++b) {
        const int* tab = c.idx + std::ptrdiff_t(first + b * W) * N;
        // No unroll pragma on this loop: g++ 12 under -fsanitize=thread fetches
        // b from the wrong rows when it is forced (the optimiser unrolls the
        // constant trip count by itself in the other builds).
        for (int i = 0; i < N; ++i) {
            const T* rows[W];
            #pragma GCC unroll 8
            for (int l = 0; l < W; ++l)
                rows[l] = view_of<T, F, true>(c.src[0], first + b * W + l, N).ptr(tab[l * N + i], 0);
            P::template load_row<N>(rows, f[b][i]);
            T bl[W];
            #pragma GCC unroll 8
            for (int l = 0; l < W; ++l)
                bl[l] = load(view_of<T, F, true>(c.src[1], first + b * W + l, 0).ptr(0, tab[l * N + i]));
            // (through a local vector: g++ 12 built a direct copy into
            // y[b][i] wrongly for AVX-512 under another loop around batches)
            V v;
            std::memcpy(&v, bl, sizeof v);
            y[b][i] = v;
        }
    }
    #pragma GCC unroll 8
    for (int i = 1; i < N; ++i)
        #pragma GCC unroll 8
        for (int j = 0; j < i; ++j)
            #pragma GCC unroll 2
            for (int b = 0; b < B; ++b) y[b][i] -= f[b][i][j] * y[b][j];
    #pragma GCC unroll 8
    for (int i = N - 1; i >= 0; --i)
        #pragma GCC unroll 2
        for (int b = 0; b < B; ++b) {
            V v = y[b][i];
            #pragma GCC unroll 8
            for (int j = i + 1; j < N; ++j) v -= f[b][i][j] * y[b][j];
            y[b][i] = v / f[b][i][i];
        }
    #pragma GCC unroll 2
    for (int b = 0; b < B; ++b) {
        T* rows[W];
        #pragma GCC unroll 8
        for (int l = 0; l < W; ++l) rows[l] = view_of<T, F, true>(c.dst[0], first + b * W + l, 0).ptr(0, 0);
        P::template store_row<N>(rows, y[b]);
    }
    return true;
}

struct Family {
    static constexpr int lo = kFixedLo, hi = kFixedHi;
    template <class T, int N, bool Decomp>
    static constexpr int batches = batches_of<T>(N, Decomp);
    template <int N>
    static constexpr int ahead = ahead_of(N);
    // B batches of W objects from object first
    template <class T, int W, int N, Form F, bool Decomp, int B = 1>
    static ZEL_INLINE bool batch(const Call<T>& c, int first) {
        if constexpr (Decomp) return decomp_batch<T, W, N, F, B>(c, first);
        else return back_batch<T, W, N, F, B>(c, first);
    }
};

}  // namespace zel::lu::lanes
