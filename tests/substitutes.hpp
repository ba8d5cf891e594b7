// Substitutes, in the test executable, for what libzelmw7 calls outside
// itself: they count the calls and can force a thread count, a cache size or
// a failed allocation. Unforced, they pass through to the real functions.
#pragma once

#include <atomic>

namespace subst {

extern std::atomic<int> thread_queries;   // calls of ownGetNumThreads
extern std::atomic<int> forced_threads;   // > 0: ownGetNumThreads returns it
extern std::atomic<int> cache_queries;    // calls of zelGetMaxCacheSizeB
extern std::atomic<int> forced_cache;     // >= 0: zelGetMaxCacheSizeB stores it
extern std::atomic<int> mallocs, frees;   // calls of kmpc_malloc, kmpc_free
extern std::atomic<bool> fail_malloc;     // kmpc_malloc returns NULL
extern std::atomic<int> grow_threads;     // > 0: kmpc_malloc forces this thread count
extern std::atomic<int> overruns;         // kmpc_free found the guard behind a block written
extern std::atomic<int> overruns_total;   // the same over the whole process (never reset)

// Forces the given thread count (0: the real one) and resets the counters for
// the lifetime of the object.
struct Scope {
    explicit Scope(int threads = 0, int cache = -1, bool failing_malloc = false);
    ~Scope();
};

}  // namespace subst
