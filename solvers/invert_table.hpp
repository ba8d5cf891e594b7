// The inversion family's quirks as data: the method of each kernel at each
// fixed order, the singularity threshold and where it is doubled, the pivot
// column rules of the orders 5 and 6, when the aligned array kernel takes
// pairs, and when an array call goes to the parallel wrapper.
// solvers/invert.hpp reads these; the tests iterate them.
#pragma once

#include <cstdint>

#include "frame/frame.hpp"
#include "solvers/objects.hpp"

namespace zel::invert {

using namespace objects;

// Methods (solvers/invert.hpp):
//   Generic      n^2 eliminations of order n-1 in pBuffer, one per cofactor,
//                a vanishing cofactor replaced by T(n); orders 2 and from 7
//   Scalar       cofactors from shared minors, det along the first column,
//                one division
//   Packed       32f cofactors four at a time in SSE, the reciprocal by the
//                processor's estimate and one Newton step, no division
//   PackedPairs  Packed, two aligned matrices at a time, both tested before
//                either is stored
//   PivotRow     order 5: one pivot row and the packed inverse of the 4x4
//                Schur complement, assembled by the block formula
//   TwoPivotRows order 6: two pivot rows, then as PivotRow
enum class Method : std::uint8_t { Generic, Scalar, Packed, PackedPairs, PivotRow, TwoPivotRows };

struct MethodRow {
    unsigned ty, kerns;
    Method order[4];  // orders 3, 4, 5, 6
};
inline constexpr MethodRow kMethods[] = {
    {F32, M | MaL, {Method::Packed, Method::Packed, Method::PivotRow, Method::TwoPivotRows}},
    {F32, Ma, {Method::Scalar, Method::PackedPairs, Method::PivotRow, Method::TwoPivotRows}},
    {F64, kUnitKerns, {Method::Scalar, Method::Scalar, Method::Scalar, Method::Scalar}},
    {AnyTy, kOtherKerns, {Method::Scalar, Method::Scalar, Method::Scalar, Method::Scalar}},
};
constexpr Method method_of(unsigned ty, unsigned kern, int n) {
    if (n < 3 || n > 6) return Method::Generic;
    for (const auto& r : kMethods)
        if ((r.ty & ty) && (r.kerns & kern)) return r.order[n - 3];
    return Method::Generic;
}

// ---------------------------------------------------------------------------
// Threshold T(n) = 2 n^3 times the smallest normal value; these kernels use
// twice that at the orders named (bit n). Order 1 is settled before any
// kernel, with T(1) for every member.
struct TwiceRow {
    unsigned ty, kerns, orders;
};
inline constexpr TwiceRow kTwice[] = {
    {F64, kUnitKerns, 1u << 3 | 1u << 4},
};
constexpr bool twice_of(unsigned ty, unsigned kern, int n) {
    for (const auto& r : kTwice)
        if ((r.ty & ty) && (r.kerns & kern) && n < 32 && (r.orders >> n & 1u)) return true;
    return false;
}

// ---------------------------------------------------------------------------
// Pivot columns of the orders 5 and 6: among the columns first .. last_tied
// the highest whose magnitude equals the row's greatest wins; a column after
// last_tied (up to last) only when it is strictly the greatest.
struct PivotRule {
    int first, last_tied, last;
};
inline constexpr PivotRule kPivot5{0, 3, 4};      // row 0 of order 5
inline constexpr PivotRule kPivot6Row0{0, 5, 5};  // row 0 of order 6
inline constexpr PivotRule kPivot6Row1{1, 5, 5};  // row 1 of order 6, after the elimination of row 0

// ---------------------------------------------------------------------------
// Pairs of the aligned array kernel: pSrc, pDst, srcStride0 and dstStride0
// multiples of this, srcStride1 and dstStride1 equal to it.
inline constexpr int kPairAlign = 16;

// ---------------------------------------------------------------------------
// The parallel wrapper: estimate 2 n count, the wrapper when it is not below
// the limit.
inline constexpr LimitRow kLimits[] = {
    {F32, MaL, 40001},
    {AnyTy, Ma | MaS2 | MaL | MaLS2 | MaP, 20001},
};
constexpr int limit_of(unsigned ty, unsigned kern) { return limit_in(kLimits, ty, kern, 20001); }
constexpr std::int32_t estimate(int n, int count) { return (Est(2) * Est(n) * Est(count)).value(); }

}  // namespace zel::invert
