// General eigenproblem: zelmEigenValues_ma and zelmEigenValuesVectors_ma at
// orders 3 and 4, both types, 1000 and 100,000 random matrices, against
// Eigen's EigenSolver on fixed-size matrices (without and with vectors) and
// a per-object LAPACKE ?geev loop (values only; both vector sets for
// EigenValuesVectors, which computes both). The third argument is the
// library's thread count (the fan-out takes both cores above its limit).
//
// Ratios to read off: items_per_second of Zelm over Eigen and over Lapacke
// at the same order, type, count and kind (Values, Vectors).
#include <benchmark/benchmark.h>

#include <random>
#include <vector>

#include "data.hpp"
#include "zelcore.h"
#include "zelm.h"

#ifdef ZELM_HAVE_EIGEN
#include <Eigen/Dense>
#endif
#ifdef ZELM_HAVE_LAPACKE
#include <lapacke.h>
#endif

namespace {

enum Kind { Values, Vectors };
enum Impl { Zelm, Eigen, Lapacke };

template <class T, Kind K>
zelStatus zelm(const T* a, T* r, T* l, T* re, T* im, int n, int count, T* buf) {
    const int e = sizeof(T), s1 = n * e, s0 = n * n * e;
    if constexpr (sizeof(T) == 4) {
        if constexpr (K == Values) return zelmEigenValues_ma_32f(a, s0, s1, e, re, im, n, count, buf);
        else return zelmEigenValuesVectors_ma_32f(a, s0, s1, e, r, s0, s1, e, l, s0, s1, e, re, im, n, count, buf);
    } else {
        if constexpr (K == Values) return zelmEigenValues_ma_64f(a, s0, s1, e, re, im, n, count, buf);
        else return zelmEigenValuesVectors_ma_64f(a, s0, s1, e, r, s0, s1, e, l, s0, s1, e, re, im, n, count, buf);
    }
}

template <class T, int N, Kind K, Impl I>
void BM_eigen(benchmark::State& st) {
    const int count = int(st.range(0));
    zelSetNumThreads(int(st.range(1)));
    const std::size_t e = std::size_t(N) * N * count;
    const std::size_t nv = std::size_t(N) * count, nb = std::size_t(N) * (3 * N + 5);
    std::vector<T> a = data<T>(e), r(e), l(e), re(nv), im(nv), buf(nb), work(e);
    for (auto _ : st) {
        if constexpr (I == Zelm) {
            if (zelm<T, K>(a.data(), r.data(), l.data(), re.data(), im.data(), N, count, buf.data()) != zelStsOk)
                st.SkipWithError("status");
        } else if constexpr (I == Eigen) {
#ifdef ZELM_HAVE_EIGEN
            using M = Eigen::Matrix<T, N, N, Eigen::RowMajor>;
            Eigen::EigenSolver<Eigen::Matrix<T, N, N>> es;
            for (int k = 0; k < count; ++k) {
                es.compute(Eigen::Map<const M>(a.data() + std::size_t(k) * N * N), K == Vectors);
                const auto& v = es.eigenvalues();
                for (int i = 0; i < N; ++i) {
                    re[std::size_t(k) * N + i] = v(i).real();
                    im[std::size_t(k) * N + i] = v(i).imag();
                }
                if constexpr (K == Vectors) benchmark::DoNotOptimize(es.eigenvectors().data());
            }
#endif
        } else {
#ifdef ZELM_HAVE_LAPACKE
            const char job = K == Vectors ? 'V' : 'N';
            for (int k = 0; k < count; ++k) {
                T* m = work.data() + std::size_t(k) * N * N;
                std::copy(a.data() + std::size_t(k) * N * N, a.data() + std::size_t(k + 1) * N * N, m);
                T* pr = re.data() + std::size_t(k) * N;
                T* pi = im.data() + std::size_t(k) * N;
                T* vl = l.data() + std::size_t(k) * N * N;
                T* vr = r.data() + std::size_t(k) * N * N;
                if constexpr (sizeof(T) == 4) LAPACKE_sgeev(LAPACK_ROW_MAJOR, job, job, N, m, N, pr, pi, vl, N, vr, N);
                else LAPACKE_dgeev(LAPACK_ROW_MAJOR, job, job, N, m, N, pr, pi, vl, N, vr, N);
            }
#endif
        }
        benchmark::DoNotOptimize(re.data());
        benchmark::ClobberMemory();
    }
    st.SetItemsProcessed(std::int64_t(st.iterations()) * count);
    st.counters["threads"] = double(st.range(1));
}

void args(benchmark::internal::Benchmark* b) {
    b->Args({1000, 2})->Args({100000, 2})->Unit(benchmark::kMicrosecond)->UseRealTime();
}
void args_zelm(benchmark::internal::Benchmark* b) {
    b->Args({1000, 1})->Args({1000, 2})->Args({100000, 1})->Args({100000, 2})->Unit(benchmark::kMicrosecond)->UseRealTime();
}

#define ZELM_EIGEN_BENCH(T, N, K)                                    \
    BENCHMARK_TEMPLATE(BM_eigen, T, N, K, Zelm)->Apply(args_zelm); \
    BENCHMARK_TEMPLATE(BM_eigen, T, N, K, Eigen)->Apply(args);     \
    BENCHMARK_TEMPLATE(BM_eigen, T, N, K, Lapacke)->Apply(args);

ZELM_EIGEN_BENCH(float, 3, Values)
ZELM_EIGEN_BENCH(double, 3, Values)
ZELM_EIGEN_BENCH(float, 4, Values)
ZELM_EIGEN_BENCH(double, 4, Values)
ZELM_EIGEN_BENCH(float, 3, Vectors)
ZELM_EIGEN_BENCH(double, 3, Vectors)
ZELM_EIGEN_BENCH(float, 4, Vectors)
ZELM_EIGEN_BENCH(double, 4, Vectors)

}  // namespace
