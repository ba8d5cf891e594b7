// 128-bit vectors of the element type (4 floats or 2 doubles), the SSE2
// baseline every kernel can count on. Loads and stores of the first `Cnt`
// lanes touch no element past them; the lanes they leave out hold +0.0.
#pragma once

#include <emmintrin.h>

#include <type_traits>

#include "frame/frame.hpp"

namespace zel::simd {

// Shuffles of GCC vectors within each 128-bit half, written as generic
// shuffles so that one routine compiles for 128 bits (SSE2) and for 256 bits
// (AVX, several objects in the halves).
template <class V>
using Elem = std::remove_cvref_t<decltype(V{}[0])>;

// floats: [a(I0), a(I1), b(I2), b(I3)]; doubles: [a(I0), b(I1)]. The
// 256-bit instances are always inlined into AVX functions, so their calling
// convention never matters.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wpsabi"
template <int I0, int I1, int I2 = 0, int I3 = 0, class V>
ZEL_INLINE V shuf(V a, V b) {
    // __builtin_shufflevector: g++ 12 and clang both have it
    if constexpr (sizeof(Elem<V>) == 4 && sizeof(V) == 16)
        return __builtin_shufflevector(a, b, I0, I1, 4 + I2, 4 + I3);
    else if constexpr (sizeof(Elem<V>) == 4)
        return __builtin_shufflevector(a, b, I0, I1, 8 + I2, 8 + I3, 4 + I0, 4 + I1, 12 + I2, 12 + I3);
    else if constexpr (sizeof(V) == 16)
        return __builtin_shufflevector(a, b, I0, 2 + I1);
    else
        return __builtin_shufflevector(a, b, I0, 4 + I1, 2 + I0, 6 + I1);
}
#pragma GCC diagnostic pop

// Eight bytes into or out of the low lane, at any alignment.
ZEL_INLINE __m128d load_sd(const void* p) {
    return _mm_castsi128_pd(_mm_loadl_epi64(static_cast<const __m128i*>(p)));
}
ZEL_INLINE void store_sd(void* p, __m128d v) { _mm_storel_epi64(static_cast<__m128i*>(p), _mm_castpd_si128(v)); }

template <class T>
struct V128;

template <>
struct V128<float> {
    using V = __m128;
    static constexpr int n = 4;
    template <int Cnt = 4>
    static ZEL_INLINE V load(const float* p) {
        if constexpr (Cnt == 4) return _mm_loadu_ps(p);
        else if constexpr (Cnt == 3)
            return _mm_movelh_ps(_mm_castpd_ps(load_sd(p)), _mm_set_ss(zel::load(p + 2)));
        else if constexpr (Cnt == 2) return _mm_castpd_ps(load_sd(p));
        else return _mm_set_ss(zel::load(p));
    }
    template <int Cnt = 4>
    static ZEL_INLINE void store(float* p, V v) {
        if constexpr (Cnt == 4) _mm_storeu_ps(p, v);
        else if constexpr (Cnt == 3) {
            store_sd(p, _mm_castps_pd(v));
            zel::store(p + 2, _mm_cvtss_f32(_mm_movehl_ps(v, v)));
        } else if constexpr (Cnt == 2) store_sd(p, _mm_castps_pd(v));
        else zel::store(p, _mm_cvtss_f32(v));
    }
    static ZEL_INLINE V load_aligned(const float* p) { return _mm_load_ps(p); }
    static ZEL_INLINE void store_aligned(float* p, V v) { _mm_store_ps(p, v); }
    static ZEL_INLINE V splat(float x) { return _mm_set1_ps(x); }
    static ZEL_INLINE V bcast(const float* p) { return _mm_set1_ps(zel::load(p)); }
    template <int K>
    static ZEL_INLINE V lane(V v) { return _mm_shuffle_ps(v, v, _MM_SHUFFLE(K, K, K, K)); }
    static ZEL_INLINE V add(V a, V b) { return _mm_add_ps(a, b); }
    static ZEL_INLINE V sub(V a, V b) { return _mm_sub_ps(a, b); }
    static ZEL_INLINE V mul(V a, V b) { return _mm_mul_ps(a, b); }
};

template <>
struct V128<double> {
    using V = __m128d;
    static constexpr int n = 2;
    template <int Cnt = 2>
    static ZEL_INLINE V load(const double* p) {
        if constexpr (Cnt == 2) return _mm_loadu_pd(p);
        else return load_sd(p);
    }
    template <int Cnt = 2>
    static ZEL_INLINE void store(double* p, V v) {
        if constexpr (Cnt == 2) _mm_storeu_pd(p, v);
        else store_sd(p, v);
    }
    static ZEL_INLINE V load_aligned(const double* p) { return _mm_load_pd(p); }
    static ZEL_INLINE void store_aligned(double* p, V v) { _mm_store_pd(p, v); }
    static ZEL_INLINE V splat(double x) { return _mm_set1_pd(x); }
    static ZEL_INLINE V bcast(const double* p) { return _mm_set1_pd(zel::load(p)); }
    template <int K>
    static ZEL_INLINE V lane(V v) { return _mm_shuffle_pd(v, v, K ? 3 : 0); }
    static ZEL_INLINE V add(V a, V b) { return _mm_add_pd(a, b); }
    static ZEL_INLINE V sub(V a, V b) { return _mm_sub_pd(a, b); }
    static ZEL_INLINE V mul(V a, V b) { return _mm_mul_pd(a, b); }
};

}  // namespace zel::simd
