// Cholesky decomposition A = L L^T of symmetric positive definite matrices,
// and the back-substitution that reads it, in every storage form.
//
// Only the lower triangle is read or written; the stored factor holds L
// below the diagonal and 1 / L(i, i) on it, so that neither pass of the
// back-substitution divides. The 32f reciprocal square root is the SSE
// estimate refined by one Newton step, so no 32f kernel has a square root or
// a division; the 64f one is a division by the correctly rounded root.
// Radicand tests, store timing and the generic sums are in
// solvers/cholesky_table.hpp; several objects at once across vector lanes
// in solvers/cholesky_lanes.hpp.
#pragma once

#include <emmintrin.h>
#include <xmmintrin.h>

#include <string_view>

#include "frame/fanout.hpp"
#include "frame/view.hpp"
#include "solvers/cholesky_lanes.hpp"
#include "solvers/cholesky_table.hpp"
#include "solvers/triangular.hpp"

namespace zel::cholesky {

// r0 from the estimate instruction, then r = (r0 * -0.5) * (d * r0 * r0 - 3),
// all in 32 bits.
ZEL_INLINE float rsqrt(float d) {
    const float r0 = _mm_cvtss_f32(_mm_rsqrt_ss(_mm_set_ss(d)));
    return (r0 * -0.5f) * (d * r0 * r0 - 3.0f);
}
ZEL_INLINE double rsqrt(double d) {
    return 1.0 / _mm_cvtsd_f64(_mm_sqrt_sd(_mm_setzero_pd(), _mm_set_sd(d)));
}

// ---------------------------------------------------------------------------
// Decomposition, row by row. Off-diagonal F(i, j) = (A(i, j) - sum over k < j
// of F(i, k) F(j, k)) times the stored reciprocal F(j, j); the radicand
// d = A(i, i) - sum over k < i of F(i, k)^2 is tested before F(i, i) =
// rsqrt(d). Exact order N: the lower triangle read into local storage first,
// each sum by successive subtraction.
template <int N, Store S, class T, class VS, class VD>
ZEL_INLINE zelStatus decomp_fixed(const VS& src, const VD& dst, T bound) {
    T a[N][N];
    for (int i = 0; i < N; ++i)
        for (int j = 0; j <= i; ++j) a[i][j] = src.get(i, j);
    for (int i = 0; i < N; ++i) {
        for (int j = 0; j < i; ++j) {
            T t = a[i][j];
            for (int k = 0; k < j; ++k) t -= a[i][k] * a[j][k];
            a[i][j] = t * a[j][j];
            if constexpr (S == Store::AsComputed) store(dst.ptr(i, j), a[i][j]);
        }
        T d = a[i][i];
        for (int k = 0; k < i; ++k) d -= a[i][k] * a[i][k];
        if (d <= bound) return zelStsErrNotPosDefinite;
        a[i][i] = rsqrt(d);
        if constexpr (S == Store::AsComputed) {
            store(dst.ptr(i, i), a[i][i]);
        } else {
            for (int j = 0; j <= i; ++j) store(dst.ptr(i, j), a[i][j]);
        }
    }
    return zelStsOk;
}

// Any order: each element of the source read just before its factor element
// is written (so the source may be the destination), earlier factor elements
// read back from the destination, sums as kDecompSum says.
template <class T, class VS, class VD>
zelStatus decomp_generic(const VS& src, const VD& dst, int n, T bound) {
    for (int i = 0; i < n; ++i) {
        for (int j = 0; j < i; ++j) {
            const T t = tri::partial_sum<T>(kDecompSum, src.get(i, j), -1, j,
                                            [&](int k) { return dst.get(i, k) * dst.get(j, k); });
            store(dst.ptr(i, j), t * dst.get(j, j));
        }
        const T d = tri::partial_sum<T>(kDecompSum, src.get(i, i), -1, i, [&](int k) {
            const T f = dst.get(i, k);
            return f * f;
        });
        if (d <= bound) return zelStsErrNotPosDefinite;
        store(dst.ptr(i, i), rsqrt(d));
    }
    return zelStsOk;
}

// ---------------------------------------------------------------------------
// Back-substitution. Forward y(i) = (b(i) - sum over j < i of F(i, j) y(j))
// times F(i, i); backward x(i) = (y(i) - sum over j > i of F(j, i) x(j))
// times F(i, i), the factor read down its column. Exact order N: the lower
// triangle held locally (once per call for one matrix with many vectors),
// all of b read before the first store, successive subtraction in ascending
// j.
template <int N, class T>
struct Factor {
    T f[N][N];

