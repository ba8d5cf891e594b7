// Shared by the LU and Cholesky suites: their exports laid out on logical
// objects in every form (tests/forms_harness.hpp); a decomposition or a
// solve checked bit for bit against a family's reference, memory image,
// tables and guards included; the partial sums of the generic paths; Eigen
// as the oracle of the solutions; the parallel wrapper's limits at their
// exact boundaries and four threads against one.
#pragma once

#include <gtest/gtest.h>

#include <Eigen/Dense>
#include <cmath>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "forms_harness.hpp"
#include "solvers/triangular.hpp"
#include "substitutes.hpp"

namespace tri_test {

template <class T>
using Laid = fh::Laid<T>;
template <class T>
using Vec = std::vector<T>;

inline bool is_decomp(const reg::ExportRow& r) { return std::string(r.sig).find('v') == std::string::npos; }
inline bool is_array(const reg::ExportRow& r) { return std::string(r.sig).find('a') != std::string::npos; }
// matrices (and pivot tables) of a call: one per object in "ma" and "mava"
inline int mats_of(const reg::ExportRow& r, int count) {
    return std::string(r.sig) == "ma" || std::string(r.sig) == "mava" ? count : 1;
}

// Dense; then elements, rows and objects apart (the S2 and LS2 kernels),
// shifted, objects interleaved in the pointer form.
inline std::vector<lay::Layout> layouts() {
    lay::Layout gaps;
    gaps.k2 = 2, gaps.dst_k2 = 3, gaps.pad1 = 1, gaps.pad0 = 3, gaps.shift = 2, gaps.soa = false, gaps.label = "gaps";
    return {lay::Layout{}, gaps};
}

// Src and Dst, or Src1 (factors), Src2 (b) and Dst (x), at order n, and the
// pivot table block of the LU exports.
template <class T>
Laid<T> laid(const reg::ExportRow& row, int n, int count, const lay::Layout& L = {}, bool in_place = false) {
    const bool dec = is_decomp(row);
    const fh::Shapes shapes = dec ? fh::Shapes{{"Src", {n, n}}, {"Dst", {n, n}}}
                                  : fh::Shapes{{"Src1", {n, n}}, {"Src2", {1, n}}, {"Dst", {1, n}}};
    fh::Blocks blocks;
    if (std::string(row.op).rfind("LU", 0) == 0) blocks[dec ? "pDstIndex" : "pSrcIndex"] = mats_of(row, count) * n;
    std::map<std::string, std::string> alias;
    if (in_place) alias["Dst"] = dec ? "Src" : "Src2";
    Laid<T> l(row, count, shapes, blocks, L, unsigned(n + count), alias);
    l.num("widthHeight", n);
    return l;
}

template <class T>
T rand_in(std::mt19937& g, double lo, double hi) {
    return T(std::uniform_real_distribution<double>(lo, hi)(g));
}

// The memory of a group as it must be after a call: what it held before,
// with the elements the call stores replaced.
template <class T>
struct Image {
    Laid<T>& l;
    std::string g;
    Vec<T> mem;
    Image(Laid<T>& laid, const std::string& group) : l(laid), g(group), mem(laid.memory(group)) {}
    void put(int n, int r, int c, T v) { mem[&l.at(g, n, r, c) - l.memory(g).data()] = v; }
    bool matches() const { return std::memcmp(mem.data(), l.memory(g).data(), mem.size() * sizeof(T)) == 0; }
};

// The generic paths' inner products: `narrow` accumulators below eight
// terms, eight from eight on, round-robin up to the last full round, added
// pairwise, the rest one by one; the first starts at `start`, sign -1
// subtracts.
template <class T>
T partial(const Vec<T>& t, T start, int sign, int narrow) {
    const int K = int(t.size()), lanes = K >= 8 ? 8 : narrow, m = K - K % lanes;
    Vec<T> c(lanes, T(0));
    c[0] = start;
    for (int k = 0; k < m; ++k) c[k % lanes] = sign > 0 ? c[k % lanes] + t[k] : c[k % lanes] - t[k];
    for (int w = lanes; w > 1; w /= 2)
        for (int j = 0; j < w / 2; ++j) c[j] = c[2 * j] + c[2 * j + 1];
    for (int k = m; k < K; ++k) c[0] = sign > 0 ? c[0] + t[k] : c[0] - t[k];
    return c[0];
}

// What a decomposition leaves: the factors, which elements it has stored
// when it returns, the table, the status.
template <class T>
struct Expect {
    Vec<T> f;
    std::vector<char> stored;
    std::vector<int> p;
    zelStatus st = zelStsOk;
};

// A decomposition export on one matrix per object: `ref(A, n, pointer
// form)` gives each object's Expect, up to the first failure (later objects
// and their tables untouched); `prepare(laid)` runs before the memory is
// taken as the image; `residual(laid, o)` of the completed objects is small.
template <class T, class Ref, class Prepare, class Residual>
void check_decomp(const reg::ExportRow& row, int n, const std::vector<Vec<T>>& mats, const lay::Layout& L,
                  bool in_place, Ref ref, Prepare prepare, Residual residual) {
    SCOPED_TRACE(std::string(row.name) + " n=" + std::to_string(n) + " " + L.label + (in_place ? " in place" : ""));
    const int count = int(mats.size());
    auto l = laid<T>(row, n, count, L, in_place);
    for (int o = 0; o < count; ++o) l.set("Src", o, mats[o]);
    prepare(l);
    Image<T> img(l, "Dst");
    const bool lu = l.args.ptrs.count("pDstIndex");
    std::vector<int> table(lu ? l.index("pDstIndex") : nullptr, lu ? l.index("pDstIndex") + count * n + 8 : nullptr);
    zelStatus want = zelStsOk;
    int done = 0;
    for (; done < count && want == zelStsOk; ++done) {
        const Expect<T> e = ref(mats[done], n, row.form[0] == 'P');
        for (int k = 0; k < n * n; ++k)
            if (e.stored[k]) img.put(done, k / n, k % n, e.f[k]);
        if (lu) std::copy(e.p.begin(), e.p.end(), table.begin() + done * n);
        want = e.st;
    }
    ASSERT_EQ(l.call(), want);
    EXPECT_TRUE(img.matches());
    EXPECT_TRUE(!lu || std::equal(table.begin(), table.end(), l.index("pDstIndex")));
    EXPECT_TRUE(l.guards_intact());
    for (int o = 0; o < done - (want != zelStsOk); ++o) EXPECT_LT(residual(l, o), sizeof(T) == 4 ? 1e-5 : 1e-14) << o;
}

// x against Eigen's double-precision solution of A x = b (row-major A).
template <class T>
::testing::AssertionResult near_solution(const Vec<T>& A, const Vec<T>& b, const Vec<T>& x, int n) {
    const Eigen::MatrixXd M = Eigen::Map<const Eigen::Matrix<T, -1, -1, Eigen::RowMajor>>(A.data(), n, n).template cast<double>();
    const Eigen::VectorXd e = M.partialPivLu().solve(Eigen::Map<const Eigen::Matrix<T, -1, 1>>(b.data(), n).template cast<double>());
    for (int i = 0; i < n; ++i)
        if (!(std::fabs(x[i] - e(i)) <= (sizeof(T) == 4 ? 2e-4 : 1e-11) * (1 + e.cwiseAbs().maxCoeff())))
            return ::testing::AssertionFailure() << "x(" << i << ") = " << x[i] << ", Eigen " << e(i);
    return ::testing::AssertionSuccess();
}

// A solve export on systems A x = b: `factor(A)` gives the factors to lay
// out and a reference `solve(factors, b, signature)`; the destination (or b,
// in place) holds the reference's bits and Eigen's solution, nothing else
// is written. 19 objects: whole batches of lanes and a rest.
template <class T, class Make, class Factor, class Solve>
void check_solve(const reg::ExportRow& row, int n, const lay::Layout& L, bool in_place, unsigned seed, Make make,
                 Factor factor, Solve solve) {
    SCOPED_TRACE(std::string(row.name) + " n=" + std::to_string(n) + " " + L.label + (in_place ? " in place" : ""));
    std::mt19937 g(seed);
    auto l = laid<T>(row, n, 19, L, in_place);
    std::vector<Vec<T>> A, b;
    std::vector<decltype(factor(l, 0, Vec<T>()))> F;
    for (int o = 0; o < mats_of(row, l.count()); ++o) A.push_back(make(g, n)), F.push_back(factor(l, o, A[o]));
    const std::string xg = in_place ? "Src2" : "Dst";
    Image<T> img(l, xg);
    for (int o = 0; o < l.count(); ++o) {
        b.emplace_back(n);
        for (auto& v : b[o]) v = rand_in<T>(g, -4, 4);
        l.set("Src2", o, b[o]);
        const auto x = solve(F[A.size() > 1 ? o : 0], b[o], std::string(row.sig));
        for (int i = 0; i < n; ++i) img.put(o, 0, i, x[i]);
    }
    Image<T> src(l, "Src2");
    ASSERT_EQ(l.call(), zelStsOk);
    EXPECT_TRUE(img.matches());
    EXPECT_TRUE(in_place || src.matches());
    EXPECT_TRUE(l.guards_intact());
    for (int o = 0; o < l.count(); ++o) EXPECT_TRUE(near_solution(A[A.size() > 1 ? o : 0], b[o], l.get(xg, o), n));
}

// Each array export at the limit of its kernel in the family's table: the
// wrapper starts at the first count whose estimate reaches it
// (ownGetNumThreads asked twice); one object less runs on the calling
// thread without asking. `fill(row, laid)` gives the operands good values.
template <std::size_t R, class Fill>
void expect_limits(const std::vector<std::string>& ops, const zel::tri::LimitRow (&limits)[R], Fill fill) {
    for (const auto* row : fh::exports_of(ops))
        for (bool strided : {false, true})
            if (is_array(*row) && !(strided && row->form[0] == 'P'))
                fh::with_type(*row, [&](auto t) {
                    using T = decltype(t);
                    const std::string sig = row->sig;
                    const auto kern = zel::tri::kern_of(zel::Form(std::string("SLP").find(row->form[0])), !strided);
                    const int limit = zel::tri::limit_for<T>(limits, sig, kern);
                    for (int n : {3, 7}) {
                        int at = 1;
                        while (zel::tri::estimate(zel::tri::estimate_of(sig), n, at) < limit) ++at;
                        for (int count : {at - 1, at}) {
                            lay::Layout L;
                            L.k2 = L.dst_k2 = strided ? 2 : 1;
                            auto l = laid<T>(*row, n, count, L);
                            fill(*row, l);
                            subst::Scope scope(4);
                            EXPECT_EQ(l.call(), zelStsOk) << row->name;
                            EXPECT_EQ(subst::thread_queries, count == at ? 2 : 0) << row->name << " n=" << n << " count " << count;
                        }
                    }
                });
}

// Whether object o is complete when object `bad` fails: slices are
// contiguous in thread order, the first count % threads one object longer,
// and each stops at its own failure only.
inline bool completed(int o, int bad, int count, int threads) {
    const int q = count / threads, r = count % threads;
    auto slice = [&](int x) { return x < (q + 1) * r ? x / (q + 1) : r + (x - (q + 1) * r) / q; };
    return slice(o) != slice(bad) || o < bad;
}

// Every array export of `ops` on 1 and on 4 threads, object `bad` failing
// in the decompositions: `fill(row, laid)` sets the operands, `done(laid,
// o)` says whether a decomposed object is complete and `untouched(laid, o)`
// whether it was left alone; the solutions agree bit for bit.
template <class Fill, class Done, class Untouched>
void expect_threads(const std::vector<std::string>& ops, int n, int count, int bad, zelStatus fails, Fill fill, Done done,
                    Untouched untouched) {
    for (const auto* row : fh::exports_of(ops))
        if (is_array(*row))
            fh::with_type(*row, [&](auto t) {
                using T = decltype(t);
                Vec<T> mem[2];
                for (int k = 0; k < 2; ++k) {
                    const int threads = k == 0 ? 1 : 4;
                    auto l = laid<T>(*row, n, count);
                    fill(*row, l);
                    subst::Scope scope(threads);
                    ASSERT_EQ(l.call(), is_decomp(*row) ? fails : zelStsOk) << row->name;
                    ASSERT_EQ(subst::thread_queries, k + 1) << row->name;
                    mem[k] = l.memory("Dst");
                    for (int o = 0; is_decomp(*row) && o < count; ++o) {
                        const bool ok = completed(o, bad, count, threads) ? done(l, o) : o <= bad || untouched(l, o);
                        ASSERT_TRUE(ok) << row->name << " object " << o;
                    }
                }
                EXPECT_TRUE(is_decomp(*row) || std::memcmp(mem[0].data(), mem[1].data(), mem[0].size() * sizeof(T)) == 0);
            });
}

}  // namespace tri_test
