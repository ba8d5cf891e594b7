// QR decomposition by Householder reflections without pivoting, and the
// back-substitution that reads its packed result, in every storage form.
//
// The decomposition has one algorithm for every size; its sums and the
// threshold are in solvers/qr_table.hpp. The back-substitution has fixed
// orders 3 to 6 beside its generic path, which differ in one sum only. Every
// kernel is the one routine bound to its operand views, in an object loop.
#pragma once

#include <cmath>
#include <cstring>
#include <string_view>

#include "frame/fanout.hpp"
#include "solvers/lanes.hpp"
#include "solvers/objects.hpp"
#include "solvers/qr_table.hpp"

namespace zel::qr {

using objects::Local;
using objects::obj;
using objects::psum;

// The caller's scratch, at any alignment.
template <class T>
struct Scratch {
    T* p;
    ZEL_INLINE T get(int i) const { return load(p + i); }
    ZEL_INLINE void put(int i, T v) const { store(p + i, v); }
};
template <class T>
struct LocalVec {
    T* p;
    ZEL_INLINE T get(int i) const { return p[i]; }
    ZEL_INLINE void put(int i, T v) const { p[i] = v; }
};

// ---------------------------------------------------------------------------
// Decomposition of the matrix in `a` (already a copy of the source), with
// reflector k built in v. Returns at the first column whose squared norm is
// below the threshold, with the steps before it complete. T is the element
// type or a Pack of several objects (then any failing lane fails the pack).
template <class T, class A, class V>
ZEL_INLINE zelStatus factor(const A& a, const V& v, int h, int w) {
    using lanes::any;
    using lanes::select;
    using std::fabs;
    using std::sqrt;
    const int K = reflectors(w, h);
    ZEL_UNROLL for (int k = 0; k < K; ++k) {
        const int below = h - k - 1;  // entries of the reflector under its leading 1
        const T s = psum<T>(kColumnSum, below + 1, [&](int i) {
            const T x = a.get(k + i, k);
            return x * x;
        });
        if (any(fabs(s) < T(kRankThreshold<lanes::elem_t<T>>))) return zelStsErrDivByZero;
        const T akk = a.get(k, k);
        const T root = sqrt(s);
        const T alpha = select(akk > T(0), root, -root);
        v.put(k, T(1));
        const T r = T(1) / (akk + alpha);
        ZEL_UNROLL for (int i = k + 1; i < h; ++i) v.put(i, a.get(i, k) * r);
        const T d = T(1) + psum<T>(d_sum(below), below, [&](int i) {
                        const T x = v.get(k + 1 + i);
                        return x * x;
                    });
        const T tau = T(-2) / d;
        ZEL_UNROLL for (int j = k; j < w; ++j) {
            T t = a.get(k, j) + psum<T>(kColumnSum, below, [&](int i) { return a.get(k + 1 + i, j) * v.get(k + 1 + i); });
            t = t * tau;
            ZEL_UNROLL for (int i = k; i < h; ++i) a.put(i, j, a.get(i, j) + v.get(i) * t);
        }
        ZEL_UNROLL for (int i = k + 1; i < h; ++i) a.put(i, k, v.get(i));
    }
    return zelStsOk;
}

// One object on a local copy: read the source whole, factor, store the copy
// whole (on failure it holds what the destination would).
template <class T, int H, int W, class S, class D>
ZEL_INLINE zelStatus factor_local(const S& src, const D& dst, int h = H, int w = W) {
    T m[H ? H * W : kLocalElements];
    T v[H ? H : kLocalElements];
    const int pitch = W ? W : w;
    for (int i = 0; i < h; ++i)
        for (int j = 0; j < w; ++j) m[i * pitch + j] = src.get(i, j);
    struct Dyn {
        T* m;
        int pitch;
        ZEL_INLINE T get(int r, int c) const { return m[r * pitch + c]; }
        ZEL_INLINE void put(int r, int c, T x) const { m[r * pitch + c] = x; }
    };
    zelStatus st;
    if constexpr (W != 0) st = factor<T>(Local<T, W>{m}, LocalVec<T>{v}, H, W);
    else st = factor<T>(Dyn{m, pitch}, LocalVec<T>{v}, h, w);
    for (int i = 0; i < h; ++i)
        for (int j = 0; j < w; ++j) dst.put(i, j, m[i * pitch + j]);
    return st;
}

// Square fixed orders of the standard and list forms, W objects at a time in
// lanes: W sources read, factored together, W destinations stored. A pack
// with a failing lane stops the batches; the object loop takes over there.
template <class E, int N, Form F, bool Unit>
struct DecompLanes {
    using T = E;
    template <int W>
    static ZEL_INLINE int run(const Call<E>* c, int count) {
        using P = lanes::Pack<E, W>;
        const std::ptrdiff_t bytes = objects::extent<E>(c->src[0], N, N);
        int o = 0;
        for (; o + W <= count; o += W) {
            if (F == Form::L && !objects::list_batch_safe(c->src[0], c->dst[0], o, W, bytes, bytes)) break;
            P m[N * N], v[N];
            lanes::gather<P, N, N, Unit>(m, [&](int l) { return obj<E, F, Unit>(c->src[0], o + l, N); });
            if (factor<P>(Local<P, N>{m}, LocalVec<P>{v}, N, N) != zelStsOk) break;
            lanes::scatter<P, N, N, Unit>(m, [&](int l) { return obj<E, F, Unit>(c->dst[0], o + l, N); });
        }
        return o;
    }
};

template <class T, Form F, bool Unit, int N>
ZEL_INLINE int decomp_lanes(const Call<T>& c, int count) {
    const std::ptrdiff_t bytes = objects::extent<T>(c.src[0], N, N);
    if (F == Form::S && !objects::batch_safe(c.src[0], c.dst[0], count, bytes, bytes)) return 0;
    return lanes::run<DecompLanes<T, N, F, Unit>>(&c, count);
}

template <class T, Form F, bool Unit, bool Array>
zelStatus decomp_kernel(const Call<T>& c) {
    const int h = c.height, w = c.width;
    const int count = Array ? c.count : 1;
    int n = 0;
    if constexpr (Array && F != Form::P) {
        if (w == h && count >= 2) {
            if (w == 3) n = decomp_lanes<T, F, Unit, 3>(c, count);
            else if (w == 4) n = decomp_lanes<T, F, Unit, 4>(c, count);
            else if (w == 5) n = decomp_lanes<T, F, Unit, 5>(c, count);
            else if (w == 6) n = decomp_lanes<T, F, Unit, 6>(c, count);
        }
    }
    for (; n < count; ++n) {
        const auto src = obj<T, F, Unit>(c.src[0], n, w);
        const auto dst = obj<T, F, Unit>(c.dst[0], n, w);
        zelStatus st;
        if (w == h && w == 4) st = factor_local<T, 4, 4>(src, dst);
        else if (w == h && w == 3) st = factor_local<T, 3, 3>(src, dst);
        else if (w == h && w == 5) st = factor_local<T, 5, 5>(src, dst);
        else if (w == h && w == 6) st = factor_local<T, 6, 6>(src, dst);
        else if (h <= kLocalElements && w <= kLocalElements && h * w <= kLocalElements)
            st = factor_local<T, 0, 0>(src, dst, h, w);
        else {
            for (int i = 0; i < h; ++i)
                for (int j = 0; j < w; ++j) dst.put(i, j, src.get(i, j));
            st = factor<T>(dst, Scratch<T>{c.buf}, h, w);
        }
        if (st != zelStsOk) return st;
    }
    return zelStsOk;
}

// ---------------------------------------------------------------------------
// Back-substitution of one vector. The reflectors in ascending order on the
// working copy c of b, then R from the bottom up; each x(i) is stored at once
// and kept in c(i) for the rows above. `scale(k)` is -2/s of reflector k.
template <class T, class A, class C, class Scale>
ZEL_INLINE void reflect(const A& a, const C& c, int h, int K, Scale scale) {
    ZEL_UNROLL for (int k = 0; k < K; ++k) {
        const int below = h - k - 1;
        const T d = c.get(k) + psum<T>(solve_sum(below), below, [&](int i) { return a.get(k + 1 + i, k) * c.get(k + 1 + i); });
        const T t = scale(k) * d;
        c.put(k, c.get(k) + t);
        ZEL_UNROLL for (int i = k + 1; i < h; ++i) c.put(i, c.get(i) + a.get(i, k) * t);
    }
}
template <class T, class A, class C, class X>
ZEL_INLINE void back_subst(const A& a, const C& c, const X& x, int w) {
    ZEL_UNROLL for (int i = w - 1; i >= 0; --i) {
        const int right = w - 1 - i;
        const T s = psum<T>(solve_sum(right), right, [&](int j) { return a.get(i, i + 1 + j) * c.get(i + 1 + j); });
        const T xi = right ? (c.get(i) - s) / a.get(i, i) : c.get(i) / a.get(i, i);
        x.put(0, i, xi);
        c.put(i, xi);
    }
}

// The generic path's scale: 1.0 plus the sum of the squares.
template <class T, class A>
ZEL_INLINE T generic_scale(const A& a, int h, int k) {
    const int below = h - k - 1;
    const T s = T(1) + psum<T>(solve_sum(below), below, [&](int i) {
                    const T x = a.get(k + 1 + i, k);
                    return x * x;
                });
    return T(-2) / s;
}
// The fixed orders' scale: the first square ahead of 1.0.
template <class T, int N>
ZEL_INLINE void fixed_scales(const T* a, T* scale) {
    ZEL_UNROLL for (int k = 0; k < N - 1; ++k) {
        T s = a[(k + 1) * N + k] * a[(k + 1) * N + k] + T(1);
        ZEL_UNROLL for (int i = k + 2; i < N; ++i) s += a[i * N + k] * a[i * N + k];
        scale[k] = T(-2) / s;
    }
}

template <class T, int N, class A>
ZEL_INLINE void load_square(const A& a, T* m) {
    for (int i = 0; i < N; ++i)
        for (int j = 0; j < N; ++j) m[i * N + j] = a.get(i, j);
}

// Fixed orders: matrix, b and the scales in local storage; in lanes, W
// vectors (and matrices, mava) at a time from object `first` on.
template <class P>
struct LaneOut {
    P* x;
    ZEL_INLINE void put(int, int i, P v) const { x[i] = v; }
};
template <class E, int N, Form FA, Form FV, bool Unit, bool ArrayA>
struct SolveLanes {
    using T = E;
    template <int W>
    static ZEL_INLINE int run(const Call<E>* c, int count) {
        using P = lanes::Pack<E, W>;
        E m1[N * N], s1[N - 1];
        if constexpr (!ArrayA) {
            load_square<E, N>(obj<E, FA, Unit>(c->src[0], 0, N), m1);
            fixed_scales<E, N>(m1, s1);
        }
        const std::ptrdiff_t mb = objects::extent<E>(c->src[0], N, N), vb = objects::extent<E>(c->src[1], 1, N);
        int o = 0;
        for (; o + W <= count; o += W) {
            if (FV == Form::L && (!objects::list_batch_safe(c->src[1], c->dst[0], o, W, vb, vb) ||
                                  (ArrayA && !objects::list_batch_safe(c->src[0], c->dst[0], o, W, mb, vb))))
                break;
            P m[N * N], scale[N - 1], v[N], x[N];
            lanes::gather<P, 1, N, Unit>(v, [&](int l) { return obj<E, FV, Unit>(c->src[1], o + l, 0); });
            if constexpr (ArrayA) {
                lanes::gather<P, N, N, Unit>(m, [&](int l) { return obj<E, FA, Unit>(c->src[0], o + l, N); });
                fixed_scales<P, N>(m, scale);
            } else {
                _Pragma("GCC unroll 64") for (int i = 0; i < N * N; ++i) m[i] = P(m1[i]);
                ZEL_UNROLL for (int k = 0; k < N - 1; ++k) scale[k] = P(s1[k]);
            }
            const Local<P, N> a{m};
            reflect<P>(a, LocalVec<P>{v}, N, N - 1, [&](int k) { return scale[k]; });
            back_subst<P>(a, LocalVec<P>{v}, LaneOut<P>{x}, N);
            lanes::scatter<P, 1, N, Unit>(x, [&](int l) { return obj<E, FV, Unit>(c->dst[0], o + l, 0); });
        }
        return o;
    }
};

template <class T, int N, Form FA, Form FV, bool Unit, bool ArrayA>
void solve_fixed(const Call<T>& c, int count) {
    int n = 0;
    if constexpr (FV != Form::P) {
        bool apart = true;
        if constexpr (FV == Form::S) {
            const std::ptrdiff_t mb = objects::extent<T>(c.src[0], N, N), vb = objects::extent<T>(c.src[1], 1, N);
            apart = objects::batch_safe(c.src[1], c.dst[0], count, vb, vb) &&
                    (!ArrayA || objects::batch_safe(c.src[0], c.dst[0], count, mb, vb));
        }
        if (apart && count >= 2) n = lanes::run<SolveLanes<T, N, FA, FV, Unit, ArrayA>>(&c, count);
    }
    if (n == count) return;
    T m[N * N], scale[N - 1];
    if constexpr (!ArrayA) {
        load_square<T, N>(obj<T, FA, Unit>(c.src[0], 0, N), m);
        fixed_scales<T, N>(m, scale);
    }
    for (; n < count; ++n) {
        if constexpr (ArrayA) {
            load_square<T, N>(obj<T, FA, Unit>(c.src[0], n, N), m);
            fixed_scales<T, N>(m, scale);
        }
        const auto b = obj<T, FV, Unit>(c.src[1], n, 0);
        T v[N];
        for (int i = 0; i < N; ++i) v[i] = b.get(0, i);
        const Local<T, N> a{m};
        const LocalVec<T> cv{v};
        reflect<T>(a, cv, N, N - 1, [&](int k) { return scale[k]; });
        back_subst<T>(a, cv, obj<T, FV, Unit>(c.dst[0], n, 0), N);
    }
}

template <class T, Form FA, Form FV, bool Unit, bool ArrayA, bool Single>
void solve_generic(const Call<T>& c, int count) {
    const int h = c.height, w = c.width, K = reflectors(w, h);
    const Scratch<T> cv{c.buf};
    for (int n = 0; n < count; ++n) {
        const auto a = obj<T, FA, Unit>(c.src[0], n, w);
        const auto b = obj<T, FV, Unit>(c.src[1], n, 0);
        // The standard-form mv kernel copies a long b as a block where the
        // buffer lies apart from it.
        const char* bp = reinterpret_cast<const char*>(b.ptr(0, 0));
        const char* cp = reinterpret_cast<const char*>(c.buf);
        const std::size_t bytes = std::size_t(h) * sizeof(T);
        if (Single && Unit && FV == Form::S && h > kBlockCopyAbove<T> && (bp + bytes <= cp || cp + bytes <= bp))
            std::memcpy(c.buf, bp, bytes);
        else
            for (int i = 0; i < h; ++i) cv.put(i, b.get(0, i));
        reflect<T>(a, cv, h, K, [&](int k) { return generic_scale<T>(a, h, k); });
        back_subst<T>(a, cv, obj<T, FV, Unit>(c.dst[0], n, 0), w);
    }
}

template <class T, Form F, bool Unit, bool ArrayA, bool ArrayV>
zelStatus solve_kernel(const Call<T>& c) {
    constexpr Form fa = operand_form(F, ArrayA), fv = operand_form(F, ArrayV);
    const int count = ArrayV ? c.count : 1;
    if (fixed_order(c.width, c.height)) {
        switch (c.width) {
            case 3: solve_fixed<T, 3, fa, fv, Unit, ArrayA>(c, count); break;
            case 4: solve_fixed<T, 4, fa, fv, Unit, ArrayA>(c, count); break;
            case 5: solve_fixed<T, 5, fa, fv, Unit, ArrayA>(c, count); break;
            default: solve_fixed<T, 6, fa, fv, Unit, ArrayA>(c, count); break;
        }
    } else {
        solve_generic<T, fa, fv, Unit, ArrayA, !ArrayV>(c, count);
    }
    return zelStsOk;
}

// ---------------------------------------------------------------------------
// The entry of every QR export, behind its argument tests: the kernel by the
// stride test, on the calling thread or through the fan-out by the estimate.
template <Op O, Str Sig, class T, Str FS>
zelStatus entry(Call<T>& c) {
    constexpr Form F = form_of<FS>();
    constexpr std::string_view sig{Sig.s};
    constexpr bool decomp = O == Op::QRDecomp;
    constexpr bool array = sig != "m" && sig != "mv";
    constexpr bool array_a = sig == "ma" || sig == "mava";
    constexpr int esz = int(sizeof(T));

    bool unit = true;
    if constexpr (F != Form::P) {
        unit = c.src[0].s2 == esz && c.dst[0].s2 == esz;
        if constexpr (!decomp) unit = unit && c.src[1].s2 == esz;
    }
    auto run = [unit](const Call<T>& s) -> zelStatus {
        if constexpr (decomp)
            return unit ? decomp_kernel<T, F, true, array>(s) : decomp_kernel<T, F, false, array>(s);
        else
            return unit ? solve_kernel<T, F, true, array_a, array>(s) : solve_kernel<T, F, false, array_a, array>(s);
    };
    if constexpr (!array) {
        return run(c);
    } else {
        FanSpec fs{};
        fs.form = F;
        fs.dst_arrays = 1u;
        fs.src_arrays = decomp ? 1u : array_a ? 3u : 2u;
        fs.scratch_bytes = std::size_t(c.height) * sizeof(T);
        fs.merge_status = decomp;
        const std::int32_t work = decomp ? decomp_estimate(c.width, c.height, c.count)
                                         : solve_estimate(!array_a, c.width, c.height, c.count);
        if (work >= limit_of(F)) return fan_out(c, fs, run);
        return run(c);
    }
}

}  // namespace zel::qr
