// Cholesky decomposition and back-substitution: their quirks as data. Which
// orders run straight-line code, the radicand tests, when the decomposition
// stores, how the generic paths sum, and when an array call goes to the
// parallel wrapper. solvers/cholesky.hpp reads these tables; the tests
// iterate them.
#pragma once

#include <string_view>

#include "solvers/triangular.hpp"

namespace zel::cholesky {

using tri::Kern;

// Orders with straight-line code on a local copy of the lower triangle, in
// every kernel of both operations.
inline constexpr int kFixedLo = 3, kFixedHi = 6;
constexpr bool fixed_order(int n) { return n >= kFixedLo && n <= kFixedHi; }

// The radicand d of a row fails when d <= the bound (a NaN passes): zero,
// but 2^-23 in the pointer kernels at order 3, in both types.
template <class T>
constexpr T radicand_bound(Kern k, int n) {
    return k == Kern::P && n == 3 ? T(0x1p-23) : T(0);
}

// When the decomposition stores: element by element as computed (a failure
// at row i leaves rows 0 .. i-1 and the off-diagonal elements of row i), or,
// in the fixed-order pointer kernels, a whole row once its radicand has
// passed (a failure at row i leaves rows 0 .. i-1). The diagonal of a failing
// row is never written.
enum class Store : std::uint8_t { AsComputed, RowAfterTest };
constexpr Store store_of(Kern k, bool fixed) {
    return k == Kern::P && fixed ? Store::RowAfterTest : Store::AsComputed;
}

// The decomposition's generic sums start from the matrix element and
// subtract the products one at a time, from eight products on in eight
// interleaved partial sums (the element starting the first). The generic
// back-substitution sums each row's products in two partial sums, in eight
// from eight on, and subtracts the sum once.
inline constexpr tri::Partial kDecompSum{1, 8, 8};
inline constexpr tri::Partial kBackSum{2, 8, 8};

// Batches ahead that the fixed orders of the standard form prefetch in a
// streaming call (solvers/triangular_lanes.hpp): eight, at orders 5 and 6.
// Factor plus solve of 200,000 objects of order 6 ran 1.3x (64f) to 1.6x
// (32f) faster with it; order 4 gained nothing.
constexpr int ahead_of(int n) {
    return n >= 5 ? 8 : 0;
}

// The parallel wrapper: estimate and per-kernel limits.
inline constexpr tri::LimitRow kLimits[] = {
    // decomposition: n*n*count
    {"ma", {7501, 7501, 2001, 2001, 2001}, {2001, 2001, 721, 2001, 2001}},
    // back-substitution, one matrix: (n + 2*count)*n
    {"mva", {1201, 1201, 721, 721, 721}, {721, 721, 721, 721, 721}},
    // back-substitution, a matrix per vector: (n + 2)*n*count
    {"mava", {2051, 1701, 1701, 1701, 1701}, {1701, 1701, 1701, 1701, 2051}},
};

}  // namespace zel::cholesky
