// Symmetric eigenproblem: EigenValuesSym and EigenValuesVectorsSym, one matrix
// or an array, every storage form.
//
// Orders 1 and 2 have closed forms. From order 3 on the source is copied into
// the caller's buffer, reduced there to tridiagonal form by Householder
// reflections (the compact result block holds the Householder vector
// meanwhile) and diagonalised by implicit-shift QL, ascending or descending as
// the ends of the diagonal say; the eigenvalues are then sorted descending.
// One algorithm serves all orders: the orders 3 to 6 are its instantiations
// with the order known at compile time, and accumulate the eigenvectors in a
// local matrix that goes to the destination at every exit; other orders work
// on the destination itself. The kernels of the storage forms differ only in
// how they read the source and write the eigenvectors. What differs between
// the families (reflections passed over, scalar width, where the product is
// tested) is in eigen/eigensym_table.hpp.
#pragma once

#include <cmath>
#include <cstdint>
#include <cstring>
#include <type_traits>

#include "eigen/eigensym_table.hpp"
#include "frame/fanout.hpp"

namespace zel::eigensym {

// ---------------------------------------------------------------------------
// One object of an operand: regular in memory (standard and list forms; Unit:
// the element stride is the element size), or a table of element pointers
// with an offset (pointer form).
template <class T, Form F, bool Unit>
struct Obj {
    const char* base;
    std::ptrdiff_t s1, s2;
    const void* const* tab;
    std::ptrdiff_t off;
    int n;
    ZEL_INLINE T* ptr(int r, int c) const {
        if constexpr (F == Form::P) {
            return byte_add<T>(tab[std::ptrdiff_t(r) * n + c], off);
        } else {
            const std::ptrdiff_t step = Unit ? std::ptrdiff_t(sizeof(T)) : s2;
            return byte_add<T>(base, std::ptrdiff_t(r) * s1 + std::ptrdiff_t(c) * step);
        }
    }
    ZEL_INLINE T get(int r, int c) const { return load(ptr(r, c)); }
    ZEL_INLINE void set(int r, int c, T v) const { store(ptr(r, c), v); }
};

template <class T, Form F, bool Unit>
ZEL_INLINE Obj<T, F, Unit> obj_of(const Opd& o, int k, int n) {
    Obj<T, F, Unit> v{};
    if constexpr (F == Form::S) {
        v.base = static_cast<const char*>(o.p) + std::ptrdiff_t(k) * o.s0;
    } else if constexpr (F == Form::L) {
        v.base = static_cast<const char*>(static_cast<const void* const*>(o.p)[k]) + o.shift;
    } else {
        v.tab = static_cast<const void* const*>(o.p);
        v.off = std::ptrdiff_t(o.shift) + std::ptrdiff_t(k) * o.s0;
    }
    v.s1 = o.s1;
    v.s2 = o.s2;
    v.n = n;
    return v;
}

// The eigenvector matrix of the orders 3 to 6, kept dense on the stack.
template <class T, int N>
struct Dense {
    T m[N * N];
    ZEL_INLINE T get(int r, int c) const { return m[r * N + c]; }
    ZEL_INLINE void set(int r, int c, T v) { m[r * N + c] = v; }
};

// The values family has no eigenvector matrix.
struct NoVectors {};

// ---------------------------------------------------------------------------
// Sums (eigen/eigensym_table.hpp has the orders). term(t) is term t of the
// walk, in the scalar type; a walk has at least two terms.
template <class S, class Term>
ZEL_INLINE S even_odd_sum(int len, Term term) {
    S even = term(0), odd = term(1);
    for (int t = 2; t < len; t += 2) {
        even += term(t);
        if (t + 1 < len) odd += term(t + 1);
    }
    return even + odd;
}

template <class S, class T>
ZEL_INLINE S row_dot(const T* x, const T* y, int len, bool lanes) {
    if (lanes) {
        constexpr int Ln = 16 / int(sizeof(S));
        S acc[Ln];
        for (int k = 0; k < Ln; ++k) acc[k] = S(x[k]) * S(y[k]);
        int t = Ln;
        for (; t + Ln <= len; t += Ln)
            for (int k = 0; k < Ln; ++k) acc[k] += S(x[t + k]) * S(y[t + k]);
        S s;
        if constexpr (Ln == 4) s = (acc[0] + acc[2]) + (acc[1] + acc[3]);
        else s = acc[0] + acc[1];
        for (; t < len; ++t) s += S(x[t]) * S(y[t]);
        return s;
    }
    S s = S(x[0]) * S(y[0]);
    for (int t = 1; t < len; ++t) s += S(x[t]) * S(y[t]);
    return s;
}

// Whether [p, p + a) and [q, q + b) (in elements) share memory.
template <class T>
ZEL_INLINE bool overlap(const T* p, int a, const T* q, int b) {
    const auto x = reinterpret_cast<std::uintptr_t>(p), y = reinterpret_cast<std::uintptr_t>(q);
    return x < y + std::uintptr_t(b) * sizeof(T) && y < x + std::uintptr_t(a) * sizeof(T);
}

// ---------------------------------------------------------------------------
// Order 3 and up, one object whose source already stands in `a` (row pitch
// n). `vals` is the object's block of results, which holds the Householder
// vector u during the reduction. `v` is the eigenvector matrix. N is the
// order where it is known at compile time, else 0.
template <class T, Rules R, int N, class VM>
zelStatus solve(T* a, T* vals, VM& v, int n_rt) {
    using S = std::conditional_t<R.wide, double, T>;
    constexpr S eps = S(kEps<T>);
    constexpr S peps = S(R.product_eps32 ? kEps32 : kEps<T>);
    const int n = N ? N : n_rt;
    auto A = [a, n](int i, int j) -> T& { return a[i * n + j]; };
    auto get = [&](int i, int j) { return S(A(i, j)); };
    T* const u = vals;

    if constexpr (R.vectors)
        for (int r = 0; r < n; ++r)
            for (int c = 0; c < n; ++c) v.set(r, c, T(r == c ? 1 : 0));

    // Reduction to tridiagonal form: H = I - beta u u^T clears column k below
    // the subdiagonal; A := H A H over rows and columns k to n - 1.
    for (int k = 0; k + 2 < n; ++k) {
        const int len = n - k - 1;
        const S sigma = even_odd_sum<S>(len, [&](int t) { const S x = get(k + 1 + t, k); return x * x; });
        const S alpha = std::sqrt(sigma);
        const S x = get(k + 1, k);
        for (int i = k + 2; i < n; ++i) u[i] = A(i, k);
        if constexpr (R.pass_sigma)
            if (sigma <= eps) continue;
        if constexpr (R.pass_x_alpha)
            if (std::abs(x - alpha) <= eps) continue;
        S h;
        if (x > eps) {
            u[k + 1] = T(x + alpha);
            h = 2 * (sigma + x * alpha);
        } else if (std::abs(x) <= eps) {
            u[k + 1] = T(alpha);
            h = 2 * sigma;
        } else {
            u[k + 1] = T(x - alpha);
            h = 2 * (sigma - x * alpha);
        }
        if (h <= eps) continue;
        const S beta = 2 / h;
        // from the left, column by column
        for (int j = k; j < n; ++j) {
            const S w = beta * even_odd_sum<S>(len, [&](int t) { return get(k + 1 + t, j) * S(u[k + 1 + t]); });
            for (int i = k + 1; i < n; ++i) A(i, j) = T(get(i, j) - w * S(u[i]));
        }
        // from the right, row by row
        const bool lanes = len >= kLaneRun && !overlap(&A(k, 0), (n - k) * n, u + k + 1, len);
        for (int i = k; i < n; ++i) {
            const S w = beta * row_dot<S>(&A(i, k + 1), u + k + 1, len, lanes);
            for (int j = k + 1; j < n; ++j) A(i, j) = T(get(i, j) - w * S(u[j]));
        }
        if constexpr (R.vectors) {
            if (k == 0) {
                // V = H: row and column 0 stay those of the identity
                for (int i = 1; i < n; ++i)
                    for (int j = 1; j < n; ++j) {
                        const S bu = (i == j ? beta : -beta) * S(u[i]);
                        v.set(i, j, T(i == j ? 1 - bu * S(u[j]) : bu * S(u[j])));
                    }
            } else {
                // V := V H; row 0 stays (1, 0, ..., 0)
                for (int r = 1; r < n; ++r) {
                    S s = S(v.get(r, k + 1)) * S(u[k + 1]);
                    for (int j = k + 2; j < n; ++j) s += S(v.get(r, j)) * S(u[j]);
                    const S w = beta * s;
                    for (int j = k + 1; j < n; ++j) v.set(r, j, T(S(v.get(r, j)) - w * S(u[j])));
                }
            }
        }
    }

    // Implicit-shift QL on the diagonal a[i][i] and subdiagonal a[i+1][i],
    // from the end whose diagonal entry is the smaller in magnitude.
    const S half = S(0.5);
    if (std::abs(get(n - 1, n - 1)) > std::abs(get(0, 0))) {
        for (int l = 0; l < n; ++l) {
            for (int sweep = 0;; ++sweep) {
                int m = l;
                while (m < n - 1 && half * std::abs(get(m + 1, m)) > eps) ++m;
                if (m == l) break;
                if (sweep == kSweeps) return zelStsErrNoConvergence;
                const S el = get(l + 1, l);
                const S g0 = (get(l + 1, l + 1) - get(l, l)) / (2 * el);
                const S q = std::sqrt(g0 * g0 + 1);
                S g = get(m, m) - get(l, l) + el / (g0 > eps ? g0 + q : g0 - q);
                S s = 1, c = 1, p = 0;
                bool cut = false;
                for (int i = m - 1; i >= l; --i) {
                    const S e = get(i + 1, i);
                    const S f = s * e, b = c * e;
                    const S r = std::sqrt(f * f + g * g);
                    if (i != m - 1) A(i + 2, i + 1) = T(r);
                    if (std::abs(r) <= eps) {
                        A(i + 1, i + 1) = T(get(i + 1, i + 1) - p);
                        cut = true;
                        break;
                    }
                    s = f / r;
                    c = g / r;
                    if constexpr (R.vectors)
                        for (int row = 0; row < n; ++row) {
                            const S vx = v.get(row, i), vy = v.get(row, i + 1);
                            v.set(row, i, T(c * vx - s * vy));
                            v.set(row, i + 1, T(s * vx + c * vy));
                        }
                    const S t = get(i + 1, i + 1) - p;
                    const S w = (get(i, i) - t) * s + 2 * c * b;
                    p = w * s;
                    A(i + 1, i + 1) = T(t + p);
                    g = w * c - b;
                }
                if (!cut) {
                    A(l, l) = T(get(l, l) - p);
                    A(l + 1, l) = T(g);
                }
            }
        }
    } else {
        for (int l = n - 1; l >= 0; --l) {
            for (int sweep = 0;; ++sweep) {
                int m = l;
                while (m > 0 && half * std::abs(get(m, m - 1)) > eps) --m;
                if (m == l) break;
                if (sweep == kSweeps) return zelStsErrNoConvergence;
                const S el = get(l, l - 1);
                const S g0 = (get(l - 1, l - 1) - get(l, l)) / (2 * el);
                const S q = std::sqrt(g0 * g0 + 1);
                S g = get(m, m) - get(l, l) + el / (g0 > eps ? g0 + q : g0 - q);
                S s = 1, c = 1, p = 0;
                bool cut = false;
                for (int i = m; i < l; ++i) {
                    const S e = get(i + 1, i);
                    const S f = s * e, b = c * e;
                    const S r = std::sqrt(f * f + g * g);
                    if (i != m) A(i, i - 1) = T(r);
                    if (std::abs(r) <= eps) {
                        A(i, i) = T(get(i, i) - p);
                        cut = true;
                        break;
                    }
                    s = f / r;
                    c = g / r;
                    if constexpr (R.vectors)
                        for (int row = 0; row < n; ++row) {
                            const S vx = v.get(row, i), vy = v.get(row, i + 1);
                            v.set(row, i, T(c * vx + s * vy));
                            v.set(row, i + 1, T(c * vy - s * vx));
                        }
                    const S t = get(i, i) - p;
                    const S w = (get(i + 1, i + 1) - t) * s + 2 * c * b;
                    p = w * s;
                    A(i, i) = T(t + p);
                    g = w * c - b;
                }
                if (!cut) {
                    A(l, l - 1) = T(g);
                    A(l, l) = T(get(l, l) - p);
                }
            }
        }
    }

    // The diagonal is the spectrum. A matrix whose eigenvalue product is
    // negligible is reported singular, with its results in place.
    for (int i = 0; i < n; ++i) vals[i] = A(i, i);
    auto singular = [&] {
        S prod = S(vals[0]);
        for (int i = 1; i < n; ++i) prod *= S(vals[i]);
        return std::abs(prod) <= peps;
    };
    if constexpr (!R.test_after_sort)
        if (singular()) return zelStsErrSingular;
    // Selection sort, descending; the first maximum wins.
    for (int i = 0; i + 1 < n; ++i) {
        int j = i;
        for (int k = i + 1; k < n; ++k)
            if (vals[k] > vals[j]) j = k;
        if (j == i) continue;
        const T x = vals[i];
        vals[i] = vals[j];
        vals[j] = x;
        if constexpr (R.vectors)
            for (int r = 0; r < n; ++r) {
                const T y = v.get(r, i);
                v.set(r, i, v.get(r, j));
                v.set(r, j, y);
            }
    }
    if constexpr (R.test_after_sort)
        if (singular()) return zelStsErrSingular;
    return zelStsOk;
}

// ---------------------------------------------------------------------------
// Order 2: the closed form on a = (0,0), b = (0,1), c = (1,1), in T. ev0 is
// the eigenvalue of larger magnitude; (1,0) is not read.
template <class T, bool Vectors, class VO>
ZEL_INLINE zelStatus order2(const T* a2, T* vals, const VO& vo) {
    constexpr T eps = T(kEps<T>);
    const T a = a2[0], b = a2[1], c = a2[3];
    const T det = c * a - b * b;
    if (std::abs(det) <= eps) return zelStsErrSingular;
    const T sm = a + c, df = a - c, tb = 2 * b;
    const T rt = std::sqrt(df * df + tb * tb);
    T ev0, ev1;
    int sgn1 = 1;
    if (sm > eps) {
        ev0 = T(0.5) * (sm + rt);
        ev1 = det / ev0;
    } else if (sm < -eps) {
        ev0 = T(0.5) * (sm - rt);
        ev1 = det / ev0;
        sgn1 = -1;
    } else {
        ev0 = T(0.5) * rt;
        ev1 = T(-0.5) * rt;
    }
    vals[0] = ev0;
    vals[1] = ev1;
    if constexpr (Vectors) {
        T cs;
        int sgn2 = 1;
        if (df >= eps) {
            cs = df + rt;
        } else if (df < -eps) {
            cs = df - rt;
            sgn2 = -1;
        } else {
            cs = df + rt;
        }
        T cs1, sn1;
        if (std::abs(cs) > std::abs(tb)) {
            const T ct = -tb / cs;
            sn1 = 1 / std::sqrt(1 + ct * ct);
            cs1 = ct * sn1;
        } else if (std::abs(tb) <= eps) {
            cs1 = 1;
            sn1 = 0;
        } else {
            const T tn = -cs / tb;
            cs1 = 1 / std::sqrt(1 + tn * tn);
            sn1 = tn * cs1;
        }
        if (sgn1 != sgn2) {
            vo.set(0, 0, cs1), vo.set(0, 1, -sn1);
            vo.set(1, 0, sn1), vo.set(1, 1, cs1);
        } else {
            vo.set(0, 0, -sn1), vo.set(0, 1, -cs1);
            vo.set(1, 0, cs1), vo.set(1, 1, -sn1);
        }
    }
    return zelStsOk;
}

// ---------------------------------------------------------------------------
// The kernel of one API function: the object loop, stopping at the first
// object that fails.
template <Op O, Str Sig, class T, Form F, bool Unit>
struct Kernel {
    static constexpr bool array = Sig.size() == 2;
    static constexpr Rules R = rules_of(O, std::string_view(Sig.s), sizeof(T) == 4 ? F32 : F64);
    using Src = Obj<T, F, Unit>;

