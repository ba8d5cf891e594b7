// Factor plus solve, one right-hand side per object: zelmLUDecomp_ma with
// zelmLUBackSubst_mava, and zelmCholeskyDecomp_ma with
// zelmCholeskyBackSubst_mava, at orders 3, 4 and 6, 1000 objects (in cache)
// and 200,000 (streaming; at order 4 also 1,000,000), both types, against an
// Eigen fixed-size loop (PartialPivLU, LLT on Matrix<T, N, N>) and a loop of
// per-object LAPACKE calls (?getrf + ?getrs, ?potrf + ?potrs), and Bytes, a
// loop that moves what the two calls must move and computes nothing: the
// matrices read and the factors (and pivot tables) written, then the factors,
// tables and right-hand sides read and the solutions written. The second
// argument is the library's thread count (1: the direct path; 2: the fan-out).
//
// Ratios to read off: items_per_second (objects solved, by wall time, so
// that the fan-out's other threads count) of Zelm/<N>/<count>/<threads> over
// Eigen/<N>/<count>/1 and Lapacke/<N>/<count>/1.
#include <benchmark/benchmark.h>

#include <cstring>
#include <numeric>
#include <random>
#include <vector>

#include "zelcore.h"
#include "zelm.h"

#ifdef ZELM_HAVE_EIGEN
#include <Eigen/Dense>
#endif
#ifdef ZELM_HAVE_LAPACKE
#include <lapacke.h>
#endif