    template <class VF>
    ZEL_INLINE void load(const VF& m, const Call<T>&, int) {
        for (int i = 0; i < N; ++i)
            for (int j = 0; j <= i; ++j) f[i][j] = m.get(i, j);
    }
    template <class VB, class VX>
    ZEL_INLINE void solve(const VB& b, const VX& x) const {
        T y[N];
        for (int i = 0; i < N; ++i) y[i] = b.get(0, i);
        for (int i = 0; i < N; ++i) {
            T v = y[i];
            for (int j = 0; j < i; ++j) v -= f[i][j] * y[j];
            y[i] = v * f[i][i];
        }
        for (int i = N - 1; i >= 0; --i) {
            T v = y[i];
            for (int j = i + 1; j < N; ++j) v -= f[j][i] * y[j];
            y[i] = v * f[i][i];
        }
        for (int i = 0; i < N; ++i) store(x.ptr(0, i), y[i]);
    }
};

// Any order: the destination is the working vector (b(i) read just before
// y(i) is written, so b may be the destination), each row's products summed
// apart and subtracted once.
template <class T, class VF, class VB, class VX>
void back_generic(const VF& m, const VB& b, const VX& x, int n) {
    for (int i = 0; i < n; ++i) {
        const T s = tri::partial_sum<T>(kBackSum, T(0), 1, i, [&](int j) { return m.get(i, j) * x.get(0, j); });
        store(x.ptr(0, i), (b.get(0, i) - s) * m.get(i, i));
    }
    for (int i = n - 1; i >= 0; --i) {
        const T s = tri::partial_sum<T>(kBackSum, T(0), 1, n - 1 - i,
                                        [&](int k) { return m.get(i + 1 + k, i) * x.get(0, i + 1 + k); });
        store(x.ptr(0, i), (x.get(0, i) - s) * m.get(i, i));
    }
}

// ---------------------------------------------------------------------------
// The family as the shared kernels see it (solvers/triangular.hpp).
struct Family {
    static constexpr int lo = kFixedLo, hi = kFixedHi;
    template <class T, Form F, bool Decomp>
    static int lanes_done(const Call<T>& c) {
        return tri::lanes::objects_done<lanes::Family, T, F, Decomp>(c);
    }
    template <int N, Kern K, class T, class VS, class VD>
    static ZEL_INLINE zelStatus decomp(const VS& src, const VD& dst, const Call<T>& c, int) {
        if constexpr (N == 0) return decomp_generic<T>(src, dst, c.widthHeight, radicand_bound<T>(K, c.widthHeight));
        else return decomp_fixed<N, store_of(K, true), T>(src, dst, radicand_bound<T>(K, N));
    }
    template <int N, Str, class T>
    using Solver = Factor<N, T>;
    template <class T, class VF, class VB, class VX>
    static ZEL_INLINE void solve_generic(const VF& m, const Call<T>&, int, const VB& b, const VX& x, int n) {
        back_generic<T>(m, b, x, n);
    }
};

// ---------------------------------------------------------------------------
// The entry of every CholeskyDecomp and CholeskyBackSubst export.
template <Op O, Str Sig, class T, Str FS>
zelStatus entry(Call<T>& c) {
    static_assert(O == Op::CholeskyDecomp || O == Op::CholeskyBackSubst);
    return tri::enter<Family, false, Sig, T, form_of<FS>(), kLimits>(c);
}

}  // namespace zel::cholesky
