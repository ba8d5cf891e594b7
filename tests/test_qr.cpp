// QR decomposition and back-substitution: every form against the standard
// call, R rebuilt, least squares against Eigen, rank failures, the wrapper.
#include <cmath>

#include "solvers_harness.hpp"

namespace {

using sq::Mat;
using sq::Vec;

// The standard single-object call: the reference of every form; its status.
template <class T>
zelStatus decomp(const Vec<T>& a, Vec<T>& d, int w, int h) {
    return sq::single("QRDecomp", d, w, h, false, a);
}

// The source rebuilt from a packed result: H(0) H(1) ... H(K-1) R, with
// H(k) = I + tau v v^T, tau = -2 / v^T v.
template <class T>
Mat rebuilt(const Vec<T>& p, int w, int h) {
    const Mat P = sq::to_eigen(p, h, w);
    Mat R = Mat::Zero(h, w);
    for (int i = 0; i < w; ++i)
        for (int j = i; j < w; ++j) R(i, j) = P(i, j);
    for (int k = (w == h ? w - 1 : w) - 1; k >= 0; --k) {
        Eigen::VectorXd v = Eigen::VectorXd::Zero(h);
        v(k) = 1;
        for (int i = k + 1; i < h; ++i) v(i) = P(i, k);
        R += (-2 / v.squaredNorm()) * v * (v.transpose() * R);
    }
    return R;
}

// Fixed orders, rectangles, and sizes beyond the local copy (the
// decomposition then works in the destination; columns of 16 and more sum
// d in eight).
const std::pair<int, int> kShapes[] = {{1, 1}, {1, 3}, {2, 3}, {3, 3}, {4, 4}, {5, 5}, {6, 6}, {3, 5}, {8, 8}, {9, 9}, {4, 17}, {2, 40}};

TEST(QR, EveryFormAgainstTheStandardCallAndEigen) {
    for (const auto* row : fh::exports_of({"QRDecomp", "QRBackSubst"}))
        fh::with_type(*row, [&](auto t) {
            using T = decltype(t);
            const double eps = std::numeric_limits<T>::epsilon();
            const bool dec = sq::is_decomp(*row);
            for (const auto& [w, h] : kShapes)
                for (const auto& L : sq::layouts())
                    for (int in_place = 0; in_place <= (w == h && L.k2 > 1); ++in_place) {
                        auto l = sq::laid<T>(*row, sq::kCount, w, L, h, in_place == 1);
                        const auto a = sq::random_objects(l, dec ? "Src" : "Src1", unsigned(w * 31 + h), h, w);
                        std::mt19937 g(1);
                        Vec<Vec<T>> qr, b;
                        for (const auto& m : a) qr.push_back(sq::single_ok("QRDecomp", w, h, false, m));
                        for (int n = 0; !dec && n < int(a.size()); ++n) l.set("Src1", n, qr[n]);
                        for (int n = 0; !dec && n < l.count(); ++n) l.set("Src2", n, b.emplace_back(sq::random_matrix<T>(g, 1, h)));
                        const auto at = sq::where(*row, L, w) + "x" + std::to_string(h) + (in_place ? " in place" : "");
                        ASSERT_TRUE(fh::call_matches(l, {})) << at;
                        for (int n = 0; n < l.count(); ++n) {
                            const auto got = l.get("Dst", n);
                            const int m = a.size() > 1 ? n : 0;
                            const Mat A = sq::to_eigen(a[m], h, w);
                            if (dec) {
                                ASSERT_TRUE(fh::same(got, qr[n])) << at;
                                EXPECT_LE((rebuilt(got, w, h) - A).norm(), 64 * eps * A.norm()) << at;
                                // the sign rule: R(0,0) is -alpha, alpha negative unless a(0,0) > 0
                                EXPECT_TRUE(h == 1 || (got[0] > 0) == !(a[n][0] > 0)) << at;
                                continue;
                            }
                            ASSERT_TRUE(fh::same(got, sq::single_ok("QRBackSubst", w, h, false, qr[m], b[n]))) << at;
                            const Eigen::VectorXd want = A.colPivHouseholderQr().solve(sq::to_eigen(b[n], h, 1));
                            const double c = sq::cond(A);
                            EXPECT_LE((sq::to_eigen(got, w, 1) - want).norm(), 64 * c * c * eps * (1 + want.norm())) << at;
                        }
                    }
        });
}

// A column whose squared norm x^2 + y^2 is exactly the threshold passes; one
// below it, or a column far from zero in the type's terms whose squared norm
// is below, fails.
template <class T>
void rank_threshold(T x, T y, T column) {
    Vec<T> d;
    EXPECT_EQ(decomp(Vec<T>{x, y}, d, 1, 2), zelStsOk);
    EXPECT_EQ(decomp(Vec<T>{std::nextafter(x, T(0)), y}, d, 1, 2), zelStsErrDivByZero);
    EXPECT_EQ(decomp(Vec<T>{column, column}, d, 1, 2), zelStsErrDivByZero);
}

TEST(QR, TheStrictRankThresholdAndNoTestAtOrderOne) {
    rank_threshold<float>(std::ldexp(1.0f, -12), std::ldexp(1.0f, -12), 1e-4f);  // 2^-24 + 2^-24
    rank_threshold<double>(std::ldexp(1.0, -26), 0.0, 1e-9);                     // 2^-52
    // 1x1: no reflector, no test, the element copied, even 0
    EXPECT_EQ(sq::single_ok("QRDecomp", 1, 1, false, Vec<float>{0}), Vec<float>{0});
    EXPECT_EQ(sq::single_ok("QRDecomp", 1, 1, false, Vec<double>{0}), Vec<double>{0});
}

// A rank-deficient object in the middle of an array: the ones before are
// complete, the failing one holds its finished step 0 as the standard call
// leaves it (its column 0 as the decomposition of that column alone), and the
// ones after are untouched; a zero first column leaves the copy of the source.
TEST(QR, RankDeficiencyStopsTheArrayWithTheFinishedSteps) {
    for (const auto* row : fh::exports_of({"QRDecomp"}))
        fh::with_type(*row, [&](auto t) {
            using T = decltype(t);
            for (const auto& [w, h] : {std::pair{4, 5}, std::pair{4, 4}})
                for (const auto& L : sq::layouts()) {
                    auto l = sq::laid<T>(*row, sq::kCount, w, L, h);
                    auto src = sq::random_objects(l, "Src", 7, h, w);
                    const int bad = l.count() > 1 ? sq::kBad : 0;
                    for (int i = 0; i < h; ++i) src[bad][i * w + 1] = 2 * src[bad][i * w];  // column 1 = 2 column 0
                    l.set("Src", bad, src[bad]);
                    const auto at = sq::where(*row, L, w) + "x" + std::to_string(h);
                    ASSERT_EQ(l.call(), zelStsErrDivByZero) << at;
                    for (int k = 0; k < bad; ++k)
                        EXPECT_TRUE(fh::same(l.get("Dst", k), sq::single_ok("QRDecomp", w, h, false, src[k]))) << at;
                    for (int k = bad + 1; k < l.count(); ++k)
                        for (T x : l.get("Dst", k)) ASSERT_TRUE(fh::untouched(x)) << at;
                    Vec<T> c0(h), got = l.get("Dst", bad), d;
                    for (int i = 0; i < h; ++i) c0[i] = src[bad][i * w];
                    const auto p0 = sq::single_ok("QRDecomp", 1, h, false, c0);
                    for (int i = 0; i < h; ++i) EXPECT_EQ(got[i * w], p0[i]) << at;
                    ASSERT_EQ(decomp(src[bad], d, w, h), zelStsErrDivByZero);
                    EXPECT_TRUE(fh::same(got, d)) << at;
                }
            Vec<T> z(12, T(1)), d;
            for (int i = 0; i < 4; ++i) z[i * 3] = 0;
            EXPECT_EQ(decomp(z, d, 3, 4), zelStsErrDivByZero);
            EXPECT_EQ(d, z);
        });
}

// The parallel wrapper: estimates 2 w h c (decomposition), w h + (w + h) c
// (mva), (w (h + 1) + h) c (mava) against 2801 (standard form) and 1801.
// At 2x40 the decomposition works in the destination; both use the scratch.
TEST(QR, FanOut) {
    auto reaches = [](const reg::ExportRow& r, int n, bool, int c) {
        const std::string sig = r.sig;
        return (sig == "ma" ? 2 * n * n * c : sig == "mva" ? n * n + 2 * n * c : (n * (n + 1) + n) * c) >= (*r.form == 'S' ? 2801 : 1801);
    };
    sq::fan_out<true>({"QRDecomp", "QRBackSubst"}, {1, 3, 7}, reaches, {{4, 400, 300}, {2, 80, 60, 40}}, zelStsErrDivByZero);
}

}  // namespace
