// Symmetric eigenproblem: zelmEigenValuesVectorsSym_ma and zelmEigenValuesSym_ma
// at orders 3 and 6, both types, 1000 and 100,000 random symmetric matrices,
// against Eigen's fixed-size SelfAdjointEigenSolver (its iterative compute,
// and computeDirect at order 3) and a loop of LAPACKE ?syev, one call per
// matrix: the plain call on the row-major matrix (Lapacke, which allocates
// its workspace and transposes on each call), and the _work call on the
// column-major matrix with the workspace allocated once (LapackeWork).
// The second argument is the library's thread count (1: the direct path).
//
// Ratios to read off: items_per_second (matrices) of Zelm/.../1 over
// Eigen/... and over Lapacke/... of the same type, order and vectors flag.
#include <benchmark/benchmark.h>

#include <algorithm>
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

enum Impl { Zelm, Eigen, EigenDirect, Lapacke, LapackeWork };

// Random symmetric matrices with entries in [-1, 1], back to back.
template <class T>
std::vector<T> matrices(int n, int count) {
    std::vector<T> v(std::size_t(n) * n * count);
    std::mt19937 g(1);
    std::uniform_real_distribution<double> d(-1, 1);
    for (int o = 0; o < count; ++o)
        for (int i = 0; i < n; ++i)
            for (int j = 0; j <= i; ++j) v[(std::size_t(o) * n + i) * n + j] = v[(std::size_t(o) * n + j) * n + i] = T(d(g));
    return v;
}

zelStatus zelm(const float* a, float* buf, float* vec, float* val, int n, int count, bool vectors) {
    const int s1 = n * 4, s0 = n * s1;
    return vectors ? zelmEigenValuesVectorsSym_ma_32f(a, s0, s1, 4, buf, vec, s0, s1, 4, val, n, count)
                   : zelmEigenValuesSym_ma_32f(a, s0, s1, 4, buf, val, n, count);
}
zelStatus zelm(const double* a, double* buf, double* vec, double* val, int n, int count, bool vectors) {
    const int s1 = n * 8, s0 = n * s1;
    return vectors ? zelmEigenValuesVectorsSym_ma_64f(a, s0, s1, 8, buf, vec, s0, s1, 8, val, n, count)
                   : zelmEigenValuesSym_ma_64f(a, s0, s1, 8, buf, val, n, count);
}

#ifdef ZELM_HAVE_LAPACKE
int syev(char job, int n, float* a, float* w) { return LAPACKE_ssyev(LAPACK_ROW_MAJOR, job, 'U', n, a, n, w); }
int syev(char job, int n, double* a, double* w) { return LAPACKE_dsyev(LAPACK_ROW_MAJOR, job, 'U', n, a, n, w); }
int syev(char job, int n, float* a, float* w, float* work, int lwork) {
    return LAPACKE_ssyev_work(LAPACK_COL_MAJOR, job, 'U', n, a, n, w, work, lwork);
}
int syev(char job, int n, double* a, double* w, double* work, int lwork) {
    return LAPACKE_dsyev_work(LAPACK_COL_MAJOR, job, 'U', n, a, n, w, work, lwork);
}
#endif

