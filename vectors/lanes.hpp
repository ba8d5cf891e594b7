// Vector-lane paths of the vector algebra: several objects at once, object i
// of a group in lane i, each lane doing exactly its object's operations in
// its kernel's association (the Trees of vectors/table.hpp evaluated on
// vectors), so the results are the bits of the scalar routines.
//
// Objects are loaded whole, in the layout they have in memory, multiplied
// there (a product per element does not care where its lanes are), and then
// transposed so that lane i of vector k holds term k of object i. Standard-
// form objects other than the last of a call are read 16 bytes wide even
// where they are shorter: the bytes past such an object lie before the last
// object's end, inside the caller's array, and their lanes are never used.
// List-form objects may lie anywhere and are read exactly.
#pragma once

// The vector types pass through the association templates as values only.
#pragma GCC diagnostic ignored "-Wignored-attributes"
// 256-bit vectors pass through the association templates only inlined into
// functions built for AVX.
#pragma GCC diagnostic ignored "-Wpsabi"

#include <immintrin.h>

#include <cstdint>
#include <type_traits>
#include <utility>

#include "frame/cpu.hpp"
#include "frame/frame.hpp"
#include "frame/simd.hpp"
#include "vectors/assoc.hpp"

namespace zel::vectors::lanes {

template <class T>
using X = simd::V128<T>;
template <class T>
using Vec = typename X<T>::V;

ZEL_INLINE __m128 vsqrt(__m128 v) { return _mm_sqrt_ps(v); }
ZEL_INLINE __m128d vsqrt(__m128d v) { return _mm_sqrt_pd(v); }

// The first `Cnt` elements of p, or a whole vector where reading past them
// is allowed (`Wide`).
template <class T, int Cnt, bool Wide>
ZEL_INLINE Vec<T> load_part(const T* p) {
    if constexpr (Wide || Cnt == X<T>::n) return X<T>::load(p);
    else return X<T>::template load<Cnt>(p);
}

// Object i's vectors v[i][j] (elements j*n .. j*n + n-1) to term vectors
// t[k] (lane i: element k of object i).
ZEL_INLINE void transpose(const __m128 (*v)[2], int j, __m128* t, int N) {
    const __m128 lo01 = _mm_unpacklo_ps(v[0][j], v[1][j]), lo23 = _mm_unpacklo_ps(v[2][j], v[3][j]);
    const __m128 hi01 = _mm_unpackhi_ps(v[0][j], v[1][j]), hi23 = _mm_unpackhi_ps(v[2][j], v[3][j]);
    const int k = 4 * j;
    t[k] = _mm_movelh_ps(lo01, lo23);
    if (k + 1 < N) t[k + 1] = _mm_movehl_ps(lo23, lo01);
    if (k + 2 < N) t[k + 2] = _mm_movelh_ps(hi01, hi23);
    if (k + 3 < N) t[k + 3] = _mm_movehl_ps(hi23, hi01);
}
ZEL_INLINE void transpose(const __m128d (*v)[3], int j, __m128d* t, int N) {
    const int k = 2 * j;
    t[k] = _mm_unpacklo_pd(v[0][j], v[1][j]);
    if (k + 1 < N) t[k + 1] = _mm_unpackhi_pd(v[0][j], v[1][j]);
}

// The vectors of one object of N elements.
template <class T, int N>
struct Obj {
    static constexpr int n = X<T>::n;
    static constexpr int C = (N + n - 1) / n;  // vectors per object
    template <bool Wide>
    static ZEL_INLINE void load(const T* p, Vec<T>* v) {
        [&]<int... J>(std::integer_sequence<int, J...>) {
            ((v[J] = load_part<T, (N - J * n < n ? N - J * n : n), Wide>(p + J * n)), ...);
        }(std::make_integer_sequence<int, C>{});
    }
};

// ---------------------------------------------------------------------------
// DotProduct and L2Norm at lengths 3 to 6, contiguous elements, standard and
// list forms.
template <Op O, class T, int N>
constexpr bool has_reduce() {
    return (O == Op::DotProduct || O == Op::L2Norm) && N >= 3 && N <= 6;
}

// The objects of an operand in the standard or list form: object n's first
// element.
template <class T, Form F>
struct Objs {
    const char* p;
    std::ptrdiff_t s0, shift;
    explicit Objs(const Opd& o) : p(static_cast<const char*>(o.p)), s0(o.s0), shift(o.shift) {}
    ZEL_INLINE const T* at(int n) const {
        if constexpr (F == Form::S) return reinterpret_cast<const T*>(p + std::ptrdiff_t(n) * s0);
        else return byte_add<const T>(reinterpret_cast<const void* const*>(p)[n], shift);
    }
};

// Terms of objects o .. o+W-1 summed in association A, lane i object o+i
// (objects past `last` repeat it). Wide: every object may be read 16 bytes
// wide.
template <Op O, bool Single2, bool Wide, class T, int N, Assoc A, class S>
ZEL_INLINE Vec<T> group(const S& a, const S& b, const Vec<T>* held, int o, int last) {
    using V = Vec<T>;
    using Ob = Obj<T, N>;
    constexpr int W = X<T>::n, C = Ob::C;
    constexpr bool dot = O == Op::DotProduct;
    V v[W][sizeof(T) == 4 ? 2 : 3];
    for (int i = 0; i < W; ++i) {
        const int n = Wide || o + i <= last ? o + i : last;
        V x[C], y[C];
        Ob::template load<Wide>(a.at(n), x);
        if constexpr (dot && !Single2) Ob::template load<Wide>(b.at(n), y);
        for (int j = 0; j < C; ++j) v[i][j] = X<T>::mul(x[j], dot ? (Single2 ? held[j] : y[j]) : x[j]);
    }
    V t[N];
    for (int j = 0; j < C; ++j) transpose(v, j, t, N);
    const V s = sum<A, N, V>([&](int k) ZEL_LAMBDA_INLINE { return t[k]; });
    if constexpr (dot) return s;
    else return vsqrt(s);
}

// ---------------------------------------------------------------------------
// The same groups in 256-bit lanes, for objects of 3 or 4 elements read wide
// (standard form): 8 float objects, object i and i+4 in the two halves of a
// vector and transposed within the halves, so that the results come out in
// order; or 4 double objects transposed across the halves.
template <class T>
struct Avx;
template <>
struct Avx<float> {
    using V = __m256;
    static constexpr int W = 8;
    static ZEL_INLINE __attribute__((target("avx"))) V load2(const float* p, const float* q) {
        return _mm256_insertf128_ps(_mm256_castps128_ps256(_mm_loadu_ps(p)), _mm_loadu_ps(q), 1);
    }
    template <class S, class Held>
    static ZEL_INLINE __attribute__((target("avx"))) void products(const S& a, const S& b, const Held& held,
                                                                   bool dot, bool single2, int o, V* v) {
        const V h = held;
        for (int i = 0; i < 4; ++i) {
            const V x = load2(a.at(o + i), a.at(o + i + 4));
            v[i] = _mm256_mul_ps(x, dot ? (single2 ? h : load2(b.at(o + i), b.at(o + i + 4))) : x);
        }
    }
    // The same products for two arrays of four-float objects back to back (s0
    // 16 bytes): two objects a load, then object i and i + 4 brought into the
    // halves.
    template <class S>
    static ZEL_INLINE __attribute__((target("avx"))) void products_packed4(const S& a, const S& b, int o, V* v) {
        V p[4];
        for (int i = 0; i < 4; ++i) {
            p[i] = _mm256_mul_ps(_mm256_loadu_ps(a.at(o + 2 * i)), _mm256_loadu_ps(b.at(o + 2 * i)));
        }
        v[0] = _mm256_permute2f128_ps(p[0], p[2], 0x20);  // objects 0 and 4
        v[1] = _mm256_permute2f128_ps(p[0], p[2], 0x31);  // 1 and 5
        v[2] = _mm256_permute2f128_ps(p[1], p[3], 0x20);  // 2 and 6
        v[3] = _mm256_permute2f128_ps(p[1], p[3], 0x31);  // 3 and 7
    }
    static ZEL_INLINE __attribute__((target("avx"))) void transpose(const V* v, V* t, int N) {
        const __m256d l01 = _mm256_castps_pd(_mm256_unpacklo_ps(v[0], v[1]));
        const __m256d l23 = _mm256_castps_pd(_mm256_unpacklo_ps(v[2], v[3]));
        const __m256d h01 = _mm256_castps_pd(_mm256_unpackhi_ps(v[0], v[1]));
        const __m256d h23 = _mm256_castps_pd(_mm256_unpackhi_ps(v[2], v[3]));
        t[0] = _mm256_castpd_ps(_mm256_unpacklo_pd(l01, l23));
        t[1] = _mm256_castpd_ps(_mm256_unpackhi_pd(l01, l23));
        t[2] = _mm256_castpd_ps(_mm256_unpacklo_pd(h01, h23));
        if (N > 3) t[3] = _mm256_castpd_ps(_mm256_unpackhi_pd(h01, h23));
    }
    // Objects of N back to back with a layout of their own: two arrays of
    // four (with one array the halves' own loads measure faster).
    template <int N>
    static constexpr bool packs(bool dot, bool single2) {
        return N == 4 && dot && !single2;
    }
    // Term k of object o + i (i + 4) in lane i of t[k]'s lower (upper) half.
    template <int N, class S, class Held>
    static ZEL_INLINE __attribute__((target("avx"))) void terms(const S& a, const S& b, const Held& held, bool dot,
                                                                bool single2, bool packed, int o, V* t) {
        V v[4];
        if (packed) products_packed4(a, b, o, v);
        else products(a, b, held, dot, single2, o, v);
        transpose(v, t, N);
    }
    static ZEL_INLINE __attribute__((target("avx"))) V held(const __m128* h) { return held2(h[0]); }
    static ZEL_INLINE __attribute__((target("avx"))) V held2(__m128 h) {
        return _mm256_insertf128_ps(_mm256_castps128_ps256(h), h, 1);
    }
    static ZEL_INLINE __attribute__((target("avx"))) void store2(float* p, float* q, V x) {
        _mm_storeu_ps(p, _mm256_castps256_ps128(x));
        _mm_storeu_ps(q, _mm256_extractf128_ps(x, 1));
    }
    static ZEL_INLINE __attribute__((target("avx"))) V root(V x) { return _mm256_sqrt_ps(x); }
    static ZEL_INLINE __attribute__((target("avx"))) V load(const float* p) { return _mm256_loadu_ps(p); }
    static ZEL_INLINE __attribute__((target("avx"))) V splat(float x) { return _mm256_set1_ps(x); }
    static ZEL_INLINE __attribute__((target("avx"))) void store(float* p, V x) { _mm256_storeu_ps(p, x); }
};
template <>
struct Avx<double> {
    using V = __m256d;
    static constexpr int W = 4;
    template <class S, class Held>
    static ZEL_INLINE __attribute__((target("avx"))) void products(const S& a, const S& b, const Held& held,
                                                                   bool dot, bool single2, int o, V* v) {
        const V h = held;
        for (int i = 0; i < 4; ++i) {
            const V x = _mm256_loadu_pd(a.at(o + i));
            v[i] = _mm256_mul_pd(x, dot ? (single2 ? h : _mm256_loadu_pd(b.at(o + i))) : x);
        }
    }
    // The terms of four three-double objects of arrays back to back (s0 24
    // bytes; b is a again for the squares): three whole loads an array, the
    // products in memory order, then in-half blends and shuffles and one swap
    // of halves bring term k of object i to lane i of t[k].
    template <class S>
    static ZEL_INLINE __attribute__((target("avx"))) void terms_packed3(const S& a, const S& b, bool dot, int o, V* t) {
        const double *pa = a.at(o), *pb = dot ? b.at(o) : pa;
        V p[3];
        for (int i = 0; i < 3; ++i) p[i] = _mm256_mul_pd(_mm256_loadu_pd(pa + 4 * i), _mm256_loadu_pd(pb + 4 * i));
        // p: (x0 x1 | x2 y0) (y1 y2 | z0 z1) (z2 w0 | w1 w2)
        const V q0 = _mm256_blend_pd(p[0], p[1], 0b1100);       // x0 x1 | z0 z1
        const V q1 = _mm256_permute2f128_pd(p[0], p[2], 0x21);  // x2 y0 | z2 w0
        const V q2 = _mm256_blend_pd(p[1], p[2], 0b1100);       // y1 y2 | w1 w2
        t[0] = _mm256_shuffle_pd(q0, q1, 0b1010);
        t[1] = _mm256_shuffle_pd(q0, q2, 0b0101);
        t[2] = _mm256_shuffle_pd(q1, q2, 0b1010);
    }
    static ZEL_INLINE __attribute__((target("avx"))) void transpose(const V* v, V* t, int N) {
        const V l01 = _mm256_unpacklo_pd(v[0], v[1]), h01 = _mm256_unpackhi_pd(v[0], v[1]);
        const V l23 = _mm256_unpacklo_pd(v[2], v[3]), h23 = _mm256_unpackhi_pd(v[2], v[3]);
        t[0] = _mm256_permute2f128_pd(l01, l23, 0x20);
        t[1] = _mm256_permute2f128_pd(h01, h23, 0x20);
        t[2] = _mm256_permute2f128_pd(l01, l23, 0x31);
        if (N > 3) t[3] = _mm256_permute2f128_pd(h01, h23, 0x31);
    }
    // Objects of N back to back with a layout of their own: three elements,
    // in one or two arrays.
    template <int N>
    static constexpr bool packs(bool, bool single2) {
        return N == 3 && !single2;
    }
    // Term k of object o + i in lane i of t[k].
    template <int N, class S, class Held>
    static ZEL_INLINE __attribute__((target("avx"))) void terms(const S& a, const S& b, const Held& held, bool dot,
                                                                bool single2, bool packed, int o, V* t) {
        if (packed) return terms_packed3(a, b, dot, o, t);
        V v[4];
        products(a, b, held, dot, single2, o, v);
        transpose(v, t, N);
    }
    static ZEL_INLINE __attribute__((target("avx"))) V held(const __m128d* h) {
        return _mm256_insertf128_pd(_mm256_castpd128_pd256(h[0]), h[1], 1);
    }
    static ZEL_INLINE __attribute__((target("avx"))) V held2(__m128d h) {
        return _mm256_insertf128_pd(_mm256_castpd128_pd256(h), h, 1);
    }
    static ZEL_INLINE __attribute__((target("avx"))) V load2(const double* p, const double* q) {
        return _mm256_insertf128_pd(_mm256_castpd128_pd256(_mm_loadu_pd(p)), _mm_loadu_pd(q), 1);
    }
    static ZEL_INLINE __attribute__((target("avx"))) void store2(double* p, double* q, V x) {
        _mm_storeu_pd(p, _mm256_castpd256_pd128(x));
        _mm_storeu_pd(q, _mm256_extractf128_pd(x, 1));
    }
    static ZEL_INLINE __attribute__((target("avx"))) V root(V x) { return _mm256_sqrt_pd(x); }
    static ZEL_INLINE __attribute__((target("avx"))) V load(const double* p) { return _mm256_loadu_pd(p); }
    static ZEL_INLINE __attribute__((target("avx"))) V splat(double x) { return _mm256_set1_pd(x); }
    static ZEL_INLINE __attribute__((target("avx"))) void store(double* p, V x) { _mm256_storeu_pd(p, x); }
};

// sum() of N 256-bit terms, its result through memory: a 256-bit value may
// not cross a call between functions compiled with and without AVX (clang
// refuses it; once inlined it costs nothing).
template <Assoc A, int N, class V>
ZEL_INLINE void sum_into(V* out, const V* t) {
    *out = sum<A, N, V>([&](int k) ZEL_LAMBDA_INLINE { return t[k]; });
}

// Groups of objects [from, to) while none is the call's last; returns the
// first object not done.
template <Op O, bool Single2, class T, int N, Assoc A>
__attribute__((target("avx"), noinline)) int reduce_avx(const Call<T>& c, int from, int to, const Vec<T>* held) {
    using K = Avx<T>;
    using V = typename K::V;
    constexpr bool dot = O == Op::DotProduct;
    const Objs<T, Form::S> a(c.src[0]), b(c.src[1]);
    T* const out = c.out;
    const int end = to < c.count ? to : c.count - 1;  // the last object read exactly
    const V h = Single2 ? K::held(held) : V{};
    int o = from;
    // objects back to back: whole loads, no element read twice
    constexpr std::ptrdiff_t bytes = N * std::ptrdiff_t(sizeof(T));
    const bool packed = K::template packs<N>(dot, Single2) && a.s0 == bytes && (!dot || b.s0 == bytes);
#pragma GCC unroll 2
    for (; o + K::W <= end; o += K::W) {
        V t[4];
        K::template terms<N>(a, b, h, dot, Single2, packed, o, t);
        V s;
        sum_into<A, N>(&s, t);
        if constexpr (!dot) s = K::root(s);
        K::store(out + o, s);
    }
    return o;
}

// Objects [from, to) in association A: groups of the lane count, read wide
// while no object of the group is the call's last (standard form).
template <Op O, Form F, bool Single2, class T, int N, Assoc A>
ZEL_INLINE void reduce_range(const Call<T>& c, int from, int to, const Vec<T>* held) {
    constexpr int W = X<T>::n;
    const Objs<T, F> a(c.src[0]), b(c.src[1]);
    T* const out = c.out;
    const int count = c.count;
    int o = from;
    if constexpr (F == Form::S && N <= 4) {
        if (cpu::avx() && to - from >= 2 * W) o = reduce_avx<O, Single2, T, N, A>(c, from, to, held);
    }
    if constexpr (F == Form::S) {
        for (; o + W <= to && o + W < count; o += W)
            X<T>::store(out + o, group<O, Single2, true, T, N, A>(a, b, held, o, 0));
    }
    for (; o < to; o += W) {
        const Vec<T> s = group<O, Single2, false, T, N, A>(a, b, held, o, to - 1);
        if (to - o >= W) {
            X<T>::store(out + o, s);
        } else {
            alignas(16) T r[W];
            X<T>::store_aligned(r, s);
            for (int i = 0; i < to - o; ++i) zel::store(out + o + i, r[i]);
        }
    }
}

template <Op O, Str Sig, class T, Form F, int N, Assoc Own, Assoc Block>
bool reduce(const Call<T>& __restrict c, int blocked) {
    static constexpr Operands ops = parse<Sig>();
    constexpr bool single2 = O == Op::DotProduct && !ops.l[1].array;
    constexpr int C = Obj<T, N>::C;
    Vec<T> held[C] = {};  // read only for a single second operand
    if constexpr (single2) Obj<T, N>::template load<false>(static_cast<const T*>(c.src[1].p), held);
    // a single object is not worth the lanes
    if (c.count < 2) return false;
    if constexpr (F == Form::S) {
        // Objects but the last are read C whole vectors wide, past their N
        // elements into the next object; objects that overlap more closely
        // than that would have the last wide read leave the array.
        constexpr int over = C * 16 - N * int(sizeof(T));
        if (c.src[0].s0 < over || (O == Op::DotProduct && ops.l[1].array && c.src[1].s0 < over)) return false;
    }
    reduce_range<O, F, single2, T, N, Block>(c, 0, blocked, held);
    reduce_range<O, F, single2, T, N, Own>(c, blocked, c.count, held);
    return true;
}

// ---------------------------------------------------------------------------
// ---------------------------------------------------------------------------
// FrobNorm of N x N objects whose rows split into whole vectors: the squares
// of an object in vectors Q(m) (elements m*n .. m*n + n-1), so that where
// every chain starts at a multiple of the lane count n, one chain evaluated
// on the Q gives the chains c(0) .. c(n-1) of the object in lanes; the
// objects' chains transposed, the combination gives one object per lane.
template <class T, int N>
constexpr bool has_frob() {
    return N % X<T>::n == 0 && N <= 4;
}
template <Assoc A, int n>
constexpr bool frob_fits() {
    if (A.sequential() || A.stride != 1 || A.combine.leaves != n) return false;
    for (int i = 0; i < A.chain.nodes; ++i)
        if (A.chain.leaf[i] > 0 && A.chain.leaf[i] % n) return false;
    for (int i = 0; i < A.combine.nodes; ++i)
        if (A.combine.leaf[i] >= n) return false;
    return true;
}

// x[m]: the elements m*n .. m*n + n-1 of an object (row m*n / N from column
// m*n % N). Operands and result through memory, so that the AVX path can
// use it (see sum_into).
template <class T, int N, Assoc A, class V>
ZEL_INLINE void frob_chains(V* out, const V* x) {
    constexpr int n = X<T>::n, M = N * N / n;
    V q[M];
    for (int m = 0; m < M; ++m) q[m] = x[m] * x[m];
    *out = eval<A.chain, N * N, V>([&](int k) { return q[k / n]; });
}
template <Tree X_, int K, class V>
ZEL_INLINE void eval_into(V* out, const V* t) {
    *out = eval<X_, K, V>([&](int k) { return t[k]; });
}

template <class T, int N, Assoc A>
ZEL_INLINE void frob_range(const Objs<T, Form::S>& a, std::ptrdiff_t s1, T* out, int o, int to) {
    using V = Vec<T>;
    constexpr int W = X<T>::n;
    for (; o + W <= to; o += W) {
        V v[W][sizeof(T) == 4 ? 2 : 3];
        for (int i = 0; i < W; ++i) {
            const char* base = reinterpret_cast<const char*>(a.at(o + i));
            V x[N * N / W];
            for (int m = 0; m < N * N / W; ++m)
                x[m] = X<T>::load(reinterpret_cast<const T*>(base + m * W / N * s1) + m * W % N);
            frob_chains<T, N, A>(&v[i][0], x);
        }
        V t[W];
        transpose(v, 0, t, W);
        X<T>::store(out + o, vsqrt(eval<A.combine, W, V>([&](int k) { return t[k]; })));
    }
}

template <int N, Assoc A>
__attribute__((target("avx"), noinline)) int frob_avx(const Call<float>& c, int o, int to) {
    const Objs<float, Form::S> a(c.src[0]);
    const std::ptrdiff_t s1 = c.src[0].s1;
    for (; o + 8 <= to; o += 8) {
        __m256 v[4], t[4];
        for (int i = 0; i < 4; ++i) {
            const char* p = reinterpret_cast<const char*>(a.at(o + i));
            const char* q = reinterpret_cast<const char*>(a.at(o + i + 4));
            __m256 x[N * N / 4];
            for (int m = 0; m < N * N / 4; ++m) {
                const std::ptrdiff_t off = m * 4 / N * s1;
                x[m] = Avx<float>::load2(reinterpret_cast<const float*>(p + off) + m * 4 % N,
                                         reinterpret_cast<const float*>(q + off) + m * 4 % N);
            }
            frob_chains<float, N, A>(&v[i], x);
        }
        Avx<float>::transpose(v, t, 4);
        __m256 r;
        eval_into<A.combine, 4>(&r, t);
        _mm256_storeu_ps(c.out + o, _mm256_sqrt_ps(r));
    }
    return o;
}

// Objects below `blocked` in the block association, the others in Own, as
// far as they fill groups; returns the first object not done.
template <Str Sig, class T, Form F, int N, Assoc Own, Assoc Block>
int frob(const Call<T>& __restrict c, int blocked) {
    constexpr int W = X<T>::n;
    if constexpr (F != Form::S || !frob_fits<Own, W>() || !frob_fits<Block, W>()) {
        return 0;
    } else {
        if (blocked % W) return 0;
        const int end = blocked + (c.count - blocked) / W * W;
        const Objs<T, Form::S> a(c.src[0]);
        auto range = [&](auto assoc, int o, int to) {
            constexpr Assoc A = decltype(assoc)::value;
            if constexpr (sizeof(T) == 4)
                if (cpu::avx()) o = frob_avx<N, A>(c, o, to);
            frob_range<T, N, A>(a, c.src[0].s1, c.out, o, to);
        };
        range(std::integral_constant<Assoc, Block>{}, 0, blocked);
        range(std::integral_constant<Assoc, Own>{}, blocked, end);
        return end;
    }
}

// ---------------------------------------------------------------------------
// CrossProduct of objects packed back to back (stride0 three elements) in the
// standard form: n objects (n the lane count) are three vectors, taken apart
// into the element vectors a0, a1, a2 (lane i: object i), computed, and put
// back. With AVX two such groups ride in the halves of a vector (the
// shuffles are simd::shuf, within each half).
using simd::Elem;
using simd::shuf;

// floats: [a0 a1 a2 b0] [b1 b2 c0 c1] [c2 d0 d1 d2] -> [a0 b0 c0 d0] [a1 b1 c1 d1] [a2 b2 c2 d2]
// doubles: [a0 a1] [a2 b0] [b1 b2] -> [a0 b0] [a1 b1] [a2 b2]
template <class V>
ZEL_INLINE void apart3(const V* x, V* t) {
    if constexpr (sizeof(Elem<V>) == 4) {
        t[0] = shuf<0, 3, 0, 3>(x[0], shuf<2, 3, 0, 1>(x[1], x[2]));
        t[1] = shuf<0, 2, 0, 2>(shuf<1, 1, 0, 0>(x[0], x[1]), shuf<3, 3, 2, 2>(x[1], x[2]));
        t[2] = shuf<0, 2, 0, 2>(shuf<2, 2, 1, 1>(x[0], x[1]), shuf<0, 0, 3, 3>(x[2], x[2]));
    } else {
        t[0] = shuf<0, 1>(x[0], x[1]);
        t[1] = shuf<1, 0>(x[0], x[2]);
        t[2] = shuf<0, 1>(x[1], x[2]);
    }
}
template <class V>
ZEL_INLINE void together3(const V* t, V* x) {
    if constexpr (sizeof(Elem<V>) == 4) {
        x[0] = shuf<0, 2, 0, 2>(shuf<0, 0, 0, 0>(t[0], t[1]), shuf<0, 0, 1, 1>(t[2], t[0]));
        x[1] = shuf<0, 2, 0, 2>(shuf<1, 1, 1, 1>(t[1], t[2]), shuf<2, 2, 2, 2>(t[0], t[1]));
        x[2] = shuf<0, 2, 0, 2>(shuf<2, 2, 3, 3>(t[2], t[0]), shuf<3, 3, 3, 3>(t[1], t[2]));
    } else {
        x[0] = shuf<0, 0>(t[0], t[1]);
        x[1] = shuf<0, 1>(t[2], t[0]);
        x[2] = shuf<1, 1>(t[1], t[2]);
    }
}
// one group: element vectors of the arrays taken apart, the single operands'
// elements spread across the lanes (sa, sb)
template <bool A1, bool A2, class V>
ZEL_INLINE void cross_group(const V* xa, const V* xb, const V* sa, const V* sb, V* xd) {
    V ta[3], tb[3], td[3];
    if constexpr (A1) apart3(xa, ta);
    if constexpr (A2) apart3(xb, tb);
    const V* a = A1 ? ta : sa;
    const V* b = A2 ? tb : sb;
    td[0] = a[1] * b[2] - a[2] * b[1];
    td[1] = a[2] * b[0] - a[0] * b[2];
    td[2] = a[0] * b[1] - a[1] * b[0];
    together3(td, xd);
}

// Two float arrays, one object in each 128-bit half: its three elements and,
// in the fourth lane, the next object's first, computed and dropped. With
// rot taking the elements (1, 2, 0), u = a rot(b) - rot(a) b has
// u_i = a_i b_(i+1) - a_(i+1) b_i, and the result is rot(u): d0 = a1 b2 -
// a2 b1, d1 = a2 b0 - a0 b2, d2 = a0 b1 - a1 b0, the same products subtracted
// in the same order. A group of 8 holds objects j and j + 4 in vector j; the
// final rotation and the packing of the 24 results into three whole stores
// are eight shuffles. The group reads 16 bytes from each object, so it is
// never the call's last; it reads all its objects before it stores.
__attribute__((target("avx"))) ZEL_INLINE __m256 cross_rot(__m256 x) {
    return _mm256_permute_ps(x, _MM_SHUFFLE(3, 0, 2, 1));
}
__attribute__((target("avx"))) ZEL_INLINE int cross_halves_avx(const float* a, const float* b, float* d, int count) {
    int o = 0;
    for (; o + 8 < count; o += 8, a += 24, b += 24, d += 24) {
        __m256 u[4];
        for (int j = 0; j < 4; ++j) {
            const __m256 x = Avx<float>::load2(a + 3 * j, a + 3 * j + 12);
            const __m256 y = Avx<float>::load2(b + 3 * j, b + 3 * j + 12);
            u[j] = _mm256_sub_ps(_mm256_mul_ps(x, cross_rot(y)), _mm256_mul_ps(cross_rot(x), y));
        }
        // with X, Y the rotated results of two neighbours, per half:
        // p = X0 X1 X2 Y0, q = X1 X2 Y0 Y1, r = X2 Y0 Y1 Y2
        const __m256 p = _mm256_shuffle_ps(u[0], _mm256_shuffle_ps(u[0], u[1], _MM_SHUFFLE(1, 1, 0, 0)),
                                           _MM_SHUFFLE(2, 0, 2, 1));
        const __m256 q = _mm256_shuffle_ps(u[1], u[2], _MM_SHUFFLE(2, 1, 0, 2));
        const __m256 r = _mm256_shuffle_ps(_mm256_shuffle_ps(u[2], u[3], _MM_SHUFFLE(1, 1, 0, 0)), u[3],
                                           _MM_SHUFFLE(0, 2, 2, 0));
        _mm256_storeu_ps(d, _mm256_permute2f128_ps(p, q, 0x20));
        _mm256_storeu_ps(d + 8, _mm256_permute2f128_ps(r, p, 0x30));
        _mm256_storeu_ps(d + 16, _mm256_permute2f128_ps(q, r, 0x31));
    }
    return o;
}

// Two float arrays packed, where the processor has 512-bit vectors: sixteen
// objects (48 floats) in three vectors, without taking them apart. rot moves
// every object's elements (1, 2, 0) within the packed layout: float f comes
// from f + 1, or from f - 2 at an object's third element, so the first and
// last vectors draw on two neighbours (one two-source permute each) and the
// middle one on all three (one more, masked, for its lane 1). u = a rot(b) -
// rot(a) b and the result rot(u) are the products and differences of the
// 128-bit path, lane for lane. Loads and stores are 256-bit halves (whole
// 512-bit loads stream slower here). A group reads its 48 floats of each
// array before it stores.
__attribute__((target("avx512f"))) ZEL_INLINE void cross_rot16(const __m512* x, __m512* r) {
    const __m512i first = _mm512_setr_epi32(1, 2, 0, 4, 5, 3, 7, 8, 6, 10, 11, 9, 13, 14, 12, 16);  // x0, x1
    const __m512i middle = _mm512_setr_epi32(1, 15, 3, 4, 2, 6, 7, 5, 9, 10, 8, 12, 13, 11, 15, 16);  // x1, x2; x0
    const __m512i last = _mm512_setr_epi32(14, 18, 19, 17, 21, 22, 20, 24, 25, 23, 27, 28, 26, 30, 31, 29);  // x1, x2
    r[0] = _mm512_permutex2var_ps(x[0], first, x[1]);
    r[1] = _mm512_mask_permutexvar_ps(_mm512_permutex2var_ps(x[1], middle, x[2]), __mmask16(1u << 1), middle, x[0]);
    r[2] = _mm512_permutex2var_ps(x[1], last, x[2]);
}
__attribute__((target("avx512f"))) ZEL_INLINE __m512 cross_load16(const float* p) {
    const __m256 lo = _mm256_loadu_ps(p), hi = _mm256_loadu_ps(p + 8);
    return __builtin_shufflevector(lo, hi, 0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15);
}
__attribute__((target("avx512f"))) ZEL_INLINE void cross_store16(float* p, __m512 v) {
    _mm256_storeu_ps(p, __builtin_shufflevector(v, v, 0, 1, 2, 3, 4, 5, 6, 7));
    _mm256_storeu_ps(p + 8, __builtin_shufflevector(v, v, 8, 9, 10, 11, 12, 13, 14, 15));
}
__attribute__((target("avx512f"), noinline)) int cross_packed_avx512(const float* a, const float* b, float* d,
                                                                     int count) {
    int o = 0;
    for (; o + 16 <= count; o += 16, a += 48, b += 48, d += 48) {
        __m512 x[3], y[3], rx[3], ry[3], u[3], r[3];
        for (int k = 0; k < 3; ++k) x[k] = cross_load16(a + 16 * k), y[k] = cross_load16(b + 16 * k);
        cross_rot16(x, rx);
        cross_rot16(y, ry);
        for (int k = 0; k < 3; ++k) u[k] = _mm512_sub_ps(_mm512_mul_ps(x[k], ry[k]), _mm512_mul_ps(rx[k], y[k]));
        cross_rot16(u, r);
        for (int k = 0; k < 3; ++k) cross_store16(d + 16 * k, r[k]);
    }
    return o;
}

template <bool A1, bool A2, class T>
__attribute__((target("avx"), noinline)) int cross_avx(const T* a, const T* b, T* d, const Vec<T>* ha,
                                                       const Vec<T>* hb, int count) {
    using K = Avx<T>;
    constexpr int h = X<T>::n;  // objects in a half
    typename K::V sa[3], sb[3], xa[3], xb[3], xd[3];
    for (int k = 0; k < 3; ++k) sa[k] = K::held2(ha[k]), sb[k] = K::held2(hb[k]);
    int o = 0;
    if constexpr (A1 && A2 && sizeof(T) == 4) {
        if (cpu::avx512()) o = cross_packed_avx512(a, b, d, count);
        o += cross_halves_avx(a + 3 * o, b + 3 * o, d + 3 * o, count - o);
        a += 3 * o, b += 3 * o, d += 3 * o;
    }
    for (; o + 2 * h <= count; o += 2 * h, d += 6 * h) {
        for (int k = 0; k < 3; ++k) {
            if constexpr (A1) xa[k] = K::load2(a + h * k, a + 3 * h + h * k);
            if constexpr (A2) xb[k] = K::load2(b + h * k, b + 3 * h + h * k);
        }
        cross_group<A1, A2>(xa, xb, sa, sb, xd);
        for (int k = 0; k < 3; ++k) K::store2(d + h * k, d + 3 * h + h * k, xd[k]);
        if constexpr (A1) a += 6 * h;
        if constexpr (A2) b += 6 * h;
    }
    return o;
}

template <Str Sig, class T, Form F>
bool cross(const Call<T>& __restrict c) {
    static constexpr Operands ops = parse<Sig>();
    constexpr bool A1 = ops.l[0].array, A2 = ops.l[1].array;
    constexpr int esz = int(sizeof(T)), n = X<T>::n;
    if constexpr (F != Form::S) {
        return false;
    } else {
        if ((A1 && c.src[0].s0 != 3 * esz) || (A2 && c.src[1].s0 != 3 * esz) || c.dst[0].s0 != 3 * esz ||
            c.count < n)
            return false;
        const T* a = static_cast<const T*>(c.src[0].p);
        const T* b = static_cast<const T*>(c.src[1].p);
        T* d = static_cast<T*>(const_cast<void*>(c.dst[0].p));
        // elements need not lie on their element size: single ones are read and
        // written as bytes
        const T x0 = zel::load(a), x1 = zel::load(a + 1), x2 = zel::load(a + 2);
        const T y0 = zel::load(b), y1 = zel::load(b + 1), y2 = zel::load(b + 2);
        // a single operand's elements, each across the lanes
        const Vec<T> sa[3] = {X<T>::splat(x0), X<T>::splat(x1), X<T>::splat(x2)};
        const Vec<T> sb[3] = {X<T>::splat(y0), X<T>::splat(y1), X<T>::splat(y2)};
        int o = 0;
        if (cpu::avx()) {
            o = cross_avx<A1, A2>(a, b, d, sa, sb, c.count);
            if (A1) a += 3 * o;
            if (A2) b += 3 * o;
            d += 3 * o;
        }
        for (; o + n <= c.count; o += n, d += 3 * n) {
            Vec<T> xa[3], xb[3], xd[3];
            for (int k = 0; k < 3; ++k) {
                if constexpr (A1) xa[k] = X<T>::load(a + n * k);
                if constexpr (A2) xb[k] = X<T>::load(b + n * k);
            }
            cross_group<A1, A2>(xa, xb, sa, sb, xd);
            for (int k = 0; k < 3; ++k) X<T>::store(d + n * k, xd[k]);
            if (A1) a += 3 * n;
            if (A2) b += 3 * n;
        }
        // the last objects one by one
        for (; o < c.count; ++o, d += 3) {
            const T p0 = A1 ? zel::load(a) : x0, p1 = A1 ? zel::load(a + 1) : x1, p2 = A1 ? zel::load(a + 2) : x2;
            const T q0 = A2 ? zel::load(b) : y0, q1 = A2 ? zel::load(b + 1) : y1, q2 = A2 ? zel::load(b + 2) : y2;
            zel::store(d, p1 * q2 - p2 * q1);
            zel::store(d + 1, p2 * q0 - p0 * q2);
            zel::store(d + 2, p0 * q1 - p1 * q0);
            if (A1) a += 3;
            if (A2) b += 3;
        }
        return true;
    }
}

// ---------------------------------------------------------------------------
// f.lanes() on 256-bit vectors, its operands and result through memory (see
// sum_into): x holds a, b, and the two scales.
template <class Fn, class V>
ZEL_INLINE void lanes_into(const Fn& f, V* r, const V* x) {
    *r = f.lanes(x[0], x[1], x[2], x[3]);
}

// Saxpy and LComb: every element stands alone. Arrays packed back to back
// (and a single object) are one run of len * count elements, in 256-bit
// lanes where the processor has them.
template <class T, class Fn>
__attribute__((target("avx"), noinline)) std::ptrdiff_t combine_avx(const T* a, const T* b, T* d, std::ptrdiff_t n,
                                                                    const Fn& f) {
    using K = Avx<T>;
    const typename K::V v1 = K::splat(f.v1), v2 = K::splat(f.v2);
    // single elements up to a 32-byte boundary of the destination, so that
    // no store straddles two cache lines
    const auto da = reinterpret_cast<std::uintptr_t>(d);
    std::ptrdiff_t j = da % sizeof(T) ? 0 : std::ptrdiff_t((32 - da % 32) % 32 / sizeof(T));
    for (std::ptrdiff_t k = 0; k < j; ++k) zel::store(d + k, f(zel::load(a + k), zel::load(b + k)));
    for (; j + 2 * K::W <= n; j += 2 * K::W) {
        const typename K::V x0[4] = {K::load(a + j), K::load(b + j), v1, v2};
        const typename K::V x1[4] = {K::load(a + j + K::W), K::load(b + j + K::W), v1, v2};
        typename K::V r0, r1;
        lanes_into(f, &r0, x0);
        lanes_into(f, &r1, x1);
        K::store(d + j, r0);
        K::store(d + j + K::W, r1);
    }
    return j;
}

template <Op O, Str Sig, class T, Form F, class Fn>
bool combine(const Call<T>& __restrict c, const Fn& f) {
    static constexpr Operands ops = parse<Sig>();
    if constexpr (F != Form::S || !ops.l[0].array || !ops.l[1].array) {
        return false;
    } else {
        const std::ptrdiff_t len = c.len, bytes = len * std::ptrdiff_t(sizeof(T));
        if (c.count > 1 && (c.src[0].s0 != bytes || c.src[1].s0 != bytes || c.dst[0].s0 != bytes)) return false;
        const T* a = static_cast<const T*>(c.src[0].p);
        const T* b = static_cast<const T*>(c.src[1].p);
        T* d = static_cast<T*>(const_cast<void*>(c.dst[0].p));
        const std::ptrdiff_t n = len * c.count;
        std::ptrdiff_t j = cpu::avx() && n >= 16 ? combine_avx(a, b, d, n, f) : 0;
        using V = Vec<T>;
        const V v1 = X<T>::splat(f.v1), v2 = X<T>::splat(f.v2);
        for (; j + X<T>::n <= n; j += X<T>::n)
            X<T>::store(d + j, f.lanes(X<T>::load(a + j), X<T>::load(b + j), v1, v2));
        for (; j < n; ++j) zel::store(d + j, f(zel::load(a + j), zel::load(b + j)));
        return true;
    }
}

}  // namespace zel::vectors::lanes