    // The source into the buffer, row pitch n.
    static ZEL_INLINE void copy_in(const Src& s, T* a, int n) {
        if constexpr (F != Form::P && Unit) {
            if (n > kBulkRow<T>) {
                for (int i = 0; i < n; ++i) std::memcpy(a + std::ptrdiff_t(i) * n, s.ptr(i, 0), sizeof(T) * n);
                return;
            }
        }
        for (int i = 0; i < n; ++i)
            for (int j = 0; j < n; ++j) a[i * n + j] = s.get(i, j);
    }

    template <int N>
    static zelStatus objects(const Call<T>& c, int count, int n_rt) {
        const int n = N ? N : n_rt;
        for (int o = 0; o < count; ++o) {
            const Src s = obj_of<T, F, Unit>(c.src[0], o, n);
            T* const vals = c.out + std::ptrdiff_t(o) * n;
            zelStatus st;
            if constexpr (!R.vectors) {
                if constexpr (N == 1) {
                    vals[0] = s.get(0, 0);
                    st = zelStsOk;
                } else if constexpr (N == 2) {
                    copy_in(s, c.buf, 2);
                    st = order2<T, false>(c.buf, vals, NoVectors{});
                } else {
                    copy_in(s, c.buf, n);
                    NoVectors v;
                    st = solve<T, R, N>(c.buf, vals, v, n);
                }
            } else {
                const auto d = obj_of<T, F, Unit>(c.dst[0], o, n);
                if constexpr (N == 1) {
                    vals[0] = s.get(0, 0);
                    d.set(0, 0, T(1));
                    st = zelStsOk;
                } else if constexpr (N == 2) {
                    copy_in(s, c.buf, 2);
                    st = order2<T, true>(c.buf, vals, d);
                } else if constexpr (N == 0) {
                    copy_in(s, c.buf, n);
                    st = solve<T, R, 0>(c.buf, vals, d, n);
                } else {
                    copy_in(s, c.buf, N);
                    Dense<T, N> v;
                    st = solve<T, R, N>(c.buf, vals, v, N);
                    for (int i = 0; i < N; ++i)
                        for (int j = 0; j < N; ++j) d.set(i, j, v.get(i, j));
                }
            }
            if (st != zelStsOk) return st;
        }
        return zelStsOk;
    }

