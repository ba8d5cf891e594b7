// The general eigenproblem: every export over random families of matrices
// (general, complex pairs, repeated values, defective blocks, triangular) of
// orders 1 to 9, in every form and type: eigenvalues as a multiset against
// Eigen's EigenSolver, the residuals of both vector sets of the transposed
// matrix, their normalisation, every form bit for bit against the standard
// call, 4 threads and a failed scratch allocation against 1 thread; the
// worked examples, the size queries, the failure statuses and what stands in
// the destinations after them, and the small solves of the core.
#include <gtest/gtest.h>

#include <Eigen/Dense>
#include <cmath>
#include <complex>
#include <random>
#include <string>
#include <vector>

#include "eigen/eigengen_core.hpp"
#include "forms_harness.hpp"
#include "substitutes.hpp"
#include "zelm.h"

namespace {

using cd = std::complex<double>;
using Mat = Eigen::MatrixXd;

enum Kind { General, Pairs, Repeated, Defective, Triangular };
const char* kKindNames[] = {"general", "pairs", "repeated", "defective", "triangular"};

// A matrix of the kind: S D S^-1 with D holding the structure, S random and
// well conditioned (triangular: upper triangular as it stands).
Mat make(Kind kind, int n, std::mt19937& rng) {
    std::uniform_real_distribution<double> u(-2, 2);
    Mat a(n, n), d = Mat::Zero(n, n);
    for (int i = 0; i < n; ++i)
        for (int j = 0; j < n; ++j) a(i, j) = u(rng);
    if (kind == General) return a;
    if (kind == Triangular) return Mat(a.triangularView<Eigen::Upper>());
    for (int i = 0; i < n; ++i) d(i, i) = kind == Repeated ? (i % 2 ? 1.5 : -0.5) : u(rng);
    for (int i = 0; i + 1 < n; i += 2) {
        if (kind == Pairs) {  // a x + b, with |b| the imaginary part
            d(i + 1, i + 1) = d(i, i);
            d(i, i + 1) = 1 + i;
            d(i + 1, i) = -0.5;
        } else if (kind == Defective) {  // a Jordan block of 2
            d(i + 1, i + 1) = d(i, i);
            d(i, i + 1) = 1;
        }
    }
    const Mat s = a + 3 * n * Mat::Identity(n, n);
    return s * d * s.inverse();
}

// Reference eigenvalues of the matrix as the library sees it (rounded to T).
std::vector<cd> reference(const Mat& a) {
    Eigen::EigenSolver<Mat> es(a, false);
    std::vector<cd> v;
    for (int i = 0; i < a.rows(); ++i) v.push_back(es.eigenvalues()(i));
    return v;
}

// Largest distance of a greedy match of the two multisets.
double mismatch(std::vector<cd> got, std::vector<cd> want) {
    double worst = 0;
    for (const cd& g : got) {
        std::size_t best = 0;
        for (std::size_t k = 1; k < want.size(); ++k)
            if (std::abs(want[k] - g) < std::abs(want[best] - g)) best = k;
        worst = std::max(worst, std::abs(want[best] - g));
        want.erase(want.begin() + std::ptrdiff_t(best));
    }
    return worst;
}

int buf_elems(const reg::ExportRow& r, int n) {
    int bytes = 0;
    const bool values = std::string(r.op) == "EigenValues";
    if (fh::is64(r)) (values ? zelmEigenValuesGetBufSize_64f : zelmEigenValuesVectorsGetBufSize_64f)(n, &bytes);
    else (values ? zelmEigenValuesGetBufSize_32f : zelmEigenValuesVectorsGetBufSize_32f)(n, &bytes);
    return bytes / (fh::is64(r) ? 8 : 4);
}

// The vector groups of an export: right/left, or one set.
std::vector<std::string> vector_groups(const reg::ExportRow& r) {
    const std::string op = r.op;
    if (op == "EigenValuesVectors") return {"DstVectorsRight", "DstVectorsLeft"};
    if (op == "EigenValues") return {};
    return {"DstVectors"};
}
bool is_first_set(const reg::ExportRow& r, const std::string& g) {
    return g == "DstVectorsRight" || std::string(r.op) == "EigenValuesVectorsRight";
}

// One laid-out call of an export on `count` matrices.
template <class T>
struct Laid {
    fh::Laid<T> l;
    int n;
    Laid(const reg::ExportRow& r, int n_, int count, const lay::Layout& L = {})
        : l(r, count, shapes(r, n_), {{"pDstValuesRe", count * n_}, {"pDstValuesIm", count * n_},
                                       {"pBuffer", buf_elems(r, n_)}}, L),
          n(n_) {
        l.num("widthHeight", n);
    }
    static fh::Shapes shapes(const reg::ExportRow& r, int n) {
        fh::Shapes s{{"Src", {n, n}}};
        for (const auto& g : vector_groups(r)) s[g] = {n, n};
        return s;
    }
    void set(int k, const Mat& a) {
        std::vector<T> v;
        for (int i = 0; i < n; ++i)
            for (int j = 0; j < n; ++j) v.push_back(T(a(i, j)));
        l.set("Src", k, v);
    }
    cd value(int k, int i) { return {double(l.block("pDstValuesRe")[k * n + i]), double(l.block("pDstValuesIm")[k * n + i])}; }
    std::vector<cd> values(int k) {
        std::vector<cd> v;
        for (int i = 0; i < n; ++i) v.push_back(value(k, i));
        return v;
    }
    // Vector j of a set as a complex column (pairs packed re, im).
    Eigen::VectorXcd vec(const std::string& g, int k, int j) {
        Eigen::VectorXcd x(n);
        const double s = value(k, j).imag() < 0 ? -1 : 1;
        const int c = value(k, j).imag() < 0 ? j - 1 : j;
        for (int r = 0; r < n; ++r)
            x(r) = cd(double(l.at(g, k, r, c)), value(k, j).imag() != 0 ? s * double(l.at(g, k, r, c + 1)) : 0.0);
        return x;
    }
    // Everything the call wrote, as bits, for comparisons between calls.
    std::vector<T> written(const reg::ExportRow& r, int count) {
        std::vector<T> out(l.block("pDstValuesRe"), l.block("pDstValuesRe") + count * n);
        out.insert(out.end(), l.block("pDstValuesIm"), l.block("pDstValuesIm") + count * n);
        for (const auto& g : vector_groups(r))
            for (int k = 0; k < count; ++k)
                for (T x : l.get(g, k)) out.push_back(x);
        return out;
    }
};

template <class T>
bool same_bits(const std::vector<T>& a, const std::vector<T>& b) {
    return a.size() == b.size() && std::memcmp(a.data(), b.data(), a.size() * sizeof(T)) == 0;
}

const reg::ExportRow& standard_of(const reg::ExportRow& r) {
    return fh::row_named("zelm" + std::string(r.op) + "_" + r.sig + "_" + r.type);
}

// Checks object k of a call on matrix `a` (as rounded to T): values against
// Eigen, the residuals and normalisation of each vector set.
template <class T>
void check_object(const reg::ExportRow& r, Laid<T>& run, int k, const Mat& a, Kind kind, const std::string& what) {
    const int n = run.n;
    const double eps = std::numeric_limits<T>::epsilon();
    const double na = std::max(1.0, a.norm());
    // a defective block of 2 moves its values by about sqrt(eps); random
    // triangular matrices are far from normal
    const double vtol = (kind == Defective || kind == Repeated || kind == Triangular ? 30 * std::sqrt(eps) : 400 * n * eps) * na;
    EXPECT_LT(mismatch(run.values(k), reference(a)), vtol) << what;
    for (const auto& g : vector_groups(r)) {
        const bool first = is_first_set(r, g);
        for (int j = 0; j < n; ++j) {
            const cd lam = run.value(k, j);
            const Eigen::VectorXcd x = run.vec(g, k, j);
            // first set: A^T x = lambda x; second: A y = conj(lambda) y
            const Eigen::VectorXcd res = first ? Eigen::VectorXcd(a.transpose().cast<cd>() * x - lam * x)
                                               : Eigen::VectorXcd(a.cast<cd>() * x - std::conj(lam) * x);
            EXPECT_LT(res.norm(), 2000 * n * eps * na) << what << " " << g << " vector " << j;
            if (lam.imag() == 0) {
                EXPECT_NEAR(x.norm(), 1.0, 100 * n * eps) << what << " " << g << " vector " << j;
            } else if (lam.imag() > 0) {
                EXPECT_NEAR(x.squaredNorm(), 1.0, 100 * n * eps) << what << " " << g << " pair " << j;
                int big = 0;
                for (int i = 1; i < n; ++i)
                    if (std::norm(x(i)) > std::norm(x(big))) big = i;
                EXPECT_LT(std::fabs(x(big).imag()), 10 * eps) << what << " largest component real";
            }
        }
    }
}

// ---------------------------------------------------------------------------
TEST(EigenGen, SizeQueries) {
    struct Row {
        zelStatus (*f)(int, int*);
        int sizes[5];  // n = 1, 3, 4, 5, 6
    };
    const Row rows[] = {{zelmEigenValuesGetBufSize_32f, {24, 96, 144, 200, 264}},
                        {zelmEigenValuesGetBufSize_64f, {48, 192, 288, 400, 528}},
                        {zelmEigenValuesVectorsGetBufSize_32f, {32, 168, 272, 400, 552}},
                        {zelmEigenValuesVectorsGetBufSize_64f, {64, 336, 544, 800, 1104}}};
    const int ns[] = {1, 3, 4, 5, 6};
    for (const auto& r : rows)
        for (int i = 0; i < 5; ++i) {
            int s = -1;
            EXPECT_EQ(r.f(ns[i], &s), zelStsOk);
            EXPECT_EQ(s, r.sizes[i]);
        }
}

// Every export, every kind, orders 1 to 9, three objects in the array forms,
// against Eigen and against the standard form of the same call.
TEST(EigenGen, RandomFamiliesInEveryForm) {
    const lay::Layout strided{.k2 = 2, .dst_k2 = 3, .pad1 = 1, .shift = 2, .label = "strided"};
    for (const auto* row : fh::exports_of({"EigenValues", "EigenValuesVectors", "EigenValuesVectorsLeft",
                                           "EigenValuesVectorsRight"})) {
        fh::with_type(*row, [&](auto t) {
            using T = decltype(t);
            std::mt19937 rng(7);
            for (int n = 1; n <= 9; ++n)
                for (int kind = 0; kind < 5; ++kind) {
                    const int count = 3;
                    std::vector<Mat> as;
                    Laid<T> run(*row, n, count, n % 2 ? strided : lay::Layout{});
                    Laid<T> std_run(standard_of(*row), n, count);
                    for (int k = 0; k < run.l.count(); ++k) {
                        Mat a = make(Kind(kind), n, rng).cast<T>().template cast<double>();
                        as.push_back(a);
                        run.set(k, a);
                        std_run.set(k, a);
                    }
                    const std::string what = std::string(row->name) + " n=" + std::to_string(n) + " " + kKindNames[kind];
                    ASSERT_EQ(run.l.call(), zelStsOk) << what;
                    ASSERT_EQ(std_run.l.call(), zelStsOk) << what;
                    EXPECT_TRUE(run.l.guards_intact()) << what;
                    EXPECT_TRUE(same_bits(run.written(*row, run.l.count()), std_run.written(*row, run.l.count())))
                        << what << " differs from the standard form";
                    for (int k = 0; k < run.l.count(); ++k) check_object(*row, run, k, as[k], Kind(kind), what);
                }
        });
    }
}

// The array wrappers: 4 threads, and 4 threads without scratch, give the
// bits of 1 thread.
TEST(EigenGen, ThreadsAndFailedScratchGiveTheSameBits) {
    for (const auto* row : fh::exports_of({"EigenValues", "EigenValuesVectors"})) {
        if (std::string(row->sig) != "ma") continue;
        fh::with_type(*row, [&](auto t) {
            using T = decltype(t);
            const int n = 4, count = 600;  // estimates 12000 and 31200: above both limits
            std::vector<T> ref;
            for (int mode = 0; mode < 3; ++mode) {
                subst::Scope scope(mode == 0 ? 1 : 4, -1, mode == 2);
                Laid<T> run(*row, n, count);
                std::mt19937 rng(3);
                for (int k = 0; k < count; ++k) run.set(k, make(Kind(k % 5), n, rng));
                ASSERT_EQ(run.l.call(), zelStsOk);
                if (mode == 0) ref = run.written(*row, count);
                else EXPECT_TRUE(same_bits(ref, run.written(*row, count))) << row->name << " mode " << mode;
                EXPECT_EQ(subst::mallocs.load(), mode == 0 ? 0 : 1) << row->name;
            }
        });
    }
}

// The wrappers' limits, worked out by hand: EigenValues n (n + 1) count
// above 10000, EigenValuesVectors n (3n + 1) count above 7000; the left and
// right families never fan out.
TEST(EigenGen, WrapperLimits) {
    struct Boundary {
        const char* name;
        int n, below, at;  // at == below: no wrapper at any count
    };
    const Boundary bs[] = {{"zelmEigenValues_ma_32f", 4, 500, 501},       // 20 * 500 = 10000 stays
                           {"zelmEigenValues_ma_64f_P", 3, 833, 834},     // 9996 / 10008
                           {"zelmEigenValuesVectors_ma_32f_L", 3, 233, 234},  // 6990 / 7020
                           {"zelmEigenValuesVectors_ma_64f", 4, 134, 135},    // 6968 / 7020
                           {"zelmEigenValuesVectorsRight_ma_32f", 4, 3000, 3000},
                           {"zelmEigenValuesVectorsLeft_ma_64f_L", 4, 3000, 3000}};
    for (const auto& b : bs) {
        const auto& row = fh::row_named(b.name);
        fh::with_type(row, [&](auto t) {
            using T = decltype(t);
            for (int count : {b.below, b.at}) {
                subst::Scope scope(4);
                Laid<T> run(row, b.n, count);
                run.l.fill("Src", [](int k, int r, int c) { return r == c ? 1.0 + k % 7 : 0.25 * (r - c); });
                ASSERT_EQ(run.l.call(), zelStsOk) << b.name;
                EXPECT_EQ(subst::thread_queries.load() > 0, count == b.at && b.at != b.below) << b.name << " " << count;
            }
        });
    }
}

// The worked examples of EigenValues, exactly, positions included.
TEST(EigenGen, WorkedExamples) {
    struct Ex {
        int n;
        std::vector<double> a, re, im;
    };
    const Ex exs[] = {
        {1, {-3}, {-3}, {0}},
        {2, {0, -1, 1, 0}, {0, 0}, {1, -1}},
        {2, {0, 1, 1, 0}, {-1, 1}, {0, 0}},
        {2, {2, 5, 0, 3}, {3, 2}, {0, 0}},
        {2, {2, 0, 5, 3}, {2, 3}, {0, 0}},
    };
    for (const auto& e : exs) {
        for (const char* name : {"zelmEigenValues_m_32f", "zelmEigenValues_m_64f"}) {
            fh::with_type(fh::row_named(name), [&](auto t) {
                using T = decltype(t);
                Laid<T> run(fh::row_named(name), e.n, 1);
                run.set(0, Eigen::Map<const Eigen::Matrix<double, -1, -1, Eigen::RowMajor>>(e.a.data(), e.n, e.n));
                ASSERT_EQ(run.l.call(), zelStsOk);
                for (int i = 0; i < e.n; ++i) {
                    EXPECT_EQ(run.value(0, i), cd(e.re[i], e.im[i])) << name << " n=" << e.n << " at " << i;
                }
            });
        }
    }
    // 5x5, singular: 6, 1 and three zeros up to rounding, all real
    double a5[25] = {1, 1, 1, 1, 1, 1, 2, 1, 1, 1, 2, 1, 2, 2, 1, 1, 1, 1, 1, 1, 1, 2, 1, 1, 1}, re[5], im[5], buf[50];
    ASSERT_EQ(zelmEigenValues_m_64f(a5, 40, 8, re, im, 5, buf), zelStsOk);
    EXPECT_LT(mismatch({re[0], re[1], re[2], re[3], re[4]}, {6, 1, 0, 0, 0}), 1e-7);
    for (double x : im) EXPECT_EQ(x, 0);
}

// Vector examples: a diagonal matrix gives the identity; [[1, 2], [0, 3]]
// has (0, 1) for 3 in the first set; [[0, 1], [0, 0]] gives (0, 1) and a
// zero column.
TEST(EigenGen, VectorExamples) {
    double diag[9] = {4, 0, 0, 0, -1, 0, 0, 0, 2}, re[3], im[3], r[9], l[9], buf[60];
    ASSERT_EQ(zelmEigenValuesVectors_m_64f(diag, 24, 8, r, 24, 8, l, 24, 8, re, im, 3, buf), zelStsOk);
    for (int i = 0; i < 9; ++i) {
        EXPECT_EQ(std::fabs(r[i]), i % 4 == 0 ? 1.0 : 0.0);
        EXPECT_EQ(std::fabs(l[i]), i % 4 == 0 ? 1.0 : 0.0);
    }
    EXPECT_EQ(re[0], 4);
    EXPECT_EQ(re[1], -1);
    EXPECT_EQ(re[2], 2);
    double tri[4] = {1, 2, 0, 3};
    ASSERT_EQ(zelmEigenValuesVectorsRight_m_64f(tri, 16, 8, r, 16, 8, re, im, 2, buf), zelStsOk);
    const int j = re[0] == 3 ? 0 : 1;
    EXPECT_EQ(re[j], 3);
    EXPECT_NEAR(r[j], 0, 1e-15);  // component 0 of vector j
    EXPECT_NEAR(std::fabs(r[2 + j]), 1, 1e-15);
    double nil[4] = {0, 1, 0, 0};
    ASSERT_EQ(zelmEigenValuesVectors_m_64f(nil, 16, 8, r, 16, 8, l, 16, 8, re, im, 2, buf), zelStsOk);
    EXPECT_EQ(re[0], 0);
    EXPECT_EQ(re[1], 0);
    EXPECT_EQ(std::fabs(r[2]), 1);  // column 0 is (0, 1)
    EXPECT_EQ(r[0], 0);
    EXPECT_EQ(r[1], 0);
    EXPECT_EQ(r[3], 0);
}

// Failure: a NaN, which the relative scan of the vector families never
// deflates, runs out of sweeps. The values above the failing block stand,
// the lower ones and every vector are untouched, later objects too.
TEST(EigenGen, NoConvergenceLeavesItsDocumentedState) {
    for (const auto* row : fh::exports_of({"EigenValuesVectors", "EigenValuesVectorsLeft", "EigenValuesVectorsRight"})) {
        fh::with_type(*row, [&](auto t) {
            using T = decltype(t);
            const int n = 5;
            Laid<T> run(*row, n, 2);
            std::mt19937 rng(11);
            Mat a = make(General, n, rng);
            a(2, 1) = std::numeric_limits<double>::quiet_NaN();
            run.set(0, a);
            if (run.l.count() > 1) run.set(1, make(General, n, rng));
            ASSERT_EQ(run.l.call(), zelStsErrNoConvergence) << row->name;
            for (int k = 0; k < run.l.count(); ++k) {
                bool above = k == 0;  // object 0: sentinels up to some position, values above it
                for (int i = n - 1; i >= 0; --i) {
                    const bool untouched = fh::Laid<T>::same(run.l.block("pDstValuesRe")[k * n + i], lay::sentinel<T>());
                    if (untouched) above = false;
                    EXPECT_TRUE(above ? !untouched : untouched) << row->name << " object " << k << " value " << i;
                }
                for (const auto& g : vector_groups(*row))
                    for (T x : run.l.get(g, k)) EXPECT_TRUE(fh::Laid<T>::same(x, lay::sentinel<T>())) << row->name;
            }
        });
    }
}

// The core's 2x2 solves against a complex solve by Eigen, in both sets and
// both kinds; a block with every entry below smini fails for a complex vector
// and is solved as smini times the identity for a real one.
TEST(EigenGen, SmallSolves) {
    using C = zel::eigengen::Consts<double>;
    std::mt19937 rng(5);
    std::uniform_real_distribution<double> u(-3, 3);
    for (int trial = 0; trial < 200; ++trial) {
        const double blk[4] = {u(rng), u(rng), u(rng), u(rng)}, br[2] = {u(rng), u(rng)};
        const bool cplx = trial % 2;
        const double wr = u(rng), wi = cplx ? std::fabs(u(rng)) + 0.1 : 0, bi[2] = {cplx ? u(rng) : 0, cplx ? u(rng) : 0};
        const auto x = zel::eigengen::solve2<double, C>(blk, wr, wi, cplx, br, bi, 1e-14);
        Eigen::Matrix2cd m;
        m << cd(blk[0] - wr, -wi), blk[2], blk[1], cd(blk[3] - wr, -wi);
        const Eigen::Vector2cd want = m.fullPivLu().solve(Eigen::Vector2cd(cd(br[0], bi[0]), cd(br[1], bi[1])));
        for (int i = 0; i < 2; ++i)
            EXPECT_LT(std::abs(cd(x.xr[i], x.xi[i]) - want(i)), 1e-10 * (1 + std::abs(want(i)))) << trial;
        EXPECT_EQ(x.scale, 1);
    }
    const double tiny[4] = {1e-20, -1e-20, 0, 1e-21}, b[2] = {2, -4}, z[2] = {0, 0};
    EXPECT_TRUE((zel::eigengen::solve2<double, C>(tiny, 0, 1e-20, true, b, z, 1e-15).failed));
    const auto x = zel::eigengen::solve2<double, C>(tiny, 0, 0, false, b, z, 1e-15);
    EXPECT_FALSE(x.failed);
    EXPECT_DOUBLE_EQ(x.xr[0], 2e15);
    EXPECT_DOUBLE_EQ(x.xr[1], -4e15);
}

}  // namespace
