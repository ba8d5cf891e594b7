// Cholesky decomposition and back-substitution: every export, order 1 to 9,
// every form and layout, bit for bit against the factorisation written out
// (reciprocal diagonal, the 32f estimate plus its Newton step), with what
// stands after a matrix that is not positive definite, L L^T = A, solutions
// against Eigen, the radicand tests, the documented examples, in-place calls
// and the fan-out. The upper triangle of every source is NaN and, in the
// pointer form, its element pointers null: reading it shows.
#include <gtest/gtest.h>
#include <xmmintrin.h>

#include <cmath>
#include <tuple>

#include "triangular_harness.hpp"

namespace {

using namespace tri_test;

template <class T>
T rsqrt_ref(T d) {
    if constexpr (sizeof(T) == 8) {
        return 1.0 / std::sqrt(d);
    } else {
        const float r0 = _mm_cvtss_f32(_mm_rsqrt_ss(_mm_set_ss(d)));
        return (r0 * -0.5f) * (d * r0 * r0 - 3.0f);
    }
}

// The factorisation row by row, and which destination elements stand when
// it returns: each as computed, or (fixed-order pointer form) each row once
// its radicand has passed.
template <class T>
struct CholRef {
    Vec<T> f;
    std::vector<char> stored;
    zelStatus st = zelStsOk;
};

template <class T>
CholRef<T> chol_ref(const Vec<T>& A, int n, bool pointer_form) {
    const bool rows = pointer_form && n >= 3 && n <= 6;
    const T bound = pointer_form && n == 3 ? T(0x1p-23) : T(0);
    CholRef<T> e{Vec<T>(n * n, T(0)), std::vector<char>(n * n, 0)};
    auto F = [&](int i, int j) -> T& { return e.f[i * n + j]; };
    for (int i = 0; i < n; ++i) {
        for (int j = 0; j < i; ++j) {
            Vec<T> t;
            for (int k = 0; k < j; ++k) t.push_back(F(i, k) * F(j, k));
            F(i, j) = partial(t, A[i * n + j], -1, 1) * F(j, j);
            e.stored[i * n + j] = !rows;
        }
        Vec<T> t;
        for (int k = 0; k < i; ++k) t.push_back(F(i, k) * F(i, k));
        const T d = partial(t, A[i * n + i], -1, 1);
        if (d <= bound) return e.st = zelStsErrNotPosDefinite, e;
        F(i, i) = rsqrt_ref(d);
        std::fill_n(e.stored.begin() + i * n, i + 1, 1);
    }
    return e;
}

template <class T>
Vec<T> solve_ref(const Vec<T>& f, const Vec<T>& b, int n) {
    const bool fixed = n >= 3 && n <= 6;
    Vec<T> x(b);
    auto sub = [&](T v, const Vec<T>& t) {
        if (!fixed) return v - partial(t, T(0), 1, 2);
        for (T p : t) v -= p;
        return v;
    };
    for (int i = 0; i < n; ++i) {
        Vec<T> t;
        for (int j = 0; j < i; ++j) t.push_back(f[i * n + j] * x[j]);
        x[i] = sub(x[i], t) * f[i * n + i];
    }
    for (int i = n - 1; i >= 0; --i) {
        Vec<T> t;
        for (int j = i + 1; j < n; ++j) t.push_back(f[j * n + i] * x[j]);
        x[i] = sub(x[i], t) * f[i * n + i];
    }
    return x;
}

// M M^T + n I, rows scaled apart.
template <class T>
Vec<T> spd_matrix(std::mt19937& g, int n) {
    Vec<double> M(n * n), s(n);
    for (auto& v : M) v = rand_in<double>(g, -1, 1);
    for (auto& v : s) v = rand_in<double>(g, 0.25, 4);
    Vec<T> A(n * n);
    for (int i = 0; i < n; ++i)
        for (int j = 0; j < n; ++j) {
            double v = i == j ? n : 0;
            for (int k = 0; k < n; ++k) v += M[i * n + k] * M[j * n + k];
            A[i * n + j] = T(v * s[i] * s[j]);
        }
    return A;
}

// NaN above the diagonal; in the pointer form those element pointers null.
template <class T>
void set_lower(Laid<T>& l, const std::string& g, int o, const Vec<T>& A, int n) {
    Vec<T> v(A);
    for (int i = 0; i < n; ++i)
        for (int j = i + 1; j < n; ++j) v[i * n + j] = std::nan("");
    l.set(g, o, v);
}
template <class T>
void hide_upper(Laid<T>& l, const std::string& g, int n) {
    if (l.form() != 'P') return;
    auto** tab = static_cast<T**>(l.args.ptrs.at("pp" + g));
    for (int i = 0; i < n; ++i)
        for (int j = i + 1; j < n; ++j) tab[i * n + j] = nullptr;
}

template <class T>
Vec<T> lower(Laid<T>& l, const std::string& g, int o, int n) {
    Vec<T> v(n * n, T(0));
    for (int i = 0; i < n; ++i)
        for (int j = 0; j <= i; ++j) v[i * n + j] = l.at(g, o, i, j);
    return v;
}

// max |(L L^T)(i, j) - A(i, j)| relative, L read through the reciprocals.
template <class T>
double llt_residual(const Vec<T>& A, const Vec<T>& f, int n) {
    double worst = 0, scale = 0;
    for (T v : A) scale = std::max(scale, double(std::fabs(v)));
    auto L = [&](int i, int j) { return i == j ? 1.0 / f[i * n + i] : double(f[i * n + j]); };
    for (int i = 0; i < n; ++i)
        for (int j = 0; j <= i; ++j) {
            double s = 0;
            for (int k = 0; k <= j; ++k) s += L(i, k) * L(j, k);
            worst = std::max(worst, std::fabs(s - A[i * n + j]) / scale);
        }
    return worst;
}

// A decomposition export on one matrix per object: status and destination
// memory as the reference says (objects after the first failure untouched,
// the upper triangle never), L L^T = A on the objects it completed.
template <class T>
void check_decomp(const reg::ExportRow& row, int n, const std::vector<Vec<T>>& mats, const lay::Layout& L,
                  unsigned seed, bool in_place = false) {
    SCOPED_TRACE(std::string(row.name) + " n=" + std::to_string(n) + " " + L.label + (in_place ? " in place" : ""));
    const int count = int(mats.size());
    auto l = laid<T>(row, n, count, L, seed, in_place);
    for (int o = 0; o < count; ++o) set_lower(l, "Src", o, mats[o], n);
    Image<T> img(l, "Dst");
    zelStatus want = zelStsOk;
    int done = 0;
    for (; done < count && want == zelStsOk; ++done) {
        const auto e = chol_ref(mats[done], n, row.form[0] == 'P');
        for (int k = 0; k < n * n; ++k)
            if (e.stored[k]) img.put(done, k / n, k % n, e.f[k]);
        want = e.st;
    }
    hide_upper(l, "Src", n);
    if (!in_place) hide_upper(l, "Dst", n);
    ASSERT_EQ(l.call(), want);
    EXPECT_TRUE(img.matches());
    for (int o = 0; o < done - (want != zelStsOk); ++o)
        EXPECT_LT(llt_residual(mats[o], lower(l, "Dst", o, n), n), sizeof(T) == 4 ? 1e-5 : 1e-14);
}

std::vector<const reg::ExportRow*> exports_of(const char* op) { return fh::exports_of({op}); }

TEST(Cholesky, DecompositionOfEveryExportOrderAndLayout) {
    unsigned seed = 1;
    for (const auto* row : exports_of("CholeskyDecomp"))
        for (const auto& L : layouts())
            for (int n = 1; n <= 9; ++n)
                fh::with_type(*row, [&](auto t) {
                    using T = decltype(t);
                    std::mt19937 g(seed++);
                    std::vector<Vec<T>> mats;
                    for (int o = 0; o < (is_array(*row) ? 19 : 1); ++o) mats.push_back(spd_matrix<T>(g, n));
                    check_decomp<T>(*row, n, mats, L, seed);
                    check_decomp<T>(*row, n, mats, L, seed, true);
                });
}

// Row i's radicand negative (A(i, i) = -1) or zero, in object 10 of 19
// (inside the second batch of lanes).
TEST(Cholesky, WhatStandsAfterAMatrixThatIsNotPositiveDefinite) {
    unsigned seed = 100;
    for (const auto* row : exports_of("CholeskyDecomp"))
        for (int n : {1, 2, 3, 4, 5, 6, 7, 9})
            for (int i = 0; i < n; ++i)
                fh::with_type(*row, [&](auto t) {
                    using T = decltype(t);
                    std::mt19937 g(seed++);
                    std::vector<Vec<T>> mats;
                    for (int o = 0; o < 19; ++o) mats.push_back(spd_matrix<T>(g, n));
                    mats[10][i * n + i] = i == 0 && n == 1 ? 0 : -1;
                    if (!is_array(*row)) mats = {mats[10]};
                    check_decomp<T>(*row, n, mats, layouts()[i % 2], seed);
                });
}

// Status by the last radicand of diag(1, ..., 1, d): zero fails everywhere;
// the pointer kernels at order 3 fail at or below 2^-23 in both types (16
// such objects: whole batches of lanes).
TEST(Cholesky, RadicandTests) {
    struct Case {
        int n;
        double d;
        bool fails, fails_p;
    };
    const Case cases[] = {
        {3, 1e-9, false, true}, {3, 0x1p-23, false, true}, {3, 0x1.000002p-23, false, false},
        {4, 1e-9, false, false}, {2, 1e-30, false, false}, {7, 1e-30, false, false}, {6, 0, true, true},
        {3, -1e-30, true, true}, {8, 0, true, true}, {3, std::nan(""), false, false},
    };
    for (const auto* row : exports_of("CholeskyDecomp"))
        for (const Case& k : cases)
            fh::with_type(*row, [&](auto t) {
                using T = decltype(t);
                auto l = laid<T>(*row, k.n, 16, lay::Layout{}, 1);
                l.fill("Src", [&](int, int r, int c) { return r != c ? 0.0 : r == k.n - 1 ? k.d : 1.0; });
                const bool fails = row->form[0] == 'P' ? k.fails_p : k.fails;
                EXPECT_EQ(l.call(), fails ? zelStsErrNotPosDefinite : zelStsOk) << row->name << " n=" << k.n << " " << k.d;
            });
}

TEST(Cholesky, DocumentedExamples) {
    // rows (4, 2), (2, 5): F = 0.5, 1, 0.5; the element above the diagonal keeps what it had
    double a[4] = {4, 2, 2, 5}, f[4] = {0, -7, 0, 0}, b[2] = {8, 11}, x[2];
    ASSERT_EQ(zelmCholeskyDecomp_m_64f(a, 16, 8, f, 16, 8, 2), zelStsOk);
    EXPECT_EQ(f[0], 0.5);
    EXPECT_EQ(f[1], -7.0);
    EXPECT_EQ(f[2], 1.0);
    EXPECT_EQ(f[3], 0.5);
    ASSERT_EQ(zelmCholeskyBackSubst_mv_64f(f, 16, 8, b, 8, x, 8, 2), zelStsOk);
    EXPECT_EQ(x[0], 1.125);
    EXPECT_EQ(x[1], 1.75);
    // (4) in 32f: 0.5 within the Newton step, x = 0.5 for b = 2
    float a1 = 4, f1, b1 = 2, x1;
    ASSERT_EQ(zelmCholeskyDecomp_m_32f(&a1, 4, 4, &f1, 4, 4, 1), zelStsOk);
    EXPECT_NEAR(f1, 0.5f, 1e-6f);
    ASSERT_EQ(zelmCholeskyBackSubst_mv_32f(&f1, 4, 4, &b1, 4, &x1, 4, 1), zelStsOk);
    EXPECT_NEAR(x1, 0.5f, 2e-6f);
    // the identity: exactly 1.0 in 64f, zeros below
    double e[16] = {1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1}, fe[16];
    ASSERT_EQ(zelmCholeskyDecomp_m_64f(e, 32, 8, fe, 32, 8, 4), zelStsOk);
    for (int i = 0; i < 4; ++i)
        for (int j = 0; j <= i; ++j) EXPECT_EQ(fe[i * 4 + j], i == j ? 1.0 : 0.0);
}

// Back-substitution from reference factors: bits of the reference (the
// same in mv, mva and mava), Eigen's solution, and pDst == pSrc2 at every
// order.
TEST(Cholesky, BackSubstitutionOfEveryExportOrderAndLayout) {
    unsigned seed = 500;
    for (const auto* row : exports_of("CholeskyBackSubst"))
        for (const auto& L : layouts())
            for (int n = 1; n <= 9; ++n)
                for (bool in_place : {false, true})
                    fh::with_type(*row, [&](auto t) {
                        using T = decltype(t);
                        SCOPED_TRACE(std::string(row->name) + " n=" + std::to_string(n) + " " + L.label);
                        std::mt19937 g(seed++);
                        auto l = laid<T>(*row, n, 19, L, seed, in_place);
                        std::vector<Vec<T>> A, F, b;
                        for (int o = 0; o < tables_of(*row, l.count()); ++o) {
                            A.push_back(spd_matrix<T>(g, n));
                            F.push_back(chol_ref(A[o], n, false).f);
                            set_lower(l, "Src1", o, F[o], n);
                        }
                        hide_upper(l, "Src1", n);
                        const std::string xg = in_place ? "Src2" : "Dst";
                        Image<T> img(l, xg);
                        for (int o = 0; o < l.count(); ++o) {
                            Vec<T> v(n);
                            for (auto& e : v) e = rand_in<T>(g, -4, 4);
                            b.push_back(v);
                            l.set("Src2", o, v);
                            const auto x = solve_ref(F[A.size() > 1 ? o : 0], v, n);
                            for (int i = 0; i < n; ++i) img.put(o, 0, i, x[i]);
                        }
                        ASSERT_EQ(l.call(), zelStsOk);
                        EXPECT_TRUE(img.matches());
                        EXPECT_TRUE(l.guards_intact());
                        for (int o = 0; o < l.count(); ++o)
                            EXPECT_TRUE(near_solution(A[A.size() > 1 ? o : 0], b[o], l.get(xg, o), n));
                    });
}

TEST(Cholesky, FanOut) {
    const Limit limits[] = {
        {"zelmCholeskyDecomp_ma_32f", true, 7501},      {"zelmCholeskyDecomp_ma_32f_L", false, 2001},
        {"zelmCholeskyDecomp_ma_64f", false, 2001},     {"zelmCholeskyDecomp_ma_64f_L", false, 721},
        {"zelmCholeskyDecomp_ma_64f_L", true, 2001},    {"zelmCholeskyBackSubst_mva_32f", true, 1201},
        {"zelmCholeskyBackSubst_mva_64f_L", false, 721}, {"zelmCholeskyBackSubst_mava_32f", false, 2051},
        {"zelmCholeskyBackSubst_mava_32f", true, 1701}, {"zelmCholeskyBackSubst_mava_64f_P", false, 2051},
    };
    expect_limits(limits, [](const reg::ExportRow& row, auto& l) {
        l.fill(is_decomp(row) ? "Src" : "Src1", [](int o, int r, int c) { return r == c ? 2.0 + o % 3 : 0.5; });
        if (!is_decomp(row)) l.fill("Src2", [](int, int, int c) { return c; });
    });
    // order 30 with 11 objects and order 4 with 4001 (lanes in every
    // slice) are above every limit; one object fails and stops its own
    // slice only
    for (auto [n, count, bad] : {std::tuple{30, 11, 4}, std::tuple{4, 4001, 1500}})
        expect_threads({"CholeskyDecomp", "CholeskyBackSubst"}, n, count,
            [&](const reg::ExportRow& row, auto& l) {
                using T = std::decay_t<decltype(l.get("Dst", 0)[0])>;
                std::mt19937 g(9);
                for (int o = 0; o < tables_of(row, count); ++o) {
                    Vec<T> A = spd_matrix<T>(g, n);
                    if (is_decomp(row) && o == bad) A[(n / 2) * (n + 1)] = -1;
                    l.set(is_decomp(row) ? "Src" : "Src1", o, is_decomp(row) ? A : chol_ref(A, n, false).f);
                }
                if (!is_decomp(row)) l.fill("Src2", [&](int, int, int) { return rand_in<double>(g, -1, 1); });
            },
            [&](const reg::ExportRow& row, auto& l, zelStatus st, int threads) {
                EXPECT_EQ(st, is_decomp(row) ? zelStsErrNotPosDefinite : zelStsOk);
                if (!is_decomp(row)) return;
                for (int o = 0; o < count; ++o) {
                    if (completed(o, bad, count, threads))
                        ASSERT_LT(llt_residual(l.get("Src", o), l.get("Dst", o), n), 1e-5) << o;
                    else if (o > bad)
                        ASSERT_TRUE(std::isnan(l.get("Dst", o)[0])) << o;
                }
            });
}

}  // namespace
