// Fixed-size geometry: zelmAffineTransform_m4v3a_32f over 1M points (12
// bytes in, 16 out) against glm and Eigen Matrix4f loops and the streaming
// limit of the same bytes; zelmMul_mm4x4_32f and zelmInvert_m4_32f called in
// a loop over 1000 matrices against glm's and Eigen's inlined code.
//
// Ratios to read off: bytes_per_second of Transform/Zelm over Transform/Stream
// and over Transform/Glm; items_per_second of Mul/Zelm and Invert/Zelm over
// their Glm peers.
#include <benchmark/benchmark.h>

#include <emmintrin.h>

#include <cstring>
#include <glm/glm.hpp>
#include <glm/gtc/type_ptr.hpp>
#include <random>
#include <vector>

#include "zelm.h"

#ifdef ZELM_HAVE_EIGEN
#include <Eigen/Dense>
#endif

namespace {

std::vector<float> data(std::size_t n) {
    std::vector<float> v(n);
    std::mt19937 g(1);
    std::uniform_real_distribution<float> d(-1, 1);
    for (auto& x : v) x = d(g);
    return v;
}

// Well-conditioned 4x4 matrices: random plus 4 on the diagonal.
std::vector<float> matrices(int count) {
    std::vector<float> m = data(std::size_t(count) * 16);
    for (int n = 0; n < count; ++n)
        for (int i = 0; i < 4; ++i) m[std::size_t(n) * 16 + 5 * i] += 4.0f;
    return m;
}

// ---------------------------------------------------------------------------
// The point transform: row vectors (x, y, z, 1) times M, all four components.
enum Impl { kZelm, kGlm, kEigen, kStream };

template <Impl I>
void BM_Transform(benchmark::State& st) {
    const int count = int(st.range(0));
    const std::vector<float> m = matrices(1), src = data(std::size_t(count) * 3);
    std::vector<float> dst(std::size_t(count) * 4);
    const float* s = src.data();
    float* d = dst.data();
    for (auto _ : st) {
        if constexpr (I == kZelm) {
            zelmAffineTransform_m4v3a_32f(m.data(), s, 12, d, 16, count);
        } else if constexpr (I == kGlm) {
            // glm's column-major matrix on this memory is M transposed, so M * p
            // there is p * M here
            const glm::mat4 g = glm::make_mat4(m.data());
            for (int n = 0; n < count; ++n) {
                const glm::vec4 r = g * glm::vec4(s[3 * n], s[3 * n + 1], s[3 * n + 2], 1.0f);
                std::memcpy(d + 4 * n, &r, 16);
            }
        } else if constexpr (I == kEigen) {
#ifdef ZELM_HAVE_EIGEN
            const Eigen::Map<const Eigen::Matrix4f> g(m.data());  // column-major: M transposed
            for (int n = 0; n < count; ++n)
                Eigen::Map<Eigen::Vector4f>(d + 4 * n) = g * Eigen::Vector4f(s[3 * n], s[3 * n + 1], s[3 * n + 2], 1.0f);
#endif
        } else {
            // the streaming limit: each point's 12 bytes read, 16 written
            for (int n = 0; n + 1 < count; ++n)
                _mm_storeu_ps(d + 4 * n, _mm_loadu_ps(s + 3 * n));
            std::memcpy(d + 4 * (count - 1), s + 3 * (count - 1), 12);
        }
        benchmark::ClobberMemory();
    }
    st.SetItemsProcessed(st.iterations() * count);
    st.SetBytesProcessed(st.iterations() * std::int64_t(count) * 28);
}

// ---------------------------------------------------------------------------
// One 4x4 call per matrix over 1000 matrices (in cache).
template <Impl I>
void BM_Mul(benchmark::State& st) {
    const int count = 1000;
    const std::vector<float> a = matrices(count), b = matrices(count);
    std::vector<float> d(std::size_t(count) * 16);
    for (auto _ : st) {
        for (int n = 0; n < count; ++n) {
            const float *x = &a[std::size_t(n) * 16], *y = &b[std::size_t(n) * 16];
            float* z = &d[std::size_t(n) * 16];
            if constexpr (I == kZelm) {
                zelmMul_mm4x4_32f(x, y, z);
            } else if constexpr (I == kGlm) {
                const glm::mat4 r = glm::make_mat4(y) * glm::make_mat4(x);  // x * y row-major
                std::memcpy(z, &r, 64);
            } else if constexpr (I == kEigen) {
#ifdef ZELM_HAVE_EIGEN
                using RM = Eigen::Matrix<float, 4, 4, Eigen::RowMajor>;
                Eigen::Map<RM>(z).noalias() = Eigen::Map<const RM>(x) * Eigen::Map<const RM>(y);
#endif
            }
        }
        benchmark::ClobberMemory();
    }
    st.SetItemsProcessed(st.iterations() * count);
}

template <Impl I>
void BM_Invert(benchmark::State& st) {
    const int count = 1000;
    const std::vector<float> a = matrices(count);
    std::vector<float> d(std::size_t(count) * 16);
    for (auto _ : st) {
        for (int n = 0; n < count; ++n) {
            const float* x = &a[std::size_t(n) * 16];
            float* z = &d[std::size_t(n) * 16];
            if constexpr (I == kZelm) {
                zelmInvert_m4_32f(x, nullptr, z);
            } else if constexpr (I == kGlm) {
                const glm::mat4 r = glm::inverse(glm::make_mat4(x));
                std::memcpy(z, &r, 64);
            } else if constexpr (I == kEigen) {
#ifdef ZELM_HAVE_EIGEN
                Eigen::Map<Eigen::Matrix4f> out(z);
                out = Eigen::Map<const Eigen::Matrix4f>(x).inverse();
#endif
            }
        }
        benchmark::ClobberMemory();
    }
    st.SetItemsProcessed(st.iterations() * count);
}

}  // namespace

BENCHMARK_TEMPLATE(BM_Transform, kZelm)->Name("Transform/Zelm")->Arg(1000000)->Unit(benchmark::kMillisecond);
BENCHMARK_TEMPLATE(BM_Transform, kGlm)->Name("Transform/Glm")->Arg(1000000)->Unit(benchmark::kMillisecond);
BENCHMARK_TEMPLATE(BM_Transform, kEigen)->Name("Transform/Eigen")->Arg(1000000)->Unit(benchmark::kMillisecond);
BENCHMARK_TEMPLATE(BM_Transform, kStream)->Name("Transform/Stream")->Arg(1000000)->Unit(benchmark::kMillisecond);
BENCHMARK_TEMPLATE(BM_Mul, kZelm)->Name("Mul/Zelm");
BENCHMARK_TEMPLATE(BM_Mul, kGlm)->Name("Mul/Glm");
BENCHMARK_TEMPLATE(BM_Mul, kEigen)->Name("Mul/Eigen");
BENCHMARK_TEMPLATE(BM_Invert, kZelm)->Name("Invert/Zelm");
BENCHMARK_TEMPLATE(BM_Invert, kGlm)->Name("Invert/Glm");
BENCHMARK_TEMPLATE(BM_Invert, kEigen)->Name("Invert/Eigen");
