#include "substitutes.hpp"

#include <dlfcn.h>

#include <cstddef>
#include <cstring>

namespace subst {
std::atomic<int> thread_queries{0}, forced_threads{0};
std::atomic<int> cache_queries{0}, forced_cache{-1};
std::atomic<int> mallocs{0}, frees{0};
std::atomic<bool> fail_malloc{false};
std::atomic<int> grow_threads{0}, overruns{0}, overruns_total{0};

Scope::Scope(int threads, int cache, bool failing_malloc) {
    thread_queries = 0;
    cache_queries = 0;
    mallocs = 0;
    frees = 0;
    forced_threads = threads;
    forced_cache = cache;
    fail_malloc = failing_malloc;
    grow_threads = 0;
    overruns = 0;
}
Scope::~Scope() {
    forced_threads = 0;
    forced_cache = -1;
    fail_malloc = false;
    grow_threads = 0;
}
}  // namespace subst

template <class F>
static F next(const char* name) {
    return reinterpret_cast<F>(dlsym(RTLD_NEXT, name));
}

extern "C" int ownGetNumThreads(void) {
    ++subst::thread_queries;
    if (int n = subst::forced_threads.load()) return n;
    static auto real = next<int (*)()>("ownGetNumThreads");
    return real();
}

extern "C" int zelGetMaxCacheSizeB(int* p) {
    ++subst::cache_queries;
    if (int c = subst::forced_cache.load(); c >= 0) {
        *p = c;
        return 0;
    }
    static auto real = next<int (*)(int*)>("zelGetMaxCacheSizeB");
    return real(p);
}

// Every block carries its size before it and a guard of known bytes behind
// it, checked when it is freed.
namespace {
constexpr std::size_t kHead = 64, kGuard = 256;
constexpr unsigned char kMark = 0xA5;
}  // namespace

extern "C" void* kmpc_malloc(std::size_t n) {
    ++subst::mallocs;
    if (subst::fail_malloc) return nullptr;
    static auto real = next<void* (*)(std::size_t)>("kmpc_malloc");
    auto* p = static_cast<unsigned char*>(real(n + kHead + kGuard));
    if (!p) return nullptr;
    std::memcpy(p, &n, sizeof n);
    std::memset(p + kHead + n, kMark, kGuard);
    if (const int g = subst::grow_threads.load()) subst::forced_threads = g;
    return p + kHead;
}

extern "C" void kmpc_free(void* q) {
    ++subst::frees;
    static auto real = next<void (*)(void*)>("kmpc_free");
    if (!q) return;
    auto* p = static_cast<unsigned char*>(q) - kHead;
    std::size_t n;
    std::memcpy(&n, p, sizeof n);
    for (std::size_t k = 0; k < kGuard; ++k)
        if (p[kHead + n + k] != kMark) {
            ++subst::overruns;
            ++subst::overruns_total;
            break;
        }
    real(p);
}
