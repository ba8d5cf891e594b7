// The orders of summation of the product families, each written once.
//
// A product element is a sum of K rounded terms t(k). Which association is
// used is part of the result, bit for bit, so it is data: a kernel looks up an
// order in its family's table (products/table.hpp) and calls ordered_sum()
// or fast_sum() with a function giving t(k).
//
// Named orders (c(r, d): the terms with k = r mod d below the limit m, in
// ascending k, in one accumulator; the terms from m on are added one at a
// time afterwards):
//   Seq      one accumulator, k ascending
//   Pair     c(0,2) + c(1,2)
//   Four     (c(0,4) + c(2,4)) + (c(1,4) + c(3,4))
//   Eight32  l(r) = c(r,8) + c(r+4,8): (l(0) + l(2)) + (l(1) + l(3))
//   Eight64  ((c0 + c2) + (c4 + c6)) + ((c1 + c3) + (c5 + c7)), c(r) = c(r,8)
// The limit m is K rounded down to a multiple of `mult` (2, 4 or 8), which a
// row's rule may choose larger than the lane count (Four with m8).
//
// Generic paths start every accumulator at +0.0. Leading terms: the first
// `lead` terms are summed in order and that sum starts accumulator c(0);
// the lanes then count from k = lead, and the limit is lead plus K - lead
// rounded down.
#pragma once

#include <cstdint>

#include "frame/frame.hpp"

namespace zel::products {

enum class Sum : std::uint8_t { Seq, Pair, Four, Eight32, Eight64 };

struct Ord {
    Sum sum;
    std::int8_t mult;  // the limit m is a multiple of this (unused for Seq)
};

inline constexpr Ord kSeq{Sum::Seq, 1};

constexpr int lanes_of(Sum s) {
    return s == Sum::Pair ? 2 : s == Sum::Four ? 4 : (s == Sum::Eight32 || s == Sum::Eight64) ? 8 : 1;
}

// The sum of t(0) .. t(K-1) in order `o`, accumulators from +0.0.
template <class T, class Term>
ZEL_INLINE T ordered_sum(Ord o, int K, int lead, Term t) {
    if (o.sum == Sum::Seq || lead >= K) {
        T s = T(0);
        for (int k = 0; k < K; ++k) s += t(k);
        return s;
    }
    const int lanes = lanes_of(o.sum);
    const int m = lead + (K - lead) / o.mult * o.mult;
    T c[8] = {T(0), T(0), T(0), T(0), T(0), T(0), T(0), T(0)};
    for (int k = 0; k < lead; ++k) c[0] += t(k);
    for (int k = lead; k < m; ++k) c[(k - lead) % lanes] += t(k);
    T s;
    switch (o.sum) {
        case Sum::Pair: s = c[0] + c[1]; break;
        case Sum::Four: s = (c[0] + c[2]) + (c[1] + c[3]); break;
        case Sum::Eight32: {
            const T l0 = c[0] + c[4], l1 = c[1] + c[5], l2 = c[2] + c[6], l3 = c[3] + c[7];
            s = (l0 + l2) + (l1 + l3);
            break;
        }
        default: s = ((c[0] + c[2]) + (c[4] + c[6])) + ((c[1] + c[3]) + (c[5] + c[7])); break;
    }
    for (int k = m; k < K; ++k) s += t(k);
    return s;
}

// The fast paths of exact orders 3 to 6 start from their first term. Besides
// the sequential order, the matrix-vector and Gaxpy fast paths add in vector
// lanes; their associations, by order n and (order 5) row:
//   Seq   t0 + t1 + ... in one chain
//   Spread   n=4 (t0+t2)+(t1+t3); n=5 rows 0-3 ((t0+t1)+t4)+(t2+t3),
//            row 4 ((t0+t2)+t4)+(t1+t3); n=6 ((t0+t2)+t4)+((t1+t3)+t5)
//   Adjacent n=3 (t0+t1)+t2; n=4 (t0+t1)+(t2+t3); n=5 ((t0+t1)+(t2+t3))+t4;
//            n=6 ((t0+t1)+(t2+t3))+(t4+t5)
//   Split    n=4 (t0+t1)+(t2+t3); n=5 ((t0+t1)+t4)+(t2+t3);
//            n=6 ((t0+t1)+(t2+t3))+(t4+t5)
//   LastFirst  t(n-1) joins t0 first: ((t0 + t(n-1)) + t1) + ... + t(n-2)
// The last two orders' n=3 are sequential.
enum class Fast : std::uint8_t { None, Seq, Spread, Adjacent, Split, LastFirst };

template <class T>
ZEL_INLINE T fast_sum(Fast f, int n, int row, const T* t) {
    switch (f) {
        case Fast::Spread:
            if (n == 4) return (t[0] + t[2]) + (t[1] + t[3]);
            if (n == 5) {
                if (row < 4) return ((t[0] + t[1]) + t[4]) + (t[2] + t[3]);
                return ((t[0] + t[2]) + t[4]) + (t[1] + t[3]);
            }
            if (n == 6) return ((t[0] + t[2]) + t[4]) + ((t[1] + t[3]) + t[5]);
            break;
        case Fast::Adjacent:
            if (n == 3) return (t[0] + t[1]) + t[2];
            if (n == 4) return (t[0] + t[1]) + (t[2] + t[3]);
            if (n == 5) return ((t[0] + t[1]) + (t[2] + t[3])) + t[4];
            if (n == 6) return ((t[0] + t[1]) + (t[2] + t[3])) + (t[4] + t[5]);
            break;
        case Fast::Split:
            if (n == 4) return (t[0] + t[1]) + (t[2] + t[3]);
            if (n == 5) return ((t[0] + t[1]) + t[4]) + (t[2] + t[3]);
            if (n == 6) return ((t[0] + t[1]) + (t[2] + t[3])) + (t[4] + t[5]);
            break;
        case Fast::LastFirst:
            if (n >= 4) {
                T s = t[0] + t[n - 1];
                for (int k = 1; k < n - 1; ++k) s += t[k];
                return s;
            }
            break;
        default: break;
    }
    T s = t[0];
    for (int k = 1; k < n; ++k) s += t[k];
    return s;
}

// Which rows get which order outside the fast paths. Rows are either block
// rows (in the register tiles) or remaining rows. Two ways to classify:
//   Tiles4: rows below H rounded down to 4 are block rows; R = H mod 4.
//   Blocks8: T = H rounded down to 8, r = H - T; r >= 4: all rows are block
//            rows; else rows below T, and R = r remaining rows.
// A row rule picks by the number of terms K' (K less leading terms).
enum class Rows : std::uint8_t { Tiles4, Blocks8 };

struct RowRule {
    Rows rows;
    int block_k;        // K' below it: block rows sequential
    Ord block;          // else this
    int rem_k;          // K' below it: remaining rows sequential
    Ord rem[3][3];      // else rem[R-1][row within the remainder]
    bool lead;          // leading terms up to the vector's 16-byte boundary
};

// The order of row i of H.
constexpr Ord row_order(const RowRule& r, int H, int i, int Kp) {
    int base, R;
    if (r.rows == Rows::Tiles4) {
        base = H & ~3;
        R = H & 3;
    } else {
        base = H & ~7;
        R = H - base;
        if (R >= 4) base = H;
    }
    if (i < base) return Kp < r.block_k ? kSeq : r.block;
    return Kp < r.rem_k ? kSeq : r.rem[R - 1][i - base];
}

}  // namespace zel::products
