// The whole path of a call (stub, checks, kernel) against a plain loop:
// zelmAdd_vv_32f and zelmMul_vc_64f at len 4 (call overhead) and at 1M
// elements (streaming).
#include <benchmark/benchmark.h>

#include <vector>

#include "zelcore.h"
#include "zelm.h"

namespace {

template <class T>
struct Data {
    std::vector<T> a, b, d;
    explicit Data(int n) : a(n, T(1.25)), b(n, T(-0.5)), d(n) {}
};

template <class T>
__attribute__((noinline)) void plain_add(const T* a, const T* b, T* d, int n) {
    for (int j = 0; j < n; ++j) d[j] = a[j] + b[j];
}
template <class T>
__attribute__((noinline)) void plain_mul(const T* a, T v, T* d, int n) {
    for (int j = 0; j < n; ++j) d[j] = a[j] * v;
}

void BM_Add_vv_32f(benchmark::State& st) {
    const int n = int(st.range(0));
    Data<float> x(n);
    for (auto _ : st) {
        zelmAdd_vv_32f(x.a.data(), 4, x.b.data(), 4, x.d.data(), 4, n);
        benchmark::ClobberMemory();
    }
    st.SetBytesProcessed(st.iterations() * 3LL * n * 4);
}
void BM_Plain_add_32f(benchmark::State& st) {
    const int n = int(st.range(0));
    Data<float> x(n);
    for (auto _ : st) {
        plain_add(x.a.data(), x.b.data(), x.d.data(), n);
        benchmark::ClobberMemory();
    }
    st.SetBytesProcessed(st.iterations() * 3LL * n * 4);
}
void BM_Mul_vc_64f(benchmark::State& st) {
    const int n = int(st.range(0));
    Data<double> x(n);
    for (auto _ : st) {
        zelmMul_vc_64f(x.a.data(), 8, 1.0000001, x.d.data(), 8, n);
        benchmark::ClobberMemory();
    }
    st.SetBytesProcessed(st.iterations() * 2LL * n * 8);
}
void BM_Plain_mul_64f(benchmark::State& st) {
    const int n = int(st.range(0));
    Data<double> x(n);
    for (auto _ : st) {
        plain_mul(x.a.data(), 1.0000001, x.d.data(), n);
        benchmark::ClobberMemory();
    }
    st.SetBytesProcessed(st.iterations() * 2LL * n * 8);
}

BENCHMARK(BM_Add_vv_32f)->Arg(4)->Arg(1 << 20);
BENCHMARK(BM_Plain_add_32f)->Arg(4)->Arg(1 << 20);
BENCHMARK(BM_Mul_vc_64f)->Arg(4)->Arg(1 << 20);
BENCHMARK(BM_Plain_mul_64f)->Arg(4)->Arg(1 << 20);

}  // namespace
