// Symmetric eigenproblem: EigenValuesSym and EigenValuesVectorsSym, one matrix
// or an array, every storage form.
//
// Orders 1 and 2 have closed forms. From order 3 on the source is copied into
// the caller's buffer, reduced there to tridiagonal form by Householder
// reflections (the compact result block holds the Householder vector
// meanwhile) and diagonalised by implicit-shift QL, ascending or descending as
// the ends of the diagonal say; the eigenvalues are then sorted descending.
//
// One algorithm serves every order, family and kernel: core() below, written
// against a lane kit (eigen/lane_kit.hpp) and a store. Single objects
// and the orders from 7 on run it in scalars on the caller's buffer, result
// block and eigenvector destination; arrays of orders 3 to 6 run it on
// groups of objects in vector lanes, from a local copy of each object, and
// write every object's results (and the buffer's final state) back as the
// scalar run would have left them. The descending iteration is the ascending
// one on the tridiagonal read backwards (the same operations on the same
// numbers), so a matrix that iterates descending is reversed, iterated
// ascending and reversed back. The kernels of the storage forms differ only
// in how they read the source and write the eigenvectors. What differs
// between the families (reflections passed over, scalar width, where the
// product is tested) is in eigen/eigensym_table.hpp.
#pragma once

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <type_traits>

#include "eigen/lane_kit.hpp"
#include "eigen/eigensym_table.hpp"
#include "frame/cpu.hpp"
#include "frame/fanout.hpp"

// The lanes' vector types are passed only between always-inline functions;
// GCC still notes their ABI where the templates are instantiated, at the end
// of the including file, so the note stays off to its end.
#pragma GCC diagnostic ignored "-Wpsabi"

