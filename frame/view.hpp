// One object of an operand, addressed in its storage form: the accessor that
// every family's kernels are written against. Standard and list objects are
// regular in memory (base, row stride, element stride; Unit: the element
// stride is the element size); a pointer-form object is a table of element
// pointers plus an offset. A vector is row 0.
#pragma once

#include <cstddef>

#include "frame/frame.hpp"

namespace zel {

template <class T, bool Ptr, bool Unit>
struct View {
    const char* base;
    std::ptrdiff_t s1, s2;
    const void* const* tab;
    std::ptrdiff_t off;
    int rowlen;
    ZEL_INLINE T* ptr(int r, int c) const {
        if constexpr (Ptr) {
            return byte_add<T>(tab[std::ptrdiff_t(r) * rowlen + c], off);
        } else {
            const std::ptrdiff_t step = Unit ? std::ptrdiff_t(sizeof(T)) : s2;
            return byte_add<T>(base, std::ptrdiff_t(r) * s1 + std::ptrdiff_t(c) * step);
        }
    }
    ZEL_INLINE T get(int r, int c) const { return load(ptr(r, c)); }
    ZEL_INLINE void put(int r, int c, T v) const { store(ptr(r, c), v); }
};

// Object n of an operand in form F (the operand's own form: a single operand
// of a list call is standard, and a single operand has stride0 0).
template <class T, Form F, bool Unit>
ZEL_INLINE View<T, F == Form::P, Unit> view_of(const Opd& o, int n, int rowlen) {
    View<T, F == Form::P, Unit> v{};
    if constexpr (F == Form::S) {
        v.base = static_cast<const char*>(o.p) + std::ptrdiff_t(n) * o.s0;
        v.s1 = o.s1;
        v.s2 = o.s2;
    } else if constexpr (F == Form::L) {
        v.base = static_cast<const char*>(static_cast<const void* const*>(o.p)[n]) + o.shift;
        v.s1 = o.s1;
        v.s2 = o.s2;
    } else {
        v.tab = static_cast<const void* const*>(o.p);
        v.off = std::ptrdiff_t(o.shift) + std::ptrdiff_t(n) * o.s0;
        v.rowlen = rowlen;
    }
    return v;
}

}  // namespace zel
