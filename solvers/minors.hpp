// Minors of the fixed orders 3 to 6, built level by level and shared between
// the cofactors that need them: the straight-line expansions of the
// determinant and the inversion families.
//
// A minor is named by its level k (k rows) and the set of its k columns as a
// bit mask. Two chains:
//   top     rows 0 .. k-1, expanded along its last row, k-1, from the highest
//           column down:  M(S) = M(S\c_top) a(k-1, c_top) - ... (alternating)
//   bottom  rows n-k .. n-1, expanded along its first row, n-k, from the
//           lowest column up:  M(S) = a(n-k, c_low) M(S\c_low) - ...
// Terms are added left to right, the first one starting the sum. Each level
// is computed in a value type V and kept in a table of type S; the
// determinant keeps its extended minors rounded to the element type that way.
// Everything is expanded at compile time into straight-line code.
#pragma once

#include <array>
#include <cstddef>
#include <utility>

#include "frame/frame.hpp"

namespace zel::minors {

constexpr int popcount(unsigned m) {
    int n = 0;
    for (; m; m &= m - 1) ++n;
    return n;
}
constexpr int choose(int n, int k) {
    long r = 1;
    for (int i = 0; i < k; ++i) r = r * (n - i) / (i + 1);
    return int(r);
}

// The masks of k columns out of n, ascending.
template <int N, int K>
constexpr std::array<unsigned, choose(N, K)> subsets() {
    std::array<unsigned, choose(N, K)> a{};
    std::size_t i = 0;
    for (unsigned m = 0; m < (1u << N); ++m)
        if (popcount(m) == K) a[i++] = m;
    return a;
}
// The columns of a mask, ascending.
template <unsigned Mask>
constexpr std::array<int, popcount(Mask)> columns() {
    std::array<int, popcount(Mask)> a{};
    std::size_t i = 0;
    for (int c = 0; c < 32; ++c)
        if (Mask >> c & 1u) a[i++] = c;
    return a;
}

template <int N, int K>
inline constexpr auto kSubsets = subsets<N, K>();
template <unsigned Mask>
inline constexpr auto kColumns = columns<Mask>();

template <std::size_t... I, class F>
ZEL_INLINE void each(std::index_sequence<I...>, F&& f) {
    (f(std::integral_constant<std::size_t, I>{}), ...);
}

// The minor of level K over `Mask`, in V, from the level below in `tab`.
// `a(r, c)` gives the matrix elements.
template <int N, int K, unsigned Mask, bool Top, class V, class S, class A>
ZEL_INLINE V expand(const S* tab, const A& a) {
    constexpr int row = Top ? K - 1 : N - K;
    V acc{};
    each(std::make_index_sequence<K>{}, [&](auto I) ZEL_LAMBDA_INLINE {
        constexpr int c = kColumns<Mask>[Top ? K - 1 - I : I];
        const V p = V(tab[Mask ^ (1u << c)]) * V(a(row, c));
        if constexpr (I == 0) acc = p;
        else if constexpr (I % 2) acc = acc - p;
        else acc = acc + p;
    });
    return acc;
}

// Fills levels 1 .. Upto of a chain into `tab` (indexed by mask).
template <int N, int Upto, bool Top, class V, class S, class A>
ZEL_INLINE void levels(S* tab, const A& a) {
    for (int c = 0; c < N; ++c) tab[1u << c] = a(Top ? 0 : N - 1, c);
    each(std::make_index_sequence<Upto - 1>{}, [&](auto L) ZEL_LAMBDA_INLINE {
        constexpr int K = int(L) + 2;
        each(std::make_index_sequence<kSubsets<N, K>.size()>{}, [&](auto I) ZEL_LAMBDA_INLINE {
            constexpr unsigned m = kSubsets<N, K>[I];
            tab[m] = S(expand<N, K, m, Top, V>(tab, a));
        });
    });
}

}  // namespace zel::minors
