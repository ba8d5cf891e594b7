// 4x4 operations: product, product transposed, transpose, determinant and
// inversion. The product is the only one that tests its pointers.
#include <cmath>

#include "geometry/geometry.hpp"

namespace zel::geometry {

namespace {

// A pivot row whose largest magnitude is below 12 * 2^-23 counts as singular:
// an absolute threshold, whatever the scale of the matrix.
constexpr float kPivotMin = std::bit_cast<float>(0x35C00000u);
static_assert(kPivotMin == 1.4305115e-06f);

// Step k of the elimination, with the pivot in column C of row K: row K
// divided by the pivot p, then its multiple t = B[r][C] taken from every other
// row r, in B and in I beside it. The lanes of B that hold columns already
// eliminated (perm[0..k-1]) are updated too: row K holds +0 there, so they
// change at most by the sign of a zero, and they are never read again.
template <int K, int C>
ZEL_INLINE void eliminate(V (&B)[4], V (&I)[4], float p) {
    const V pv = _mm_set1_ps(p);
    B[K] = _mm_div_ps(B[K], pv);
    I[K] = _mm_div_ps(I[K], pv);
    for (int r = 0; r < 4; ++r) {
        if (r == K) continue;
        const V t = lane<C>(B[r]);
        B[r] = _mm_sub_ps(B[r], _mm_mul_ps(B[K], t));
        I[r] = _mm_sub_ps(I[r], _mm_mul_ps(I[K], t));
    }
}

// Step K: the pivot search along row K over the columns not yet used, in the
// order of perm, keeping the first largest magnitude.
template <int K>
ZEL_INLINE bool pivot_step(V (&B)[4], V (&I)[4], int (&perm)[4], float& d) {
    alignas(16) float row[4];
    _mm_store_ps(row, B[K]);
    int best = K;
    float big = std::fabs(row[perm[K]]);
    for (int c = K + 1; c < 4; ++c) {
        const float a = std::fabs(row[perm[c]]);
        if (a > big) {
            big = a;
            best = c;
        }
    }
    if (big < kPivotMin) return false;
    const int col = perm[best];
    perm[best] = perm[K];
    perm[K] = col;
    const float p = row[col];
    d = d * p;
    switch (col) {
        case 0: eliminate<K, 0>(B, I, p); break;
        case 1: eliminate<K, 1>(B, I, p); break;
        case 2: eliminate<K, 2>(B, I, p); break;
        default: eliminate<K, 3>(B, I, p); break;
    }
    return true;
}

}  // namespace

// Gauss-Jordan on a working copy B of the source with an identity I beside
// it, in 32 bits, a division per element of the pivot row. The pivot of row k
// is its first largest element among the columns not yet used, so the
// columns are permuted (perm) and the rows of the result come out in that
// order: row perm[r] of the inverse is row r of I. The determinant is the
// product of the pivots, its sign that of perm. On a singular row the
// destination is not touched and the determinant is 0. Every source element
// is read before the first store, so src may be dst.
zelStatus invert(const float* src, float* det, float* dst) {
    const Rows S = load_rows(src);
    V B[4] = {S.r[0], S.r[1], S.r[2], S.r[3]};
    V I[4] = {_mm_setr_ps(1, 0, 0, 0), _mm_setr_ps(0, 1, 0, 0), _mm_setr_ps(0, 0, 1, 0), _mm_setr_ps(0, 0, 0, 1)};
    int perm[4] = {0, 1, 2, 3};
    float d = 1.0f;
    if (!pivot_step<0>(B, I, perm, d) || !pivot_step<1>(B, I, perm, d) || !pivot_step<2>(B, I, perm, d) ||
        !pivot_step<3>(B, I, perm, d)) {
        if (det) *det = 0.0f;
        return zelStsErrSingular;
    }
    for (int r = 0; r < 4; ++r) F4::store(dst + 4 * perm[r], I[r]);
    if (det) {
        // the parity of perm, counted by sorting it with exchanges
        int swaps = 0;
        for (int i = 0; i < 3; ++i)
            for (int j = i + 1; j < 4; ++j)
                if (perm[j] == i) {
                    perm[j] = perm[i];
                    perm[i] = i;
                    ++swaps;
                }
        *det = (swaps & 1) ? -d : d;
    }
    return zelStsOk;
}

}  // namespace zel::geometry

namespace g = zel::geometry;

// dst = src1 * src2, sums in the order of k; every source element is read
// before the first store, so dst may be either source.
extern "C" ZEL_INTERNAL zelStatus w7_zelmMul_mm4x4_32f(const float* pSrc1, const float* pSrc2, float* pDst) {
    if (!pSrc1 || !pSrc2 || !pDst) return zelStsErrNullPointer;
    g::store_rows(pDst, g::product(pSrc1, pSrc2));
    return zelStsOk;
}

// dst = (src1 * src2) transposed: the product's rows, transposed in registers.
extern "C" ZEL_INTERNAL zelStatus w7_zelmMulTranspose_m4_32f(const float* pSrc1, const float* pSrc2, float* pDst) {
    g::Rows p = g::product(pSrc1, pSrc2);
    _MM_TRANSPOSE4_PS(p.r[0], p.r[1], p.r[2], p.r[3]);
    g::store_rows(pDst, p);
    return zelStsOk;
}

// Element by element, row by row of the destination: not in place.
extern "C" ZEL_INTERNAL zelStatus w7_zelmTranspose_m4_32f(const float* pSrc, float* pDst) {
    for (int i = 0; i < 4; ++i)
        for (int j = 0; j < 4; ++j) pDst[4 * i + j] = pSrc[4 * j + i];
    return zelStsOk;
}

// Expansion along row 0 with the 2x2 minors of rows 2 and 3,
// d(i, j) = m[2][i] * m[3][j] - m[2][j] * m[3][i]. No test for singularity:
// a singular matrix gives whatever this sum gives, typically 0.
extern "C" ZEL_INTERNAL zelStatus w7_zelmDet_m4_32f(const float* pSrc, float* pDst) {
    const float(*m)[4] = reinterpret_cast<const float(*)[4]>(pSrc);
    const auto d = [m](int i, int j) { return m[2][i] * m[3][j] - m[2][j] * m[3][i]; };
    const float d01 = d(0, 1), d02 = d(0, 2), d03 = d(0, 3), d12 = d(1, 2), d13 = d(1, 3), d23 = d(2, 3);
    *pDst = (m[1][1] * d23 - m[1][2] * d13 + m[1][3] * d12) * m[0][0] -
            (d23 * m[1][0] - m[1][2] * d03 + m[1][3] * d02) * m[0][1] +
            (d13 * m[1][0] - d03 * m[1][1] + m[1][3] * d01) * m[0][2] -
            (d12 * m[1][0] - m[1][1] * d02 + m[1][2] * d01) * m[0][3];
    return zelStsOk;
}

extern "C" ZEL_INTERNAL zelStatus w7_zelmInvert_m4_32f(const float* pSrc, float* pDet, float* pDst) {
    return g::invert(pSrc, pDet, pDst);
}
