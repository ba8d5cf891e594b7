// Determinants of square matrices in every storage form. Each kernel has its
// method per fixed order (solvers/det_table.hpp): the x87 extended expansion,
// the scalar expansion in the element type, or (aligned 32f arrays of order
// 4) the scalar expansion of several matrices across SSE lanes; the orders
// 1, 2 and from 7 run the generic elimination in pBuffer. No status but 0:
// a singular matrix of the generic path gets the value 0.
#pragma once

#include <emmintrin.h>

#include <cmath>
#include <limits>
#include <string_view>
#include <type_traits>

#include "frame/fanout.hpp"
#include "solvers/det_table.hpp"
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
        constexpr unsigned all = (1u << N) - 1;
        T low[1u << N];
        X high[1u << N];
        minors::levels<N, N - 2, false, X>(low, a);
        minors::each(std::make_index_sequence<N>{}, [&](auto J) {
            constexpr unsigned m = all ^ (1u << J);
            high[m] = minors::expand<N, N - 1, m, false, X>(low, a);
        });
        return T(minors::expand<N, N, all, false, X>(high, a));
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
// The scalar method across four lanes, one matrix per lane: each lane does
// its own matrix's operations.
struct Lanes {
    __m128 v;
    ZEL_INLINE Lanes() = default;
    ZEL_INLINE explicit Lanes(__m128 x) : v(x) {}
    friend ZEL_INLINE Lanes operator*(Lanes a, Lanes b) { return Lanes(_mm_mul_ps(a.v, b.v)); }
    friend ZEL_INLINE Lanes operator+(Lanes a, Lanes b) { return Lanes(_mm_add_ps(a.v, b.v)); }
    friend ZEL_INLINE Lanes operator-(Lanes a, Lanes b) { return Lanes(_mm_sub_ps(a.v, b.v)); }
};

// Order 4 of up to four matrices with 16-byte aligned rows; the lanes of
// absent matrices compute on zeros.
ZEL_INLINE __m128 scalar4_lanes(const char* const (&m)[4], std::ptrdiff_t s1, int present) {
    Lanes e[4][4];
    for (int r = 0; r < 4; ++r) {
        __m128 x[4];
        for (int k = 0; k < 4; ++k)
            x[k] = k < present ? _mm_load_ps(reinterpret_cast<const float*>(m[k] + s1 * r)) : _mm_setzero_ps();
        _MM_TRANSPOSE4_PS(x[0], x[1], x[2], x[3]);
        for (int c = 0; c < 4; ++c) e[r][c] = Lanes(x[c]);
    }
    return scalar<4, Lanes>([&](int r, int c) { return e[r][c]; }).v;
}

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
void fixed_kernel(const Call<T>& c, int count) {
    constexpr Method method = method_of(ty_of<T>(), kern_of(Array, F, Unit), N);
    int o = 0;
    if constexpr (method == Method::Pairs && std::is_same_v<T, float>) {
        const Opd& s = c.src[0];
        auto a16 = [](std::intptr_t x) { return x % kPairAlign == 0; };
        if (a16(reinterpret_cast<std::intptr_t>(s.p)) && a16(s.s0) && a16(s.s1)) {
            const char* base = static_cast<const char*>(s.p);
            auto at = [&](int k) { return base + std::ptrdiff_t(k) * s.s0; };
            for (; o + 1 < count; o += 4) {
                const int present = count - o >= 4 ? 4 : 2;
                const char* const m[4] = {at(o), at(o + 1), present > 2 ? at(o + 2) : nullptr,
                                          present > 2 ? at(o + 3) : nullptr};
                alignas(16) float r[4];
                _mm_store_ps(r, scalar4_lanes(m, s.s1, present));
                for (int k = 0; k < present; ++k) store(c.out + o + k, r[k]);
                if (present == 2) {
                    o += 2;
                    break;
                }
            }
        }
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
    auto run = [unit](const Call<T>& s) -> zelStatus {
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
