// What the processor offers beyond the SSE2 baseline, read once at load time.
// Wider instructions are used only where they give the same bits.
#pragma once

namespace zel::cpu {

// AVX, with the operating system saving its registers.
inline const bool avx = [] {
    __builtin_cpu_init();
    return __builtin_cpu_supports("avx") != 0;
}();

}  // namespace zel::cpu
