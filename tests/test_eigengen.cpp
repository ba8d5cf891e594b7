// The general eigenproblem, every export in every form and type: random
// families (general, complex pairs, repeated, defective, triangular) of orders
// 1 to 9 against Eigen's EigenSolver with the residuals and normalisation of
// both vector sets, every object bit for bit against single calls of the
// standard form; the fan-out and its limits, worked examples, size queries
// and the failure state.
#include <Eigen/Dense>
#include <cmath>
#include <complex>

#include "forms_harness.hpp"

namespace {

using cd = std::complex<double>;
using Mat = Eigen::MatrixXd;
using Row = reg::ExportRow;

enum Kind { General, Pairs, Repeated, Defective, Triangular };

// A matrix of the kind: S D S^-1 with D holding the structure, S random and
// well conditioned (triangular: upper triangular as it stands).
Mat make(Kind kind, int n, std::mt19937& rng) {
    std::uniform_real_distribution<double> u(-2, 2);
    Mat a(n, n), d = Mat::Zero(n, n);
    for (int i = 0; i < n * n; ++i) a(i / n, i % n) = u(rng);
    if (kind == General) return a;
    if (kind == Triangular) return Mat(a.triangularView<Eigen::Upper>());
    for (int i = 0; i < n; ++i) d(i, i) = kind == Repeated ? (i % 2 ? 1.5 : -0.5) : u(rng);
    for (int i = 0; i + 1 < n && (kind == Pairs || kind == Defective); i += 2) {
        d(i + 1, i + 1) = d(i, i);  // a x + b, |b| the imaginary part, or a Jordan block of 2
        d(i, i + 1) = kind == Pairs ? 1 + i : 1;
        d(i + 1, i) = kind == Pairs ? -0.5 : 0;
    }
    const Mat s = a + 3 * n * Mat::Identity(n, n);
    return s * d * s.inverse();
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

// The vector groups of an export, the first set (A^T x = lambda x) first.
std::vector<std::string> vector_groups(const Row& r) {
    const std::string op = r.op;
    if (op == "EigenValues") return {};
    return op == "EigenValuesVectors" ? std::vector<std::string>{"DstVectorsRight", "DstVectorsLeft"}
                                      : std::vector<std::string>{"DstVectors"};
}

// One laid-out call of an export on `count` matrices.
template <class T>
struct Laid {
    const Row& row;
    int n;
    fh::Laid<T> l;
    Laid(const Row& r, int n_, int count, const lay::Layout& L = {}) : row(r), n(n_), l(r, count, {{"widthHeight", n_}}, L) {}
    // the documented size (the size queries' below)
    int buf_elems() const { return n * (vector_groups(row).empty() ? n + 5 : 3 * n + 5); }
    void set(int k, const Mat& a) {
        std::vector<T> v;
        for (int i = 0; i < n * n; ++i) v.push_back(T(a(i / n, i % n)));
        l.set("Src", k, v);
    }
    cd value(int k, int i) { return {double(l.block("pDstValuesRe")[k * n + i]), double(l.block("pDstValuesIm")[k * n + i])}; }
    // Vector j of a set as a complex column (pairs packed re, im).
    Eigen::VectorXcd vec(const std::string& g, int k, int j) {
        Eigen::VectorXcd x(n);
        const double im = value(k, j).imag(), s = im < 0 ? -1 : 1;
        const int c = im < 0 ? j - 1 : j;
        for (int r = 0; r < n; ++r) x(r) = cd(double(l.at(g, k, r, c)), im != 0 ? s * double(l.at(g, k, r, c + 1)) : 0.0);
        return x;
    }
};

// Object k of a call on matrix `a` (as rounded to T): values against Eigen,
// the residuals and normalisation of each vector set.
template <class T>
void check_object(Laid<T>& run, int k, const Mat& a, Kind kind) {
    const int n = run.n;
    const double eps = std::numeric_limits<T>::epsilon(), na = std::max(1.0, a.norm());
    // a defective block of 2 moves its values by about sqrt(eps); random
    // triangular matrices are far from normal
    const double vtol = (kind == Defective || kind == Repeated || kind == Triangular ? 30 * std::sqrt(eps) : 400 * n * eps) * na;
    Eigen::EigenSolver<Mat> es(a, false);
    std::vector<cd> got, want;
    for (int i = 0; i < n; ++i) got.push_back(run.value(k, i)), want.push_back(es.eigenvalues()(i));
    EXPECT_LT(mismatch(got, want), vtol);
    const auto groups = vector_groups(run.row);
    for (std::size_t gi = 0; gi < groups.size(); ++gi) {
        const bool first = gi == 0 && std::string(run.row.op) != "EigenValuesVectorsLeft";
        for (int j = 0; j < n; ++j) {
            SCOPED_TRACE(groups[gi] + " vector " + std::to_string(j));
            const cd lam = got[j];
            const Eigen::VectorXcd x = run.vec(groups[gi], k, j);
            // first set: A^T x = lambda x; second: A y = conj(lambda) y
            const Eigen::VectorXcd res = first ? Eigen::VectorXcd(a.transpose().cast<cd>() * x - lam * x)
                                               : Eigen::VectorXcd(a.cast<cd>() * x - std::conj(lam) * x);
            EXPECT_LT(res.norm(), 2000 * n * eps * na);
            if (lam.imag() == 0) {
                EXPECT_NEAR(x.norm(), 1.0, 100 * n * eps);
            } else if (lam.imag() > 0) {  // a pair: unit norm of both columns, the largest component real
                EXPECT_NEAR(x.squaredNorm(), 1.0, 100 * n * eps);
                int big = 0;
                for (int i = 1; i < n; ++i) big = std::norm(x(i)) > std::norm(x(big)) ? i : big;
                EXPECT_LT(std::fabs(x(big).imag()), 10 * eps);
            }
        }
    }
}

// The objects of `run` (on matrices `as`) one at a time in single calls of
// the standard form, which share one pBuffer as the objects of a call do:
// each object's results and pBuffer as the objects one after the other leave
// them; the call stops at a failing object (`fail`), the later ones untouched.
template <class T>
void expect_single_calls(Laid<T>& run, const std::vector<Mat>& as, int fail = -1) {
    const int last = fail < 0 ? run.l.count() - 1 : fail, nb = run.buf_elems();
    std::vector<T> buf(nb, lay::sentinel<T>());
    for (int k = 0; k <= last; ++k) {
        Laid<T> one(fh::standard_of(run.row), run.n, 1);
        one.set(0, as[k]);
        std::copy(buf.begin(), buf.end(), one.l.block("pBuffer"));
        EXPECT_EQ(one.l.call(), k == fail ? zelStsErrNoConvergence : zelStsOk);
        EXPECT_TRUE(fh::same(run.l.results(k), one.l.results(0))) << "object " << k << " differs from its single call";
        std::copy(one.l.block("pBuffer"), one.l.block("pBuffer") + nb, buf.begin());
    }
    EXPECT_TRUE(fh::same(std::vector<T>(run.l.block("pBuffer"), run.l.block("pBuffer") + nb), buf));
    for (int k = last + 1; k < run.l.count(); ++k)
        for (T x : run.l.results(k)) EXPECT_TRUE(fh::untouched(x)) << "object " << k;
}

const std::vector<const Row*>& exports() {
    static const auto all =
        fh::exports_of({"EigenValues", "EigenValuesVectors", "EigenValuesVectorsLeft", "EigenValuesVectorsRight"});
    return all;
}

// ---------------------------------------------------------------------------
// Every export, orders 1 to 9, eleven objects of mixed kinds in the array
// forms (at orders 3 to 6 arrays of EigenValues and EigenValuesVectors run
// their QR stages in groups of 4 or 8 objects across vector lanes: groups
// and a tail), against Eigen and against single calls of the standard form.
// Then failure: a NaN, which the relative scan of the vector families never
// deflates, runs out of sweeps in object 5 (at order 5: in a lane group) or
// the single object. The values above the failing block stand, the lower
// ones and every vector are untouched, later objects too.
TEST(EigenGen, RandomFamiliesInEveryFormAndNoConvergence) {
    const lay::Layout strided{.k2 = 2, .dst_k2 = 3, .pad1 = 1, .shift = 2, .label = "strided"};
    for (const Row* row : exports()) {
        fh::with_type(*row, [&](auto t) {
            using T = decltype(t);
            std::mt19937 rng(7);
            for (int n = 1; n <= 9; ++n)
                for (int kind = 0; kind < 6; ++kind) {  // 5: failing
                    if (kind == 5 && (n != 5 || vector_groups(*row).empty())) continue;
                    SCOPED_TRACE(std::string(row->name) + " n=" + std::to_string(n) + " kind " + std::to_string(kind));
                    Laid<T> run(*row, n, 11, n % 2 ? strided : lay::Layout{});
                    const int fail = kind < 5 ? -1 : run.l.count() > 1 ? 5 : 0;
                    std::vector<Mat> as;
                    for (int k = 0; k < run.l.count(); ++k) {
                        as.push_back(make(Kind((kind + k) % 5), n, rng).cast<T>().template cast<double>());
                        if (k == fail) as[k](2, 1) = std::numeric_limits<double>::quiet_NaN();
                        run.set(k, as[k]);
                    }
                    ASSERT_TRUE(fh::call_matches(run.l, {}, fail < 0 ? zelStsOk : zelStsErrNoConvergence));
                    expect_single_calls(run, as, fail);
                    for (int k = 0; k < (fail < 0 ? run.l.count() : fail); ++k) check_object(run, k, as[k], Kind((kind + k) % 5));
                    if (fail < 0) continue;
                    bool above = true;  // sentinels up to some position, values above it
                    for (int i = n - 1; i >= 0; --i) {
                        const bool u = fh::untouched(run.l.block("pDstValuesRe")[fail * n + i]);
                        above = above && !u;
                        EXPECT_NE(above, u) << "value " << i;
                    }
                    for (const auto& g : vector_groups(*row))
                        for (T x : run.l.get(g, fail)) EXPECT_TRUE(fh::untouched(x));
                }
        });
    }
}

// The array wrappers' limits, worked out by hand: EigenValues fans out when
// n (n + 1) count > 10000, EigenValuesVectors when n (3n + 1) count > 7000
// (the largest counts that stay: 500 and 134 at order 4, 833 and 233 at
// order 3), the left and right families never (fh::expect_same_on_threads).
TEST(EigenGen, FanOut) {
    for (const Row* row : exports()) {
        if (std::string(row->sig) != "ma") continue;
        const std::string op = row->op;
        const int n = fh::is64(*row) ? 3 : 4;
        const int direct = op == "EigenValues" ? (n == 3 ? 833 : 500) : op == "EigenValuesVectors" ? (n == 3 ? 233 : 134) : 0;
        fh::with_type(*row, [&](auto t) {
            using T = decltype(t);
            for (int count : {direct ? direct : 600, direct + 1}) {
                fh::expect_same_on_threads([&] {
                    Laid<T> run(*row, n, count);
                    std::mt19937 rng(3);
                    for (int k = 0; k < count; ++k) run.set(k, make(Kind(k % 5), n, rng));
                    return std::move(run.l);
                }, direct && count > direct, std::string(row->name) + " count " + std::to_string(count));
                if (!direct) break;
            }
        });
    }
}

// The worked examples, exactly, positions included, in every export; the
// size queries.
TEST(EigenGen, WorkedExamplesAndSizeQueries) {
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
        {3, {4, 0, 0, 0, -1, 0, 0, 0, 2}, {4, -1, 2}, {0, 0, 0}},
    };
    for (const auto& e : exs)
        for (const Row* row : exports())
            fh::with_type(*row, [&](auto t) {
                Laid<decltype(t)> run(*row, e.n, 1);
                run.set(0, Eigen::Map<const Eigen::Matrix<double, -1, -1, Eigen::RowMajor>>(e.a.data(), e.n, e.n));
                ASSERT_EQ(run.l.call(), zelStsOk);
                for (int i = 0; i < e.n; ++i) {
                    EXPECT_EQ(run.value(0, i), cd(e.re[i], e.im[i])) << row->name << " n=" << e.n << " at " << i;
                    if (e.im[i] == 0) {
                        EXPECT_FALSE(std::signbit(run.value(0, i).imag())) << row->name << " n=" << e.n << " -0 at " << i;
                    }
                }
            });
    // [[0, 1], [0, 0]]: (0, 1) for the double zero in the first set, then a zero column
    double nil[4] = {0, 1, 0, 0}, r[4], l[4], re[2], im[2], buf[22];
    ASSERT_EQ(zelmEigenValuesVectors_m_64f(nil, 16, 8, r, 16, 8, l, 16, 8, re, im, 2, buf), zelStsOk);
    EXPECT_TRUE(re[0] == 0 && re[1] == 0 && r[0] == 0 && r[1] == 0 && std::fabs(r[2]) == 1 && r[3] == 0);

    // the documented sizes: n (n + 5) elements for the values, n (3n + 5) with vectors
    for (int n = 1; n <= 9; ++n) {
        int v[4] = {-1, -1, -1, -1};
        EXPECT_TRUE(!zelmEigenValuesGetBufSize_32f(n, v) && !zelmEigenValuesGetBufSize_64f(n, v + 1) &&
                    !zelmEigenValuesVectorsGetBufSize_32f(n, v + 2) && !zelmEigenValuesVectorsGetBufSize_64f(n, v + 3));
        EXPECT_TRUE(v[0] * 2 == v[1] && v[1] == 8 * n * (n + 5) && v[2] * 2 == v[3] && v[3] == 8 * n * (3 * n + 5)) << n;
    }
}

}  // namespace
