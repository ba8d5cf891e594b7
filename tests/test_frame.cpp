// The call frame: the registry as built, the version record, and the argument
// checks of every export, broken one at a time and in pairs; for the whole
// run, the guards behind the wrappers' scratch blocks.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <set>
#include <string>
#include <vector>

#include "arena_call.hpp"
#include "substitutes.hpp"
#include "zelm.h"

namespace {

// Every scratch block that any test's wrappers took came back with the guard
// behind it intact.
class ScratchGuards : public ::testing::Environment {
    void TearDown() override { EXPECT_EQ(subst::overruns_total.load(), 0) << "scratch blocks written past their end"; }
};
[[maybe_unused]] const auto* const kScratchGuards = ::testing::AddGlobalTestEnvironment(new ScratchGuards);

// (a checked export without a caller fails the checks' tests below)
TEST(Registry, HasEveryExportOnce) {
    const auto& rows = reg::exports();
    EXPECT_EQ(rows.size(), 874u);
    std::set<std::string> names;
    for (const auto& r : rows) EXPECT_TRUE(names.insert(r.name).second) << r.name;
}

TEST(Version, IsTheConstantRecord) {
    const zelLibVersion* v = zelmGetLibVersion();
    ASSERT_NE(v, nullptr);
    EXPECT_EQ(v, zelmGetLibVersion());
    EXPECT_EQ(v->major, 7);
    EXPECT_EQ(v->minor, 1);
    EXPECT_EQ(v->update, 1);
    EXPECT_EQ(v->revision, 37466);
    EXPECT_EQ(std::memcmp(v->cpuCode, "w7\0\0", 4), 0);
    EXPECT_STREQ(v->name, "zelm SSE2 (w7)");
    EXPECT_STREQ(v->version, "7.1.1 (r37466)");
    EXPECT_STREQ(v->buildDate, "Sep 24 2012");
}

// Values that each check must refuse ('M': the size made larger than any
// other argument, which breaks every size relation).
std::vector<int> bad_values(char letter, int esz) {
    switch (letter) {
        case 'N': case 'M': return {0};
        case 'C': return {0, -1};
        case 'Z': return {0, -3};
        case 'S': case 'K': return {6, 0, -esz, esz / 2};
        case 'H': return {-esz, 2};
    }
    return {};
}
void break_arg(ac::Call& c, char letter, const std::string& n, int value) {
    if (letter == 'N') c.args.ptrs[n] = nullptr;
    for (const auto& [k, v] : c.args.nums) value = letter == 'M' ? std::max(value, v + 1) : value;
    if (letter != 'N') c.args.nums[n] = value;
}

// Every checked export as a well-formed call in the sentinel-filled arena
// (two objects or more, so that stride0 is tested): body(call, arguments).
template <class F>
void for_checked_calls(F&& body) {
    std::size_t calls = 0, checked = 0;
    for (const auto& r : reg::exports()) checked += r.implemented && *r.checks;
    for (const auto* row : ac::callable_exports()) {
        if (!*row->checks) continue;
        for (std::uint64_t seed = 1;; ++seed) {
            ac::Draw d(seed);
            ac::Call c(*row, d, ac::Mode::Plain);
            if (c.args.nums.count("count") && c.args.nums["count"] < 2) continue;
            ++calls;
            body(c, reg::checks_of(*row), reg::Args(c.args));
            break;
        }
    }
    EXPECT_EQ(calls, checked);
}

TEST(Checks, EachFailsWithItsStatusAndTouchesNothing) {
    for_checked_calls([](ac::Call& c, const std::vector<reg::Check>& checks, const reg::Args& good) {
        for (const auto& chk : checks)
            for (const auto& arg : chk.args)
                for (int v : bad_values(chk.letter, c.elem_size())) {
                    c.args = good;
                    break_arg(c, chk.letter, arg, v);
                    ASSERT_EQ(c.call(), reg::status_of(chk.letter)) << c.row().name << ": " << chk.letter << " " << arg << " = " << v;
                    ASSERT_TRUE(c.changed().empty()) << c.row().name << " wrote after failing " << chk.letter;
                    // stride0 is looked at only when there is a second object
                    // to reach ('K'); every other stride with one object too
                    if ((chk.letter != 'K' && chk.letter != 'S') || !c.args.nums.count("count")) continue;
                    c.args.nums["count"] = 1;
                    const zelStatus one = c.call();
                    EXPECT_EQ(one == zelStsErrStride, chk.letter == 'S') << c.row().name << ": " << arg << " = " << v << " with one object";
                    EXPECT_TRUE(one != zelStsErrStride || c.changed().empty()) << c.row().name;
                    c.reset();
                }
    });
}

// The last argument of an earlier check and the first of a later one broken.
TEST(Checks, TheFirstFailingCheckInOrderWins) {
    for_checked_calls([](ac::Call& c, const std::vector<reg::Check>& checks, const reg::Args& good) {
        for (std::size_t a = 0; a < checks.size(); ++a)
            for (std::size_t b = a + 1; b < checks.size(); ++b) {
                const auto &A = checks[a], &B = checks[b];
                if (A.args.empty() || B.args.empty() || A.args.back() == B.args.front()) continue;
                c.args = good;
                break_arg(c, B.letter, B.args.front(), bad_values(B.letter, c.elem_size())[0]);
                break_arg(c, A.letter, A.args.back(), bad_values(A.letter, c.elem_size())[0]);
                ASSERT_EQ(c.call(), reg::status_of(A.letter)) << c.row().name << ": " << A.letter << " before " << B.letter;
                ASSERT_TRUE(c.changed().empty()) << c.row().name;
            }
    });
}

// Orders worth seeing spelled out, independently of the registry: the odd
// ones of the element-wise family.
TEST(Checks, DocumentedOrders) {
    float x[64] = {};
    const float* tab[16] = {};
    float* dtab[16] = {};
    // width 0 and a stride of 6: strides come first in the standard mam, sizes in _L and mat
    EXPECT_EQ(zelmAdd_mam_32f(x, 64, 16, 4, x, 16, 4, x, 64, 16, 6, 0, 2, 2), zelStsErrStride);
    EXPECT_EQ(zelmAdd_mam_32f_L(tab, 0, 16, 4, x, 16, 4, dtab, 0, 16, 6, 0, 2, 2), zelStsErrSize);
    EXPECT_EQ(zelmAdd_mat_32f(x, 64, 16, 4, x, 16, 4, x, 64, 16, 6, 0, 2, 2), zelStsErrSize);
    // count 0 and a stride of 6: vav tests count last, vava early
    EXPECT_EQ(zelmAdd_vav_32f(x, 64, 6, x, 4, x, 64, 4, 2, 0), zelStsErrStride);
    EXPECT_EQ(zelmAdd_vava_32f(x, 64, 6, x, 64, 4, x, 64, 4, 2, 0), zelStsErrCount);
    // a stride of 4 in a 64f call
    double d[16] = {};
    EXPECT_EQ(zelmAdd_vv_64f(d, 4, d, 8, d, 8, 2), zelStsErrStride);
    // a null pointer with count 0
    EXPECT_EQ(zelmSub_mam_32f(nullptr, 64, 16, 4, x, 16, 4, x, 64, 16, 4, 2, 2, 0), zelStsErrNullPointer);
    // stride0 is tested with count 1 too
    EXPECT_EQ(zelmSub_mam_32f(x, 0, 16, 4, x, 16, 4, x, 64, 16, 4, 2, 2, 1), zelStsErrStride);
}

}  // namespace
