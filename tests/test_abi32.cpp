// The 32-bit target: every export called from a stack aligned to 4 bytes
// only gives the results of an aligned call.
#include <gtest/gtest.h>

#include <dlfcn.h>

#include <cstdint>
#include <cstring>
#include <vector>

#include "arena_call.hpp"

namespace {

#if defined(__i386__)
extern "C" int zel_call_skewed(const void* fn, const std::uint32_t* words, int n, int skew);
extern "C" std::uint32_t zel_stack_probe(void);

// The arguments of a call as the 32-bit calling convention lays them on the
// stack: one word each, two for a double.
std::vector<std::uint32_t> words_of(const ac::Call& c) {
    std::vector<std::uint32_t> w;
    for (const auto& p : reg::params_of(c.row())) {
        if (p.pointer()) {
            w.push_back(std::uint32_t(reinterpret_cast<std::uintptr_t>(c.args.ptrs.at(p.name))));
        } else if (p.type == "double") {
            const double v = c.args.reals.at(p.name);
            std::uint32_t h[2];
            std::memcpy(h, &v, 8);
            w.insert(w.end(), h, h + 2);
        } else if (p.type == "float") {
            const float v = float(c.args.reals.at(p.name));
            std::uint32_t h;
            std::memcpy(&h, &v, 4);
            w.push_back(h);
        } else {
            w.push_back(std::uint32_t(c.args.nums.at(p.name)));
        }
    }
    return w;
}

TEST(Abi32, TheTrampolineSkewsTheStack) {
    for (int skew : {0, 4, 8, 12})
        EXPECT_EQ(std::uint32_t(zel_call_skewed(reinterpret_cast<const void*>(&zel_stack_probe), nullptr, 0, skew)) % 16,
                  std::uint32_t(skew));
}

TEST(Abi32, EveryExportWorksFromAStackAlignedTo4Bytes) {
    int calls = 0;
    for (const auto* row : ac::callable_exports()) {
        const void* fn = dlsym(RTLD_DEFAULT, row->name);
        ASSERT_NE(fn, nullptr) << row->name;
        for (std::uint64_t seed : {1u, 2u}) {
            ac::Draw d(seed);
            ac::Call c(*row, d, ac::Mode::Plain);
            const zelStatus st = c.call();
            const std::uint64_t want = c.digest(st);
            const auto w = words_of(c);
            for (int skew : {4, 8, 12}) {
                c.reset();
                const zelStatus got = zel_call_skewed(fn, w.data(), int(w.size()), skew);
                ASSERT_EQ(got, st) << row->name << " skew " << skew;
                ASSERT_EQ(c.digest(got), want) << row->name << " skew " << skew;
                ++calls;
            }
        }
    }
    EXPECT_GT(calls, 0);
}
#else
TEST(Abi32, EveryExportWorksFromAStackAlignedTo4Bytes) { GTEST_SKIP() << "32-bit x86 only"; }
#endif

}  // namespace
