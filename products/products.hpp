// Products: matrix by matrix, matrix by vector, their arrays, and Gaxpy, in
// every storage form.
//
// Results depend bit for bit on the association of each sum, and that differs
// between kernels, exact orders and rows; products/table.hpp says which
// order each kernel uses where, products/orders.hpp writes each order once.
// One routine per family computes one object against operand views; the
// kernels (standard, S2, L, LS2, P) are that routine bound to their table
// rows and views, in an object loop.
#pragma once

#include <algorithm>
#include <array>
#include <cstdint>
#include <string_view>
#include <type_traits>

#include "frame/cpu.hpp"
#include "frame/fanout.hpp"
#include "frame/view.hpp"
#include "products/lanes.hpp"
#include "products/orders.hpp"
#include "products/table.hpp"

namespace zel::products {

// A matrix operand read as stored or transposed.
template <bool Trans, class V>
ZEL_INLINE auto elem(const V& v, int i, int k) {
    return Trans ? v.get(k, i) : v.get(i, k);
}

// ---------------------------------------------------------------------------
// Kernel keys: the signature of the table rows a kernel reads.
template <Str Sig>
struct SingleSig {
    static constexpr std::array<char, 8> chars = [] {
        std::array<char, 8> a{};
        std::size_t n = 0;
        for (std::size_t i = 0; i < Sig.size(); ++i)
            if (Sig[i] != 'a') a[n++] = Sig[i];
        return a;
    }();
    static constexpr std::string_view value{chars.data()};
};

template <class T>
constexpr unsigned ty_of() {
    return sizeof(T) == 8 ? F64 : F32;
}
template <Form F, bool Unit>
constexpr unsigned kern_of() {
    return F == Form::S ? (Unit ? Std : S2) : F == Form::L ? (Unit ? L : LS2) : P;
}

constexpr bool fast_order(unsigned mask, int n) {
    return n >= 3 && n <= 6 && (mask >> n & 1u);
}

// Whether the vector's address gives leading terms, and how many: up to its
// next 16-byte boundary; -1 if the address is not a multiple of the element
// size (the whole row then sums in order).
template <class T>
ZEL_INLINE int leading_terms(const void* x) {
    const auto a = reinterpret_cast<std::uintptr_t>(x);
    if (a % sizeof(T)) return -1;
    return int((16 - a % 16) % 16 / sizeof(T));
}

// ---------------------------------------------------------------------------
// Matrix by matrix, one object: D (H x W) = a (H x K) times b (K x W).
template <int N, bool TA, bool TB, class T, class VA, class VB, class VD>
ZEL_INLINE void mm_fast(const VA& a, const VB& b, const VD& d) {
    for (int i = 0; i < N; ++i) {
        T acc[N];
        const T a0 = elem<TA>(a, i, 0);
        for (int j = 0; j < N; ++j) acc[j] = a0 * elem<TB>(b, 0, j);
        for (int k = 1; k < N; ++k) {
            const T aik = elem<TA>(a, i, k);
            for (int j = 0; j < N; ++j) acc[j] += aik * elem<TB>(b, k, j);
        }
        for (int j = 0; j < N; ++j) store(d.ptr(i, j), acc[j]);
    }
}

template <unsigned Mask, RowRule Rule, bool TA, bool TB, class T, class VA, class VB, class VD>
ZEL_INLINE void mm_object(int fast_n, const VA& a, const VB& b, const VD& d, int H, int W, int K) {
    if constexpr (fast_order(Mask, 3)) if (fast_n == 3) return mm_fast<3, TA, TB, T>(a, b, d);
    if constexpr (fast_order(Mask, 4)) if (fast_n == 4) return mm_fast<4, TA, TB, T>(a, b, d);
    if constexpr (fast_order(Mask, 5)) if (fast_n == 5) return mm_fast<5, TA, TB, T>(a, b, d);
    if constexpr (fast_order(Mask, 6)) if (fast_n == 6) return mm_fast<6, TA, TB, T>(a, b, d);
    for (int i = 0; i < H; ++i) {
        const Ord o = row_order(Rule, H, i, K);
        for (int j = 0; j < W; ++j)
            store(d.ptr(i, j), ordered_sum<T>(o, K, 0, [&](int k) { return elem<TA>(a, i, k) * elem<TB>(b, k, j); }));
    }
}

// ---------------------------------------------------------------------------
// Matrix by vector, one object: d (H) = a (H x K) times x (K).
template <unsigned Mask, Fast FS, RowRule Rule, bool TA, class T, class VA, class VX, class VD>
ZEL_INLINE void mv_object(int fast_n, const VA& a, const VX& x, const VD& d, int H, int K) {
    if (fast_n && fast_order(Mask, fast_n)) {
        for (int i = 0; i < fast_n; ++i) {
            T t[6];
            for (int k = 0; k < fast_n; ++k) t[k] = elem<TA>(a, i, k) * x.get(0, k);
            store(d.ptr(0, i), fast_sum<T>(FS, fast_n, i, t));
        }
        return;
    }
    int lead = 0;
    bool in_order = false;
    if constexpr (Rule.lead) {
        lead = leading_terms<T>(x.ptr(0, 0));
        in_order = lead < 0;
        if (in_order) lead = 0;
    }
    for (int i = 0; i < H; ++i) {
        const Ord o = in_order ? kSeq : row_order(Rule, H, i, K - lead);
        store(d.ptr(0, i), ordered_sum<T>(o, K, lead, [&](int k) { return elem<TA>(a, i, k) * x.get(0, k); }));
    }
}

// ---------------------------------------------------------------------------
// Gaxpy, one object: d (H) = a (H x K) times x (K), plus y (H).
template <unsigned Mask, Fast FS, RowRule Rule, bool SharedY, class T, class VA, class VX, class VY, class VD>
ZEL_INLINE void gaxpy_object(int fast_n, const VA& a, const VX& x, const VY& y, const VD& d, int H, int K) {
    if (fast_n && fast_order(Mask, fast_n)) {
        for (int i = 0; i < fast_n; ++i) {
            T t[6];
            for (int k = 0; k < fast_n; ++k) t[k] = a.get(i, k) * x.get(0, k);
            const T yi = y.get(0, i);
            const GaxpyY g = gaxpy_y(FS, SharedY, fast_n, i);
            T s;
            if (g.y_first) {
                s = t[g.with_term] + yi;
                for (int k = 0; k < fast_n; ++k)
                    if (k != g.with_term) s += t[k];
            } else {
                s = fast_sum<T>(FS, fast_n, i, t) + yi;
            }
            store(d.ptr(0, i), s);
        }
        return;
    }
    for (int i = 0; i < H; ++i) {
        const Ord o = row_order(Rule, H, i, K);
        const T s = ordered_sum<T>(o, K, 0, [&](int k) { return a.get(i, k) * x.get(0, k); });
        store(d.ptr(0, i), s + y.get(0, i));
    }
}

// ---------------------------------------------------------------------------
// The kernels: the object loop around the family's routine. `Unit` tells the
// kernel without S2 from the one with it.
template <Str Sig, class T, Form F, bool Unit>
struct Kernel {
    static constexpr Operands ops = parse<Sig>();
    static constexpr unsigned kern = kern_of<F, Unit>();
    // The LS2 kernels run the single product's S2 kernel on each object, all
    // but four 32f ones with loops of their own.
    static constexpr bool own_loop = sizeof(T) == 4 && (std::string_view(Sig.s) == "mam" ||
                                                         std::string_view(Sig.s) == "mat" ||
                                                         std::string_view(Sig.s) == "tam" ||
                                                         std::string_view(Sig.s) == "tat");
    static constexpr bool drives_single = kern == LS2 && !own_loop;
    static constexpr Key key{drives_single ? SingleSig<Sig>::value : std::string_view(Sig.s), ty_of<T>(),
                             drives_single ? unsigned(S2) : kern};
    static constexpr bool array1 = ops.l[0].array, array2 = ops.l[1].array;
    static constexpr Form f1 = operand_form(F, array1), f2 = operand_form(F, array2);
    static constexpr Form fd = operand_form(F, ops.any_array());
};

// Whether objects may be taken two at a time (both objects' sources read
// before their destinations are written): the destination and source ranges
// of the call apart, or the destination the source itself with objects
// apart. Object extents in bytes.
inline bool pairs_safe(const Opd& x, const Opd& d, int count, std::ptrdiff_t xbytes, std::ptrdiff_t dbytes) {
    const auto span = [&](const Opd& o, std::ptrdiff_t bytes, std::uintptr_t& lo, std::uintptr_t& hi) {
        const std::uintptr_t b = reinterpret_cast<std::uintptr_t>(o.p);
        const std::ptrdiff_t last = std::ptrdiff_t(count - 1) * o.s0;
        lo = b + std::uintptr_t(last < 0 ? last : 0);
        hi = b + std::uintptr_t((last < 0 ? 0 : last) + bytes);
    };
    std::uintptr_t xl, xh, dl, dh;
    span(x, xbytes, xl, xh);
    span(d, dbytes, dl, dh);
    if (dh <= xl || xh <= dl) return true;
    const std::ptrdiff_t s = x.s0 < 0 ? -std::ptrdiff_t(x.s0) : x.s0;
    return x.p == d.p && x.s0 == d.s0 && x.s1 == d.s1 && s >= std::max(xbytes, dbytes);
}

// The sequential fast paths of contiguous rows with the columns in vector
// lanes (products/lanes.hpp): b read as stored, any number of objects.
template <int N, bool TA, class T, Form FA, Form FB, Form FD>
ZEL_INLINE void mm_lanes_loop(const Call<T>& c, int count, int o = 0) {
    const Opd oa = c.src[0], ob = c.src[1], od = c.dst[0];  // kept in registers across the stores
    for (; o < count; ++o) {
        const auto a = view_of<T, FA, true>(oa, o, 0);
        const auto b = view_of<T, FB, true>(ob, o, 0);
        const auto d = view_of<T, FD, true>(od, o, 0);
        lanes::mm_seq<N, TA, T>(a.base, a.s1, b.base, b.s1, const_cast<char*>(d.base), d.s1);
    }
}
// The same 128-bit operations in the AVX encoding (three operands, broadcasts
// straight from memory): the same instructions' results, fewer of them.
template <int N, bool TA, class T, Form FA, Form FB, Form FD>
__attribute__((target("avx"), noinline)) void mm_lanes_avx(const Call<T>& c, int count) {
    mm_lanes_loop<N, TA, T, FA, FB, FD>(c, count);
}
template <int N, bool TA, class T, Form FA, Form FB, Form FD>
void mm_lanes(const Call<T>& c, int count) {
    if constexpr (N == 3 && std::is_same_v<T, float> && !TA && FA == Form::S && FB == Form::S && FD == Form::S) {
        // Order 3 two objects at a time, where the destination rows are
        // contiguous and no destination reaches another object's sources.
        const Opd &oa = c.src[0], &ob = c.src[1], &od = c.dst[0];
        const std::ptrdiff_t src_a = 2 * std::ptrdiff_t(oa.s1) + 12, src_b = 2 * std::ptrdiff_t(ob.s1) + 12;
        if (cpu::avx() && count >= 2 && od.s1 == 12 && pairs_safe(oa, od, count, src_a, 36) &&
            pairs_safe(ob, od, count, src_b, 36)) {
            const int o = lanes::mm3_pairs_avx(static_cast<const char*>(oa.p), oa.s1, oa.s0,
                                               static_cast<const char*>(ob.p), ob.s1, ob.s0,
                                               static_cast<char*>(const_cast<void*>(od.p)), od.s0, count);
            mm_lanes_loop<N, TA, T, FA, FB, FD>(c, count, o);
            return;
        }
    }
    if (cpu::avx()) mm_lanes_avx<N, TA, T, FA, FB, FD>(c, count);
    else mm_lanes_loop<N, TA, T, FA, FB, FD>(c, count);
}

// Matrix by vector at order 4 with the four terms of a row in lanes; a
// single matrix is loaded once for the call.
template <lanes::Pairs P, class T, Form FA, Form FX, Form FD, bool ArrA>
void mv4_lanes(const Call<T>& c, int count) {
    lanes::Rows4<T> rows;
    if constexpr (!ArrA) {
        const auto a = view_of<T, FA, true>(c.src[0], 0, 0);
        rows.load(a.base, a.s1);
    }
    for (int o = 0; o < count; ++o) {
        if constexpr (ArrA) {
            const auto a = view_of<T, FA, true>(c.src[0], o, 0);
            rows.load(a.base, a.s1);
        }
        const auto x = view_of<T, FX, true>(c.src[1], o, 0);
        const auto d = view_of<T, FD, true>(c.dst[0], o, 0);
        rows.template apply<P>(x.ptr(0, 0), d.ptr(0, 0));
    }
}

// The same with one matrix for all objects, the rows of the destination in
// lanes: any association of four terms.
template <Fast FS, bool TA, class T, Form FA, Form FX, Form FD>
void mv4_cols(const Call<T>& c, int count) {
    lanes::Cols4<T> cols;
    const auto a = view_of<T, FA, true>(c.src[0], 0, c.src1Width);
    cols.load([&](int i, int k) { return elem<TA>(a, i, k); });
    const Opd ox = c.src[1], od = c.dst[0];  // kept in registers across the stores
    int o = 0;
    if constexpr (FX == Form::S && FD == Form::S) {
        const char* xp = static_cast<const char*>(ox.p);
        char* dp = static_cast<char*>(const_cast<void*>(od.p));
        const std::ptrdiff_t xs = ox.s0, ds = od.s0;
        // Two float objects per step, both vectors loaded before the two
        // stores: only where no destination overlaps another object's vector.
        const bool pairs = std::is_same_v<T, float> && count >= 2 &&
                           pairs_safe(ox, od, count, 4 * std::ptrdiff_t(sizeof(T)), 4 * std::ptrdiff_t(sizeof(T)));
        if (cpu::avx() && (pairs || std::is_same_v<T, double>)) {
            o = lanes::mv4_cols_avx<FS>(cols, xp, xs, dp, ds, count);
        } else if constexpr (std::is_same_v<T, float>) {
            if (pairs) {
                const auto p = cols.pair();
                for (; o + 1 < count; o += 2, xp += 2 * xs, dp += 2 * ds)
                    lanes::Cols4<T>::template apply2<FS>(p, reinterpret_cast<const T*>(xp),
                                                         reinterpret_cast<const T*>(xp + xs), reinterpret_cast<T*>(dp),
                                                         reinterpret_cast<T*>(dp + ds));
            }
        }
    }
    for (; o < count; ++o) {
        const auto x = view_of<T, FX, true>(ox, o, 0);
        const auto d = view_of<T, FD, true>(od, o, 0);
        cols.template apply<FS>(x.ptr(0, 0), d.ptr(0, 0));
    }
}

template <Str Sig, class T, Form F, bool Unit>
zelStatus mm_kernel(const Call<T>& c) {
    using K_ = Kernel<Sig, T, F, Unit>;
    static constexpr const FastRow& fr = find_row(kFast, K_::key);
    static constexpr const OrderRow& orr = find_row(kOrders, K_::key);
    constexpr bool TA = K_::ops.l[0].kind == 't', TB = K_::ops.l[1].kind == 't';
    const int K = TA ? c.src1Height : c.src1Width;
    const int H = TA ? c.src1Width : c.src1Height;
    const int W = TB ? c.src2Height : c.src2Width;
    const int n = c.src1Width;
    const int fast_n = (c.src1Height == n && c.src2Width == n && c.src2Height == n) ? n : 0;
    const int count = K_::ops.any_array() ? c.count : 1;
    if constexpr (Unit && F != Form::P && !TB && fr.sum == Fast::Seq) {
        constexpr Form f1 = K_::f1, f2 = K_::f2, fd = K_::fd;
        if constexpr (fast_order(fr.orders, 3))
            if (fast_n == 3) return mm_lanes<3, TA, T, f1, f2, fd>(c, count), zelStsOk;
        if constexpr (fast_order(fr.orders, 4))
            if (fast_n == 4) return mm_lanes<4, TA, T, f1, f2, fd>(c, count), zelStsOk;
        if constexpr (fast_order(fr.orders, 5))
            if (fast_n == 5) return mm_lanes<5, TA, T, f1, f2, fd>(c, count), zelStsOk;
        if constexpr (fast_order(fr.orders, 6))
            if (fast_n == 6) return mm_lanes<6, TA, T, f1, f2, fd>(c, count), zelStsOk;
    }
    for (int o = 0; o < count; ++o) {
        const auto a = view_of<T, K_::f1, Unit>(c.src[0], o, c.src1Width);
        const auto b = view_of<T, K_::f2, Unit>(c.src[1], o, c.src2Width);
        const auto d = view_of<T, K_::fd, Unit>(c.dst[0], o, W);
        mm_object<fr.orders, orr.rule, TA, TB, T>(fast_n, a, b, d, H, W, K);
    }
    return zelStsOk;
}

template <Str Sig, class T, Form F, bool Unit>
zelStatus mv_kernel(const Call<T>& c) {
    using K_ = Kernel<Sig, T, F, Unit>;
    static constexpr const FastRow& fr = find_row(kFast, K_::key);
    static constexpr const OrderRow& orr = find_row(kOrders, K_::key);
    constexpr bool TA = K_::ops.l[0].kind == 't';
    const int K = TA ? c.src1Height : c.src1Width;
    const int H = TA ? c.src1Width : c.src1Height;
    const int n = c.src1Width;
    const int fast_n = (c.src1Height == n && c.src2Len == n) ? n : 0;
    const int count = K_::ops.any_array() ? c.count : 1;
    if constexpr (Unit && F != Form::P && !K_::array1 && fr.sum != Fast::None && fr.sum != Fast::LastFirst &&
                  fast_order(fr.orders, 4)) {
        if (fast_n == 4) {
            mv4_cols<fr.sum, TA, T, K_::f1, K_::f2, K_::fd>(c, count);
            return zelStsOk;
        }
    } else if constexpr (Unit && F != Form::P && !TA && lanes::mv4_fits(fr.sum) && fast_order(fr.orders, 4)) {
        if (fast_n == 4) {
            mv4_lanes<lanes::mv4_pairs(fr.sum), T, K_::f1, K_::f2, K_::fd, K_::array1>(c, count);
            return zelStsOk;
        }
    }
    for (int o = 0; o < count; ++o) {
        const auto a = view_of<T, K_::f1, Unit>(c.src[0], o, c.src1Width);
        const auto x = view_of<T, K_::f2, Unit>(c.src[1], o, 0);
        const auto d = view_of<T, K_::fd, Unit>(c.dst[0], o, 0);
        mv_object<fr.orders, fr.sum, orr.rule, TA, T>(fast_n, a, x, d, H, K);
    }
    return zelStsOk;
}

template <Str Sig, class T, Form F, bool Unit>
zelStatus gaxpy_kernel(const Call<T>& c) {
    static constexpr std::string_view sig{Sig.s};
    static constexpr bool shared_y = sig == "mvav";
    static constexpr bool array = sig != "mv";
    static constexpr Key key{sig, ty_of<T>(), kern_of<F, Unit>()};
    static constexpr const FastRow& fr = find_row(kGaxpyFast, key);
    static constexpr const OrderRow& orr = find_row(kGaxpyOrders, key);
    constexpr Form fa = operand_form(F, false), fx = operand_form(F, array);
    constexpr Form fy = operand_form(F, array && !shared_y);
    const int K = c.src1Width, H = c.src1Height;
    const int fast_n = K == H ? K : 0;
    const int count = array ? c.count : 1;
    for (int o = 0; o < count; ++o) {
        const auto a = view_of<T, fa, Unit>(c.src[0], o, c.src1Width);
        const auto x = view_of<T, fx, Unit>(c.src[1], o, 0);
        const auto y = view_of<T, fy, Unit>(c.src[2], o, 0);
        const auto d = view_of<T, fx, Unit>(c.dst[0], o, 0);
        gaxpy_object<fr.orders, fr.sum, orr.rule, shared_y, T>(fast_n, a, x, y, d, H, K);
    }
    return zelStsOk;
}

// ---------------------------------------------------------------------------
// The entry of every product and Gaxpy export, behind its argument tests:
// the kernel by the stride test, on the calling thread or through the
// fan-out by the work estimate.
template <Op O, Str Sig, class T, Str FS>
zelStatus entry(Call<T>& c) {
    static constexpr Operands ops = parse<Sig>();
    constexpr Form F = form_of<FS>();
    constexpr bool gaxpy = O == Op::Gaxpy;
    constexpr bool vec = ops.l[1].kind == 'v';
    constexpr bool array = ops.any_array();
    constexpr int esz = int(sizeof(T));

    bool unit = true;
    if constexpr (F != Form::P) {
        unit = c.src[0].s2 == esz && c.src[1].s2 == esz && c.dst[0].s2 == esz;
        if constexpr (gaxpy) unit = unit && c.src[2].s2 == esz;
    }

    auto run = [unit](const Call<T>& s) -> zelStatus {
        if constexpr (gaxpy)
            return unit ? gaxpy_kernel<Sig, T, F, true>(s) : gaxpy_kernel<Sig, T, F, false>(s);
        else if constexpr (vec)
            return unit ? mv_kernel<Sig, T, F, true>(s) : mv_kernel<Sig, T, F, false>(s);
        else
            return unit ? mm_kernel<Sig, T, F, true>(s) : mm_kernel<Sig, T, F, false>(s);
    };
    if constexpr (!array) {
        return run(c);
    } else {
        const unsigned kern = F == Form::S ? (unit ? Std : S2) : F == Form::L ? (unit ? L : LS2) : P;
        std::int32_t work;
        int limit;
        FanSpec fs{};
        fs.form = F;
        fs.dst_arrays = 1u;
        if constexpr (gaxpy) {
            constexpr bool shared_y = std::string_view(Sig.s) == "mvav";
            work = gaxpy_estimate(c.src2Len, c.src3Len, shared_y, c.count);
            limit = limit_of(kGaxpyLimits, kern);
            fs.src_arrays = shared_y ? 2u : 6u;
        } else {
            const int e1 = (Est(c.src1Width) * Est(c.src1Height)).value();
            const int e2 = vec ? c.src2Len : (Est(c.src2Width) * Est(c.src2Height)).value();
            const bool TA = ops.l[0].kind == 't', TB = ops.l[1].kind == 't';
            const int H = TA ? c.src1Width : c.src1Height;
            const int ed = vec ? H : (Est(H) * Est(TB ? c.src2Height : c.src2Width)).value();
            work = mul_estimate(e1, ops.l[0].array, e2, ops.l[1].array, ed, c.count);
            limit = limit_of(kMulLimits, kern);
            fs.src_arrays = (ops.l[0].array ? 1u : 0u) | (ops.l[1].array ? 2u : 0u);
        }
        if (work > limit) return fan_out(c, fs, run);
        return run(c);
    }
}

}  // namespace zel::products
