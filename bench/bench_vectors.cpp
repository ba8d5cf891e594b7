// Vector algebra and reductions on arrays of small objects laid out back to
// back, 1000 objects (in cache) and 1M objects (streaming), both types:
// zelmDotProduct_vava and zelmL2Norm_va at len 3 and 4, zelmCrossProduct_vava,
// zelmSaxpy_vava at len 4, zelmTrace_ma and zelmFrobNorm_ma at order 4.
// Peers: an Eigen fixed-size loop, a plain loop doing the same arithmetic,
// Stream, a plain loop over the same bytes (every input read once, every
// output written once, one addition per input element), and Lines, only the
// memory traffic every implementation has: one load from each 64-byte line
// of the inputs (the processor fetches the whole line) and every output
// written. Where Lines is no faster than Eigen, the bytes set the pace.
// The second argument is the library's thread count (1: the direct path).
//
// Ratios to read off: items_per_second of Zelm/N/1000/1 over Eigen/N/1000
// (in cache), bytes_per_second of Zelm/N/1000000/1 over Stream/N/1000000.
#include <benchmark/benchmark.h>

#include <cmath>
#include <random>
#include <vector>

#include "data.hpp"
#include "zelcore.h"
#include "zelm.h"

#ifdef ZELM_HAVE_EIGEN
#include <Eigen/Dense>
#endif

