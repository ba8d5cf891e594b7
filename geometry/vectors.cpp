// Vectors of 2, 3 and 4 floats: arithmetic, products, lengths, extremes and
// the interpolators of 3D graphics. Each family is one template over the
// length; all arithmetic in 32 bits in the order written (but Hermite's
// weights, in 64). Nothing is tested and every call returns zelStsOk.
#include "geometry/geometry.hpp"

namespace zel::geometry {
namespace {

template <int N>
zelStatus add(const float* a, const float* b, float* dst) {
    for (int i = 0; i < N; ++i) dst[i] = a[i] + b[i];
    return zelStsOk;
}

template <int N>
zelStatus mul_c(const float* src, float val, float* dst) {
    for (int i = 0; i < N; ++i) dst[i] = src[i] * val;
    return zelStsOk;
}

// b wins a tie and a NaN on either side, so min(+0, -0) is -0 and
// min(-0, +0) is +0.
template <int N>
zelStatus min(const float* a, const float* b, float* dst) {
    for (int i = 0; i < N; ++i) dst[i] = a[i] < b[i] ? a[i] : b[i];
    return zelStsOk;
}
template <int N>
zelStatus max(const float* a, const float* b, float* dst) {
    for (int i = 0; i < N; ++i) dst[i] = a[i] > b[i] ? a[i] : b[i];
    return zelStsOk;
}

template <int N>
zelStatus dot_product(const float* a, const float* b, float* dst) {
    *dst = dot<N>(a, b);
    return zelStsOk;
}
template <int N>
zelStatus len_sqr_of(const float* src, float* dst) {
    *dst = len_sqr<N>(src);
    return zelStsOk;
}
template <int N>
zelStatus len_of(const float* src, float* dst) {
    *dst = len<N>(src);
    return zelStsOk;
}

// a + (b - a) * val1 + (c - a) * val2, left to right.
template <int N>
zelStatus bary_centric(const float* a, const float* b, const float* c, float val1, float val2, float* dst) {
    for (int i = 0; i < N; ++i) dst[i] = (b[i] - a[i]) * val1 + a[i] + (c[i] - a[i]) * val2;
    return zelStsOk;
}

template <int N>
zelStatus lerp(const float* a, const float* b, float val, float* dst) {
    for (int i = 0; i < N; ++i) dst[i] = a[i] + (b[i] - a[i]) * val;
    return zelStsOk;
}

// The cubic from position a with tangent b (s = 0) to position c with
// tangent d (s = 1). The basis weights w1 = s - 2s^2 + s^3 (of b),
// w2 = 2s^3 - 3s^2 (of a - c) and w3 = s^3 - s^2 (of d) are formed in 64 bits
// from the 32-bit powers and rounded once each.
template <int N>
zelStatus hermite(const float* a, const float* b, const float* c, const float* d, float s, float* dst) {
    const float s2 = s * s;
    const float s3 = s2 * s;
    const double S = s, S2 = s2, S3 = s3;
    const float w1 = float(S - S2 - S2 + S3);
    const float w2 = float(S3 - 3.0 * S2 + S3);
    const float w3 = float(S3 - S2);
    for (int i = 0; i < N; ++i) dst[i] = (a[i] - c[i]) * w2 + ((a[i] + b[i] * w1) + d[i] * w3);
    return zelStsOk;
}

// The Hermite curve from p1 to p2 with the tangents of the neighbours.
template <int N>
zelStatus catmull_rom(const float* p0, const float* p1, const float* p2, const float* p3, float s, float* dst) {
    float t1[N], t2[N];
    for (int i = 0; i < N; ++i) t1[i] = (p2[i] - p0[i]) * 0.5f;
    for (int i = 0; i < N; ++i) t2[i] = (p3[i] - p1[i]) * 0.5f;
    return hermite<N>(p1, t1, p2, t2, s, dst);
}

}  // namespace
}  // namespace zel::geometry

