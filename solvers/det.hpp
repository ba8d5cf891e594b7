// Determinants of square matrices in every storage form. Each kernel has its
// method per fixed order (solvers/det_table.hpp): the x87 extended expansion,
// the scalar expansion in the element type, or (aligned 32f arrays of order
// 4) the scalar expansion of several matrices across SSE lanes; the orders
// 1, 2 and from 7 run the generic elimination in pBuffer. No status but 0:
// a singular matrix of the generic path gets the value 0.
#pragma once

#include <emmintrin.h>

#include <cmath>
#include <cstring>
#include <limits>
#include <string_view>
#include <type_traits>

#include "frame/fanout.hpp"
#include "solvers/det_table.hpp"
#include "solvers/lanes.hpp"
#include "solvers/minors.hpp"
#include "solvers/objects.hpp"

namespace zel::det {

// x87 80-bit extended format, the one type of the extended method.
using X = long double;
static_assert(std::numeric_limits<X>::digits == 64, "the extended method needs the x87 80-bit format");

// ---------------------------------------------------------------------------
// Extended method. Order 3 by its formulas, written out; the elements are
// widened from their memory width and the result rounded once.
template <class T, class A>
ZEL_INLINE T extended3(const A& a) {
    auto e = [&](int r, int c) { return X(a(r, c)); };
    if constexpr (sizeof(T) == 4) {
        // along row 0
        return T(((e(2, 0) * e(1, 2) - e(1, 0) * e(2, 2)) * e(0, 1) + (e(2, 1) * e(1, 0) - e(2, 0) * e(1, 1)) * e(0, 2)) +
                 (e(1, 1) * e(2, 2) - e(1, 2) * e(2, 1)) * e(0, 0));
    } else {
        // along column 0
        return T(((e(1, 2) * e(0, 1) - e(1, 1) * e(0, 2)) * e(2, 0) + (e(1, 1) * e(2, 2) - e(1, 2) * e(2, 1)) * e(0, 0)) +
                 (e(2, 1) * e(0, 2) - e(0, 1) * e(2, 2)) * e(1, 0));
    }
}

// Orders 4 to 6: the bottom chain, levels 2 .. n-2 rounded to the element
// type, level n-1 and the expansion along row 0 extended.
template <int N, class T, class A>
ZEL_INLINE T extended(const A& a) {
    if constexpr (N == 3) {
        return extended3<T>(a);
    } else {
        // each level n-1 minor goes into the sum as soon as it is formed
        constexpr unsigned all = (1u << N) - 1;
        T low[1u << N];
        minors::levels<N, N - 2, false, X>(low, a);
        X acc{};
        minors::each(std::make_index_sequence<N>{}, [&](auto J) ZEL_LAMBDA_INLINE {
            const X p = X(a(0, J)) * minors::expand<N, N - 1, all ^ (1u << J), false, X>(low, a);
            if constexpr (J == 0) acc = p;
            else if constexpr (J % 2) acc = acc - p;
            else acc = acc + p;
        });
        return T(acc);
    }
}

// Scalar method: the top chain in the element type, the last level being the
// expansion along the last row.
template <int N, class T, class A>
ZEL_INLINE T scalar(const A& a) {
    constexpr unsigned all = (1u << N) - 1;
    T top[1u << N];
    minors::levels<N, N - 1, true, T>(top, a);
    return minors::expand<N, N, all, true, T>(top, a);
}

// ---------------------------------------------------------------------------
// The scalar method of the standard and list forms, W objects at a time in
// lanes (the pairs of the aligned 32f array kernel among them): each lane
// does its own matrix's operations.
template <class E, int N, Form F, bool Unit>
struct ScalarLanes {
    using T = E;
    // objects first + lane % present: a short pack repeats its objects
    template <int W>
    static ZEL_INLINE lanes::Pack<E, W> pack(const Call<E>* c, int first, int present) {
        using P = lanes::Pack<E, W>;
        P m[N * N];
        lanes::gather<P, N, N, Unit>(m, [&](int l) { return obj<E, F, Unit>(c->src[0], first + l % present, N); });
        return scalar<N, P>([&](int r, int col) { return m[r * N + col]; });
    }
    template <int W>
    static ZEL_INLINE int run(const Call<E>* c, int count) {
        int o = 0;
        for (; o + W <= count; o += W) {
            const auto d = pack<W>(c, o, W);
            std::memcpy(c->out + o, &d.v, sizeof d.v);
        }
        return o;
    }
};

// Order 3 of the scalar method on 32f matrices stored back to back, W at a
// time by whole loads (solvers/lanes.hpp).
struct BackToBack3 {
    using T = float;
    template <int W>
    static ZEL_INLINE int run(const Call<float>* c, int count) {
        using P = lanes::Pack<float, W>;
        const float* p = static_cast<const float*>(c->src[0].p);
        int o = 0;
        for (; o + W <= count; o += W, p += 9 * W) {
            P m[9];
            lanes::load_back_to_back3<W>(p, m);
            const P d = scalar<3, P>([&](int r, int col) { return m[r * 3 + col]; });
            std::memcpy(c->out + o, &d.v, sizeof d.v);
        }
        return o;
    }
};

// ---------------------------------------------------------------------------
// Generic path, on the copy in pBuffer: elimination with one real division
// for each row; a pivot below T(n), or a last element not above it, gives 0.
template <class T, class S>
T generic(const S& src, T* buf, int n) {
    const T thr = threshold<T>(n);
    const Work<T> w{buf, n};
    for (int i = 0; i < n; ++i) {
        for (int j = 0; j < n; ++j) w.put(i, j, src.get(i, j));
        w.set_row(i, i);
    }
    T prod = T(1), sign = T(1);
    for (int k = 0; k + 1 < n; ++k) {
        const int pk = w.pivot(k, n, sign);
        const T p = w.get(pk, k);
        if (thr > std::fabs(p)) return T(0);
        for (int i = k + 1; i < n; ++i) {
            const int pi = w.row(i);
            const T f = w.get(pi, k) / p;
            for (int j = k + 1; j < n; ++j) w.put(pi, j, w.get(pi, j) - f * w.get(pk, j));
        }
        prod = prod * p;
    }
    const T l = w.get(w.row(n - 1), n - 1);
    return std::fabs(l) > thr ? prod * l * sign : T(0);
}

// ---------------------------------------------------------------------------
// The kernels.
template <class T, Form F, bool Unit, bool Array, int N>
void fixed_kernel(const Call<T>& __restrict c, int count) {
    constexpr Method method = method_of(ty_of<T>(), kern_of(Array, F, Unit), N);
    int o = 0;
    if constexpr (method == Method::Pairs && std::is_same_v<T, float>) {
        const Opd& s = c.src[0];
        auto a16 = [](std::intptr_t x) { return x % kPairAlign == 0; };
        if (a16(reinterpret_cast<std::intptr_t>(s.p)) && a16(s.s0) && a16(s.s1)) {
            o = lanes::run<ScalarLanes<T, N, F, Unit>>(&c, count);
            for (; o + 1 < count; o += 2) {
                const auto d = ScalarLanes<T, N, F, Unit>::template pack<4>(&c, o, 2);
                store(c.out + o, d.v[0]);
                store(c.out + o + 1, d.v[1]);
            }
        }
    } else if constexpr (method == Method::Scalar && Array && F != Form::P) {
        if constexpr (lanes::kBackToBack3<T, N, F, Unit>)
            if (lanes::back_to_back3(c.src[0])) o = lanes::run<BackToBack3>(&c, count);
        if (N >= kLanesFrom && count >= 2) o = lanes::run<ScalarLanes<T, N, F, Unit>>(&c, count);
    }
    for (; o < count; ++o) {
        const auto s = obj<T, F, Unit>(c.src[0], o, N);
        T m[N][N];
        for (int i = 0; i < N; ++i)
            for (int j = 0; j < N; ++j) m[i][j] = s.get(i, j);
        auto a = [&](int r, int col) { return m[r][col]; };
        T v;
        if constexpr (method == Method::Scalar) v = scalar<N, T>(a);
        else v = extended<N, T>(a);
        store(c.out + o, v);
    }
}

template <class T, Form F, bool Unit, bool Array>
zelStatus kernel(const Call<T>& c) {
    const int n = c.widthHeight, count = Array ? c.count : 1;
    switch (n) {
        case 3: fixed_kernel<T, F, Unit, Array, 3>(c, count); return zelStsOk;
        case 4: fixed_kernel<T, F, Unit, Array, 4>(c, count); return zelStsOk;
        case 5: fixed_kernel<T, F, Unit, Array, 5>(c, count); return zelStsOk;
        case 6: fixed_kernel<T, F, Unit, Array, 6>(c, count); return zelStsOk;
        default: break;
    }
    for (int o = 0; o < count; ++o) store(c.out + o, generic<T>(obj<T, F, Unit>(c.src[0], o, n), c.buf, n));
    return zelStsOk;
}

// ---------------------------------------------------------------------------
// The entry of every Det export, behind its argument tests.
template <Op O, Str Sig, class T, Str FS>
zelStatus entry(Call<T>& c) {
    constexpr Form F = form_of<FS>();
    constexpr bool array = std::string_view(Sig.s) == "ma";
    const bool unit = F == Form::P || c.src[0].s2 == int(sizeof(T));
    auto run = [=](const Call<T>& s) -> zelStatus {
        return unit ? kernel<T, F, true, array>(s) : kernel<T, F, false, array>(s);
    };
    if constexpr (!array) {
        return run(c);
    } else {
        if (estimate(c.widthHeight, c.count) < limit_of(ty_of<T>(), kern_of(true, F, unit))) return run(c);
        const std::size_t n = std::size_t(c.widthHeight);
        FanSpec fs{};
        fs.form = F;
        fs.src_arrays = 1u;
        fs.out_per_object = 1;
        fs.scratch_bytes = (n * n + n) * sizeof(T);
        return fan_out(c, fs, run);
    }
}

}  // namespace zel::det
