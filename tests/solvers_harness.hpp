// Shared by the solver suites: sq (all of them; QR, inversion, determinant
// above all) and tri_test (LU, Cholesky: bit for bit against the family's
// reference).
#pragma once

#include <Eigen/Dense>
#include <algorithm>
#include <array>
#include <cmath>
#include <limits>

#include "forms_harness.hpp"
#include "solvers/triangular.hpp"

namespace sq {

using Mat = Eigen::MatrixXd;
template <class T>
using Vec = std::vector<T>;

// Objects of an array case: more than one batch of the widest lanes (8) and
// a remainder; a failing object in the middle of the second batch of four.
inline constexpr int kCount = 11;
inline constexpr int kBad = 5;

// Dense (16-byte aligned where the allocator gives it), and gaps everywhere:
// an element stride of 2 (3 in the destination), padded rows, gaps between
// objects, a shift, interleaved pointer-form objects.
inline std::vector<lay::Layout> layouts() {
    lay::Layout dense, gaps;
    dense.scramble = false;
    gaps.k2 = 2, gaps.dst_k2 = 3, gaps.pad1 = 1, gaps.pad0 = 2, gaps.lead = 1, gaps.shift = 3, gaps.soa = false;
    gaps.label = "gaps";
    return {dense, gaps};
}

template <class T>
Vec<T> random_matrix(std::mt19937& g, int rows, int cols) {
    Vec<T> v(std::size_t(rows) * cols);
    for (auto& x : v) x = lay::random_value<T>(g) / T(8);
    return v;
}

// `count` random rows x cols objects in group `grp` of l: their values.
template <class T>
Vec<Vec<T>> random_objects(fh::Laid<T>& l, const std::string& grp, unsigned seed, int rows, int cols) {
    std::mt19937 g(seed);
    Vec<Vec<T>> src;
    for (int k = 0; k < l.objects(grp); ++k) l.set(grp, k, src.emplace_back(random_matrix<T>(g, rows, cols)));
    return src;
}

template <class T>
Mat to_eigen(const Vec<T>& v, int rows, int cols) {
    Mat m(rows, cols);
    for (int i = 0; i < rows; ++i)
        for (int j = 0; j < cols; ++j) m(i, j) = double(v[std::size_t(i) * cols + j]);
    return m;
}

// f(float()), then f(double()).
template <class F>
void for_types(F f) {
    f(float());
    f(double());
}

// The 2-norm condition number of a square A.
inline double cond(const Mat& A) {
    const Eigen::JacobiSVD<Mat> svd(A);
    return svd.singularValues()(0) / svd.singularValues()(A.cols() - 1);
}

inline std::string where(const reg::ExportRow& r, const lay::Layout& L, int n) {
    return std::string(r.name) + " " + L.label + " order " + std::to_string(n);
}

// A call of any solver export on h x n objects (h 0: square); in place: the
// destination on the source, or on b in the back-substitutions.
template <class T>
fh::Laid<T> laid(const reg::ExportRow& row, int count, int n, const lay::Layout& L = {}, int h = 0, bool in_place = false) {
    std::map<std::string, std::string> alias;
    if (in_place) alias["Dst"] = std::string(row.op).find("BackSubst") == std::string::npos ? "Src" : "Src2";
    return fh::Laid<T>(row, count, {{"widthHeight", n}, {"width", n}, {"height", h ? h : n}}, L, unsigned(n + count), alias);
}

// The single-object standard call of `op` on a (and b in the
// back-substitutions), contiguous or with an element stride of 2: its status,
// and in `out` what it stored (sentinels where nothing).
template <class T>
zelStatus single(const std::string& op, Vec<T>& out, int n, int h, bool strided, const Vec<T>& a, const Vec<T>& b = {}) {
    const std::string name = "zelm" + op + "_m" + (b.empty() ? "" : "v") + (sizeof(T) == 4 ? "_32f" : "_64f");
    auto l = laid<T>(fh::row_named(name), 1, n, lay::steps(strided), h);
    l.set(b.empty() ? "Src" : "Src1", 0, a);
    if (!b.empty()) l.set("Src2", 0, b);
    const zelStatus st = l.call();
    out = l.results(0);
    return st;
}
template <class T>
Vec<T> single_ok(const std::string& op, int n, int h, bool strided, const Vec<T>& a, const Vec<T>& b = {}) {
    Vec<T> out;
    EXPECT_EQ(single(op, out, n, h, strided, a, b), zelStsOk) << op;
    return out;
}

// decompositions and inversion, determinant (no vector operand); arrays
inline bool is_decomp(const reg::ExportRow& r) { return std::string(r.sig).find('v') == std::string::npos; }
inline bool is_array(const reg::ExportRow& r) { return std::string(r.sig).find('a') != std::string::npos; }
// The singularity threshold of inversion and the determinant's generic
// path: 2 n^3 times the smallest normal value (`times` that in the kernels
// that double it).
template <class T>
T limit_of(int n, int times = 1) {
    return T(2 * n * n * n * times) * std::numeric_limits<T>::min();
}

// matrices (and pivot tables) of a call: one per object in "ma" and "mava"
inline int mats_of(const reg::ExportRow& r, int count) { return std::string(r.sig) == "ma" || std::string(r.sig) == "mava" ? count : 1; }

// What the wrapper tests lay out: random width x width objects with 2 width
// added on the diagonal (positive definite in their lower triangle, well
// conditioned) in the matrix operand, object `bad` of a decomposition zero
// (bad -1: none); for the solves random b and the table (i * 7 + 3) mod n.
template <class T>
void random_fill(const reg::ExportRow& row, fh::Laid<T>& l, int bad) {
    const int w = l.args.nums.at("width");
    const bool dec = is_decomp(row);
    std::mt19937 g(4);
    auto random = [&] { return lay::random_value<double>(g) / 8; };
    l.fill(dec ? "Src" : "Src1", [&](int o, int r, int c) {
        const double v = random() + (r == c) * 2.0 * w;
        return o == bad && dec ? 0.0 : v;
    });
    if (dec) return;
    l.fill("Src2", [&](int, int, int) { return random(); });
    if (!l.args.ptrs.count("pSrcIndex")) return;
    for (int i = 0; i < w * mats_of(row, l.count()); ++i) l.index("pSrcIndex")[i] = (i * 7 + 3) % w;
}

// The estimate `per` n count of inversion and determinant reaching its limit:
// 20001, 40001 in the contiguous 32f list form (sq::fan_out's `reaches`).
inline auto reaches_linear(int per) {
    return [per](const reg::ExportRow& r, int n, bool strided, int c) {
        return per * n * c >= (!strided && *r.form == 'L' && !fh::is64(r) ? 40001 : 20001);
    };
}

// Whether object o is complete when object `bad` fails: slices are
// contiguous in thread order, the first count % threads one object longer,
// and each stops at its own failure only.
inline bool completed(int o, int bad, int count, int threads) {
    const int q = count / threads, r = count % threads;
    auto slice = [&](int x) { return x < (q + 1) * r ? x / (q + 1) : r + (x - (q + 1) * r) / q; };
    return slice(o) != slice(bad) || o < bad;
}

// The parallel wrapper of every array export of `ops`, contiguous and
// strided: at each of `orders` it starts at the first count whose estimate
// `reaches(row, n, strided, count)` its kernel's limit. At each (order, count,
// bad, height; 0: square) of `cases`, above the limits: the same bits on 1
// thread, on 4 and on 4 whose scratch allocation fails
// (fh::expect_same_on_threads); then on 1 and on 4 threads with object `bad`
// failing (random_fill) the status `fails` where the export has one, every
// object of a slice without the failure, and those before it in its own, as
// in the call without it (tables too), those after it untouched.
template <bool Scratch, class Reaches>
void fan_out(const std::vector<std::string>& ops, std::initializer_list<int> orders, Reaches reaches,
             std::initializer_list<std::array<int, 4>> cases, zelStatus fails) {
    for (const auto* row : fh::exports_of(ops))
        if (is_array(*row))
            fh::with_type(*row, [&](auto t) {
                using T = decltype(t);
                const std::string name = row->name;
                const int steps = row->form[0] == 'P' ? 1 : 2;  // the pointer form has no element step
                for (int strided = 0; strided < steps; ++strided)
                    for (int n : orders) {
                        int at = 1;
                        while (!reaches(*row, n, strided == 1, at)) ++at;
                        fh::expect_forks_from(at, [&](int count) {
                            auto l = laid<T>(*row, count, n, lay::steps(strided));
                            random_fill(*row, l, -1);
                            EXPECT_EQ(l.call(), zelStsOk) << name;
                        }, name + " n=" + std::to_string(n));
                    }
                const bool can_fail = fails != zelStsOk && is_decomp(*row);
                for (const auto& k : cases)
                    for (int strided = 0; strided < steps; ++strided) {
                        const int n = k[0], count = k[1], bad = k[2];
                        auto make = [&](int b) {
                            auto l = laid<T>(*row, count, n, lay::steps(strided), k[3]);
                            random_fill(*row, l, b);
                            return l;
                        };
                        const std::string what = name + " stride " + std::to_string(strided + 1);
                        fh::expect_same_on_threads<Scratch>([&] { return make(-1); }, true, what);
                        auto clean = make(-1);
                        {
                            subst::Scope one(1);
                            ASSERT_EQ(clean.call(), zelStsOk) << what;
                        }
                        // the table entries of object o (LU only)
                        auto table = [&](fh::Laid<T>& l, int o) {
                            const int* p = l.args.ptrs.count("pDstIndex") ? l.index("pDstIndex") + o * n : nullptr;
                            return std::vector<int>(p, p ? p + n : p);
                        };
                        for (int threads : {1, 4}) {
                            auto l = make(bad);
                            subst::Scope scope(threads);
                            ASSERT_EQ(l.call(), can_fail ? fails : zelStsOk) << what;
                            ASSERT_EQ(subst::thread_queries, threads == 1 ? 1 : 2) << what;
                            for (int o = 0; o < count; ++o) {
                                const auto got = l.results(o);
                                const auto p = table(l, o);
                                const bool done = !can_fail || completed(o, bad, count, threads);
                                const bool left = std::all_of(got.begin(), got.end(), fh::untouched<T>) &&
                                                  std::count(p.begin(), p.end(), fh::Laid<T>::kIntSentinel) == int(p.size());
                                ASSERT_TRUE(o == bad || (done ? fh::same(got, clean.results(o)) && p == table(clean, o) : left))
                                    << what << " on " << threads << " threads, object " << o;
                            }
                        }
                    }
            });
}

}  // namespace sq

