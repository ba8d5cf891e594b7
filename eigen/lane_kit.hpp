// Lane kits of the eigenproblems. An algorithm (the symmetric core in
// eigen/eigensym.hpp, the general reduction in eigen/eigengen_core.hpp) is
// written once against a kit: One<S> runs one object in plain scalars of
// the scalar type S; Pack<S, Bytes> runs Bytes / sizeof(S) objects, one in
// each lane of a GCC vector. A lane does exactly its object's operations
// (IEEE addition, multiplication, division and square root are the same
// per lane as in scalar code); where objects take different branches, every
// lane computes and a mask decides which results are kept. Masks are bool
// for One and lane masks for Pack; both take !, && and ||, and the ternary
// operator selects by them.
//
// Pack uses only the SSE2 baseline and vector extensions: compiled plainly,
// a 32-byte vector is two 128-bit halves (two independent chains, which
// hides latency); inlined into a function with the AVX target, it is one
// 256-bit register. Every lambda that takes or returns a vector is forced
// inline (ZEL_LAMBDA_INLINE): flatten alone does not reach them in every
// build (clang with the sanitizers leaves them out of line, built without
// AVX, and a 256-bit value then crosses two calling conventions).
#pragma once

#include <immintrin.h>

#include <cmath>
#include <cstring>

#include "frame/frame.hpp"

#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wpsabi"

namespace zel::kit {

template <class S_>
struct One {
    using S = S_;
    using V = S;
    using M = bool;
    static constexpr int W = 1;
    static ZEL_INLINE V splat(S x) { return x; }
    static ZEL_INLINE V sqrt(V x) { return std::sqrt(x); }
    static ZEL_INLINE V abs(V x) { return std::abs(x); }
    static ZEL_INLINE bool any(M m) { return m; }
    static ZEL_INLINE M all() { return true; }
    static ZEL_INLINE M none() { return false; }
    static ZEL_INLINE S lane(V x, int) { return x; }
    static ZEL_INLINE bool on(M m, int) { return m; }
};

// The instructions a Pack may use: the SSE2 baseline on 128-bit halves, or
// whole 256-bit registers. The AVX square root and lane test are not inlined
// into the generic code by themselves: the function that runs the AVX group
// is flattened, which takes them in there, where AVX is allowed.
enum class Isa { Sse2, Avx };

template <class S_, int Bytes, Isa I = Isa::Sse2>
struct Pack {
    using S = S_;
    static constexpr int W = Bytes / int(sizeof(S));
    typedef S V __attribute__((vector_size(Bytes)));
    using M = decltype(V{} < V{});
    static ZEL_INLINE V splat(S x) {
        V v;
        for (int k = 0; k < W; ++k) v[k] = x;
        return v;
    }
    static ZEL_INLINE V sqrt(V x) {
        if constexpr (I == Isa::Avx) {
            V r;
            sqrt_avx(x, r);
            return r;
        } else {
            return sqrt_sse2(x);
        }
    }
    // (by reference: no 256-bit value crosses into an AVX function)
    static inline __attribute__((target("avx"))) void sqrt_avx(const V& x, V& r) {
        if constexpr (sizeof(S) == 8) r = (V)_mm256_sqrt_pd((__m256d)x);
        else r = (V)_mm256_sqrt_ps((__m256)x);
    }
    // the SSE2 square root on each 128-bit half
    static ZEL_INLINE V sqrt_sse2(V x) {
        V r;
        for (int h = 0; h < Bytes / 16; ++h) {
            if constexpr (sizeof(S) == 8) {
                __m128d t;
                std::memcpy(&t, reinterpret_cast<const char*>(&x) + 16 * h, 16);
                t = _mm_sqrt_pd(t);
                std::memcpy(reinterpret_cast<char*>(&r) + 16 * h, &t, 16);
            } else {
                __m128 t;
                std::memcpy(&t, reinterpret_cast<const char*>(&x) + 16 * h, 16);
                t = _mm_sqrt_ps(t);
                std::memcpy(reinterpret_cast<char*>(&r) + 16 * h, &t, 16);
            }
        }
        return r;
    }
    static ZEL_INLINE V abs(V x) { return (V)((M)x & ~(M)splat(S(-0.0))); }
    static ZEL_INLINE bool any(M m) {
        if constexpr (I == Isa::Avx) return any_avx(m);
        else return any_sse2(m);
    }
    static inline __attribute__((target("avx"))) bool any_avx(const M& m) {
        return !_mm256_testz_si256((__m256i)m, (__m256i)m);
    }
    static ZEL_INLINE bool any_sse2(M m) {
        int bits = 0;
        for (int h = 0; h < Bytes / 16; ++h) {
            if constexpr (sizeof(S) == 8) {
                __m128d t;
                std::memcpy(&t, reinterpret_cast<const char*>(&m) + 16 * h, 16);
                bits |= _mm_movemask_pd(t);
            } else {
                __m128 t;
                std::memcpy(&t, reinterpret_cast<const char*>(&m) + 16 * h, 16);
                bits |= _mm_movemask_ps(t);
            }
        }
        return bits != 0;
    }
    static ZEL_INLINE M all() { return V{} == V{}; }
    static ZEL_INLINE M none() { return M{}; }
    static ZEL_INLINE S lane(V x, int k) { return x[k]; }
    static ZEL_INLINE bool on(M m, int k) { return m[k] != 0; }
};

// A value as it is stored in elements of T (the 32f kernels with 64-bit
// scalars round on every store).
template <class T, class K>
ZEL_INLINE typename K::V stored(typename K::V x) {
    using S = typename K::S;
    if constexpr (sizeof(T) == sizeof(S)) {
        return x;
    } else if constexpr (K::W == 1) {
        return S(T(x));
    } else {
        typedef T VT __attribute__((vector_size(K::W * sizeof(T))));
        return __builtin_convertvector(__builtin_convertvector(x, VT), typename K::V);
    }
}

}  // namespace zel::kit

#pragma GCC diagnostic pop
