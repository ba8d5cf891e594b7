// The fan-out of the element-wise array operations: which calls enter the
// wrapper (ownGetNumThreads asked), which fork (asked twice), same results.
#include <gtest/gtest.h>

#include <dlfcn.h>

#include <atomic>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "elementwise_harness.hpp"
#include "substitutes.hpp"

namespace {

using ewt::Layout;

// The documented work estimates of the array signatures (w x h objects or
// vectors of len w, c of them) and their thresholds by kernel: standard form
// with every stride2 the element size, with others; list form 32f and 64f,
// contiguous, then other; pointer form. Matrices of Add and Sub start the
// wrapper at the threshold, the rest above it. The sizes make the estimate
// meet some thresholds exactly.
struct Limit {
    const char *ops, *sigs;
    long long (*est)(long long w, long long h, long long c);
    bool strict;
    int w, h;
    int thr[7];
};
#define ZEL_EST(e) [](long long w, long long h, long long c) { return (void)w, (void)h, (long long)(e); }
constexpr int kMat[7] = {36864, 18432, 18432, 18432, 18432, 18432, 9216};
const Limit kLimits[] = {
    {"Add Sub", "mam mat tam tat mma mta tma tta", ZEL_EST(w * h * (2 * c + 1)), false, 3, 3, {}},
    {"Add Sub", "mama mata tama tata", ZEL_EST(3 * w * h * c), false, 4, 4, {}},  // 48 c: exactly at 768, 384, 192
    {"Add Sub", "vav vva vac", ZEL_EST(w * (2 * c + 1)), true, 32, 1, {20000, 20000, 40000, 20000, 40000, 20000, 20000}},
    {"Add Sub", "vca cav", ZEL_EST(w * c + w + c), true, 2, 1, {20000, 20000, 40000, 20000, 40000, 20000, 20000}},
    {"Add Sub", "vaca cava", ZEL_EST(2 * w * c + c), true, 2, 1, {20000, 20000, 40000, 20000, 40000, 20000, 20000}},
    {"Add Sub", "vava", ZEL_EST(3 * w * c), true, 2, 1, {20000, 20000, 40000, 20000, 40000, 20000, 20000}},
    {"Add Sub", "cva", ZEL_EST(2 * c), true, 3, 1, {19999, 19999, 39999, 19999, 39999, 19999, 19999}},
    {"Mul", "mac tac", ZEL_EST(2 * w * h * c), true, 5, 5, {35000, 35000, 35000, 35000, 15000, 35000, 17000}},
    {"Mul", "vac", ZEL_EST(2 * w * c), true, 4, 1, {}},
    {"Mul", "vca", ZEL_EST(w * c + w + c), true, 4, 1, {36864, 36864, 18432, 18432, 18432, 18432, 9216}},
    {"Mul", "vaca", ZEL_EST(2 * w * c + c), true, 1, 1, {36864, 36864, 18432, 18432, 18432, 18432, 9216}},
};
#undef ZEL_EST

bool has(const std::string& list, const std::string& w) { return (" " + list + " ").find(" " + w + " ") != std::string::npos; }

Layout layout_for(bool strided) {
    Layout L;
    if (strided) L.k2 = L.dst_k2 = 2, L.label = "strided";
    return L;
}

// Runs one call with `threads` forced; returns how often the thread count was
// asked for, after checking the results.
int queries_for(const reg::ExportRow& row, int w, int h, int count, bool strided, int threads) {
    int q = -1;
    ewt::with_type(row, [&](auto t) {
        ewt::Case<decltype(t)> c(row, w, h, count, layout_for(strided), unsigned(count));
        subst::Scope scope(threads);
        c.run_and_check("count " + std::to_string(count));
        q = subst::thread_queries;
        EXPECT_EQ(subst::mallocs, 0) << row.name << ": element-wise wrappers have no scratch";
    });
    return q;
}

// Every array export at its kernels' thresholds: one object below the
// boundary it runs on the calling thread (no question), at it the wrapper
// forks (asked twice). Single objects never ask.
TEST(FanOut, EachThresholdAtItsExactBoundary) {
    int boundaries = 0;
    for (const auto* row : ewt::elementwise_exports()) {
        const std::string sig = row->sig, name = row->name;
        if (sig.find('a') == std::string::npos) {
            EXPECT_EQ(queries_for(*row, 200, 200, 1, false, 4), 0) << name;
            continue;
        }
        if (name == "zelmSub_vva_64f_P") continue;  // no wrapper: FourThreadsGiveTheBitsOfOne
        const Limit* lim = nullptr;
        for (const auto& l : kLimits)
            if (has(l.ops, row->op) && has(l.sigs, sig)) lim = &l;
        ASSERT_NE(lim, nullptr) << name;
        const char form = row->form[0];
        for (bool strided : {false, true}) {
            if (form == 'P' && strided) continue;
            const int* thr = lim->thr[0] ? lim->thr : kMat;
            const int limit = form == 'P' ? thr[6] : form == 'S' ? thr[strided] : thr[2 + 2 * strided + fh::is64(*row)];
            int at = 1;
            while (lim->strict ? lim->est(lim->w, lim->h, at) <= limit : lim->est(lim->w, lim->h, at) < limit) ++at;
            SCOPED_TRACE(name + (strided ? " strided" : " contiguous") + ", limit " + std::to_string(limit));
            EXPECT_EQ(queries_for(*row, lim->w, lim->h, at - 1, strided, 4), 0) << "count " << at - 1;
            EXPECT_EQ(queries_for(*row, lim->w, lim->h, at, strided, 4), 2) << "count " << at;
            ++boundaries;
        }
    }
    EXPECT_GT(boundaries, 300);
}

TEST(FanOut, OneThreadOrFewerObjectsThanThreadsGoDirectInsideTheWrapper) {
    // 100x100 mam: far above every threshold, even at count 3
    const auto q = [](const char* n, int count, bool strided, int threads) {
        return queries_for(ewt::row_named(n), 100, 100, count, strided, threads);
    };
    EXPECT_EQ(q("zelmAdd_mam_32f", 3, false, 4), 1);
    EXPECT_EQ(q("zelmAdd_mam_32f", 4, false, 4), 2);
    EXPECT_EQ(q("zelmAdd_mam_32f_P", 9, false, 1), 1);
    EXPECT_EQ(q("zelmMul_tac_64f_L", 9, true, -1), 1);
}

// Slices with a remainder (count 10 on 4 threads: 3, 3, 2, 2), in every form
// and kernel, give the bits of a run on one thread.
TEST(FanOut, FourThreadsGiveTheBitsOfOne) {
    for (const auto* row : ewt::elementwise_exports()) {
        const std::string sig = row->sig;
        if (sig.find('a') == std::string::npos) continue;
        const bool vec = sig.find_first_of("mt") == std::string::npos;
        for (bool strided : {false, true}) {
            ewt::with_type(*row, [&](auto t) {
                using T = decltype(t);
                // cva estimates 2*count whatever len is: it needs many objects
                const bool cva = sig == "cva";
                const int w = cva ? 2 : vec ? 5000 : 70, h = vec ? 1 : 50;
                const int count = cva ? 20001 : 10;
                std::vector<T> results[2];
                int queries[2];
                for (int k = 0; k < 2; ++k) {
                    ewt::Case<T> c(*row, w, h, count, layout_for(strided), 3);
                    subst::Scope scope(k == 0 ? 1 : 4);
                    c.run_and_check(strided ? "strided" : "contiguous");
                    results[k] = c.dst_mem();
                    queries[k] = subst::thread_queries;
                }
                const bool wrapped = std::string(row->name) != "zelmSub_vva_64f_P";
                EXPECT_EQ(queries[0], wrapped ? 1 : 0) << row->name;
                EXPECT_EQ(queries[1], wrapped ? 2 : 0) << row->name;
                EXPECT_EQ(std::memcmp(results[0].data(), results[1].data(), results[0].size() * sizeof(T)), 0)
                    << row->name;
            });
        }
    }
}

// A runtime that gives fewer threads than asked (here: none at all) still
// covers every object: the split follows the real team size.
TEST(FanOut, ARuntimeThatGivesOneThreadStillCoversAllObjects) {
    using SetLevels = void (*)(int);
    using GetLevels = int (*)();
    auto set_levels = reinterpret_cast<SetLevels>(dlsym(RTLD_DEFAULT, "omp_set_max_active_levels"));
    auto get_levels = reinterpret_cast<GetLevels>(dlsym(RTLD_DEFAULT, "omp_get_max_active_levels"));
    if (!set_levels || !get_levels) GTEST_SKIP() << "no OpenMP runtime in the process";
    const int saved = get_levels();
    set_levels(0);  // every parallel region runs as a team of one
    if (get_levels() != 0) {
        set_levels(saved);
        GTEST_SKIP() << "the runtime keeps parallel regions active";
    }
    for (const char* n : {"zelmAdd_mama_32f", "zelmSub_tam_64f_L", "zelmMul_vaca_32f_P"}) {
        const auto& row = ewt::row_named(n);
        const bool vec = std::string(row.sig)[0] == 'v';
        ewt::with_type(row, [&](auto t) {
            using T = decltype(t);
            ewt::Case<T> c(row, vec ? 3000 : 60, vec ? 1 : 60, 11, Layout(), 4);
            subst::Scope scope(4);
            c.run_and_check("team of one");
            EXPECT_EQ(subst::thread_queries, 2) << n;
        });
    }
    set_levels(saved);
}

// Application threads calling at once, each on its own destination, each
// call forking a region of its own.
TEST(FanOut, ConcurrentCallersOnDisjointDestinations) {
    subst::Scope scope(2);
    const char* names[] = {"zelmAdd_mama_32f", "zelmSub_mat_64f_L", "zelmMul_mac_32f_P", "zelmSub_cava_64f",
                           "zelmAdd_vav_32f_L", "zelmMul_vca_64f_P"};
    std::vector<std::thread> pool;
    std::atomic<int> failures{0};
    for (int k = 0; k < 6; ++k) {
        pool.emplace_back([&, k] {
            const auto& row = ewt::row_named(names[k]);
            const bool vec = std::string(row.sig).find_first_of("mt") == std::string::npos;
            for (int rep = 0; rep < 8; ++rep) {
                ewt::with_type(row, [&](auto t) {
                    using T = decltype(t);
                    ewt::Case<T> c(row, vec ? 7 : 4, vec ? 1 : 4, 4000 + rep, Layout(), unsigned(k * 100 + rep));
                    if (!c.run_and_check("concurrent")) ++failures;
                });
            }
        });
    }
    for (auto& th : pool) th.join();
    EXPECT_EQ(failures, 0);
    EXPECT_GT(subst::thread_queries, 0);
}

}  // namespace
