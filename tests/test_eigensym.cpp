// Symmetric eigenproblem, all 20 exports through the forms harness: spectra
// Q diag Q^T of orders 1 to 9 (distinct, repeated, clustered) against Eigen's
// solver, with orthonormal eigenvectors and small residuals, in the documented
// order; every form and stride against the standard call, bit for bit; the
// worked examples; the singular and non-convergent states with what stands in
// the results and the buffer; the reflections each family passes over; the
// fan-out with its scratch, its thresholds and a failing allocation.
#include <gtest/gtest.h>

#include <Eigen/Dense>
#include <cmath>
#include <functional>
#include <random>
#include <string>
#include <vector>

#include "eigen/eigensym_table.hpp"
#include "forms_harness.hpp"
#include "substitutes.hpp"

namespace {

namespace es = zel::eigensym;
using Mat = std::vector<double>;  // row-major n x n

struct Fam {
    const reg::ExportRow* row;
    bool vectors, array, is64;
    std::string name() const { return row->name; }
};

std::vector<Fam> family() {
    std::vector<Fam> out;
    for (const auto* r : fh::exports_of({"EigenValuesSym", "EigenValuesVectorsSym"}))
        out.push_back({r, std::string(r->op) == "EigenValuesVectorsSym", std::string(r->sig) == "ma", fh::is64(*r)});
    return out;
}

// The standard form of an export's operation, signature and type.
const Fam& standard_of(const Fam& f) {
    static const auto all = family();
    for (const auto& g : all)
        if (g.vectors == f.vectors && g.array == f.array && g.is64 == f.is64 && std::string(g.row->form) == "S")
            return g;
    throw std::runtime_error("no standard form");
}

template <class T>
struct Out {
    zelStatus st;
    std::vector<T> vals, buf;
    std::vector<std::vector<T>> vecs;  // per object, row-major
    bool guards;
};

// One call on `mats` (one per object, rounded to T).
template <class T>
Out<T> run(const Fam& f, int n, const std::vector<Mat>& mats, const lay::Layout& L = {}) {
    const int count = int(mats.size());
    fh::Shapes shapes{{"Src", {n, n}}};
    if (f.vectors) shapes["DstVectors"] = {n, n};
    fh::Laid<T> l(*f.row, count, shapes, {{"pBuffer", n * n}, {"pDstValues", n * count}}, L);
    l.num("widthHeight", n);
    for (int o = 0; o < count; ++o) l.set("Src", o, std::vector<T>(mats[o].begin(), mats[o].end()));
    Out<T> r;
    r.st = l.call();
    r.vals.assign(l.block("pDstValues"), l.block("pDstValues") + n * count);
    r.buf.assign(l.block("pBuffer"), l.block("pBuffer") + n * n);
    if (f.vectors)
        for (int o = 0; o < count; ++o) r.vecs.push_back(l.get("DstVectors", o));
    r.guards = l.guards_intact();
    return r;
}

template <class T>
bool same(T a, T b) {
    return std::memcmp(&a, &b, sizeof a) == 0;
}
template <class T>
bool untouched(const std::vector<T>& v, std::size_t from, std::size_t to) {
    for (std::size_t k = from; k < to; ++k)
        if (!same(v[k], lay::sentinel<T>())) return false;
    return true;
}
template <class T>
bool same_bits(const std::vector<T>& a, const std::vector<T>& b) {
    return a.size() == b.size() && std::memcmp(a.data(), b.data(), a.size() * sizeof(T)) == 0;
}

// Q diag(lambda) Q^T with a random orthogonal Q, symmetric as stored.
Mat spectrum_matrix(const std::vector<double>& lambda, std::mt19937& g) {
    const int n = int(lambda.size());
    std::normal_distribution<double> d;
    Eigen::MatrixXd X(n, n);
    for (int i = 0; i < n * n; ++i) X.data()[i] = d(g);
    const Eigen::MatrixXd Q = Eigen::HouseholderQR<Eigen::MatrixXd>(X).householderQ();
    const Eigen::VectorXd D = Eigen::Map<const Eigen::VectorXd>(lambda.data(), n);
    const Eigen::MatrixXd A = Q * D.asDiagonal() * Q.transpose();
    Mat m(n * n);
    for (int i = 0; i < n; ++i)
        for (int j = 0; j < n; ++j) m[i * n + j] = i <= j ? A(i, j) : A(j, i);
    return m;
}

// Eigen's view of one object as the library sees it (rounded to T), checked
// against the results: eigenvalues in the documented order within tol,
// eigenvectors orthonormal with small residuals.
template <class T>
::testing::AssertionResult agrees(const Mat& m, int n, const T* vals, const std::vector<T>* vec, double tol) {
    Eigen::MatrixXd A(n, n);
    for (int i = 0; i < n; ++i)
        for (int j = 0; j < n; ++j) A(i, j) = double(T(m[i * n + j]));
    Eigen::VectorXd ev = Eigen::SelfAdjointEigenSolver<Eigen::MatrixXd>(A, Eigen::EigenvaluesOnly).eigenvalues();
    std::vector<double> want(ev.data(), ev.data() + n);
    std::reverse(want.begin(), want.end());  // descending
    // order 2 puts the eigenvalue of larger magnitude first: ascending when the trace is negative
    if (n == 2 && T(T(m[0]) + T(m[3])) < -T(es::kEps<T>)) std::reverse(want.begin(), want.end());
    for (int i = 0; i < n; ++i)
        if (!(std::abs(double(vals[i]) - want[i]) <= tol))
            return ::testing::AssertionFailure() << "eigenvalue " << i << ": " << vals[i] << " want " << want[i];
    if (!vec) return ::testing::AssertionSuccess();
    Eigen::MatrixXd V(n, n);
    for (int i = 0; i < n * n; ++i) V(i / n, i % n) = double((*vec)[i]);
    const double orth = (V.transpose() * V - Eigen::MatrixXd::Identity(n, n)).cwiseAbs().maxCoeff();
    Eigen::VectorXd lam(n);
    for (int i = 0; i < n; ++i) lam[i] = double(vals[i]);
    const double res = (A * V - V * lam.asDiagonal()).cwiseAbs().maxCoeff();
    if (!(orth <= tol) || !(res <= tol))
        return ::testing::AssertionFailure() << "eigenvectors: |V^T V - I| " << orth << ", |A V - V L| " << res;
    return ::testing::AssertionSuccess();
}

// ---------------------------------------------------------------------------
// Spectra against Eigen; every form, stride and padding against the standard
// call on the same matrices, bit for bit (values, vectors and the buffer).
const lay::Layout kLayouts[] = {
    {},
    {.k2 = 2, .dst_k2 = 1, .pad1 = 1, .pad0 = 3, .lead = 1, .shift = 2, .soa = false, .label = "source S2"},
    {.k2 = 1, .dst_k2 = 3, .pad1 = 2, .shift = 1, .label = "destination S2"},
};

struct Spectrum {
    const char* label;
    std::function<double(int i, int n, std::mt19937&)> lambda;
};
const Spectrum kSpectra[] = {
    {"distinct", [](int, int, std::mt19937& g) {
         std::uniform_real_distribution<double> d(0.5, 4.0);
         return g() % 2 ? d(g) : -d(g);
     }},
    {"repeated", [](int i, int n, std::mt19937&) { return i < (n + 1) / 2 ? 2.0 : -1.5; }},
    {"clustered", [](int i, int, std::mt19937&) { return 1.0 + 1e-5 * i; }},
};

TEST(EigenSym, SpectraAgainstEigenAndFormsAgainstStandard) {
    for (const Fam& f : family()) {
        fh::with_type(*f.row, [&](auto t) {
            using T = decltype(t);
            const double eps = es::kEps<T>;
            for (int n = 1; n <= 9; ++n)
                for (const Spectrum& sp : kSpectra) {
                    SCOPED_TRACE(f.name() + " order " + std::to_string(n) + " " + sp.label);
                    std::mt19937 g(unsigned(n * 131 + sp.label[0]));
                    std::vector<Mat> mats(f.array ? 5 : 1);  // arrays: 64-bit lanes take 4 and 1
                    for (auto& m : mats) {
                        std::vector<double> lam(n);
                        for (int i = 0; i < n; ++i) lam[i] = sp.lambda(i, n, g);
                        m = spectrum_matrix(lam, g);
                    }
                    const Out<T> ref = run<T>(standard_of(f), n, mats);
                    ASSERT_EQ(ref.st, zelStsOk);
                    for (std::size_t o = 0; o < mats.size(); ++o)
                        EXPECT_TRUE(agrees<T>(mats[o], n, &ref.vals[o * n], f.vectors ? &ref.vecs[o] : nullptr,
                                              16 * n * eps * 4));
                    // objects in vector lanes as one object alone, bit for bit
                    for (std::size_t o = 0; f.array && o < mats.size(); ++o) {
                        const Out<T> one = run<T>(standard_of(f), n, {mats[o]});
                        const auto v0 = ref.vals.begin() + std::ptrdiff_t(o * n);
                        EXPECT_TRUE(same_bits(one.vals, std::vector<T>(v0, v0 + n)));
                        EXPECT_TRUE(!f.vectors || same_bits(one.vecs[0], ref.vecs[o]));
                        EXPECT_TRUE(o + 1 < mats.size() || same_bits(one.buf, ref.buf));
                    }
                    for (const auto& L : kLayouts) {
                        SCOPED_TRACE(L.label);
                        const Out<T> r = run<T>(f, n, mats, L);
                        EXPECT_EQ(r.st, zelStsOk);
                        EXPECT_TRUE(same_bits(r.vals, ref.vals));
                        EXPECT_TRUE(same_bits(r.buf, ref.buf));
                        for (std::size_t o = 0; o < r.vecs.size(); ++o) EXPECT_TRUE(same_bits(r.vecs[o], ref.vecs[o]));
                        EXPECT_TRUE(r.guards);
                    }
                }
        });
    }
}

// ---------------------------------------------------------------------------
// Worked examples and failures. A case runs on every export; array exports
// get the case's matrix as object 1 between two good ones.
struct Case {
    const char* label;
    int n;
    std::function<Mat(bool is64)> matrix;
    // expected status for the export, and a check of its object's results
    std::function<zelStatus(const Fam&)> status;
    std::function<void(const Fam&, const std::vector<double>& vals, const std::vector<double>& vec,
                       const std::vector<double>& buf)>
        check;
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
auto ok = [](const Fam&) { return zelStsOk; };
auto singular = [](const Fam&) { return zelStsErrSingular; };
void expect_near(const std::vector<double>& got, const std::vector<double>& want, double tol) {
    ASSERT_EQ(got.size(), want.size());
    for (std::size_t i = 0; i < got.size(); ++i) EXPECT_NEAR(got[i], want[i], tol) << "element " << i;
}

// A column below the subdiagonal of 1 x: the arrays with vectors pass over
// the reflection when sigma = x^2 <= eps, the single matrix only when
// x = alpha; a reflection of this column flips eigenvector e1.
Mat small_column(bool is64, double scale) {
    const double x = scale * (is64 ? 1e-8 : 2.5e-4);
    return {1, x, 0, x, 2, 0, 0, 0, 3};
}
std::function<void(const Fam&, const std::vector<double>&, const std::vector<double>&, const std::vector<double>&)>
flips_e1(std::function<bool(const Fam&)> flipped) {
    return [flipped](const Fam& f, const std::vector<double>& vals, const std::vector<double>& vec,
                     const std::vector<double>&) {
        expect_near(vals, {3, 2, 1}, 1e-5);
        if (f.vectors) {
            EXPECT_NEAR(vec[1 * 3 + 1], flipped(f) ? -1.0 : 1.0, 1e-5);
        }
    };
}

const Case kCases[] = {
    {"order 1 zero", 1, [](bool) { return Mat{0}; }, ok,
     [](const Fam& f, auto& v, auto& vec, auto&) {
         EXPECT_EQ(v, std::vector<double>{0});
         if (f.vectors) {
             EXPECT_EQ(vec, std::vector<double>{1});
         }
     }},
    {"order 2 negative trace: ascending", 2, [](bool) { return Mat{-3, 0, 0, -1}; }, ok,
     [](const Fam& f, auto& v, auto& vec, auto&) {
         EXPECT_EQ(v, (std::vector<double>{-3, -1}));
         if (f.vectors) expect_near(vec, {-1, 0, 0, -1}, 0);
     }},
    {"order 2 positive trace: descending", 2, [](bool) { return Mat{1, 0, 0, 3}; }, ok,
     [](const Fam& f, auto& v, auto& vec, auto&) {
         EXPECT_EQ(v, (std::vector<double>{3, 1}));
         if (f.vectors) expect_near(vec, {0, -1, 1, 0}, 0);
     }},
    {"order 2 singular, (1,0) not read", 2, [](bool) { return Mat{1, 1, 7, 1}; }, singular,
     [](const Fam&, auto&, auto&, auto& buf) { EXPECT_EQ(buf, (std::vector<double>{1, 1, 7, 1})); }},
    {"order 3 example", 3, [](bool) { return Mat{1, 1, 1, 1, 0, 0, 1, 0, 1}; }, ok,
     [](const Fam&, auto& v, auto&, auto&) { expect_near(v, {2.2469796, 0.55495813, -0.80193774}, 1e-6); }},
    {"diagonal: sorted, vectors a permutation", 4, [](bool) { return diag({2, -1, 5, 3}); }, ok,
     [](const Fam& f, auto& v, auto& vec, auto&) {
         EXPECT_EQ(v, (std::vector<double>{5, 3, 2, -1}));
         if (f.vectors) {
             EXPECT_EQ(vec, columns({2, 3, 0, 1}));
         }
     }},
    {"zero matrix", 4, [](bool) { return Mat(16, 0.0); }, singular,
     [](const Fam& f, auto& v, auto& vec, auto&) {
         EXPECT_EQ(v, (std::vector<double>(4, 0.0)));
         if (f.vectors) {
             EXPECT_EQ(vec, columns({0, 1, 2, 3}));
         }
     }},
    // singular with its results: unsorted but for the single matrix with vectors
    {"singular diag(1, 0, 3)", 3, [](bool) { return diag({1, 0, 3}); }, singular,
     [](const Fam& f, auto& v, auto& vec, auto& buf) {
         const bool sorted = f.vectors && !f.array;
         EXPECT_EQ(v, sorted ? (Mat{3, 1, 0}) : (Mat{1, 0, 3}));
         if (f.vectors) {
             EXPECT_EQ(vec, sorted ? columns({2, 0, 1}) : columns({0, 1, 2}));
         }
         EXPECT_EQ(buf, diag({1, 0, 3}));
     }},
    // product 1e-9: below the 32f tolerance; the 64f arrays with vectors test against it too
    {"0.001 I", 3, [](bool) { return diag({1e-3, 1e-3, 1e-3}); },
     [](const Fam& f) { return !f.is64 || (f.vectors && f.array) ? zelStsErrSingular : zelStsOk; },
     [](const Fam& f, auto& v, auto&, auto&) {
         const double x = f.is64 ? 1e-3 : double(float(1e-3));
         EXPECT_EQ(v, (std::vector<double>(3, x)));
     }},
    // the product of 1e-23, 1e-23, 1e38, 1e38 in this order is 0 in 32-bit
    // arithmetic, in descending order infinite: 32f values test it unsorted,
    // single matrices with vectors sorted, arrays with vectors in 64 bits
    {"product out of 32-bit range", 4, [](bool) { return diag({1e-23, 1e-23, 1e38, 1e38}); },
     [](const Fam& f) { return f.is64 || f.vectors ? zelStsOk : zelStsErrSingular; },
     [](const Fam& f, auto& v, auto&, auto&) {
         const double lo = f.is64 ? 1e-23 : double(float(1e-23)), hi = f.is64 ? 1e38 : double(float(1e38));
         EXPECT_EQ(v, f.is64 || f.vectors ? (Mat{hi, hi, lo, lo}) : (Mat{lo, lo, hi, hi}));
     }},
    // a subdiagonal too large to square: every sweep rotates by nothing until
    // the budget runs out; the 32f arrays with vectors rotate in 64 bits and
    // find 1.5 +- sqrt(0.25 + b^2) and 1
    {"sweep budget", 3,
     [](bool is64) {
         const double b = is64 ? 1e200 : 1e20;
         return Mat{1, 0, 0, 0, 1, b, 0, b, 2};
     },
     [](const Fam& f) { return !f.is64 && f.vectors && f.array ? zelStsOk : zelStsErrNoConvergence; },
     [](const Fam& f, auto& v, auto&, auto&) {
         if (!f.is64 && f.vectors && f.array) expect_near({v[0] / 1e20, v[1], v[2] / 1e20}, {1, 1, -1}, 1e-6);
     }},
    {"small column, negative", 3, [](bool is64) { return small_column(is64, -1); }, ok,
     flips_e1([](const Fam& f) { return !f.array; })},
    {"small column, positive", 3, [](bool is64) { return small_column(is64, 1); }, ok,
     flips_e1([](const Fam&) { return false; })},
    {"larger column, negative", 3, [](bool is64) { return small_column(is64, -4); }, ok,
     flips_e1([](const Fam&) { return true; })},
};

template <class T>
void run_case(const Fam& f, const Case& cs) {
    const int n = cs.n;
    const Mat bad = cs.matrix(f.is64);
    Mat good(n * n);
    for (int i = 0; i < n * n; ++i) good[i] = i / n == i % n ? 1.0 + i / n : 0.25;
    const std::vector<Mat> mats = f.array ? std::vector<Mat>{good, bad, good} : std::vector<Mat>{bad};
    const Out<T> r = run<T>(f, n, mats);
    const int k = f.array ? 1 : 0;
    const zelStatus want = cs.status(f);
    ASSERT_EQ(r.st, want);
    EXPECT_TRUE(r.guards);
    if (f.array) {
        EXPECT_TRUE(agrees<T>(good, n, &r.vals[0], f.vectors ? &r.vecs[0] : nullptr, 1e-5));
        if (want != zelStsOk) {  // the kernel stops at the failing object
            EXPECT_TRUE(untouched(r.vals, 2 * n, 3 * n));
            if (f.vectors) {
                EXPECT_TRUE(untouched(r.vecs[2], 0, n * n));
            }
        }
    }
    const auto dbl = [](auto b, auto e) { return std::vector<double>(b, e); };
    if (n == 2 && want == zelStsErrSingular) {  // nothing written
        EXPECT_TRUE(untouched(r.vals, k * n, k * n + n));
        if (f.vectors) {
            EXPECT_TRUE(untouched(r.vecs[k], 0, n * n));
        }
    }
    cs.check(f, dbl(r.vals.begin() + k * n, r.vals.begin() + k * n + n),
             f.vectors ? dbl(r.vecs[k].begin(), r.vecs[k].end()) : std::vector<double>{},
             dbl(r.buf.begin(), r.buf.end()));
}

TEST(EigenSym, ExamplesAndFailureStates) {
    for (const Fam& f : family())
        for (const Case& cs : kCases) {
            SCOPED_TRACE(f.name() + ": " + cs.label);
            fh::with_type(*f.row, [&](auto t) { run_case<decltype(t)>(f, cs); });
        }
}

// ---------------------------------------------------------------------------
// Fan-out: 4 threads against 1, bit for bit, with per-thread scratch (the
// caller's buffer untouched), a failing object, a failing allocation; the
// thresholds, worked out by hand from the estimates n (n + 1) count (values)
// and n (2n + 1) count (vectors).
TEST(EigenSym, FanOut) {
    const int n = 3, count = 3500, bad = 2000;  // 4 slices of 875: the third holds object 2000
    std::mt19937 g(7);
    std::vector<Mat> mats(count);
    for (auto& m : mats) m = spectrum_matrix({3.0, -1.0, 0.5}, g);
    std::vector<Mat> with_bad = mats;
    with_bad[bad] = diag({1, 0, 3});
    for (const Fam& f : family()) {
        if (!f.array) continue;
        SCOPED_TRACE(f.name());
        fh::with_type(*f.row, [&](auto t) {
            using T = decltype(t);
            // objects [from, to) of b as in a
            const auto same_objects = [&](const Out<T>& a, const Out<T>& b, int from, int to) {
                bool eq = std::memcmp(&a.vals[from * n], &b.vals[from * n], sizeof(T) * n * (to - from)) == 0;
                for (int o = from; o < to && f.vectors; ++o) eq = eq && same_bits(a.vecs[o], b.vecs[o]);
                return eq;
            };
            Out<T> ref;
            for (const auto* ms : {&mats, &with_bad}) {
                const bool failing = ms == &with_bad;
                Out<T> one, four, starved;
                {
                    subst::Scope s(1);
                    one = run<T>(f, n, *ms);
                    EXPECT_EQ(subst::mallocs, 0);
                }
                {
                    subst::Scope s(4);
                    four = run<T>(f, n, *ms);
                    EXPECT_EQ(subst::mallocs, 1);
                    EXPECT_EQ(subst::frees, 1);
                }
                {
                    subst::Scope s(4, -1, true);
                    starved = run<T>(f, n, *ms);
                }
                const zelStatus want = failing ? zelStsErrSingular : zelStsOk;
                EXPECT_EQ(one.st, want);
                EXPECT_EQ(four.st, want);
                EXPECT_EQ(starved.st, want);
                EXPECT_TRUE(untouched(four.buf, 0, n * n));      // the scratch came from the wrapper
                EXPECT_FALSE(untouched(starved.buf, 0, n * n));  // none: the caller's buffer, one thread
                EXPECT_TRUE(same_objects(starved, one, 0, count));
                if (!failing) {
                    ref = one;
                    EXPECT_TRUE(same_objects(four, ref, 0, count));
                    continue;
                }
                // one thread stops at the failing object, four threads in its slice only
                EXPECT_TRUE(same_objects(one, ref, 0, bad));
                EXPECT_TRUE(untouched(one.vals, std::size_t(bad + 1) * n, std::size_t(count) * n));
                EXPECT_TRUE(same_objects(four, ref, 0, bad));
                EXPECT_TRUE(untouched(four.vals, std::size_t(bad + 1) * n, std::size_t(2625) * n));
                EXPECT_TRUE(same_objects(four, ref, 2625, count));
            }
        });
    }
}

struct Boundary {
    const char* name;
    int n, direct;  // the largest count that stays on the calling thread
    bool strided;
};
const Boundary kBoundaries[] = {
    // values, 4 * 5 * count against 20000 (40000 in the 32f list form with unit stride2)
    {"zelmEigenValuesSym_ma_32f", 4, 1000, false},
    {"zelmEigenValuesSym_ma_64f", 4, 1000, true},
    {"zelmEigenValuesSym_ma_32f_L", 4, 2000, false},
    {"zelmEigenValuesSym_ma_32f_L", 4, 1000, true},
    {"zelmEigenValuesSym_ma_64f_L", 4, 1000, false},
    {"zelmEigenValuesSym_ma_32f_P", 4, 1000, false},
    // vectors, 2 * 5 * count against 1700
    {"zelmEigenValuesVectorsSym_ma_32f", 2, 170, true},
    {"zelmEigenValuesVectorsSym_ma_64f_L", 2, 170, false},
    {"zelmEigenValuesVectorsSym_ma_32f_P", 2, 170, false},
};

TEST(EigenSym, FanOutThresholds) {
    for (const auto& b : kBoundaries) {
        for (const Fam& f : family()) {
            if (f.name() != b.name) continue;
            fh::with_type(*f.row, [&](auto t) {
                using T = decltype(t);
                lay::Layout L;
                if (b.strided) L.k2 = 2;
                for (int count : {b.direct, b.direct + 1}) {
                    SCOPED_TRACE(f.name() + " count " + std::to_string(count) + (b.strided ? " S2" : ""));
                    std::vector<Mat> mats(count, diag(std::vector<double>(b.n, 2.0)));
                    subst::Scope s(4);
                    EXPECT_EQ(run<T>(f, b.n, mats, L).st, zelStsOk);
                    EXPECT_EQ(subst::mallocs, count == b.direct ? 0 : 1);
                }
            });
        }
    }
}

}  // namespace
