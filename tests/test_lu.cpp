// LU decomposition and back-substitution: every export, order 1 to 9, every
// form and layout, bit for bit against the elimination written out as each
// path does it (which also says what stands in the destination and the table
// when it stops), P*A = L*U, solutions against Eigen, the thresholds at their
// boundaries, the documented examples, in-place calls and the fan-out.
#include <gtest/gtest.h>

#include <cmath>
#include <numeric>
#include <tuple>

#include "triangular_harness.hpp"

namespace {

using namespace tri_test;

template <class T>
constexpr T kFixedThr = sizeof(T) == 4 ? T(0x1p-125) : T(0x1p-1021);  // singular below
template <class T>
constexpr T kGenericThr = sizeof(T) == 4 ? T(0x1p-23) : T(0x1p-52);  // singular at or below

bool fixed_order(int n) { return n >= 3 && n <= 6; }

// The elimination on a row-major copy, as the path of order n does it, and
// which destination elements it has stored when it returns.
template <class T>
struct LuRef {
    Vec<T> a;
    std::vector<int> p;
    std::vector<char> stored;
    zelStatus st = zelStsOk;
};

template <class T>
LuRef<T> lu_ref(const Vec<T>& A, int n, bool pointer_form) {
    const bool fixed = fixed_order(n);
    LuRef<T> e{A, std::vector<int>(n), std::vector<char>(n * n, fixed ? 0 : 1)};
    std::iota(e.p.begin(), e.p.end(), 0);
    auto a = [&](int r, int c) -> T& { return e.a[r * n + c]; };
    auto bad = [&](T m) { return fixed ? m < kFixedThr<T> : m <= kGenericThr<T>; };
    auto keep = [&](int r) { std::fill_n(e.stored.begin() + r * n, n, 1); };
    for (int k = 0; k + 1 < n; ++k) {
        int best = k;
        for (int i = k + 1; i < n; ++i)
            if (std::fabs(a(e.p[i], k)) > std::fabs(a(e.p[best], k))) best = i;
        const T big = std::fabs(a(e.p[best], k));
        if (!fixed && bad(big)) return e.st = zelStsErrSingular, e;
        std::swap(e.p[k], e.p[best]);
        if (fixed && bad(big)) return e.st = zelStsErrSingular, e;
        const int pk = e.p[k];
        const T r = T(1) / a(pk, k);
        for (int i = k + 1; i < n; ++i) {
            T& m = a(e.p[i], k);
            m = fixed && k == n - 2 ? m / a(pk, k) : m * r;
            for (int j = k + 1; j < n; ++j) a(e.p[i], j) -= m * a(pk, j);
        }
        if (fixed && !pointer_form) keep(pk);
    }
    if (bad(std::fabs(a(e.p[n - 1], n - 1)))) return e.st = zelStsErrSingular, e;
    for (int r = 0; fixed && r < n; ++r) keep(r);
    return e;
}

// Solution from packed factors F and table p: successive subtraction and a
// division (or the reciprocal) at the exact orders, partial sums and a
// division elsewhere.
template <class T>
Vec<T> solve_ref(const Vec<T>& F, const std::vector<int>& p, const Vec<T>& b, int n, bool reciprocal) {
    Vec<T> x(n);
    auto f = [&](int i, int j) { return F[p[i] * n + j]; };
    for (int i = 0; i < n; ++i) {
        if (fixed_order(n)) {
            x[i] = b[p[i]];
            for (int j = 0; j < i; ++j) x[i] -= f(i, j) * x[j];
        } else {
            Vec<T> t;
            for (int j = 0; j < i; ++j) t.push_back(f(i, j) * x[j]);
            x[i] = b[p[i]] - partial(t, T(0), 1, 2);
        }
    }
    for (int i = n - 1; i >= 0; --i) {
        T v = x[i];
        if (fixed_order(n)) {
            for (int j = i + 1; j < n; ++j) v -= f(i, j) * x[j];
        } else {
            Vec<T> t;
            for (int j = i + 1; j < n; ++j) t.push_back(f(i, j) * x[j]);
            v -= partial(t, T(0), 1, 2);
        }
        x[i] = reciprocal ? v * (T(1) / f(i, i)) : v / f(i, i);
    }
    return x;
}

// Well conditioned, but the large entries off the diagonal: pivoting works.
template <class T>
Vec<T> system_matrix(std::mt19937& g, int n) {
    Vec<T> A(n * n);
    for (auto& v : A) v = rand_in<T>(g, -1, 1);
    std::vector<int> perm(n);
    std::iota(perm.begin(), perm.end(), 0);
    std::shuffle(perm.begin(), perm.end(), g);
    for (int i = 0; i < n; ++i) A[i * n + perm[i]] += T(3 * n) * (i % 2 ? -1 : 1);
    return A;
}

// max over rows of |A(p[k], .) - sum over m of L(k, m) U(m, .)|, relative.
template <class T>
double lu_residual(const Vec<T>& A, const Vec<T>& F, const int* p, int n) {
    double worst = 0, scale = 1e-300;
    for (T v : A) scale = std::max(scale, double(std::fabs(v)));
    for (int k = 0; k < n; ++k)
        for (int j = 0; j < n; ++j) {
            double s = 0;
            for (int m = 0; m <= std::min(k, j); ++m) s += (m == k ? 1.0 : double(F[p[k] * n + m])) * F[p[m] * n + j];
            worst = std::max(worst, std::fabs(s - A[p[k] * n + j]) / scale);
        }
    return worst;
}

// A decomposition export on one matrix per object: status, destination
// memory and tables as the reference says (objects after the first failure
// untouched, their tables too); the identity on the objects it completed.
template <class T>
void check_decomp(const reg::ExportRow& row, int n, const std::vector<Vec<T>>& mats, const lay::Layout& L,
                  unsigned seed, bool in_place = false) {
    SCOPED_TRACE(std::string(row.name) + " n=" + std::to_string(n) + " " + L.label + (in_place ? " in place" : ""));
    const int count = int(mats.size());
    auto l = laid<T>(row, n, count, L, seed, in_place);
    for (int o = 0; o < count; ++o) l.set("Src", o, mats[o]);
    Image<T> img(l, "Dst");
    std::vector<int> table(l.index("pDstIndex"), l.index("pDstIndex") + count * n + Laid<T>::kGuard);
    zelStatus want = zelStsOk;
    int done = 0;
    for (; done < count && want == zelStsOk; ++done) {
        const auto e = lu_ref(mats[done], n, row.form[0] == 'P');
        for (int k = 0; k < n * n; ++k)
            if (e.stored[k]) img.put(done, k / n, k % n, e.a[k]);
        std::copy(e.p.begin(), e.p.end(), table.begin() + done * n);
        want = e.st;
    }
    ASSERT_EQ(l.call(), want);
    EXPECT_TRUE(img.matches());
    EXPECT_TRUE(std::equal(table.begin(), table.end(), l.index("pDstIndex")));
    EXPECT_TRUE(l.guards_intact());
    for (int o = 0; o < done - (want != zelStsOk); ++o)
        EXPECT_LT(lu_residual(mats[o], l.get("Dst", o), l.index("pDstIndex") + o * n, n), sizeof(T) == 4 ? 1e-5 : 1e-14);
}

// Full mantissas; or, for odd k, rows of L U (multipliers -1, 0, 1, pivots
// powers of two) in random order: exact elimination with ties for the
// largest magnitude at every stage.
template <class T>
Vec<T> random_matrix(std::mt19937& g, int n, int k = 0) {
    Vec<T> A(n * n);
    for (auto& v : A) v = lay::random_value<T>(g);
    if (k % 2 == 0) return A;
    std::uniform_int_distribution<int> d(-3, 3);
    Vec<T> L(n * n), U(n * n);
    for (int i = 0; i < n; ++i)
        for (int j = 0; j < n; ++j) {
            L[i * n + j] = i == j ? 1 : j < i ? d(g) % 2 : 0;
            U[i * n + j] = i == j ? T(1 << (d(g) + 3) / 2) * (d(g) < 0 ? -1 : 1) : j > i ? d(g) : 0;
        }
    std::vector<int> perm(n);
    std::iota(perm.begin(), perm.end(), 0);
    std::shuffle(perm.begin(), perm.end(), g);
    for (int i = 0; i < n; ++i)
        for (int j = 0; j < n; ++j) {
            T v = 0;
            for (int m = 0; m < n; ++m) v += L[i * n + m] * U[m * n + j];
            A[perm[i] * n + j] = v;
        }
    return A;
}

std::vector<const reg::ExportRow*> exports_of(const char* op) { return fh::exports_of({op}); }

TEST(LU, DecompositionOfEveryExportOrderAndLayout) {
    unsigned seed = 1;
    for (const auto* row : exports_of("LUDecomp"))
        for (const auto& L : layouts())
            for (int n = 1; n <= 9; ++n)
                fh::with_type(*row, [&](auto t) {
                    using T = decltype(t);
                    std::mt19937 g(seed++);
                    std::vector<Vec<T>> mats;
                    for (int o = 0; o < (is_array(*row) ? 19 : 1); ++o) mats.push_back(random_matrix<T>(g, n, o + n));
                    check_decomp<T>(*row, n, mats, L, seed);
                    check_decomp<T>(*row, n, mats, L, seed, true);
                });
}

// Column c zero: the elimination fails at stage c (the last pivot when c is
// n-1), in object 10 of 19 (inside the second batch of lanes).
TEST(LU, WhatStandsAfterASingularMatrixInEveryPath) {
    unsigned seed = 100;
    for (const auto* row : exports_of("LUDecomp"))
        for (int n : {1, 2, 3, 4, 5, 6, 7})
            for (int c = 0; c < n; ++c)
                fh::with_type(*row, [&](auto t) {
                    using T = decltype(t);
                    std::mt19937 g(seed++);
                    std::vector<Vec<T>> mats;
                    for (int o = 0; o < 19; ++o) mats.push_back(random_matrix<T>(g, n, o));
                    for (int r = 0; r < n; ++r) mats[10][r * n + c] = 0;
                    if (!is_array(*row)) mats = {mats[10]};
                    check_decomp<T>(*row, n, mats, layouts()[c % 2], seed);
                });
}

// Status of I with element (0, 0) replaced, by path and type (16 such
// objects: whole batches of lanes).
TEST(LU, PivotThresholdsAtTheirBoundaries) {
    struct Case {
        bool is64;
        int n;
        double v;
        zelStatus st;
    };
    const double nan = std::nan("");
    const Case cases[] = {
        {false, 3, 0x1p-125, 0}, {false, 6, 0x1p-125, 0}, {false, 4, 0x1p-126, -195}, {true, 5, 0x1p-1021, 0},
        {true, 3, 0x1p-1022, -195}, {false, 7, 0x1p-23, -195}, {false, 2, 0x1.000002p-23, 0},
        {false, 1, 0x1p-23, -195}, {false, 1, 1e-8, -195}, {true, 8, 0x1p-52, -195}, {true, 7, 0x1.0000000000001p-52, 0},
        {false, 3, nan, 0}, {false, 7, nan, 0}, {true, 2, nan, 0},
    };
    for (const auto* row : exports_of("LUDecomp"))
        for (const Case& k : cases) {
            if (k.is64 != fh::is64(*row)) continue;
            fh::with_type(*row, [&](auto t) {
                using T = decltype(t);
                auto l = laid<T>(*row, k.n, 16, lay::Layout{}, 1);
                l.fill("Src", [&](int, int r, int c) { return r == 0 && c == 0 ? k.v : double(r == c); });
                EXPECT_EQ(l.call(), k.st) << row->name << " n=" << k.n << " " << k.v;
            });
        }
    // 1e-8 I in 32f, 1e-20 I in 64f: order 6 factors, order 7 (the generic path) does not
    for (const auto* row : exports_of("LUDecomp"))
        for (int n : {6, 7})
            fh::with_type(*row, [&](auto t) {
                using T = decltype(t);
                auto l = laid<T>(*row, n, 16, lay::Layout{}, 1);
                l.fill("Src", [&](int, int r, int c) { return r == c ? (sizeof(T) == 4 ? 1e-8 : 1e-20) : 0.0; });
                EXPECT_EQ(l.call(), n == 6 ? zelStsOk : zelStsErrSingular) << row->name << " n=" << n;
            });
}

TEST(LU, DocumentedExamples) {
    // rows (1,2), (3,4): table 1, 0; row 1 is the first factor row, row 0 holds 1/3 and U(1,1) = 2/3
    float a[4] = {1, 2, 3, 4}, f[4], x[2], b[2] = {5, 11};
    int p[2];
    ASSERT_EQ(zelmLUDecomp_m_32f(a, 8, 4, p, f, 8, 4, 2), zelStsOk);
    EXPECT_EQ(p[0], 1);
    EXPECT_EQ(p[1], 0);
    EXPECT_EQ(f[2], 3.0f);
    EXPECT_EQ(f[3], 4.0f);
    EXPECT_EQ(f[0], 1.0f * (1.0f / 3.0f));
    EXPECT_EQ(f[1], 2.0f - f[0] * 4.0f);
    ASSERT_EQ(zelmLUBackSubst_mv_32f(f, 8, 4, p, b, 4, x, 4, 2), zelStsOk);
    EXPECT_NEAR(x[0], 1.0f, 1e-6);
    EXPECT_NEAR(x[1], 2.0f, 1e-6);
    // first column 1, -1, 1: the first maximum stays the pivot
    double m[9] = {1, 2, 3, -1, 5, 1, 1, 0, 4}, d[9];
    int q[3];
    ASSERT_EQ(zelmLUDecomp_m_64f(m, 24, 8, q, d, 24, 8, 3), zelStsOk);
    EXPECT_EQ(q[0], 0);
    // the identity: identity table, the destination equals the source
    double e[25] = {}, de[25];
    for (int i = 0; i < 5; ++i) e[i * 6] = 1;
    ASSERT_EQ(zelmLUDecomp_m_64f(e, 40, 8, q, de, 40, 8, 5), zelStsOk);
    EXPECT_EQ(std::memcmp(e, de, sizeof e), 0);
    // order 1: the element and table 0; x = b / a
    float one = 4, fo, bo = 2, xo;
    int p0 = 7;
    ASSERT_EQ(zelmLUDecomp_m_32f(&one, 4, 4, &p0, &fo, 4, 4, 1), zelStsOk);
    EXPECT_EQ(p0, 0);
    ASSERT_EQ(zelmLUBackSubst_mv_32f(&fo, 4, 4, &p0, &bo, 4, &xo, 4, 1), zelStsOk);
    EXPECT_EQ(xo, 0.5f);
}

// Back-substitution from factors of system_matrix: bits of the reference
// (reciprocals in mva at the exact orders) and Eigen's solution; pDst ==
// pSrc2 at the exact orders, where all of b is read before the first store.
TEST(LU, BackSubstitutionOfEveryExportOrderAndLayout) {
    unsigned seed = 500;
    for (const auto* row : exports_of("LUBackSubst"))
        for (const auto& L : layouts())
            for (int n = 1; n <= 9; ++n)
                for (bool in_place : {false, true}) {
                    if (in_place && !fixed_order(n)) continue;
                    fh::with_type(*row, [&](auto t) {
                        using T = decltype(t);
                        SCOPED_TRACE(std::string(row->name) + " n=" + std::to_string(n) + " " + L.label);
                        std::mt19937 g(seed++);
                        const std::string sig = row->sig;
                        auto l = laid<T>(*row, n, 19, L, seed, in_place);
                        const int mats = sig == "mava" ? l.count() : 1;
                        std::vector<Vec<T>> A, F, b;
                        std::vector<std::vector<int>> P;
                        for (int o = 0; o < mats; ++o) {
                            A.push_back(system_matrix<T>(g, n));
                            const auto e = lu_ref(A[o], n, false);
                            ASSERT_EQ(e.st, zelStsOk);
                            F.push_back(e.a), P.push_back(e.p);
                            l.set("Src1", o, e.a);
                            std::copy(e.p.begin(), e.p.end(), l.index("pSrcIndex") + o * n);
                        }
                        const std::string xg = in_place ? "Src2" : "Dst";
                        Image<T> img(l, xg);
                        for (int o = 0; o < l.count(); ++o) {
                            Vec<T> v(n);
                            for (auto& e : v) e = rand_in<T>(g, -4, 4);
                            b.push_back(v);
                            l.set("Src2", o, v);
                            const int m = mats > 1 ? o : 0;
                            const auto x = solve_ref(F[m], P[m], v, n, sig == "mva" && fixed_order(n));
                            for (int i = 0; i < n; ++i) img.put(o, 0, i, x[i]);
                        }
                        Image<T> src2(l, "Src2");
                        ASSERT_EQ(l.call(), zelStsOk);
                        EXPECT_TRUE(img.matches());
                        if (!in_place) EXPECT_TRUE(src2.matches());
                        EXPECT_TRUE(l.guards_intact());
                        for (int o = 0; o < l.count(); ++o)
                            EXPECT_TRUE(near_solution(A[mats > 1 ? o : 0], b[o], l.get(xg, o), n));
                    });
                }
}

// Destinations that reach the next object's source: the objects are taken
// one after the other, as single-object calls in order would take them.
TEST(LU, OverlappingObjectsInOrder) {
    const int n = 4, e = n * n, count = 24;
    std::mt19937 g(3);
    Vec<float> mem((count + 1) * e), ref;
    for (auto& v : mem) v = rand_in<float>(g, -4, 4);
    ref = mem;
    std::vector<int> p(count * n), q(count * n);
    zelStatus want = zelStsOk;
    for (int o = 0; o < count && want == zelStsOk; ++o)
        want = zelmLUDecomp_m_32f(&ref[o * e], 16, 4, &q[o * n], &ref[(o + 1) * e], 16, 4, n);
    const Vec<float> start = mem;
    EXPECT_EQ(zelmLUDecomp_ma_32f(&mem[0], 4 * e, 16, 4, p.data(), &mem[e], 4 * e, 16, 4, n, count), want);
    EXPECT_EQ(mem, ref);
    EXPECT_EQ(p, q);
    std::vector<const float*> src(count);
    std::vector<float*> dst(count);
    for (int o = 0; o < count; ++o) src[o] = &mem[o * e], dst[o] = &mem[(o + 1) * e];
    mem = start;
    EXPECT_EQ(zelmLUDecomp_ma_32f_L(src.data(), 0, 16, 4, p.data(), dst.data(), 0, 16, 4, n, count), want);
    EXPECT_EQ(mem, ref);
    // x of each system on the next one's b
    Vec<float> f(e, 0), b(n * (count + 1));
    for (int i = 0; i < n; ++i) f[i * n + i] = 2, f[i * n + (i + 1) % n] = 0.5f;
    const int id[4] = {0, 1, 2, 3};
    std::vector<int> tabs(count * n);
    for (int k = 0; k < count * n; ++k) tabs[k] = k % n;
    for (auto& v : b) v = rand_in<float>(g, -4, 4);
    Vec<float> bref = b, fs(e * count);
    for (int o = 0; o < count; ++o) std::copy(f.begin(), f.end(), fs.begin() + o * e);
    for (int o = 0; o < count; ++o) zelmLUBackSubst_mv_32f(f.data(), 16, 4, id, &bref[o * n], 4, &bref[(o + 1) * n], 4, n);
    EXPECT_EQ(zelmLUBackSubst_mava_32f(fs.data(), 4 * e, 16, 4, tabs.data(), &b[0], 16, 4, &b[n], 16, 4, n, count), zelStsOk);
    EXPECT_EQ(b, bref);
}

// The wrapper starts exactly at each limit; four threads give the bits of
// one; a singular object stops its own slice only.
TEST(LU, FanOut) {
    const Limit limits[] = {
        {"zelmLUDecomp_ma_32f", false, 20001},   {"zelmLUDecomp_ma_32f", true, 20001},
        {"zelmLUDecomp_ma_32f_L", false, 40001}, {"zelmLUDecomp_ma_32f_L", true, 20001},
        {"zelmLUDecomp_ma_64f_L", false, 20001}, {"zelmLUDecomp_ma_64f_P", false, 20001},
        {"zelmLUBackSubst_mva_32f", false, 1701}, {"zelmLUBackSubst_mava_64f_L", true, 1701},
        {"zelmLUBackSubst_mva_64f_P", false, 1701}, {"zelmLUBackSubst_mava_32f_P", false, 1701},
    };
    expect_limits(limits, [](const reg::ExportRow& row, auto& l) {
        const int n = l.args.nums.at("widthHeight");
        l.fill(is_decomp(row) ? "Src" : "Src1", [](int o, int r, int c) { return r == c ? 2.0 + o % 3 : 0.5; });
        if (is_decomp(row)) return;
        l.fill("Src2", [](int, int, int c) { return c; });
        for (int k = 0; k < n * tables_of(row, l.count()); ++k) l.index("pSrcIndex")[k] = k % n;
    });
    // order 61 with 11 objects and order 4 with 4001 (lanes in every
    // slice) are above every limit; one object is singular and stops its
    // own slice only
    for (auto [n, count, bad] : {std::tuple{61, 11, 4}, std::tuple{4, 4001, 1500}})
        expect_threads({"LUDecomp", "LUBackSubst"}, n, count,
            [&](const reg::ExportRow& row, auto& l) {
                std::mt19937 g(9);
                const bool dec = is_decomp(row);
                l.fill(dec ? "Src" : "Src1", [&](int o, int r, int c) {
                    return dec && o == bad && c == n / 2 ? 0.0 : (r == c ? 30.0 : 0.0) + rand_in<double>(g, -1, 1);
                });
                if (dec) return;
                l.fill("Src2", [&](int, int, int) { return rand_in<double>(g, -1, 1); });
                for (int i = 0; i < n * tables_of(row, count); ++i) l.index("pSrcIndex")[i] = (i * 7 + 3) % n;
            },
            [&](const reg::ExportRow& row, auto& l, zelStatus st, int threads) {
                EXPECT_EQ(st, is_decomp(row) ? zelStsErrSingular : zelStsOk);
                if (!is_decomp(row)) return;
                const int* p = l.index("pDstIndex");
                for (int o = 0; o < count; ++o) {
                    if (completed(o, bad, count, threads))
                        ASSERT_LT(lu_residual(l.get("Src", o), l.get("Dst", o), p + o * n, n), 1e-5) << o;
                    else if (o > bad)
                        ASSERT_EQ(p[o * n], 0x5A5A5A5A) << o;
                }
            });
}

}  // namespace
