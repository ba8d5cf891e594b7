// What the two triangular factorisations (LU and Cholesky) share: the names
// of their kernels, the shape of their fan-out tables and work estimates, the
// dispatch of exact orders to straight-line code, the interleaved partial
// sums of their generic paths, and the entry behind the argument tests.
#pragma once

#include <cstdint>
#include <string_view>
#include <type_traits>

#include "frame/fanout.hpp"
#include "frame/frame.hpp"
#include "frame/view.hpp"

namespace zel::tri {

// The kernels of a call: standard form with every stride2 the element size
// (Std) or not (S2), list form likewise (L, LS2), pointer form (P).
enum class Kern : std::uint8_t { Std, S2, L, LS2, P };

constexpr Kern kern_of(Form f, bool unit) {
    return f == Form::S ? (unit ? Kern::Std : Kern::S2) : f == Form::L ? (unit ? Kern::L : Kern::LS2) : Kern::P;
}

// ---------------------------------------------------------------------------
// When an array call goes to the parallel wrapper: the kernel runs on the
// calling thread while the estimate is below the limit of its kernel.
struct Limits {
    int std_unit, std_other, list_unit, list_other, pointer;
};
struct LimitRow {
    std::string_view sigs;
    Limits f32, f64;
};

constexpr int limit_of(const Limits& l, Kern k) {
    switch (k) {
        case Kern::Std: return l.std_unit;
        case Kern::S2: return l.std_other;
        case Kern::L: return l.list_unit;
        case Kern::LS2: return l.list_other;
        case Kern::P: return l.pointer;
    }
    return 0;
}
template <class T, std::size_t N>
constexpr int limit_for(const LimitRow (&rows)[N], std::string_view sig, Kern k) {
    for (const auto& r : rows)
        if (has_word(r.sigs, sig)) return limit_of(sizeof(T) == 8 ? r.f64 : r.f32, k);
    throw "no limit row";  // a compile-time error in a constant expression
}

// The estimates, in signed 32-bit arithmetic with silent wrap: a square
// matrix per object (the decompositions), one matrix and `count` vectors
// (mva), a matrix and two vectors per object (mava).
enum class Estimate : std::uint8_t { Squares, SharedMatrix, Systems };

constexpr Estimate estimate_of(std::string_view sig) {
    return sig == "ma" ? Estimate::Squares : sig == "mva" ? Estimate::SharedMatrix : Estimate::Systems;
}
constexpr std::int32_t estimate(Estimate e, int n, int count) {
    const Est N(n), C(count);
    switch (e) {
        case Estimate::Squares: return (N * N * C).value();
        case Estimate::SharedMatrix: return ((N + Est(2) * C) * N).value();
        case Estimate::Systems: return ((N + Est(2)) * N * C).value();
    }
    return 0;
}

// ---------------------------------------------------------------------------
// Exact orders with straight-line code: f(std::integral_constant<int, N>)
// for N in [Lo, Hi], g() for every other order.
template <int Lo, int Hi, class Fixed, class Generic>
ZEL_INLINE auto by_order(int n, Fixed&& f, Generic&& g) {
    if constexpr (Lo > Hi) {
        return g();
    } else {
        if (n == Lo) return f(std::integral_constant<int, Lo>{});
        return by_order<Lo + 1, Hi>(n, f, g);
    }
}

// ---------------------------------------------------------------------------
// Inner products of the generic paths, in interleaved partial sums: K terms
// t(0) .. t(K-1) go round-robin into `lanes` accumulators up to the largest
// multiple of `lanes`, the accumulators are added pairwise
// (((c0 + c1) + (c2 + c3)) + ((c4 + c5) + (c6 + c7)) for eight), and the
// terms left over are added one at a time. Every accumulator but the first
// starts at +0.0; the first starts at `start`, and `sign` -1 subtracts the
// terms instead of adding them (the starting value of the decomposition's
// sums is the matrix element). Rounding differs from a single accumulator,
// nothing else.
struct Partial {
    int narrow;     // accumulators below `wide_from` terms (1: one accumulator)
    int wide;       // accumulators from `wide_from` terms on
    int wide_from;
};

template <class T, class Term>
ZEL_INLINE T partial_sum(const Partial& p, T start, int sign, int K, Term t) {
    const int lanes = K >= p.wide_from ? p.wide : p.narrow;
    const int m = K - K % lanes;
    T c[8] = {start, T(0), T(0), T(0), T(0), T(0), T(0), T(0)};
    for (int k = 0; k < m; k += lanes)
        for (int l = 0; l < lanes; ++l) c[l] = sign > 0 ? c[l] + t(k + l) : c[l] - t(k + l);
    for (int w = lanes; w > 1; w /= 2)
        for (int l = 0; l < w / 2; ++l) c[l] = c[2 * l] + c[2 * l + 1];
    T s = c[0];
    for (int k = m; k < K; ++k) s = sign > 0 ? s + t(k) : s - t(k);
    return s;
}

// ---------------------------------------------------------------------------
// The kernels of both families, written once against a family's description
// `Fam`:
//   lo, hi                     its exact orders with straight-line code
//   lanes_done<T, F, Decomp>   the objects from 0 on that its vector-lane
//                              batches completed (contiguous rows only)
//   decomp<N, K, T>(src, dst, call, o)
//                              factors object o at fixed order N (0: the
//                              generic path) in kernel K
//   Solver<N, Sig, T>          a fixed-order solver: load(factors, call, o)
//                              takes matrix o, solve(b, x) one system
//   solve_generic<T>(factors, call, o, b, x, n)
//                              one system of any order
// An array decomposition stops at its first failing object.
template <class Fam, class T, Form F, bool Unit>
zelStatus decomp_kernel(const Call<T>& c) {
    constexpr Kern K = kern_of(F, Unit);
    const int n = c.widthHeight;
    int o = 0;
    if constexpr (Unit && F != Form::P) o = Fam::template lanes_done<T, F, true>(c);
    for (; o < c.count; ++o) {
        const auto src = view_of<T, F, Unit>(c.src[0], o, n);
        const auto dst = view_of<T, F, Unit>(c.dst[0], o, n);
        const zelStatus st = by_order<Fam::lo, Fam::hi>(
            n, [&](auto N) { return Fam::template decomp<N(), K, T>(src, dst, c, o); },
            [&] { return Fam::template decomp<0, K, T>(src, dst, c, o); });
        if (st != zelStsOk) return st;
    }
    return zelStsOk;
}

// One matrix with one vector (mv), with `count` vectors (mva: the matrix is
// loaded once per call), or a matrix per vector (mava).
template <class Fam, Str Sig, class T, Form F, bool Unit>
zelStatus solve_kernel(const Call<T>& c) {
    static constexpr std::string_view sig{Sig.s};
    constexpr bool shared = sig == "mva", array = sig != "mv";
    constexpr Form fm = operand_form(F, !shared && array), fv = operand_form(F, array);
    const int n = c.widthHeight;
    auto matrix = [&](int o) { return view_of<T, fm, Unit>(c.src[0], o, n); };
    auto b = [&](int o) { return view_of<T, fv, Unit>(c.src[1], o, 0); };
    auto x = [&](int o) { return view_of<T, fv, Unit>(c.dst[0], o, 0); };
    return by_order<Fam::lo, Fam::hi>(
        n,
        [&](auto N) {
            int o = 0;
            if constexpr (Unit && F != Form::P && !shared && array) o = Fam::template lanes_done<T, F, false>(c);
            typename Fam::template Solver<N(), Sig, T> s;
            if constexpr (shared) s.load(matrix(0), c, 0);
            for (; o < c.count; ++o) {
                if constexpr (!shared) s.load(matrix(o), c, o);
                s.solve(b(o), x(o));
            }
            return zelStsOk;
        },
        [&] {
            for (int o = 0; o < c.count; ++o)
                Fam::template solve_generic<T>(matrix(shared ? 0 : o), c, shared ? 0 : o, b(o), x(o), n);
            return zelStsOk;
        });
}

// ---------------------------------------------------------------------------
// The entry of an export behind its argument tests. Signatures: "m" and "ma"
// (a decomposition: src[0] the matrix, dst[0] the factors), "mv", "mva" and
// "mava" (a back-substitution: src[0] the factors, src[1] b, dst[0] x).
// `Table`: the family's pivot table, one per factored matrix, in idx. The
// kernel by the stride test, directly for a single object, through the
// fan-out for an array whose estimate reaches the kernel's limit (a
// decomposition keeps the first failure).
template <class Fam, bool Table, Str Sig, class T, Form F, const auto& Limits>
ZEL_INLINE zelStatus enter(const Call<T>& c) {
    static constexpr std::string_view sig{Sig.s};
    constexpr bool decomp = sig == "m" || sig == "ma";
    constexpr bool array = sig != "m" && sig != "mv";
    constexpr int esz = int(sizeof(T));
    bool unit = true;
    if constexpr (F != Form::P) {
        unit = c.src[0].s2 == esz && c.dst[0].s2 == esz;
        if constexpr (!decomp) unit = unit && c.src[1].s2 == esz;
    }
    auto run = [](const Call<T>& s, bool u) {
        if constexpr (decomp) return u ? decomp_kernel<Fam, T, F, true>(s) : decomp_kernel<Fam, T, F, false>(s);
        else return u ? solve_kernel<Fam, Sig, T, F, true>(s) : solve_kernel<Fam, Sig, T, F, false>(s);
    };
    if constexpr (!array) {
        return run(c, unit);
    } else {
        const std::int32_t work = estimate(estimate_of(sig), c.widthHeight, c.count);
        // (looked up while compiling: a missing row is a compile-time error)
        constexpr int unit_limit = limit_for<T>(Limits, sig, kern_of(F, true));
        constexpr int other_limit = limit_for<T>(Limits, sig, kern_of(F, false));
        const int limit = unit ? unit_limit : other_limit;
        auto kernel = [&](const Call<T>& s) { return run(s, unit); };
        if (work < limit) return kernel(c);
        FanSpec fs{};
        fs.form = F;
        fs.dst_arrays = 1u;
        fs.src_arrays = decomp ? 1u : sig == "mava" ? 3u : 2u;  // mva: the shared matrix stays
        fs.idx_per_object = Table && sig != "mva" ? c.widthHeight : 0;
        fs.merge_status = decomp;
        return fan_out(c, fs, kernel);
    }
}

}  // namespace zel::tri
