// QR, inversion and determinants of contiguous arrays: zelmInvert_ma and
// zelmDet_ma at orders 3, 4 and 6, and the QR factorisation plus solve of
// order 4 (zelmQRDecomp_ma then zelmQRBackSubst_mava), both types, 1000
// objects (in cache) and 200,000 (streaming). Peers: an Eigen fixed-size
// loop (inverse(), determinant(), HouseholderQR compute and solve) and, for
// QR, LAPACKE's gels on one object at a time.
//
// The second argument is the library's thread count (1: the wrapper takes
// the direct path). Ratios to read off: items_per_second of Zelm over Eigen
// (or Lapacke) at the same count.
#include <benchmark/benchmark.h>

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

enum Impl { Zelm, Eigen, Lapacke };

// Random matrices with a strong diagonal, so that no object is singular.
template <class T>
std::vector<T> matrices(int n, int count) {
    std::vector<T> v(std::size_t(n) * n * count);
    std::mt19937 g(1);
    std::uniform_real_distribution<double> d(-1, 1);
    for (std::size_t k = 0; k < v.size(); ++k) v[k] = T(d(g) + (k % (n * n) % (n + 1) == 0 ? n : 0));
    return v;
}

void set_threads(benchmark::State& st) {
    zelSetNumThreads(int(st.range(1)));
    st.counters["threads"] = double(st.range(1));
}

zelStatus invert(const float* a, float* buf, float* d, int n, int count) {
    const int s1 = 4 * n, s0 = s1 * n;
    return zelmInvert_ma_32f(a, s0, s1, 4, buf, d, s0, s1, 4, n, count);
}
zelStatus invert(const double* a, double* buf, double* d, int n, int count) {
    const int s1 = 8 * n, s0 = s1 * n;
    return zelmInvert_ma_64f(a, s0, s1, 8, buf, d, s0, s1, 8, n, count);
}
zelStatus det(const float* a, float* buf, float* d, int n, int count) {
    return zelmDet_ma_32f(a, 4 * n * n, 4 * n, 4, n, buf, d, count);
}
zelStatus det(const double* a, double* buf, double* d, int n, int count) {
    return zelmDet_ma_64f(a, 8 * n * n, 8 * n, 8, n, buf, d, count);
}
zelStatus qr(const float* a, float* buf, float* q, const float* b, float* x, int n, int count) {
    const int e = 4, s1 = e * n, s0 = s1 * n;
    zelStatus st = zelmQRDecomp_ma_32f(a, s0, s1, e, buf, q, s0, s1, e, n, n, count);
    if (st == zelStsOk) st = zelmQRBackSubst_mava_32f(q, s0, s1, e, buf, b, s1, e, x, s1, e, n, n, count);
    return st;
}
zelStatus qr(const double* a, double* buf, double* q, const double* b, double* x, int n, int count) {
    const int e = 8, s1 = e * n, s0 = s1 * n;
    zelStatus st = zelmQRDecomp_ma_64f(a, s0, s1, e, buf, q, s0, s1, e, n, n, count);
    if (st == zelStsOk) st = zelmQRBackSubst_mava_64f(q, s0, s1, e, buf, b, s1, e, x, s1, e, n, n, count);
    return st;
}

template <class T, int N, Impl I>
void BM_Invert(benchmark::State& st) {
    const int count = int(st.range(0));
    const auto a = matrices<T>(N, count);
    std::vector<T> d(a.size()), buf(N * N + N);
    if constexpr (I == Zelm) set_threads(st);
    for (auto _ : st) {
        if constexpr (I == Zelm) {
            if (invert(a.data(), buf.data(), d.data(), N, count) != zelStsOk) st.SkipWithError("singular");
        } else {
#ifdef ZELM_HAVE_EIGEN
            using M = Eigen::Matrix<T, N, N, Eigen::RowMajor>;
            for (int k = 0; k < count; ++k)
                Eigen::Map<M>(d.data() + std::size_t(k) * N * N) = Eigen::Map<const M>(a.data() + std::size_t(k) * N * N).inverse();
#endif
        }
        benchmark::DoNotOptimize(d.data());
        benchmark::ClobberMemory();
    }
    if constexpr (I == Zelm) zelSetNumThreads(0);
    st.SetItemsProcessed(int64_t(st.iterations()) * count);
}

