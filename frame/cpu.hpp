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

}  // namespace zel::cpu
