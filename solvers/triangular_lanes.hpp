// Several objects at once across vector lanes, for the fixed orders of the
// LU and Cholesky kernels: W objects of one batch, lane l holding object
// first + l, every lane doing exactly the operations of the scalar code on
// its own object (IEEE arithmetic is lane by lane, so the bits are those of
// the scalar path). Batches of 128-bit lanes on the SSE2 baseline, of 256-bit
// lanes in functions built for AVX where the processor has it.
//
// Rows of W objects go into lanes by 128-bit loads and q x q transposes
// (q = 4 floats or 2 doubles per 128-bit piece); pieces of a 256-bit lane
// vector are joined and split by shuffles. Loads and stores touch exactly
// the elements of a row they name.
#pragma once

// Vector types of 256 bits pass between always-inline helpers only, inside
// functions built for AVX.
#pragma GCC diagnostic ignored "-Wpsabi"

#include <emmintrin.h>
#include <immintrin.h>

#include <cstdint>
#include <type_traits>

#include "frame/cpu.hpp"
#include "frame/simd.hpp"
#include "frame/view.hpp"
#include "solvers/triangular.hpp"

namespace zel::tri::lanes {

// W objects of element type T, one per lane.
template <class T, int W>
struct Pack {
    static constexpr int q = int(16 / sizeof(T));  // lanes of a 128-bit piece
    static constexpr int groups = W / q;
    typedef T V __attribute__((vector_size(W * sizeof(T))));
    typedef T Q __attribute__((vector_size(16)));
    using M = decltype(V{} < V{});  // lane masks: all bits set or none

    static ZEL_INLINE V splat(T x) { return V{} + x; }
    static ZEL_INLINE V abs(V x) {
        using Bits = std::conditional_t<sizeof(T) == 4, std::int32_t, std::int64_t>;
        constexpr Bits low = ~(Bits(1) << (8 * sizeof(T) - 1));
        return (V)((M)x & low);
    }
    static ZEL_INLINE bool any(M m) {
        bool r = false;
        for (int l = 0; l < W; ++l) r |= m[l] != 0;
        return r;
    }

    // The 128-bit piece g of a lane vector, and a lane vector from pieces.
    static ZEL_INLINE Q piece(V v, int g) {
        if constexpr (groups == 1) {
            return (Q)v;
        } else if constexpr (q == 4) {
            return g == 0 ? __builtin_shufflevector(v, v, 0, 1, 2, 3) : __builtin_shufflevector(v, v, 4, 5, 6, 7);
        } else {
            return g == 0 ? __builtin_shufflevector(v, v, 0, 1) : __builtin_shufflevector(v, v, 2, 3);
        }
    }
    static ZEL_INLINE V join(const Q* g) {
        if constexpr (groups == 1) return (V)g[0];
        else if constexpr (q == 4) return __builtin_shufflevector(g[0], g[1], 0, 1, 2, 3, 4, 5, 6, 7);
        else return __builtin_shufflevector(g[0], g[1], 0, 1, 2, 3);
    }
    // A function of 128-bit pieces (an SSE instruction) over a lane vector.
    template <class F>
    static ZEL_INLINE V by_piece(V v, F f) {
        Q g[groups];
        for (int k = 0; k < groups; ++k) g[k] = f(piece(v, k));
        return join(g);
    }

    static ZEL_INLINE void transpose(Q (&r)[q]) {
        if constexpr (q == 4) {
            const Q t0 = __builtin_shufflevector(r[0], r[1], 0, 4, 1, 5), t1 = __builtin_shufflevector(r[2], r[3], 0, 4, 1, 5);
            const Q t2 = __builtin_shufflevector(r[0], r[1], 2, 6, 3, 7), t3 = __builtin_shufflevector(r[2], r[3], 2, 6, 3, 7);
            r[0] = __builtin_shufflevector(t0, t1, 0, 1, 4, 5);
            r[1] = __builtin_shufflevector(t0, t1, 2, 3, 6, 7);
            r[2] = __builtin_shufflevector(t2, t3, 0, 1, 4, 5);
            r[3] = __builtin_shufflevector(t2, t3, 2, 3, 6, 7);
        } else {
            const Q a = __builtin_shufflevector(r[0], r[1], 0, 2), b = __builtin_shufflevector(r[0], r[1], 1, 3);
            r[0] = a, r[1] = b;
        }
    }

