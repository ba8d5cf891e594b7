// Element-wise arithmetic: Add, Sub and multiplication by a constant on
// vectors, matrices and arrays of them, in every storage form.
//
// Every result element is one operation in the element type, rounded once, so
// loop order, unrolling and vector width leave no trace in the results: one
// kernel, written against the operand accessors, serves all signatures and
// forms. Rows whose elements lie at a fixed step are run through a row loop
// (vectorised where the step is 1). Objects that are contiguous blocks run as
// one block each, or as one long run when packed back to back; a single
// operand shared by the objects is read once per call into the stack. The
// pointer form runs each element position across the objects (they lie at
// stride0), unless its tables amount to a strided layout.
#pragma once

#include <immintrin.h>

#include <climits>
#include <cstdint>
#include <type_traits>

#include "elementwise/table.hpp"
#include "frame/cpu.hpp"
#include "frame/fanout.hpp"
#include "frame/simd.hpp"

namespace zel::elementwise {

enum class Arith { Add, Sub, Mul };

template <Arith A, class T>
ZEL_INLINE T apply(T x, T y) {
    if constexpr (A == Arith::Add) return x + y;
    else if constexpr (A == Arith::Sub) return x - y;
    else return x * y;
}

// The operation on 128-bit lanes.
template <Arith A, class L>
ZEL_INLINE typename L::V op(typename L::V a, typename L::V b) {
    if constexpr (A == Arith::Add) return L::add(a, b);
    else if constexpr (A == Arith::Sub) return L::sub(a, b);
    else return L::mul(a, b);
}

// One side of the expression within a row: elements at a step, or a scalar.
template <class T>
struct RowArg {
    const T* p;
    std::ptrdiff_t step;  // in elements; unused for a scalar
    T s;
};

// d[j] = x[j] op y[j] over contiguous elements, eight vectors a trip, then
// one vector, then single elements. Al: every non-scalar pointer is 16-byte
// aligned, so loads can be folded into the arithmetic.
template <Arith A, bool XS, bool YS, bool Al, class T>
ZEL_INLINE void run(T* d, RowArg<T> x, RowArg<T> y, std::ptrdiff_t len) {
    using L = simd::V128<T>;
    constexpr int N = L::n;
    auto ld = [](const T* p) { return Al ? L::load_aligned(p) : L::load(p); };
    auto st = [](T* p, typename L::V v) { Al ? L::store_aligned(p, v) : L::store(p, v); };
    const typename L::V xs = L::splat(x.s), ys = L::splat(y.s);
    std::ptrdiff_t j = 0;
    for (; j + 8 * N <= len; j += 8 * N) {
        for (int k = 0; k < 8; ++k) {
            const auto a = XS ? xs : ld(x.p + j + k * N);
            const auto b = YS ? ys : ld(y.p + j + k * N);
            st(d + j + k * N, op<A, L>(a, b));
        }
    }
    for (; j + N <= len; j += N) {
        const auto a0 = XS ? xs : ld(x.p + j);
        const auto b0 = YS ? ys : ld(y.p + j);
        st(d + j, op<A, L>(a0, b0));
    }
    for (; j < len; ++j) store(d + j, apply<A>(XS ? x.s : load(x.p + j), YS ? y.s : load(y.p + j)));
}

// 256-bit vectors of an element type.
template <class T>
struct Vec32B;
template <>
struct Vec32B<float> {
    typedef float type __attribute__((vector_size(32)));
};
template <>
struct Vec32B<double> {
    typedef double type __attribute__((vector_size(32)));
};

// The same run in 256-bit lanes, for processors with AVX; the elements that
// do not fill four such vectors go through the 128-bit run. Each element is
// still one operation rounded once, so the bits are those of the run above.
template <Arith A, bool XS, bool YS, class T>
__attribute__((target("avx"), noinline)) void run_avx(T* d, RowArg<T> x, RowArg<T> y, std::ptrdiff_t len) {
    constexpr int N = int(32 / sizeof(T));
    // A destination not aligned to its element takes the 128-bit run; any
    // other is brought to a 32-byte boundary by single elements, so that no
    // store straddles two cache lines.
    const std::uintptr_t da = reinterpret_cast<std::uintptr_t>(d);
    if (da % sizeof(T)) return run<A, XS, YS, false>(d, x, y, len);
    std::ptrdiff_t j = std::ptrdiff_t((32 - (da & 31)) & 31) / std::ptrdiff_t(sizeof(T));
    for (std::ptrdiff_t k = 0; k < j; ++k)
        store(d + k, apply<A>(XS ? x.s : load(x.p + k), YS ? y.s : load(y.p + k)));
    // 256-bit vectors of the element type; the operators are the lane-wise
    // operations, loads and stores are moves of 32 bytes.
    using V = typename Vec32B<T>::type;
    V xs, ys;
    for (int i = 0; i < N; ++i) xs[i] = x.s, ys[i] = y.s;
    for (; j + 4 * N <= len; j += 4 * N) {
        for (int k = 0; k < 4; ++k) {
            V a = xs, b = ys, r;
            if constexpr (!XS) __builtin_memcpy(&a, x.p + j + k * N, sizeof(V));
            if constexpr (!YS) __builtin_memcpy(&b, y.p + j + k * N, sizeof(V));
            if constexpr (A == Arith::Add) r = a + b;
            else if constexpr (A == Arith::Sub) r = a - b;
            else r = a * b;
            __builtin_memcpy(d + j + k * N, &r, sizeof(V));
        }
    }
    const RowArg<T> xr{XS ? x.p : x.p + j, 1, x.s}, yr{YS ? y.p : y.p + j, 1, y.s};
    run<A, XS, YS, false>(d + j, xr, yr, len - j);
}

// Runs at least this long take the 256-bit lanes where the processor has them.
inline constexpr std::ptrdiff_t kAvxRun = 64;

// d[j] = x[j] op y[j] for j below len; XS/YS: that side is a scalar. Each
// element is loaded before its own position is stored, so exact in-place use
// is safe.
template <Arith A, bool XS, bool YS, class T>
ZEL_INLINE void row(T* d, std::ptrdiff_t dstep, RowArg<T> x, RowArg<T> y, std::ptrdiff_t len) {
    const bool contiguous = dstep == 1 && (XS || x.step == 1) && (YS || y.step == 1);
    if (contiguous) {
        if (len >= kAvxRun && cpu::avx()) {
            run_avx<A, XS, YS>(d, x, y, len);
            return;
        }
        const std::uintptr_t addrs = reinterpret_cast<std::uintptr_t>(d) |
                                     (XS ? 0 : reinterpret_cast<std::uintptr_t>(x.p)) |
                                     (YS ? 0 : reinterpret_cast<std::uintptr_t>(y.p));
        if ((addrs & 15) == 0) run<A, XS, YS, true>(d, x, y, len);
        else run<A, XS, YS, false>(d, x, y, len);
        return;
    }
    for (std::ptrdiff_t j = 0; j < len; ++j)
        store(d + j * dstep, apply<A>(XS ? x.s : load(x.p + j * x.step), YS ? y.s : load(y.p + j * y.step)));
}

// A source of the expression: a matrix or vector operand, read as stored or
// transposed, or a constant (single or one per object). Each tells
//  - get(n, i, j): its value at result position (i, j) of object n;
//  - row_of(n, i): row i of object n as a run of elements at a step;
//  - dense(W, H): whether each object is one contiguous block in result order;
//  - lane(i, j): position (i, j) across the objects (pointer form), a run at
//    the step between objects, or one value when it is the same for all.
template <class T, Form F, bool Trans, bool Arr>
struct MatSrc {
    static constexpr bool scalar = false;
    static constexpr bool single = !Arr;
    static constexpr bool lane_scalar = !Arr;
    Ref<T, F> ref;
    ZEL_INLINE T get(int n, int i, int j) const { return load(Trans ? ref.at(n, j, i) : ref.at(n, i, j)); }
    ZEL_INLINE RowArg<T> row_of(int n, int i) const {
        const Opd& o = *ref.o;
        if (Trans) return {ref.at(n, 0, i), std::ptrdiff_t(o.s1 / int(sizeof(T))), T()};
        return {ref.at(n, i, 0), std::ptrdiff_t(o.s2 / int(sizeof(T))), T()};
    }
    ZEL_INLINE bool dense(int W, int H) const {
        const Opd& o = *ref.o;
        const int sz = int(sizeof(T));
        // (one element read transposed is no run unless stride1 is the
        // element size: the long run steps by it from object to object)
        if (Trans) return H == 1 && o.s1 == sz;
        return o.s2 == sz && (H == 1 || std::ptrdiff_t(o.s1) == std::ptrdiff_t(W) * sz);
    }
    ZEL_INLINE RowArg<T> lane(int i, int j) const {
        const T* p = Trans ? ref.at(0, j, i) : ref.at(0, i, j);
        if (!Arr) return {nullptr, 0, load(p)};
        return {p, std::ptrdiff_t(ref.o->s0 / int(sizeof(T))), T()};
    }
};
// A single operand read once into the caller's stack, in result order.
template <class T>
struct HeldSrc {
    static constexpr bool scalar = false;
    static constexpr bool single = true;
    static constexpr bool lane_scalar = true;
    const T* p;
    int W;
    ZEL_INLINE T get(int, int i, int j) const { return p[i * W + j]; }
    ZEL_INLINE RowArg<T> row_of(int, int i) const { return {p + std::ptrdiff_t(i) * W, 1, T()}; }
    ZEL_INLINE bool dense(int, int) const { return true; }
    ZEL_INLINE RowArg<T> lane(int i, int j) const { return {nullptr, 0, get(0, i, j)}; }
};
template <class T>
struct ConstSrc {
    static constexpr bool scalar = true;
    static constexpr bool single = true;
    static constexpr bool lane_scalar = true;
    T v;
    ZEL_INLINE T get(int, int, int) const { return v; }
    ZEL_INLINE RowArg<T> row_of(int, int) const { return {nullptr, 0, v}; }
    ZEL_INLINE bool dense(int, int) const { return true; }
    ZEL_INLINE RowArg<T> lane(int, int) const { return {nullptr, 0, v}; }
};
template <class T, Form F>
struct ConstArraySrc {
    static constexpr bool scalar = true;
    static constexpr bool single = false;
    // the list form has a table; the others a strided array
    static constexpr bool lane_scalar = false;
    const Opd* o;
    ZEL_INLINE T value(int n) const {
        if constexpr (F == Form::L)
            return load(byte_add<T>(static_cast<const void* const*>(o->p)[n], o->shift));
        else
            return load(byte_add<T>(o->p, std::ptrdiff_t(n) * o->s0));
    }
    ZEL_INLINE T get(int n, int, int) const { return value(n); }
    ZEL_INLINE RowArg<T> row_of(int n, int) const { return {nullptr, 0, value(n)}; }
    ZEL_INLINE bool dense(int, int) const { return true; }
    ZEL_INLINE RowArg<T> lane(int, int) const {
        return {byte_add<T>(o->p, 0), std::ptrdiff_t(o->s0 / int(sizeof(T))), T()};
    }
};

// Largest single operand held on the stack: order 8.
inline constexpr int kHold = 64;

// Calls f with the source, or, for a single matrix or vector shared by more
// than one object, with a copy of it read once for the whole call.
template <class T, class S, class Fn>
ZEL_INLINE zelStatus with_held(const S& s, T* buf, int W, int H, int count, Fn&& f) {
    if constexpr (S::single && !S::scalar && !std::is_same_v<S, HeldSrc<T>>) {
        if (count > 1 && std::int64_t(W) * H <= kHold) {
            for (int i = 0; i < H; ++i)
                for (int j = 0; j < W; ++j) buf[i * W + j] = s.get(0, i, j);
            return f(HeldSrc<T>{buf, W});
        }
    }
    return f(s);
}

// Objects that are each one block of B elements in result order.
template <Arith A, Form DF, int B, class T, class X, class Y>
ZEL_INLINE void blocks(const Call<T>& c, const X& x, const Y& y, int W, std::ptrdiff_t b) {
    const Ref<T, DF> d{&c.dst[0], W};
    const std::ptrdiff_t len = B ? B : b;
    for (int n = 0; n < c.count; ++n)
        row<A, X::scalar, Y::scalar>(d.at(n, 0, 0), 1, x.row_of(n, 0), y.row_of(n, 0), len);
}

// Standard and list forms: object n outer, rows, columns inner.
template <Arith A, Form DF, class T, class X, class Y>
zelStatus rows_kernel(const Call<T>& c, const X& x, const Y& y, int W, int H) {
    const int sz = int(sizeof(T));
    const Opd& od = c.dst[0];
    const bool dense = od.s2 == sz && (H == 1 || std::ptrdiff_t(od.s1) == std::ptrdiff_t(W) * sz) && x.dense(W, H) &&
                       y.dense(W, H);
    if (dense) {
        const std::ptrdiff_t b = std::ptrdiff_t(W) * H;
        constexpr bool held_x = X::single && !X::scalar, held_y = Y::single && !Y::scalar;
        if constexpr (DF == Form::S && !held_x && !held_y) {
            // Array operands packed one behind the other: one long run.
            auto packed = [&](const auto& s) {
                if constexpr (std::remove_cvref_t<decltype(s)>::scalar) return !std::is_same_v<
                    std::remove_cvref_t<decltype(s)>, ConstArraySrc<T, DF>>;
                else return std::ptrdiff_t(s.ref.o->s0) == std::ptrdiff_t(b) * sz;
            };
            if (c.count == 1 || (std::ptrdiff_t(od.s0) == std::ptrdiff_t(b) * sz && packed(x) && packed(y))) {
                row<A, X::scalar, Y::scalar>(byte_add<T>(od.p, 0), 1, x.row_of(0, 0), y.row_of(0, 0),
                                             std::ptrdiff_t(b) * c.count);
                return zelStsOk;
            }
        }
        // Fixed block sizes of the orders 3 to 6 (and vectors of 3 to 6),
        // unrolled by the compiler.
        switch (b) {
            case 3: blocks<A, DF, 3>(c, x, y, W, b); break;
            case 4: blocks<A, DF, 4>(c, x, y, W, b); break;
            case 5: blocks<A, DF, 5>(c, x, y, W, b); break;
            case 6: blocks<A, DF, 6>(c, x, y, W, b); break;
            case 9: blocks<A, DF, 9>(c, x, y, W, b); break;
            case 16: blocks<A, DF, 16>(c, x, y, W, b); break;
            case 25: blocks<A, DF, 25>(c, x, y, W, b); break;
            case 36: blocks<A, DF, 36>(c, x, y, W, b); break;
            default: blocks<A, DF, 0>(c, x, y, W, b); break;
        }
        return zelStsOk;
    }
    const Ref<T, DF> d{&od, W};
    const std::ptrdiff_t dstep = od.s2 / sz;
    for (int n = 0; n < c.count; ++n)
        for (int i = 0; i < H; ++i)
            row<A, X::scalar, Y::scalar>(d.at(n, i, 0), dstep, x.row_of(n, i), y.row_of(n, i), W);
    return zelStsOk;
}

// Pointer form: element position outer, objects inner. Position (i, j) of
// all objects lies at a fixed step (stride0), so each position is one run;
// a single operand gives one value per position, read once per call.
template <Arith A, class T, class X, class Y>
zelStatus lanes_kernel(const Call<T>& c, const X& x, const Y& y, int W, int H) {
    const Ref<T, Form::P> d{&c.dst[0], W};
    const std::ptrdiff_t dstep = c.dst[0].s0 / int(sizeof(T));
    // Objects in chunks, so that the chunk's lines of all positions stay in
    // the first-level cache when objects are laid out one behind the other.
    constexpr int kChunk = 64;
    for (int n0 = 0; n0 < c.count; n0 += kChunk) {
        const int len = c.count - n0 < kChunk ? c.count - n0 : kChunk;
        for (int i = 0; i < H; ++i)
            for (int j = 0; j < W; ++j) {
                RowArg<T> xl = x.lane(i, j), yl = y.lane(i, j);
                if (!X::lane_scalar) xl.p += n0 * xl.step;
                if (!Y::lane_scalar) yl.p += n0 * yl.step;
                row<A, X::lane_scalar, Y::lane_scalar>(d.at(0, i, j) + n0 * dstep, dstep, xl, yl, len);
            }
    }
    return zelStsOk;
}

template <Arith A, Form DF, class T, class X, class Y>
zelStatus kernel(const Call<T>& c, const X& x, const Y& y, int W, int H) {
    if constexpr (DF == Form::P) {
        return lanes_kernel<A>(c, x, y, W, H);
    } else {
        T bx[kHold], by[kHold];
        return with_held(x, bx, W, H, c.count, [&](const auto& hx) {
            return with_held(y, by, W, H, c.count, [&](const auto& hy) {
                return rows_kernel<A, DF>(c, hx, hy, W, H);
            });
        });
    }
}

// A pointer-form operand whose table entries k = 0 .. k_end-1 are
// consecutive elements, object after object at stride0: rewritten in place
// as the standard-form operand of rows of `cols` elements it amounts to.
template <class T>
ZEL_INLINE bool as_strided(Opd& o, int cols, int k_end) {
    if (std::int64_t(cols) * int(sizeof(T)) > INT_MAX) return false;  // no stride1 for such rows
    const char* const* tab = static_cast<const char* const*>(o.p);
    const char* first = tab[0];
    for (int k = 1; k < k_end; ++k)
        if (tab[k] != first + std::ptrdiff_t(k) * int(sizeof(T))) return false;
    o.p = first + o.shift;
    o.shift = 0;
    o.s1 = cols * int(sizeof(T));
    o.s2 = int(sizeof(T));
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
        return MatSrc<T, of, L.kind == 't', L.array>{Ref<T, of>{&c.src[k], L.kind == 't' ? H : W}};
    }
}