namespace tri_test {

using fh::Image;
using fh::Laid;
using sq::is_array;
using sq::is_decomp;
using sq::mats_of;
using sq::Vec;

template <class T>
T rand_in(std::mt19937& g, double lo, double hi) {
    return T(std::uniform_real_distribution<double>(lo, hi)(g));
}

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

// Every decomposition export of `op` at orders 1 to 9 on 19 objects (whole
// batches of lanes and a rest) from `make(T(), g, n, o)`: `spoil(A, n, c)`
// makes object 10 fail at step c, or none fails (c = -1, also in place).
// `ref(A, n, pointer form)` gives each object's Expect, up to the first
// failure (later objects and their tables untouched); `prepare(laid,
// in_place)` runs before the memory is taken as the image; `residual(A, l, o,
// n)` of the completed objects is small (P A = L U, L L^T = A).
template <class Make, class Spoil, class Ref, class Prepare, class Residual>
void check_decomps(const std::string& op, Make make, Spoil spoil, Ref ref, Prepare prepare, Residual residual) {
    unsigned seed = 1;
    for (const auto* row : fh::exports_of({op}))
        for (int n = 1; n <= 9; ++n)
            for (int c = -1; c < n; ++c)
                for (int in_place = 0; in_place <= (c < 0); ++in_place)
                    fh::with_type(*row, [&](auto t) {
                        using T = decltype(t);
                        std::mt19937 g(seed++);
                        std::vector<Vec<T>> mats;
                        for (int o = 0; o < 19; ++o) mats.push_back(make(t, g, n, o));
                        if (c >= 0) spoil(mats[10], n, c);
                        if (!is_array(*row)) mats = {mats[10]};
                        const lay::Layout L = sq::layouts()[(c + 2) % 2];
                        SCOPED_TRACE(std::string(row->name) + " n=" + std::to_string(n) + " " + L.label + (in_place ? " in place" : ""));
                        const int count = int(mats.size());
                        auto l = sq::laid<T>(*row, count, n, L, 0, in_place == 1);
                        for (int o = 0; o < count; ++o) l.set("Src", o, mats[o]);
                        prepare(l, in_place == 1);
                        Image<T> img(l, "Dst");
                        const bool lu = l.args.ptrs.count("pDstIndex");
                        std::vector<int> table(lu ? l.index("pDstIndex") : nullptr, lu ? l.index("pDstIndex") + count * n + 8 : nullptr);
                        zelStatus want = zelStsOk;
                        int done = 0;
                        for (; done < count && want == zelStsOk; ++done) {
                            const Expect<T> e = ref(mats[done], n, row->form[0] == 'P');
                            for (int k = 0; k < n * n; ++k)
                                if (e.stored[k]) img.put(done, k / n, k % n, e.f[k]);
                            if (lu) std::copy(e.p.begin(), e.p.end(), table.begin() + done * n);
                            want = e.st;
                        }
                        ASSERT_TRUE(fh::call_matches(l, {img}, want));
                        EXPECT_TRUE(!lu || std::equal(table.begin(), table.end(), l.index("pDstIndex")));
                        for (int o = 0; o < done - (want != zelStsOk); ++o)
                            EXPECT_LT(residual(mats[o], l, o, n), sizeof(T) == 4 ? 1e-5 : 1e-14) << "object " << o;
                    });
}

// The status of every decomposition export of `op` on 16 objects of order n,
// each with the elements make(n, v, r, c), for each (n, v) of `cases`: as
// `ref(A, n, pointer form)` has it.
template <class Make, class Ref>
void check_statuses(const std::string& op, std::initializer_list<std::pair<int, double>> cases, Make make, Ref ref) {
    for (const auto* row : fh::exports_of({op}))
        for (const auto& k : cases)
            fh::with_type(*row, [&, n = k.first, v = k.second](auto t) {
                using T = decltype(t);
                Vec<T> A(n * n);
                for (int k = 0; k < n * n; ++k) A[k] = T(make(n, v, k / n, k % n));
                auto l = sq::laid<T>(*row, 16, n);
                for (int o = 0; o < l.count(); ++o) l.set("Src", o, A);
                EXPECT_EQ(l.call(), ref(A, n, row->form[0] == 'P').st) << row->name << " n=" << n << " " << v;
            });
}

// The solve of the factors' triangles, x being b on entry: x(i) less the
// products lo(i, j) x(j) over j < i, through fwd(i, .), then less up(i, j)
// x(j) over j > i, through back(i, .); at orders 3 to 6 by successive
// subtraction in ascending j, elsewhere minus the sum of partial sums.
template <class T, class Lo, class Up, class Fwd, class Back>
Vec<T> substitute(Vec<T> x, Lo lo, Up up, Fwd fwd, Back back) {
    const int n = int(x.size());
    auto less = [&](int i, auto coef, int from, int to) {
        Vec<T> t;
        for (int j = from; j < to; ++j) t.push_back(coef(i, j) * x[j]);
        if (n < 3 || n > 6) return x[i] - partial(t, T(0), 1, 2);
        T v = x[i];
        for (T p : t) v -= p;
        return v;
    };
    for (int i = 0; i < n; ++i) x[i] = fwd(i, less(i, lo, 0, i));
    for (int i = n - 1; i >= 0; --i) x[i] = back(i, less(i, up, i + 1, n));
    return x;
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

// Every solve export of `op` at orders 1 to 9 on systems A x = b, in both
// layouts and, where `in_place(n)`, with b as the destination: `factor(A, n)`
// gives the reference factors (an Expect), `lay_out(l, o, F)` puts them in
// the call, `solve(F, b, signature)` is the reference x; the destination (or
// b) holds its bits and Eigen's solution, nothing else is written. 19
// objects: whole batches of lanes and a rest.
template <class Make, class Factor, class LayOut, class Solve, class InPlace>
void check_solves(const std::string& op, InPlace in_place, Make make, Factor factor, LayOut lay_out, Solve solve) {
    unsigned seed = 500;
    for (const auto* row : fh::exports_of({op}))
        for (int n = 1; n <= 9; ++n)
            for (int k = 0; k < (in_place(n) ? 3 : 2); ++k)
                fh::with_type(*row, [&](auto t) {
                    using T = decltype(t);
                    const lay::Layout L = sq::layouts()[k % 2];
                    SCOPED_TRACE(std::string(row->name) + " n=" + std::to_string(n) + " " + L.label + (k == 2 ? " in place" : ""));
                    std::mt19937 g(seed++);
                    auto l = sq::laid<T>(*row, 19, n, L, 0, k == 2);
                    std::vector<Vec<T>> A, b;
                    std::vector<Expect<T>> F;
                    for (int o = 0; o < mats_of(*row, l.count()); ++o) {
                        A.push_back(make(t, g, n)), F.push_back(factor(A[o], n));
                        lay_out(l, o, F[o]);
                    }
                    const std::string xg = k == 2 ? "Src2" : "Dst";
                    Image<T> img(l, xg);
                    for (int o = 0; o < l.count(); ++o) {
                        b.emplace_back(n);
                        for (auto& v : b[o]) v = rand_in<T>(g, -4, 4);
                        l.set("Src2", o, b[o]);
                        const Vec<T> x = solve(F[A.size() > 1 ? o : 0], b[o], std::string(row->sig));
                        for (int i = 0; i < n; ++i) img.put(o, 0, i, x[i]);
                    }
                    std::vector<Image<T>> images{img};  // and b as it was, unless it is the destination
                    if (k != 2) images.emplace_back(l, "Src2");
                    ASSERT_TRUE(fh::call_matches(l, images));
                    for (int o = 0; o < l.count(); ++o) EXPECT_TRUE(near_solution(A[A.size() > 1 ? o : 0], b[o], l.get(xg, o), n));
                });
}

// The documented work estimates, in plain 64-bit arithmetic (they do not
// wrap at the sizes tested), against the kernels' limits in `limits`, the
// documented table the test writes out: sq::fan_out's `reaches`.
template <std::size_t R>
auto reaches(const zel::tri::LimitRow (&limits)[R]) {
    return [&limits](const reg::ExportRow& row, std::int64_t n, bool strided, std::int64_t count) {
        const std::string sig = row.sig;
        const auto kern = zel::tri::kern_of(zel::Form(std::string("SLP").find(row.form[0])), !strided);
        const int limit = fh::is64(row) ? zel::tri::limit_for<double>(limits, sig, kern) : zel::tri::limit_for<float>(limits, sig, kern);
        return (sig == "ma" ? n * n * count : sig == "mva" ? (n + 2 * count) * n : (n + 2) * n * count) >= limit;
    };
}

}  // namespace tri_test
