// The products' quirks as data: for each kernel, which exact orders have a
// fast path and in which association, which order each row of the generic
// path gets, and when an array call goes to the parallel wrapper. The kernels
// in products/products.hpp read these tables; the tests iterate them.
//
// A kernel is named by its signature, its element type and its kind: Std
// (standard form, every stride2 the element size), S2 (standard form, other
// strides), L and LS2 (list form, likewise) and P (pointer form). Rows are
// matched in order; the first match wins, so exceptions stand first.
#pragma once

#include <string_view>

#include "frame/frame.hpp"
#include "products/orders.hpp"

namespace zel::products {

enum Kern : unsigned { Std = 1, S2 = 2, L = 4, LS2 = 8, P = 16 };
inline constexpr unsigned kAnyKern = Std | S2 | L | LS2 | P;
inline constexpr unsigned kPlain = S2 | LS2 | P;  // scalar kernels
enum Ty : unsigned { F32 = 1, F64 = 2, AnyTy = 3 };

struct Key {
    std::string_view sig;
    unsigned ty;    // F32 or F64
    unsigned kern;  // one Kern
};

template <class Row>
constexpr bool matches(const Row& r, const Key& k) {
    return has_word(r.sigs, k.sig) && (r.ty & k.ty) && (r.kern & k.kern);
}
template <class Row, std::size_t N>
constexpr const Row& find_row(const Row (&rows)[N], const Key& k) {
    for (const auto& r : rows)
        if (matches(r, k)) return r;
    throw "no row for this kernel";  // a compile-time error in a constant expression
}

// ---------------------------------------------------------------------------
// Fast paths: the exact orders (bit n set: order n) and their association.
struct FastRow {
    std::string_view sigs;
    unsigned ty, kern;
    unsigned orders;  // bit mask over 3..6
    Fast sum;
};
inline constexpr unsigned k3456 = 0b1111000, k345 = 0b0111000, k3 = 0b0001000, kNone = 0;

inline constexpr FastRow kFast[] = {
    // matrix by matrix
    {"tm", F32, Std, k345, Fast::Seq},
    {"mam", F32, LS2 | P, k3, Fast::Seq},
    {"mat tam", F32, S2 | LS2 | P, k3, Fast::Seq},
    {"tat", F32, LS2, k3, Fast::Seq},
    {"mama", F32, S2, k345, Fast::Seq},
    {"mta tta", F32, L, kNone, Fast::None},
    {"tta", F64, L, kNone, Fast::None},
    {"mm mt tm tt mam mat tam tat mma mta tma tta mama mata tama tata", AnyTy, kAnyKern, k3456, Fast::Seq},
    // matrix by vector, single objects
    {"mv", F64, Std, k3456, Fast::Adjacent},
    {"mv tv", AnyTy, kAnyKern, k3456, Fast::Seq},
    // matrix by vector, arrays
    {"mva tva", F32, L, kNone, Fast::None},
    {"tva tava", F64, L, kNone, Fast::None},
    {"mva mav mava tva tav tava", AnyTy, kPlain, k3456, Fast::Seq},
    {"mva mav mava", F32, Std, k3456, Fast::Spread},
    {"mav mava", F32, L, k3456, Fast::Spread},
    {"mva mav mava", F64, Std | L, k3456, Fast::Adjacent},
    {"tav", F64, L, k3456, Fast::Adjacent},
    {"tva tav tava", F32, Std | L, k3456, Fast::Split},
    {"tva tav tava", F64, Std, k3456, Fast::Seq},
};

// Gaxpy: y is added last but for LastFirst, see gaxpy_y().
inline constexpr FastRow kGaxpyFast[] = {
    {"mv mva mvav", F32, Std | L, k3456, Fast::Spread},
    {"mv mva mvav", F64, Std | L, k3456, Fast::Adjacent},
    {"mv mva mvav", AnyTy, kPlain, k3456, Fast::LastFirst},
};

// ---------------------------------------------------------------------------
// Generic paths: the order of each row (see RowRule in orders.hpp).
struct OrderRow {
    std::string_view sigs;
    unsigned ty, kern;
    RowRule rule;
};

inline constexpr Ord kP2{Sum::Pair, 2}, kP8{Sum::Pair, 8}, kL4{Sum::Four, 4}, kL8{Sum::Four, 8},
    kW8{Sum::Eight32, 8}, kQ8{Sum::Eight64, 8};

// The rules by which the kernels are written.
inline constexpr RowRule kAllSeq{Rows::Tiles4, 0, kSeq, 0, {{kSeq}, {kSeq, kSeq}, {kSeq, kSeq, kSeq}}, false};
inline constexpr RowRule kAllQ8{Rows::Tiles4, 8, kQ8, 8, {{kQ8}, {kQ8, kQ8}, {kQ8, kQ8, kQ8}}, false};
// 4x2 register tiles, contiguous rows
inline constexpr RowRule kTileMmTt32{Rows::Tiles4, 0, kSeq, 0, {{kP2}, {kP2, kP2}, {kSeq, kSeq, kSeq}}, false};
inline constexpr RowRule kTileTm32{Rows::Tiles4, 0, kSeq, 0, {{kP2}, {kSeq, kSeq}, {kSeq, kSeq, kSeq}}, false};
inline constexpr RowRule kTileMt32{Rows::Tiles4, 4, kL4, 8, {{kW8}, {kW8, kL8}, {kL8, kL8, kL8}}, false};
inline constexpr RowRule kTile64{Rows::Tiles4, 0, kP2, 8, {{kQ8}, {kL8, kP8}, {kP8, kP8, kP8}}, false};
// 8-row blocks sharing the vector's loads, k in lanes from the vector's
// 16-byte boundary on
inline constexpr RowRule kBlockMv32{Rows::Blocks8, 4, kL4, 8, {{kW8}, {kW8, kL8}, {kL8, kL8, kL8}}, true};
inline constexpr RowRule kBlock64{Rows::Blocks8, 2, kP2, 8, {{kQ8}, {kL8, kP8}, {kP8, kP8, kP8}}, true};
inline constexpr RowRule kBlockTv32{Rows::Blocks8, 0, kSeq, 0, {{kP2}, {kP2, kP2}, {kSeq, kSeq, kSeq}}, false};

inline constexpr OrderRow kOrders[] = {
    // matrix by matrix
    {"mata", F64, Std, kAllSeq},
    {"mt mat mta mata", F64, S2 | LS2, kAllQ8},
    {"mm mt tm tt mam mat tam tat mma mta tma tta mama mata tama tata", AnyTy, kPlain, kAllSeq},
    {"mm tt mam mma mama tat tta tata", F32, Std | L, kTileMmTt32},
    {"tm tam tma tama", F32, Std | L, kTileTm32},
    {"mt mat mta mata", F32, Std | L, kTileMt32},
    {"mm mt tm tt mam mat tam tat mma mta tma tta mama mata tama tata", F64, Std | L, kTile64},
    // matrix by vector; the array kernels take the order of the single ones
    {"mv mva mav mava", F64, S2 | LS2, kAllQ8},
    {"mv tv mva mav mava tva tav tava", AnyTy, kPlain, kAllSeq},
    {"mv mva mav mava", F32, Std | L, kBlockMv32},
    {"mv tv mva mav mava tva tav tava", F64, Std | L, kBlock64},
    {"tv tva tav tava", F32, Std | L, kBlockTv32},
};

// Gaxpy: sequential terms, then y; the 64f S2 kernels (not LS2) sum their
// terms in Q(m8) from 8 terms on.
inline constexpr OrderRow kGaxpyOrders[] = {
    {"mv mva mvav", F64, S2, kAllQ8},
    {"mv mva mvav", AnyTy, kAnyKern, kAllSeq},
};

// Gaxpy's y in the LastFirst fast paths: the last row of mv and mva, and
// every row of mvav, start with t(n-1) + y and add y nowhere else; mvav's
// order 3 starts with t0 + y. Elsewhere y is added last.
struct GaxpyY {
    bool y_first;   // y joins the first addition
    int with_term;  // the term y is added to
};
constexpr GaxpyY gaxpy_y(Fast f, bool shared_y, int n, int row) {
    if (f != Fast::LastFirst) return {false, 0};
    if (shared_y) return {true, n == 3 ? 0 : n - 1};
    if (n >= 4 && row == n - 1) return {true, n - 1};
    return {false, 0};
}

// ---------------------------------------------------------------------------
// When an array call goes to the parallel wrapper: the estimate above the
// limit (at or below: the kernel on the calling thread).
struct Limits {
    int std_unit, std_other, list, pointer;
};
inline constexpr Limits kMulLimits{36864, 18432, 18432, 9216};
inline constexpr Limits kGaxpyLimits{5000, 5000, 5000, 5000};

constexpr int limit_of(const Limits& l, unsigned kern) {
    return kern == Std ? l.std_unit : kern == S2 ? l.std_other : kern == P ? l.pointer : l.list;
}

// Mul: every element read or written, a single operand counted once.
constexpr std::int32_t mul_estimate(int e1, bool arr1, int e2, bool arr2, int ed, int count) {
    const Est C(count);
    return ((arr1 ? Est(e1) * C : Est(e1)) + (arr2 ? Est(e2) * C : Est(e2)) + Est(ed) * C).value();
}
// Gaxpy: the vectors only, the matrix left out.
constexpr std::int32_t gaxpy_estimate(int len2, int len3, bool shared_y, int count) {
    const Est C(count), X(len2), Y(len3);
    return shared_y ? (X * C + Y * (C + Est(1))).value() : ((X + Est(2) * Y) * C).value();
}

}  // namespace zel::products
