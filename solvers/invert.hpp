// Inversion of square matrices in every storage form. Each kernel has its
// method per fixed order (solvers/invert_table.hpp): scalar cofactors in any
// form, the 32f SSE methods of contiguous rows (solvers/invert_packed.hpp),
// and for the orders 2 and from 7 the generic path, which forms every
// cofactor by an elimination of its own. Order 1 is settled in the entry.
#pragma once

#include <cmath>
#include <cstring>
#include <string_view>
#include <type_traits>

#include "frame/fanout.hpp"
#include "solvers/invert_packed.hpp"
#include "solvers/invert_table.hpp"
#include "solvers/lanes.hpp"
#include "solvers/minors.hpp"
#include "solvers/objects.hpp"

namespace zel::invert {

// ---------------------------------------------------------------------------
// Scalar cofactors. Row 0's come from the bottom chain of minors, row n-1's
// from the top chain (solvers/minors.hpp); a row i between them splits its
// minor by the generalised Laplace expansion into the top minors of rows
// 0 .. i-1 and the bottom minors of rows i+1 .. n-1, over the column sets in
// ascending order of their masks. det = a(0,0) C(0,0) + a(1,0) C(1,0) + ...,
// the expansion along the first column.
template <int N, int I, int J>
struct Split {
    struct Term {
        unsigned top, bottom;
        bool negative;
    };
    static constexpr auto terms = [] {
        std::array<Term, minors::choose(N - 1, I)> t{};
        const unsigned rest = ((1u << N) - 1) ^ (1u << J);
        std::size_t k = 0;
        for (unsigned S = 0; S < (1u << N); ++S) {
            if ((S & ~rest) || minors::popcount(S) != I) continue;
            int pos = 0;  // positions of S among the columns other than J
            for (int c = 0; c < N; ++c)
                if (S >> c & 1u) pos += c < J ? c : c - 1;
            t[k++] = {S, rest ^ S, ((pos - I * (I - 1) / 2) & 1) != 0};
        }
        return t;
    }();
};

template <int N, class T, class A>
ZEL_INLINE T cofactors(const A& a, T (&C)[N][N]) {
    constexpr unsigned all = (1u << N) - 1;
    T top[1u << N], bottom[1u << N];
    minors::levels<N, N - 1, true, T>(top, a);
    minors::levels<N, N - 1, false, T>(bottom, a);
    for (int j = 0; j < N; ++j) {
        C[0][j] = j & 1 ? -bottom[all ^ (1u << j)] : bottom[all ^ (1u << j)];
        C[N - 1][j] = (N - 1 + j) & 1 ? -top[all ^ (1u << j)] : top[all ^ (1u << j)];
    }
    minors::each(std::make_index_sequence<N - 2>{}, [&](auto Im1) ZEL_LAMBDA_INLINE {
        constexpr int I = int(Im1) + 1;
        minors::each(std::make_index_sequence<N>{}, [&](auto Jc) ZEL_LAMBDA_INLINE {
            constexpr int J = int(Jc);
            using Sp = Split<N, I, J>;
            T acc{};
            minors::each(std::make_index_sequence<Sp::terms.size()>{}, [&](auto K) ZEL_LAMBDA_INLINE {
                constexpr auto t = Sp::terms[K];
                const T p = top[t.top] * bottom[t.bottom];
                if constexpr (K == 0) acc = t.negative ? -p : p;
                else if constexpr (t.negative) acc = acc - p;
                else acc = acc + p;
            });
            C[I][J] = (I + J) & 1 ? -acc : acc;
        });
    });
    T det = a(0, 0) * C[0][0];
    for (int i = 1; i < N; ++i) det = det + a(i, 0) * C[i][0];
    return det;
}

// The inverse of m into x (row-major), or false where the determinant's
// magnitude is below thr (in any lane of a Pack). Nothing is stored before
// the test.
template <int N, class T>
ZEL_INLINE bool inverse_by_cofactors(const T* m, T* x, T thr) {
    using lanes::any;
    using std::fabs;
    T C[N][N];
    const T det = cofactors<N, T>([&](int r, int c) { return m[r * N + c]; }, C);
    if (any(thr > fabs(det))) return false;
    const T r = T(1) / det;
    _Pragma("GCC unroll 64") for (int k = 0; k < N * N; ++k) x[k] = C[k % N][k / N] * r;
    return true;
}

template <int N, class T, class S, class D>
ZEL_INLINE zelStatus invert_scalar(const S& src, const D& dst, T thr) {
    T m[N * N], x[N * N];
    for (int i = 0; i < N; ++i)
        for (int j = 0; j < N; ++j) m[i * N + j] = src.get(i, j);
    if (!inverse_by_cofactors<N>(m, x, thr)) return zelStsErrSingular;
    for (int i = 0; i < N; ++i)
        for (int j = 0; j < N; ++j) dst.put(i, j, x[i * N + j]);
    return zelStsOk;
}

// The scalar cofactors of the standard and list forms, W objects at a time
// in lanes; a pack with a singular lane stops the batches (the object loop
// then stores the objects before it and stops there).
template <class E, int N, Form F, bool Unit>
struct ScalarLanes {
    using T = E;
    template <int W>
    static ZEL_INLINE int run(const Call<E>* c, int count, E thr) {
        using P = lanes::Pack<E, W>;
        const std::ptrdiff_t bytes = extent<E>(c->src[0], N, N);
        int o = 0;
        for (; o + W <= count; o += W) {
            if (F == Form::L && !list_batch_safe(c->src[0], c->dst[0], o, W, bytes, bytes)) break;
            P m[N * N], x[N * N];
            lanes::gather<P, N, N, Unit>(m, [&](int l) { return obj<E, F, Unit>(c->src[0], o + l, N); });
            if (!inverse_by_cofactors<N, P>(m, x, P(thr))) break;
            lanes::scatter<P, N, N, Unit>(x, [&](int l) { return obj<E, F, Unit>(c->dst[0], o + l, N); });
        }
        return o;
    }
};

// The same for 32f matrices of order 3 stored back to back, source and
// destination alike, by whole loads and stores (solvers/lanes.hpp).
struct BackToBack3 {
    using T = float;
    template <int W>
    static ZEL_INLINE int run(const Call<float>* c, int count, float thr) {
        using P = lanes::Pack<float, W>;
        const float* s = static_cast<const float*>(c->src[0].p);
        float* d = static_cast<float*>(const_cast<void*>(c->dst[0].p));
        int o = 0;
        for (; o + W <= count; o += W) {
            P m[9], x[9];
            lanes::load_back_to_back3<W>(s + 9 * o, m);
            if (!inverse_by_cofactors<3, P>(m, x, P(thr))) break;
            lanes::store_back_to_back3<W>(d + 9 * o, x);
        }
        return o;
    }
};

// ---------------------------------------------------------------------------
// Gaussian elimination of the first m rows and columns of the working matrix
// through the row table, for k = 0 .. m-2: the first greatest magnitude of
// column k in table order is the pivot; a pivot below `thr` stops it (false).
// One division per pivot; multipliers are not stored.
template <class T>
bool eliminate(const Work<T>& w, int m, T thr, T& sign, T& prod) {
    for (int k = 0; k + 1 < m; ++k) {
        const int pk = w.pivot(k, m, sign);
        const T p = w.get(pk, k);
        if (thr > std::fabs(p)) return false;
        const T r = T(1) / p;
        for (int i = k + 1; i < m; ++i) {
            const int pi = w.row(i);
            const T f = w.get(pi, k) * r;
            for (int j = k + 1; j < m; ++j) w.put(pi, j, w.get(pi, j) - f * w.get(pk, j));
        }
        prod = prod * p;
    }
    return true;
}

// The determinant by one elimination, then each cofactor of source element
// (c, q) by an elimination of the source without row c and column q; a
// cofactor whose last pivot vanishes (or whose elimination stops) is
// replaced by T(n). Reads the source while it stores.
template <class T, class S, class D>
zelStatus invert_generic(const S& src, const D& dst, T* buf, int n) {
    const T thr = objects::threshold<T>(n);
    const Work<T> w{buf, n};
    for (int i = 0; i < n; ++i) {
        for (int j = 0; j < n; ++j) w.put(i, j, src.get(i, j));
        w.set_row(i, i);
    }
    T sign = T(1), prod = T(1);
    if (!eliminate(w, n, thr, sign, prod)) return zelStsErrSingular;
    const T det = sign * w.get(w.row(n - 1), n - 1) * prod;
    if (std::fabs(det) <= thr) return zelStsErrSingular;
    const T rinv = T(1) / det;
    for (int c = 0; c < n; ++c) {
        for (int q = 0; q < n; ++q) {
            for (int i = 0, si = 0; si < n; ++si) {
                if (si == c) continue;
                for (int j = 0, sj = 0; sj < n; ++sj)
                    if (sj != q) w.put(i, j++, src.get(si, sj));
                w.set_row(i, i);
                ++i;
            }
            T msign = T(1), mprod = T(1);
            if (n >= 3 && !eliminate(w, n - 1, thr, msign, mprod)) mprod = thr;
            const T l = w.get(w.row(n - 2), n - 2);
            const T v = std::fabs(l) > thr ? msign * l * mprod : thr;
            const T x = v * rinv;
            dst.put(q, c, (q + c) & 1 ? -x : x);
        }
    }
    return zelStsOk;
}

// ---------------------------------------------------------------------------
// The kernels: the method of the table for each fixed order, the generic
// path otherwise, object by object; the first failure ends the kernel.
template <class T, Form F, bool Unit, bool Array, int N>
zelStatus fixed_kernel(const Call<T>& __restrict c, int count) {
    constexpr unsigned kern = kern_of(Array, F, Unit);
    constexpr Method method = method_of(ty_of<T>(), kern, N);
    const T thr = threshold<T>(N, twice_of(ty_of<T>(), kern, N));
    int n = 0;
    if constexpr (std::is_same_v<T, float> && method != Method::Scalar) {
        auto at = [&](int o) {
            const auto s = obj<T, F, true>(c.src[0], o, N);
            const auto d = obj<T, F, true>(c.dst[0], o, N);
            return packed::SrcDst{s.ptr(0, 0), s.s1, d.ptr(0, 0), d.s1};
        };
        auto one = [&](int o) {
            const packed::SrcDst m = at(o);
            if constexpr (method == Method::PivotRow) return packed::invert5(m.s, m.ss1, m.d, m.ds1, thr);
            else if constexpr (method == Method::TwoPivotRows) return packed::invert6(m.s, m.ss1, m.d, m.ds1, thr);
            else if constexpr (N == 3) return packed::invert3(m.s, m.ss1, m.d, m.ds1, thr);
            else return packed::invert4(m, thr);
        };
        if constexpr (method == Method::PackedPairs) {
            const Opd &so = c.src[0], &dd = c.dst[0];
            auto a16 = [](std::intptr_t x) { return x % kPairAlign == 0; };
            if (a16(reinterpret_cast<std::intptr_t>(so.p)) && a16(reinterpret_cast<std::intptr_t>(dd.p)) &&
                a16(so.s0) && a16(dd.s0) && so.s1 == kPairAlign && dd.s1 == kPairAlign) {
                if (cpu::avx()) n = packed::invert4_twos(at, 0, count, thr, true);
                for (; n + 1 < count; n += 2) {
                    const packed::SrcDst m[2] = {at(n), at(n + 1)};
                    if (const zelStatus st = packed::invert4_pair(m, thr); st != zelStsOk) return st;
                }
            } else {
                // one after the other, two at a time where reading the second
                // source before the first result is stored changes nothing
                const std::ptrdiff_t bytes = extent<T>(so, N, N);
                if (cpu::avx() && count >= 2 && batch_safe(so, dd, count, bytes, bytes))
                    n = packed::invert4_twos(at, 0, count, thr, false);
            }
        }
        for (; n < count; ++n)
            if (const zelStatus st = one(n); st != zelStsOk) return st;
    } else {
        if constexpr (Array && F != Form::P) {
            const std::ptrdiff_t bytes = extent<T>(c.src[0], N, N);
            if (count >= 2 && (F == Form::L || batch_safe(c.src[0], c.dst[0], count, bytes, bytes))) {
                // one path or the other: both stop at the same singular batch
                bool packed = false;
                if constexpr (lanes::kBackToBack3<T, N, F, Unit>)
                    if ((packed = lanes::back_to_back3(c.src[0]) && lanes::back_to_back3(c.dst[0])))
                        n = lanes::run<BackToBack3>(&c, count, thr);
                if (!packed) n = lanes::run<ScalarLanes<T, N, F, Unit>>(&c, count, thr);
            }
        }
        for (; n < count; ++n) {
            const auto s = obj<T, F, Unit>(c.src[0], n, N);
            const auto d = obj<T, F, Unit>(c.dst[0], n, N);
            if (const zelStatus st = invert_scalar<N, T>(s, d, thr); st != zelStsOk) return st;
        }
    }
    return zelStsOk;
}

template <class T, Form F, bool Unit, bool Array>
zelStatus kernel(const Call<T>& c) {
    const int n = c.widthHeight, count = Array ? c.count : 1;
    switch (n) {
        case 3: return fixed_kernel<T, F, Unit, Array, 3>(c, count);
        case 4: return fixed_kernel<T, F, Unit, Array, 4>(c, count);
        case 5: return fixed_kernel<T, F, Unit, Array, 5>(c, count);
        case 6: return fixed_kernel<T, F, Unit, Array, 6>(c, count);
        default: break;
    }
    for (int o = 0; o < count; ++o) {
        const auto s = obj<T, F, Unit>(c.src[0], o, n);
        const auto d = obj<T, F, Unit>(c.dst[0], o, n);
        if (const zelStatus st = invert_generic<T>(s, d, c.buf, n); st != zelStsOk) return st;
    }
    return zelStsOk;
}

// ---------------------------------------------------------------------------
// The entry of every Invert export, behind its argument tests. Order 1 is
// done here for every member, with no wrapper: 1 / x, or the status for an
// element whose magnitude is not above T(1).
template <Op O, Str Sig, class T, Str FS>
zelStatus entry(Call<T>& c) {
    constexpr Form F = form_of<FS>();
    constexpr bool array = std::string_view(Sig.s) == "ma";
    constexpr int esz = int(sizeof(T));
    const int count = array ? c.count : 1;
    if (c.widthHeight == 1) {
        const T thr = threshold<T>(1);
        for (int o = 0; o < count; ++o) {
            const T x = obj<T, F, false>(c.src[0], o, 1).get(0, 0);
            if (!(std::fabs(x) > thr)) return zelStsErrSingular;
            obj<T, F, false>(c.dst[0], o, 1).put(0, 0, T(1) / x);
        }
        return zelStsOk;
    }
    const bool unit = F == Form::P || (c.src[0].s2 == esz && c.dst[0].s2 == esz);
    auto run = [=](const Call<T>& s) -> zelStatus {
        return unit ? kernel<T, F, true, array>(s) : kernel<T, F, false, array>(s);
    };
    if constexpr (!array) {
        return run(c);
    } else {
        const unsigned kern = kern_of(true, F, unit);
        if (estimate(c.widthHeight, c.count) < limit_of(ty_of<T>(), kern)) return run(c);
        const std::size_t n = std::size_t(c.widthHeight);
        FanSpec fs{};
        fs.form = F;
        fs.src_arrays = 1u;
        fs.dst_arrays = 1u;
        fs.scratch_bytes = (n * n + n) * sizeof(T);
        fs.merge_status = true;
        return fan_out(c, fs, run);
    }
}

}  // namespace zel::invert
