// QR decomposition and back-substitution: every export in every form against
// the standard call bit for bit, the source rebuilt from the reflectors and R,
// least squares against LAPACK's gels, the worked examples, the strict
// threshold on the squared norm, what stands after a rank-deficient column,
// in-place use, and the parallel wrapper (thresholds, threads, a failing
// allocation).
#include <cmath>
#include <vector>

#include "square_harness.hpp"

#ifdef ZELM_HAVE_LAPACKE
#include <lapacke.h>
#endif

namespace {

using sq::Mat;

// The standard single-object calls, dense: the reference of every form.
zelStatus decomp(const float* a, float* buf, float* d, int w, int h) {
    return zelmQRDecomp_m_32f(a, 4 * w, 4, buf, d, 4 * w, 4, w, h);
}
zelStatus decomp(const double* a, double* buf, double* d, int w, int h) {
    return zelmQRDecomp_m_64f(a, 8 * w, 8, buf, d, 8 * w, 8, w, h);
}
zelStatus solve(const float* qr, float* buf, const float* b, float* x, int w, int h) {
    return zelmQRBackSubst_mv_32f(qr, 4 * w, 4, buf, b, 4, x, 4, w, h);
}
zelStatus solve(const double* qr, double* buf, const double* b, double* x, int w, int h) {
    return zelmQRBackSubst_mv_64f(qr, 8 * w, 8, buf, b, 8, x, 8, w, h);
}
template <class T>
std::vector<T> decomposed(const std::vector<T>& a, int w, int h) {
    std::vector<T> d(a.size()), buf(h);
    EXPECT_EQ(decomp(a.data(), buf.data(), d.data(), w, h), zelStsOk);
    return d;
}

// The source rebuilt from a packed result: H(0) H(1) ... H(K-1) R, with
// H(k) = I + tau v v^T, tau = -2 / v^T v.
template <class T>
Mat rebuilt(const std::vector<T>& p, int w, int h) {
    const Mat P = sq::to_eigen(p, h, w);
    Mat R = Mat::Zero(h, w);
    for (int i = 0; i < w; ++i)
        for (int j = i; j < w; ++j) R(i, j) = P(i, j);
    const int K = w == h ? w - 1 : w;
    for (int k = K - 1; k >= 0; --k) {
        Eigen::VectorXd v = Eigen::VectorXd::Zero(h);
        v(k) = 1;
        for (int i = k + 1; i < h; ++i) v(i) = P(i, k);
        R += (-2 / v.squaredNorm()) * v * (v.transpose() * R);
    }
    return R;
}

// The least-squares solution, in double.
Eigen::VectorXd least_squares(const Mat& A, const Eigen::VectorXd& b) {
#ifdef ZELM_HAVE_LAPACKE
    Eigen::Matrix<double, -1, -1, Eigen::RowMajor> a = A;
    Eigen::VectorXd x = b;
    EXPECT_EQ(LAPACKE_dgels(LAPACK_ROW_MAJOR, 'N', int(A.rows()), int(A.cols()), 1, a.data(), int(A.cols()), x.data(), 1), 0);
    return x.head(A.cols());
#else
    return A.colPivHouseholderQr().solve(b);
#endif
}

struct Shape {
    int w, h;
};
// Fixed orders, rectangles, and sizes beyond the local copy (the
// decomposition then works in the destination; columns of 16 and more sum
// d in eight).
const Shape kShapes[] = {{1, 1}, {1, 3}, {2, 3}, {3, 3}, {4, 4}, {5, 5}, {6, 6}, {3, 5}, {8, 8}, {9, 9}, {4, 17}, {2, 40}};

TEST(QR, DecompositionInEveryFormRebuildsTheSource) {
    for (const auto* row : fh::exports_of({"QRDecomp"}))
        fh::with_type(*row, [&](auto t) {
            using T = decltype(t);
            for (const auto& s : kShapes)
                for (const auto& L : sq::layouts()) {
                    fh::Laid<T> l(*row, sq::kCount, {{"Src", {s.h, s.w}}, {"Dst", {s.h, s.w}}}, {{"pBuffer", s.h}}, L);
                    l.num("width", s.w);
                    l.num("height", s.h);
                    std::mt19937 g(unsigned(s.w * 31 + s.h));
                    std::vector<std::vector<T>> src;
                    for (int n = 0; n < l.count(); ++n) l.set("Src", n, src.emplace_back(sq::random_matrix<T>(g, s.h, s.w)));
                    const auto at = sq::where(*row, L, s.w) + "x" + std::to_string(s.h);
                    ASSERT_EQ(l.call(), zelStsOk) << at;
                    EXPECT_TRUE(l.guards_intact()) << at;
                    for (int n = 0; n < l.count(); ++n) {
                        const auto got = l.get("Dst", n);
                        ASSERT_TRUE(sq::same_bits(got, decomposed(src[n], s.w, s.h))) << at;
                        const Mat A = sq::to_eigen(src[n], s.h, s.w);
                        EXPECT_LE((rebuilt(got, s.w, s.h) - A).norm(), 64 * sq::eps<T>() * A.norm()) << at;
                        // the sign rule: R(0,0) is -alpha, alpha negative unless a(0,0) > 0
                        if (s.h > 1) {
                            EXPECT_EQ(got[0] > 0, !(src[n][0] > 0)) << at;
                        }
                    }
                }
        });
}

TEST(QR, BackSubstitutionInEveryFormSolvesLeastSquares) {
    for (const auto* row : fh::exports_of({"QRBackSubst"}))
        fh::with_type(*row, [&](auto t) {
            using T = decltype(t);
            const bool shared = std::string(row->sig) == "mva";
            for (const auto& s : kShapes)
                for (const auto& L : sq::layouts()) {
                    fh::Laid<T> l(*row, sq::kCount, {{"Src1", {s.h, s.w}}, {"Src2", {1, s.h}}, {"Dst", {1, s.w}}},
                                  {{"pBuffer", s.h}}, L);
                    l.num("width", s.w);
                    l.num("height", s.h);
                    std::mt19937 g(unsigned(s.w * 17 + s.h));
                    std::vector<std::vector<T>> a, qr, b;
                    for (int n = 0; n < l.objects("Src1"); ++n) {
                        a.push_back(sq::random_matrix<T>(g, s.h, s.w));
                        l.set("Src1", n, qr.emplace_back(decomposed(a.back(), s.w, s.h)));
                    }
                    for (int n = 0; n < l.count(); ++n) l.set("Src2", n, b.emplace_back(sq::random_matrix<T>(g, 1, s.h)));
                    const auto at = sq::where(*row, L, s.w) + "x" + std::to_string(s.h);
                    ASSERT_EQ(l.call(), zelStsOk) << at;
                    EXPECT_TRUE(l.guards_intact()) << at;
                    for (int n = 0; n < l.count(); ++n) {
                        const int m = shared ? 0 : n;
                        std::vector<T> x(s.w), buf(s.h);
                        solve(qr[m].data(), buf.data(), b[n].data(), x.data(), s.w, s.h);
                        const auto got = l.get("Dst", n);
                        ASSERT_TRUE(sq::same_bits(got, x)) << at;
                        const Mat A = sq::to_eigen(a[m], s.h, s.w);
                        const Eigen::VectorXd want = least_squares(A, sq::to_eigen(b[n], s.h, 1));
                        const Eigen::JacobiSVD<Mat> svd(A);
                        const double cond = svd.singularValues()(0) / svd.singularValues()(s.w - 1);
                        EXPECT_LE((sq::to_eigen(got, s.w, 1) - want).norm(), 64 * cond * cond * sq::eps<T>() * (1 + want.norm()))
                            << at;
                    }
                }
        });
}

template <class T>
void worked_examples() {
    // the column (3, 4): s = 25, alpha = 5, r = 1/8, reflector entry 0.5, tau = -1.6
    const std::vector<T> col{3, 4};
    const auto p = decomposed(col, 1, 2);
    EXPECT_EQ(p, (std::vector<T>{-5, T(0.5)}));
    std::vector<T> x(1), buf(2);
    EXPECT_EQ(solve(p.data(), buf.data(), col.data(), x.data(), 1, 2), zelStsOk);
    EXPECT_EQ(x[0], T(1));
    // 1x1: no reflector, no test, the element copied, even 0; x = b / a
    EXPECT_EQ(decomposed(std::vector<T>{0}, 1, 1), std::vector<T>{0});
    const std::vector<T> a1{4}, b1{3};
    solve(a1.data(), buf.data(), b1.data(), x.data(), 1, 1);
    EXPECT_EQ(x[0], T(0.75));
    // the identity of order 4: -1 on the reflected diagonal, the last +1, reflectors 0
    std::vector<T> id(16, T(0));
    for (int i = 0; i < 4; ++i) id[i * 5] = 1;
    std::vector<T> want(16, T(0));
    for (int i = 0; i < 4; ++i) want[i * 5] = i < 3 ? -1 : 1;
    EXPECT_EQ(decomposed(id, 4, 4), want);
}
TEST(QR, WorkedExamples) {
    worked_examples<float>();
    worked_examples<double>();
}

// A column whose squared norm is exactly the threshold passes; one below it,
// or a column far from zero in the type's terms whose squared norm is below,
// fails.
template <class T>
void rank_threshold(T x, T y, T column) {
    std::vector<T> d(2), buf(2);
    const std::vector<T> edge{x, y}, below{std::nextafter(x, T(0)), y}, small{column, column};
    EXPECT_EQ(decomp(edge.data(), buf.data(), d.data(), 1, 2), zelStsOk);
    EXPECT_EQ(decomp(below.data(), buf.data(), d.data(), 1, 2), zelStsErrDivByZero);
    EXPECT_EQ(decomp(small.data(), buf.data(), d.data(), 1, 2), zelStsErrDivByZero);
}
TEST(QR, RankThresholdIsStrictOnTheSquaredNorm) {
    rank_threshold<float>(std::ldexp(1.0f, -12), std::ldexp(1.0f, -12), 1e-4f);  // 2^-24 + 2^-24
    rank_threshold<double>(std::ldexp(1.0, -26), 0.0, 1e-9);                     // 2^-52
}

// A rank-deficient object in the middle of an array: the ones before are
// complete, the failing one holds its finished step 0 (its column 0 as the
// decomposition of that column alone, the others updated by H(0)), and the
// ones after are untouched; a zero first column leaves the copy of the source.
TEST(QR, RankDeficiencyStopsTheArrayWithTheFinishedSteps) {
    for (const auto* row : fh::exports_of({"QRDecomp"}))
        fh::with_type(*row, [&](auto t) {
            using T = decltype(t);
            for (const auto& [w, h] : {std::pair{4, 5}, std::pair{4, 4}})
            for (const auto& L : sq::layouts()) {
                fh::Laid<T> l(*row, sq::kCount, {{"Src", {h, w}}, {"Dst", {h, w}}}, {{"pBuffer", h}}, L);
                l.num("width", w);
                l.num("height", h);
                std::mt19937 g(7);
                std::vector<std::vector<T>> src;
                for (int n = 0; n < l.count(); ++n) src.push_back(sq::random_matrix<T>(g, h, w));
                const int bad = l.count() > 1 ? sq::kBad : 0;
                for (int i = 0; i < h; ++i) src[bad][i * w + 1] = 2 * src[bad][i * w];  // column 1 = 2 column 0
                for (int n = 0; n < l.count(); ++n) l.set("Src", n, src[n]);
                const auto at = sq::where(*row, L, w) + "x" + std::to_string(h);
                ASSERT_EQ(l.call(), zelStsErrDivByZero) << at;
                for (int k = 0; k < bad; ++k) EXPECT_TRUE(sq::same_bits(l.get("Dst", k), decomposed(src[k], w, h))) << at;
                for (int k = bad + 1; k < l.count(); ++k)
                    for (T x : l.get("Dst", k)) ASSERT_TRUE(fh::Laid<T>::same(x, lay::sentinel<T>())) << at;
                const auto got = l.get("Dst", bad);
                std::vector<T> c0(h);
                for (int i = 0; i < h; ++i) c0[i] = src[bad][i * w];
                const auto p0 = decomposed(c0, 1, h);
                Eigen::VectorXd v = sq::to_eigen(p0, h, 1);
                v(0) = 1;
                const Mat after = sq::to_eigen(src[bad], h, w) + (-2 / v.squaredNorm()) * v * (v.transpose() * sq::to_eigen(src[bad], h, w));
                for (int i = 0; i < h; ++i) {
                    EXPECT_EQ(got[i * w], p0[i]) << at;
                    for (int j = 1; j < w; ++j) EXPECT_NEAR(got[i * w + j], after(i, j), 16 * sq::eps<T>()) << at;
                }
            }
            std::vector<T> z(12, T(1)), d(12), buf(4);
            for (int i = 0; i < 4; ++i) z[i * 3] = 0;
            EXPECT_EQ(decomp(z.data(), buf.data(), d.data(), 3, 4), zelStsErrDivByZero);
            EXPECT_EQ(d, z);
        });
}

TEST(QR, InPlace) {
    for (const auto* row : fh::exports_of({"QRDecomp", "QRBackSubst"}))
        fh::with_type(*row, [&](auto t) {
            using T = decltype(t);
            const bool dec = std::string(row->op) == "QRDecomp";
            for (int n : {4, 7}) {
                fh::Shapes shapes = dec ? fh::Shapes{{"Src", {n, n}}, {"Dst", {n, n}}}
                                        : fh::Shapes{{"Src1", {n, n}}, {"Src2", {1, n}}, {"Dst", {1, n}}};
                fh::Laid<T> l(*row, sq::kCount, shapes, {{"pBuffer", n}}, {}, 1, {{"Dst", dec ? "Src" : "Src2"}});
                l.num("width", n);
                l.num("height", n);
                std::mt19937 g(3);
                std::vector<std::vector<T>> in, qr;
                const int objs = l.objects(dec ? "Src" : "Src1");
                for (int k = 0; k < objs; ++k) qr.push_back(decomposed(in.emplace_back(sq::random_matrix<T>(g, n, n)), n, n));
                std::vector<std::vector<T>> b;
                for (int k = 0; k < l.count(); ++k) {
                    if (dec) l.set("Src", k, in[k]);
                    else l.set("Src2", k, b.emplace_back(sq::random_matrix<T>(g, 1, n)));
                }
                if (!dec)
                    for (int k = 0; k < objs; ++k) l.set("Src1", k, qr[k]);
                ASSERT_EQ(l.call(), zelStsOk) << row->name;
                for (int k = 0; k < l.count(); ++k) {
                    std::vector<T> want = dec ? qr[k] : std::vector<T>(n), buf(n);
                    if (!dec) solve(qr[objs > 1 ? k : 0].data(), buf.data(), b[k].data(), want.data(), n, n);
                    EXPECT_TRUE(sq::same_bits(l.get("Dst", k), want)) << row->name << " order " << n;
                }
            }
        });
}

// ---------------------------------------------------------------------------
// The parallel wrapper: the estimates at the limits (at or above: the
// wrapper), the same results on 1 and 4 threads, one scratch block per
// forking call, a failing allocation, a failure merged from a slice.
struct Boundary {
    const char* name;
    int w, h, below, at;
    bool strided;
};
// 4x4: decomposition 32 c against 2801 (standard) and 1801; mva 16 + 8 c;
// mava 24 c. 2x40: decomposition 160 c; mava 122 c.
const Boundary kBoundaries[] = {
    {"zelmQRDecomp_ma_32f", 4, 4, 87, 88, false},       {"zelmQRDecomp_ma_64f", 4, 4, 87, 88, true},
    {"zelmQRDecomp_ma_32f_L", 4, 4, 56, 57, false},     {"zelmQRDecomp_ma_64f_P", 4, 4, 56, 57, false},
    {"zelmQRBackSubst_mva_32f", 4, 4, 348, 349, true},  {"zelmQRBackSubst_mva_64f_L", 4, 4, 223, 224, false},
    {"zelmQRBackSubst_mava_64f", 4, 4, 116, 117, false}, {"zelmQRBackSubst_mava_32f_P", 4, 4, 75, 76, false},
    // columns of 40: the decomposition works in the destination, both use the scratch
    {"zelmQRDecomp_ma_64f_P", 2, 40, 11, 12, false},    {"zelmQRBackSubst_mava_32f_L", 2, 40, 14, 15, true},
};

TEST(QR, FanOut) {
    for (const auto& b : kBoundaries)
        fh::with_type(fh::row_named(b.name), [&](auto t) {
            using T = decltype(t);
            const auto& row = fh::row_named(b.name);
            const bool dec = std::string(row.op) == "QRDecomp";
            lay::Layout L;
            L.k2 = L.dst_k2 = b.strided ? 2 : 1;
            auto filled = [&](int count) {
                fh::Laid<T> l(row, count,
                              dec ? fh::Shapes{{"Src", {b.h, b.w}}, {"Dst", {b.h, b.w}}}
                                  : fh::Shapes{{"Src1", {b.h, b.w}}, {"Src2", {1, b.h}}, {"Dst", {1, b.w}}},
                              {{"pBuffer", b.h}}, L);
                l.num("width", b.w);
                l.num("height", b.h);
                std::mt19937 g(9);
                auto random = [&](int, int, int) { return sq::random_matrix<T>(g, 1, 1)[0]; };
                if (dec) {
                    l.fill("Src", random);
                    return l;
                }
                for (int n = 0; n < l.objects("Src1"); ++n)
                    l.set("Src1", n, decomposed(sq::random_matrix<T>(g, b.h, b.w), b.w, b.h));
                l.fill("Src2", random);
                return l;
            };
            sq::fan_out_checks<T>(b.name, b.below, b.at, b.at + 3, filled, [](fh::Laid<T>& l) { return sq::all_of(l); });
            if (dec) {  // a zero column in the last slice: merged into the call's status
                auto l = filled(b.at + 3);
                for (int i = 0; i < b.h; ++i) l.at("Src", b.at + 1, i, 0) = 0;
                subst::Scope scope(4);
                EXPECT_EQ(l.call(), zelStsErrDivByZero) << b.name;
            }
        });
}

}  // namespace
