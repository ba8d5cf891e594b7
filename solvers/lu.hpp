// LU decomposition with partial pivoting, and the back-substitution that
// reads its packed factors, in every storage form.
//
// Rows are never moved: the pivot table p says that destination row p[k]
// holds factor row k (multipliers L(k, j) left of the diagonal, U(k, j) from
// it on). The exact orders 3 to 6 factor a local copy with the table as row
// index and a direct division at the last stage; the generic path eliminates
// in the destination. Thresholds, store timing and the use of reciprocals
// are in solvers/lu_table.hpp; several objects at once across vector lanes
// in solvers/lu_lanes.hpp.
#pragma once

#include <string_view>
#include <utility>

#include "frame/fanout.hpp"
#include "frame/view.hpp"
#include "solvers/lu_lanes.hpp"
#include "solvers/lu_table.hpp"
#include "solvers/triangular.hpp"

namespace zel::lu {

template <class T>
ZEL_INLINE T mag(T x) {
    return __builtin_fabs(x);
}

// ---------------------------------------------------------------------------
// Decomposition, exact order N. The search over table positions k..N-1 keeps
// the first maximum (a later candidate must be strictly greater); the table
// exchange comes before the test. Stages below N-2 multiply by one
// reciprocal of the pivot, stage N-2 divides its single multiplier. (The
// 32-bit magnitudes compare exactly as in a wider type, so they compare in
// their own.) The table is written on every way out.
template <int N, Store S, class T, class VS, class VD>
ZEL_INLINE zelStatus decomp_fixed(const VS& src, const VD& dst, int* table) {
    T a[N][N];
    for (int r = 0; r < N; ++r)
        for (int c = 0; c < N; ++c) a[r][c] = src.get(r, c);
    int p[N];
    for (int k = 0; k < N; ++k) p[k] = k;
    auto store_row = [&](int r) {
        for (int c = 0; c < N; ++c) store(dst.ptr(r, c), a[r][c]);
    };
    auto finish = [&](zelStatus st) {
        for (int k = 0; k < N; ++k) table[k] = p[k];
        return st;
    };
    for (int k = 0; k < N - 1; ++k) {
        int best = k;
        T big = mag(a[p[k]][k]);
        for (int i = k + 1; i < N; ++i) {
            const T m = mag(a[p[i]][k]);
            if (m > big) big = m, best = i;
        }
        std::swap(p[k], p[best]);
        if (big < Pivot<T>::fixed) return finish(zelStsErrSingular);
        const int pk = p[k];
        if (k < N - 2) {
            const T r = T(1) / a[pk][k];
            for (int i = k + 1; i < N; ++i) {
                T* row = a[p[i]];
                const T m = row[k] * r;
                row[k] = m;
                for (int j = k + 1; j < N; ++j) row[j] -= m * a[pk][j];
            }
        } else {
            T* row = a[p[N - 1]];
            const T m = row[k] / a[pk][k];
            row[k] = m;
            row[N - 1] -= m * a[pk][N - 1];
        }
        if constexpr (S == Store::AsFinished) store_row(pk);
    }
    if (mag(a[p[N - 1]][N - 1]) < Pivot<T>::fixed) return finish(zelStsErrSingular);
    if constexpr (S == Store::AsFinished) {
        store_row(p[N - 1]);
    } else {
        for (int r = 0; r < N; ++r) store_row(r);
    }
    return finish(zelStsOk);
}

// Decomposition, any order, in the destination: the table starts as the
// identity, the source is copied whole, and each stage tests its pivot
// before the exchange and scales the multipliers by one reciprocal.
template <class T, class VS, class VD>
zelStatus decomp_generic(const VS& src, const VD& dst, int* p, int n) {
    for (int k = 0; k < n; ++k) p[k] = k;
    for (int r = 0; r < n; ++r)
        for (int c = 0; c < n; ++c) store(dst.ptr(r, c), src.get(r, c));
    for (int k = 0; k + 1 < n; ++k) {
        int best = k;
        T big = mag(dst.get(p[k], k));
        for (int i = k + 1; i < n; ++i) {
            const T m = mag(dst.get(p[i], k));
            if (m > big) big = m, best = i;
        }
        if (big <= Pivot<T>::generic) return zelStsErrSingular;
        if (best != k) std::swap(p[k], p[best]);
        const int pk = p[k];
        const T r = T(1) / dst.get(pk, k);
        for (int i = k + 1; i < n; ++i) {
            T* e = dst.ptr(p[i], k);
            store(e, load(e) * r);
        }
        for (int i = k + 1; i < n; ++i) {
            const int pi = p[i];
            const T m = dst.get(pi, k);
            for (int j = k + 1; j < n; ++j) {
                T* e = dst.ptr(pi, j);
                store(e, load(e) - m * dst.get(pk, j));
            }
        }
    }
    return mag(dst.get(p[n - 1], n - 1)) <= Pivot<T>::generic ? zelStsErrSingular : zelStsOk;
}

// ---------------------------------------------------------------------------
// Back-substitution, exact order N: the factor rows gathered through the
// table, all of b read before the first store, each pass by successive
// subtraction of its products in ascending column order; the diagonal by
// division or by the reciprocals taken once.
template <int N, class T, Diag D>
struct Factors {
    T f[N][N];  // factor row i, from stored row p[i]
    T rd[N];    // 1 / U(i, i), where the reciprocals are used
    int p[N];

