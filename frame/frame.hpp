// The call frame shared by every family: the gathered arguments of a call,
// the addressing of the three storage forms, the argument tests, the work
// estimate arithmetic and the choice of kernel.
#pragma once

#include <emmintrin.h>

#include <cstddef>
#include <cstdint>
#include <string_view>
#include <type_traits>

#include "frame/generated/ops.hpp"
#include "zelm.h"

#define ZEL_INTERNAL __attribute__((visibility("hidden")))
#define ZEL_INLINE inline __attribute__((always_inline))
// the same for a lambda (after its parameter list), where a compile-time
// loop expands one
#define ZEL_LAMBDA_INLINE __attribute__((always_inline))

namespace zel {

// A string usable as a template argument: signatures ("mam") and forms
// ("S", "L", "P", and Copy's "SP").
template <std::size_t N>
struct Str {
    char s[N]{};
    constexpr Str(const char (&a)[N]) {
        for (std::size_t i = 0; i < N; ++i) s[i] = a[i];
    }
    constexpr std::size_t size() const { return N - 1; }
    constexpr char operator[](std::size_t i) const { return s[i]; }
};

// One operand group. Standard form: p is the base, s0/s1/s2 the strides.
// List form: p is the table of object pointers, shift, s1, s2. Pointer form:
// p is the table of element pointers, shift, s0. Unused fields are 0, so a
// single operand has s0 == 0 and never advances.
struct Opd {
    const void* p;
    std::ptrdiff_t shift;  // an int argument, moved on by whole objects in a slice
    int s0, s1, s2;
};

// The arguments of any call, gathered by the generated API functions.
template <class T>
struct Call {
    Opd src[3];
    Opd dst[2];
    Opd cval;  // constant array: pVal/valStride0, or ppVal/valShift
    T val, val1, val2;
    int width, height, len, widthHeight, count;
    int src1Width, src1Height, src2Width, src2Height, src2Len, src3Len;
    T* buf;        // pBuffer
    const int* idx;  // pDstIndex / pSrcIndex
    T* out;        // compact results (pDst of reductions, pDstValues, ...)
    T* out2;       // pDstValuesIm
};

// A single vector call as its arguments stand, for a family's short path that
// runs before the call record is built: at the shortest lengths the record's
// stack frame costs more than the arithmetic.
template <class T>
struct Quick {
    const void* src[2];
    int s2[2];
    void* dst;
    int ds;
    T val;
    int len;
};

// The argument tests. A stride must be a positive multiple of the element
// size; a shift a non-negative one.
template <class T>
constexpr bool bad_stride(int s) {
    return (s & int(sizeof(T) - 1)) != 0 || s < 1;
}
template <class T>
constexpr bool bad_shift(int s) {
    return (s & int(sizeof(T) - 1)) != 0 || s < 0;
}

// Work estimates are signed 32-bit with silent wrap; the arithmetic is done
// here, unsigned, so that the wrap is defined.
struct Est {
    std::uint32_t v;
    constexpr Est(int x) : v(std::uint32_t(x)) {}
    constexpr Est(std::uint32_t x, int) : v(x) {}
    friend constexpr Est operator+(Est a, Est b) { return Est(a.v + b.v, 0); }
    friend constexpr Est operator*(Est a, Est b) { return Est(a.v * b.v, 0); }
    constexpr std::int32_t value() const { return std::int32_t(v); }
};

// Whether a space-separated list names w ("*" names everything): how the
// families' tables of quirks list the signatures a row holds for.
constexpr bool has_word(std::string_view list, std::string_view w) {
    if (list == "*") return true;
    std::size_t i = 0;
    while (i < list.size()) {
        std::size_t j = list.find(' ', i);
        if (j == std::string_view::npos) j = list.size();
        if (list.substr(i, j - i) == w) return true;
        i = j + 1;
    }
    return false;
}

// ---------------------------------------------------------------------------
// Signatures, parsed at compile time: "tama" -> operands t(array) m(array).
struct Letter {
    char kind;   // 'm', 't', 'v', 'c'
    bool array;
};
struct Operands {
    Letter l[4]{};
    int n = 0;
    constexpr bool any_array() const {
        for (int i = 0; i < n; ++i)
            if (l[i].array) return true;
        return false;
    }
};
template <Str Sig>
constexpr Operands parse() {
    Operands o;
    for (std::size_t i = 0; i < Sig.size(); ++i) {
        if (Sig[i] == 'a') {
            o.l[o.n - 1].array = true;
        } else {
            o.l[o.n].kind = Sig[i];
            o.l[o.n].array = false;
            ++o.n;
        }
    }
    return o;
}

// ---------------------------------------------------------------------------
// Addressing. "Element (r, c) of object n" of a stored operand, in each form.
// For the pointer form the table is row-major over the stored matrix, whose
// row length is `rowlen`.
enum class Form { S, L, P };

template <class T>
ZEL_INLINE T* byte_add(const void* p, std::ptrdiff_t bytes) {
    return reinterpret_cast<T*>(const_cast<char*>(static_cast<const char*>(p)) + bytes);
}

// f(std::integral_constant<int, I>) for I = B .. E-1, unrolled at compile
// time (the fixed orders' loops whose index must be a constant).
template <int B, int E, class F>
ZEL_INLINE void static_for(F&& f) {
    if constexpr (B < E) {
        f(std::integral_constant<int, B>{});
        static_for<B + 1, E>(f);
    }
}

// Element loads and stores at any alignment: a 64f element need only be
// 4-byte aligned, or not at all.
template <class T>
ZEL_INLINE T load(const T* p) {
    T v;
    __builtin_memcpy(&v, p, sizeof v);
    return v;
}
template <class T>
ZEL_INLINE void store(T* p, T v) {
    __builtin_memcpy(p, &v, sizeof v);
}

// An element type for arrays the caller hands in (pBuffer, compact results)
// that are indexed directly: float or double at any alignment (a 64f array
// need only be 4-byte aligned on a 32-bit caller's stack).
template <class T>
struct LooseOf {
    typedef T type __attribute__((aligned(1)));
};
template <class T>
using Loose = typename LooseOf<T>::type;

template <class T, Form F>
struct Ref {
    const Opd* o;
    int rowlen;
    ZEL_INLINE T* at(int n, int r, int c) const {
        if constexpr (F == Form::S) {
            return byte_add<T>(o->p, std::ptrdiff_t(n) * o->s0 + std::ptrdiff_t(r) * o->s1 +
                                         std::ptrdiff_t(c) * o->s2);
        } else if constexpr (F == Form::L) {
            const void* obj = static_cast<const void* const*>(o->p)[n];
            return byte_add<T>(obj, std::ptrdiff_t(o->shift) + std::ptrdiff_t(r) * o->s1 +
                                        std::ptrdiff_t(c) * o->s2);
        } else {
            const void* el = static_cast<const void* const*>(o->p)[std::ptrdiff_t(r) * rowlen + c];
            return byte_add<T>(el, std::ptrdiff_t(o->shift) + std::ptrdiff_t(n) * o->s0);
        }
    }
};

// The form in which an operand of a call is addressed: a single operand of a
// list call stays in the standard form.
constexpr Form operand_form(Form call, bool array) {
    return (call == Form::L && !array) ? Form::S : call;
}
template <Str F>
constexpr Form form_of() {
    return F[0] == 'L' ? Form::L : F[0] == 'P' ? Form::P : Form::S;
}

// The kernel choice shared by API functions and wrappers: true when every
// stride2 in the call is the element size (the kernel without S2).
template <class T>
ZEL_INLINE bool unit_s2(const Opd* const* ops, int n) {
    for (int i = 0; i < n; ++i)
        if (ops[i]->s2 != int(sizeof(T))) return false;
    return true;
}

}  // namespace zel
