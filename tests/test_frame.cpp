// The call frame: the registry as built, the version record, and the argument
// checks of every implemented export, broken one at a time and in pairs.
#include <gtest/gtest.h>

#include <cstring>
#include <set>
#include <string>
#include <vector>

#include "registry_table.hpp"
#include "zelm.h"

namespace {

TEST(Registry, HasEveryExportOnceAndCallersForTheCheckedOnes) {
    const auto& rows = reg::exports();
    EXPECT_EQ(rows.size(), 874u);
    std::set<std::string> names;
    for (const auto& r : rows) {
        EXPECT_TRUE(names.insert(r.name).second) << r.name;
        if (r.implemented && *r.checks) {
            EXPECT_NE(reg::caller_of(r.name), nullptr) << r.name;
        }
    }
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
    // the revision agrees with the text
    const std::string rev = std::to_string(v->revision);
    EXPECT_NE(std::string(v->version).find(rev), std::string::npos);
}

// Memory for a call whose arguments are all good but for the ones a test
// breaks: every pointer leads into one sentinel-filled arena, every table to
// entries in it, so that "nothing read or written" can be seen afterwards.
class Fixture {
public:
    explicit Fixture(const reg::ExportRow& row) : row_(row) {
        esz_ = std::string(row.type) == "64f" ? 8 : 4;
        arena_.assign(1 << 16, 0xA5);
        tables_.resize(8, std::vector<void*>(256));
        int t = 0;
        for (const auto& p : reg::params_of(row)) {
            const std::string& n = p.name;
            if (p.pointer()) {
                if (n.rfind("pp", 0) == 0) {
                    auto& tab = tables_[t++];
                    for (std::size_t k = 0; k < tab.size(); ++k) tab[k] = arena_.data() + 4096 + 64 * k;
                    args.ptrs[n] = tab.data();
                } else {
                    args.ptrs[n] = arena_.data() + 64;
                }
            } else if (p.real()) {
                args.reals[n] = 1.0;
            } else {
                args.nums[n] = good(n);
            }
        }
        snapshot_ = arena_;
        table_snapshot_ = tables_;
    }

    int good(const std::string& n) const {
        if (n == "count") return 2;
        if (n.find("Shift") != std::string::npos) return 0;
        if (n.find("Stride2") != std::string::npos || n == "valStride0") return esz_;
        if (n.find("Stride1") != std::string::npos) return 8 * esz_;
        if (n.find("Stride0") != std::string::npos) return 64 * esz_;
        return 2;  // sizes
    }
    // Values that each check must refuse.
    std::vector<int> bad(char letter) const {
        switch (letter) {
            case 'C': return {0, -1};
            case 'Z': return {0, -3};
            case 'S':
            case 'K': return esz_ == 8 ? std::vector<int>{6, 0, -8, 4} : std::vector<int>{6, 0, -4, 2};
            case 'H': return {-esz_, 2};
            case 'M': return {3};
        }
        return {};
    }
    void break_arg(char letter, const std::string& n, int value) {
        if (letter == 'N') args.ptrs[n] = nullptr;
        else args.nums[n] = value;
    }
    bool untouched() const { return arena_ == snapshot_ && tables_ == table_snapshot_; }

    reg::Args args;

private:
    const reg::ExportRow& row_;
    int esz_ = 4;
    std::vector<unsigned char> arena_, snapshot_;
    std::vector<std::vector<void*>> tables_, table_snapshot_;
};

std::vector<const reg::ExportRow*> checked_exports() {
    std::vector<const reg::ExportRow*> out;
    for (const auto& r : reg::exports())
        if (r.implemented && *r.checks) out.push_back(&r);
    return out;
}

TEST(Checks, EachFailsWithItsStatusAndTouchesNothing) {
    int calls = 0;
    for (const auto* row : checked_exports()) {
        const auto call = reg::caller_of(row->name);
        for (const auto& chk : reg::checks_of(*row)) {
            for (const auto& arg : chk.args) {
                const std::vector<int> values = chk.letter == 'N' ? std::vector<int>{0} : Fixture(*row).bad(chk.letter);
                for (int v : values) {
                    Fixture f(*row);
                    f.break_arg(chk.letter, arg, v);
                    ASSERT_EQ(call(f.args), reg::status_of(chk.letter))
                        << row->name << ": " << chk.letter << " " << arg << " = " << v;
                    ASSERT_TRUE(f.untouched()) << row->name << " wrote after failing " << chk.letter;
                    ++calls;
                }
            }
        }
    }
    EXPECT_GT(calls, 0);
}

TEST(Checks, TheFirstFailingCheckInOrderWins) {
    for (const auto* row : checked_exports()) {
        const auto call = reg::caller_of(row->name);
        const auto checks = reg::checks_of(*row);
        for (std::size_t a = 0; a < checks.size(); ++a) {
            for (std::size_t b = a + 1; b < checks.size(); ++b) {
                if (checks[a].args.empty() || checks[b].args.empty()) continue;
                // break the last argument of the earlier check and the first of the later
                Fixture f(*row);
                const auto& ea = checks[a].args.back();
                const auto& eb = checks[b].args.front();
                if (ea == eb) continue;
                f.break_arg(checks[b].letter, eb, checks[b].letter == 'N' ? 0 : f.bad(checks[b].letter)[0]);
                f.break_arg(checks[a].letter, ea, checks[a].letter == 'N' ? 0 : f.bad(checks[a].letter)[0]);
                ASSERT_EQ(call(f.args), reg::status_of(checks[a].letter))
                    << row->name << ": " << checks[a].letter << " before " << checks[b].letter;
                ASSERT_TRUE(f.untouched()) << row->name;
            }
        }
    }
}

// Orders worth seeing spelled out: the odd ones of the element-wise family.
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
