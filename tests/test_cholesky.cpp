// Cholesky decomposition and back-substitution against the factorisation
// written out; above the diagonal the sources hold NaN (null pointers in the
// pointer form), so a read there shows.
#include <xmmintrin.h>

#include "solvers/cholesky_table.hpp"
#include "solvers_harness.hpp"

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

// Row by row; each element stored as computed, or (pointer form, orders 3
// to 6) each row once its radicand has passed the test: at or below 0, at
// or below 2^-23 in the pointer form at order 3.
template <class T>
Expect<T> chol_ref(const Vec<T>& A, int n, bool pointer_form) {
    const T bound = pointer_form && n == 3 ? T(0x1p-23) : T(0);
    Expect<T> e{Vec<T>(n * n, T(0)), std::vector<char>(n * n, 0), {}};
    auto F = [&](int i, int j) -> T& { return e.f[i * n + j]; };
    auto minus = [&](T v, int i, int j, int K) {
        Vec<T> t;
        for (int k = 0; k < K; ++k) t.push_back(F(i, k) * F(j, k));
        return partial(t, v, -1, 1);
    };
    for (int i = 0; i < n; ++i) {
        for (int j = 0; j < i; ++j) {
            F(i, j) = minus(A[i * n + j], i, j, j) * F(j, j);
            e.stored[i * n + j] = !(pointer_form && n >= 3 && n <= 6);
        }
        const T d = minus(A[i * n + i], i, i, i);
        if (d <= bound) return e.st = zelStsErrNotPosDefinite, e;
        F(i, i) = rsqrt_ref(d);
        std::fill_n(e.stored.begin() + i * n, i + 1, 1);
    }
    return e;
}

// Forward and backward passes, multiplying by the stored reciprocals; the
// backward pass reads the factor down its columns.
template <class T>
Vec<T> solve_ref(const Expect<T>& F, const Vec<T>& b, const std::string&) {
    const int n = int(b.size());
    auto f = [&](int i, int j) { return F.f[i * n + j]; };
    auto diag = [&](int i, T v) { return v * f(i, i); };
    return substitute(b, f, [&](int i, int j) { return f(j, i); }, diag, diag);
}

// M M^T + n I with rows scaled apart.
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

// NaN above the diagonal of a group's objects; in the pointer form those
// element pointers null.
template <class T>
void hide_upper(Laid<T>& l, const std::string& g, int n) {
    for (int o = 0; o < l.objects(g); ++o)
        for (int k = 0; k < n * n; ++k)
            if (k % n > k / n) l.at(g, o, k / n, k % n) = std::nan("");
    if (l.form() == 'P')
        for (int k = 0; k < n * n; ++k)
            if (k % n > k / n) static_cast<T**>(l.args.ptrs.at("pp" + g))[k] = nullptr;
}

// max |(L L^T)(i, j) - A(i, j)| relative, L through the reciprocals.
template <class T>
double residual(const Vec<T>& A, Laid<T>& l, int o, int n) {
    double worst = 0, scale = 0;
    for (T v : A) scale = std::max(scale, double(std::fabs(v)));
    auto L = [&](int i, int j) { return i == j ? 1.0 / l.at("Dst", o, i, i) : double(l.at("Dst", o, i, j)); };
    for (int i = 0; i < n; ++i)
        for (int j = 0; j <= i; ++j) {
            double s = 0;
            for (int k = 0; k <= j; ++k) s += L(i, k) * L(j, k);
            worst = std::max(worst, std::fabs(s - A[i * n + j]) / scale);
        }
    return worst;
}

// Object 10 fails at row i: A(i, i) = -1, or the 1x1 zero.
TEST(Cholesky, DecompositionAndWhatStandsAfterAMatrixThatIsNotPositiveDefinite) {
    check_decomps(
        "CholeskyDecomp", [](auto t, std::mt19937& g, int n, int) { return spd_matrix<decltype(t)>(g, n); },
        [](auto& A, int n, int i) { A[i * n + i] = n == 1 ? 0 : -1; }, [](const auto& A, int n, bool p) { return chol_ref(A, n, p); },
        [](auto& l, bool in_place) {
            const int n = l.args.nums.at("widthHeight");
            if (!in_place) hide_upper(l, "Dst", n);
            hide_upper(l, "Src", n);
        },
        [](const auto& A, auto& l, int o, int n) { return residual(A, l, o, n); });
}

// diag(1, ..., 1, d) at the boundaries of the radicand tests: zero fails
// everywhere, the pointer kernels at order 3 fail at or below 2^-23 in both
// types; NaN passes.
TEST(Cholesky, RadicandTests) {
    check_statuses("CholeskyDecomp",
                   {{3, 1e-9}, {3, 0x1p-23}, {3, 0x1.000002p-23}, {4, 1e-9}, {2, 1e-30}, {7, 1e-30}, {6, 0}, {3, -1e-30}, {8, 0}, {3, NAN}},
                   [](int n, double d, int r, int c) { return r != c ? 0.0 : r == n - 1 ? d : 1.0; },
                   [](const auto& A, int n, bool p) { return chol_ref(A, n, p); });
}

// From reference factors (NaN and null pointers above the diagonal); b may
// be the destination at every order.
TEST(Cholesky, BackSubstitution) {
    check_solves(
        "CholeskyBackSubst", [](int) { return true; }, [](auto t, std::mt19937& g, int n) { return spd_matrix<decltype(t)>(g, n); },
        [](const auto& A, int n) { return chol_ref(A, n, false); },
        [](auto& l, int o, const auto& F) {
            l.set("Src1", o, F.f);
            if (o + 1 == l.objects("Src1")) hide_upper(l, "Src1", int(std::sqrt(F.f.size())));
        },
        [](const auto& F, const auto& b, const std::string& sig) { return solve_ref(F, b, sig); });
}

// The documented thresholds, per kernel: unit stride2, other stride2, list
// unit, list other, pointer form.
constexpr zel::tri::LimitRow kLimits[] = {
    {"ma", {7501, 7501, 2001, 2001, 2001}, {2001, 2001, 721, 2001, 2001}},
    {"mva", {1201, 1201, 721, 721, 721}, {721, 721, 721, 721, 721}},
    {"mava", {2051, 1701, 1701, 1701, 1701}, {1701, 1701, 1701, 1701, 2051}},
};

// The wrapper at those limits; four threads against one, at order 30 with
// 11 objects and at order 4 with 4001 (lanes in every slice): a failing
// object stops its own slice only.
TEST(Cholesky, FanOut) {
    sq::fan_out<false>({"CholeskyDecomp", "CholeskyBackSubst"}, {1, 3, 7}, reaches(kLimits),
                       {{30, 11, 4}, {4, 4001, 1500}, {6, 8000, 6000}}, zelStsErrNotPosDefinite);
}

}  // namespace
