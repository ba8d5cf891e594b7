// Element-wise array operations at order 4: zelmAdd_mama and zelmMul_mac,
// 32f and 64f, against a plain streaming loop over the same bytes and an
// Eigen Matrix<T,4,4> loop, at 1M objects (memory bound) and 1000 (in
// cache); the list and pointer forms at 1000; two threads at 1M.
//
// Ratios to read off: bytes_per_second of Zelm/* over Plain/* at 1M, items
// per second of Zelm/* over Eigen/* at 1000, and of the _L and _P forms over
// the standard form at 1000.
#include <benchmark/benchmark.h>

#include <cstdint>
#include <vector>

#include "zelcore.h"
#include "zelm.h"

#ifdef ZELM_HAVE_EIGEN
#include <Eigen/Core>
#endif

namespace {

constexpr int kOrder = 4;
constexpr int kElems = kOrder * kOrder;

// Objects back to back, as 16-byte aligned as a plain vector gives them.
template <class T>
struct Arrays {
    int count;
    std::vector<T> a, b, d;
    explicit Arrays(int n) : count(n), a(std::size_t(n) * kElems), b(a.size()), d(a.size()) {
        for (std::size_t k = 0; k < a.size(); ++k) {
            a[k] = T(0.5) + T(k % 97) * T(0.25);
            b[k] = T(1.5) - T(k % 89) * T(0.125);
        }
    }
};

template <class T>
constexpr T kVal = T(1.0009765625);

// --- zelm, standard form -----------------------------------------------------
zelStatus add_mama(const float* a, const float* b, float* d, int c) {
    return zelmAdd_mama_32f(a, 64, 16, 4, b, 64, 16, 4, d, 64, 16, 4, kOrder, kOrder, c);
}
zelStatus add_mama(const double* a, const double* b, double* d, int c) {
    return zelmAdd_mama_64f(a, 128, 32, 8, b, 128, 32, 8, d, 128, 32, 8, kOrder, kOrder, c);
}
zelStatus mul_mac(const float* a, float v, float* d, int c) {
    return zelmMul_mac_32f(a, 64, 16, 4, v, d, 64, 16, 4, kOrder, kOrder, c);
}
zelStatus mul_mac(const double* a, double v, double* d, int c) {
    return zelmMul_mac_64f(a, 128, 32, 8, v, d, 128, 32, 8, kOrder, kOrder, c);
}

void set_threads(benchmark::State& st, int n) {
    zelSetNumThreads(n);
    st.counters["threads"] = n;
}

template <class T>
void Zelm_AddMama(benchmark::State& st) {
    Arrays<T> x(int(st.range(0)));
    set_threads(st, int(st.range(1)));
    for (auto _ : st) {
        add_mama(x.a.data(), x.b.data(), x.d.data(), x.count);
        benchmark::ClobberMemory();
    }
    zelSetNumThreads(0);
    st.SetBytesProcessed(st.iterations() * 3LL * x.a.size() * sizeof(T));
    st.SetItemsProcessed(st.iterations() * std::int64_t(x.count));
}

template <class T>
void Zelm_MulMac(benchmark::State& st) {
    Arrays<T> x(int(st.range(0)));
    set_threads(st, int(st.range(1)));
    for (auto _ : st) {
        mul_mac(x.a.data(), kVal<T>, x.d.data(), x.count);
        benchmark::ClobberMemory();
    }
    zelSetNumThreads(0);
    st.SetBytesProcessed(st.iterations() * 2LL * x.a.size() * sizeof(T));
    st.SetItemsProcessed(st.iterations() * std::int64_t(x.count));
}

// --- a plain streaming loop over the same bytes ------------------------------
template <class T>
__attribute__((noinline)) void plain_add(const T* a, const T* b, T* d, std::size_t n) {
    for (std::size_t k = 0; k < n; ++k) d[k] = a[k] + b[k];
}
template <class T>
__attribute__((noinline)) void plain_mul(const T* a, T v, T* d, std::size_t n) {
    for (std::size_t k = 0; k < n; ++k) d[k] = a[k] * v;
}

template <class T>
void Plain_AddMama(benchmark::State& st) {
    Arrays<T> x(int(st.range(0)));
    for (auto _ : st) {
        plain_add(x.a.data(), x.b.data(), x.d.data(), x.a.size());
        benchmark::ClobberMemory();
    }
    st.SetBytesProcessed(st.iterations() * 3LL * x.a.size() * sizeof(T));
    st.SetItemsProcessed(st.iterations() * std::int64_t(x.count));
}

template <class T>
void Plain_MulMac(benchmark::State& st) {
    Arrays<T> x(int(st.range(0)));
    for (auto _ : st) {
        plain_mul(x.a.data(), kVal<T>, x.d.data(), x.a.size());
        benchmark::ClobberMemory();
    }
    st.SetBytesProcessed(st.iterations() * 2LL * x.a.size() * sizeof(T));
    st.SetItemsProcessed(st.iterations() * std::int64_t(x.count));
}

// --- Eigen: fixed-size 4x4 matrices over the same arrays ---------------------
#ifdef ZELM_HAVE_EIGEN
template <class T>
using M4 = Eigen::Matrix<T, kOrder, kOrder, Eigen::RowMajor>;
template <class T>
using CMap = Eigen::Map<const M4<T>, Eigen::Aligned16>;
template <class T>
using MMap = Eigen::Map<M4<T>, Eigen::Aligned16>;

template <class T>
__attribute__((noinline)) void eigen_add(const T* a, const T* b, T* d, int n) {
    for (int i = 0; i < n; ++i) {
        const std::size_t o = std::size_t(i) * kElems;
        MMap<T>(d + o) = CMap<T>(a + o) + CMap<T>(b + o);
    }
}
template <class T>
__attribute__((noinline)) void eigen_mul(const T* a, T v, T* d, int n) {
    for (int i = 0; i < n; ++i) {
        const std::size_t o = std::size_t(i) * kElems;
        MMap<T>(d + o) = CMap<T>(a + o) * v;
    }
}

template <class T>
void Eigen_AddMama(benchmark::State& st) {
    Arrays<T> x(int(st.range(0)));
    for (auto _ : st) {
        eigen_add<T>(x.a.data(), x.b.data(), x.d.data(), x.count);
        benchmark::ClobberMemory();
    }
    st.SetBytesProcessed(st.iterations() * 3LL * x.a.size() * sizeof(T));
    st.SetItemsProcessed(st.iterations() * std::int64_t(x.count));
}

template <class T>
void Eigen_MulMac(benchmark::State& st) {
    Arrays<T> x(int(st.range(0)));
    for (auto _ : st) {
        eigen_mul<T>(x.a.data(), kVal<T>, x.d.data(), x.count);
        benchmark::ClobberMemory();
    }
    st.SetBytesProcessed(st.iterations() * 2LL * x.a.size() * sizeof(T));
    st.SetItemsProcessed(st.iterations() * std::int64_t(x.count));
}
#endif

// --- list and pointer forms over the same arrays -----------------------------
template <class T>
struct Tables {
    std::vector<const T*> la, lb;  // object tables
    std::vector<T*> ld;
    std::vector<const T*> pa, pb;  // element tables
    std::vector<T*> pd;
    explicit Tables(Arrays<T>& x) {
        for (int n = 0; n < x.count; ++n) {
            la.push_back(&x.a[std::size_t(n) * kElems]);
            lb.push_back(&x.b[std::size_t(n) * kElems]);
            ld.push_back(&x.d[std::size_t(n) * kElems]);
        }
        for (int k = 0; k < kElems; ++k) {
            pa.push_back(&x.a[k]);
            pb.push_back(&x.b[k]);
            pd.push_back(&x.d[k]);
        }
    }
};

zelStatus add_mama_L(const float* const* a, const float* const* b, float* const* d, int c) {
    return zelmAdd_mama_32f_L(a, 0, 16, 4, b, 0, 16, 4, d, 0, 16, 4, kOrder, kOrder, c);
}
zelStatus add_mama_L(const double* const* a, const double* const* b, double* const* d, int c) {
    return zelmAdd_mama_64f_L(a, 0, 32, 8, b, 0, 32, 8, d, 0, 32, 8, kOrder, kOrder, c);
}
zelStatus add_mama_P(const float* const* a, const float* const* b, float* const* d, int c) {
    return zelmAdd_mama_32f_P(a, 0, 64, b, 0, 64, d, 0, 64, kOrder, kOrder, c);
}
zelStatus add_mama_P(const double* const* a, const double* const* b, double* const* d, int c) {
    return zelmAdd_mama_64f_P(a, 0, 128, b, 0, 128, d, 0, 128, kOrder, kOrder, c);
}
zelStatus mul_mac_L(const float* const* a, float v, float* const* d, int c) {
    return zelmMul_mac_32f_L(a, 0, 16, 4, v, d, 0, 16, 4, kOrder, kOrder, c);
}
zelStatus mul_mac_L(const double* const* a, double v, double* const* d, int c) {
    return zelmMul_mac_64f_L(a, 0, 32, 8, v, d, 0, 32, 8, kOrder, kOrder, c);
}
zelStatus mul_mac_P(const float* const* a, float v, float* const* d, int c) {
    return zelmMul_mac_32f_P(a, 0, 64, v, d, 0, 64, kOrder, kOrder, c);
}
zelStatus mul_mac_P(const double* const* a, double v, double* const* d, int c) {
    return zelmMul_mac_64f_P(a, 0, 128, v, d, 0, 128, kOrder, kOrder, c);
}

template <class T, char Form>
void Zelm_AddMamaForm(benchmark::State& st) {
    Arrays<T> x(int(st.range(0)));
    Tables<T> t(x);
    set_threads(st, 1);
    for (auto _ : st) {
        if (Form == 'L') add_mama_L(t.la.data(), t.lb.data(), t.ld.data(), x.count);
        else add_mama_P(t.pa.data(), t.pb.data(), t.pd.data(), x.count);
        benchmark::ClobberMemory();
    }
    zelSetNumThreads(0);
    st.SetItemsProcessed(st.iterations() * std::int64_t(x.count));
}

template <class T, char Form>
void Zelm_MulMacForm(benchmark::State& st) {
    Arrays<T> x(int(st.range(0)));
    Tables<T> t(x);
    set_threads(st, 1);
    for (auto _ : st) {
        if (Form == 'L') mul_mac_L(t.la.data(), kVal<T>, t.ld.data(), x.count);
        else mul_mac_P(t.pa.data(), kVal<T>, t.pd.data(), x.count);
        benchmark::ClobberMemory();
    }
    zelSetNumThreads(0);
    st.SetItemsProcessed(st.iterations() * std::int64_t(x.count));
}

void Counts(benchmark::internal::Benchmark* b) {
    b->Args({1 << 20, 1})->Args({1000, 1})->Args({1 << 20, 2});
}
void Counts1(benchmark::internal::Benchmark* b) { b->Arg(1 << 20)->Arg(1000); }

BENCHMARK(Zelm_AddMama<float>)->Apply(Counts);
BENCHMARK(Plain_AddMama<float>)->Apply(Counts1);
BENCHMARK(Zelm_AddMama<double>)->Apply(Counts);
BENCHMARK(Plain_AddMama<double>)->Apply(Counts1);
BENCHMARK(Zelm_MulMac<float>)->Apply(Counts);
BENCHMARK(Plain_MulMac<float>)->Apply(Counts1);
BENCHMARK(Zelm_MulMac<double>)->Apply(Counts);
BENCHMARK(Plain_MulMac<double>)->Apply(Counts1);
#ifdef ZELM_HAVE_EIGEN
BENCHMARK(Eigen_AddMama<float>)->Apply(Counts1);
BENCHMARK(Eigen_AddMama<double>)->Apply(Counts1);
BENCHMARK(Eigen_MulMac<float>)->Apply(Counts1);
BENCHMARK(Eigen_MulMac<double>)->Apply(Counts1);
#endif
BENCHMARK(Zelm_AddMamaForm<float, 'L'>)->Arg(1000);
BENCHMARK(Zelm_AddMamaForm<float, 'P'>)->Arg(1000);
BENCHMARK(Zelm_AddMamaForm<double, 'L'>)->Arg(1000);
BENCHMARK(Zelm_AddMamaForm<double, 'P'>)->Arg(1000);
BENCHMARK(Zelm_MulMacForm<float, 'L'>)->Arg(1000);
BENCHMARK(Zelm_MulMacForm<float, 'P'>)->Arg(1000);
BENCHMARK(Zelm_MulMacForm<double, 'L'>)->Arg(1000);
BENCHMARK(Zelm_MulMacForm<double, 'P'>)->Arg(1000);

}  // namespace