    template <class VF>
    ZEL_INLINE void load(const VF& m, const Call<T>& c, int o) {
        for (int i = 0; i < N; ++i) p[i] = c.idx[std::ptrdiff_t(o) * N + i];
        for (int i = 0; i < N; ++i)
            for (int j = 0; j < N; ++j) f[i][j] = m.get(p[i], j);
        if constexpr (D == Diag::Reciprocal)
            for (int i = 0; i < N; ++i) rd[i] = T(1) / f[i][i];
    }
    template <class VB, class VX>
    ZEL_INLINE void solve(const VB& b, const VX& x) const {
        T y[N];
        for (int i = 0; i < N; ++i) y[i] = b.get(0, p[i]);
        for (int i = 1; i < N; ++i)
            for (int j = 0; j < i; ++j) y[i] -= f[i][j] * y[j];
        for (int i = N - 1; i >= 0; --i) {
            T v = y[i];
            for (int j = i + 1; j < N; ++j) v -= f[i][j] * y[j];
            y[i] = D == Diag::Divide ? v / f[i][i] : v * rd[i];
        }
        for (int i = 0; i < N; ++i) store(x.ptr(0, i), y[i]);
    }
};

// Back-substitution, any order: the destination is the working vector, y
// written into it and x over y from the last element to the first; each
// row's products summed apart and subtracted once; a division per element.
template <class T, class VF, class VB, class VX>
void back_generic(const VF& m, const int* p, const VB& b, const VX& x, int n) {
    for (int i = 0; i < n; ++i) {
        const int pi = p[i];
        const T s = tri::partial_sum<T>(kBackSum, T(0), 1, i, [&](int j) { return m.get(pi, j) * x.get(0, j); });
        store(x.ptr(0, i), b.get(0, pi) - s);
    }
    for (int i = n - 1; i >= 0; --i) {
        const int pi = p[i];
        const T s = tri::partial_sum<T>(kBackSum, T(0), 1, n - 1 - i,
                                        [&](int k) { return m.get(pi, i + 1 + k) * x.get(0, i + 1 + k); });
        store(x.ptr(0, i), (x.get(0, i) - s) / m.get(pi, i));
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
    static ZEL_INLINE zelStatus decomp(const VS& src, const VD& dst, const Call<T>& c, int o) {
        int* table = const_cast<int*>(c.idx) + std::ptrdiff_t(o) * c.widthHeight;  // the decomposition's output
        if constexpr (N == 0) return decomp_generic<T>(src, dst, table, c.widthHeight);
        else return decomp_fixed<N, store_of(K), T>(src, dst, table);
    }
    template <int N, Str Sig, class T>
    using Solver = Factors<N, T, diag_of(Sig.s, true)>;
    template <class T, class VF, class VB, class VX>
    static ZEL_INLINE void solve_generic(const VF& m, const Call<T>& c, int o, const VB& b, const VX& x, int n) {
        back_generic<T>(m, c.idx + std::ptrdiff_t(o) * n, b, x, n);
    }
};

// ---------------------------------------------------------------------------
// The entry of every LUDecomp and LUBackSubst export.
template <Op O, Str Sig, class T, Str FS>
zelStatus entry(Call<T>& c) {
    static_assert(O == Op::LUDecomp || O == Op::LUBackSubst);
    return tri::enter<Family, true, Sig, T, form_of<FS>(), kLimits>(c);
}

}  // namespace zel::lu