namespace {

enum Impl { Zelm, Eigen, Lapacke, Bytes };
enum Kind { LU, Chol };

// Systems that need pivoting (the large entries off the diagonal), or
// symmetric positive definite ones; right-hand sides in [-1, 1].
template <class T, Kind K>
struct Problem {
    int n, count;
    std::vector<T> a, b, f, x;
    std::vector<int> p;
    Problem(int n_, int count_) : n(n_), count(count_) {
        const std::size_t nn = std::size_t(n) * n;
        a.resize(nn * count), b.resize(std::size_t(n) * count), f.resize(nn * count), x.resize(b.size());
        p.resize(std::size_t(n) * count);
        std::mt19937 g(1);
        std::uniform_real_distribution<double> d(-1, 1);
        std::vector<double> m(nn);
        for (int o = 0; o < count; ++o) {
            T* A = a.data() + nn * o;
            for (auto& v : m) v = d(g);
            for (int i = 0; i < n; ++i)
                for (int j = 0; j < n; ++j) {
                    double v = m[i * n + j];
                    if (K == Chol) {
                        v = i == j ? n : 0;
                        for (int k = 0; k < n; ++k) v += m[i * n + k] * m[j * n + k];
                    } else if ((i + o) % n == j) {
                        v += 2 * n;
                    }
                    A[i * n + j] = T(v);
                }
        }
        for (auto& v : b) v = T(d(g));
    }
};

zelStatus factor(Problem<float, LU>& q) {
    const int n = q.n, s1 = 4 * n, s0 = s1 * n;
    return zelmLUDecomp_ma_32f(q.a.data(), s0, s1, 4, q.p.data(), q.f.data(), s0, s1, 4, n, q.count);
}
zelStatus factor(Problem<double, LU>& q) {
    const int n = q.n, s1 = 8 * n, s0 = s1 * n;
    return zelmLUDecomp_ma_64f(q.a.data(), s0, s1, 8, q.p.data(), q.f.data(), s0, s1, 8, n, q.count);
}
zelStatus solve(Problem<float, LU>& q) {
    const int n = q.n, s1 = 4 * n, s0 = s1 * n;
    return zelmLUBackSubst_mava_32f(q.f.data(), s0, s1, 4, q.p.data(), q.b.data(), s1, 4, q.x.data(), s1, 4, n, q.count);
}
zelStatus solve(Problem<double, LU>& q) {
    const int n = q.n, s1 = 8 * n, s0 = s1 * n;
    return zelmLUBackSubst_mava_64f(q.f.data(), s0, s1, 8, q.p.data(), q.b.data(), s1, 8, q.x.data(), s1, 8, n, q.count);
}
zelStatus factor(Problem<float, Chol>& q) {
    const int n = q.n, s1 = 4 * n, s0 = s1 * n;
    return zelmCholeskyDecomp_ma_32f(q.a.data(), s0, s1, 4, q.f.data(), s0, s1, 4, n, q.count);
}
zelStatus factor(Problem<double, Chol>& q) {
    const int n = q.n, s1 = 8 * n, s0 = s1 * n;
    return zelmCholeskyDecomp_ma_64f(q.a.data(), s0, s1, 8, q.f.data(), s0, s1, 8, n, q.count);
}
zelStatus solve(Problem<float, Chol>& q) {
    const int n = q.n, s1 = 4 * n, s0 = s1 * n;
    return zelmCholeskyBackSubst_mava_32f(q.f.data(), s0, s1, 4, q.b.data(), s1, 4, q.x.data(), s1, 4, n, q.count);
}
zelStatus solve(Problem<double, Chol>& q) {
    const int n = q.n, s1 = 8 * n, s0 = s1 * n;
    return zelmCholeskyBackSubst_mava_64f(q.f.data(), s0, s1, 8, q.b.data(), s1, 8, q.x.data(), s1, 8, n, q.count);
}

#ifdef ZELM_HAVE_EIGEN
template <class T, int N, Kind K>
void eigen_loop(Problem<T, K>& q) {
    using M = Eigen::Matrix<T, N, N, Eigen::RowMajor>;
    using V = Eigen::Matrix<T, N, 1>;
    for (int o = 0; o < q.count; ++o) {
        Eigen::Map<const M> A(q.a.data() + std::size_t(N) * N * o);
        Eigen::Map<const V> b(q.b.data() + std::size_t(N) * o);
        Eigen::Map<V> x(q.x.data() + std::size_t(N) * o);
        if constexpr (K == LU) {
            const Eigen::PartialPivLU<M> lu(A);
            x = lu.solve(b);
        } else {
            const Eigen::LLT<M> llt(A);
            x = llt.solve(b);
        }
    }
}
#endif

#ifdef ZELM_HAVE_LAPACKE
inline lapack_int getrf(int n, float* a, lapack_int* p) { return LAPACKE_sgetrf(LAPACK_ROW_MAJOR, n, n, a, n, p); }
inline lapack_int getrf(int n, double* a, lapack_int* p) { return LAPACKE_dgetrf(LAPACK_ROW_MAJOR, n, n, a, n, p); }
inline lapack_int getrs(int n, const float* a, const lapack_int* p, float* b) {
    return LAPACKE_sgetrs(LAPACK_ROW_MAJOR, 'N', n, 1, a, n, p, b, 1);
}
inline lapack_int getrs(int n, const double* a, const lapack_int* p, double* b) {
    return LAPACKE_dgetrs(LAPACK_ROW_MAJOR, 'N', n, 1, a, n, p, b, 1);
}
inline lapack_int potrf(int n, float* a) { return LAPACKE_spotrf(LAPACK_ROW_MAJOR, 'L', n, a, n); }
inline lapack_int potrf(int n, double* a) { return LAPACKE_dpotrf(LAPACK_ROW_MAJOR, 'L', n, a, n); }
inline lapack_int potrs(int n, const float* a, float* b) { return LAPACKE_spotrs(LAPACK_ROW_MAJOR, 'L', n, 1, a, n, b, 1); }
inline lapack_int potrs(int n, const double* a, double* b) { return LAPACKE_dpotrs(LAPACK_ROW_MAJOR, 'L', n, 1, a, n, b, 1); }

// The factors into the destination (LAPACK factors in place), then the
// solution over a copy of b.
template <class T, Kind K>
void lapacke_loop(Problem<T, K>& q) {
    const int n = q.n;
    const std::size_t nn = std::size_t(n) * n;
    lapack_int piv[16];
    for (int o = 0; o < q.count; ++o) {
        T* f = q.f.data() + nn * o;
        T* x = q.x.data() + std::size_t(n) * o;
        std::memcpy(f, q.a.data() + nn * o, nn * sizeof(T));
        std::memcpy(x, q.b.data() + std::size_t(n) * o, n * sizeof(T));
        if constexpr (K == LU) {
            getrf(n, f, piv);
            getrs(n, f, piv, x);
        } else {
            potrf(n, f);
            potrs(n, f, x);
        }
    }
}
#endif

// The bytes of factor plus solve: each pass one sweep over its arrays.
template <class T, Kind K>
void bytes_loop(Problem<T, K>& q) {
    const int n = q.n;
    const std::size_t nn = std::size_t(n) * n;
    for (int o = 0; o < q.count; ++o) {
        std::memcpy(q.f.data() + nn * o, q.a.data() + nn * o, nn * sizeof(T));
        if constexpr (K == LU) std::iota(q.p.begin() + std::ptrdiff_t(n) * o, q.p.begin() + std::ptrdiff_t(n) * (o + 1), 0);
    }
    for (int o = 0; o < q.count; ++o) {
        const T* f = q.f.data() + nn * o;
        const std::size_t v = std::size_t(n) * o;  // the object's first vector element
        for (int i = 0; i < n; ++i) {
            T s = q.b[v + i];
            if constexpr (K == LU) s += T(q.p[v + i]);
            for (int j = 0; j < n; ++j) s += f[i * n + j];
            q.x[v + i] = s;
        }
    }
}

template <class T, int N, Kind K, Impl I>
void BM_solve(benchmark::State& st) {
    Problem<T, K> q(N, int(st.range(0)));
    if (I == Zelm) zelSetNumThreads(int(st.range(1)));
    for (auto _ : st) {
        if constexpr (I == Zelm) {
            if (factor(q) != zelStsOk || solve(q) != zelStsOk) st.SkipWithError("failed");
        } else if constexpr (I == Eigen) {
#ifdef ZELM_HAVE_EIGEN
            eigen_loop<T, N>(q);
#endif
        } else if constexpr (I == Bytes) {
            bytes_loop(q);
        } else {
#ifdef ZELM_HAVE_LAPACKE
            lapacke_loop(q);
#endif
        }
        benchmark::DoNotOptimize(q.x.data());
        benchmark::ClobberMemory();
    }
    st.SetItemsProcessed(st.iterations() * q.count);
    zelSetNumThreads(0);
}

// 1000 objects stay in cache, 200,000 stream (order 4 also 1,000,000,
// far beyond the last-level cache); peers run on one thread.
template <int N, int Threads>
void args(benchmark::internal::Benchmark* b) {
    for (int count : {1000, 200000, N == 4 ? 1000000 : 0})
        for (int t = 1; count && t <= Threads; ++t) b->Args({count, t});
    b->UseRealTime();
}

#define ZEL_BENCH_ORDER(T, N, K)                                               \
    BENCHMARK_TEMPLATE(BM_solve, T, N, K, Zelm)->Apply(args<N, 2>);            \
    BENCHMARK_TEMPLATE(BM_solve, T, N, K, Eigen)->Apply(args<N, 1>);           \
    BENCHMARK_TEMPLATE(BM_solve, T, N, K, Lapacke)->Apply(args<N, 1>);         \
    BENCHMARK_TEMPLATE(BM_solve, T, N, K, Bytes)->Apply(args<N, 1>);
#define ZEL_BENCH_KIND(T, K) ZEL_BENCH_ORDER(T, 3, K) ZEL_BENCH_ORDER(T, 4, K) ZEL_BENCH_ORDER(T, 6, K)

ZEL_BENCH_KIND(float, LU)
ZEL_BENCH_KIND(double, LU)
ZEL_BENCH_KIND(float, Chol)
ZEL_BENCH_KIND(double, Chol)

}  // namespace
