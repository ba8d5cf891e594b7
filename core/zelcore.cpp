// libzelcore: the thread count and the cache size that zelm asks for.
#include "zelcore.h"

#include <omp.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>

namespace {

std::atomic<int> g_threads{0};  // 0: the runtime's default

// A cache larger than this is not believed.
constexpr long kMaxCredibleCache = 256L * 1024 * 1024;

long parse_size(const char* text) {
    long v = 0;
    char unit = 0;
    if (std::sscanf(text, "%ld%c", &v, &unit) < 1) return 0;
    if (unit == 'K' || unit == 'k') v *= 1024;
    else if (unit == 'M' || unit == 'm') v *= 1024 * 1024;
    return v;
}

long largest_cache() {
    long best = 0;
#ifdef _SC_LEVEL1_DCACHE_SIZE
    const int names[] = {_SC_LEVEL1_DCACHE_SIZE, _SC_LEVEL2_CACHE_SIZE, _SC_LEVEL3_CACHE_SIZE,
                         _SC_LEVEL4_CACHE_SIZE};
    for (int n : names) {
        const long v = sysconf(n);
        if (v > best) best = v;
    }
#endif
    if (best == 0) {
        for (int i = 0; i < 8; ++i) {
            char path[96];
            std::snprintf(path, sizeof path, "/sys/devices/system/cpu/cpu0/cache/index%d/size", i);
            FILE* f = std::fopen(path, "r");
            if (!f) continue;
            char buf[32] = {};
            if (std::fgets(buf, sizeof buf, f)) {
                const long v = parse_size(buf);
                if (v > best) best = v;
            }
            std::fclose(f);
        }
    }
    return best > kMaxCredibleCache ? 0 : best;
}

}  // namespace

extern "C" int ownGetNumThreads(void) {
    const int n = g_threads.load(std::memory_order_relaxed);
    return n > 0 ? n : omp_get_max_threads();
}

extern "C" void zelSetNumThreads(int n) { g_threads.store(n > 0 ? n : 0, std::memory_order_relaxed); }

extern "C" int zelGetMaxCacheSizeB(int* pSize) {
    static const long size = largest_cache();
    if (pSize) *pSize = int(size);
    return 0;
}
