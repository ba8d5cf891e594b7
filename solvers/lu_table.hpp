// LU decomposition and back-substitution: their quirks as data. Which orders
// run straight-line code, the pivot thresholds of each path, when a kernel
// stores a finished row, where the back-substitution divides and where it
// multiplies by reciprocals, how the generic paths sum, and when an array
// call goes to the parallel wrapper. solvers/lu.hpp reads these tables; the
// tests iterate them.
#pragma once

#include <string_view>

#include "solvers/triangular.hpp"

namespace zel::lu {

using tri::Kern;

// Orders with straight-line code from a local copy, in every kernel of both
// operations; every other order (1, 2, 7 and up) runs the generic path.
inline constexpr int kFixedLo = 3, kFixedHi = 6;
constexpr bool fixed_order(int n) { return n >= kFixedLo && n <= kFixedHi; }

// The pivot tests. The fixed-order paths fail when the pivot's magnitude is
// below twice the smallest normal number (so equality passes) and test after
// the table exchange; the generic path fails at or below the unit roundoff
// and tests before it. Neither scales with the order or the entries, and a
// NaN magnitude passes both.
template <class T>
struct Pivot;
template <>
struct Pivot<float> {
    static constexpr float fixed = 0x1p-125f;   // singular when below
    static constexpr float generic = 0x1p-23f;  // singular when at or below
};
template <>
struct Pivot<double> {
    static constexpr double fixed = 0x1p-1021;
    static constexpr double generic = 0x1p-52;
};

// When the fixed-order decomposition stores a finished row: the rows of the
// standard and list kernels go to memory as their stage ends (a failure
// leaves the finished pivot rows behind), the pointer kernels store nothing
// until the last pivot has passed.
enum class Store : std::uint8_t { AsFinished, AfterLastTest };
constexpr Store store_of(Kern k) { return k == Kern::P ? Store::AfterLastTest : Store::AsFinished; }

// The back-substitution's diagonal: a division per element, or the n
// reciprocals computed once per call and a multiplication per element (the
// fixed orders of one matrix with many vectors).
enum class Diag : std::uint8_t { Divide, Reciprocal };
constexpr Diag diag_of(std::string_view sig, bool fixed) {
    return sig == "mva" && fixed ? Diag::Reciprocal : Diag::Divide;
}

// The generic back-substitution sums each row's products in two interleaved
// partial sums, in eight from eight terms on, and subtracts the sum once.
inline constexpr tri::Partial kBackSum{2, 8, 8};

// Batches of lanes that the fixed orders of the standard form run
// interleaved: two where that measured faster, one elsewhere. The
// decomposition takes two at order 4 and at order 3 in float, where both
// batches' chains fit the registers; the back-substitution, whose chain of
// dependent rows sets its pace, also from order 5 on (order 6: 5% faster in
// float, 9% in double). Only the speed differs: every lane does its own
// object's operations.
template <class T>
constexpr int batches_of(int n, bool decomp) {
    return n == 4 || (n == 3 && sizeof(T) == 4) || (!decomp && n >= 5) ? 2 : 1;
}

// Batches ahead that the fixed orders of the standard form prefetch in a
// streaming call, from order 4 on. Each batch reads and writes its rows
// across several objects at once, a pattern that the processor's own
// prefetch follows badly: fetching both the source and the destination
// eight batches early made factor plus solve of 200,000 objects 1.2x (64f
// order 4) to 1.5x (order 6) faster. Order 3 gained nothing.
// Writing the factors past the caches instead (each batch into a local
// block, then non-temporal stores of whole lines) made factor plus solve
// 7 to 14% slower at order 6: the solve reads the factors next, and
// ordinary stores leave much of them in L3.
constexpr int ahead_of(int n) {
    return n >= 4 ? 8 : 0;
}

// The parallel wrapper: estimate and per-kernel limits.
inline constexpr tri::LimitRow kLimits[] = {
    // decomposition: n*n*count
    {"ma", {20001, 20001, 40001, 20001, 20001}, {20001, 20001, 20001, 20001, 20001}},
    // back-substitution: (n + 2*count)*n, (n + 2)*n*count
    {"mva mava", {1701, 1701, 1701, 1701, 1701}, {1701, 1701, 1701, 1701, 1701}},
};

}  // namespace zel::lu
