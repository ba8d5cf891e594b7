// The general eigenproblem's quirks as data: the constants of each element
// type, the budget and the exceptional sweeps of the QR iteration, how each
// family scans, shifts and sweeps, which vector sets it computes, where its
// blocks lie in pBuffer, in which type its scalars are computed, and when an
// array call goes to the parallel wrapper. The core (eigen/eigengen_core.hpp)
// reads these rows; the tests iterate them.
#pragma once

#include <cstdint>
#include <type_traits>

#include "frame/frame.hpp"

namespace zel::eigengen {

// ---------------------------------------------------------------------------
// Constants by element type, as the exact powers of two they are.
template <class T>
struct Consts;
template <>
struct Consts<float> {
    static constexpr float eps = 0x1p-23f;      // 1.1920929e-07
    static constexpr float eps4 = 0x1p-21f;     // 4 * eps
    static constexpr float safmin = 0x1p-125f;  // 2.3509887e-38
    static constexpr float safmin2 = 0x1p-124f;
    static constexpr float small_unit = 0x1p-102f;  // safmin / eps: smlnum is n times it
    static constexpr float big_num = 1.0f - 0x1p-23f;  // bignum = big_num / smlnum
    static constexpr float bignum2 = 0x1p124f;  // 1 / safmin2
};
template <>
struct Consts<double> {
    static constexpr double eps = 0x1p-52;
    static constexpr double eps4 = 0x1p-50;
    static constexpr double safmin = 0x1p-1021;
    static constexpr double safmin2 = 0x1p-1020;
    static constexpr double small_unit = 0x1p-969;
    static constexpr double big_num = 1.0 - 0x1p-52;
    static constexpr double bignum2 = 0x1p1020;
};

// The QR iteration: sweeps for the whole matrix per order, the sweeps that
// take the exceptional shift, its two constants, and the bound below which
// the left/right families' shift and start-row scalars count as zero (the
// smallest normal 32f value, in both element types).
inline constexpr int kSweepsPerOrder = 30;
inline constexpr int kExceptional1 = 10, kExceptional2 = 20;
inline constexpr double kExShift = 0.75, kExShiftSq = -0.4375;
inline constexpr double kTiny32 = 0x1p-125;

// ---------------------------------------------------------------------------
// The families. A family is one row: how its QR stage scans for negligible
// subdiagonals and how far its sweeps reach, how it forms its shifts, which
// vector sets it back-substitutes, where its blocks lie in pBuffer (in
// multiples of n*n), and its parallel limit.
enum class Scan { Absolute, Relative };  // |H[k][k-1]| > eps, or against its diagonal neighbours
enum class Reach { Active, Whole };      // sweeps update the active block only, or all of H and Z
enum class Shifts { Plain, Rounded32 };  // shift and start-row scalars in the kernel's type, or through 32 bits
enum Sets : unsigned { kNoSet = 0, kFirst = 1, kSecond = 2 };  // first set: H x = lambda x; second: y^H H = lambda y^H

struct Family {
    Op op;
    Scan scan;
    Reach reach;
    Shifts shifts;
    unsigned sets;
    int z_block;     // Z (and the first set) at z_block * n*n
    int copy_block;  // the copy of Z for the second set (0: none, the second set works on Z itself)
    int work_block;  // column sums, re, im, tau, w at work_block * n*n (values: tau, w at n*n)
    int limit;       // array calls with the estimate above it fan out; -1: never
    int est_mul;     // the estimate is n * (est_mul * n + 1) * count
};

inline constexpr Family kFamilies[] = {
    {Op::EigenValues, Scan::Absolute, Reach::Active, Shifts::Plain, kNoSet, 0, 0, 1, 10000, 1},
    {Op::EigenValuesVectors, Scan::Relative, Reach::Whole, Shifts::Plain, kFirst | kSecond, 1, 2, 3, 7000, 3},
    {Op::EigenValuesVectorsRight, Scan::Relative, Reach::Whole, Shifts::Rounded32, kFirst, 1, 0, 2, -1, 0},
    {Op::EigenValuesVectorsLeft, Scan::Relative, Reach::Whole, Shifts::Rounded32, kSecond, 1, 0, 2, -1, 0},
};

constexpr const Family& family(Op op) {
    for (const auto& f : kFamilies)
        if (f.op == op) return f;
    throw "no row for this family";
}

// The arithmetic type of a kernel's scalars. The reduction always runs in
// the element type. The 32f array kernels of the vector families widen the
// QR sweeps, rotations, small solves and norms to double and round to float
// on store; the 32f single-object kernels and all of EigenValues stay in
// float.
template <Op O, class T, bool Array>
using Wide = std::conditional_t<std::is_same_v<T, float> && Array && O != Op::EigenValues, double, T>;

// pBuffer elements of one object of family f.
constexpr int buffer_elems(const Family& f, int n) { return n * (f.sets != kNoSet ? 3 * n + 5 : n + 5); }

// pBuffer bytes that the size queries report for one object, signed 32-bit
// with silent wrap: n * (n + 5) elements for EigenValues, n * (3n + 5) for
// the vector families (and for the wrappers' per-thread scratch of both).
constexpr std::int32_t values_bytes(int n, int esz) { return (Est(esz) * Est(n) * (Est(n) + Est(5))).value(); }
constexpr std::int32_t vectors_bytes(int n, int esz) {
    return (Est(esz) * Est(n) * (Est(3) * Est(n) + Est(5))).value();
}
// The same without the wrap, for the wrappers to see where it wrapped.
constexpr std::uint64_t vectors_bytes_exact(int n, int esz) {
    return std::uint64_t(esz) * std::uint64_t(n) * (3 * std::uint64_t(n) + 5);
}

constexpr std::int32_t estimate(const Family& f, int n, int count) {
    return (Est(n) * (Est(f.est_mul) * Est(n) + Est(1)) * Est(count)).value();
}

}  // namespace zel::eigengen
