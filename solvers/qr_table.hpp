// The QR families' quirks as data: the rank threshold, the number of
// reflectors, the partial sums of each column sum, the fixed orders of the
// back-substitution and where their reflector scales are formed, the block
// copy of the right-hand side, and when an array call goes to the parallel
// wrapper. solvers/qr.hpp reads these; the tests iterate them.
#pragma once

#include <cstdint>

#include "frame/frame.hpp"
#include "solvers/objects.hpp"

namespace zel::qr {

using objects::Part;

// A column whose remaining squared norm s is below this fails the
// decomposition (strictly: s equal to it passes). Compared with the squared
// norm, and the same for every size: 2^-23 and 2^-52.
template <class T>
inline constexpr T kRankThreshold = sizeof(T) == 4 ? T(1.1920928955078125e-07) : T(2.220446049250313080847e-16);

// Reflectors: one per column, but none for the last column of a square matrix.
constexpr int reflectors(int width, int height) { return width == height ? width - 1 : width; }

// ---------------------------------------------------------------------------
// Sums over a column. Decomposition: the squared norm s and each column's
// product with the reflector in two interleaved partial sums (even and odd
// terms); the reflector's squared length d in eight from `kEightFrom` terms
// on, below that in two. Back-substitution (generic path): every inner product
// and sum of squares in one accumulator, in two from `kTwoFrom` terms on.
inline constexpr Part kColumnSum = Part::Two;
inline constexpr int kEightFrom = 16;
inline constexpr int kTwoFrom = 8;
constexpr Part d_sum(int terms) { return terms >= kEightFrom ? Part::Eight : Part::Two; }
constexpr Part solve_sum(int terms) { return terms >= kTwoFrom ? Part::Two : Part::Seq; }

// The decomposition works on a local copy of the matrix up to this many
// elements (the copy is stored whole when the kernel returns, failing or not),
// on the destination itself beyond it. Both run the same arithmetic.
inline constexpr int kLocalElements = 64;

// ---------------------------------------------------------------------------
// Back-substitution: fixed orders for square matrices of order 3 to 6, in
// every kernel. They differ from the generic path in one sum only: the
// reflector's squared length s is summed with its first squared entry ahead
// of 1.0 (((v1^2 + 1) + v2^2) + ...), where the generic path forms 1.0 plus
// the sum of the squares. The fixed orders keep b in registers and leave
// pBuffer alone; the generic path copies b into pBuffer.
constexpr bool fixed_order(int width, int height) { return width == height && width >= 3 && width <= 6; }

// Where the fixed orders form the reflector scales -2/s: in the call for mv,
// once for all vectors of an mva call (one matrix), per object in mava. The
// same divisions of the same values: the results do not depend on it.
enum class Scales : std::uint8_t { InCall, OncePerCall, PerObject };
struct ScalesRow {
    const char* sig;
    Scales where;
};
inline constexpr ScalesRow kScales[] = {
    {"mv", Scales::InCall},
    {"mva", Scales::OncePerCall},
    {"mava", Scales::PerObject},
};

// The standard-form mv kernels with contiguous elements copy b into pBuffer
// as a block from this many elements on (exclusive), where the two don't
// overlap; element by element otherwise.
template <class T>
inline constexpr int kBlockCopyAbove = sizeof(T) == 4 ? 24 : 12;

// ---------------------------------------------------------------------------
// The parallel wrapper: an array call goes there when its estimate is not
// below the limit, for both types and both stride paths.
struct Limits {
    int standard, list, pointer;
};
inline constexpr Limits kLimits{2801, 1801, 1801};
constexpr int limit_of(Form f) {
    return f == Form::S ? kLimits.standard : f == Form::L ? kLimits.list : kLimits.pointer;
}

// Estimates, signed 32-bit with silent wrap.
constexpr std::int32_t decomp_estimate(int width, int height, int count) {
    return (Est(2) * Est(width) * Est(height) * Est(count)).value();
}
// mva: the one matrix plus both vectors per object; mava: per object the
// matrix, b and x.
constexpr std::int32_t solve_estimate(bool one_matrix, int width, int height, int count) {
    if (one_matrix) return (Est(width) * Est(height) + (Est(width) + Est(height)) * Est(count)).value();
    return ((Est(width) * (Est(height) + Est(1)) + Est(height)) * Est(count)).value();
}

}  // namespace zel::qr