template <class T, int N, Impl I>
void BM_Det(benchmark::State& st) {
    const int count = int(st.range(0));
    const auto a = matrices<T>(N, count);
    std::vector<T> d(count), buf(N * N + N);
    if constexpr (I == Zelm) set_threads(st);
    for (auto _ : st) {
        if constexpr (I == Zelm) {
            det(a.data(), buf.data(), d.data(), N, count);
        } else {
#ifdef ZELM_HAVE_EIGEN
            using M = Eigen::Matrix<T, N, N, Eigen::RowMajor>;
            for (int k = 0; k < count; ++k) d[k] = Eigen::Map<const M>(a.data() + std::size_t(k) * N * N).determinant();
#endif
        }
        benchmark::DoNotOptimize(d.data());
        benchmark::ClobberMemory();
    }
    if constexpr (I == Zelm) zelSetNumThreads(0);
    st.SetItemsProcessed(int64_t(st.iterations()) * count);
}

// Factor and solve one right-hand side per matrix.
template <class T, int N, Impl I>
void BM_QR(benchmark::State& st) {
    const int count = int(st.range(0));
    const auto a = matrices<T>(N, count);
    const auto b = matrices<T>(N, (count + N - 1) / N);
    std::vector<T> q(a.size()), x(a.size() / N), buf(N);
    if constexpr (I == Zelm) set_threads(st);
    for (auto _ : st) {
        if constexpr (I == Zelm) {
            if (qr(a.data(), buf.data(), q.data(), b.data(), x.data(), N, count) != zelStsOk) st.SkipWithError("rank");
        } else if constexpr (I == Eigen) {
#ifdef ZELM_HAVE_EIGEN
            using M = Eigen::Matrix<T, N, N, Eigen::RowMajor>;
            using V = Eigen::Matrix<T, N, 1>;
            Eigen::HouseholderQR<Eigen::Matrix<T, N, N>> h;
            for (int k = 0; k < count; ++k) {
                h.compute(Eigen::Map<const M>(a.data() + std::size_t(k) * N * N));
                Eigen::Map<V>(x.data() + std::size_t(k) * N) = h.solve(Eigen::Map<const V>(b.data() + std::size_t(k) * N));
            }
#endif
        } else {
#ifdef ZELM_HAVE_LAPACKE
            T work[64 * N];
            for (int k = 0; k < count; ++k) {
                T m[N * N], y[N];
                std::copy(a.data() + std::size_t(k) * N * N, a.data() + std::size_t(k + 1) * N * N, m);
                std::copy(b.data() + std::size_t(k) * N, b.data() + std::size_t(k + 1) * N, y);
                if constexpr (sizeof(T) == 4) LAPACKE_sgels_work(LAPACK_ROW_MAJOR, 'N', N, N, 1, m, N, y, 1, work, 64 * N);
                else LAPACKE_dgels_work(LAPACK_ROW_MAJOR, 'N', N, N, 1, m, N, y, 1, work, 64 * N);
                std::copy(y, y + N, x.data() + std::size_t(k) * N);
            }
#endif
        }
        benchmark::DoNotOptimize(x.data());
        benchmark::ClobberMemory();
    }
    if constexpr (I == Zelm) zelSetNumThreads(0);
    st.SetItemsProcessed(int64_t(st.iterations()) * count);
}

#define ZEL_BENCH(BM, T, N)                                                                                  \
    BENCHMARK(BM<T, N, Zelm>)->Args({1000, 1})->Args({200000, 1})->Args({200000, 2})->UseRealTime();         \
    BENCHMARK(BM<T, N, Eigen>)->Args({1000, 0})->Args({200000, 0})->UseRealTime();

ZEL_BENCH(BM_Invert, float, 3)
ZEL_BENCH(BM_Invert, float, 4)
ZEL_BENCH(BM_Invert, float, 6)
ZEL_BENCH(BM_Invert, double, 3)
ZEL_BENCH(BM_Invert, double, 4)
ZEL_BENCH(BM_Invert, double, 6)
ZEL_BENCH(BM_Det, float, 3)
ZEL_BENCH(BM_Det, float, 4)
ZEL_BENCH(BM_Det, float, 6)
ZEL_BENCH(BM_Det, double, 3)
ZEL_BENCH(BM_Det, double, 4)
ZEL_BENCH(BM_Det, double, 6)
ZEL_BENCH(BM_QR, float, 4)
ZEL_BENCH(BM_QR, double, 4)
BENCHMARK(BM_QR<float, 4, Lapacke>)->Args({1000, 0})->Args({200000, 0})->UseRealTime();
BENCHMARK(BM_QR<double, 4, Lapacke>)->Args({1000, 0})->Args({200000, 0})->UseRealTime();

}  // namespace