namespace {

// Lines is the same loop on any x86-64; with AVX its stores are as wide as
// the library's.
#ifdef __x86_64__
#define ZEL_BENCH_TARGET __attribute__((target_clones("avx", "default")))
#else
#define ZEL_BENCH_TARGET
#endif

enum Impl { Zelm, Eigen, Loop, Stream, Lines };
enum What { Dot, Norm, Cross, Saxpy, Trace, Frob };

// The export of each operation, objects back to back.
zelStatus call(What w, const float* a, const float* b, float* d, int n, int count) {
    const int s0 = n * 4;
    switch (w) {
        case Dot: return zelmDotProduct_vava_32f(a, s0, 4, b, s0, 4, d, n, count);
        case Norm: return zelmL2Norm_va_32f(a, s0, 4, d, n, count);
        case Cross: return zelmCrossProduct_vava_32f(a, 12, 4, b, 12, 4, d, 12, 4, count);
        case Saxpy: return zelmSaxpy_vava_32f(a, s0, 4, 0.5f, b, s0, 4, d, s0, 4, n, count);
        case Trace: return zelmTrace_ma_32f(a, s0 * n, s0, 4, n, d, count);
        case Frob: return zelmFrobNorm_ma_32f(a, s0 * n, s0, 4, n, n, d, count);
    }
    return 0;
}
zelStatus call(What w, const double* a, const double* b, double* d, int n, int count) {
    const int s0 = n * 8;
    switch (w) {
        case Dot: return zelmDotProduct_vava_64f(a, s0, 8, b, s0, 8, d, n, count);
        case Norm: return zelmL2Norm_va_64f(a, s0, 8, d, n, count);
        case Cross: return zelmCrossProduct_vava_64f(a, 24, 8, b, 24, 8, d, 24, 8, count);
        case Saxpy: return zelmSaxpy_vava_64f(a, s0, 8, 0.5, b, s0, 8, d, s0, 8, n, count);
        case Trace: return zelmTrace_ma_64f(a, s0 * n, s0, 8, n, d, count);
        case Frob: return zelmFrobNorm_ma_64f(a, s0 * n, s0, 8, n, n, d, count);
    }
    return 0;
}

// Elements per object of the sources and of the destination.
constexpr int src_elems(What w, int n) { return w == Trace || w == Frob ? n * n : w == Cross ? 3 : n; }
constexpr int dst_elems(What w, int n) { return w == Cross ? 3 : w == Saxpy ? n : 1; }
constexpr bool two_sources(What w) { return w == Dot || w == Cross || w == Saxpy; }

template <class T, What W, int N>
void plain(const T* a, const T* b, T* d, int count) {
    constexpr int E = src_elems(W, N);
    for (int o = 0; o < count; ++o, a += E, b += E) {
        if constexpr (W == Dot || W == Norm) {
            T s = 0;
            for (int k = 0; k < N; ++k) s += a[k] * (W == Dot ? b[k] : a[k]);
            d[o] = W == Dot ? s : std::sqrt(s);
        } else if constexpr (W == Cross) {
            d[3 * o] = a[1] * b[2] - a[2] * b[1];
            d[3 * o + 1] = a[2] * b[0] - a[0] * b[2];
            d[3 * o + 2] = a[0] * b[1] - a[1] * b[0];
        } else if constexpr (W == Saxpy) {
            for (int k = 0; k < N; ++k) d[N * o + k] = a[k] * T(0.5) + b[k];
        } else if constexpr (W == Trace) {
            T s = 0;
            for (int i = 0; i < N; ++i) s += a[i * N + i];
            d[o] = s;
        } else {
            T s = 0;
            for (int k = 0; k < N * N; ++k) s += a[k] * a[k];
            d[o] = std::sqrt(s);
        }
    }
}

#ifdef ZELM_HAVE_EIGEN
template <class T, What W, int N>
void eigen(const T* a, const T* b, T* d, int count) {
    using V = Eigen::Matrix<T, N, 1>;
    using V3 = Eigen::Matrix<T, 3, 1>;
    using M = Eigen::Matrix<T, N, N, Eigen::RowMajor>;
    constexpr int E = src_elems(W, N);
    for (int o = 0; o < count; ++o, a += E, b += E) {
        if constexpr (W == Dot) d[o] = Eigen::Map<const V>(a).dot(Eigen::Map<const V>(b));
        else if constexpr (W == Norm) d[o] = Eigen::Map<const V>(a).norm();
        else if constexpr (W == Cross)
            Eigen::Map<V3>(d + 3 * o) = Eigen::Map<const V3>(a).cross(Eigen::Map<const V3>(b));
        else if constexpr (W == Saxpy)
            Eigen::Map<V>(d + N * o) = Eigen::Map<const V>(a) * T(0.5) + Eigen::Map<const V>(b);
        else if constexpr (W == Trace) d[o] = Eigen::Map<const M>(a).trace();
        else d[o] = Eigen::Map<const M>(a).norm();
    }
}
#endif

// Every input element read once, every output element written once.
template <class T, What W, int N>
void stream(const T* a, const T* b, T* d, int count) {
    constexpr int E = src_elems(W, N), D = dst_elems(W, N);
    for (int o = 0; o < count; ++o, a += E, b += E) {
        if constexpr (D == 1) {
            T s = 0;
            for (int k = 0; k < E; ++k) s += two_sources(W) ? a[k] + b[k] : a[k];
            d[o] = s;
        } else {
            for (int k = 0; k < E; ++k) d[D * o + k] = a[k] + b[k];
        }
    }
}

// One load from every cache line of the inputs, into four independent sums
// (no chain of additions sets the pace), then every output element written
// (in 256-bit stores where the processor has AVX, as the library's are).
template <class T, What W, int N>
ZEL_BENCH_TARGET void lines(const T* a, const T* b, T* d, int count) {
    constexpr int step = 64 / int(sizeof(T));
    const std::ptrdiff_t e = std::ptrdiff_t(src_elems(W, N)) * count;
    T s[4] = {};
    const T* const src[2] = {a, b};
    for (int i = 0; i < (two_sources(W) ? 2 : 1); ++i) {
        const T* const p = src[i];
        std::ptrdiff_t k = 0;
        for (; k + 4 * step <= e; k += 4 * step)
            for (int u = 0; u < 4; ++u) s[u] += p[k + u * step];
        for (; k < e; k += step) s[0] += p[k];
    }
    const T v = (s[0] + s[1]) + (s[2] + s[3]);
    const std::ptrdiff_t nd = std::ptrdiff_t(dst_elems(W, N)) * count;
    for (std::ptrdiff_t k = 0; k < nd; ++k) d[k] = v;
}

template <class T, What W, int N, Impl I>
void BM(benchmark::State& st) {
    const int count = int(st.range(0));
    const std::size_t e = std::size_t(src_elems(W, N)) * count;
    auto a = data<T>(e), b = data<T>(e);
    std::vector<T> d(std::size_t(dst_elems(W, N)) * count);
    if constexpr (I == Zelm) zelSetNumThreads(st.range(1) > 0 ? int(st.range(1)) : 1);
    for (auto _ : st) {
        if constexpr (I == Zelm) call(W, a.data(), b.data(), d.data(), N, count);
        else if constexpr (I == Loop) plain<T, W, N>(a.data(), b.data(), d.data(), count);
        else if constexpr (I == Stream) stream<T, W, N>(a.data(), b.data(), d.data(), count);
        else if constexpr (I == Lines) lines<T, W, N>(a.data(), b.data(), d.data(), count);
#ifdef ZELM_HAVE_EIGEN
        else eigen<T, W, N>(a.data(), b.data(), d.data(), count);
#endif
        benchmark::DoNotOptimize(d.data());
        benchmark::ClobberMemory();
    }
    if constexpr (I == Zelm) zelSetNumThreads(0);
    const int64_t bytes = int64_t(e) * (two_sources(W) ? 2 : 1) + int64_t(d.size());
    st.SetBytesProcessed(int64_t(st.iterations()) * bytes * int64_t(sizeof(T)));
    st.SetItemsProcessed(int64_t(st.iterations()) * count);
}

#define ZEL_BENCH(T, W, N)                                                                                  \
    BENCHMARK(BM<T, W, N, Zelm>)->Args({1000, 1})->Args({1000000, 1})->Args({1000000, 2})->UseRealTime(); \
    BENCHMARK(BM<T, W, N, Eigen>)->Args({1000, 0})->Args({1000000, 0})->UseRealTime();                   \
    BENCHMARK(BM<T, W, N, Loop>)->Args({1000, 0})->Args({1000000, 0})->UseRealTime();                    \
    BENCHMARK(BM<T, W, N, Stream>)->Args({1000, 0})->Args({1000000, 0})->UseRealTime();               \
    BENCHMARK(BM<T, W, N, Lines>)->Args({1000, 0})->Args({1000000, 0})->UseRealTime();
#define ZEL_BENCH_BOTH(W, N) ZEL_BENCH(float, W, N) ZEL_BENCH(double, W, N)

ZEL_BENCH_BOTH(Dot, 3)
ZEL_BENCH_BOTH(Dot, 4)
ZEL_BENCH_BOTH(Norm, 3)
ZEL_BENCH_BOTH(Norm, 4)
ZEL_BENCH_BOTH(Cross, 3)
ZEL_BENCH_BOTH(Saxpy, 4)
ZEL_BENCH_BOTH(Trace, 4)
ZEL_BENCH_BOTH(Frob, 4)

}  // namespace