namespace zel::eigensym {

using kit::Isa;
using kit::One;
using kit::Pack;
using kit::stored;

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

// The eigenvector matrix of a single object of order 3 to 6, kept dense on
// the stack and stored to the destination at the end.
template <class T, int N>
struct Dense {
    T m[N * N];
    ZEL_INLINE T get(int r, int c) const { return m[r * N + c]; }
    ZEL_INLINE void set(int r, int c, T v) { m[r * N + c] = v; }
};
// The values family has no eigenvector matrix.
struct NoVectors {};

// ---------------------------------------------------------------------------
// Stores: where core() keeps the buffer matrix a, the Householder vector u
// and the eigenvectors V. Reads give the scalar type, writes round to T and
// take a mask (lanes whose object writes).

// One object: the caller's buffer (row pitch n) and result block, V where
// the kernel keeps it.
template <class T, class S, int N, class VM>
struct BufStore {
    Loose<T>* buf;
    Loose<T>* uu;
    VM* vv;
    int n_;
    ZEL_INLINE int n() const { return N ? N : n_; }
    ZEL_INLINE S a(int i, int j) const { return S(buf[i * n() + j]); }
    ZEL_INLINE void a(int i, int j, S x, bool m) {
        if (m) buf[i * n() + j] = T(x);
    }
    ZEL_INLINE S u(int i) const { return S(uu[i]); }
    ZEL_INLINE void u(int i, S x, bool m) {
        if (m) uu[i] = T(x);
    }
    ZEL_INLINE S v(int r, int c) const { return S(vv->get(r, c)); }
    ZEL_INLINE void v(int r, int c, S x, bool m) {
        if (m) vv->set(r, c, T(x));
    }
    // Whether the inner products along buffer rows k.. run in lanes.
    ZEL_INLINE bool row_lanes(int k, int len) const {
        if (len < kLaneRun) return false;
        const auto x = reinterpret_cast<std::uintptr_t>(buf + k * n()), y = reinterpret_cast<std::uintptr_t>(uu + k + 1);
        const auto xe = x + std::uintptr_t(n() - k) * n() * sizeof(T), ye = y + std::uintptr_t(len) * sizeof(T);
        return xe <= y || ye <= x;
    }
};

// K::W objects of order N in lanes.
template <class T, class K, int N>
struct LaneStore {
    using V = typename K::V;
    using M = typename K::M;
    V am[N * N], um[N], vm[N * N];
    static ZEL_INLINE void put(V& d, V x, M m) { d = m ? stored<T, K>(x) : d; }
    ZEL_INLINE V a(int i, int j) const { return am[i * N + j]; }
    ZEL_INLINE void a(int i, int j, V x, M m) { put(am[i * N + j], x, m); }
    ZEL_INLINE V u(int i) const { return um[i]; }
    ZEL_INLINE void u(int i, V x, M m) { put(um[i], x, m); }
    ZEL_INLINE V v(int r, int c) const { return vm[r * N + c]; }
    ZEL_INLINE void v(int r, int c, V x, M m) { put(vm[r * N + c], x, m); }
    ZEL_INLINE bool row_lanes(int, int) const { return false; }  // rows of up to 5 terms
};

// ---------------------------------------------------------------------------
// Sums (eigen/eigensym_table.hpp has the orders). term(t) is term t of the
// walk; a walk has at least two terms.
template <class V, class Term>
ZEL_INLINE V even_odd_sum(int len, Term term) {
    V even = term(0), odd = term(1);
    for (int t = 2; t < len; t += 2) {
        even += term(t);
        if (t + 1 < len) odd += term(t + 1);
    }
    return even + odd;
}

template <class V, class S, class Term>
ZEL_INLINE V row_sum(int len, bool lanes, Term term) {
    if (lanes) {
        constexpr int Ln = 16 / int(sizeof(S));
        V acc[Ln];
        for (int k = 0; k < Ln; ++k) acc[k] = term(k);
        int t = Ln;
        for (; t + Ln <= len; t += Ln)
            for (int k = 0; k < Ln; ++k) acc[k] += term(t + k);
        V s;
        if constexpr (Ln == 4) s = (acc[0] + acc[2]) + (acc[1] + acc[3]);
        else s = acc[0] + acc[1];
        for (; t < len; ++t) s += term(t);
        return s;
    }
    V s = term(0);
    for (int t = 1; t < len; ++t) s += term(t);
    return s;
}

// ---------------------------------------------------------------------------
// Householder reduction to tridiagonal form: for k = 0 .. n-3, H = I - beta
// u u^T clears column k below the subdiagonal; A := H A H on rows and columns
// k to n-1, columns first; V := V H.
template <class T, Rules R, class K, int N, class St>
ZEL_INLINE void reduce(St& st, int n) {
    using V = typename K::V;
    using M = typename K::M;
    using S = typename K::S;
    constexpr S eps = S(kEps<T>);
    const M all = K::all();
    if constexpr (R.vectors)
        for (int r = 0; r < n; ++r)
            for (int c = 0; c < n; ++c) st.v(r, c, K::splat(S(r == c ? 1 : 0)), all);

    for (int k = 0; k + 2 < n; ++k) {
        const int len = n - k - 1;
        const V sigma = even_odd_sum<V>(len, [&](int t) ZEL_LAMBDA_INLINE {
            const V x = st.a(k + 1 + t, k);
            return x * x;
        });
        const V alpha = K::sqrt(sigma);
        const V x = st.a(k + 1, k);
        for (int i = k + 2; i < n; ++i) st.u(i, st.a(i, k), all);
        M skip = K::none();
        if constexpr (R.pass_sigma) skip = sigma <= eps;
        if constexpr (R.pass_x_alpha) skip = skip || (K::abs(x - alpha) <= eps);
        const M pos = x > eps, small = K::abs(x) <= eps;
        st.u(k + 1, pos ? x + alpha : small ? alpha : x - alpha, !skip);
        const V h = pos ? S(2) * (sigma + x * alpha) : small ? S(2) * sigma : S(2) * (sigma - x * alpha);
        const M go = !skip && !(h <= eps);
        if (!K::any(go)) continue;
        const V beta = S(2) / h;
        // from the left, column by column
        for (int j = k; j < n; ++j) {
            const V w =
                beta * even_odd_sum<V>(len, [&](int t) ZEL_LAMBDA_INLINE { return st.a(k + 1 + t, j) * st.u(k + 1 + t); });
            for (int i = k + 1; i < n; ++i) st.a(i, j, st.a(i, j) - w * st.u(i), go);
        }
        // from the right, row by row
        const bool lanes = st.row_lanes(k, len);
        for (int i = k; i < n; ++i) {
            const V w =
                beta * row_sum<V, S>(len, lanes, [&](int t) ZEL_LAMBDA_INLINE { return st.a(i, k + 1 + t) * st.u(k + 1 + t); });
            for (int j = k + 1; j < n; ++j) st.a(i, j, st.a(i, j) - w * st.u(j), go);
        }
        if constexpr (R.vectors) {
            if (k == 0) {
                // V = H: row and column 0 stay those of the identity
                for (int i = 1; i < n; ++i)
                    for (int j = 1; j < n; ++j) {
                        const V bu = (i == j ? beta : -beta) * st.u(i);
                        st.v(i, j, i == j ? S(1) - bu * st.u(j) : bu * st.u(j), go);
                    }
            } else {
                // V := V H; row 0 stays (1, 0, ..., 0)
                for (int r = 1; r < n; ++r) {
                    V s = st.v(r, k + 1) * st.u(k + 1);
                    for (int j = k + 2; j < n; ++j) s += st.v(r, j) * st.u(j);
                    const V w = beta * s;
                    for (int j = k + 1; j < n; ++j) st.v(r, j, st.v(r, j) - w * st.u(j), go);
                }
            }
        }
    }
}

// Reverses the tridiagonal (diagonal a[i][i], subdiagonal a[i+1][i]) and the
// columns of V in the lanes of m.
template <bool Vectors, class K, class St>
ZEL_INLINE void reverse(St& st, int n, typename K::M m) {
    if (!K::any(m)) return;
    for (int i = 0, j = n - 1; i < j; ++i, --j) {
        const auto x = st.a(i, i), y = st.a(j, j);
        st.a(i, i, y, m);
        st.a(j, j, x, m);
    }
    for (int i = 0, j = n - 2; i < j; ++i, --j) {
        const auto x = st.a(i + 1, i), y = st.a(j + 1, j);
        st.a(i + 1, i, y, m);
        st.a(j + 1, j, x, m);
    }
    if constexpr (Vectors)
        for (int r = 0; r < n; ++r)
            for (int i = 0, j = n - 1; i < j; ++i, --j) {
                const auto x = st.v(r, i), y = st.v(r, j);
                st.v(r, i, y, m);
                st.v(r, j, x, m);
            }
}

// Implicit-shift QL, ascending: for l = 0 .. n-1, sweeps until the
// subdiagonal entry below l is negligible (half its magnitude <= eps,
// absolute), at most kSweeps per l. Returns the lanes that ran out of sweeps;
// their state is as at that moment.
template <class T, Rules R, class K, class St>
ZEL_INLINE typename K::M ql(St& st, int n) {
    using V = typename K::V;
    using M = typename K::M;
    using S = typename K::S;
    constexpr S eps = S(kEps<T>);
    const V zero = K::splat(S(0)), one = K::splat(S(1));
    auto d = [&](int i) ZEL_LAMBDA_INLINE { return st.a(i, i); };
    auto e = [&](int i) ZEL_LAMBDA_INLINE { return st.a(i + 1, i); };
    // entry x (lane by lane) of d or e, of `len` entries
    auto pick = [&](auto get, V x, int len) ZEL_LAMBDA_INLINE -> V {
        if constexpr (K::W == 1) {
            return get(int(x));
        } else {
            V r = get(0);
            for (int j = 1; j < len; ++j) r = (x == S(j)) ? get(j) : r;
            return r;
        }
    };
    // the first m >= l with a negligible e[m], or n - 1
    auto scan = [&](V l) ZEL_LAMBDA_INLINE -> V {
        if constexpr (K::W == 1) {
            int m = int(l);
            while (m < n - 1 && S(0.5) * K::abs(e(m)) > eps) ++m;
            return V(m);
        } else {
            V m = K::splat(S(n - 1));
            for (int j = n - 2; j >= 0; --j) m = (!(S(0.5) * K::abs(e(j)) > eps) && l <= S(j)) ? K::splat(S(j)) : m;
            return m;
        }
    };

    V l = zero, sweeps = zero;
    M live = K::all(), failed = K::none();
    for (;;) {
        V m;
        for (;;) {  // move on past converged eigenvalues
            m = scan(l);
            const M next = live && (m == l);
            if (!K::any(next)) break;
            l = next ? l + S(1) : l;
            sweeps = next ? zero : sweeps;
            live = live && (l < S(n));
        }
        if (!K::any(live)) break;
        const M over = live && (sweeps == S(kSweeps));
        failed = failed || over;
        live = live && !over;
        if (!K::any(live)) break;
        sweeps = live ? sweeps + S(1) : sweeps;

        // shift from the 2 x 2 block at l
        const V el = pick(e, l, n - 1), dl = pick(d, l, n);
        const V g0 = (pick(d, l + S(1), n) - dl) / (S(2) * el);
        const V q = K::sqrt(g0 * g0 + S(1));
        V g = pick(d, m, n) - dl + el / (g0 > eps ? g0 + q : g0 - q);
        V s = one, c = one, p = zero;

        // the chain of rotations from m - 1 down to l, lane by lane
        int hi = -1, lo = n;
        for (int k = 0; k < K::W; ++k)
            if (K::on(live, k)) {
                hi = std::max(hi, int(K::lane(m, k)) - 1);
                lo = std::min(lo, int(K::lane(l, k)));
            }
        M run = live;
        for (int i = hi; i >= lo; --i) {
            const S si = S(i);
            const M step = run && (si <= m - S(1)) && (si >= l);
            if (!K::any(step)) continue;
            const V ei = e(i);
            const V f = s * ei, b = c * ei;
            const V r = K::sqrt(f * f + g * g);
            if (i + 2 < n) st.a(i + 2, i + 1, r, step && (si != m - S(1)));
            const M cut = step && (K::abs(r) <= eps);
            if (K::any(cut)) st.a(i + 1, i + 1, d(i + 1) - p, cut);
            const M go = step && !cut;
            const V sn = f / r, cn = g / r;
            if constexpr (R.vectors)
                for (int row = 0; row < n; ++row) {
                    const V x = st.v(row, i), y = st.v(row, i + 1);
                    st.v(row, i, cn * x - sn * y, go);
                    st.v(row, i + 1, sn * x + cn * y, go);
                }
            const V t = d(i + 1) - p;
            const V w = (d(i) - t) * sn + S(2) * cn * b;
            const V pn = w * sn;
            st.a(i + 1, i + 1, t + pn, go);
            const V gn = w * cn - b;
            s = go ? sn : s;
            c = go ? cn : c;
            p = go ? pn : p;
            g = go ? gn : g;
            run = run && !cut;
            // the chain ran to its end: close it
            const M close = go && (si == l);
            if (K::any(close)) {
                st.a(i, i, d(i) - p, close);
                st.a(i + 1, i, g, close);
            }
        }
    }
    return failed;
}

// Order 3 and up on objects whose source stands in the store: reduction,
// direction, iteration. Returns the lanes that did not converge.
template <class T, Rules R, class K, int N, class St>
ZEL_INLINE typename K::M core(St& st, int n_rt) {
    const int n = N ? N : n_rt;
    reduce<T, R, K, N>(st, n);
    // descending (the iteration from the bottom) unless the last diagonal
    // entry is the larger in magnitude
    const auto desc = !(K::abs(st.a(n - 1, n - 1)) > K::abs(st.a(0, 0)));
    reverse<R.vectors, K>(st, n, desc);
    const auto failed = ql<T, R, K>(st, n);
    reverse<R.vectors, K>(st, n, desc);
    return failed;
}

// The eigenvalues from the diagonal, the product test and the descending
// selection sort (the first maximum wins), with the columns of V.
template <class T, Rules R, class VM>
zelStatus finish(Loose<T>* vals, VM& v, int n) {
    using S = std::conditional_t<R.wide, double, T>;
    constexpr S peps = S(R.product_eps32 ? kEps32 : kEps<T>);
    auto singular = [&] {
        S prod = S(vals[0]);
        for (int i = 1; i < n; ++i) prod *= S(vals[i]);
        return std::abs(prod) <= peps;
    };
    if constexpr (!R.test_after_sort)
        if (singular()) return zelStsErrSingular;
    for (int i = 0; i + 1 < n; ++i) {
        int j = i;
        for (int k = i + 1; k < n; ++k)
            if (vals[k] > vals[j]) j = k;
        if (j == i) continue;
        const T t = vals[i];
        vals[i] = vals[j];
        vals[j] = t;
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

// One object of order 3 and up whose source stands in buf.
template <class T, Rules R, int N, class VM>
zelStatus solve_one(Loose<T>* buf, Loose<T>* vals, VM& v, int n_rt) {
    using S = std::conditional_t<R.wide, double, T>;
    const int n = N ? N : n_rt;
    BufStore<T, S, N, VM> st{buf, vals, &v, n};
    if (core<T, R, One<S>, N>(st, n)) return zelStsErrNoConvergence;
    for (int i = 0; i < n; ++i) vals[i] = buf[i * n + i];
    return finish<T, R>(vals, v, n);
}

// Objects in lanes: the kit of a group for each instruction set, and the
// core on a group, returning the lanes that did not converge as bits.
template <class T, Rules R, Isa I>
using GroupKit = Pack<std::conditional_t<R.wide, double, T>, 32, I>;

template <class T, Rules R, Isa I, int N>
ZEL_INLINE unsigned group_core(LaneStore<T, GroupKit<T, R, I>, N>& st) {
    using K = GroupKit<T, R, I>;
    const auto failed = core<T, R, K, N>(st, N);
    unsigned bits = 0;
    for (int k = 0; k < K::W; ++k) bits |= unsigned(K::on(failed, k)) << k;
    return bits;
}
// The group built for AVX and for the AVX-512 encoding (for its 32
// registers), and for SSE2, which runs it in 128-bit halves.
template <class T, Rules R, int N>
struct Group {
    template <int Bytes>
    static ZEL_INLINE unsigned run(LaneStore<T, GroupKit<T, R, Bytes == 32 ? Isa::Avx : Isa::Sse2>, N>* st) {
        return group_core<T, R, Bytes == 32 ? Isa::Avx : Isa::Sse2, N>(*st);
    }
};
template <class T, Rules R, Isa I, int N>
ZEL_INLINE unsigned group_run(LaneStore<T, GroupKit<T, R, I>, N>& st) {
    if constexpr (I == Isa::Avx) return cpu::built_32<Group<T, R, N>>(&st);
    else return cpu::built_sse2<Group<T, R, N>>(&st);
}

// ---------------------------------------------------------------------------
// Order 2: the closed form on a = (0,0), b = (0,1), c = (1,1), in T. ev0 is
// the eigenvalue of larger magnitude; (1,0) is not read.
template <class T, bool Vectors, class VO>
ZEL_INLINE zelStatus order2(const Loose<T>* a2, Loose<T>* vals, const VO& vo) {
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
    using Dst = Obj<T, F, Unit>;

    // The source into the buffer, row pitch n.
    static ZEL_INLINE void copy_in(const Src& s, Loose<T>* a, int n) {
        if constexpr (F != Form::P && Unit) {
            if (n > kBulkRow<T>) {
                for (int i = 0; i < n; ++i) std::memcpy(a + std::ptrdiff_t(i) * n, s.ptr(i, 0), sizeof(T) * n);
                return;
            }
        }
        for (int i = 0; i < n; ++i)
            for (int j = 0; j < n; ++j) a[i * n + j] = s.get(i, j);
    }

    // One object at a time.
    template <int N>
    static zelStatus objects(const Call<T>& c, int from, int count, int n_rt) {
        const int n = N ? N : n_rt;
        for (int o = from; o < count; ++o) {
            const Src s = obj_of<T, F, Unit>(c.src[0], o, n);
            Loose<T>* const vals = c.out + std::ptrdiff_t(o) * n;
            zelStatus st;
            if constexpr (N == 1) {
                vals[0] = s.get(0, 0);
                if constexpr (R.vectors) obj_of<T, F, Unit>(c.dst[0], o, n).set(0, 0, T(1));
                st = zelStsOk;
            } else if constexpr (N == 2) {
                copy_in(s, c.buf, 2);
                if constexpr (R.vectors) st = order2<T, true>(c.buf, vals, obj_of<T, F, Unit>(c.dst[0], o, n));
                else st = order2<T, false>(c.buf, vals, NoVectors{});
            } else {
                copy_in(s, c.buf, n);
                if constexpr (!R.vectors) {
                    NoVectors v;
                    st = solve_one<T, R, N>(c.buf, vals, v, n);
                } else if constexpr (N == 0) {
                    Dst d = obj_of<T, F, Unit>(c.dst[0], o, n);
                    st = solve_one<T, R, 0>(c.buf, vals, d, n);
                } else {
                    Dense<T, N> v;
                    st = solve_one<T, R, N>(c.buf, vals, v, N);
                    const Dst d = obj_of<T, F, Unit>(c.dst[0], o, n);
                    for (int i = 0; i < N; ++i)
                        for (int j = 0; j < N; ++j) d.set(i, j, v.get(i, j));
                }
            }
            if (st != zelStsOk) return st;
        }
        return zelStsOk;
    }

    // Groups of objects in lanes; a last group short of objects fills its
    // lanes with copies of its first object and discards them.
    template <int N>
    static zelStatus groups(const Call<T>& c, int count) {
        if (cpu::avx()) return groups<N, Isa::Avx>(c, count);
        return groups<N, Isa::Sse2>(c, count);
    }
    template <int N, Isa I>
    static zelStatus groups(const Call<T>& c, int count) {
        using K = GroupKit<T, R, I>;
        using S = typename K::S;
        for (int o0 = 0; o0 < count; o0 += K::W) {
            const int used = std::min(K::W, count - o0);
            LaneStore<T, K, N> st;
            for (int k = 0; k < K::W; ++k) {
                const int o = o0 + (k < used ? k : 0);
                const Src s = obj_of<T, F, Unit>(c.src[0], o, N);
                const Loose<T>* vals = c.out + std::ptrdiff_t(o) * N;
                for (int i = 0; i < N; ++i) {
                    for (int j = 0; j < N; ++j) st.am[i * N + j][k] = S(s.get(i, j));
                    st.um[i][k] = S(vals[i]);
                }
            }
            const unsigned failed = group_run<T, R, I, N>(st);
            for (int k = 0; k < used; ++k) {
                const int o = o0 + k;
                Loose<T>* const vals = c.out + std::ptrdiff_t(o) * N;
                auto buffer = [&] {
                    Loose<T>* const b = c.buf;
                    for (int i = 0; i < N * N; ++i) b[i] = T(st.am[i][k]);
                };
                Dense<T, N> v;
                if constexpr (R.vectors)
                    for (int i = 0; i < N * N; ++i) v.m[i] = T(st.vm[i][k]);
                auto vectors_out = [&] {
                    if constexpr (R.vectors) {
                        const Dst d = obj_of<T, F, Unit>(c.dst[0], o, N);
                        for (int i = 0; i < N; ++i)
                            for (int j = 0; j < N; ++j) d.set(i, j, v.get(i, j));
                    }
                };
                zelStatus s;
                if (failed >> k & 1u) {
                    for (int i = 0; i < N; ++i) vals[i] = T(st.um[i][k]);
                    s = zelStsErrNoConvergence;
                } else {
                    for (int i = 0; i < N; ++i) vals[i] = T(st.am[i * N + i][k]);
                    s = finish<T, R>(vals, v, N);
                }
                vectors_out();
                if (s != zelStsOk || o + 1 == count) buffer();
                if (s != zelStsOk) return s;
            }
        }
        return zelStsOk;
    }

    static zelStatus run(const Call<T>& c) {
        const int count = array ? c.count : 1;
        switch (c.widthHeight) {
            case 1: return objects<1>(c, 0, count, 1);
            case 2: return objects<2>(c, 0, count, 2);
            case 3: return count > 1 ? groups<3>(c, count) : objects<3>(c, 0, count, 3);
            case 4: return count > 1 ? groups<4>(c, count) : objects<4>(c, 0, count, 4);
            case 5: return count > 1 ? groups<5>(c, count) : objects<5>(c, 0, count, 5);
            case 6: return count > 1 ? groups<6>(c, count) : objects<6>(c, 0, count, 6);
            default: return objects<0>(c, 0, count, c.widthHeight);
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
