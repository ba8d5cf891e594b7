#include "substitutes.hpp"

#include <dlfcn.h>

#include <cstddef>

namespace subst {
std::atomic<int> thread_queries{0}, forced_threads{0};
std::atomic<int> cache_queries{0}, forced_cache{-1};
std::atomic<int> mallocs{0}, frees{0};
std::atomic<bool> fail_malloc{false};

Scope::Scope(int threads, int cache, bool failing_malloc) {
    thread_queries = 0;
    cache_queries = 0;
    mallocs = 0;
    frees = 0;
    forced_threads = threads;
    forced_cache = cache;
    fail_malloc = failing_malloc;
}
Scope::~Scope() {
    forced_threads = 0;
    forced_cache = -1;
    fail_malloc = false;
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

extern "C" void* kmpc_malloc(std::size_t n) {
    ++subst::mallocs;
    if (subst::fail_malloc) return nullptr;
    static auto real = next<void* (*)(std::size_t)>("kmpc_malloc");
    return real(n);
}

extern "C" void kmpc_free(void* p) {
    ++subst::frees;
    static auto real = next<void (*)(void*)>("kmpc_free");
    real(p);
}
