// The parallel fan-out of the element-wise array operations, seen from
// outside: which calls enter the wrapper (ownGetNumThreads is asked), which
// fork (asked twice), and that the results never depend on it.
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

// One boundary of a work-estimate threshold: at `at` objects the call goes to
// the wrapper, one object less stays on the calling thread.
struct Boundary {
    const char* name;
    int w, h;  // h unused for vectors
    int at;
    bool strided;  // a stride2 other than the element size
};

// The numbers are worked out by hand from the documented estimates:
//   matrices, Add/Sub (>=): w*h*(2c+1) or 3*w*h*c against 36864 (contiguous),
//     18432 (other stride2, list form), 9216 (pointer form);
//   vectors, Add/Sub (>): l*(2c+1), l*c+l+c, 2*l*c+c, 3*l*c against 20000
//     (40000 in the 32f list form); cva: 2*c against 19999 (39999);
//   Mul (>): 2*w*h*c against 35000 (15000 32f list with other stride2,
//     17000 pointer); vac 2*l*c, vca l*c+l+c, vaca 2*l*c+c against 36864,
//     18432, 9216.
const Boundary kBoundaries[] = {
    // 3x3 mam: 9*(2c+1) >= 36864 from c = 2048; >= 18432 from 1024; >= 9216 from 512
    {"zelmAdd_mam_32f", 3, 3, 2048, false},
    {"zelmAdd_mam_32f", 3, 3, 1024, true},
    {"zelmAdd_mam_32f_L", 3, 3, 1024, false},
    {"zelmAdd_mam_32f_L", 3, 3, 1024, true},
    {"zelmAdd_mam_32f_P", 3, 3, 512, false},
    {"zelmSub_mma_64f", 3, 3, 2048, false},
    {"zelmSub_tta_64f_P", 3, 3, 512, false},
    {"zelmSub_mat_64f_L", 3, 3, 1024, true},
    // 4x4 mama: 48*c reaches 36864 exactly at 768 (not strict), 18432 at 384, 9216 at 192
    {"zelmAdd_mama_32f", 4, 4, 768, false},
    {"zelmAdd_mama_64f", 4, 4, 384, true},
    {"zelmSub_tata_32f_L", 4, 4, 384, false},
    {"zelmSub_mata_64f_P", 4, 4, 192, false},
    // vectors of Add/Sub, strict: vac len 100: 19900 direct, 20100 wrapper
    {"zelmAdd_vac_32f", 100, 1, 100, false},
    {"zelmAdd_vac_64f_L", 100, 1, 100, false},
    {"zelmAdd_vac_32f_L", 100, 1, 200, false},  // 40000: 39900 / 40100
    {"zelmAdd_vac_32f_P", 100, 1, 100, false},
    // vav len 32: 32*625 = 20000 exactly stays direct
    {"zelmAdd_vav_32f", 32, 1, 313, false},
    {"zelmSub_vav_64f", 32, 1, 313, true},
    {"zelmSub_vva_32f_L", 32, 1, 625, false},  // 32*1249 = 39968 / 32*1251 = 40032
    {"zelmSub_vva_32f_P", 32, 1, 313, false},
    // vava: 3*l*c, l = 2: 6*3333 = 19998 / 6*3334 = 20004
    {"zelmAdd_vava_64f", 2, 1, 3334, false},
    // vca and cav: l*c + l + c, l = 1: 2c+1 > 20000 from c = 10000
    {"zelmSub_vca_32f", 1, 1, 10000, false},
    {"zelmSub_cav_64f_L", 1, 1, 10000, true},
    // vaca and cava: 2*l*c + c, l = 1: 3*6666 = 19998 / 20001
    {"zelmAdd_vaca_32f_P", 1, 1, 6667, false},
    {"zelmSub_cava_64f", 1, 1, 6667, false},
    // cva: 2*c > 19999 from c = 10000, whatever len is
    {"zelmSub_cva_32f", 1, 1, 10000, false},
    {"zelmSub_cva_32f", 7, 1, 10000, true},
    {"zelmSub_cva_64f_P", 3, 1, 10000, false},
    {"zelmSub_cva_32f_L", 2, 1, 20000, false},
    // Mul mac/tac 5x5: 50*c > 35000 from c = 701 (700 is exactly 35000)
    {"zelmMul_mac_32f", 5, 5, 701, false},
    {"zelmMul_tac_64f", 5, 5, 701, true},
    {"zelmMul_mac_32f_L", 5, 5, 701, false},
    {"zelmMul_mac_32f_L", 5, 5, 301, true},  // 15000
    {"zelmMul_tac_64f_L", 5, 5, 701, true},
    {"zelmMul_mac_64f_P", 5, 5, 341, false},  // 17000
    // Mul vac, len 4: 8*c against 36864 (4608), 18432 (2304), 9216 (1152)
    {"zelmMul_vac_32f", 4, 1, 4609, false},
    {"zelmMul_vac_32f", 4, 1, 2305, true},
    {"zelmMul_vac_64f_L", 4, 1, 2305, false},
    {"zelmMul_vac_32f_P", 4, 1, 1153, false},
    // Mul vca, len 1: 2c+1 against 36864 in both standard kernels
    {"zelmMul_vca_32f", 1, 1, 18432, false},
    {"zelmMul_vca_64f", 1, 1, 18432, true},
    {"zelmMul_vca_32f_L", 1, 1, 9216, false},
    {"zelmMul_vca_64f_P", 1, 1, 4608, false},
    // Mul vaca, len 1: 3c against 36864 (12288 exactly), 18432, 9216
    {"zelmMul_vaca_32f", 1, 1, 12289, true},
    {"zelmMul_vaca_64f_L", 1, 1, 6145, false},
    {"zelmMul_vaca_32f_P", 1, 1, 3073, false},
};

