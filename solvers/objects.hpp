// What the QR, inversion and determinant families share: one object of an
// operand in any storage form, the names of their kernels, the singularity
// threshold T(n), the interleaved partial sums of long columns, the SSE
// reciprocal with its Newton step, and whether several objects of a call may
// be read before any of them is written.
#pragma once

#include <emmintrin.h>

#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <limits>

#include "frame/frame.hpp"
#include "frame/view.hpp"

// Loops over the rows and columns of the fixed orders, unrolled whole where
// the sizes are constants (and by 8 where they are not), so that local
// matrices live in registers.
#define ZEL_UNROLL _Pragma("GCC unroll 8")

namespace zel::objects {

// ---------------------------------------------------------------------------
// One object of an operand in its own form F (frame/view.hpp): a single
// operand of a list call is standard, and a single operand has stride0 0 so
// it never advances. A pointer-form object's table is row-major with row
// length `rowlen`; a vector is row 0.
template <class T, Form F, bool Unit>
using Obj = View<T, F == Form::P, Unit>;
template <class T, Form F, bool Unit>
ZEL_INLINE Obj<T, F, Unit> obj(const Opd& o, int n, int rowlen) {
    return view_of<T, F, Unit>(o, n, rowlen);
}

// A matrix held in local storage with the interface of Obj.
template <class T, int Pitch>
struct Local {
    T* m;
    ZEL_INLINE T get(int r, int c) const { return m[r * Pitch + c]; }
    ZEL_INLINE void put(int r, int c, T v) const { m[r * Pitch + c] = v; }
};

// ---------------------------------------------------------------------------
// The kernels of an inversion or determinant export, as a bit each, so that a
// table row can name several. The single-object kernels without S2 and the
// array kernel without S2 differ in method in these families.
enum Kern : unsigned {
    M = 1,       // single object, standard form, stride2 the element size
    MS2 = 2,     // single object, other stride2
    MP = 4,      // single object, pointer form
    Ma = 8,      // array, standard form, stride2 the element size
    MaS2 = 16,   // array, standard form, other stride2
    MaL = 32,    // array, list form, stride2 the element size
    MaLS2 = 64,  // array, list form, other stride2
    MaP = 128,   // array, pointer form
};
inline constexpr unsigned kUnitKerns = M | Ma | MaL;
inline constexpr unsigned kOtherKerns = MS2 | MP | MaS2 | MaLS2 | MaP;
enum Ty : unsigned { F32 = 1, F64 = 2, AnyTy = 3 };

template <class T>
constexpr unsigned ty_of() {
    return sizeof(T) == 8 ? F64 : F32;
}
constexpr unsigned kern_of(bool array, Form f, bool unit) {
    if (!array) return f == Form::P ? MP : unit ? M : MS2;
    return f == Form::P ? MaP : f == Form::L ? (unit ? MaL : MaLS2) : (unit ? Ma : MaS2);
}

// A row of a family's fan-out limits: the limit for the types and kernels it
// names. The first row that matches wins; `otherwise` where none does.
struct LimitRow {
    unsigned ty, kerns;
    int limit;
};
template <std::size_t K>
constexpr int limit_in(const LimitRow (&rows)[K], unsigned ty, unsigned kern, int otherwise) {
    for (const auto& r : rows)
        if ((r.ty & ty) && (r.kerns & kern)) return r.limit;
    return otherwise;
}

// ---------------------------------------------------------------------------
// The singularity threshold of order n: 2 n^3 times the smallest normal value
// of the type, formed in the element type from the integer 2 n^3 (`twice`
// doubles the integer, for the kernels that use twice the formula's value).
template <class T>
ZEL_INLINE T threshold(int n, bool twice = false) {
    const Est k = Est(twice ? 4 : 2) * Est(n) * Est(n) * Est(n);
    return T(k.v) * std::numeric_limits<T>::min();
}

// ---------------------------------------------------------------------------
// Sums of n rounded terms t(0) .. t(n-1) in the element type.
//   Seq    one accumulator from t(0) on
//   Two    t(0) + t(2) + ... and t(1) + t(3) + ..., added at the end
//   Eight  eight interleaved accumulators c(k mod 8), added as
//          ((c0 + c1) + (c2 + c3)) + ((c4 + c5) + (c6 + c7)); for n >= 8
enum class Part : std::uint8_t { Seq, Two, Eight };

template <class T, class Term>
ZEL_INLINE T psum(Part p, int n, Term t) {
    if (n <= 0) return T(0);
    if (p == Part::Seq || n == 1) {
        T s = t(0);
        ZEL_UNROLL for (int k = 1; k < n; ++k) s += t(k);
        return s;
    }
    if (p == Part::Two) {
        T e0 = t(0), e1 = t(1);
        int k = 2;
        ZEL_UNROLL for (; k + 1 < n; k += 2) {
            e0 += t(k);
            e1 += t(k + 1);
        }
        if (k < n) e0 += t(k);
        return e0 + e1;
    }
    T c[8];
    for (int k = 0; k < 8; ++k) c[k] = t(k);
    for (int k = 8; k < n; ++k) c[k & 7] += t(k);
    return ((c[0] + c[1]) + (c[2] + c[3])) + ((c[4] + c[5]) + (c[6] + c[7]));
}

// ---------------------------------------------------------------------------
// The reciprocal of the 32f packed paths: the processor's estimate r0 and one
// Newton-Raphson step, r = 2 r0 - (d r0) r0, in every lane. No division.
ZEL_INLINE __m128 rcp_newton(__m128 d) {
    const __m128 r0 = _mm_rcp_ps(d);
    return _mm_sub_ps(_mm_add_ps(r0, r0), _mm_mul_ps(_mm_mul_ps(d, r0), r0));
}
ZEL_INLINE float rcp_newton(float d) { return _mm_cvtss_f32(rcp_newton(_mm_set_ss(d))); }

// ---------------------------------------------------------------------------
// The generic paths' scratch in pBuffer: a working matrix of pitch n and
// behind it, at element n*n, a table of n signed 32-bit row numbers; at any
// alignment.
template <class T>
struct Work {
    T* p;
    int n;
    ZEL_INLINE T get(int r, int c) const { return load(p + std::ptrdiff_t(r) * n + c); }
    ZEL_INLINE void put(int r, int c, T v) const { store(p + std::ptrdiff_t(r) * n + c, v); }
    ZEL_INLINE int row(int i) const {
        int v;
        std::memcpy(&v, reinterpret_cast<const char*>(p + std::ptrdiff_t(n) * n) + std::ptrdiff_t(i) * 4, 4);
        return v;
    }
    ZEL_INLINE void set_row(int i, int v) const {
        std::memcpy(reinterpret_cast<char*>(p + std::ptrdiff_t(n) * n) + std::ptrdiff_t(i) * 4, &v, 4);
    }
    // Partial pivoting through the table: the greatest magnitude of column k
    // among positions k .. m-1, a later position replacing the best only if
    // strictly greater, goes to position k (an exchange negates `sign`).
    // Returns its row.
    ZEL_INLINE int pivot(int k, int m, T& sign) const {
        int best = k;
        T big = std::fabs(get(row(k), k));
        for (int i = k + 1; i < m; ++i) {
            const T x = std::fabs(get(row(i), k));
            if (x > big) big = x, best = i;
        }
        const int pk = row(best);
        if (best != k) {
            set_row(best, row(k));
            set_row(k, pk);
            sign = -sign;
        }
        return pk;
    }
};

// ---------------------------------------------------------------------------
// Whether the objects of a standard-form call may be read several at a time
// before any of them is written: the destination's bytes and the source's
// apart, or the destination the source itself, object by object. `bytes` is
// the extent of one object.
inline bool batch_safe(const Opd& src, const Opd& dst, int count, std::ptrdiff_t src_bytes,
                       std::ptrdiff_t dst_bytes) {
    auto span = [&](const Opd& o, std::ptrdiff_t bytes, std::uintptr_t& lo, std::uintptr_t& hi) {
        const std::uintptr_t b = reinterpret_cast<std::uintptr_t>(o.p);
        const std::ptrdiff_t last = std::ptrdiff_t(count - 1) * o.s0;
        lo = b + std::uintptr_t(last < 0 ? last : 0);
        hi = b + std::uintptr_t((last < 0 ? 0 : last) + bytes);
    };
    std::uintptr_t sl, sh, dl, dh;
    span(src, src_bytes, sl, sh);
    span(dst, dst_bytes, dl, dh);
    if (dh <= sl || sh <= dl) return true;
    const std::ptrdiff_t s0 = src.s0 < 0 ? -std::ptrdiff_t(src.s0) : src.s0;
    return src.p == dst.p && src.s0 == dst.s0 && src.s1 == dst.s1 && src.s2 == dst.s2 && s0 >= src_bytes &&
           s0 >= dst_bytes;
}

// The bytes a standard or list object of `rows` by `cols` elements spans.
template <class T>
ZEL_INLINE std::ptrdiff_t extent(const Opd& o, int rows, int cols) {
    return std::ptrdiff_t(rows - 1) * o.s1 + std::ptrdiff_t(cols - 1) * o.s2 + std::ptrdiff_t(sizeof(T));
}
// The same question as batch_safe for the objects first .. first+w-1 of a
// list-form call: no destination object overlaps another one's source (its
// own source may be itself, exactly).
inline bool list_batch_safe(const Opd& src, const Opd& dst, int first, int w, std::ptrdiff_t src_bytes,
                            std::ptrdiff_t dst_bytes) {
    auto base = [](const Opd& o, int n) {
        return reinterpret_cast<std::uintptr_t>(static_cast<const void* const*>(o.p)[n]) + std::uintptr_t(o.shift);
    };
    for (int i = 0; i < w; ++i) {
        const std::uintptr_t dl = base(dst, first + i), dh = dl + std::uintptr_t(dst_bytes);
        for (int j = 0; j < w; ++j) {
            const std::uintptr_t sl = base(src, first + j), sh = sl + std::uintptr_t(src_bytes);
            if (dh <= sl || sh <= dl) continue;
            if (i != j || sl != dl || src.s1 != dst.s1 || src.s2 != dst.s2) return false;
        }
    }
    return true;
}

}  // namespace zel::objects
