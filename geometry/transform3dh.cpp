// zelmAffineTransform3DH_mva_32f: tests, kernels and wrapper (quirks in
// transform3dh.hpp).
#include "geometry/transform3dh.hpp"

#include <cfloat>
#include <cmath>

#include "frame/fanout.hpp"
#include "geometry/geometry.hpp"

namespace zel::geometry::h3d {
namespace {

// The kernel: M's columns in lanes (lane i of column j is M[i][j]), so that
// one sum gives the three components and w in lane 3. A w of magnitude at
// most 2^-126 (the smallest normal float; a NaN too) can't be divided by: the
// vector gets the largest float in all three components, the kernel
// remembers zelStsErrDivByZero and goes on.
template <bool Unit>
zelStatus kernel(const Call<float>& c) {
    constexpr Assoc sum = assoc_of(Unit);
    const Opd m = c.src[0], x = c.src[1], d = c.dst[0];
    const auto el = [](const Opd& o, std::ptrdiff_t base, int j) {
        return byte_add<float>(o.p, base + (Unit ? std::ptrdiff_t(4) * j : std::ptrdiff_t(o.s2) * j));
    };
    V col[4];
    for (int j = 0; j < 4; ++j)
        col[j] = _mm_setr_ps(load(el(m, 0, j)), load(el(m, m.s1, j)), load(el(m, 2 * std::ptrdiff_t(m.s1), j)),
                             load(el(m, 3 * std::ptrdiff_t(m.s1), j)));
    const V huge = _mm_set1_ps(FLT_MAX);
    zelStatus st = zelStsOk;
    for (int n = 0; n < c.count; ++n) {
        const std::ptrdiff_t xs = std::ptrdiff_t(n) * x.s0, ds = std::ptrdiff_t(n) * d.s0;
        const V X = _mm_set1_ps(load(el(x, xs, 0))), Y = _mm_set1_ps(load(el(x, xs, 1)));
        const V Z = _mm_set1_ps(load(el(x, xs, 2)));
        V s;
        if constexpr (sum == Assoc::Pairs)
            s = _mm_add_ps(_mm_add_ps(_mm_mul_ps(col[0], X), _mm_mul_ps(col[1], Y)),
                           _mm_add_ps(_mm_mul_ps(col[2], Z), col[3]));
        else
            s = _mm_add_ps(_mm_add_ps(_mm_add_ps(_mm_mul_ps(col[0], X), col[3]), _mm_mul_ps(col[1], Y)),
                           _mm_mul_ps(col[2], Z));
        const float w = _mm_cvtss_f32(lane<3>(s));
        V out = huge;
        if (std::fabs(w) > FLT_MIN) out = _mm_mul_ps(s, _mm_set1_ps(1.0f / w));
        else st = zelStsErrDivByZero;
        if constexpr (Unit) {
            F4::store<3>(el(d, ds, 0), out);
        } else {
            alignas(16) float o[4];
            _mm_store_ps(o, out);
            for (int j = 0; j < 3; ++j) store(el(d, ds, j), o[j]);
        }
    }
    return st;
}

zelStatus w7_ownzelmAffineTransform3DH_mva_32f(const Call<float>& c) { return kernel<true>(c); }
zelStatus w7_ownzelmAffineTransform3DH_mva_32f_S2(const Call<float>& c) { return kernel<false>(c); }

// The kernel by the stride test, the same on the direct path and in the
// wrapper.
zelStatus run(const Call<float>& c) {
    const bool unit = c.src[0].s2 == 4 && c.src[1].s2 == 4 && c.dst[0].s2 == 4;
    return unit ? w7_ownzelmAffineTransform3DH_mva_32f(c) : w7_ownzelmAffineTransform3DH_mva_32f_S2(c);
}

// Slices of the vector array, the matrix shared; no scratch; the first
// failing status kept.
zelStatus w7_ownOMP_zelmAffineTransform3DH_mva_32f(const Call<float>& c) {
    FanSpec fs{};
    fs.form = Form::S;
    fs.src_arrays = 2u;
    fs.dst_arrays = 1u;
    fs.merge_status = true;
    return fan_out(c, fs, run);
}

}  // namespace
}  // namespace zel::geometry::h3d

extern "C" ZEL_INTERNAL zelStatus w7_zelmAffineTransform3DH_mva_32f(const float* pSrc1, int src1Stride1,
                                                                    int src1Stride2, const float* pSrc2,
                                                                    int src2Stride0, int src2Stride2, float* pDst,
                                                                    int dstStride0, int dstStride2, int count) {
    using zel::bad_stride;
    namespace h = zel::geometry::h3d;
    if (!pSrc1 || !pSrc2 || !pDst) return zelStsErrNullPointer;
    if (count < 1) return zelStsErrCount;
    if (bad_stride<float>(src1Stride1) || bad_stride<float>(src1Stride2) || bad_stride<float>(src2Stride0) ||
        bad_stride<float>(src2Stride2) || bad_stride<float>(dstStride0) || bad_stride<float>(dstStride2))
        return zelStsErrStride;
    zel::Call<float> c{};
    c.src[0] = zel::Opd{pSrc1, 0, 0, src1Stride1, src1Stride2};
    c.src[1] = zel::Opd{pSrc2, 0, src2Stride0, 0, src2Stride2};
    c.dst[0] = zel::Opd{pDst, 0, dstStride0, 0, dstStride2};
    c.count = count;
    if (h::fans_out(count)) return h::w7_ownOMP_zelmAffineTransform3DH_mva_32f(c);
    return h::run(c);
}