    // Elements 0 .. Cnt-1 of one row per lane: out[c], lane l = rows[l][c].
    template <int Cnt>
    static ZEL_INLINE void load_row(const T* const (&rows)[W], V* out) {
        static_for<0, (Cnt + q - 1) / q>([&](auto ch) {
            constexpr int c0 = ch * q, cnt = Cnt - c0 < q ? Cnt - c0 : q;
            Q cols[q][groups];
            for (int g = 0; g < groups; ++g) {
                Q r[q];
                for (int k = 0; k < q; ++k) r[k] = (Q)simd::V128<T>::template load<cnt>(rows[g * q + k] + c0);
                transpose(r);
                for (int k = 0; k < q; ++k) cols[k][g] = r[k];
            }
            for (int k = 0; k < cnt; ++k) out[c0 + k] = join(cols[k]);
        });
    }
    // The inverse: rows[l][c] = in[c], lane l, for c below Cnt.
    template <int Cnt>
    static ZEL_INLINE void store_row(T* const (&rows)[W], const V* in) {
        static_for<0, (Cnt + q - 1) / q>([&](auto ch) {
            constexpr int c0 = ch * q, cnt = Cnt - c0 < q ? Cnt - c0 : q;
            for (int g = 0; g < groups; ++g) {
                Q r[q] = {};
                for (int k = 0; k < cnt; ++k) r[k] = piece(in[c0 + k], g);
                transpose(r);
                for (int k = 0; k < q; ++k)
                    simd::V128<T>::template store<cnt>(rows[g * q + k] + c0, (typename simd::V128<T>::V)r[k]);
            }
        });
    }
};

// ---------------------------------------------------------------------------
// Whether a batch may read all its objects before writing any: no
// destination of an object reaches a source of a later one in the batch.
// Byte extents [lo, hi) of objects.
struct Span {
    std::uintptr_t lo, hi;
};
template <class T, Form F>
ZEL_INLINE Span span_of(const Opd& o, int obj, int rows, int cols) {
    const auto b = reinterpret_cast<std::uintptr_t>(view_of<T, F, true>(o, obj, 0).base);
    return {b, b + std::uintptr_t(std::ptrdiff_t(rows - 1) * o.s1 + std::ptrdiff_t(cols - 1) * o.s2) + sizeof(T)};
}
ZEL_INLINE bool apart(Span a, Span b) { return a.hi <= b.lo || b.hi <= a.lo; }

// A standard-form call, once: the destination's range apart from the
// source's, or the destination the source itself with objects apart.
template <class T>
ZEL_INLINE bool call_apart(const Opd& src, int srows, int scols, const Opd& dst, int drows, int dcols, int count) {
    const Span s0 = span_of<T, Form::S>(src, 0, srows, scols), s1 = span_of<T, Form::S>(src, count - 1, srows, scols);
    const Span d0 = span_of<T, Form::S>(dst, 0, drows, dcols), d1 = span_of<T, Form::S>(dst, count - 1, drows, dcols);
    if (apart({s0.lo, s1.hi}, {d0.lo, d1.hi})) return true;
    return src.p == dst.p && src.s0 == dst.s0 && src.s1 == dst.s1 && src.s2 == dst.s2 &&
           std::uintptr_t(src.s0) >= s0.hi - s0.lo && std::uintptr_t(src.s0) >= d0.hi - d0.lo;
}

// A list-form batch: each object's destination against the later objects'
// sources.
template <class T, int W>
ZEL_INLINE bool batch_apart(const Opd& src, int srows, int scols, const Opd& dst, int drows, int dcols, int first) {
    for (int a = 0; a < W - 1; ++a) {
        const Span d = span_of<T, Form::L>(dst, first + a, drows, dcols);
        for (int b = a + 1; b < W; ++b)
            if (!apart(d, span_of<T, Form::L>(src, first + b, srows, scols))) return false;
    }
    return true;
}

// Prefetches objects [first, first + cnt) of a standard-form operand, where
// they lie close together (at most twice their own bytes apart).
template <class T, bool Write>
ZEL_INLINE void prefetch_objects(const Opd& o, int first, int cnt, int rows, int cols) {
    const Span a = span_of<T, Form::S>(o, first, rows, cols), b = span_of<T, Form::S>(o, first + cnt - 1, rows, cols);
    const std::uintptr_t own = std::uintptr_t(cnt) * std::uintptr_t(rows * cols) * sizeof(T);
    if (b.hi <= a.lo || b.hi - a.lo > 2 * own) return;
    for (std::uintptr_t p = a.lo & ~std::uintptr_t(63); p < b.hi; p += 64)
        __builtin_prefetch(reinterpret_cast<const void*>(p), Write ? 1 : 0, 3);
}

// How many batches a family interleaves at order N in the decomposition or
// the back-substitution (one unless it says).
template <class Family, class T, int N, bool Decomp>
inline constexpr int batches = [] {
    if constexpr (requires { Family::template batches<T, N, Decomp>; }) return Family::template batches<T, N, Decomp>;
    else return 1;
}();

// A call whose matrices take more bytes than this streams them from memory
// rather than from a core's second-level cache.
inline constexpr std::int64_t kStreamBytes = std::int64_t(1) << 20;

// How many batches ahead a family prefetches its operands at order N, in a
// streaming call (none unless it says).
template <class Family, int N>
inline constexpr int ahead = [] {
    if constexpr (requires { Family::template ahead<N>; }) return Family::template ahead<N>;
    else return 0;
}();

// A fixed order N of an array call, W objects at a time from object 0, while
// the batches may read before they write and complete: `Family::batch<T, W,
// N, F, Decomp, B>(call, first)` factors (Decomp) or solves B batches from
// object first and says whether it did. The sources that an earlier object's destination must not
// reach: the matrix (decomposition), or the factors and b. Returns the
// objects done; the scalar kernel goes on from there.
template <class Family, class T, int W, int N, Form F, bool Decomp>
ZEL_INLINE int run(const Call<T>& c) {
    if (c.count < W) return 0;
    const int xr = Decomp ? N : 1;
    if constexpr (F == Form::S) {
        if (!call_apart<T>(c.src[0], N, N, c.dst[0], xr, N, c.count) ||
            (!Decomp && !call_apart<T>(c.src[1], 1, N, c.dst[0], 1, N, c.count)))
            return 0;
    }
    // Streaming calls fetch the batch `ahead` batches on: the matrix and
    // its destination, or the factors, b and x.
    constexpr int A = ahead<Family, N>;
    const bool far = F == Form::S && A > 0 && std::int64_t(c.count) * N * N * std::int64_t(sizeof(T)) > kStreamBytes;
    auto fetch = [&](int o, int cnt) ZEL_LAMBDA_INLINE {
        if (c.count - o < A * W + cnt) return;
        prefetch_objects<T, false>(c.src[0], o + A * W, cnt, N, N);
        prefetch_objects<T, true>(c.dst[0], o + A * W, cnt, xr, N);
        if constexpr (!Decomp) prefetch_objects<T, false>(c.src[1], o + A * W, cnt, 1, N);
    };
    // Two batches interleaved where the family says so; where one of them
    // fails, they go on one at a time from the first. (One loop choosing
    // the batch count at each step ran 6% slower at 64f order 4.)
    int o = 0;
    if constexpr (F == Form::S && batches<Family, T, N, Decomp> == 2) {
        for (; o + 2 * W <= c.count; o += 2 * W) {
            if (far) fetch(o, 2 * W);
            if (!Family::template batch<T, W, N, F, Decomp, 2>(c, o)) break;
        }
    }
    for (; o + W <= c.count; o += W) {
        if (far) fetch(o, W);
        if constexpr (F == Form::L) {
            if (!batch_apart<T, W>(c.src[0], N, N, c.dst[0], xr, N, o) ||
                (!Decomp && !batch_apart<T, W>(c.src[1], 1, N, c.dst[0], 1, N, o)))
                break;
        }
        if (!Family::template batch<T, W, N, F, Decomp>(c, o)) break;
    }
    return o;
}

// One function per order and encoding (the AVX-512 encoding's 32 vector
// registers hold most of a batch of order 4 to 6 that otherwise spills).
template <class Family, class T, int N, Form F, bool Decomp>
struct Order {
    template <int Bytes>
    static ZEL_INLINE int run(const Call<T>* c) {
        return lanes::run<Family, T, Bytes / int(sizeof(T)), N, F, Decomp>(*c);
    }
};
template <class Family, class T, Form F, bool Decomp>
int objects_done(const Call<T>& c) {
    return by_order<Family::lo, Family::hi>(
        c.widthHeight, [&](auto N) { return cpu::widest<Order<Family, T, N(), F, Decomp>>(&c); }, [] { return 0; });
}

}  // namespace zel::tri::lanes