Layout layout_for(bool strided) {
    Layout L;
    if (strided) {
        L.k2 = 2;
        L.dst_k2 = 2;
        L.label = "strided";
    }
    return L;
}

// Runs one call with `threads` forced; returns how often the thread count was
// asked for, after checking the results.
int queries_for(const char* name, int w, int h, int count, bool strided, int threads) {
    const auto& row = ewt::row_named(name);
    int q = -1;
    ewt::with_type(row, [&](auto t) {
        using T = decltype(t);
        ewt::Case<T> c(row, w, h, count, layout_for(strided), unsigned(count));
        subst::Scope scope(threads);
        c.run_and_check("count " + std::to_string(count));
        q = subst::thread_queries;
        EXPECT_EQ(subst::mallocs, 0) << name << ": element-wise wrappers have no scratch";
    });
    return q;
}

TEST(FanOut, EachThresholdAtItsExactBoundary) {
    for (const auto& b : kBoundaries) {
        SCOPED_TRACE(std::string(b.name) + (b.strided ? " strided" : " contiguous"));
        EXPECT_EQ(queries_for(b.name, b.w, b.h, b.at - 1, b.strided, 4), 0) << "count " << b.at - 1;
        EXPECT_EQ(queries_for(b.name, b.w, b.h, b.at, b.strided, 4), 2) << "count " << b.at;
    }
}

TEST(FanOut, SubVvaOf64fPointerFormNeverEntersTheWrapper) {
    // 100*(2*count + 1) is far above 20000 for both
    EXPECT_EQ(queries_for("zelmSub_vva_64f_P", 100, 1, 2000, false, 4), 0);
    EXPECT_EQ(queries_for("zelmSub_vva_32f_P", 100, 1, 2000, false, 4), 2);
}

TEST(FanOut, SingleObjectsNeverEnterTheWrapper) {
    for (const char* n : {"zelmAdd_mm_32f", "zelmSub_tt_64f_P", "zelmMul_tc_32f", "zelmAdd_vv_64f"})
        EXPECT_EQ(queries_for(n, 200, 200, 1, false, 4), 0) << n;
}

TEST(FanOut, OneThreadOrFewerObjectsThanThreadsGoDirectInsideTheWrapper) {
    // 100x100 mam: far above every threshold, even at count 3
    EXPECT_EQ(queries_for("zelmAdd_mam_32f", 100, 100, 3, false, 4), 1);
    EXPECT_EQ(queries_for("zelmAdd_mam_32f", 100, 100, 4, false, 4), 2);
    EXPECT_EQ(queries_for("zelmAdd_mam_32f_P", 100, 100, 9, false, 1), 1);
    EXPECT_EQ(queries_for("zelmMul_tac_64f_L", 100, 100, 9, true, -1), 1);
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