    static zelStatus run(const Call<T>& c) {
        const int count = array ? c.count : 1;
        switch (c.widthHeight) {
            case 1: return objects<1>(c, count, 1);
            case 2: return objects<2>(c, count, 2);
            case 3: return objects<3>(c, count, 3);
            case 4: return objects<4>(c, count, 4);
            case 5: return objects<5>(c, count, 5);
            case 6: return objects<6>(c, count, 6);
            default: return objects<0>(c, count, c.widthHeight);
        }
    }
};

// ---------------------------------------------------------------------------
// The entry of every export of the two families, behind its argument tests:
// the kernel by the stride test, on the calling thread or through the
// fan-out by the work estimate.
template <Op O, Str Sig, class T, Str FS>
zelStatus entry(Call<T>& c) {
    constexpr Form F = form_of<FS>();
    constexpr bool vectors = O == Op::EigenValuesVectorsSym;
    constexpr int esz = int(sizeof(T));
    bool unit = true;
    if constexpr (F != Form::P) unit = c.src[0].s2 == esz && (!vectors || c.dst[0].s2 == esz);
    auto run = [unit](const Call<T>& s) -> zelStatus {
        return unit ? Kernel<O, Sig, T, F, true>::run(s) : Kernel<O, Sig, T, F, false>::run(s);
    };
    if constexpr (!Kernel<O, Sig, T, F, true>::array) {
        return run(c);
    } else {
        const unsigned kern = F == Form::S ? (unit ? Std : S2) : F == Form::L ? (unit ? L : LS2) : P;
        const int n = c.widthHeight;
        if (estimate(O, n, c.count) <= limit_of(O, esz == 4 ? F32 : F64, kern)) return run(c);
        FanSpec fs{};
        fs.form = F;
        fs.src_arrays = 1u;
        fs.dst_arrays = vectors ? 1u : 0u;
        fs.out_per_object = n;
        fs.scratch_bytes = std::size_t(n) * std::size_t(n) * sizeof(T);
        fs.merge_status = true;
        return fan_out(c, fs, run);
    }
}

}  // namespace zel::eigensym
