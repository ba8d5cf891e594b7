// What the processor offers beyond the SSE2 baseline, read once at load time.
// Wider instructions are used only where they give the same bits.
#pragma once

#include <cstdlib>

namespace zel::cpu {

// Whether the environment variable is set to anything but "0".
inline bool turned_off(const char* name) {
    const char* v = std::getenv(name);
    return v && *v && !(v[0] == '0' && v[1] == 0);
}

// AVX, with the operating system saving its registers. ZELM_NO_AVX keeps the
// library on its 128-bit paths (the tests run both).
inline const bool avx = [] {
    if (turned_off("ZELM_NO_AVX")) return false;
    __builtin_cpu_init();
    return __builtin_cpu_supports("avx") != 0;
}();

// AVX-512 Foundation with the VL, DQ and BW extensions (their register state
// saved too), for the few kernels that gain from it: 512-bit vectors, or the
// 32 registers for 256-bit ones. ZELM_NO_AVX512, or ZELM_NO_AVX, keeps them
// on AVX.
//
// ZEL_AVX512 is the matching target of the functions built for it.
#define ZEL_AVX512 "avx512f,avx512vl,avx512dq,avx512bw"
inline const bool avx512 = [] {
    if (!avx || turned_off("ZELM_NO_AVX512")) return false;
    return __builtin_cpu_supports("avx512f") && __builtin_cpu_supports("avx512vl") &&
           __builtin_cpu_supports("avx512dq") && __builtin_cpu_supports("avx512bw");
}();

// Code built for each encoding: B::run<Bytes>(a...), always inline, runs
// with vectors of Bytes bytes: 16 in the SSE2 build; 32 in the AVX build and
// in the AVX-512 one, whose gain for 256-bit vectors is its 32 registers.
// Each build is one function with everything flattened into it.
template <class B, class... A>
__attribute__((noinline, flatten)) auto built_sse2(A... a) {
    return B::template run<16>(a...);
}
template <class B, class... A>
__attribute__((target("avx"), noinline, flatten)) auto built_avx(A... a) {
    return B::template run<32>(a...);
}
template <class B, class... A>
__attribute__((target(ZEL_AVX512), noinline, flatten)) auto built_avx512(A... a) {
    return B::template run<32>(a...);
}
// The 32-byte build the processor runs (the caller has checked for AVX).
template <class B, class... A>
inline auto built_32(A... a) {
    return avx512 ? built_avx512<B>(a...) : built_avx<B>(a...);
}
// The widest build the processor runs.
template <class B, class... A>
inline auto widest(A... a) {
    return avx ? built_32<B>(a...) : built_sse2<B>(a...);
}

}  // namespace zel::cpu
