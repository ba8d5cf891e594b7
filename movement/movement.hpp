// Data movement: Copy, LoadIdentity, Extract and Transpose.
//
// Nothing here is arithmetic: elements travel as 4-byte or 8-byte bit
// patterns (integer moves, never floating-point loads), so NaN payloads and
// signalling NaNs arrive unchanged. Copy, LoadIdentity and Extract walk their
// operands in one fixed order, written once against the line accessors below
// for every storage form; Transpose has the fast paths of transpose.cpp for
// rows of unit step. Everything runs on the calling thread.
#pragma once

#include <emmintrin.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <type_traits>

#include "frame/frame.hpp"

namespace zel::movement {

// ---------------------------------------------------------------------------
// Elements as bits.
// Integer views of elements at any address. All element accesses of this
// family go through these types, so the compiler may keep table entries and
// call arguments in registers across stores of elements.
template <std::size_t Size>
struct BitsOf;
template <>
struct BitsOf<4> {
    typedef std::uint32_t type __attribute__((aligned(1)));
};
template <>
struct BitsOf<8> {
    typedef std::uint64_t type __attribute__((aligned(1)));
};

template <class T>
ZEL_INLINE void move1(void* d, const void* s) {
    using B = typename BitsOf<sizeof(T)>::type;
    *static_cast<B*>(d) = *static_cast<const B*>(s);
}

template <class T>
ZEL_INLINE void put(void* d, T v) {
    std::memcpy(d, &v, sizeof v);
}

ZEL_INLINE char* bytes(const void* p) { return static_cast<char*>(const_cast<void*>(p)); }

// ---------------------------------------------------------------------------
// Lines: a row or a column of one stored object, element e at el(e).
// In the standard and list forms a line is a base and a byte step; in the
// pointer form it is a walk through the table with an object offset.
template <bool Table>
struct Line;
template <>
struct Line<false> {
    char* base;
    std::ptrdiff_t step;
    ZEL_INLINE char* el(std::ptrdiff_t e) const { return base + e * step; }
};
template <>
struct Line<true> {
    const void* const* tab;
    std::ptrdiff_t tstep;  // entries between consecutive elements
    std::ptrdiff_t off;    // shift + n*stride0
    ZEL_INLINE char* el(std::ptrdiff_t e) const { return bytes(tab[e * tstep]) + off; }
};

// An operand in form F; `rowlen` is the row length of the stored matrix (the
// pointer form's table is row-major over it).
template <Form F>
struct Acc {
    static constexpr bool table = F == Form::P;
    const Opd* o;
    int rowlen;

