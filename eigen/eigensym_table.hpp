// The symmetric eigenproblem's quirks as data: which reflections each family
// and signature passes over, which kernels keep their scalars in 64 bits,
// where the eigenvalue product is tested and against what, the sweep budget,
// the summation orders of the reduction, and when an array call goes to the
// parallel wrapper. eigen/eigensym.hpp reads these tables; the tests iterate
// them.
#pragma once

#include <cstdint>
#include <string_view>

#include "frame/frame.hpp"

namespace zel::eigensym {

enum Ty : unsigned { F32 = 1, F64 = 2, AnyTy = 3 };
// Kernels: standard form with every stride2 the element size (Std) or not
// (S2), list form likewise (L, LS2), pointer form (P).
enum Kern : unsigned { Std = 1, S2 = 2, L = 4, LS2 = 8, P = 16, AnyKern = 31 };

// Absolute, inclusive tolerances: a magnitude is negligible when <= eps.
inline constexpr double kEps32 = 0x1p-23;  // 1.1920929e-07, bits 0x34000000
inline constexpr double kEps64 = 0x1p-52;  // 2.220446049250313e-16
template <class T>
inline constexpr double kEps = sizeof(T) == 4 ? kEps32 : kEps64;

// Sweeps of the QL iteration allowed per eigenvalue.
inline constexpr int kSweeps = 30;

// ---------------------------------------------------------------------------
// What differs between the families, their signatures and element types.
struct Rules {
    bool vectors;          // eigenvectors accumulated (EigenValuesVectorsSym)
    bool pass_sigma;       // a reflection is passed over when sigma <= eps, first
    bool pass_x_alpha;     // ... when |x - alpha| <= eps, next
    bool wide;             // 32f storage, 64-bit scalars (sums, reflector, rotations, product)
    bool test_after_sort;  // the product test follows the descending sort
    bool product_eps32;    // the product is tested against 2^-23 whatever the type
};

struct RuleRow {
    Op op;
    std::string_view sigs;
    unsigned ty;
    Rules rules;
};

// Every reflection passes over h <= eps. Rows are matched in order.
inline constexpr RuleRow kRules[] = {
    // values: all sums and rotations in the element type, product before the sort
    {Op::EigenValuesSym, "m ma", AnyTy, {false, false, false, false, false, false}},
    // one matrix with vectors: a reflection that would change nothing is
    // passed over; the product is tested on the sorted values
    {Op::EigenValuesVectorsSym, "m", AnyTy, {true, false, true, false, true, false}},
    // arrays with vectors: a zero column is passed over too; the product
    // before the sort; 32f keeps its scalars in 64 bits, 64f tests the
    // product against the 32f tolerance
    {Op::EigenValuesVectorsSym, "ma", F32, {true, true, true, true, false, false}},
    {Op::EigenValuesVectorsSym, "ma", F64, {true, true, true, false, false, true}},
};

constexpr Rules rules_of(Op op, std::string_view sig, unsigned ty) {
    for (const auto& r : kRules)
        if (r.op == op && has_word(r.sigs, sig) && (r.ty & ty)) return r.rules;
    throw "no rules for this kernel";  // a compile-time error in a constant expression
}

// ---------------------------------------------------------------------------
// Orders of summation. The orders 3 to 6 never reach the lane threshold, so
// their sums are the sequential and the even/odd ones only.
//  - Column walks (sigma, and the inner products of the reflection applied
//    from the left) add terms 0, 2, 4 ... and 1, 3, 5 ... of the walk into
//    two accumulators and then the odd one to the even one.
//  - Inner products along a buffer row (the reflection applied from the
//    right) run in 128-bit lanes from kLaneRun terms on, when the row and the
//    Householder vector don't overlap: lane k takes terms k, k + L, k + 2L ...
//    of the whole blocks of L (4 lanes for 32-bit sums, 2 for 64-bit ones),
//    the lanes are combined as (0 + 2) + (1 + 3), or 0 + 1, and the terms
//    left over are added one by one. Shorter runs sum in order.
//  - Inner products along rows of the eigenvector matrix sum in order.
inline constexpr int kLaneRun = 8;
// Rows of the source are copied in bulk above this many elements (the copy
// itself is exact; only the speed differs).
template <class T>
inline constexpr int kBulkRow = sizeof(T) == 4 ? 24 : 12;

// ---------------------------------------------------------------------------
// When an array call goes to the parallel wrapper: the estimate above the
// limit (at or below it the kernel runs on the calling thread). The
// estimates: n (n + 1) count for the values, n (2n + 1) count with vectors.
struct LimitRow {
    Op op;
    unsigned ty, kern;
    int limit;
};
inline constexpr LimitRow kLimits[] = {
    {Op::EigenValuesSym, F32, L, 40000},
    {Op::EigenValuesSym, AnyTy, AnyKern, 20000},
    {Op::EigenValuesVectorsSym, AnyTy, AnyKern, 1700},
};

constexpr int limit_of(Op op, unsigned ty, unsigned kern) {
    for (const auto& r : kLimits)
        if (r.op == op && (r.ty & ty) && (r.kern & kern)) return r.limit;
    return 0;
}

constexpr std::int32_t estimate(Op op, int n, int count) {
    const Est N(n), C(count);
    return op == Op::EigenValuesSym ? (N * (N + Est(1)) * C).value()
                                    : (N * (Est(2) * N + Est(1)) * C).value();
}

}  // namespace zel::eigensym
