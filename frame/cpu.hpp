// What the processor offers beyond the SSE2 baseline, read on first use.
// Wider instructions are used only where they give the same bits.
#pragma once

// (The C library's header names the C type _Bool, which clang's C++ lacks.)
#define _Bool bool
#include <sys/platform/x86.h>
#undef _Bool

#include <atomic>

namespace zel::cpu {

// The features come from the C library's record of the processor, which
// already accounts for what the operating system saves. They are read on a
// kernel's first use, not at load time, and kept in a relaxed atomic (no
// guard, no lock: threads that meet there read the same answer). A process
// can mask them through the C library's own hardware-capability tunable:
// the tests run the narrower paths that way.
template <class Detect>
inline bool kept(std::atomic<signed char>& cell, Detect detect) {
    signed char v = cell.load(std::memory_order_relaxed);
    if (v < 0) {
        v = detect() ? 1 : 0;
        cell.store(v, std::memory_order_relaxed);
    }
    return v != 0;
}

// AVX, for the 256-bit paths.
inline bool avx() {
    static std::atomic<signed char> cell{-1};
    return kept(cell, [] { return CPU_FEATURE_ACTIVE(AVX); });
}

// AVX-512 Foundation with the VL, DQ and BW extensions, for the few kernels
// that gain from it: 512-bit vectors, or the 32 registers for 256-bit ones.
//
// ZEL_AVX512 is the matching target of the functions built for it.
#define ZEL_AVX512 "avx512f,avx512vl,avx512dq,avx512bw"
inline bool avx512() {
    static std::atomic<signed char> cell{-1};
    return kept(cell, [] {
        return avx() && CPU_FEATURE_ACTIVE(AVX512F) && CPU_FEATURE_ACTIVE(AVX512VL) && CPU_FEATURE_ACTIVE(AVX512DQ) &&
               CPU_FEATURE_ACTIVE(AVX512BW);
    });
}

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
    return avx512() ? built_avx512<B>(a...) : built_avx<B>(a...);
}
// The widest build the processor runs.
template <class B, class... A>
inline auto widest(A... a) {
    return avx() ? built_32<B>(a...) : built_sse2<B>(a...);
}

}  // namespace zel::cpu
