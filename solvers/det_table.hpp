// The determinant family's quirks as data: the method of each kernel at each
// fixed order, which minors the extended method rounds, when the aligned
// array kernel takes pairs, and when an array call goes to the parallel
// wrapper. solvers/det.hpp reads these; the tests iterate them.
#pragma once

#include <cstdint>

#include "frame/frame.hpp"
#include "solvers/objects.hpp"

namespace zel::det {

using namespace objects;

// Methods (solvers/det.hpp):
//   Generic   Gaussian elimination in pBuffer with a division per row; a
//             pivot below T(n) gives 0; orders 1, 2 and from 7
//   Extended  x87 80-bit arithmetic from the loaded elements, rounded once
//             when stored. Order 3 by the two formulas written out there
//             (32f along row 0, 64f along column 0); orders 4 to 6 by the
//             bottom chain of minors (solvers/minors.hpp) and the expansion
//             along row 0, terms left to right. The minors of the levels 2 to
//             n-2 do not fit on the eight-place register stack and are held
//             at the element width (rounded there); the level n-1 minors and
//             the products of the last expansion stay extended.
//   Scalar    the element type in SSE scalar arithmetic: the top chain of
//             minors, expanded along the last row from the highest column
//             down (order 3: (a00 a11 - a01 a10) a22 - (a00 a12 - a10 a02) a21
//             + (a01 a12 - a11 a02) a20)
//   Pairs     order 4 of the aligned 32f array kernel: the Scalar method, two
//             matrices at a time in packed single precision, an odd last one
//             by Extended; Extended for every matrix when not aligned
enum class Method : std::uint8_t { Generic, Extended, Scalar, Pairs };

struct MethodRow {
    unsigned ty, kerns;
    Method order[4];  // orders 3, 4, 5, 6
};
inline constexpr MethodRow kMethods[] = {
    {F32, M | MaL, {Method::Extended, Method::Extended, Method::Extended, Method::Extended}},
    {F32, Ma, {Method::Scalar, Method::Pairs, Method::Extended, Method::Extended}},
    {F64, kUnitKerns, {Method::Extended, Method::Extended, Method::Extended, Method::Extended}},
    {AnyTy, kOtherKerns, {Method::Scalar, Method::Scalar, Method::Scalar, Method::Scalar}},
};
constexpr Method method_of(unsigned ty, unsigned kern, int n) {
    if (n < 3 || n > 6) return Method::Generic;
    for (const auto& r : kMethods)
        if ((r.ty & ty) && (r.kerns & kern)) return r.order[n - 3];
    return Method::Generic;
}

// The scalar method of array kernels takes several matrices across vector
// lanes from this order on; at order 3 gathering the lanes element by element
// costs more than the nine products it shares; 32f matrices of order 3
// stored back to back (solvers/lanes.hpp) take lanes all the same, by whole
// loads and shuffles.
inline constexpr int kLanesFrom = 4;

// Pairs: pSrc, srcStride0 and srcStride1 all multiples of this.
inline constexpr int kPairAlign = 16;

// ---------------------------------------------------------------------------
// The parallel wrapper: estimate n count (linear in the order), the wrapper
// when it is not below the limit. The 32f list kernel with contiguous
// elements has a limit of its own.
inline constexpr LimitRow kLimits[] = {
    {F32, MaL, 40001},
    {AnyTy, Ma | MaS2 | MaL | MaLS2 | MaP, 20001},
};
constexpr int limit_of(unsigned ty, unsigned kern) { return limit_in(kLimits, ty, kern, 20001); }
constexpr std::int32_t estimate(int n, int count) { return (Est(n) * Est(count)).value(); }

}  // namespace zel::det
