// Points and normals through a 4x4 matrix as row vectors, single and in
// arrays with byte strides, and the projection to a viewport and back.
// The arithmetic of each transform is one function of geometry.hpp; the array
// forms run it point by point, so their results equal the single forms' bit
// for bit. Nothing is tested; an array call with count below 1 writes nothing.
#include <immintrin.h>

#include "frame/cpu.hpp"
#include "geometry/geometry.hpp"

namespace zel::geometry {
namespace {

// One point: N coordinates in, Out components of f's result out. All of the
// point is read before the first store.
template <int N, int Out, V (*f)(const Rows&, const Point&)>
ZEL_INLINE void one(const Rows& m, const float* src, float* dst) {
    F4::store<Out>(dst, f(m, point_of<N>(F4::load<N>(src))));
}

template <int N, int Out, V (*f)(const Rows&, const Point&)>
zelStatus single(const float* matrix, const float* src, float* dst) {
    one<N, Out, f>(load_rows(matrix), src, dst);
    return zelStsOk;
}

// The array forms point by point, each point's source read before its
// destination is written.
template <int N, int Out, V (*f)(const Rows&, const Point&)>
ZEL_INLINE void each(const Rows& m, const float* src, int ss, float* dst, int ds, int count) {
    for (int n = 0; n < count; ++n)
        one<N, Out, f>(m, byte_add<const float>(src, std::ptrdiff_t(n) * ss),
                       byte_add<float>(dst, std::ptrdiff_t(n) * ds));
}

// The dense layout of zelmAffineTransform_m4v3a_32f (12 bytes in, 16 out) and
// of zelmAffineTransformCoord_m4v3a_32f (12 in, 12 out): a point is loaded
// with one 16-byte load that takes the next point's x along in its unused
// lane, all points but the last; from point `from` on.
template <int Out, V (*f)(const Rows&, const Point&)>
ZEL_INLINE void dense3(const Rows& m, const float* src, float* dst, int dstep, int from, int count) {
    src += 3 * std::ptrdiff_t(from);
    dst += dstep * std::ptrdiff_t(from);
#pragma GCC unroll 2
    for (int n = from; n + 1 < count; ++n, src += 3, dst += dstep)
        F4::store<Out>(dst, f(m, point_of<3>(F4::load(src))));
    one<3, Out, f>(m, src, dst);
}

// Whether `count` points of the source (12 bytes each) and of the
// destination (`dbytes` each), both packed, lie apart in memory, so that a
// point's source may be read after an earlier point's destination is
// written.
inline bool apart(const float* src, const float* dst, int dbytes, int count) {
    const auto s = reinterpret_cast<std::uintptr_t>(src), d = reinterpret_cast<std::uintptr_t>(dst);
    return d + std::uintptr_t(count) * std::uintptr_t(dbytes) <= s || s + std::uintptr_t(count) * 12u <= d;
}

// zelmAffineTransform_m4v3a_32f's dense layout two points at a time in the
// 256-bit AVX lanes, one point per 128-bit half: each half does exactly the
// operations of transform3, so the results are the same bits. Returns the
// points done; the last one is always left to the 128-bit loop.
__attribute__((target("avx"))) int transform3_dense_avx(const Rows& m, const float* src, float* dst, int count) {
    __m256 r[4];
    for (int i = 0; i < 4; ++i) r[i] = _mm256_insertf128_ps(_mm256_castps128_ps256(m.r[i]), m.r[i], 1);
    int n = 0;
    for (; n + 2 < count; n += 2, src += 6, dst += 8) {
        const __m256 v = _mm256_insertf128_ps(_mm256_castps128_ps256(_mm_loadu_ps(src)), _mm_loadu_ps(src + 3), 1);
        const __m256 x = _mm256_permute_ps(v, 0x00), y = _mm256_permute_ps(v, 0x55), z = _mm256_permute_ps(v, 0xAA);
        const __m256 s = _mm256_add_ps(_mm256_add_ps(r[3], _mm256_mul_ps(r[0], x)), _mm256_mul_ps(r[1], y));
        _mm256_storeu_ps(dst, _mm256_add_ps(s, _mm256_mul_ps(r[2], z)));
    }
    return n;
}

// How an array form treats the dense layout (12 bytes per source point,
// 4 * Out per destination point): not at all, by the 128-bit dense loop, or
// two points at a time in AVX first (transform3 only).
enum class Dense { None, Plain, Avx };

// The array forms: count below 1 writes nothing.
template <int N, int Out, V (*f)(const Rows&, const Point&), Dense D = Dense::None>
zelStatus array(const float* matrix, const float* src, int ss, float* dst, int ds, int count) {
    static_assert(D != Dense::Avx || f == transform3);
    if (count < 1) return zelStsOk;
    const Rows m = load_rows(matrix);
    if constexpr (D != Dense::None) {
        if (ss == 12 && ds == 4 * Out) {
            int done = 0;
            if constexpr (D == Dense::Avx)
                if (cpu::avx() && apart(src, dst, 4 * Out, count)) done = transform3_dense_avx(m, src, dst, count);
            dense3<Out, f>(m, src, dst, Out, done, count);
            return zelStsOk;
        }
    }
    each<N, Out, f>(m, src, ss, dst, ds, count);
    return zelStsOk;
}

// The viewport mapping of a point in normalised device coordinates t: x from
// [-1, 1] to [0, width], y likewise but pointing down, depth from [0, 1] to
// [minZ, maxZ].
struct Viewport {
    float width, height, min_z, max_z;
};

// World, view and projection in turn, each dividing by its own w, then the
// viewport.
struct Projector {
    Rows world, view, proj;
    Viewport vp;
    ZEL_INLINE void operator()(const float* src, float* dst) const {
        V t = coord3(world, point_of<3>(F4::load<3>(src)));
        t = coord3(view, point_of<3>(t));
        t = coord3(proj, point_of<3>(t));
        alignas(16) float n[4];
        _mm_store_ps(n, t);
        dst[0] = (n[0] + 1.0f) * vp.width * 0.5f;
        dst[1] = (1.0f - n[1]) * vp.height * 0.5f;
        dst[2] = (1.0f - n[2]) * vp.min_z + vp.max_z * n[2];
    }
};

// The viewport coordinates of src back to normalised device coordinates,
// with the depth range given as maxZ - minZ.
ZEL_INLINE void to_device(const float* src, const Viewport& vp, float depth, float* dst) {
    dst[0] = 2.0f * src[0] / vp.width - 1.0f;
    dst[1] = 1.0f + -2.0f * src[1] / vp.height;
    dst[2] = (src[2] - vp.min_z) / depth;
}

// The inverse of (world * view) * projection.
ZEL_INLINE zelStatus inverse_of_product(const float* proj, const float* view, const float* world, float* inv) {
    float wv[16], wvp[16];
    w7_ownMulMat_32f(world, view, wv);
    w7_ownMulMat_32f(wv, proj, wvp);
    return invert(wvp, nullptr, inv);
}

}  // namespace
}  // namespace zel::geometry

