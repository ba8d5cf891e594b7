// Inversion: every form against A X = I and bit for bit against the
// standard call of its method; singular states; thresholds; the wrapper.
#include <emmintrin.h>

#include <cmath>
#include <limits>

#include "solvers_harness.hpp"

namespace {

using sq::Mat;
using sq::Vec;

// The method of each kernel by order, as documented: exports of one method
// agree bit for bit.
enum class Method { Generic, Scalar, Packed, Pivot };
Method method_of(const reg::ExportRow& r, bool unit, int n) {
    if (n < 3 || n > 6) return Method::Generic;
    if (fh::is64(r) || !unit || *r.form == 'P') return Method::Scalar;
    if (n >= 5) return Method::Pivot;
    return n == 3 && std::string(r.sig) == "ma" && *r.form == 'S' ? Method::Scalar : Method::Packed;
}

// The packed methods' reciprocal: the estimate and one Newton step.
float rcp_newton(float d) {
    const float r0 = _mm_cvtss_f32(_mm_rcp_ss(_mm_set_ss(d)));
    return (r0 + r0) - d * r0 * r0;
}

template <class T>
Vec<T> diagonal(int n, T x) {
    Vec<T> a(std::size_t(n) * n, T(0));
    for (int i = 0; i < n; ++i) a[std::size_t(i) * (n + 1)] = i ? T(1) : x;
    return a;
}

// Every layout, and the contiguous one shifted off 16 bytes (no pairs); no
// object singular, or object 5 zero (order 1 to 7): the ones before are
// inverted, the ones after untouched, the singular one keeps what its path
// leaves: nothing, or the working rows of the pivot methods (here the
// source's rows, for the first pivot fails). The aligned pairs of the 32f
// array kernel at order 4 test both matrices before storing either.
TEST(Invert, EveryFormAndWhatStandsAfterASingularMatrix) {
    auto layouts = sq::layouts();
    layouts.push_back(layouts[0]);
    layouts.back().lead = 1, layouts.back().label = "shifted";
    for (const auto* row : fh::exports_of({"Invert"}))
        fh::with_type(*row, [&](auto t) {
            using T = decltype(t);
            const double eps = std::numeric_limits<T>::epsilon();
            for (int n = 1; n <= 9; ++n)
                for (const auto& L : layouts)
                    for (bool singular : {false, n <= 7}) {
                        auto l = sq::laid<T>(*row, sq::kCount, n, L);
                        auto src = sq::random_objects(l, "Src", unsigned(n) + 5 * singular, n, n);
                        const int bad = singular ? (l.count() > 1 ? sq::kBad : 0) : l.count();
                        if (singular) src[bad].assign(src[bad].size(), T(0)), l.set("Src", bad, src[bad]);
                        const auto at = sq::where(*row, L, n) + (singular ? " singular" : "");
                        ASSERT_TRUE(fh::call_matches(l, {}, singular ? zelStsErrSingular : zelStsOk)) << at;
                        const Method m = method_of(*row, L.k2 == 1, n);
                        const bool paired = std::string(row->name) == "zelmInvert_ma_32f" && n == 4 && L.k2 == 1 &&
                                            fh::aligned16({&l.at("Src", 0, 0, 0), &l.at("Dst", 0, 0, 0)});
                        const int stored = singular && paired ? bad & ~1 : bad;  // the partner of a failing pair is not stored
                        for (int k = 0; k < stored; ++k) {
                            const auto got = l.get("Dst", k);
                            // the kernel with an element stride of 2: the scalar method
                            EXPECT_TRUE(fh::same(got, sq::single_ok("Invert", n, 0, m == Method::Scalar, src[k]))) << at;
                            const Mat A = sq::to_eigen(src[k], n, n);
                            EXPECT_LE((A * sq::to_eigen(got, n, n) - Mat::Identity(n, n)).norm(), 64 * n * sq::cond(A) * eps)
                                << at;
                        }
                        const int rows = m == Method::Pivot ? n - 4 : 0;
                        for (int k = stored; k < l.count(); ++k) {
                            const auto got = l.get("Dst", k);
                            for (int e = 0; e < n * n; ++e)
                                ASSERT_TRUE(k == bad && e < rows * n ? got[e] == 0 : fh::untouched(got[e]))
                                    << at << " object " << k << " element " << e;
                        }
                    }
        });
}

// diag(x, 1, ...) has the determinant x on every path. Order 1 and the
// generic path (orders 2, 7) fail at T(n) = 2 n^3 times the smallest normal
// value, the fixed orders only below it, below twice it in the contiguous
// 64f kernels of orders 3 and 4 (not in the pointer form); a failure stores
// nothing (the pivot methods of 32f orders 5 and 6 keep their working rows).
// A vanishing cofactor of the generic path comes out as T(n): the
// off-diagonal elements of the identity's inverse (at order 2 with the
// negative sign of their positions).
TEST(Invert, ThresholdsPerKernel) {
    sq::for_types([](auto t) {
        using T = decltype(t);
        const std::string type = sizeof(T) == 4 ? "32f" : "64f";
        for (int n = 1; n <= 7; ++n)
            for (int kern = 0; kern < 3; ++kern) {  // contiguous, strided, pointer form
                const bool twice = sizeof(T) == 8 && kern == 0 && (n == 3 || n == 4);
                const T thr = sq::limit_of<T>(n, 1 + twice);
                for (const T x : {thr, std::nextafter(thr, T(0))}) {
                    auto l = sq::laid<T>(fh::row_named("zelmInvert_m_" + type + (kern == 2 ? "_P" : "")), 1, n, lay::steps(kern == 1));
                    l.set("Src", 0, diagonal(n, x));
                    const bool fails = x < thr || n < 3 || n == 7;
                    std::vector<fh::Image<T>> kept;
                    if (fails && !(sizeof(T) == 4 && kern == 0 && n >= 5)) kept.emplace_back(l, "Dst");
                    EXPECT_TRUE(fh::call_matches(l, kept, fails ? zelStsErrSingular : zelStsOk))
                        << type << " kernel " << kern << " order " << n << " " << x;
                }
            }
        for (int n : {2, 7}) {
            const auto x = sq::single_ok("Invert", n, 0, false, diagonal(n, T(1)));
            for (int i = 0; i < n * n; ++i)
                EXPECT_EQ(i % (n + 1) == 0 ? x[i] : n == 2 ? -x[i] : std::fabs(x[i]), i % (n + 1) == 0 ? T(1) : sq::limit_of<T>(n)) << n;
        }
    });
}

// Orders 5 and 6 by pivot rows, with everything below the rows given zero so
// that the Schur complement (or row 1's pivot) fails: row 0 keeps its
// columns exchanged and the pivot's reciprocal in front, which shows the
// pivot column c0 (and c1 of row 1; -1: row 1 is zero and fails).
TEST(Invert, PivotColumnRules) {
    const struct {
        int n;
        Vec<float> row0, row1;
        int c0, c1;
    } cases[] = {
        {5, {1, 2, 0, -2, 0}, {}, 3, -1},  // the last of the tied columns 0 .. 3
        {5, {0, 0, 0, 3, -3}, {}, 3, -1},  // column 4 ties with 3: 3
        {5, {0, 1, 0, 0, 2}, {}, 4, -1},   // column 4 only when strictly the greatest
        {6, {0, 1, 0, 0, 2, -2}, {}, 5, -1}, {6, {2, 0, 0, 0, 0, 0}, {0, 1, 0, -1, 0.5f, 0}, 0, 3},
    };
    for (const auto* name : {"zelmInvert_m_32f", "zelmInvert_ma_32f", "zelmInvert_ma_32f_L"})
        for (const auto& cs : cases) {
            const int n = cs.n;
            auto l = sq::laid<float>(fh::row_named(name), 1, n);
            Vec<float> a(std::size_t(n) * n, 0.0f), want(a.size(), lay::sentinel<float>());
            std::copy(cs.row0.begin(), cs.row0.end(), a.begin());
            std::copy(cs.row1.begin(), cs.row1.end(), a.begin() + n);
            l.set("Src", 0, a);
            ASSERT_EQ(l.call(), zelStsErrSingular) << name;
            const auto got = l.get("Dst", 0);
            std::copy_n(a.begin(), n == 6 ? 2 * n : n, want.begin());
            for (int r = 0; r < 2; ++r)
                if (const int c = r ? cs.c1 : cs.c0; c >= 0) {
                    for (int i : {0, n}) std::swap(want[i + r], want[i + c]);
                    want[r * n + r] = rcp_newton(want[r * n + r]);
                }
            if (n == 6 && cs.c1 < 0) std::copy_n(got.begin() + n, n, want.begin() + n);  // row 1 failed: any
            EXPECT_TRUE(fh::same(got, want)) << name << " order " << n << " row 0 " << cs.row0[0];
        }
}

// The parallel wrapper (from order 2: order 1 is settled in the entry):
// estimate 2 n count against 20001, 40001 in the contiguous 32f list form;
// the wrapper's scratch in place of pBuffer; a singular object in a slice
// merged into the call's status.
TEST(Invert, FanOut) {
    sq::fan_out<true>({"Invert"}, {2, 3, 7}, sq::reaches_linear(2), {{3, 7000, 5000}, {5, 4200, 3000}, {7, 3000, 2000}}, zelStsErrSingular);
}

}  // namespace