template <class T, int N, Impl Im, bool Vectors>
void BM(benchmark::State& st) {
    const int count = int(st.range(0));
    zelSetNumThreads(std::max<int>(1, int(st.range(1))));
    const std::vector<T> src = matrices<T>(N, count);
    std::vector<T> val(static_cast<std::size_t>(N) * count), vec(Vectors ? src.size() : 0), buf(N * N);
    if constexpr (Im == Zelm) {
        for (auto _ : st) {
            benchmark::DoNotOptimize(zelm(src.data(), buf.data(), vec.data(), val.data(), N, count, Vectors));
            benchmark::ClobberMemory();
        }
    } else if constexpr (Im == Lapacke) {
#ifdef ZELM_HAVE_LAPACKE
        T a[N * N];
        for (auto _ : st) {
            for (int o = 0; o < count; ++o) {
                std::copy_n(&src[std::size_t(o) * N * N], N * N, a);
                benchmark::DoNotOptimize(syev(Vectors ? 'V' : 'N', N, a, &val[std::size_t(o) * N]));
                if (Vectors) std::copy_n(a, N * N, &vec[std::size_t(o) * N * N]);
            }
            benchmark::ClobberMemory();
        }
#else
        st.SkipWithError("no LAPACKE");
#endif
    } else if constexpr (Im == LapackeWork) {
#ifdef ZELM_HAVE_LAPACKE
        T a[N * N], q;
        syev(Vectors ? 'V' : 'N', N, a, val.data(), &q, -1);
        std::vector<T> work(static_cast<std::size_t>(q));
        for (auto _ : st) {
            for (int o = 0; o < count; ++o) {
                std::copy_n(&src[std::size_t(o) * N * N], N * N, a);
                benchmark::DoNotOptimize(syev(Vectors ? 'V' : 'N', N, a, &val[std::size_t(o) * N], work.data(), int(work.size())));
                if (Vectors) std::copy_n(a, N * N, &vec[std::size_t(o) * N * N]);
            }
            benchmark::ClobberMemory();
        }
#else
        st.SkipWithError("no LAPACKE");
#endif
    } else {
#ifdef ZELM_HAVE_EIGEN
        using M = Eigen::Matrix<T, N, N, Eigen::RowMajor>;
        Eigen::SelfAdjointEigenSolver<Eigen::Matrix<T, N, N>> es;
        const int opt = Vectors ? Eigen::ComputeEigenvectors : Eigen::EigenvaluesOnly;
        for (auto _ : st) {
            for (int o = 0; o < count; ++o) {
                const Eigen::Map<const M> a(&src[std::size_t(o) * N * N]);
                if constexpr (Im == EigenDirect) es.computeDirect(a, opt);
                else es.compute(a, opt);
                Eigen::Map<Eigen::Matrix<T, N, 1>> w(&val[std::size_t(o) * N]);
                w = es.eigenvalues();
                if constexpr (Vectors) {
                    Eigen::Map<M> v(&vec[std::size_t(o) * N * N]);
                    v = es.eigenvectors();
                }
            }
            benchmark::ClobberMemory();
        }
#else
        st.SkipWithError("no Eigen");
#endif
    }
    st.SetItemsProcessed(std::int64_t(st.iterations()) * count);
}

#define ZELM_EIGENSYM_BENCH(T, N, V)                                                                       \
    BENCHMARK(BM<T, N, Zelm, V>)->Args({1000, 1})->Args({100000, 1})->Args({100000, 2})->UseRealTime(); \
    BENCHMARK(BM<T, N, Eigen, V>)->Args({1000, 0})->Args({100000, 0})->UseRealTime();                   \
    BENCHMARK(BM<T, N, Lapacke, V>)->Args({1000, 0})->Args({100000, 0})->UseRealTime();              \
    BENCHMARK(BM<T, N, LapackeWork, V>)->Args({1000, 0})->Args({100000, 0})->UseRealTime();

ZELM_EIGENSYM_BENCH(float, 3, true)
ZELM_EIGENSYM_BENCH(float, 3, false)
ZELM_EIGENSYM_BENCH(double, 3, true)
ZELM_EIGENSYM_BENCH(double, 3, false)
ZELM_EIGENSYM_BENCH(float, 6, true)
ZELM_EIGENSYM_BENCH(float, 6, false)
ZELM_EIGENSYM_BENCH(double, 6, true)
ZELM_EIGENSYM_BENCH(double, 6, false)
BENCHMARK(BM<float, 3, EigenDirect, true>)->Args({1000, 0})->Args({100000, 0})->UseRealTime();
BENCHMARK(BM<float, 3, EigenDirect, false>)->Args({1000, 0})->Args({100000, 0})->UseRealTime();
BENCHMARK(BM<double, 3, EigenDirect, true>)->Args({1000, 0})->Args({100000, 0})->UseRealTime();
BENCHMARK(BM<double, 3, EigenDirect, false>)->Args({1000, 0})->Args({100000, 0})->UseRealTime();

}  // namespace