namespace g = zel::geometry;
using g::Point;
using g::Rows;
using g::V;

// The single and array API functions of one transform: N coordinates in,
// Out components of f out.
#define ZEL_TRANSFORMS(Name, sig, N, Out, f, dense)                                                              \
    extern "C" ZEL_INTERNAL zelStatus w7_zelm##Name##_##sig##_32f(const float* pMatrix, const float* pSrc,        \
                                                                  float* pDst) {                                  \
        return g::single<N, Out, f>(pMatrix, pSrc, pDst);                                                         \
    }                                                                                                             \
    extern "C" ZEL_INTERNAL zelStatus w7_zelm##Name##_##sig##a_32f(const float* pMatrix, const float* pSrc,       \
                                                                   int srcStride, float* pDst, int dstStride,     \
                                                                   int count) {                                   \
        return g::array<N, Out, f, dense>(pMatrix, pSrc, srcStride, pDst, dstStride, count);                      \
    }

using g::Dense;
ZEL_TRANSFORMS(AffineTransform, m4v2, 2, 4, g::transform2, Dense::None)
ZEL_TRANSFORMS(AffineTransform, m4v3, 3, 4, g::transform3, Dense::Avx)
ZEL_TRANSFORMS(AffineTransform, m4v4, 4, 4, g::transform4, Dense::None)
ZEL_TRANSFORMS(AffineTransformCoord, m4v2, 2, 2, g::coord2, Dense::None)
ZEL_TRANSFORMS(AffineTransformCoord, m4v3, 3, 3, g::coord3, Dense::Plain)
ZEL_TRANSFORMS(AffineTransformNormal, m4v2, 2, 2, g::normal2, Dense::None)
ZEL_TRANSFORMS(AffineTransformNormal, m4v3, 3, 3, g::normal3, Dense::None)

