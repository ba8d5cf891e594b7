// Symmetric eigenproblem: spectra against Eigen, every form bit for bit
// against the standard call, failure states, the fan-out.
#include <Eigen/Dense>
#include <cmath>

#include "eigen/eigensym_table.hpp"
#include "forms_harness.hpp"

namespace {

namespace es = zel::eigensym;
using Mat = std::vector<double>;  // row-major n x n
using Row = reg::ExportRow;

struct Fam {  // what the expectations depend on
    bool v, a, is64;
};
Fam fam(const Row& r) { return {std::string(r.op) == "EigenValuesVectorsSym", std::string(r.sig) == "ma", fh::is64(r)}; }
std::vector<const Row*> exports() { return fh::exports_of({"EigenValuesSym", "EigenValuesVectorsSym"}); }

template <class T>
struct Out {
    zelStatus st;
    int n;
    std::vector<T> vals, buf, vecs;  // vecs: object after object, row-major
};

// A call on `mats` (one per object, rounded to T), laid out; run() calls it
// and expects the guards behind the blocks intact.
template <class T>
fh::Laid<T> laid(const Row& row, int n, const std::vector<Mat>& mats, const lay::Layout& L = {}) {
    fh::Laid<T> l(row, int(mats.size()), {{"widthHeight", n}}, L);
    for (int o = 0; o < l.count(); ++o) l.set("Src", o, std::vector<T>(mats[o].begin(), mats[o].end()));
    return l;
}
template <class T>
Out<T> run(const Row& row, int n, const std::vector<Mat>& mats, const lay::Layout& L = {}) {
    fh::Laid<T> l = laid<T>(row, n, mats, L);
    Out<T> r{l.call(), n, {}, {}, {}};
    r.vals.assign(l.block("pDstValues"), l.block("pDstValues") + n * l.count());
    r.buf.assign(l.block("pBuffer"), l.block("pBuffer") + n * n);
    for (int o = 0; fam(row).v && o < l.count(); ++o)
        for (T x : l.get("DstVectors", o)) r.vecs.push_back(x);
    EXPECT_TRUE(l.guards_intact()) << row.name;
    return r;
}

// Values and vectors of objects [from, to) of a as those of b from object
// b0 on (default: from), bit for bit, or (b null) untouched.
template <class T>
bool same(const Out<T>& a, int from, int to, const Out<T>* b = nullptr, int b0 = -1) {
    const auto eq = [&](const std::vector<T>& x, const std::vector<T>* y, std::ptrdiff_t per) {
        const std::ptrdiff_t d = (b0 < 0 ? 0 : from - b0) * per;
        for (std::ptrdiff_t k = from * per; k < to * per; ++k)
            if (!fh::same(x[k], y ? (*y)[k - d] : lay::sentinel<T>())) return false;
        return true;
    };
    return eq(a.vals, b ? &b->vals : nullptr, a.n) && (a.vecs.empty() || eq(a.vecs, b ? &b->vecs : nullptr, a.n * a.n));
}
// The buffer as the call left it: untouched, or as b's.
template <class T>
bool same_buf(const Out<T>& a, const Out<T>* b = nullptr) {
    return b ? fh::same(a.buf, b->buf) : std::all_of(a.buf.begin(), a.buf.end(), fh::untouched<T>);
}

// Q diag(lambda) Q^T with a random orthogonal Q, symmetric as stored.
Mat spectrum_matrix(const std::vector<double>& lambda, std::mt19937& g) {
    const int n = int(lambda.size());
    std::normal_distribution<double> d;
    Eigen::MatrixXd X(n, n);
    for (int i = 0; i < n * n; ++i) X.data()[i] = d(g);
    const Eigen::MatrixXd Q = Eigen::HouseholderQR<Eigen::MatrixXd>(X).householderQ();
    const Eigen::MatrixXd A = Q * Eigen::Map<const Eigen::VectorXd>(lambda.data(), n).asDiagonal() * Q.transpose();
    Mat m(n * n);
    for (int i = 0; i < n; ++i)
        for (int j = 0; j < n; ++j) m[i * n + j] = i <= j ? A(i, j) : A(j, i);
    return m;
}

// One object's results against Eigen on the matrix as the library sees it
// (rounded to T): eigenvalues in the documented order, eigenvectors (when
// given) orthonormal with small residuals.
template <class T>
void expect_agrees(const Mat& m, int n, const T* vals, const T* vec, double tol) {
    Eigen::MatrixXd A(n, n), V(n, n);
    for (int i = 0; i < n * n; ++i) A(i / n, i % n) = double(T(m[i]));
    Eigen::VectorXd lam(n), want = Eigen::SelfAdjointEigenSolver<Eigen::MatrixXd>(A, Eigen::EigenvaluesOnly).eigenvalues();
    want.reverseInPlace();  // descending; order 2 puts the eigenvalue of larger magnitude first
    if (n == 2 && T(T(m[0]) + T(m[3])) < -T(es::kEps<T>)) want.reverseInPlace();
    for (int i = 0; i < n; ++i) EXPECT_NEAR(lam[i] = double(vals[i]), want[i], tol) << "eigenvalue " << i;
    if (!vec) return;
    for (int i = 0; i < n * n; ++i) V(i / n, i % n) = double(vec[i]);
    EXPECT_LE((V.transpose() * V - Eigen::MatrixXd::Identity(n, n)).cwiseAbs().maxCoeff(), tol) << "V^T V = I";
    // the residual grows with the matrix's norm
    EXPECT_LE((A * V - V * lam.asDiagonal()).cwiseAbs().maxCoeff(), tol * std::max(1.0, want.cwiseAbs().maxCoeff())) << "A V = V L";
}

// ---------------------------------------------------------------------------
// Each object alone in the standard form against Eigen, at orders 1 to 10
// and 12 (from order 10 the row sums in lanes end in single terms); every
// form, stride and padding (arrays: the objects in vector lanes, 64-bit lanes
// taking 4 and 1 of 5) against those, bit for bit, the buffer as the last
// object leaves it.
TEST(EigenSym, SpectraAgainstEigenAndFormsAgainstStandard) {
    const lay::Layout layouts[] = {
        {},
        {.k2 = 2, .dst_k2 = 1, .pad1 = 1, .pad0 = 3, .lead = 1, .shift = 2, .soa = false, .label = "source S2"},
        {.k2 = 1, .dst_k2 = 3, .pad1 = 2, .shift = 1, .label = "destination S2"},
    };
    for (const Row* row : exports()) {
        const Fam f = fam(*row);
        fh::with_type(*row, [&](auto t) {
            using T = decltype(t);
            for (int n : {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 12})
                for (int kind = 0; kind < 3; ++kind) {  // distinct, repeated, clustered
                    // exactly repeated eigenvalues can cut a rotation chain (the
                    // vectors far off, the values right), the more often the
                    // higher their multiplicity: up to order 9 only
                    if (kind == 1 && n > 9) continue;
                    SCOPED_TRACE(std::string(row->name) + " order " + std::to_string(n) + " kind " + std::to_string(kind));
                    std::mt19937 g(unsigned(n * 131 + kind));
                    std::uniform_real_distribution<double> d(0.5, 4.0);
                    std::vector<Mat> mats(f.a ? 5 : 1);
                    std::vector<Out<T>> one;
                    for (auto& m : mats) {
                        std::vector<double> lam(n);
                        for (int i = 0; i < n; ++i)
                            lam[i] = kind == 0 ? (g() % 2 ? d(g) : -d(g)) : kind == 1 ? (i < (n + 1) / 2 ? 2.0 : -1.5)
                                                                                    : 1.0 + 1e-5 * i;
                        m = spectrum_matrix(lam, g);
                        one.push_back(run<T>(fh::standard_of(*row), n, {m}));
                        ASSERT_EQ(one.back().st, zelStsOk);
                        expect_agrees<T>(m, n, one.back().vals.data(), f.v ? one.back().vecs.data() : nullptr,
                                         64 * n * es::kEps<T>);
                    }
                    for (const auto& L : layouts) {
                        SCOPED_TRACE(L.label);
                        const Out<T> r = run<T>(*row, n, mats, L);
                        EXPECT_EQ(r.st, zelStsOk);
                        EXPECT_TRUE(same_buf(r, &one.back()));
                        for (int o = 0; o < int(mats.size()); ++o) EXPECT_TRUE(same(r, o, o + 1, &one[o], 0)) << o;
                    }
                }
        });
    }
}

// ---------------------------------------------------------------------------
// Worked examples and failures. A case runs on every export; array exports
// get the case's matrix as object 1 between two good ones.
struct Want {
    zelStatus st;
    Mat vals{}, vecs{}, buf{};  // the case's object afterwards (not checked where empty or NaN)
    double tol = 0;             // relative
    bool untouched = false;     // results of the case's object left as they were
};
struct Case {
    const char* label;
    Mat a32, a64;  // the matrix (a64 empty: a32 for both types)
    Want (*want)(Fam);
    Mat like32{}, like64{};  // the arrays with vectors give the bits of this matrix too
};

Mat diag(std::vector<double> d) {
    const int n = int(d.size());
    Mat m(n * n, 0.0);
    for (int i = 0; i < n; ++i) m[i * n + i] = d[i];
    return m;
}
// The unit vectors e[p[0]], e[p[1]] ... as columns.
Mat columns(std::vector<int> p) {
    const int n = int(p.size());
    Mat m(n * n, 0.0);
    for (int j = 0; j < n; ++j) m[p[j] * n + j] = 1.0;
    return m;
}
const zelStatus kOk = zelStsOk, kSingular = zelStsErrSingular;
const double kAny = NAN, kB32 = 1e20, kB64 = 1e200;

// A column below the subdiagonal of 1 x: the arrays with vectors pass over
// the reflection when sigma = x^2 <= eps, the single matrix only when
// x = alpha; a reflection of this column flips eigenvector e1 (component 1
// of the second column).
Mat small_column(double x) { return {1, x, 0, x, 2, 0, 0, 0, 3}; }
Want flips_e1(bool flip) { return {kOk, {3, 2, 1}, {kAny, kAny, kAny, kAny, flip ? -1.0 : 1.0, kAny, kAny, kAny, kAny}, {}, 1e-5}; }

const Case kCases[] = {
    {"order 2 negative trace: ascending", {-3, 0, 0, -1}, {}, [](Fam) { return Want{kOk, {-3, -1}, {-1, 0, 0, -1}}; }},
    {"order 2 positive trace: descending", {1, 0, 0, 3}, {}, [](Fam) { return Want{kOk, {3, 1}, {0, -1, 1, 0}}; }},
    {"order 2 singular, (1,0) not read, nothing written", {1, 1, 7, 1}, {},
     [](Fam) { return Want{kSingular, {}, {}, {1, 1, 7, 1}, 0, true}; }},
    // the tolerances are inclusive: a determinant or product of exactly eps is singular
    {"order 2 determinant eps", {1, 0, 0, 0x1p-23}, {1, 0, 0, 0x1p-52}, [](Fam) { return Want{kSingular, {}, {}, {}, 0, true}; }},
    {"product eps", diag({1, 1, 0x1p-23}), diag({1, 1, 0x1p-52}),
     [](Fam f) { return Want{kSingular, {1, 1, f.is64 ? 0x1p-52 : 0x1p-23}}; }},
    // singular with its results: unsorted but for the single matrix with vectors
    {"singular diag(1, 0, 3)", diag({1, 0, 3}), {}, [](Fam f) {
         return f.v && !f.a ? Want{kSingular, {3, 1, 0}, columns({2, 0, 1}), diag({1, 0, 3})}
                            : Want{kSingular, {1, 0, 3}, columns({0, 1, 2}), diag({1, 0, 3})};
     }},
    // product 1e-9: below the 32f tolerance; the 64f arrays with vectors test against it too
    {"0.001 I", diag({1e-3, 1e-3, 1e-3}), {},
     [](Fam f) { return Want{!f.is64 || (f.v && f.a) ? kSingular : kOk, Mat(3, f.is64 ? 1e-3 : double(float(1e-3)))}; }},
    // the product of 1e-23, 1e-23, 1e38, 1e38 in this order is 0 in 32-bit
    // arithmetic, in descending order infinite: 32f values test it unsorted,
    // single matrices with vectors sorted, arrays with vectors in 64 bits
    {"product out of 32-bit range", diag({1e-23, 1e-23, 1e38, 1e38}), {}, [](Fam f) {
         const double lo = f.is64 ? 1e-23 : double(float(1e-23)), hi = f.is64 ? 1e38 : double(float(1e38));
         return f.is64 || f.v ? Want{kOk, {hi, hi, lo, lo}} : Want{kSingular, {lo, lo, hi, hi}};
     }},
    // a subdiagonal too large to square: every sweep rotates by nothing until
    // the budget runs out; the 32f arrays with vectors rotate in 64 bits and
    // find 1.5 +- sqrt(0.25 + b^2) and 1
    {"sweep budget", {1, 0, 0, 0, 1, kB32, 0, kB32, 2}, {1, 0, 0, 0, 1, kB64, 0, kB64, 2}, [](Fam f) {
         return !f.is64 && f.v && f.a ? Want{kOk, {kB32, 1, -kB32}, {}, {}, 1e-6} : Want{zelStsErrNoConvergence};
     }},
    {"small column, negative", small_column(-2.5e-4), small_column(-1e-8), [](Fam f) { return flips_e1(!f.a); }},
    {"small column, positive", small_column(2.5e-4), small_column(1e-8), [](Fam) { return flips_e1(false); }},
    {"larger column, negative", small_column(-1e-3), small_column(-4e-8), [](Fam) { return flips_e1(true); }},
    // (x, y) below the diagonal with x^2 + y^2 = eps exactly: the arrays with
    // vectors pass the reflection over (the tolerance is inclusive), so the
    // entries below the subdiagonal count for nothing
    {"column at the tolerance", {1, 0x1p-12, 0x1p-12, 0x1p-12, 2, 0.25, 0x1p-12, 0.25, 3}, {1, 0, 0x1p-26, 0, 2, 0.25, 0x1p-26, 0.25, 3},
     [](Fam) { return Want{kOk}; }, {1, 0x1p-12, 0, 0x1p-12, 2, 0.25, 0, 0.25, 3}, {1, 0, 0, 0, 2, 0.25, 0, 0.25, 3}},
};

template <class T>
void expect_near(const std::vector<T>& got, int from, const Mat& want, double tol, const char* what) {
    for (std::size_t i = 0; i < want.size(); ++i)
        EXPECT_TRUE(std::isnan(want[i]) || std::abs(got.at(from + i) - want[i]) <= tol * std::max(1.0, std::abs(want[i])))
            << what << " " << i << ": " << got.at(from + i) << " want " << want[i];
}

TEST(EigenSym, ExamplesAndFailureStates) {
    for (const Row* row : exports())
        for (const Case& cs : kCases) {
            SCOPED_TRACE(std::string(row->name) + ": " + cs.label);
            const Fam f = fam(*row);
            const Mat& bad = f.is64 && !cs.a64.empty() ? cs.a64 : cs.a32;
            const int n = int(std::lround(std::sqrt(bad.size()))), k = f.a ? 1 : 0;
            Mat good(n * n, 0.25);
            for (int i = 0; i < n; ++i) good[i * n + i] = 1.0 + i;
            fh::with_type(*row, [&](auto t) {
                using T = decltype(t);
                const auto call = [&](const Mat& m) { return run<T>(*row, n, f.a ? std::vector<Mat>{good, m, good} : std::vector<Mat>{m}); };
                const Out<T> r = call(bad);
                const Want w = cs.want(f);
                ASSERT_EQ(r.st, w.st);
                if (f.a) expect_agrees<T>(good, n, &r.vals[0], f.v ? &r.vecs[0] : nullptr, 1e-5);
                EXPECT_TRUE(!f.a || w.st == kOk || same(r, 2, 3));  // the kernel stops at the failing object
                EXPECT_TRUE(!w.untouched || same(r, k, k + 1));
                expect_near(r.vals, k * n, w.vals, w.tol, "values");
                if (f.v) expect_near(r.vecs, k * n * n, w.vecs, w.tol, "vectors");
                expect_near(r.buf, 0, w.buf, 0, "buffer");
                if (f.v && f.a && !cs.like32.empty()) {
                    const Out<T> like = call(f.is64 ? cs.like64 : cs.like32);
                    EXPECT_TRUE(same(r, k, k + 1, &like));
                }
            });
        }
}

// ---------------------------------------------------------------------------
// Fan-out: the limits, worked out by hand from the estimates n (n + 1) count
// (values, against 20000; 40000 in the 32f list form with unit stride2) and
// n (2n + 1) count (vectors, against 1700): the largest count that stays on
// the calling thread, and one more, the same on 1 thread, 4 and 4 without
// scratch. Then a failing object: one thread stops at it, four threads in
// its slice only; a failing allocation runs one thread on the caller's buffer.
TEST(EigenSym, FanOut) {
    const int n = 3, count = 3500, bad = 2000;  // 4 slices of 875: the third holds object 2000
    std::mt19937 g(7);
    std::vector<Mat> good(count);
    for (auto& m : good) m = spectrum_matrix({3.0, -1.0, 0.5}, g);
    std::vector<Mat> failing = good;
    failing[bad] = diag({1, 0, 3});
    for (const Row* row : exports()) {
        const Fam f = fam(*row);
        if (!f.a) continue;
        SCOPED_TRACE(row->name);
        fh::with_type(*row, [&](auto t) {
            using T = decltype(t);
            for (int k2 = 1; k2 <= 2; ++k2) {
                const int direct = f.v ? 80 : !f.is64 && row->form[0] == 'L' && k2 == 1 ? 3333 : 1666;
                lay::Layout L;
                L.k2 = k2;
                for (int c : {direct, direct + 1})
                    fh::expect_same_on_threads([&] { return laid<T>(*row, n, {good.begin(), good.begin() + c}, L); }, c > direct,
                                               "count " + std::to_string(c) + " stride2 " + std::to_string(k2));
            }
            const Out<T> ref = run<T>(*row, n, good);
            Out<T> one, four, starved;
            for (int mode = 0; mode < 3; ++mode) {
                subst::Scope s(mode ? 4 : 1, -1, mode == 2);
                (mode == 0 ? one : mode == 1 ? four : starved) = run<T>(*row, n, failing);
                EXPECT_TRUE(mode == 2 || (subst::mallocs == mode && subst::frees == mode)) << mode;
            }
            EXPECT_TRUE(one.st == zelStsErrSingular && four.st == zelStsErrSingular && starved.st == zelStsErrSingular);
            EXPECT_TRUE(same_buf(four));  // the scratch came from the wrapper
            EXPECT_TRUE(same(starved, 0, count, &one) && same_buf(starved, &one) && !same_buf(one));
            EXPECT_TRUE(same(one, 0, bad, &ref) && same(four, 0, bad, &ref));
            EXPECT_TRUE(same(one, bad + 1, count));
            EXPECT_TRUE(same(four, bad + 1, 2625) && same(four, 2625, count, &ref));
        });
    }
}

}  // namespace
