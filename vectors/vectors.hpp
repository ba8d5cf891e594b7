// Vector algebra and reductions: DotProduct, L2Norm, CrossProduct, Saxpy,
// LComb, Trace and FrobNorm, in every storage form.
//
// The reductions' results depend bit for bit on how each sum is associated,
// and that differs between kernels, lengths and even objects of one call:
// vectors/table.hpp says which association each kernel uses where, and
// vectors/assoc.hpp turns each into straight-line additions. One routine per
// family computes an object against operand views (zel::View); the
// kernels (standard, S2, L, LS2, P) are that routine bound to their table
// rows and views in an object loop. The vector-lane paths of vectors/lanes.hpp
// take several objects at once where each lane does exactly its object's
// operations.
//
// Saxpy, LComb and CrossProduct compute each element of the result from one
// position of the sources, one product rounded and then added or
// subtracted, so that every kernel gives the same bits.
#pragma once

#include <emmintrin.h>

#include <cstdint>
#include <cstring>
#include <string_view>
#include <type_traits>

#include "frame/fanout.hpp"
#include "products/products.hpp"
#include "vectors/lanes.hpp"
#include "vectors/table.hpp"

namespace zel::vectors {

using products::kern_of;
using products::leading_terms;
using products::ty_of;

// The correctly rounded square root of the element type.
ZEL_INLINE float root(float x) { return _mm_cvtss_f32(_mm_sqrt_ss(_mm_set_ss(x))); }
ZEL_INLINE double root(double x) {
    const __m128d v = _mm_set_sd(x);
    return _mm_cvtsd_f64(_mm_sqrt_sd(v, v));
}

// What a kernel is, at compile time: its table key and its operands' forms.
template <Op O, Str Sig, class T, Form F, bool Unit>
struct Kernel {
    static constexpr Operands ops = parse<Sig>();
    static constexpr bool array = ops.any_array();
    static constexpr bool arr1 = ops.l[0].array, arr2 = ops.n > 1 && ops.l[1].array;
    static constexpr Form f1 = operand_form(F, arr1), f2 = operand_form(F, arr2);
    static constexpr Form fd = operand_form(F, array);
    static constexpr unsigned kern = kern_of<F, Unit>();
    static constexpr Key key{bit(O), std::string_view(Sig.s), ty_of<T>(), kern};
};

// The objects of a call that a block row takes: those below count rounded
// down to the group, where the row's conditions hold.
template <class T>
int block_objects(int bi, const Call<T>& c) {
    if (bi < 0) return 0;
    const BlockRow& br = kBlocks[bi];
    if (c.count < br.min_count) return 0;
    if (br.aligned) {
        const auto a = [](const void* p) { return reinterpret_cast<std::uintptr_t>(p); };
        const auto u = [](int s) { return std::uintptr_t(unsigned(s)); };
        if ((a(c.src[0].p) | a(c.src[1].p) | a(c.out) | u(c.src[0].s0) | u(c.src[1].s0)) & 15u) return 0;
    }
    return c.count / br.group * br.group;
}

// A long sum in a kernel's order. `lead_at` is the address whose 16-byte
// boundary gives the leading terms.
template <Order O, class T, class Term>
ZEL_INLINE T long_sum(int K, const void* lead_at, const Term& t) {
    if constexpr (O.chain != kNoChain) {
        return chain_sum<kChains[O.chain], T>(K, t);
    } else {
        products::Ord o = O.named;
        int lead = 0;
        if constexpr (O.lead) {
            lead = leading_terms<T>(lead_at);
            if (lead < 0 || K - lead < 8) o = products::kSeq, lead = 0;
        }
        return products::ordered_sum<T>(o, K, lead, t);
    }
}

// ---------------------------------------------------------------------------
// DotProduct and L2Norm. t(k) = a(k) * b(k), or a(k) * a(k).

// The four-object square root (kRsqrt): objects [from, count) of the call,
// whose sums x(n) come from `sum3`.
template <class Sum3>
void rsqrt_blocks(const Call<float>& c, int from, const Sum3& sum3, const void* lo, const void* hi) {
    float* out = c.out;
    const int n = c.count - from;
    const auto addr = reinterpret_cast<std::uintptr_t>(out + from);
    // objects before the first result on a 16-byte boundary
    const int p = int(((16 - addr % 16) % 16) / 4);
    const auto ob = reinterpret_cast<std::uintptr_t>(out + from), oe = ob + std::uintptr_t(n) * 4;
    const bool apart = oe <= reinterpret_cast<std::uintptr_t>(lo) || reinterpret_cast<std::uintptr_t>(hi) <= ob;
    if (reinterpret_cast<std::uintptr_t>(c.out) % 4 != 0 || n < 4 || n < p + 4 || !apart) {
        for (int o = from; o < c.count; ++o) zel::store(out + o, root(sum3(o)));
        return;
    }
    int o = from;
    for (; o < from + p; ++o) zel::store(out + o, root(sum3(o)));
    const __m128 cut = _mm_castsi128_ps(_mm_set1_epi32(int(kRsqrtCutBits)));
    const __m128 abs = _mm_castsi128_ps(_mm_set1_epi32(0x7fffffff));
    for (; o + 4 <= c.count; o += 4) {
        const __m128 x = _mm_setr_ps(sum3(o), sum3(o + 1), sum3(o + 2), sum3(o + 3));
        __m128 y = _mm_rsqrt_ps(x);
        // |x| not at least the smallest normal (NaN included): 0
        y = _mm_and_ps(y, _mm_cmpge_ps(_mm_and_ps(x, abs), cut));
        const __m128 u = _mm_mul_ps(x, y);
        const __m128 r = _mm_mul_ps(_mm_mul_ps(u, _mm_sub_ps(_mm_mul_ps(y, u), _mm_set1_ps(3.0f))),
                                    _mm_set1_ps(-0.5f));
        _mm_store_ps(out + o, r);
    }
    for (; o < c.count; ++o) zel::store(out + o, root(sum3(o)));
}

// The byte range of the objects [from, count) of a vector operand, for the
// test that results and sources lie apart.
template <class T, Form F>
void source_span(const Opd& o, int from, int count, int len, std::uintptr_t& lo, std::uintptr_t& hi) {
    const int sz = int(sizeof(T));
    lo = ~std::uintptr_t(0);
    hi = 0;
    auto take = [&](const void* p, std::ptrdiff_t bytes) {
        const auto a = reinterpret_cast<std::uintptr_t>(p);
        if (a < lo) lo = a;
        if (a + std::uintptr_t(bytes) > hi) hi = a + std::uintptr_t(bytes);
    };
    if constexpr (F == Form::P) {
        for (int j = 0; j < len; ++j)
            take(byte_add<char>(static_cast<const void* const*>(o.p)[j], std::ptrdiff_t(o.shift) +
                                                                            std::ptrdiff_t(from) * o.s0),
                 std::ptrdiff_t(count - 1 - from) * o.s0 + sz);
    } else {
        take(byte_add<char>(o.p, std::ptrdiff_t(from) * o.s0),
             std::ptrdiff_t(count - 1 - from) * o.s0 + std::ptrdiff_t(len - 1) * o.s2 + sz);
    }
}

template <int N, Op O, Str Sig, class T, Form F, bool Unit>
zelStatus vec_fixed(const Call<T>& __restrict c) {
    using K_ = Kernel<O, Sig, T, F, Unit>;
    constexpr bool dot = O == Op::DotProduct;
    static constexpr const ShortRow& sr = find_row(kShort, K_::key);
    static constexpr Assoc own = sr.at[N - 3];
    static constexpr int br = block_index(K_::key, N);
    static constexpr Assoc blk = block_sum(br, own);
    static constexpr int rr = find_index(kRsqrt, K_::key);
    const int count = c.count;
    // results lie element size apart from pDst, which need not lie on its
    // element size: each is stored as bytes (zel::store)
    T* out = c.out;

    // The single vector of vav, read once before the object loop where the
    // kernel does so.
    constexpr bool hold = dot && !K_::arr2 && (K_::kern & (S2 | LS2 | P) || N <= 4);
    T held[N];
    if constexpr (hold) {
        const auto b = view_of<T, K_::f2, Unit>(c.src[1], 0, 0);
        for (int k = 0; k < N; ++k) held[k] = b.get(0, k);
    }
    auto terms = [&](int n, T* t) {
        const auto a = view_of<T, K_::f1, Unit>(c.src[0], n, 0);
        if constexpr (!dot) {
            for (int k = 0; k < N; ++k) {
                const T x = a.get(0, k);
                t[k] = x * x;
            }
        } else if constexpr (hold) {
            for (int k = 0; k < N; ++k) t[k] = a.get(0, k) * held[k];
        } else {
            const auto b = view_of<T, K_::f2, Unit>(c.src[1], n, 0);
            for (int k = 0; k < N; ++k) t[k] = a.get(0, k) * b.get(0, k);
        }
    };
    auto own_sum = [&](int n) {
        T t[N];
        terms(n, t);
        return sum<own, N, T>([&](int k) { return t[k]; });
    };

    if constexpr (rsqrt_len(rr) == N) {
        // finished four objects at a time from the first 16-byte boundary of pDst
        const int from = kRsqrt[rr].first_alone ? 1 : 0;
        if (from) zel::store(out + 0, root(own_sum(0)));
        if (count > from) {
            std::uintptr_t lo, hi;
            source_span<T, K_::f1>(c.src[0], from, count, N, lo, hi);
            rsqrt_blocks(c, from, own_sum, reinterpret_cast<const void*>(lo), reinterpret_cast<const void*>(hi));
        }
        return zelStsOk;
    }
    const int nb = block_objects(br, c);
    if constexpr (Unit && F != Form::P && lanes::has_reduce<O, T, N>()) {
        if (lanes::reduce<O, Sig, T, F, N, own, blk>(c, nb)) return zelStsOk;
    }
    for (int n = 0; n < count; ++n) {
        T t[N];
        terms(n, t);
        auto get = [&](int k) { return t[k]; };
        const T s = n < nb ? sum<blk, N, T>(get) : sum<own, N, T>(get);
        zel::store(out + n, dot ? s : root(s));
    }
    return zelStsOk;
}

template <Op O, Str Sig, class T, Form F, bool Unit>
zelStatus vec_kernel(const Call<T>& __restrict c) {
    using K_ = Kernel<O, Sig, T, F, Unit>;
    constexpr bool dot = O == Op::DotProduct;
    static constexpr const LongRow& lr = find_row(kLong, K_::key);
    const int K = c.len;
    switch (K) {
        case 3: return vec_fixed<3, O, Sig, T, F, Unit>(c);
        case 4: return vec_fixed<4, O, Sig, T, F, Unit>(c);
        case 5: return vec_fixed<5, O, Sig, T, F, Unit>(c);
        case 6: return vec_fixed<6, O, Sig, T, F, Unit>(c);
        default: break;
    }
    auto order_sum = [K](const void* at, const auto& t) -> T {
        if (K >= 8) return long_sum<lr.from8, T>(K, at, t);
        if (K == 7) return long_sum<lr.at7, T>(K, at, t);
        return long_sum<kSeqOrder, T>(K, at, t);
    };
    for (int n = 0; n < c.count; ++n) {
        const auto a = view_of<T, K_::f1, Unit>(c.src[0], n, 0);
        // the second source's boundary gives the leading terms (L2Norm: the source's)
        if constexpr (dot) {
            const auto b = view_of<T, K_::f2, Unit>(c.src[1], n, 0);
            zel::store(c.out + n, order_sum(b.ptr(0, 0), [&](int k) { return a.get(0, k) * b.get(0, k); }));
        } else {
            zel::store(c.out + n, root(order_sum(a.ptr(0, 0), [&](int k) {
                const T x = a.get(0, k);
                return x * x;
            })));
        }
    }
    return zelStsOk;
}

// ---------------------------------------------------------------------------
// Trace: d(i) = A(i,i), from d0 (also outside the written-out orders).
template <int N, Str Sig, class T, Form F, bool Unit>
zelStatus trace_fixed(const Call<T>& __restrict c) {
    using K_ = Kernel<Op::Trace, Sig, T, F, Unit>;
    static constexpr Assoc own = find_row(kShort, K_::key).at[N - 3];
    static constexpr int br = block_index(K_::key, N);
    static constexpr Assoc blk = block_sum(br, own);
    const int nb = block_objects(br, c);
    for (int n = 0; n < c.count; ++n) {
        const auto a = view_of<T, K_::f1, Unit>(c.src[0], n, N);
        T t[N];
        for (int i = 0; i < N; ++i) t[i] = a.get(i, i);
        auto get = [&](int k) { return t[k]; };
        zel::store(c.out + n, n < nb ? sum<blk, N, T>(get) : sum<own, N, T>(get));
    }
    return zelStsOk;
}

template <Str Sig, class T, Form F, bool Unit>
zelStatus trace_kernel(const Call<T>& __restrict c) {
    using K_ = Kernel<Op::Trace, Sig, T, F, Unit>;
    const int n = c.widthHeight;
    switch (n) {
        case 3: return trace_fixed<3, Sig, T, F, Unit>(c);
        case 4: return trace_fixed<4, Sig, T, F, Unit>(c);
        case 5: return trace_fixed<5, Sig, T, F, Unit>(c);
        case 6: return trace_fixed<6, Sig, T, F, Unit>(c);
        default: break;
    }
    for (int o = 0; o < c.count; ++o) {
        const auto a = view_of<T, K_::f1, Unit>(c.src[0], o, n);
        T s = a.get(0, 0);
        for (int i = 1; i < n; ++i) s += a.get(i, i);
        zel::store(c.out + o, s);
    }
    return zelStsOk;
}

// ---------------------------------------------------------------------------
// FrobNorm: q(k) the square of element k in row-major position.

// From width 8 on, outside the pointer form: lanes along each row.
template <class T, class V>
T frob_lanes(const V& a, int W, int H) {
    constexpr int lanes = 16 / int(sizeof(T));
    const int Wl = W / lanes * lanes;
    T acc[lanes] = {}, rest = T(0);
    for (int i = 0; i < H; ++i) {
        for (int j = 0; j < Wl; ++j) {
            const T x = a.get(i, j);
            acc[j % lanes] += x * x;
        }
        for (int j = Wl; j < W; ++j) {
            const T x = a.get(i, j);
            rest += x * x;
        }
    }
    constexpr Assoc lane_sum = lanes == 4 ? kFrobLanes32 : kFrobLanes64;
    return sum<lane_sum, lanes, T>([&](int k) { return acc[k]; }) + rest;
}

template <int N, Str Sig, class T, Form F, bool Unit, bool UnitView>
zelStatus frob_fixed(const Call<T>& __restrict c) {
    using K_ = Kernel<Op::FrobNorm, Sig, T, F, Unit>;
    static constexpr Assoc own = find_row(kFrobOrders, K_::key).at[N - 2];
    static constexpr int br = block_index(K_::key, N);
    static constexpr Assoc blk = block_sum(br, own);
    auto squares = [&](int n, T* q) {
        const auto a = view_of<T, K_::f1, UnitView>(c.src[0], n, N);
        for (int i = 0; i < N; ++i)
            for (int j = 0; j < N; ++j) {
                const T x = a.get(i, j);
                q[i * N + j] = x * x;
            }
    };
    const int nb = block_objects(br, c);
    int n = 0;
    if constexpr (UnitView && F != Form::P && lanes::has_frob<T, N>())
        n = lanes::frob<Sig, T, F, N, own, blk>(c, nb);
    for (; n < c.count; ++n) {
        T q[N * N];
        squares(n, q);
        auto get = [&](int k) { return q[k]; };
        zel::store(c.out + n, root(n < nb ? sum<blk, N * N, T>(get) : sum<own, N * N, T>(get)));
    }
    return zelStsOk;
}

// The single matrix has one kernel for all strides (the table's Std row).
template <Str Sig, class T, Form F, bool Unit>
zelStatus frob_kernel(const Call<T>& __restrict c) {
    constexpr bool single = Sig.s[1] != 'a';
    constexpr bool UnitView = Unit && !single;
    using K_ = Kernel<Op::FrobNorm, Sig, T, F, Unit>;
    static constexpr const FrobRow& fr = find_row(kFrobOrders, K_::key);
    const int W = c.width, H = c.height;
    if (W == H) {
        switch (W) {
#define ZEL_FROB_ORDER(n)                                                            \
    case n:                                                                          \
        if constexpr (!fr.at[n - 2].general) return frob_fixed<n, Sig, T, F, Unit, UnitView>(c); \
        break;
            ZEL_FROB_ORDER(2)
            ZEL_FROB_ORDER(3)
            ZEL_FROB_ORDER(4)
            ZEL_FROB_ORDER(5)
            ZEL_FROB_ORDER(6)
#undef ZEL_FROB_ORDER
            default: break;
        }
    }
    for (int o = 0; o < c.count; ++o) {
        const auto a = view_of<T, K_::f1, UnitView>(c.src[0], o, W);
        T s;
        if constexpr (fr.general != kNoChain) {
            s = chain_sum<kChains[fr.general], T>(W * H, [&](int k) {
                const T x = a.get(k / W, k % W);
                return x * x;
            });
        } else if (W >= kFrobLanesFrom) {
            s = frob_lanes<T>(a, W, H);
        } else {
            s = T(0);
            for (int i = 0; i < H; ++i)
                for (int j = 0; j < W; ++j) {
                    const T x = a.get(i, j);
                    s += x * x;
                }
        }
        zel::store(c.out + o, root(s));
    }
    return zelStsOk;
}

// ---------------------------------------------------------------------------
// CrossProduct: d0 = a1 b2 - a2 b1, d1 = a2 b0 - a0 b2, d2 = a0 b1 - a1 b0,
// each product rounded before the subtraction. A single operand's three
// elements are read once before the object loop.
template <Str Sig, class T, Form F, bool Unit>
zelStatus cross_kernel(const Call<T>& __restrict c) {
    using K_ = Kernel<Op::CrossProduct, Sig, T, F, Unit>;
    if constexpr (Unit && F != Form::P) {
        if (lanes::cross<Sig, T, F>(c)) return zelStsOk;
    }
    T ha[3], hb[3];
    if constexpr (!K_::arr1) {
        const auto a = view_of<T, K_::f1, Unit>(c.src[0], 0, 0);
        for (int k = 0; k < 3; ++k) ha[k] = a.get(0, k);
    }
    if constexpr (!K_::arr2) {
        const auto b = view_of<T, K_::f2, Unit>(c.src[1], 0, 0);
        for (int k = 0; k < 3; ++k) hb[k] = b.get(0, k);
    }
    for (int n = 0; n < c.count; ++n) {
        T x[3], y[3];
        if constexpr (K_::arr1) {
            const auto a = view_of<T, K_::f1, Unit>(c.src[0], n, 0);
            for (int k = 0; k < 3; ++k) x[k] = a.get(0, k);
        } else {
            for (int k = 0; k < 3; ++k) x[k] = ha[k];
        }
        if constexpr (K_::arr2) {
            const auto b = view_of<T, K_::f2, Unit>(c.src[1], n, 0);
            for (int k = 0; k < 3; ++k) y[k] = b.get(0, k);
        } else {
            for (int k = 0; k < 3; ++k) y[k] = hb[k];
        }
        const auto d = view_of<T, K_::fd, Unit>(c.dst[0], n, 0);
        store(d.ptr(0, 0), x[1] * y[2] - x[2] * y[1]);
        store(d.ptr(0, 1), x[2] * y[0] - x[0] * y[2]);
        store(d.ptr(0, 2), x[0] * y[1] - x[1] * y[0]);
    }
    return zelStsOk;
}

// ---------------------------------------------------------------------------
// Saxpy: a(j) val + b(j); LComb: a(j) val1 + b(j) val2. Each product is
// rounded, then added.
template <Op O, class T>
struct Combine {
    T v1, v2;
    ZEL_INLINE T operator()(T a, T b) const { return lanes(a, b, v1, v2); }
    // the same on vectors of elements
    template <class V>
    ZEL_INLINE V lanes(V a, V b, V s1, [[maybe_unused]] V s2) const {
        if constexpr (O == Op::Saxpy) return a * s1 + b;
        else return a * s1 + b * s2;
    }
};

template <Op O, Str Sig, class T, Form F, bool Unit>
zelStatus comb_kernel(const Call<T>& __restrict c) {
    using K_ = Kernel<O, Sig, T, F, Unit>;
    const Combine<O, T> f{O == Op::Saxpy ? c.val : c.val1, c.val2};
    if constexpr (Unit && F != Form::P) {
        if (lanes::combine<O, Sig, T, F>(c, f)) return zelStsOk;
    }
    const int len = c.len;
    for (int n = 0; n < c.count; ++n) {
        const auto a = view_of<T, K_::f1, Unit>(c.src[0], n, 0);
        const auto b = view_of<T, K_::f2, Unit>(c.src[1], n, 0);
        const auto d = view_of<T, K_::fd, Unit>(c.dst[0], n, 0);
        for (int j = 0; j < len; ++j) store(d.ptr(0, j), f(a.get(0, j), b.get(0, j)));
    }
    return zelStsOk;
}

// ---------------------------------------------------------------------------
template <Op O, Str Sig, class T, Form F, bool Unit>
zelStatus kernel(const Call<T>& __restrict c) {
    if constexpr (O == Op::DotProduct || O == Op::L2Norm) return vec_kernel<O, Sig, T, F, Unit>(c);
    else if constexpr (O == Op::Trace) return trace_kernel<Sig, T, F, Unit>(c);
    else if constexpr (O == Op::FrobNorm) return frob_kernel<Sig, T, F, Unit>(c);
    else if constexpr (O == Op::CrossProduct) return cross_kernel<Sig, T, F, Unit>(c);
    else return comb_kernel<O, Sig, T, F, Unit>(c);
}

// The entry of every export of the family, behind its argument tests: the
// kernel by the stride test, on the calling thread or through the fan-out
// by the work estimate.
template <Op O, Str Sig, class T, Str FS>
zelStatus entry(Call<T>& c) {
    static constexpr Operands ops = parse<Sig>();
    constexpr Form F = form_of<FS>();
    constexpr bool array = ops.any_array();
    constexpr bool reduction = O == Op::DotProduct || O == Op::L2Norm || O == Op::Trace || O == Op::FrobNorm;
    constexpr int esz = int(sizeof(T));
    constexpr std::string_view sig{Sig.s};

    bool unit = true;
    if constexpr (F != Form::P) {
        unit = c.src[0].s2 == esz;
        if constexpr (ops.n > 1) unit = unit && c.src[1].s2 == esz;
        if constexpr (!reduction) unit = unit && c.dst[0].s2 == esz;
    }
    auto run = [=](const Call<T>& s) -> zelStatus {
        // the single FrobNorm matrix has one kernel for all strides
        if constexpr (O == Op::FrobNorm && !array) return kernel<O, Sig, T, F, true>(s);
        else return unit ? kernel<O, Sig, T, F, true>(s) : kernel<O, Sig, T, F, false>(s);
    };
    if constexpr (array && has_wrapper(bit(O), sig, ty_of<T>(), F)) {
        static constexpr const LimitRow& lr = limit_row(bit(O), sig);
        const unsigned kern = F == Form::S ? (unit ? Std : S2) : F == Form::L ? (unit ? L : LS2) : P;
        const int w = O == Op::Trace ? c.widthHeight : c.width;
        if (goes_parallel(lr, kern, sizeof(T) == 8, c.len, w, c.height, c.count)) {
            FanSpec fs{};
            fs.form = F;
            fs.src_arrays = (ops.l[0].array ? 1u : 0u) | (ops.n > 1 && ops.l[1].array ? 2u : 0u);
            fs.dst_arrays = reduction ? 0u : 1u;
            fs.out_per_object = reduction ? 1 : 0;
            return fan_out(c, fs, run);
        }
    }
    return run(c);
}

}  // namespace zel::vectors
