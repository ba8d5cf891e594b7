// Inversion: every export in every form at the orders 1 to 9 against A X = I
// and bit for bit against the standard call of the same method, the worked
// examples, the thresholds per kernel, what stands in the destination after
// a singular matrix on each path (the pivot column rules of the orders 5 and
// 6 among them), and the parallel wrapper.
#include <emmintrin.h>

#include <cmath>
#include <limits>
#include <vector>

#include "square_harness.hpp"

namespace {

using sq::Mat;

// The method of each kernel by order, as documented: exports of one method
// agree bit for bit.
enum class Method { Generic, Scalar, Packed, Pivot };
Method method_of(const reg::ExportRow& r, bool unit, int n) {
    if (n < 3 || n > 6) return Method::Generic;
    if (fh::is64(r) || !unit || *r.form == 'P') return Method::Scalar;
    if (n >= 5) return Method::Pivot;
    const bool array_kernel = std::string(r.sig) == "ma" && *r.form == 'S';
    return n == 3 && array_kernel ? Method::Scalar : Method::Packed;
}

// The single standard call, contiguous or with an element stride of 2 (the
// kernel with S2: the scalar method), on a dense matrix.
template <class T>
zelStatus invert(const T* a, T* d, int n, bool strided) {
    const int k = strided ? 2 : 1, e = int(sizeof(T));
    std::vector<T> s(std::size_t(n) * n * k), x(s.size()), buf(std::size_t(n) * n + n);
    for (int i = 0; i < n * n; ++i) s[std::size_t(i) * k] = a[i], x[std::size_t(i) * k] = d[i];
    zelStatus st;
    if constexpr (sizeof(T) == 4) st = zelmInvert_m_32f(s.data(), n * k * e, k * e, buf.data(), x.data(), n * k * e, k * e, n);
    else st = zelmInvert_m_64f(s.data(), n * k * e, k * e, buf.data(), x.data(), n * k * e, k * e, n);
    for (int i = 0; i < n * n; ++i) d[i] = x[std::size_t(i) * k];
    return st;
}
template <class T>
std::vector<T> inverted(const std::vector<T>& a, int n, bool strided = false) {
    std::vector<T> d(a.size());
    EXPECT_EQ(invert(a.data(), d.data(), n, strided), zelStsOk);
    return d;
}
template <class T>
T T_of(int n, int times = 1) {
    return T(2 * n * n * n * times) * std::numeric_limits<T>::min();
}
float rcp_newton(float d) {
    const float r0 = _mm_cvtss_f32(_mm_rcp_ss(_mm_set_ss(d)));
    return (r0 + r0) - d * r0 * r0;
}

template <class T>
fh::Laid<T> laid(const reg::ExportRow& row, int count, int n, const lay::Layout& L = {}) {
    fh::Laid<T> l(row, count, {{"Src", {n, n}}, {"Dst", {n, n}}}, {{"pBuffer", n * n + n}}, L);
    l.num("widthHeight", n);
    return l;
}

TEST(Invert, EveryFormTimesTheSourceIsTheIdentity) {
    for (const auto* row : fh::exports_of({"Invert"}))
        fh::with_type(*row, [&](auto t) {
            using T = decltype(t);
            for (int n = 1; n <= 9; ++n)
                for (const auto& L : sq::layouts()) {
                    auto l = laid<T>(*row, sq::kCount, n, L);
                    std::mt19937 g{unsigned(n)};
                    std::vector<std::vector<T>> src;
                    for (int k = 0; k < l.count(); ++k) l.set("Src", k, src.emplace_back(sq::random_matrix<T>(g, n, n)));
                    const auto at = sq::where(*row, L, n);
                    ASSERT_EQ(l.call(), zelStsOk) << at;
                    EXPECT_TRUE(l.guards_intact()) << at;
                    const bool unit = L.k2 == 1;
                    const Method m = method_of(*row, unit, n);
                    for (int k = 0; k < l.count(); ++k) {
                        const auto got = l.get("Dst", k);
                        EXPECT_TRUE(sq::same_bits(got, inverted(src[k], n, m == Method::Scalar))) << at;
                        const Mat A = sq::to_eigen(src[k], n, n);
                        const Eigen::JacobiSVD<Mat> svd(A);
                        const double cond = svd.singularValues()(0) / svd.singularValues()(n - 1);
                        EXPECT_LE((A * sq::to_eigen(got, n, n) - Mat::Identity(n, n)).norm(), 64 * n * cond * sq::eps<T>())
                            << at;
                    }
                }
        });
}

template <class T>
void worked_examples() {
    // a vanishing cofactor of the generic path comes out as T(n), not 0: the
    // off-diagonal elements of the identity's inverse (at order 2 with the
    // negative sign of their positions)
    for (int n : {2, 7}) {
        std::vector<T> id(std::size_t(n) * n, T(0));
        for (int i = 0; i < n; ++i) id[std::size_t(i) * (n + 1)] = 1;
        const auto x = inverted(id, n);
        for (int i = 0; i < n; ++i)
            for (int j = 0; j < n; ++j) {
                const T v = x[std::size_t(i) * n + j];
                EXPECT_EQ(i == j ? v : n == 2 ? -v : std::fabs(v), i == j ? T(1) : T_of<T>(n)) << n;
            }
    }
    // order 1: the element must be above T(1)
    std::vector<T> a{T_of<T>(1)}, d{T(7)};
    EXPECT_EQ(invert(a.data(), d.data(), 1, false), zelStsErrSingular);
    EXPECT_EQ(d[0], T(7));
    a[0] = -4;
    EXPECT_EQ(inverted(a, 1), std::vector<T>{T(-0.25)});
}
TEST(Invert, WorkedExamples) {
    EXPECT_EQ(T_of<float>(2), 1.88079096131566e-37f);
    EXPECT_EQ(T_of<double>(7), 686 * std::ldexp(1.0, -1022));
    worked_examples<float>();
    worked_examples<double>();
}

// diag(x, 1, ...) has determinant x on every path.
template <class T>
std::vector<T> diagonal(int n, T x) {
    std::vector<T> a(std::size_t(n) * n, T(0));
    for (int i = 0; i < n; ++i) a[std::size_t(i) * (n + 1)] = i ? T(1) : x;
    return a;
}
TEST(Invert, ThresholdPerKernel) {
    std::vector<double> d(16);
    // 64f orders 3 and 4: contiguous kernels use twice the formula
    for (int n : {3, 4}) {
        const auto a = diagonal(n, T_of<double>(n, 2) * 0.75);
        EXPECT_EQ(invert(a.data(), d.data(), n, false), zelStsErrSingular) << n;
        EXPECT_EQ(invert(a.data(), d.data(), n, true), zelStsOk) << n;
        fh::Laid<double> l(fh::row_named("zelmInvert_m_64f_P"), 1, {{"Src", {n, n}}, {"Dst", {n, n}}}, {{"pBuffer", n * n + n}});
        l.num("widthHeight", n);
        l.set("Src", 0, a);
        EXPECT_EQ(l.call(), zelStsOk) << n;
    }
    // the fixed orders pass a determinant equal to T, the generic path fails it
    std::vector<float> f(64);
    for (int n = 2; n <= 7; ++n) {
        const auto a = diagonal(n, T_of<float>(n));
        for (bool strided : {false, true})
            EXPECT_EQ(invert(a.data(), f.data(), n, strided), n == 2 || n == 7 ? zelStsErrSingular : zelStsOk) << n;
        const auto b = diagonal(n, std::nextafter(T_of<float>(n), 0.0f));
        EXPECT_EQ(invert(b.data(), f.data(), n, false), zelStsErrSingular) << n;
    }
}

// A singular object in the middle of an array: the ones before are inverted,
// the ones after untouched; the singular one keeps what its path leaves: nothing,
// or the working rows of the pivot methods (here the source's rows, for the
// first pivot fails).
TEST(Invert, SingularStopsTheArrayAndLeavesWhatThePathSays) {
    for (const auto* row : fh::exports_of({"Invert"}))
        fh::with_type(*row, [&](auto t) {
            using T = decltype(t);
            for (int n = 1; n <= 7; ++n)
                for (const auto& L : sq::layouts()) {
                    auto l = laid<T>(*row, sq::kCount, n, L);
                    std::mt19937 g(unsigned(n) + 5);
                    std::vector<std::vector<T>> src;
                    for (int k = 0; k < l.count(); ++k) src.push_back(sq::random_matrix<T>(g, n, n));
                    const int bad = l.count() > 1 ? sq::kBad : 0;
                    std::fill(src[bad].begin(), src[bad].end(), T(0));
                    for (int k = 0; k < l.count(); ++k) l.set("Src", k, src[k]);
                    const auto at = sq::where(*row, L, n);
                    ASSERT_EQ(l.call(), zelStsErrSingular) << at;
                    const Method m = method_of(*row, L.k2 == 1, n);
                    // the aligned pairs: the regular object before shares the failing pair
                    const bool paired = std::string(row->name) == "zelmInvert_ma_32f" && n == 4 && L.k2 == 1 &&
                                        reinterpret_cast<std::uintptr_t>(&l.at("Src", 0, 0, 0)) % 16 == 0 &&
                                        reinterpret_cast<std::uintptr_t>(&l.at("Dst", 0, 0, 0)) % 16 == 0;
                    const int stored = paired ? bad & ~1 : bad;
                    for (int k = 0; k < stored; ++k)
                        EXPECT_TRUE(sq::same_bits(l.get("Dst", k), inverted(src[k], n, m == Method::Scalar))) << at;
                    const int rows = m == Method::Pivot ? n - 4 : 0;
                    for (int k = stored; k < l.count(); ++k) {
                        const auto got = l.get("Dst", k);
                        for (int e = 0; e < n * n; ++e)
                            ASSERT_TRUE(k == bad && e < rows * n ? got[e] == 0 : fh::Laid<T>::same(got[e], lay::sentinel<T>()))
                                << at << " object " << k << " element " << e;
                    }
                }
        });
}

// The aligned pairs of the contiguous 32f array kernel at order 4 test both
// matrices before storing either.
TEST(Invert, AlignedPairsStoreBothOrNeither) {
    const auto& row = fh::row_named("zelmInvert_ma_32f");
    for (int count : {1, 2})
        for (int lead : {0, 1}) {
            lay::Layout L;
            L.lead = lead;
            auto l = laid<float>(row, count, 4, L);
            std::mt19937 g(2);
            const auto a = sq::random_matrix<float>(g, 4, 4);
            l.set("Src", 0, a);
            if (count == 2) l.set("Src", 1, std::vector<float>(16, 0.0f));
            ASSERT_EQ(l.call(), count == 2 ? zelStsErrSingular : zelStsOk);
            const bool aligned = reinterpret_cast<std::uintptr_t>(&l.at("Src", 0, 0, 0)) % 16 == 0 &&
                                 reinterpret_cast<std::uintptr_t>(&l.at("Dst", 0, 0, 0)) % 16 == 0;
            const bool stored = count == 1 || !aligned;
            EXPECT_EQ(sq::same_bits(l.get("Dst", 0), inverted(a, 4)), stored) << count << " " << lead;
        }
}

// Orders 5 and 6 by pivot rows, with everything below the rows named zero so
// that the Schur complement (or row 1's pivot) fails: row 0 keeps its
// columns exchanged and the pivot's reciprocal in front, which shows the
// pivot column. A row with ties, and the column it must take.
TEST(Invert, PivotColumnRules) {
    struct Case {
        int n;
        std::vector<float> row0, row1;
        int c0, c1;  // expected pivot columns (c1 -1: row 1 is zero and fails)
    };
    const Case cases[] = {
        {5, {1, 2, 0, -2, 0}, {}, 3, -1},  // the last of the tied columns 0 .. 3
        {5, {0, 0, 0, 3, -3}, {}, 3, -1},  // column 4 ties with 3: 3
        {5, {0, 1, 0, 0, 2}, {}, 4, -1},   // column 4 only when strictly the greatest
        {6, {0, 1, 0, 0, 2, -2}, {}, 5, -1},
        {6, {2, 0, 0, 0, 0, 0}, {0, 1, 0, -1, 0.5f, 0}, 0, 3},
    };
    for (const auto* name : {"zelmInvert_m_32f", "zelmInvert_ma_32f", "zelmInvert_ma_32f_L"})
        for (const auto& cs : cases) {
            const int n = cs.n;
            auto l = laid<float>(fh::row_named(name), 1, n);
            std::vector<float> a(std::size_t(n) * n, 0.0f);
            std::copy(cs.row0.begin(), cs.row0.end(), a.begin());
            std::copy(cs.row1.begin(), cs.row1.end(), a.begin() + n);
            l.set("Src", 0, a);
            ASSERT_EQ(l.call(), zelStsErrSingular) << name;
            std::vector<float> r0 = cs.row0, r1 = cs.row1;
            std::swap(r0[0], r0[cs.c0]);
            r0[0] = rcp_newton(r0[0]);
            if (cs.c1 > 0) {
                std::swap(r0[1], r0[cs.c1]);
                std::swap(r1[1], r1[cs.c1]);
                r1[1] = rcp_newton(r1[1]);
            }
            const auto got = l.get("Dst", 0);
            for (int j = 0; j < n; ++j) {
                EXPECT_EQ(got[j], r0[j]) << name << " order " << n << " column " << j;
                if (cs.c1 > 0) {
                    EXPECT_EQ(got[n + j], r1[j]) << name << " order " << n << " column " << j;
                }
            }
            for (int e = (n - 4) * n; e < n * n; ++e) EXPECT_TRUE(fh::Laid<float>::same(got[e], lay::sentinel<float>()));
        }
}

// ---------------------------------------------------------------------------
// The parallel wrapper: estimate 2 n count against 20001, 40001 in the
// contiguous 32f list form; the wrapper's scratch in place of pBuffer.
using sq::Boundary;
const Boundary kBoundaries[] = {
    {"zelmInvert_ma_32f", 4, 2500, 2501, false},   {"zelmInvert_ma_64f", 4, 2500, 2501, true},
    {"zelmInvert_ma_32f_L", 4, 5000, 5001, false}, {"zelmInvert_ma_32f_L", 4, 2500, 2501, true},
    {"zelmInvert_ma_64f_P", 7, 1428, 1429, false},
};

TEST(Invert, FanOut) {
    for (const auto& b : kBoundaries)
        fh::with_type(fh::row_named(b.name), [&](auto t) {
            using T = decltype(t);
            lay::Layout L;
            L.k2 = L.dst_k2 = b.strided ? 2 : 1;
            auto filled = [&](int count) {
                auto l = laid<T>(fh::row_named(b.name), count, b.n, L);
                std::mt19937 g(4);
                for (int k = 0; k < count; ++k) l.set("Src", k, sq::random_matrix<T>(g, b.n, b.n));
                return l;
            };
            sq::fan_out_checks<T>(b.name, b.below, b.at, b.at + 1, filled, [](fh::Laid<T>& l) { return sq::all_of(l); });
            // a singular object in a slice: merged into the call's status
            auto l = filled(b.at + 1);
            l.set("Src", b.at - 1, std::vector<T>(std::size_t(b.n) * b.n, T(0)));
            subst::Scope scope(4);
            EXPECT_EQ(l.call(), zelStsErrSingular) << b.name;
        });
}

}  // namespace
