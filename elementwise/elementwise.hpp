// Element-wise arithmetic: Add, Sub and multiplication by a constant on
// vectors, matrices and arrays of them, in every storage form.
//
// Every result element is one operation in the element type, rounded once, so
// loop order, unrolling and vector width leave no trace in the results: one
// kernel, written against the operand accessors, serves all signatures and
// forms. Rows whose elements lie at a fixed step are run through a row loop
// (vectorised where the step is 1); the pointer form goes element by element.
#pragma once

#include <emmintrin.h>

#include "elementwise/table.hpp"
#include "frame/fanout.hpp"

namespace zel::elementwise {

enum class Arith { Add, Sub, Mul };

template <Arith A, class T>
ZEL_INLINE T apply(T x, T y) {
    if constexpr (A == Arith::Add) return x + y;
    else if constexpr (A == Arith::Sub) return x - y;
    else return x * y;
}

// 128-bit lanes for the contiguous row loop.
template <class T>
struct Lanes;
template <>
struct Lanes<float> {
    using V = __m128;
    static constexpr int n = 4;
    static ZEL_INLINE V load(const float* p) { return _mm_loadu_ps(p); }
    static ZEL_INLINE void store(float* p, V v) { _mm_storeu_ps(p, v); }
    static ZEL_INLINE V splat(float x) { return _mm_set1_ps(x); }
    template <Arith A>
    static ZEL_INLINE V op(V a, V b) {
        if constexpr (A == Arith::Add) return _mm_add_ps(a, b);
        else if constexpr (A == Arith::Sub) return _mm_sub_ps(a, b);
        else return _mm_mul_ps(a, b);
    }
};
template <>
struct Lanes<double> {
    using V = __m128d;
    static constexpr int n = 2;
    static ZEL_INLINE V load(const double* p) { return _mm_loadu_pd(p); }
    static ZEL_INLINE void store(double* p, V v) { _mm_storeu_pd(p, v); }
    static ZEL_INLINE V splat(double x) { return _mm_set1_pd(x); }
    template <Arith A>
    static ZEL_INLINE V op(V a, V b) {
        if constexpr (A == Arith::Add) return _mm_add_pd(a, b);
        else if constexpr (A == Arith::Sub) return _mm_sub_pd(a, b);
        else return _mm_mul_pd(a, b);
    }
};

// One side of the expression within a row: elements at a step, or a scalar.
template <class T>
struct RowArg {
    const T* p;
    std::ptrdiff_t step;  // in elements; unused for a scalar
    T s;
};

// d[j] = x[j] op y[j] for j below len; XS/YS: that side is a scalar. Each
// element is loaded before its own position is stored, so exact in-place use
// is safe.
template <Arith A, bool XS, bool YS, class T>
ZEL_INLINE void row(T* d, std::ptrdiff_t dstep, RowArg<T> x, RowArg<T> y, std::ptrdiff_t len) {
    std::ptrdiff_t j = 0;
    const bool contiguous = dstep == 1 && (XS || x.step == 1) && (YS || y.step == 1);
    if (contiguous) {
        using L = Lanes<T>;
        constexpr int N = L::n;
        const typename L::V xs = L::splat(x.s), ys = L::splat(y.s);
        for (; j + 2 * N <= len; j += 2 * N) {
            const auto a0 = XS ? xs : L::load(x.p + j), a1 = XS ? xs : L::load(x.p + j + N);
            const auto b0 = YS ? ys : L::load(y.p + j), b1 = YS ? ys : L::load(y.p + j + N);
            L::store(d + j, L::template op<A>(a0, b0));
            L::store(d + j + N, L::template op<A>(a1, b1));
        }
        for (; j < len; ++j) d[j] = apply<A>(XS ? x.s : x.p[j], YS ? y.s : y.p[j]);
        return;
    }
    for (; j < len; ++j)
        d[j * dstep] = apply<A>(XS ? x.s : x.p[j * x.step], YS ? y.s : y.p[j * y.step]);
}

// A source of the expression: a matrix or vector operand, read as stored or
// transposed, or a constant (single or one per object).
template <class T, Form F, bool Trans>
struct MatSrc {
    static constexpr bool scalar = false;
    Ref<T, F> ref;
    ZEL_INLINE T get(int n, int i, int j) const { return Trans ? *ref.at(n, j, i) : *ref.at(n, i, j); }
    // Row i of object n: its first element and the step between elements.
    ZEL_INLINE RowArg<T> row_of(int n, int i) const {
        const Opd& o = *ref.o;
        if (Trans) return {ref.at(n, 0, i), std::ptrdiff_t(o.s1 / int(sizeof(T))), T()};
        return {ref.at(n, i, 0), std::ptrdiff_t(o.s2 / int(sizeof(T))), T()};
    }
};
template <class T>
struct ConstSrc {
    static constexpr bool scalar = true;
    T v;
    ZEL_INLINE T get(int, int, int) const { return v; }
    ZEL_INLINE RowArg<T> row_of(int, int) const { return {nullptr, 0, v}; }
};
template <class T, Form F>
struct ConstArraySrc {
    static constexpr bool scalar = true;
    const Opd* o;
    ZEL_INLINE T value(int n) const {
        if constexpr (F == Form::L)
            return *byte_add<T>(static_cast<const void* const*>(o->p)[n], o->shift);
        else
            return *byte_add<T>(o->p, std::ptrdiff_t(n) * o->s0);
    }
    ZEL_INLINE T get(int n, int, int) const { return value(n); }
    ZEL_INLINE RowArg<T> row_of(int n, int) const { return {nullptr, 0, value(n)}; }
};

// The kernel: object n outer, rows, columns inner.
template <Arith A, Form DF, class T, class X, class Y>
zelStatus kernel(const Call<T>& c, X x, Y y, int W, int H) {
    const Ref<T, DF> d{&c.dst[0], W};
    if constexpr (DF == Form::P) {
        for (int n = 0; n < c.count; ++n)
            for (int i = 0; i < H; ++i)
                for (int j = 0; j < W; ++j) *d.at(n, i, j) = apply<A>(x.get(n, i, j), y.get(n, i, j));
    } else {
        const std::ptrdiff_t dstep = c.dst[0].s2 / int(sizeof(T));
        for (int n = 0; n < c.count; ++n)
            for (int i = 0; i < H; ++i)
                row<A, X::scalar, Y::scalar>(d.at(n, i, 0), dstep, x.row_of(n, i), y.row_of(n, i), W);
    }
    return zelStsOk;
}

// Contiguous standard-form calls whose objects are each one block of H*W
// elements, and whose array operands are packed one behind the other, run as
// one long row (or one row per object where a single operand repeats).
template <Arith A, class T, class X, class Y>
ZEL_INLINE bool packed(const Call<T>& c, X x, Y y, int W, int H, bool x_arr, bool y_arr) {
    const int sz = int(sizeof(T));
    const int block = W * H;
    auto dense = [&](const Opd& o) { return o.s2 == sz && (H == 1 || o.s1 == W * sz); };
    if (!dense(c.dst[0])) return false;
    if constexpr (!X::scalar) if (!dense(*x.ref.o)) return false;
    if constexpr (!Y::scalar) if (!dense(*y.ref.o)) return false;
    auto packed_arr = [&](const Opd& o) { return std::ptrdiff_t(o.s0) == std::ptrdiff_t(block) * sz; };
    bool all = c.count == 1 || packed_arr(c.dst[0]);
    if constexpr (!X::scalar) all = all && (c.count == 1 || (x_arr && packed_arr(*x.ref.o)));
    else all = all && !x_arr;
    if constexpr (!Y::scalar) all = all && (c.count == 1 || (y_arr && packed_arr(*y.ref.o)));
    else all = all && !y_arr;
    T* d0 = byte_add<T>(c.dst[0].p, 0);
    if (all) {
        row<A, X::scalar, Y::scalar>(d0, 1, x.row_of(0, 0), y.row_of(0, 0),
                                     std::ptrdiff_t(block) * c.count);
        return true;
    }
    for (int n = 0; n < c.count; ++n)
        row<A, X::scalar, Y::scalar>(Ref<T, Form::S>{&c.dst[0], W}.at(n, 0, 0), 1, x.row_of(n, 0),
                                     y.row_of(n, 0), block);
    return true;
}

template <Op O>
constexpr Arith arith_of() {
    return O == Op::Add ? Arith::Add : O == Op::Sub ? Arith::Sub : Arith::Mul;
}

template <Op O>
constexpr std::string_view op_name() {
    return O == Op::Add ? "Add" : O == Op::Sub ? "Sub" : "Mul";
}

// The operand of one signature letter, bound to a call (or a slice of it).
template <Letter L, Form F, class T>
ZEL_INLINE auto source(const Call<T>& c, int k, int W, int H) {
    if constexpr (L.kind == 'c') {
        if constexpr (L.array) return ConstArraySrc<T, F>{&c.cval};
        else return ConstSrc<T>{c.val};
    } else {
        constexpr Form of = operand_form(F, L.array);
        return MatSrc<T, of, L.kind == 't'>{Ref<T, of>{&c.src[k], L.kind == 't' ? H : W}};
    }
}

// The entry of every element-wise export, behind its argument tests.
template <Op O, Str Sig, class T, Str FS>
zelStatus entry(Call<T>& c) {
    static constexpr Operands ops = parse<Sig>();
    constexpr Form F = form_of<FS>();
    constexpr bool array = ops.any_array();
    static constexpr Letter lx = ops.l[0], ly = ops.l[1];
    constexpr bool matrix = lx.kind == 'm' || lx.kind == 't' || ly.kind == 'm' || ly.kind == 't';
    // Non-constant operands take src[0], src[1] in the order of the letters.
    constexpr int ix = 0, iy = lx.kind == 'c' ? 0 : 1;
    constexpr Arith A = arith_of<O>();
    constexpr Form DF = operand_form(F, array);
    const int W = matrix ? c.width : c.len;
    const int H = matrix ? c.height : 1;
    if (!array) c.count = 1;

    // The kernel without S2 when every stride2 is the element size.
    bool unit = true;
    if constexpr (F != Form::P) {
        unit = c.dst[0].s2 == int(sizeof(T));
        if constexpr (lx.kind != 'c') unit = unit && c.src[ix].s2 == int(sizeof(T));
        if constexpr (ly.kind != 'c') unit = unit && c.src[iy].s2 == int(sizeof(T));
    }

    auto run = [unit, W, H](const Call<T>& s) -> zelStatus {
        const auto x = source<lx, F>(s, ix, W, H);
        const auto y = source<ly, F>(s, iy, W, H);
        if constexpr (F == Form::S && lx.kind != 't' && ly.kind != 't') {
            if (unit && packed<A>(s, x, y, W, H, lx.array, ly.array)) return zelStsOk;
        }
        return kernel<A, DF>(s, x, y, W, H);
    };

    if constexpr (array) {
        constexpr auto& rule = threshold_row(op_name<O>(), std::string_view(Sig.s, Sig.size()));
        // zelmSub_vva_64f_P always runs on the calling thread
        constexpr bool no_wrapper = O == Op::Sub && lx.kind == 'v' && !lx.array && ly.array &&
                                    F == Form::P && sizeof(T) == 8;
        if constexpr (!no_wrapper) {
            if (goes_parallel(rule, F, unit, sizeof(T) == 8, c.width, c.height, c.len, c.count)) {
                FanSpec fs{};
                fs.form = F;
                fs.src_arrays = (lx.kind != 'c' && lx.array ? 1u << ix : 0u) |
                                (ly.kind != 'c' && ly.array ? 1u << iy : 0u);
                fs.dst_arrays = 1u;
                fs.cval_array = (lx.kind == 'c' && lx.array) || (ly.kind == 'c' && ly.array);
                return fan_out(c, fs, run);
            }
        }
    }
    return run(c);
}

}  // namespace zel::elementwise
