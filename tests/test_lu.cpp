// LU decomposition and back-substitution against the elimination written
// out as each path does it; P*A = L*U; solutions against Eigen.
#include <numeric>

#include "solvers/lu_table.hpp"
#include "solvers_harness.hpp"

namespace {

using namespace tri_test;

bool fixed_order(int n) { return n >= 3 && n <= 6; }

// The elimination on a row-major copy as the path of order n does it: at
// orders 3 to 6 the exchange before a strict test against 2^-125 (2^-1021),
// a division at the last stage, rows stored as they finish (in the pointer
// form only at the end); elsewhere the test at or below 2^-23 (2^-52) before
// the exchange, in the destination from the start.
template <class T>
Expect<T> lu_ref(const Vec<T>& A, int n, bool pointer_form) {
    const bool fixed = fixed_order(n);
    const T thr = fixed ? (sizeof(T) == 4 ? T(0x1p-125) : T(0x1p-1021)) : (sizeof(T) == 4 ? T(0x1p-23) : T(0x1p-52));
    Expect<T> e{A, std::vector<char>(n * n, !fixed), std::vector<int>(n)};
    std::iota(e.p.begin(), e.p.end(), 0);
    auto a = [&](int r, int c) -> T& { return e.f[r * n + c]; };
    auto bad = [&](T m) { return fixed ? m < thr : m <= thr; };
    auto keep = [&](int r) { std::fill_n(e.stored.begin() + r * n, n, 1); };
    for (int k = 0; k + 1 < n; ++k) {
        int best = k;
        for (int i = k + 1; i < n; ++i)
            if (std::fabs(a(e.p[i], k)) > std::fabs(a(e.p[best], k))) best = i;
        const T big = std::fabs(a(e.p[best], k));
        if (!fixed && bad(big)) return e.st = zelStsErrSingular, e;
        std::swap(e.p[k], e.p[best]);
        if (bad(big)) return e.st = zelStsErrSingular, e;
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

// x from the factors and table, the diagonal by a division (the reciprocal
// in mva at orders 3 to 6).
template <class T>
Vec<T> solve_ref(const Expect<T>& F, const Vec<T>& b, const std::string& sig) {
    const int n = int(b.size());
    auto f = [&](int i, int j) { return F.f[F.p[i] * n + j]; };
    Vec<T> y(n);
    for (int i = 0; i < n; ++i) y[i] = b[F.p[i]];
    return substitute(
        y, f, f, [](int, T v) { return v; },
        [&](int i, T v) { return fixed_order(n) && sig == "mva" ? v * (T(1) / f(i, i)) : v / f(i, i); });
}

// max |A(p[k], .) - (L U)(k, .)| relative to max |A|.
template <class T>
double residual(const Vec<T>& A, const Vec<T>& F, const int* p, int n) {
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

// Full mantissas; or, for odd k, the rows of L U in random order with
// multipliers -1, 0, 1 and pivots powers of two: exact elimination, ties for
// the largest magnitude at every stage.
template <class T>
Vec<T> random_matrix(std::mt19937& g, int n, int k) {
    Vec<T> A(n * n), L(n * n), U(n * n);
    for (auto& v : A) v = lay::random_value<T>(g);
    if (k % 2 == 0) return A;
    std::uniform_int_distribution<int> d(-3, 3);
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

// Well conditioned, the large entries off the diagonal: pivoting works.
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

// Object 10 with column c zero fails at stage c (at the last pivot for
// c = n-1); the other objects mix full mantissas and exact ties.
TEST(LU, DecompositionAndWhatStandsAfterASingularMatrix) {
    check_decomps(
        "LUDecomp", [](auto t, std::mt19937& g, int n, int o) { return random_matrix<decltype(t)>(g, n, o + n); },
        [](auto& A, int n, int c) {
            for (int r = 0; r < n; ++r) A[r * n + c] = 0;
        },
        [](const auto& A, int n, bool p) { return lu_ref(A, n, p); }, [](auto&, bool) {},
        [](const auto& A, auto& l, int o, int n) { return residual(A, l.get("Dst", o), l.index("pDstIndex") + o * n, n); });
}

// Identities with element (0, 0) replaced (v < 0: -v I) at the boundaries
// of the pivot tests: the fixed orders fail strictly below 2^-125 (2^-1021),
// the others at or below 2^-23 (2^-52); NaN passes; no test scales.
TEST(LU, PivotThresholdsAtTheirBoundaries) {
    check_statuses("LUDecomp",
                   {{3, 0x1p-125}, {6, 0x1p-126}, {5, 0x1p-1021}, {3, 0x1p-1022}, {7, 0x1p-23}, {2, 0x1.000002p-23}, {1, 0x1p-23},
                    {8, 0x1p-52}, {7, 0x1.0000000000001p-52}, {3, NAN}, {7, NAN}, {6, -1e-8}, {7, -1e-8}, {6, -1e-20}, {7, -1e-20}},
                   [](int, double v, int r, int c) { return v < 0 ? (r == c) * -v : r + c == 0 ? v : r == c; },
                   [](const auto& A, int n, bool p) { return lu_ref(A, n, p); });
}

// From factors of system_matrix; pDst == pSrc2 at the exact orders, where all
// of b is read before the first store.
TEST(LU, BackSubstitution) {
    check_solves(
        "LUBackSubst", fixed_order, [](auto t, std::mt19937& g, int n) { return system_matrix<decltype(t)>(g, n); },
        [](const auto& A, int n) { return lu_ref(A, n, false); },
        [](auto& l, int o, const auto& F) {
            const int n = int(F.p.size());
            l.set("Src1", o, F.f);
            std::copy(F.p.begin(), F.p.end(), l.index("pSrcIndex") + o * n);
        },
        [](const auto& F, const auto& b, const std::string& sig) { return solve_ref(F, b, sig); });
}

// Destinations that reach the next object's source: the objects are taken
// one after the other, as single-object calls in order take them.
TEST(LU, OverlappingObjectsInOrder) {
    const int n = 4, e = n * n, count = 24;
    std::mt19937 g(3);
    Vec<float> mem((count + 1) * e), ref;
    for (auto& v : mem) v = rand_in<float>(g, -4, 4);
    ref = mem;
    const Vec<float> start = mem;
    std::vector<int> p(count * n), q(count * n), id(count * n);
    for (int o = 0; o < count; ++o) ASSERT_EQ(zelmLUDecomp_m_32f(&ref[o * e], 16, 4, &q[o * n], &ref[(o + 1) * e], 16, 4, n), 0);
    EXPECT_EQ(zelmLUDecomp_ma_32f(&mem[0], 4 * e, 16, 4, p.data(), &mem[e], 4 * e, 16, 4, n, count), zelStsOk);
    EXPECT_TRUE(mem == ref && p == q);
    std::vector<const float*> src(count);
    std::vector<float*> dst(count);
    for (int o = 0; o < count; ++o) src[o] = &mem[o * e], dst[o] = &mem[(o + 1) * e];
    mem = start;
    EXPECT_EQ(zelmLUDecomp_ma_32f_L(src.data(), 0, 16, 4, p.data(), dst.data(), 0, 16, 4, n, count), zelStsOk);
    EXPECT_TRUE(mem == ref);
    // x of each system on the next one's b: factors 2 I plus 0.5 to the right, table the identity
    Vec<float> f(e * count);
    for (int k = 0; k < e * count; ++k) f[k] = k % e % (n + 1) == 0 ? 2 : k % e % (n + 1) == 1 ? 0.5f : 0;
    for (int k = 0; k < count * n; ++k) id[k] = k % n;
    mem = start, ref = start;
    for (int o = 0; o < count; ++o) zelmLUBackSubst_mv_32f(&f[0], 16, 4, &id[0], &ref[o * n], 4, &ref[(o + 1) * n], 4, n);
    EXPECT_EQ(zelmLUBackSubst_mava_32f(&f[0], 4 * e, 16, 4, &id[0], &mem[0], 16, 4, &mem[n], 16, 4, n, count), zelStsOk);
    EXPECT_TRUE(mem == ref);
}

// The documented thresholds, per kernel: unit stride2, other stride2, list
// unit, list other, pointer form.
constexpr zel::tri::LimitRow kLimits[] = {
    {"ma", {20001, 20001, 40001, 20001, 20001}, {20001, 20001, 20001, 20001, 20001}},
    {"mva mava", {1701, 1701, 1701, 1701, 1701}, {1701, 1701, 1701, 1701, 1701}},
};

// The wrapper at those limits; four threads against one, at order 61 with
// 11 objects and at order 4 with 4001 (lanes in every slice): a singular
// object stops its own slice only.
TEST(LU, FanOut) {
    sq::fan_out<false>({"LUDecomp", "LUBackSubst"}, {1, 3, 7}, reaches(kLimits), {{61, 11, 4}, {4, 4001, 1500}, {6, 8000, 6000}},
                       zelStsErrSingular);
}

}  // namespace
