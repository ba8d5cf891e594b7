// zelmAffineTransform3DH_mva_32f, the one geometry export with the full frame
// (argument tests, kernels by stride, the parallel wrapper): a single 4x4
// matrix M with byte strides applied from the left to an array of 3-vectors
// as homogeneous columns (x, y, z, 1), each result divided by its w = row 3.
//
// Its quirks as data: the association of each kernel's four-term sums, and
// when a call goes to the wrapper.
#pragma once

#include <cstdint>

#include "frame/frame.hpp"

namespace zel::geometry::h3d {

// How a kernel adds the terms of row i, M[i][0] * x + M[i][1] * y +
// M[i][2] * z + M[i][3]. Only the rounding depends on it.
enum class Assoc : std::uint8_t {
    Pairs,   // (x term + y term) + (z term + constant)
    XConst,  // ((x term + constant) + y term) + z term
};

struct KernelRow {
    bool unit;  // every stride2 (matrix, source, destination) is 4
    Assoc sum;
};
inline constexpr KernelRow kKernels[] = {
    {true, Assoc::Pairs},    // w7_ownzelmAffineTransform3DH_mva_32f
    {false, Assoc::XConst},  // w7_ownzelmAffineTransform3DH_mva_32f_S2
};
constexpr Assoc assoc_of(bool unit) {
    for (const auto& r : kKernels)
        if (r.unit == unit) return r.sum;
    return Assoc::XConst;
}

// The work estimate is 6 per vector (its three source and three destination
// elements); above the limit (strictly) the call goes to the wrapper.
struct Limits {
    int per_vector;
    int limit;
};
inline constexpr Limits kLimits{6, 1984};
constexpr std::int32_t estimate(int count) { return (Est(count) * Est(kLimits.per_vector)).value(); }
constexpr bool fans_out(int count) { return estimate(count) > kLimits.limit; }

}  // namespace zel::geometry::h3d