    // Byte address of stored element (0, 0) of object n (standard and list).
    ZEL_INLINE char* origin(int n) const {
        if constexpr (F == Form::S) return bytes(o->p) + std::ptrdiff_t(n) * o->s0;
        else return bytes(static_cast<const void* const*>(o->p)[n]) + o->shift;
    }
    // Stored row r of object n.
    ZEL_INLINE Line<table> row(int n, int r) const {
        if constexpr (table) {
            return {static_cast<const void* const*>(o->p) + std::ptrdiff_t(r) * rowlen, 1,
                    std::ptrdiff_t(o->shift) + std::ptrdiff_t(n) * o->s0};
        } else {
            return {origin(n) + std::ptrdiff_t(r) * o->s1, o->s2};
        }
    }
    // Stored column k of object n.
    ZEL_INLINE Line<table> col(int n, int k) const {
        if constexpr (table) {
            return {static_cast<const void* const*>(o->p) + k, rowlen,
                    std::ptrdiff_t(o->shift) + std::ptrdiff_t(n) * o->s0};
        } else {
            return {origin(n) + std::ptrdiff_t(k) * o->s2, o->s1};
        }
    }
};

template <char C>
constexpr Form form_letter() {
    return C == 'L' ? Form::L : C == 'P' ? Form::P : Form::S;
}

// ---------------------------------------------------------------------------
// Copy.

// `len` elements from s to d, both contiguous, with the result of a forward
// element-by-element copy. That equals memmove's unless d lies inside the
// source above its start, where the forward order re-reads what it wrote.
template <class T>
ZEL_INLINE void forward(char* d, const char* s, std::size_t len) {
    const std::size_t n = len * sizeof(T);
    const auto di = reinterpret_cast<std::uintptr_t>(d), si = reinterpret_cast<std::uintptr_t>(s);
    if (n > 32 && (di <= si || di >= si + n)) {
        std::memmove(d, s, n);
        return;
    }
    for (std::size_t k = 0; k < n; k += sizeof(T)) move1<T>(d + k, s + k);
}

template <class T>
ZEL_INLINE bool dense_rows(const Opd& o, int W, int H) {
    return o.s2 == int(sizeof(T)) && (H == 1 || std::ptrdiff_t(o.s1) == std::ptrdiff_t(W) * int(sizeof(T)));
}

// The bytes an operand can touch, as [lo, hi), when it is a table or a
// standard-form array of dense objects; element k of object n lies at
// first(k) + n*s0.
template <class T, Form F>
struct Span {
    std::uintptr_t lo = UINTPTR_MAX, hi = 0;
    Span(const Opd& o, std::ptrdiff_t K, int count) {
        const std::ptrdiff_t run = std::ptrdiff_t(count - 1) * o.s0 + std::ptrdiff_t(sizeof(T));
        if constexpr (F == Form::P) {
            const auto* tab = static_cast<const void* const*>(o.p);
            for (std::ptrdiff_t k = 0; k < K; ++k) add(reinterpret_cast<std::uintptr_t>(tab[k]) + o.shift, run);
        } else {
            add(reinterpret_cast<std::uintptr_t>(o.p), run + (K - 1) * std::ptrdiff_t(sizeof(T)));
        }
    }
    void add(std::uintptr_t a, std::ptrdiff_t len) {
        lo = std::min(lo, a);
        hi = std::max(hi, a + std::uintptr_t(len));
    }
    template <class Other>
    bool apart(const Other& b) const { return hi <= b.lo || b.hi <= lo; }
};

// Whether no two elements of the destination's count objects of K share a
// byte: each object one dense block within stride0, or, in the pointer form
// (tables of up to 64 entries), the positions within stride0 of each other
// or each position's run clear of the next. Where elements meet, the order
// of the writes decides what stays.
template <class T, Form DF>
bool distinct_elements(const Opd& o, std::ptrdiff_t K, int count) {
    constexpr std::ptrdiff_t sz = sizeof(T);
    const std::ptrdiff_t s0 = o.s0;
    if constexpr (DF != Form::P) {
        return s0 >= K * sz;
    } else {
        constexpr std::ptrdiff_t kMax = 64;
        if (K > kMax) return false;
        std::uintptr_t a[kMax];
        const auto* tab = static_cast<const void* const*>(o.p);
        for (std::ptrdiff_t k = 0; k < K; ++k) a[k] = reinterpret_cast<std::uintptr_t>(tab[k]) + std::uintptr_t(o.shift);
        std::sort(a, a + K);
        for (std::ptrdiff_t k = 1; k < K; ++k)
            if (a[k] - a[k - 1] < std::uintptr_t(sz)) return false;
        if (a[K - 1] - a[0] + std::uintptr_t(sz) <= std::uintptr_t(s0)) return true;
        if (s0 < sz) return false;
        const std::uintptr_t run = std::uintptr_t(count - 1) * std::uintptr_t(s0) + std::uintptr_t(sz);
        for (std::ptrdiff_t k = 1; k < K; ++k)
            if (a[k] - a[k - 1] < run) return false;
        return true;
    }
}

// Pointer-form copies between operands that cannot meet, into elements that
// do not meet either: any order gives the forward order's result, so
// element positions go outer over blocks of objects, each table entry is
// read once per block and walked by stride0.
template <class T, Form SF, Form DF>
bool copy_by_position(const Call<T>& c, int W, int H) {
    const std::ptrdiff_t K = std::ptrdiff_t(W) * H;
    const int count = c.count;
    if (count < 8) return false;
    if (!Span<T, SF>(c.src[0], K, count).apart(Span<T, DF>(c.dst[0], K, count))) return false;
    if (!distinct_elements<T, DF>(c.dst[0], K, count)) return false;
    constexpr std::ptrdiff_t sz = sizeof(T);
    const std::ptrdiff_t ss0 = c.src[0].s0, ds0 = c.dst[0].s0;
    constexpr int block = 32;
    for (int n0 = 0; n0 < count; n0 += block) {
        const int nb = std::min(block, count - n0);
        for (std::ptrdiff_t k = 0; k < K; ++k) {
            const char* sp;
            char* dp;
            if constexpr (SF == Form::P) sp = bytes(static_cast<const void* const*>(c.src[0].p)[k]) + c.src[0].shift;
            else sp = bytes(c.src[0].p) + k * sz;
            if constexpr (DF == Form::P) dp = bytes(static_cast<const void* const*>(c.dst[0].p)[k]) + c.dst[0].shift;
            else dp = bytes(c.dst[0].p) + k * sz;
            sp += std::ptrdiff_t(n0) * ss0;
            dp += std::ptrdiff_t(n0) * ds0;
            for (int n = 0; n < nb; ++n) move1<T>(dp + n * ds0, sp + n * ss0);
        }
    }
    return true;
}

// Objects n, rows i, columns j, all in order; element (i, j) of destination
// object n gets element (i, j) of source object n.
template <class T, Form SF, Form DF>
zelStatus copy(const Call<T>& c, int W, int H) {
    constexpr std::ptrdiff_t sz = sizeof(T);
    const Acc<SF> s{&c.src[0], W};
    const Acc<DF> d{&c.dst[0], W};
    if constexpr (SF == Form::S && DF == Form::S) {
        // Objects back to back on both sides: one block.
        const std::ptrdiff_t block = std::ptrdiff_t(W) * H * sz;
        if (dense_rows<T>(c.src[0], W, H) && dense_rows<T>(c.dst[0], W, H) &&
            (c.count == 1 || (c.src[0].s0 == block && c.dst[0].s0 == block))) {
            forward<T>(d.origin(0), s.origin(0), std::size_t(W) * H * std::size_t(c.count));
            return zelStsOk;
        }
    }
    if constexpr (SF != Form::P && DF != Form::P) {
        if (c.src[0].s2 == sz && c.dst[0].s2 == sz) {
            for (int n = 0; n < c.count; ++n)
                for (int i = 0; i < H; ++i) forward<T>(d.row(n, i).base, s.row(n, i).base, std::size_t(W));
            return zelStsOk;
        }
    }
    // Each side a table or objects of one dense block: one flat run of W*H
    // elements per object, k = i*W + j in order.
    if ((SF == Form::P || dense_rows<T>(c.src[0], W, H)) && (DF == Form::P || dense_rows<T>(c.dst[0], W, H))) {
        if constexpr ((SF == Form::P || DF == Form::P) && SF != Form::L && DF != Form::L) {
            if (copy_by_position<T, SF, DF>(c, W, H)) return zelStsOk;
        }
        const std::ptrdiff_t K = std::ptrdiff_t(W) * H;
        for (int n = 0; n < c.count; ++n) {
            const auto sl = s.row(n, 0);
            const auto dl = d.row(n, 0);
            for (std::ptrdiff_t k = 0; k < K; ++k) move1<T>(dl.el(k), sl.el(k));
        }
        return zelStsOk;
    }
    for (int n = 0; n < c.count; ++n) {
        for (int i = 0; i < H; ++i) {
            const auto sl = s.row(n, i);
            const auto dl = d.row(n, i);
            for (int j = 0; j < W; ++j) move1<T>(dl.el(j), sl.el(j));
        }
    }
    return zelStsOk;
}

// ---------------------------------------------------------------------------
// LoadIdentity: each row is cleared, then its diagonal element, if it has one,
// set to 1. (The two steps stay apart so that overlapping rows or repeated
// table entries end as that order leaves them.)
template <class T, Form F>
zelStatus load_identity(const Call<T>& c) {
    const int W = c.width, H = c.height;
    const Acc<F> d{&c.dst[0], W};
    for (int n = 0; n < c.count; ++n) {
        for (int i = 0; i < H; ++i) {
            const auto dl = d.row(n, i);
            if constexpr (F != Form::P) {
                if (dl.step == std::ptrdiff_t(sizeof(T))) std::memset(dl.base, 0, std::size_t(W) * sizeof(T));
                else
                    for (int j = 0; j < W; ++j) put<T>(dl.el(j), T(0));
            } else {
                for (int j = 0; j < W; ++j) put<T>(dl.el(j), T(0));
            }
            if (i < W) put<T>(dl.el(i), T(1));
        }
    }
    return zelStsOk;
}

// ---------------------------------------------------------------------------
// Extract: into one compact block, element (i, j) of object n at
// n*W*H + i*W + j. A `t` source is read through its stored columns.
template <class T, Form F, bool Trans, bool Array>
zelStatus extract(const Call<T>& c, int W, int H) {
    T* out = c.out;
    const std::ptrdiff_t block = std::ptrdiff_t(W) * H;
    const Acc<F> s{&c.src[0], Trans ? H : W};
    if constexpr (F == Form::P && !Trans && Array) {
        // Element position outer: each table entry is fetched once and walked
        // by stride0.
        const auto* tab = static_cast<const void* const*>(c.src[0].p);
        for (std::ptrdiff_t k = 0; k < block; ++k) {
            const char* e = bytes(tab[k]) + c.src[0].shift;
            for (int n = 0; n < c.count; ++n) move1<T>(out + n * block + k, e + std::ptrdiff_t(n) * c.src[0].s0);
        }
        return zelStsOk;
    }
    for (int n = 0; n < c.count; ++n) {
        T* o = out + n * block;
        for (int i = 0; i < H; ++i, o += W) {
            const auto sl = Trans ? s.col(n, i) : s.row(n, i);
            if constexpr (F != Form::P) {
                if (sl.step == std::ptrdiff_t(sizeof(T))) {
                    std::memmove(o, sl.base, std::size_t(W) * sizeof(T));
                    continue;
                }
            }
            for (int j = 0; j < W; ++j) move1<T>(o + j, sl.el(j));
        }
    }
    return zelStsOk;
}

// ---------------------------------------------------------------------------
// Transpose. The source has H rows of W, the destination W rows of H.

// The general paths of rows with unit step (transpose.cpp).
void transpose32(const char* s, std::ptrdiff_t s1, char* d, std::ptrdiff_t d1, int W, int H, bool nt);
void transpose64(const char* s, std::ptrdiff_t s1, char* d, std::ptrdiff_t d1, int W, int H);
// The non-temporal decision for a 32f array: asks the cache size only when the
// array's traffic exceeds 128 KiB.
bool array_wants_nt(int W, int H, int count);

// Square orders 3 to 6, rows of unit step: straight-line moves.
template <class T, int N>
ZEL_INLINE void small_square(const char* s, std::ptrdiff_t s1, char* d, std::ptrdiff_t d1) {
    constexpr std::ptrdiff_t sz = sizeof(T);
    if constexpr (N == 4 && sz == 4) {
        const __m128i a = _mm_loadu_si128(reinterpret_cast<const __m128i*>(s));
        const __m128i b = _mm_loadu_si128(reinterpret_cast<const __m128i*>(s + s1));
        const __m128i e = _mm_loadu_si128(reinterpret_cast<const __m128i*>(s + 2 * s1));
        const __m128i f = _mm_loadu_si128(reinterpret_cast<const __m128i*>(s + 3 * s1));
        const __m128i t0 = _mm_unpacklo_epi32(a, b), t1 = _mm_unpacklo_epi32(e, f);
        const __m128i t2 = _mm_unpackhi_epi32(a, b), t3 = _mm_unpackhi_epi32(e, f);
        _mm_storeu_si128(reinterpret_cast<__m128i*>(d), _mm_unpacklo_epi64(t0, t1));
        _mm_storeu_si128(reinterpret_cast<__m128i*>(d + d1), _mm_unpackhi_epi64(t0, t1));
        _mm_storeu_si128(reinterpret_cast<__m128i*>(d + 2 * d1), _mm_unpacklo_epi64(t2, t3));
        _mm_storeu_si128(reinterpret_cast<__m128i*>(d + 3 * d1), _mm_unpackhi_epi64(t2, t3));
    } else {
        std::conditional_t<sizeof(T) == 4, std::uint32_t, std::uint64_t> m[N][N];
        for (int i = 0; i < N; ++i) std::memcpy(m[i], s + i * s1, sizeof m[i]);
        for (int j = 0; j < N; ++j)
            for (int i = 0; i < N; ++i) std::memcpy(d + j * d1 + i * sz, &m[i][j], sz);
    }
}

template <class T>
ZEL_INLINE bool try_small_square(const char* s, std::ptrdiff_t s1, char* d, std::ptrdiff_t d1, int W, int H) {
    if (W != H) return false;
    switch (W) {
        case 3: small_square<T, 3>(s, s1, d, d1); return true;
        case 4: small_square<T, 4>(s, s1, d, d1); return true;
        case 5: small_square<T, 5>(s, s1, d, d1); return true;
        case 6: small_square<T, 6>(s, s1, d, d1); return true;
    }
    return false;
}

// Any form and step: element by element, source rows outer.
template <class T, Form F>
void transpose_elements(const Call<T>& c, int W, int H) {
    const Acc<F> s{&c.src[0], W};
    const Acc<F> d{&c.dst[0], H};
    for (int n = 0; n < c.count; ++n)
        for (int i = 0; i < H; ++i) {
            const auto sl = s.row(n, i);
            const auto dl = d.col(n, i);
            for (int j = 0; j < W; ++j) move1<T>(dl.el(j), sl.el(j));
        }
}

template <class T, Form F, bool Array>
zelStatus transpose(const Call<T>& c) {
    const int W = c.width, H = c.height;
    if constexpr (F != Form::P) {
        if (c.src[0].s2 == int(sizeof(T)) && c.dst[0].s2 == int(sizeof(T))) {
            const Acc<F> s{&c.src[0], W};
            const Acc<F> d{&c.dst[0], H};
            const std::ptrdiff_t s1 = c.src[0].s1, d1 = c.dst[0].s1;
            if (W == H && W >= 3 && W <= 6) {
                for (int n = 0; n < c.count; ++n) try_small_square<T>(s.origin(n), s1, d.origin(n), d1, W, H);
                return zelStsOk;
            }
            if constexpr (sizeof(T) == 4) {
                const bool nt = Array && array_wants_nt(W, H, c.count);
                for (int n = 0; n < c.count; ++n) transpose32(s.origin(n), s1, d.origin(n), d1, W, H, nt);
            } else {
                for (int n = 0; n < c.count; ++n) transpose64(s.origin(n), s1, d.origin(n), d1, W, H);
            }
            return zelStsOk;
        }
    }
    transpose_elements<T, F>(c, W, H);
    return zelStsOk;
}

// ---------------------------------------------------------------------------
// The entry of every movement export, behind its argument tests.
template <Op O, Str Sig, class T, Str FS>
zelStatus entry(Call<T>& c) {
    static constexpr Operands ops = parse<Sig>();
    constexpr bool array = ops.any_array();
    constexpr bool matrix = ops.l[0].kind != 'v';
    if (!array) c.count = 1;
    const int W = matrix ? c.width : c.len;
    const int H = matrix ? c.height : 1;
    if constexpr (O == Op::Copy) {
        return copy<T, form_letter<FS[0]>(), form_letter<FS[1]>()>(c, W, H);
    } else if constexpr (O == Op::LoadIdentity) {
        return load_identity<T, form_of<FS>()>(c);
    } else if constexpr (O == Op::Extract) {
        return extract<T, form_of<FS>(), ops.l[0].kind == 't', array>(c, W, H);
    } else {
        static_assert(O == Op::Transpose);
        return transpose<T, form_of<FS>(), array>(c);
    }
}

}  // namespace zel::movement