ZEL_V234(Add, add, (const float* pSrc1, const float* pSrc2, float* pDst), (pSrc1, pSrc2, pDst))
ZEL_V234(Sub, sub, (const float* pSrc1, const float* pSrc2, float* pDst), (pSrc1, pSrc2, pDst))
ZEL_V234(MulC, mul_c, (const float* pSrc, float val, float* pDst), (pSrc, val, pDst))
ZEL_V234(Min, min, (const float* pSrc1, const float* pSrc2, float* pDst), (pSrc1, pSrc2, pDst))
ZEL_V234(Max, max, (const float* pSrc1, const float* pSrc2, float* pDst), (pSrc1, pSrc2, pDst))
ZEL_V234(DotProduct, dot_product, (const float* pSrc1, const float* pSrc2, float* pDst), (pSrc1, pSrc2, pDst))
ZEL_V234(LenSqr, len_sqr_of, (const float* pSrc, float* pDst), (pSrc, pDst))
ZEL_V234(Len, len_of, (const float* pSrc, float* pDst), (pSrc, pDst))
ZEL_V234(Normalize, normalize, (const float* pSrc, float* pDst), (pSrc, pDst))
ZEL_V234(BaryCentric, bary_centric,
         (const float* pSrc1, const float* pSrc2, const float* pSrc3, float val1, float val2, float* pDst),
         (pSrc1, pSrc2, pSrc3, val1, val2, pDst))
ZEL_V234(InterpolationLinear, lerp, (const float* pSrc1, const float* pSrc2, float val, float* pDst),
         (pSrc1, pSrc2, val, pDst))
ZEL_V234(Hermite, hermite,
         (const float* pSrc1, const float* pSrc2, const float* pSrc3, const float* pSrc4, float val, float* pDst),
         (pSrc1, pSrc2, pSrc3, pSrc4, val, pDst))
ZEL_V234(InterpolationCatmullRom, catmull_rom,
         (const float* pSrc1, const float* pSrc2, const float* pSrc3, const float* pSrc4, float val, float* pDst),
         (pSrc1, pSrc2, pSrc3, pSrc4, val, pDst))

// CrossProduct differs by length: the v2 form is one value, the 2D cross
// product; the v4 form is the vector orthogonal to three others, from the
// 2x2 minors m(i, j) = b[i] * c[j] - b[j] * c[i] of the last two.
extern "C" ZEL_INTERNAL zelStatus w7_zelmCrossProduct_v2_32f(const float* pSrc1, const float* pSrc2, float* pDst) {
    *pDst = pSrc1[0] * pSrc2[1] - pSrc1[1] * pSrc2[0];
    return zelStsOk;
}

extern "C" ZEL_INTERNAL zelStatus w7_zelmCrossProduct_v3_32f(const float* pSrc1, const float* pSrc2, float* pDst) {
    return zel::geometry::cross3(pSrc1, pSrc2, pDst);
}

extern "C" ZEL_INTERNAL zelStatus w7_zelmCrossProduct_v4_32f(const float* pSrc1, const float* pSrc2,
                                                             const float* pSrc3, float* pDst) {
    const float *a = pSrc1, *b = pSrc2, *c = pSrc3;
    const float m01 = b[0] * c[1] - b[1] * c[0], m02 = b[0] * c[2] - b[2] * c[0];
    const float m03 = b[0] * c[3] - b[3] * c[0], m12 = b[1] * c[2] - b[2] * c[1];
    const float m13 = b[1] * c[3] - b[3] * c[1], m23 = b[2] * c[3] - b[3] * c[2];
    pDst[0] = m23 * a[1] - m13 * a[2] + m12 * a[3];
    pDst[1] = -(m23 * a[0] - m03 * a[2] + m02 * a[3]);
    pDst[2] = m13 * a[0] - m03 * a[1] + m01 * a[3];
    pDst[3] = -(m12 * a[0] - m02 * a[1] + m01 * a[2]);
    return zelStsOk;
}