// An int field read on its own, kept out of any wider combined load.
ZEL_INLINE int scalar_read(const int& f) {
    int v = f;
    asm("" : "+r"(v));
    return v;
}

// The contiguous row loop out of line, for the short path's long vectors
// (arguments that all travel in registers).
template <Arith A, bool XS, bool YS, class T>
__attribute__((noinline)) void run_long(T* d, const T* x, const T* y, T val, std::ptrdiff_t len) {
    row<A, XS, YS>(d, 1, RowArg<T>{x, 1, val}, RowArg<T>{y, 1, val}, len);
}

// What a signature and form say about a call, at compile time.
template <Op O, Str Sig, Str FS>
struct Shape {
    static constexpr Operands ops = parse<Sig>();
    static constexpr Form F = form_of<FS>();
    static constexpr bool array = ops.any_array();
    static constexpr Letter lx = ops.l[0], ly = ops.l[1];
    static constexpr bool matrix = lx.kind == 'm' || lx.kind == 't' || ly.kind == 'm' || ly.kind == 't';
    // Non-constant operands take src[0], src[1] in the order of the letters.
    static constexpr int ix = 0, iy = lx.kind == 'c' ? 0 : 1;
    static constexpr Arith A = arith_of<O>();
};

// The entry of every element-wise export, behind its argument tests (and,
// for single vectors, behind the short path of quick()).
template <Op O, Str Sig, class T, Str FS>
zelStatus entry(const Call<T>& call) {
    using S = Shape<O, Sig, FS>;
    constexpr Form F = S::F;
    constexpr bool array = S::array, matrix = S::matrix;
    static constexpr Letter lx = S::lx, ly = S::ly;
    constexpr int ix = S::ix, iy = S::iy;
    constexpr Arith A = S::A;
    constexpr Form DF = operand_form(F, array);
    // The sizes are read one by one: the caller has just stored them as
    // separate 4-byte fields, and a combined wider load of two of them
    // would wait for those stores instead of being forwarded from them.
    const int W = matrix ? scalar_read(call.width) : scalar_read(call.len);
    const int H = matrix ? scalar_read(call.height) : 1;
    // A single object comes with count 1 from its API function.
    const Call<T>& c = call;

    // The kernel without S2 when every stride2 is the element size.
    bool unit = true;
    if constexpr (F != Form::P) {
        unit = c.dst[0].s2 == int(sizeof(T));
        if constexpr (lx.kind != 'c') unit = unit && c.src[ix].s2 == int(sizeof(T));
        if constexpr (ly.kind != 'c') unit = unit && c.src[iy].s2 == int(sizeof(T));
    }

    auto run = [=](const Call<T>& s) -> zelStatus {
        if constexpr (F == Form::P) {
            // Tables that name each object's elements one behind the other
            // are run as the strided form they amount to.
            Call<T> st = s;
            bool regular = as_strided<T>(st.dst[0], W, W * H);
            if constexpr (lx.kind != 'c') regular = regular && as_strided<T>(st.src[ix], lx.kind == 't' ? H : W, W * H);
            if constexpr (ly.kind != 'c') regular = regular && as_strided<T>(st.src[iy], ly.kind == 't' ? H : W, W * H);
            if (regular) {
                const auto x = source<lx, Form::S>(st, ix, W, H);
                const auto y = source<ly, Form::S>(st, iy, W, H);
                return kernel<A, Form::S>(st, x, y, W, H);
            }
        }
        const auto x = source<lx, F>(s, ix, W, H);
        const auto y = source<ly, F>(s, iy, W, H);
        return kernel<A, DF>(s, x, y, W, H);
    };

    if constexpr (array) {
        constexpr auto& rule = threshold_row(op_name<O>(), std::string_view(Sig.s, Sig.size()));
        constexpr bool wrapper =
            has_wrapper(op_name<O>(), std::string_view(Sig.s, Sig.size()), sizeof(T) == 8, F);
        if constexpr (wrapper) {
            if (goes_parallel(rule, F, unit, sizeof(T) == 8, matrix ? W : scalar_read(c.width),
                              matrix ? H : scalar_read(c.height), matrix ? scalar_read(c.len) : W,
                              scalar_read(c.count))) {
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


// A single contiguous vector, on the arguments as they stand: up to 16
// elements here, longer ones in the row loop. True when it has done the work.
template <Op O, Str Sig, class T>
ZEL_INLINE bool quick(const Quick<T>& q) {
    using S = Shape<O, Sig, "S">;
    constexpr bool XS = S::lx.kind == 'c', YS = S::ly.kind == 'c';
    constexpr int E = int(sizeof(T)), ix = S::ix, iy = S::iy;
    const int len = q.len;
    // One test of all strides, in registers (comparing the two source strides
    // as one 64-bit word from memory stalls on the stores that made them).
    const int off = (q.ds ^ E) | (XS ? 0 : q.s2[ix] ^ E) | (YS ? 0 : q.s2[iy] ^ E);
    if (off != 0) return false;
    const T* x = static_cast<const T*>(q.src[ix]);
    const T* y = static_cast<const T*>(q.src[iy]);
    T* d = static_cast<T*>(q.dst);
    if (len > 16) {
        run_long<S::A, XS, YS>(d, x, y, q.val, len);
        return true;
    }
    using L = simd::V128<T>;
    int j = 0;
    for (; j + L::n <= len; j += L::n)
        L::store(d + j, op<S::A, L>(XS ? L::splat(q.val) : L::load(x + j),
                                             YS ? L::splat(q.val) : L::load(y + j)));
    // The last elements one by one, written out rather than looped: a loop
    // here is vectorised again, with overlap tests that cost a frame.
    const auto one = [&](int k) { store(d + k, apply<S::A>(XS ? q.val : load(x + k), YS ? q.val : load(y + k))); };
    const int r = len - j;
    if (r > 0) one(j);
    if (L::n > 2 && r > 1) one(j + 1);
    if (L::n > 3 && r > 2) one(j + 2);
    return true;
}

}  // namespace zel::elementwise
