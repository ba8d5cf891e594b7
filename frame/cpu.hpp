// What the processor offers beyond the SSE2 baseline, read once at load time.
// Wider instructions are used only where they give the same bits.
#pragma once

#include <cstdlib>

namespace zel::cpu {

// AVX, with the operating system saving its registers. ZELM_NO_AVX set to
// anything but "0" keeps the library on its 128-bit paths (the tests run
// both).
inline const bool avx = [] {
    const char* off = std::getenv("ZELM_NO_AVX");
    if (off && *off && !(off[0] == '0' && off[1] == 0)) return false;
    __builtin_cpu_init();
    return __builtin_cpu_supports("avx") != 0;
}();

}  // namespace zel::cpu
