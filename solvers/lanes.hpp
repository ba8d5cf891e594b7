// Several objects at once, one per vector lane, for the solvers' fixed
// orders: a Pack behaves like the element type in the families' templates
// (+ - * /, sqrt, magnitude, comparisons), and every lane does exactly the
// operations its object would do alone, so the bits are the same. W lanes of
// 128 bits in SSE2, of 256 bits where the caller runs in the AVX encoding
// (solvers' *_avx functions); the vector extension types leave the choice of
// encoding to the function they are compiled into.
#pragma once

#include <emmintrin.h>

#include <cmath>
#include <cstdint>
#include <cstring>
#include <type_traits>

#include "frame/cpu.hpp"
#include "frame/frame.hpp"
#include "frame/simd.hpp"
#include "solvers/minors.hpp"

// Packs live in registers of always-inline functions; no 256-bit value
// crosses a call, so GCC's note on their calling convention does not apply
// (it is given where the templates are instantiated, in the including file).
#pragma GCC diagnostic ignored "-Wpsabi"

namespace zel::lanes {


template <class T, int W>
struct Pack {
    using I = std::conditional_t<sizeof(T) == 4, std::int32_t, std::int64_t>;
    typedef T V __attribute__((vector_size(W * sizeof(T))));
    typedef I M __attribute__((vector_size(W * sizeof(T))));
    static constexpr int lanes = W;
    V v;

