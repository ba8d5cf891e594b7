// The quirks of the vector algebra and reductions, as data: for each kernel
// the association of its sums at the written-out lengths, its order for
// longer sums, the paths that take several objects at once in an order of
// their own, and when an array call goes to the parallel wrapper. The
// kernels in vectors/vectors.hpp read these tables; the tests iterate them.
//
// A kernel is named by its operation, signature, element type and kind (Std:
// standard form with every stride2 the element size; S2; L; LS2; P, as in
// the products' tables). Rows are matched in order, the first match wins.
#pragma once

#include <cstdint>
#include <iterator>
#include <string_view>

#include "frame/frame.hpp"
#include "products/orders.hpp"
#include "products/table.hpp"
#include "vectors/assoc.hpp"

namespace zel::vectors {

using products::AnyTy;
using products::F32;
using products::F64;
using products::kAnyKern;
using products::Kern;
using products::Ord;
using products::L;
using products::LS2;
using products::P;
using products::S2;
using products::Std;

constexpr unsigned bit(Op o) { return 1u << unsigned(o); }
inline constexpr unsigned kDot = bit(Op::DotProduct), kNorm = bit(Op::L2Norm), kTrace = bit(Op::Trace),
                          kFrob = bit(Op::FrobNorm), kCross = bit(Op::CrossProduct), kSaxpy = bit(Op::Saxpy),
                          kLComb = bit(Op::LComb);

struct Key {
    unsigned op;  // bit(Op)
    std::string_view sig;
    unsigned ty, kern;
};
template <class Row>
constexpr bool matches(const Row& r, const Key& k) {
    return (r.ops & k.op) && has_word(r.sigs, k.sig) && (r.ty & k.ty) && (r.kern & k.kern);
}
// Rows are found by index, -1 for none (addresses of table rows are not
// compared in constant expressions: the sanitizers' builds do not allow it).
template <class Row, std::size_t N>
constexpr int find_index(const Row (&rows)[N], const Key& k) {
    for (std::size_t i = 0; i < N; ++i)
        if (matches(rows[i], k)) return int(i);
    return -1;
}
template <class Row, std::size_t N>
constexpr const Row& find_row(const Row (&rows)[N], const Key& k) {
    const int i = find_index(rows, k);
    if (i < 0) throw "no row for this kernel";  // a compile-time error in a constant expression
    return rows[i];
}

// ---------------------------------------------------------------------------
// The orders of long sums that the products do not have (see Chains).
//   eight-chain: (((((((c0 + c1) + c2) + c3) + c4) + c5) + c6) + c7), c(r) the
//     terms k = r mod 8 below m8, then the terms from K-1 down to m8;
//   three-chain: (o + z) + e, o the odd terms below m8, z the multiples of 8,
//     e the other even terms (each ascending), then from K-1 down to m8;
//   pair chains: (t(4r) + t(4r+1)) into one chain, (t(4r+2) + t(4r+3)) into
//     another, the two chains added, then the terms from m4 up, one by one.
inline constexpr Chains kEightChain{
    8, 8, {0, 1, 2, 3, 4, 5, 6, 7},
    {tree("0"), tree("1"), tree("2"), tree("3"), tree("4"), tree("5"), tree("6"), tree("7")},
    8, tree("0+1+2+3+4+5+6+7"), true};
// accumulators: 0 odd terms, 1 multiples of 8, 2 other even terms
inline constexpr Chains kThreeChain{
    8, 8, {1, 0, 2, 0, 2, 0, 2, 0},
    {tree("0"), tree("1"), tree("2"), tree("3"), tree("4"), tree("5"), tree("6"), tree("7")},
    3, tree("(0+1)+2"), true};
inline constexpr Chains kPairChains{4, 2, {0, 1}, {tree("0+1"), tree("2+3")}, 2, tree("0+1"), false};
inline constexpr Chains kChains[] = {kEightChain, kThreeChain, kPairChains};
enum ChainId : int { kNoChain = -1, kEight = 0, kThree = 1, kPairs = 2 };

// The order of a sum of any length: one of the products' named orders (with
// leading terms up to the second source's 16-byte boundary where `lead`), or
// one of the chains above.
struct Order {
    Ord named;
    int chain;
    bool lead;
};
inline constexpr Order kSeqOrder{products::kSeq, kNoChain, false};
inline constexpr Order kP2{{products::Sum::Pair, 2}, kNoChain, false};
inline constexpr Order kW8{{products::Sum::Eight32, 8}, kNoChain, false};
inline constexpr Order kW8Lead{{products::Sum::Eight32, 8}, kNoChain, true};
inline constexpr Order kQ8{{products::Sum::Eight64, 8}, kNoChain, false};
inline constexpr Order kQ8Lead{{products::Sum::Eight64, 8}, kNoChain, true};
inline constexpr Order kChain8{products::kSeq, kEight, false};
inline constexpr Order kChain3{products::kSeq, kThree, false};

// ---------------------------------------------------------------------------
// DotProduct, L2Norm, Trace: the written-out lengths 3, 4, 5 and 6 (for
// Trace the orders), each from its first term. t is t(k) of DotProduct, s(k)
// of L2Norm, d(i) of Trace.
struct ShortRow {
    unsigned ops;
    std::string_view sigs;
    unsigned ty, kern;
    Assoc at[4];
};
inline constexpr Assoc S = kSeqAssoc;
inline constexpr ShortRow kShort[] = {
    // DotProduct
    {kDot, "vv vava", F32, Std, {S, S, S, S}},
    {kDot, "vava", F32, L, {S, S, S, S}},
    {kDot, "vav", F32, Std | L, {S, assoc("(0+1)+(2+3)"), S, S}},
    {kDot, "vv vav vava", F64, Std | L,
     {S, assoc("(0+2)+(1+3)"), assoc("((0+2)+(1+3))+4"), assoc("((2+4)+0)+((3+5)+1)")}},
    {kDot, "vv", AnyTy, S2,
     {assoc("(1+2)+0"), assoc("((1+3)+2)+0"), assoc("(((2+4)+3)+0)+1"), assoc("((((3+5)+4)+0)+1)+2")}},
    {kDot, "vav", AnyTy, S2,
     {S, assoc("((0+3)+1)+2"), assoc("(((3+4)+0)+1)+2"), assoc("((((4+5)+0)+1)+2)+3")}},
    {kDot, "vav", AnyTy, LS2,
     {assoc("(1+2)+0"), assoc("((2+3)+1)+0"), assoc("(((3+4)+2)+0)+1"), assoc("((((4+5)+3)+0)+1)+2")}},
    {kDot, "vava", AnyTy, S2 | LS2,
     {S, assoc("((0+3)+1)+2"), assoc("(((0+4)+1)+2)+3"), assoc("((((0+5)+1)+2)+3)+4")}},
    {kDot, "vv vav vava", AnyTy, P, {S, S, S, S}},
    // L2Norm
    {kNorm, "v", F32, Std,
     {S, assoc("(0+1)+(2+3)"), assoc("((0+1)+(2+3))+4"), assoc("((0+1)+(2+3))+(4+5)")}},
    {kNorm, "va", F32, Std | L, {S, S, assoc("((0+1)+(2+3))+4"), assoc("((0+2)+4)+((1+3)+5)")}},
    {kNorm, "v va", F64, Std | L,
     {assoc("(0+2)+1"), assoc("(0+2)+(1+3)"), assoc("((0+2)+4)+(1+3)"), assoc("((0+2)+4)+((1+3)+5)")}},
    {kNorm, "v va", AnyTy, S2 | LS2 | P,
     {S, assoc("((0+3)+1)+2"), assoc("(((0+4)+1)+2)+3"), assoc("((((0+5)+1)+2)+3)+4")}},
    // Trace; the S2 kernel of ma takes the objects in pairs (kBlocks) and
    // the last one of an odd count as m does
    {kTrace, "m ma", AnyTy, Std | L | P, {S, S, S, S}},
    {kTrace, "m ma", AnyTy, S2 | LS2,
     {assoc("(1+2)+0"), assoc("((2+3)+1)+0"), assoc("(((3+4)+2)+0)+1"), assoc("((((4+5)+3)+0)+1)+2")}},
};

// DotProduct and L2Norm: the order at length 7 and from 8 on. Lengths 1 and
// 2 are sequential everywhere. These sums start from +0.0.
struct LongRow {
    unsigned ops;
    std::string_view sigs;
    unsigned ty, kern;
    Order at7, from8;
};
inline constexpr LongRow kLong[] = {
    {kDot, "vv vava", F32, Std, kSeqOrder, kW8Lead},
    {kDot, "vava", F32, L, kSeqOrder, kW8},
    {kDot, "vav", F32, Std | L, kSeqOrder, kW8Lead},
    {kDot, "vv vav vava", F64, Std, kSeqOrder, kQ8Lead},
    {kDot, "vav", F64, L, kSeqOrder, kQ8Lead},
    {kDot, "vava", F64, L, kSeqOrder, kQ8},
    {kNorm, "v", F32, Std, kSeqOrder, kW8Lead},
    {kNorm, "v", F64, Std, kSeqOrder, kQ8Lead},
    {kNorm, "va", F32, Std | L, kSeqOrder, kW8},
    {kNorm, "va", F64, Std | L, kSeqOrder, kQ8},
    {kDot | kNorm, "*", F32, S2 | LS2, kP2, kP2},
    {kDot | kNorm, "*", F64, LS2, kP2, kP2},
    {kDot | kNorm, "*", F64, S2, kSeqOrder, kQ8},
    {kDot | kNorm, "vv v", AnyTy, P, kChain8, kChain8},
    {kDot | kNorm, "vav vava va", AnyTy, P, kChain3, kChain3},
};

// ---------------------------------------------------------------------------
// FrobNorm: the square orders 2 to 6 (q the squares in row-major position;
// a chain with stride 1 is a column chain, with stride n a row). Other
// shapes: the pointer form sums in pair chains (`general`); the other kernels
// sum sequentially below width 8 and from width 8 on along each row in
// vector lanes (frob_lanes below).
struct FrobRow {
    unsigned ops;
    std::string_view sigs;
    unsigned ty, kern;
    Assoc at[5];
    int general;  // chain of the pointer form, kNoChain elsewhere
};
inline constexpr Assoc kFrobS2Order3 = assoc("0+1+2+4+3+5+8+6+7");
inline constexpr Assoc kRowPairs4 = assoc("(0+2)+(1+3)", "0+1+2+3", 4);
inline constexpr FrobRow kFrobOrders[] = {
    {kFrob, "m", F32, Std,
     {assoc("(0+1)+(2+3)"), assoc("(0+1)+2", "(0+3)+6"), assoc("(0+2)+(1+3)", "(0+4)+(8+12)"),
      assoc("((0+2)+(1+3))+4", "((0+5)+(10+15))+20"), S},
     kNoChain},
    {kFrob, "m", F64, Std, {S, S, S, S, S}, kNoChain},
    {kFrob, "ma", F32, Std, {S, assoc("(0+1)+2", "(0+3)+6"), assoc("(0+2)+(1+3)", "(0+4)+(8+12)"), S, S}, kNoChain},
    {kFrob, "ma", F64, Std,
     {S, assoc("(0+2)+1", "(0+3)+6"), assoc("0+1", "((0+2)+(4+6))+((8+10)+(12+14))"), S, S}, kNoChain},
    {kFrob, "ma", F32, L, {S, kFrobS2Order3, S, S, S}, kNoChain},
    {kFrob, "ma", AnyTy, S2 | LS2 | L, {S, kFrobS2Order3, kRowPairs4, S, S}, kNoChain},
    {kFrob, "m", AnyTy, P, {kGeneral, kGeneral, kGeneral, kGeneral, kGeneral}, kPairs},
    {kFrob, "ma", AnyTy, P, {kGeneral, S, kGeneral, kGeneral, kGeneral}, kPairs},
};
// From width 8 on (every kernel but the pointer form): each row's columns
// below the width rounded down to the lane count go to lane j mod lanes, the
// others of all rows to one further sum; the lanes are added as in
// kFrobLanes, then that sum.
inline constexpr int kFrobLanesFrom = 8;
inline constexpr Assoc kFrobLanes32 = assoc("(0+2)+(1+3)"), kFrobLanes64 = assoc("0+1");

// ---------------------------------------------------------------------------
// Objects taken together in groups, with an association of their own: the
// objects below `count` rounded down to `group` that the path takes (where
// count is at least `min_count` and, for `aligned`, the first source, the
// second source, pDst and both stride0 are multiples of 16). Other objects
// keep the tables above. `size` is the length or order.
struct BlockRow {
    unsigned ops;
    std::string_view sigs;
    unsigned ty, kern;
    int size, group, min_count;
    bool aligned;
    Assoc sum;
};
inline constexpr BlockRow kBlocks[] = {
    {kDot, "vava", F32, Std, 3, 4, 5, true, assoc("(0+2)+1")},
    {kNorm, "va", F32, Std | L, 5, 4, 0, false, assoc("((0+2)+(1+3))+4")},
    {kTrace, "ma", AnyTy, S2, 3, 2, 0, false, S},
    {kTrace, "ma", AnyTy, S2, 4, 2, 0, false, S},
    {kTrace, "ma", AnyTy, S2, 5, 2, 0, false, assoc("(((0+2)+1)+3)+4")},
    {kFrob, "ma", F32, Std, 3, 4, 0, false, assoc("(((0+1)+8)+(2+3))+((4+5)+(6+7))")},
    {kFrob, "ma", F32, Std, 4, 4, 0, false, assoc("(0+1)+(2+3)", "(0+4)+(8+12)")},
    {kFrob, "ma", F64, Std, 3, 4, 0, false, assoc("(((0+1)+8)+(2+5))+((3+4)+(6+7))")},
};
constexpr int block_index(const Key& k, int size) {
    for (std::size_t i = 0; i < std::size(kBlocks); ++i)
        if (matches(kBlocks[i], k) && kBlocks[i].size == size) return int(i);
    return -1;
}
// The association of a block row's objects, or `own` where there is none.
constexpr Assoc block_sum(int i, const Assoc& own) { return i < 0 ? own : kBlocks[i].sum; }

// The four-object square root of L2Norm: at `len`, after the objects that
// go alone (the first one where `first_alone`), blocks of four objects whose
// results start on a 16-byte boundary finish with the reciprocal square root
// estimate and one Newton step, sums below the smallest normal giving 0.
struct RsqrtRow {
    unsigned ops;
    std::string_view sigs;
    unsigned ty, kern;
    int len;
    bool first_alone;
};
inline constexpr RsqrtRow kRsqrt[] = {
    {kNorm, "va", F32, S2, 3, true},
    {kNorm, "va", F32, P, 3, false},
};
constexpr int rsqrt_len(int i) { return i < 0 ? 0 : kRsqrt[i].len; }
inline constexpr std::uint32_t kRsqrtCutBits = 0x00800000u;  // the smallest normal 32f

// ---------------------------------------------------------------------------
// When an array call goes to the parallel wrapper: the estimate compared
// with the limit of the kernel's form, strictly (above the limit) or from
// the limit on.
enum class Estimate {
    c1_l,   // (count + 1) * len
    l2c,    // 2 * len * count
    lc,     // len * count
    c2,     // 2 * count
    c3,     // 3 * count
    c21_l,  // (2 * count + 1) * len
    l3c,    // 3 * len * count
    nc,     // widthHeight * count (the diagonal)
    whc,    // width * height * count
};
struct Limits {
    int std_unit, std_other, l_unit32, l_unit64, l_other32, l_other64, p32, p64;
};
struct LimitRow {
    unsigned ops;
    std::string_view sigs;
    Estimate est;
    bool from_limit;  // the wrapper from the limit on (else above it)
    Limits lim;
};
inline constexpr Limits k20000{20000, 20000, 20000, 20000, 20000, 20000, 20000, 20000};
inline constexpr Limits k20000L32{20000, 20000, 40000, 20000, 40000, 20000, 20000, 20000};
inline constexpr Limits k20000L32Unit{20000, 20000, 40000, 20000, 20000, 20000, 20000, 20000};
inline constexpr Limits kDotLimits{40000, 20000, 40000, 40000, 20000, 20000, 20000, 40000};
inline constexpr Limits k40000{40000, 40000, 40000, 40000, 40000, 40000, 40000, 40000};
inline constexpr LimitRow kLimits[] = {
    {kDot, "vav", Estimate::c1_l, false, kDotLimits},
    {kDot, "vava", Estimate::l2c, false, kDotLimits},
    {kNorm, "va", Estimate::lc, false, k20000},
    {kCross, "vav vva", Estimate::c2, true, k20000L32},
    {kCross, "vava", Estimate::c3, false, k20000L32},
    {kSaxpy, "vav vva", Estimate::c21_l, false, k40000},
    {kSaxpy, "vava", Estimate::l3c, false, k40000},
    {kLComb, "vav", Estimate::c21_l, false, k20000L32Unit},
    {kLComb, "vava", Estimate::l3c, false, k20000L32Unit},
    {kTrace, "ma", Estimate::nc, false, k20000L32Unit},
    {kFrob, "ma", Estimate::whc, false, k20000L32Unit},
};
constexpr const LimitRow& limit_row(unsigned op, std::string_view sig) {
    for (const auto& r : kLimits)
        if ((r.ops & op) && has_word(r.sigs, sig)) return r;
    throw "no limit row";
}

// Array exports without a parallel wrapper.
struct NoWrapper {
    unsigned ops;
    std::string_view sig;
    unsigned ty;
    Form form;
};
inline constexpr NoWrapper kNoWrapper[] = {{kCross, "vva", F64, Form::P}};
constexpr bool has_wrapper(unsigned op, std::string_view sig, unsigned ty, Form f) {
    for (const auto& n : kNoWrapper)
        if ((n.ops & op) && n.sig == sig && (n.ty & ty) && n.form == f) return false;
    return true;
}

constexpr std::int32_t estimate(Estimate e, int len, int w, int h, int count) {
    const Est Ln(len), C(count), One(1), Two(2), Three(3);
    switch (e) {
        case Estimate::c1_l: return ((C + One) * Ln).value();
        case Estimate::l2c: return (Two * Ln * C).value();
        case Estimate::lc: return (Ln * C).value();
        case Estimate::c2: return (Two * C).value();
        case Estimate::c3: return (Three * C).value();
        case Estimate::c21_l: return ((Two * C + One) * Ln).value();
        case Estimate::l3c: return (Three * Ln * C).value();
        case Estimate::nc: return (Est(w) * C).value();
        case Estimate::whc: return (Est(w) * Est(h) * C).value();
    }
    return 0;
}

constexpr int limit_of(const Limits& l, unsigned kern, bool is64) {
    switch (kern) {
        case Std: return l.std_unit;
        case S2: return l.std_other;
        case L: return is64 ? l.l_unit64 : l.l_unit32;
        case LS2: return is64 ? l.l_other64 : l.l_other32;
        default: return is64 ? l.p64 : l.p32;
    }
}

// Whether an array call goes to the parallel wrapper.
constexpr bool goes_parallel(const LimitRow& row, unsigned kern, bool is64, int len, int w, int h, int count) {
    const std::int32_t e = estimate(row.est, len, w, h, count);
    const int lim = limit_of(row.lim, kern, is64);
    return row.from_limit ? e >= lim : e > lim;
}

}  // namespace zel::vectors