// Projection to the viewport; a w of 0 on the way gives infinities or NaN.
extern "C" ZEL_INTERNAL zelStatus w7_zelmProject_m4v3_32f(const float* pProjection, const float* pView,
                                                          const float* pWorld, const float* pSrc,
                                                          float viewportWidth, float viewportHeight,
                                                          float viewportMinZ, float viewportMaxZ, float* pDst) {
    const g::Projector p{g::load_rows(pWorld), g::load_rows(pView), g::load_rows(pProjection),
                         {viewportWidth, viewportHeight, viewportMinZ, viewportMaxZ}};
    p(pSrc, pDst);
    return zelStsOk;
}
extern "C" ZEL_INTERNAL zelStatus w7_zelmProject_m4v3a_32f(const float* pProjection, const float* pView,
                                                           const float* pWorld, const float* pSrc, int srcStride,
                                                           float viewportWidth, float viewportHeight,
                                                           float viewportMinZ, float viewportMaxZ, float* pDst,
                                                           int dstStride, int count) {
    const g::Projector p{g::load_rows(pWorld), g::load_rows(pView), g::load_rows(pProjection),
                         {viewportWidth, viewportHeight, viewportMinZ, viewportMaxZ}};
    for (int n = 0; n < count; ++n)
        p(zel::byte_add<const float>(pSrc, std::ptrdiff_t(n) * srcStride),
          zel::byte_add<float>(pDst, std::ptrdiff_t(n) * dstStride));
    return zelStsOk;
}

// Back from the viewport: the device coordinates are written first and stay
// in pDst if (world * view) * projection is singular.
extern "C" ZEL_INTERNAL zelStatus w7_zelmUnproject_m4v3_32f(const float* pProjection, const float* pView,
                                                            const float* pWorld, const float* pSrc,
                                                            float viewportWidth, float viewportHeight,
                                                            float viewportMinZ, float viewportMaxZ, float* pDst) {
    const g::Viewport vp{viewportWidth, viewportHeight, viewportMinZ, viewportMaxZ};
    g::to_device(pSrc, vp, viewportMaxZ - viewportMinZ, pDst);
    float inv[16];
    if (const zelStatus st = g::inverse_of_product(pProjection, pView, pWorld, inv)) return st;
    g::coord3_at(g::load_rows(inv), pDst, pDst);
    return zelStsOk;
}
// The array form inverts once, before the first point, and writes nothing if
// the product is singular.
extern "C" ZEL_INTERNAL zelStatus w7_zelmUnproject_m4v3a_32f(const float* pProjection, const float* pView,
                                                             const float* pWorld, const float* pSrc, int srcStride,
                                                             float viewportWidth, float viewportHeight,
                                                             float viewportMinZ, float viewportMaxZ, float* pDst,
                                                             int dstStride, int count) {
    float inv[16];
    if (const zelStatus st = g::inverse_of_product(pProjection, pView, pWorld, inv)) return st;
    const Rows m = g::load_rows(inv);
    const g::Viewport vp{viewportWidth, viewportHeight, viewportMinZ, viewportMaxZ};
    const float depth = viewportMaxZ - viewportMinZ;
    for (int n = 0; n < count; ++n) {
        float d[3];
        g::to_device(zel::byte_add<const float>(pSrc, std::ptrdiff_t(n) * srcStride), vp, depth, d);
        g::coord3_at(m, d, zel::byte_add<float>(pDst, std::ptrdiff_t(n) * dstStride));
    }
    return zelStsOk;
}
