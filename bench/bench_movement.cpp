// Data movement against memcpy, plain loops and Eigen, in the same run:
//   Copy SS and PS of 1M 4x4 32f matrices;
//   Transpose of a 1000x1000 and a 4096x4096 32f matrix and of 1M 4x4 ones.
// Bytes processed count each element once (read and write of it together), so
// the rates of one group compare directly.
#include <benchmark/benchmark.h>

#include <cstring>
#include <vector>

#include "zelm.h"

#ifdef ZELM_HAVE_EIGEN
#include <Eigen/Dense>
#endif

namespace {

constexpr int kCount = 1 << 20;
constexpr int kObj = 16;  // 4x4

std::vector<float> ramp(std::size_t n) {
    std::vector<float> v(n);
    for (std::size_t i = 0; i < n; ++i) v[i] = float(i % 9973) * 0.5f;
    return v;
}

void bytes(benchmark::State& st, std::size_t per_iter) {
    st.SetBytesProcessed(std::int64_t(st.iterations()) * std::int64_t(per_iter));
}

// ---------------------------------------------------------------- Copy SS
void Copy_SS_4x4_zelm(benchmark::State& st) {
    auto s = ramp(std::size_t(kCount) * kObj);
    std::vector<float> d(s.size());
    for (auto _ : st) {
        zelmCopy_ma_32f_SS(s.data(), 64, 16, 4, d.data(), 64, 16, 4, 4, 4, kCount);
        benchmark::ClobberMemory();
    }
    bytes(st, s.size() * 4);
}
void Copy_SS_4x4_memcpy(benchmark::State& st) {
    auto s = ramp(std::size_t(kCount) * kObj);
    std::vector<float> d(s.size());
    for (auto _ : st) {
        std::memcpy(d.data(), s.data(), s.size() * 4);
        benchmark::ClobberMemory();
    }
    bytes(st, s.size() * 4);
}
void Copy_SS_4x4_loop(benchmark::State& st) {
    auto s = ramp(std::size_t(kCount) * kObj);
    std::vector<float> d(s.size());
    for (auto _ : st) {
        for (int n = 0; n < kCount; ++n)
            for (int i = 0; i < 4; ++i)
                for (int j = 0; j < 4; ++j) d[std::size_t(n) * 16 + i * 4 + j] = s[std::size_t(n) * 16 + i * 4 + j];
        benchmark::ClobberMemory();
    }
    bytes(st, s.size() * 4);
}

// ---------------------------------------------------------------- Copy PS
// Pointer-form source: one run of kCount elements per element position.
struct PointerSource {
    std::vector<float> mem = ramp(std::size_t(kCount) * kObj);
    std::vector<const float*> tab;
    PointerSource() {
        for (int k = 0; k < kObj; ++k) tab.push_back(mem.data() + std::size_t(k) * kCount);
    }
};
void Copy_PS_4x4_zelm(benchmark::State& st) {
    PointerSource s;
    std::vector<float> d(s.mem.size());
    for (auto _ : st) {
        zelmCopy_ma_32f_PS(s.tab.data(), 0, 4, d.data(), 64, 16, 4, 4, 4, kCount);
        benchmark::ClobberMemory();
    }
    bytes(st, d.size() * 4);
}
void Copy_PS_4x4_loop(benchmark::State& st) {
    PointerSource s;
    std::vector<float> d(s.mem.size());
    for (auto _ : st) {
        for (int n = 0; n < kCount; ++n)
            for (int k = 0; k < kObj; ++k) d[std::size_t(n) * 16 + k] = s.tab[k][n];
        benchmark::ClobberMemory();
    }
    bytes(st, d.size() * 4);
}
void Copy_PS_4x4_memcpy(benchmark::State& st) {
    PointerSource s;
    std::vector<float> d(s.mem.size());
    for (auto _ : st) {
        std::memcpy(d.data(), s.mem.data(), d.size() * 4);
        benchmark::ClobberMemory();
    }
    bytes(st, d.size() * 4);
}

// ---------------------------------------------------------------- Transpose, one large matrix
void Transpose_large_zelm(benchmark::State& st) {
    const int n = int(st.range(0));
    auto s = ramp(std::size_t(n) * n);
    std::vector<float> d(s.size());
    for (auto _ : st) {
        zelmTranspose_m_32f(s.data(), n * 4, 4, n, n, d.data(), n * 4, 4);
        benchmark::ClobberMemory();
    }
    bytes(st, s.size() * 4);
}
void Transpose_large_loop(benchmark::State& st) {
    const int n = int(st.range(0));
    auto s = ramp(std::size_t(n) * n);
    std::vector<float> d(s.size());
    for (auto _ : st) {
        for (int i = 0; i < n; ++i)
            for (int j = 0; j < n; ++j) d[std::size_t(j) * n + i] = s[std::size_t(i) * n + j];
        benchmark::ClobberMemory();
    }
    bytes(st, s.size() * 4);
}
#ifdef ZELM_HAVE_EIGEN
void Transpose_large_eigen(benchmark::State& st) {
    const int n = int(st.range(0));
    Eigen::MatrixXf a = Eigen::MatrixXf::Random(n, n), b(n, n);
    for (auto _ : st) {
        b.noalias() = a.transpose();
        benchmark::ClobberMemory();
    }
    bytes(st, std::size_t(n) * n * 4);
}
#endif

// ---------------------------------------------------------------- Transpose, 1M 4x4
void Transpose_4x4_zelm(benchmark::State& st) {
    auto s = ramp(std::size_t(kCount) * kObj);
    std::vector<float> d(s.size());
    for (auto _ : st) {
        zelmTranspose_ma_32f(s.data(), 64, 16, 4, 4, 4, d.data(), 64, 16, 4, kCount);
        benchmark::ClobberMemory();
    }
    bytes(st, s.size() * 4);
}
void Transpose_4x4_loop(benchmark::State& st) {
    auto s = ramp(std::size_t(kCount) * kObj);
    std::vector<float> d(s.size());
    for (auto _ : st) {
        for (int n = 0; n < kCount; ++n)
            for (int i = 0; i < 4; ++i)
                for (int j = 0; j < 4; ++j) d[std::size_t(n) * 16 + j * 4 + i] = s[std::size_t(n) * 16 + i * 4 + j];
        benchmark::ClobberMemory();
    }
    bytes(st, s.size() * 4);
}
#ifdef ZELM_HAVE_EIGEN
void Transpose_4x4_eigen(benchmark::State& st) {
    auto s = ramp(std::size_t(kCount) * kObj);
    std::vector<float> d(s.size());
    for (auto _ : st) {
        for (int n = 0; n < kCount; ++n)
            Eigen::Map<Eigen::Matrix4f>(d.data() + std::size_t(n) * 16).noalias() =
                Eigen::Map<const Eigen::Matrix4f>(s.data() + std::size_t(n) * 16).transpose();
        benchmark::ClobberMemory();
    }
    bytes(st, s.size() * 4);
}
#endif

}  // namespace

BENCHMARK(Copy_SS_4x4_zelm)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(Copy_SS_4x4_memcpy)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(Copy_SS_4x4_loop)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(Copy_PS_4x4_zelm)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(Copy_PS_4x4_memcpy)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(Copy_PS_4x4_loop)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(Transpose_large_zelm)->Arg(1000)->Arg(4096)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(Transpose_large_loop)->Arg(1000)->Arg(4096)->Unit(benchmark::kMillisecond)->UseRealTime();
#ifdef ZELM_HAVE_EIGEN
BENCHMARK(Transpose_large_eigen)->Arg(1000)->Arg(4096)->Unit(benchmark::kMillisecond)->UseRealTime();
#endif
BENCHMARK(Transpose_4x4_zelm)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(Transpose_4x4_loop)->Unit(benchmark::kMillisecond)->UseRealTime();
#ifdef ZELM_HAVE_EIGEN
BENCHMARK(Transpose_4x4_eigen)->Unit(benchmark::kMillisecond)->UseRealTime();
#endif
