// Array products: zelmMul_mama at orders 3, 4 and 6 and zelmMul_mva at
// order 4, 1000 objects (in cache) and 1M objects (streaming), both types,
// against an Eigen fixed-size loop and a plain triple loop. Bytes touched are
// reported as a rate (bytes_per_second); Stream/* is the streaming limit of
// the same bytes: a plain loop that reads the inputs and writes the output.
// The second argument is the library's thread count (1: the wrapper takes
// the direct path; 2: the fan-out above the limits).
//
// Ratios to read off: items_per_second of Zelm/N/1000/1 over Eigen/N/1000
// (in cache), bytes_per_second of Zelm/N/1000000/t over Stream/N/1000000.
#include <benchmark/benchmark.h>

#include <cstring>
#include <random>
#include <vector>

#include "data.hpp"
#include "zelcore.h"
#include "zelm.h"

#ifdef ZELM_HAVE_EIGEN
#include <Eigen/Dense>
#endif

namespace {

template <class T>
zelStatus mama(const T* a, const T* b, T* d, int n, int count);
template <>
zelStatus mama<float>(const float* a, const float* b, float* d, int n, int count) {
    const int s1 = n * 4, s0 = n * n * 4;
    return zelmMul_mama_32f(a, s0, s1, 4, n, n, b, s0, s1, 4, n, n, d, s0, s1, 4, count);
}
template <>
zelStatus mama<double>(const double* a, const double* b, double* d, int n, int count) {
    const int s1 = n * 8, s0 = n * n * 8;
    return zelmMul_mama_64f(a, s0, s1, 8, n, n, b, s0, s1, 8, n, n, d, s0, s1, 8, count);
}
template <class T>
zelStatus mva(const T* a, const T* x, T* d, int n, int count);
template <>
zelStatus mva<float>(const float* a, const float* x, float* d, int n, int count) {
    return zelmMul_mva_32f(a, n * 4, 4, n, n, x, n * 4, 4, n, d, n * 4, 4, count);
}
template <>
zelStatus mva<double>(const double* a, const double* x, double* d, int n, int count) {
    return zelmMul_mva_64f(a, n * 8, 8, n, n, x, n * 8, 8, n, d, n * 8, 8, count);
}

enum Impl { Zelm, Eigen, Loop, Stream };

void set_threads(benchmark::State& st) {
    const int n = st.range(1) > 0 ? int(st.range(1)) : 1;
    zelSetNumThreads(n);
    st.counters["threads"] = n;
}

// The streaming limit: every input byte read once, every output byte written
// once, with one addition per output element.
template <class T>
void stream2(const T* a, const T* b, T* d, std::size_t e) {
    for (std::size_t i = 0; i < e; ++i) d[i] = a[i] + b[i];
}
template <class T>
void stream1(const T* x, T* d, std::size_t e) {
    for (std::size_t i = 0; i < e; ++i) d[i] = x[i] + T(1);
}

template <class T, int N, Impl I>
void BM_mama(benchmark::State& st) {
    const int count = int(st.range(0));
    const std::size_t e = std::size_t(N) * N * count;
    auto a = data<T>(e), b = data<T>(e);
    std::vector<T> d(e);
    if constexpr (I == Zelm) set_threads(st);
    for (auto _ : st) {
        if constexpr (I == Zelm) {
            mama<T>(a.data(), b.data(), d.data(), N, count);
        } else if constexpr (I == Stream) {
            stream2(a.data(), b.data(), d.data(), e);
        } else if constexpr (I == Eigen) {
#ifdef ZELM_HAVE_EIGEN
            using M = Eigen::Matrix<T, N, N, Eigen::RowMajor>;
            for (int n = 0; n < count; ++n)
                Eigen::Map<M>(d.data() + std::size_t(n) * N * N).noalias() =
                    Eigen::Map<const M>(a.data() + std::size_t(n) * N * N) *
                    Eigen::Map<const M>(b.data() + std::size_t(n) * N * N);
#endif
        } else {
            for (int n = 0; n < count; ++n) {
                const T* A = a.data() + std::size_t(n) * N * N;
                const T* B = b.data() + std::size_t(n) * N * N;
                T* D = d.data() + std::size_t(n) * N * N;
                for (int i = 0; i < N; ++i)
                    for (int j = 0; j < N; ++j) {
                        T s = 0;
                        for (int k = 0; k < N; ++k) s += A[i * N + k] * B[k * N + j];
                        D[i * N + j] = s;
                    }
            }
        }
        benchmark::DoNotOptimize(d.data());
        benchmark::ClobberMemory();
    }
    if constexpr (I == Zelm) zelSetNumThreads(0);
    st.SetBytesProcessed(int64_t(st.iterations()) * int64_t(e) * 3 * int64_t(sizeof(T)));
    st.SetItemsProcessed(int64_t(st.iterations()) * count);
}

template <class T, int N, Impl I>
void BM_mva(benchmark::State& st) {
    const int count = int(st.range(0));
    auto a = data<T>(std::size_t(N) * N), x = data<T>(std::size_t(N) * count);
    std::vector<T> d(count * std::size_t(N));
    if constexpr (I == Zelm) set_threads(st);
    for (auto _ : st) {
        if constexpr (I == Zelm) {
            mva<T>(a.data(), x.data(), d.data(), N, count);
        } else if constexpr (I == Stream) {
            stream1(x.data(), d.data(), std::size_t(N) * count);
        } else if constexpr (I == Eigen) {
#ifdef ZELM_HAVE_EIGEN
            using M = Eigen::Matrix<T, N, N, Eigen::RowMajor>;
            using V = Eigen::Matrix<T, N, 1>;
            const M A = Eigen::Map<const M>(a.data());
            for (int n = 0; n < count; ++n)
                Eigen::Map<V>(d.data() + std::size_t(n) * N).noalias() = A * Eigen::Map<const V>(x.data() + std::size_t(n) * N);
#endif
        } else {
            for (int n = 0; n < count; ++n)
                for (int i = 0; i < N; ++i) {
                    T s = 0;
                    for (int k = 0; k < N; ++k) s += a[i * N + k] * x[std::size_t(n) * N + k];
                    d[std::size_t(n) * N + i] = s;
                }
        }
        benchmark::DoNotOptimize(d.data());
        benchmark::ClobberMemory();
    }
    if constexpr (I == Zelm) zelSetNumThreads(0);
    st.SetBytesProcessed(int64_t(st.iterations()) * int64_t(count) * 2 * N * int64_t(sizeof(T)));
    st.SetItemsProcessed(int64_t(st.iterations()) * count);
}

#define ZEL_BENCH_ALL(BM, T, N)                                                                       \
    BENCHMARK(BM<T, N, Zelm>)->Args({1000, 1})->Args({1000000, 1})->Args({1000, 2})->Args({1000000, 2}) \
        ->UseRealTime();                                                                                \
    BENCHMARK(BM<T, N, Eigen>)->Args({1000, 0})->Args({1000000, 0})->UseRealTime();                    \
    BENCHMARK(BM<T, N, Loop>)->Args({1000, 0})->Args({1000000, 0})->UseRealTime();                     \
    BENCHMARK(BM<T, N, Stream>)->Args({1000, 0})->Args({1000000, 0})->UseRealTime();

ZEL_BENCH_ALL(BM_mama, float, 3)
ZEL_BENCH_ALL(BM_mama, float, 4)
ZEL_BENCH_ALL(BM_mama, float, 6)
ZEL_BENCH_ALL(BM_mama, double, 3)
ZEL_BENCH_ALL(BM_mama, double, 4)
ZEL_BENCH_ALL(BM_mama, double, 6)
ZEL_BENCH_ALL(BM_mva, float, 4)
ZEL_BENCH_ALL(BM_mva, double, 4)

}  // namespace
