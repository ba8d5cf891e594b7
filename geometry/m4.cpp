// 4x4 operations: product, product transposed, transpose, determinant and
// inversion. The product is the only one that tests its pointers.
#include "geometry/geometry.hpp"

namespace zel::geometry {

namespace {

// A pivot row whose largest magnitude is below 12 * 2^-23 counts as singular:
// an absolute threshold, whatever the scale of the matrix.
constexpr float kPivotMin = std::bit_cast<float>(0x35C00000u);
static_assert(kPivotMin == 1.4305115e-06f);

// The working copy is kept with its columns in the order of perm: lane c of
// row r holds B[r][perm[c]]. The scan over perm[k..3] is then a scan over
// lanes k..3, an exchange in perm an exchange of two lanes in every row, and
// the pivot column of step k is lane k.

// Lanes K and C of v exchanged.
template <int K, int C>
ZEL_INLINE V swap_lanes(V v) {
    constexpr auto sel = [](int i) { return i == K ? C : i == C ? K : i; };
    return _mm_shuffle_ps(v, v, sel(0) | sel(1) << 2 | sel(2) << 4 | sel(3) << 6);
}

// The first lane c in K..3 of the largest magnitude in row K, and that
// magnitude: a maximum over the lanes, then the first lane equal to it. A
// NaN among them (which never wins a strict comparison) takes the scan as
// written.
template <int K>
ZEL_INLINE int pivot_lane(V row, float& big) {
    constexpr int keep = 0xF & (0xF << K);
    const V a = _mm_and_ps(row, _mm_castsi128_ps(_mm_set1_epi32(0x7FFFFFFF)));
    if (_mm_movemask_ps(_mm_cmpunord_ps(a, a)) & keep) {
        alignas(16) float l[4];
        _mm_store_ps(l, a);
        int best = K;
        big = l[K];
        for (int c = K + 1; c < 4; ++c)
            if (l[c] > big) big = l[c], best = c;
        return best;
    }
    const V live = _mm_castsi128_ps(_mm_setr_epi32(K <= 0 ? -1 : 0, K <= 1 ? -1 : 0, K <= 2 ? -1 : 0, -1));
    V m = _mm_and_ps(a, live);
    m = _mm_max_ps(m, _mm_shuffle_ps(m, m, _MM_SHUFFLE(1, 0, 3, 2)));
    m = _mm_max_ps(m, _mm_shuffle_ps(m, m, _MM_SHUFFLE(2, 3, 0, 1)));
    big = _mm_cvtss_f32(m);
    return __builtin_ctz(unsigned(_mm_movemask_ps(_mm_cmpeq_ps(a, m))) & keep);
}

// Step K: the pivot, its column moved to lane K, row K divided by the pivot
// p (a division per element), then its multiple t = B[r][perm[K]] taken from
// every other row r, in B and in I beside it. The lanes of columns already
// eliminated (0..K-1) are updated too: row K holds +0 there, so they change
// at most by the sign of a zero, and they are never read again.
template <int K>
ZEL_INLINE bool pivot_step(V (&B)[4], V (&I)[4], int (&perm)[4], float& d) {
    float big;
    const int c = pivot_lane<K>(B[K], big);
    if (big < kPivotMin) return false;
    if (c != K) {
        const int col = perm[c];
        perm[c] = perm[K];
        perm[K] = col;
        for (V& row : B) {
            if constexpr (K < 3) {
                if (c == K + 1) row = swap_lanes<K, K + 1>(row);
            }
            if constexpr (K < 2) {
                if (c == K + 2) row = swap_lanes<K, K + 2>(row);
            }
            if constexpr (K < 1) {
                if (c == K + 3) row = swap_lanes<K, K + 3>(row);
            }
        }
    }
    const float p = _mm_cvtss_f32(lane<K>(B[K]));
    d = d * p;
    const V pv = _mm_set1_ps(p);
    B[K] = _mm_div_ps(B[K], pv);
    I[K] = _mm_div_ps(I[K], pv);
    for (int r = 0; r < 4; ++r) {
        if (r == K) continue;
        const V t = lane<K>(B[r]);
        B[r] = _mm_sub_ps(B[r], _mm_mul_ps(B[K], t));
        I[r] = _mm_sub_ps(I[r], _mm_mul_ps(I[K], t));
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