    ZEL_INLINE Pack() = default;
    ZEL_INLINE Pack(T x) {  // every lane
        for (int i = 0; i < W; ++i) v[i] = x;
    }
    static ZEL_INLINE Pack of(V x) {
        Pack p;
        p.v = x;
        return p;
    }
    friend ZEL_INLINE Pack operator+(Pack a, Pack b) { return of(a.v + b.v); }
    friend ZEL_INLINE Pack operator-(Pack a, Pack b) { return of(a.v - b.v); }
    friend ZEL_INLINE Pack operator*(Pack a, Pack b) { return of(a.v * b.v); }
    friend ZEL_INLINE Pack operator/(Pack a, Pack b) { return of(a.v / b.v); }
    friend ZEL_INLINE M operator<(Pack a, Pack b) { return a.v < b.v; }
    friend ZEL_INLINE M operator>(Pack a, Pack b) { return a.v > b.v; }
    ZEL_INLINE Pack operator-() const { return of(V(M(v) ^ M(Pack(T(-0.0)).v))); }
    ZEL_INLINE Pack& operator+=(Pack b) { return v += b.v, *this; }
};

template <class T, int W>
ZEL_INLINE Pack<T, W> fabs(Pack<T, W> a) {
    using P = Pack<T, W>;
    return P::of(typename P::V(typename P::M(a.v) & ~typename P::M(P(T(-0.0)).v)));
}
// The square root of every lane, by 128-bit halves (the SSE2 instruction,
// in the AVX encoding where the caller has it).
template <class T, int W>
ZEL_INLINE Pack<T, W> sqrt(Pack<T, W> a) {
    using P = Pack<T, W>;
    if constexpr (sizeof(T) == 4 && W == 4) {
        return P::of(_mm_sqrt_ps(a.v));
    } else if constexpr (sizeof(T) == 8 && W == 2) {
        return P::of(_mm_sqrt_pd(a.v));
    } else if constexpr (sizeof(T) == 4 && W == 8) {
        const __m128 lo = _mm_sqrt_ps(__builtin_shufflevector(a.v, a.v, 0, 1, 2, 3)),
                     hi = _mm_sqrt_ps(__builtin_shufflevector(a.v, a.v, 4, 5, 6, 7));
        return P::of(__builtin_shufflevector(lo, hi, 0, 1, 2, 3, 4, 5, 6, 7));
    } else {
        static_assert(sizeof(T) == 8 && W == 4, "a pack of 128 or 256 bits");
        const __m128d lo = _mm_sqrt_pd(__builtin_shufflevector(a.v, a.v, 0, 1)),
                      hi = _mm_sqrt_pd(__builtin_shufflevector(a.v, a.v, 2, 3));
        return P::of(__builtin_shufflevector(lo, hi, 0, 1, 2, 3));
    }
}

// Whether any lane of a comparison holds.
template <class M>
ZEL_INLINE bool any(M m) {
    constexpr int pieces = int(sizeof(M) / 16);
    int bits = 0;
    for (int k = 0; k < pieces; ++k) {
        __m128i x;
        std::memcpy(&x, reinterpret_cast<const char*>(&m) + 16 * k, 16);
        bits |= _mm_movemask_epi8(x);
    }
    return bits != 0;
}
template <class T, int W>
ZEL_INLINE Pack<T, W> select(typename Pack<T, W>::M m, Pack<T, W> a, Pack<T, W> b) {
    return Pack<T, W>::of(m ? a.v : b.v);
}

// The same names for one object in the element type, so that a template
// serves both.
ZEL_INLINE bool any(bool b) { return b; }
template <class T>
ZEL_INLINE T select(bool m, T a, T b) {
    return m ? a : b;
}
// The element type of a value type.
template <class P>
struct Elem {
    using type = P;
};
template <class T, int W>
struct Elem<Pack<T, W>> {
    using type = T;
};
template <class P>
using elem_t = typename Elem<P>::type;

// K elements of W objects, staged by scalar stores (any object, any form)
// and taken as packs, or the other way round.
template <class P, int K>
struct Stage {
    using E = elem_t<P>;
    alignas(32) E e[K][P::lanes];
    ZEL_INLINE P pack(int k) const {
        P p;
        std::memcpy(&p.v, e[k], sizeof p.v);
        return p;
    }
    ZEL_INLINE void unpack(int k, const P& p) { std::memcpy(e[k], &p.v, sizeof p.v); }
    // All K packs in and out; the loops unroll whole.
    ZEL_INLINE void to(P* x) const {
        _Pragma("GCC unroll 64") for (int k = 0; k < K; ++k) x[k] = pack(k);
    }
    ZEL_INLINE void from(const P* x) {
        _Pragma("GCC unroll 64") for (int k = 0; k < K; ++k) unpack(k, x[k]);
    }
};

// The matrices (or vectors: Rows 1) of W objects to and from packs, element
// (i, j) in pack i * Cols + j; view(l) is object l's view (solvers/objects.hpp).
// Contiguous rows of four go through 4x4 transposes of whole rows; all
// others through a staging block.
template <class T>
struct QuadOf {
    typedef T type __attribute__((vector_size(4 * sizeof(T))));
};
template <class T>
using Quad = typename QuadOf<T>::type;
// The 4x4 transpose of four vectors, in the shuffles each element size does
// best: 128-bit unpacks and moves for float, in-lane unpacks and 128-bit lane
// exchanges for double.
template <class T>
ZEL_INLINE void transpose4(Quad<T>& a, Quad<T>& b, Quad<T>& c, Quad<T>& d) {
    if constexpr (sizeof(T) == 4) {
        const Quad<T> t0 = __builtin_shufflevector(a, b, 0, 4, 1, 5), t1 = __builtin_shufflevector(a, b, 2, 6, 3, 7),
                      t2 = __builtin_shufflevector(c, d, 0, 4, 1, 5), t3 = __builtin_shufflevector(c, d, 2, 6, 3, 7);
        a = __builtin_shufflevector(t0, t2, 0, 1, 4, 5);
        b = __builtin_shufflevector(t0, t2, 2, 3, 6, 7);
        c = __builtin_shufflevector(t1, t3, 0, 1, 4, 5);
        d = __builtin_shufflevector(t1, t3, 2, 3, 6, 7);
    } else {
        const Quad<T> t0 = __builtin_shufflevector(a, b, 0, 4, 2, 6), t1 = __builtin_shufflevector(a, b, 1, 5, 3, 7),
                      t2 = __builtin_shufflevector(c, d, 0, 4, 2, 6), t3 = __builtin_shufflevector(c, d, 1, 5, 3, 7);
        a = __builtin_shufflevector(t0, t2, 0, 1, 4, 5);
        b = __builtin_shufflevector(t1, t3, 0, 1, 4, 5);
        c = __builtin_shufflevector(t0, t2, 2, 3, 6, 7);
        d = __builtin_shufflevector(t1, t3, 2, 3, 6, 7);
    }
}
template <class P>
inline constexpr bool kQuads = P::lanes % 4 == 0;

template <class P, int Rows, int Cols, bool Unit, class View>
ZEL_INLINE void gather(P* m, View view) {
    using E = elem_t<P>;
    constexpr int W = P::lanes;
    if constexpr (Unit && Cols == 4 && kQuads<P>) {
        decltype(view(0)) o[W];
        _Pragma("GCC unroll 8") for (int l = 0; l < W; ++l) o[l] = view(l);
        _Pragma("GCC unroll 4") for (int i = 0; i < Rows; ++i) {
            Quad<E> q[W];
            _Pragma("GCC unroll 8") for (int l = 0; l < W; ++l) std::memcpy(&q[l], o[l].ptr(i, 0), sizeof(Quad<E>));
            _Pragma("GCC unroll 2") for (int g = 0; g < W; g += 4) transpose4<E>(q[g], q[g + 1], q[g + 2], q[g + 3]);
            _Pragma("GCC unroll 4") for (int j = 0; j < 4; ++j)
                _Pragma("GCC unroll 2") for (int g = 0; g < W; g += 4)
                    std::memcpy(reinterpret_cast<char*>(&m[i * 4 + j].v) + g * sizeof(E), &q[g + j], sizeof(Quad<E>));
        }
    } else {
        Stage<P, Rows * Cols> st;
        for (int l = 0; l < W; ++l) {
            const auto o = view(l);
            for (int i = 0; i < Rows; ++i)
                for (int j = 0; j < Cols; ++j) st.e[i * Cols + j][l] = o.get(i, j);
        }
        st.to(m);
    }
}
template <class P, int Rows, int Cols, bool Unit, class View>
ZEL_INLINE void scatter(const P* m, View view) {
    using E = elem_t<P>;
    constexpr int W = P::lanes;
    if constexpr (Unit && Cols == 4 && kQuads<P>) {
        decltype(view(0)) o[W];
        _Pragma("GCC unroll 8") for (int l = 0; l < W; ++l) o[l] = view(l);
        _Pragma("GCC unroll 4") for (int i = 0; i < Rows; ++i) {
            Quad<E> q[W];
            _Pragma("GCC unroll 4") for (int j = 0; j < 4; ++j)
                _Pragma("GCC unroll 2") for (int g = 0; g < W; g += 4)
                    std::memcpy(&q[g + j], reinterpret_cast<const char*>(&m[i * 4 + j].v) + g * sizeof(E), sizeof(Quad<E>));
            _Pragma("GCC unroll 2") for (int g = 0; g < W; g += 4) transpose4<E>(q[g], q[g + 1], q[g + 2], q[g + 3]);
            _Pragma("GCC unroll 8") for (int l = 0; l < W; ++l) std::memcpy(o[l].ptr(i, 0), &q[l], sizeof(Quad<E>));
        }
    } else {
        Stage<P, Rows * Cols> st;
        st.from(m);
        for (int l = 0; l < W; ++l) {
            const auto o = view(l);
            for (int i = 0; i < Rows; ++i)
                for (int j = 0; j < Cols; ++j) o.put(i, j, st.e[i * Cols + j][l]);
        }
    }
}

// 32f matrices of order 3 stored back to back (rows of three, nine elements
// a matrix) to and from packs: four matrices are nine 128-bit vectors, and
// element e of matrix o, float 9o + e of the four, moves between its vector
// and lane o of pack e by three in-half shuffles. A pack of eight holds a
// second four in its upper halves. Loads and stores cover exactly the W
// matrices.
template <class V, int E>
ZEL_INLINE V element9(const V* v) {
    constexpr int f0 = E, f1 = 9 + E, f2 = 18 + E, f3 = 27 + E;
    const V s = simd::shuf<f0 % 4, f0 % 4, f1 % 4, f1 % 4>(v[f0 / 4], v[f1 / 4]);
    const V t = simd::shuf<f2 % 4, f2 % 4, f3 % 4, f3 % 4>(v[f2 / 4], v[f3 / 4]);
    return simd::shuf<0, 2, 0, 2>(s, t);
}
template <class V, int K>
ZEL_INLINE V memory9(const V* e) {
    constexpr int f0 = 4 * K, f1 = f0 + 1, f2 = f0 + 2, f3 = f0 + 3;
    const V s = simd::shuf<f0 / 9, f0 / 9, f1 / 9, f1 / 9>(e[f0 % 9], e[f1 % 9]);
    const V t = simd::shuf<f2 / 9, f2 / 9, f3 / 9, f3 / 9>(e[f2 % 9], e[f3 % 9]);
    return simd::shuf<0, 2, 0, 2>(s, t);
}
// Which kernels may take that path (32f, order 3, standard form, contiguous
// rows), and whether an operand of theirs is laid out so.
template <class T, int N, Form F, bool Unit>
inline constexpr bool kBackToBack3 = std::is_same_v<T, float> && N == 3 && F == Form::S && Unit;
inline bool back_to_back3(const Opd& o) { return o.s0 == 36 && o.s1 == 12; }
template <int W>
ZEL_INLINE void load_back_to_back3(const float* p, Pack<float, W>* m) {
    using V = typename Pack<float, W>::V;
    V v[9];
    for (int k = 0; k < 9; ++k) {
        Quad<float> lo;
        std::memcpy(&lo, p + 4 * k, sizeof lo);
        if constexpr (W == 4) {
            v[k] = lo;
        } else {
            Quad<float> hi;
            std::memcpy(&hi, p + 36 + 4 * k, sizeof hi);
            v[k] = __builtin_shufflevector(lo, hi, 0, 1, 2, 3, 4, 5, 6, 7);
        }
    }
    minors::each(std::make_index_sequence<9>{}, [&](auto E) ZEL_LAMBDA_INLINE { m[E].v = element9<V, int(E)>(v); });
}
template <int W>
ZEL_INLINE void store_back_to_back3(float* p, const Pack<float, W>* m) {
    using V = typename Pack<float, W>::V;
    V e[9];
    for (int k = 0; k < 9; ++k) e[k] = m[k].v;
    minors::each(std::make_index_sequence<9>{}, [&](auto K) ZEL_LAMBDA_INLINE {
        const V x = memory9<V, int(K)>(e);
        if constexpr (W == 4) {
            std::memcpy(p + 4 * K, &x, 16);
        } else {
            const Quad<float> lo = __builtin_shufflevector(x, x, 0, 1, 2, 3), hi = __builtin_shufflevector(x, x, 4, 5, 6, 7);
            std::memcpy(p + 4 * K, &lo, 16);
            std::memcpy(p + 36 + 4 * K, &hi, 16);
        }
    });
}

// A family's batches in the widest encoding the processor has: B::run<W>
// (always inline, any encoding) does as many objects as it can W at a time
// and returns how many it did.
template <class B>
struct InLanes {
    template <int Bytes, class... A>
    static ZEL_INLINE int run(A... a) {
        return B::template run<Bytes / int(sizeof(typename B::T))>(a...);
    }
};
template <class B, class... A>
ZEL_INLINE int run(A... a) {
    return cpu::widest<InLanes<B>>(a...);
}

}  // namespace zel::lanes
