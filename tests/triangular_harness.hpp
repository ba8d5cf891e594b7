// Shared by the LU and Cholesky suites: their exports laid out on logical
// objects in every form (tests/forms_harness.hpp), the layouts each runs in,
// the expected image of a destination's memory, the interleaved partial sums
// of the generic paths, Eigen as the oracle of the solutions, and the
// parallel wrapper's limits at their exact boundaries.
#pragma once

#include <gtest/gtest.h>

#include <Eigen/Dense>
#include <algorithm>
#include <cmath>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "forms_harness.hpp"
#include "substitutes.hpp"

namespace tri_test {

template <class T>
using Laid = fh::Laid<T>;
template <class T>
using Vec = std::vector<T>;

inline bool is_decomp(const reg::ExportRow& r) { return std::string(r.sig)[0] == 'm' && std::string(r.sig).find('v') == std::string::npos; }
inline bool is_array(const reg::ExportRow& r) { return std::string(r.sig).find('a') != std::string::npos; }
// Pivot tables (or matrices) per call: one per object in "ma" and "mava".
inline int tables_of(const reg::ExportRow& r, int count) {
    const std::string s = r.sig;
    return s == "ma" || s == "mava" ? count : 1;
}

// Dense operands; then elements, rows and objects apart (the S2 and LS2
// kernels), shifted, with objects interleaved in the pointer form.
inline std::vector<lay::Layout> layouts() {
    lay::Layout dense;
    lay::Layout gaps;
    gaps.k2 = 2, gaps.dst_k2 = 3, gaps.pad1 = 1, gaps.pad0 = 3, gaps.shift = 2, gaps.soa = false, gaps.label = "gaps";
    return {dense, gaps};
}

// A call of a decomposition or back-substitution export at order n: Src and
// Dst, or Src1 (factors), Src2 (b) and Dst (x), and the pivot table block
// where the export has one (`tables` of them).
template <class T>
Laid<T> laid(const reg::ExportRow& row, int n, int count, const lay::Layout& L, unsigned seed, bool in_place = false) {
    const bool dec = is_decomp(row);
    fh::Shapes shapes = dec ? fh::Shapes{{"Src", {n, n}}, {"Dst", {n, n}}}
                            : fh::Shapes{{"Src1", {n, n}}, {"Src2", {1, n}}, {"Dst", {1, n}}};
    fh::Blocks blocks{{dec ? "pDstIndex" : "pSrcIndex", tables_of(row, count) * n}};
    std::map<std::string, std::string> alias;
    if (in_place) alias["Dst"] = dec ? "Src" : "Src2";
    Laid<T> l(row, count, shapes, blocks, L, seed, alias);
    l.num("widthHeight", n);
    return l;
}

// The memory of a destination group as it must be after a call: what it
// held before, with the elements the call stores replaced.
template <class T>
struct Image {
    Laid<T>& l;
    std::string g;
    Vec<T> mem;
    Image(Laid<T>& laid, const std::string& group) : l(laid), g(group), mem(laid.memory(group)) {}
    void put(int n, int r, int c, T v) { mem[&l.at(g, n, r, c) - l.memory(g).data()] = v; }
    ::testing::AssertionResult matches() const {
        const auto& now = l.memory(g);
        for (std::size_t k = 0; k < mem.size(); ++k)
            if (std::memcmp(&now[k], &mem[k], sizeof(T)))
                return ::testing::AssertionFailure() << g << " element " << k << " is " << now[k] << ", expected " << mem[k];
        return ::testing::AssertionSuccess();
    }
};

// The generic paths' inner products: `narrow` accumulators below eight
// terms, eight from eight on, round-robin up to the last full round, added
// pairwise, the rest one by one; the first accumulator starts at `start`,
// `sign` -1 subtracts.
template <class T>
T partial(const Vec<T>& t, T start, int sign, int narrow) {
    const int K = int(t.size()), lanes = K >= 8 ? 8 : narrow, m = K - K % lanes;
    Vec<T> c(lanes, T(0));
    c[0] = start;
    for (int k = 0; k < m; ++k) c[k % lanes] = sign > 0 ? c[k % lanes] + t[k] : c[k % lanes] - t[k];
    for (int w = lanes; w > 1; w /= 2)
        for (int j = 0; j < w / 2; ++j) c[j] = c[2 * j] + c[2 * j + 1];
    T s = c[0];
    for (int k = m; k < K; ++k) s = sign > 0 ? s + t[k] : s - t[k];
    return s;
}

template <class T>
T rand_in(std::mt19937& g, double lo, double hi) {
    return T(std::uniform_real_distribution<double>(lo, hi)(g));
}

// x against Eigen's double-precision solution of A x = b (row-major A).
template <class T>
::testing::AssertionResult near_solution(const Vec<T>& A, const Vec<T>& b, const Vec<T>& x, int n) {
    Eigen::MatrixXd M(n, n);
    Eigen::VectorXd v(n);
    for (int i = 0; i < n; ++i) {
        v(i) = b[i];
        for (int j = 0; j < n; ++j) M(i, j) = A[i * n + j];
    }
    const Eigen::VectorXd e = M.partialPivLu().solve(v);
    const double tol = sizeof(T) == 4 ? 2e-4 : 1e-11;
    for (int i = 0; i < n; ++i)
        if (!(std::fabs(x[i] - e(i)) <= tol * (1 + e.cwiseAbs().maxCoeff())))
            return ::testing::AssertionFailure() << "x(" << i << ") = " << x[i] << ", Eigen " << e(i);
    return ::testing::AssertionSuccess();
}

// The wrapper starts at the first count whose estimate reaches the limit
// (ownGetNumThreads asked twice); one object less stays on the calling
// thread without asking. `fill(row, laid)` gives the operands good values.
struct Limit {
    const char* name;
    bool strided;
    int limit;
};
inline int first_parallel(const std::string& sig, int n, int limit) {
    for (int c = 1;; ++c) {
        const long e = sig == "ma" ? long(n) * n * c : sig == "mva" ? (n + 2L * c) * n : (n + 2L) * n * c;
        if (e >= limit) return c;
    }
}
template <class Fill>
void expect_limits(const Limit (&limits)[10], Fill fill) {
    for (const auto& lim : limits) {
        const auto& row = fh::row_named(lim.name);
        fh::with_type(row, [&](auto t) {
            using T = decltype(t);
            for (int n : {3, 7}) {
                const int at = first_parallel(row.sig, n, lim.limit);
                for (int count : {at - 1, at}) {
                    lay::Layout L;
                    L.k2 = L.dst_k2 = lim.strided ? 2 : 1;
                    auto l = laid<T>(row, n, count, L, 1);
                    fill(row, l);
                    subst::Scope scope(4);
                    EXPECT_EQ(l.call(), zelStsOk) << lim.name;
                    EXPECT_EQ(subst::thread_queries, count == at ? 2 : 0) << lim.name << " n=" << n << " count " << count;
                }
            }
        });
    }
}

// Every array export of `ops` at order n with `count` objects, on 1 and on 4
// threads: `fill(row, laid)` sets the operands, `check(row, laid, status,
// threads)` looks at the result of each run; the destinations of the
// back-substitutions agree bit for bit.
template <class Fill, class Check>
void expect_threads(const std::vector<std::string>& ops, int n, int count, Fill fill, Check check) {
    for (const auto* row : fh::exports_of(ops))
        if (is_array(*row))
            fh::with_type(*row, [&](auto t) {
                using T = decltype(t);
                Vec<T> mem[2];
                for (int k = 0; k < 2; ++k) {
                    auto l = laid<T>(*row, n, count, lay::Layout{}, 3);
                    fill(*row, l);
                    subst::Scope scope(k == 0 ? 1 : 4);
                    const zelStatus st = l.call();
                    check(*row, l, st, k == 0 ? 1 : 4);
                    ASSERT_EQ(subst::thread_queries, k + 1) << row->name;
                    mem[k] = l.memory("Dst");
                }
                if (!is_decomp(*row))
                    EXPECT_EQ(std::memcmp(mem[0].data(), mem[1].data(), mem[0].size() * sizeof(T)), 0) << row->name;
            });
}

// Whether object o is complete when object `bad` fails: the threads' slices
// are contiguous in thread order, the first count % threads of them one
// object longer; each slice stops at its own failure only.
inline bool completed(int o, int bad, int count, int threads) {
    const int q = count / threads, r = count % threads;
    auto slice = [&](int x) { return x < (q + 1) * r ? x / (q + 1) : r + (x - (q + 1) * r) / q; };
    return slice(o) != slice(bad) || o < bad;
}

}  // namespace tri_test
