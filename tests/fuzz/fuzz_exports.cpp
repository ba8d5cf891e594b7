// Argument fuzzing of every implemented export. The input picks an export,
// a thread count, whether the runtime's allocator fails, and a laid-out call
// (sizes, counts, strides, shifts, alignments, the storage form's tables);
// then it may break arguments: sizes and counts of 0, negative or huge;
// strides and shifts of 0, negative, unaligned or huge; null pointers; and,
// where a check has to catch the call before anything is read, null or wild
// table entries and wild pointers. It asserts:
//   - a call that a check refuses returns the first failing check's status
//     in the export's order, and not one byte of the arena or the tables
//     changed;
//   - a call that passes the checks returns 0 or one of the export's
//     numerical failures, and wrote no byte but destination elements,
//     compact results and the caller's scratch;
//   - no sanitizer report (the build has AddressSanitizer and
//     UndefinedBehaviorSanitizer; the arena's guards are poisoned).
#include <climits>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "arena_call.hpp"
#include "substitutes.hpp"

// Calls by outcome, for the replay's summary: refused by a check, passed the
// checks, not made (broken arguments that pass the checks would address
// memory that was not laid out).
extern "C" {
long zel_fuzz_refused = 0, zel_fuzz_passed = 0, zel_fuzz_skipped = 0;
}

namespace {

[[noreturn]] void fault(const ac::Call& c, zelStatus st, const std::string& what) {
    std::fprintf(stderr, "zelm fuzz: %s\n  call: %s\n  status: %d\n", what.c_str(), c.describe().c_str(), st);
    std::abort();
}

int bad_value(ac::Draw& d) {
    static const int v[] = {0,          -1,         1,          2,          3,          5,
                            6,          7,          -4,         -8,         -16,        INT_MIN,
                            INT_MAX,    INT_MAX - 7, 0x40000000, -0x40000000, 0x7FFFFFF8, 0x10000,
                            INT_MIN + 8};
    return d.chance(4) ? int(d.u32()) : d.pick(v);
}

void* wild(ac::Draw& d) {
    static const std::uintptr_t v[] = {0x10, 0x1000, 0xFFFFF000u, 0xDEADBEE0u, 0x8};
    return reinterpret_cast<void*>(d.pick(v));
}

// The export an input calls: the first four bytes pick one by number, which
// moves to another export whenever exports are added; a kept reproducer names
// its export instead ("@zelmAdd_vc_64f_P" and a zero byte, then the rest).
const reg::ExportRow* pick_export(const std::uint8_t*& data, std::size_t& size) {
    const auto& all = ac::callable_exports();
    if (size > 1 && data[0] == '@') {
        const auto* end = static_cast<const std::uint8_t*>(std::memchr(data, 0, size));
        if (!end) return nullptr;
        const std::string name(reinterpret_cast<const char*>(data + 1), reinterpret_cast<const char*>(end));
        size -= std::size_t(end + 1 - data);
        data = end + 1;
        for (const auto* r : all)
            if (name == r->name) return r;
        return nullptr;
    }
    ac::Draw d(data, size);
    const std::uint32_t k = d.below(std::uint32_t(all.size()));
    const std::size_t used = size < 4 ? size : 4;
    data += used, size -= used;
    return all[k];
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const reg::ExportRow* picked = pick_export(data, size);
    if (!picked) return -1;  // names no callable export: not worth keeping
    const reg::ExportRow& row = *picked;
    ac::Draw d(data, size);
    static const int thread_counts[] = {1, 1, 2, 3, 4};
    const int threads = d.pick(thread_counts);
    const bool failing_malloc = d.chance(8);
    const bool checked = row.checks[0] != 0;
    // what to break, drawn before the layout so that it stands early in the input
    struct Break {
        bool pointer;
        std::uint32_t which;
        int value;
    };
    static const int break_counts[] = {0, 0, 0, 1, 1, 1, 2, 3};
    std::vector<Break> breaks(checked ? d.pick(break_counts) : 0);
    for (auto& b : breaks) b = {d.chance(4), d.u32(), bad_value(d)};

    ac::Call c(row, d, ac::Mode::Fuzz, threads > 1);
    std::vector<std::string> ints, nulls;
    for (const auto& b : breaks) {
        const auto& names = b.pointer ? c.pointer_args() : c.int_args();
        if (names.empty()) continue;
        const auto& n = names[b.which % names.size()];
        if (b.pointer) {
            c.args.ptrs[n] = nullptr;
            nulls.push_back(n);
        } else {
            c.args.nums[n] = b.value;
            ints.push_back(n);
        }
    }
    const zelStatus expect = c.check_status();
    if (expect == zelStsOk) {
        // the checks pass: the call must still address the laid-out memory
        for (const auto& n : ints)
            if (!c.harmless(n, c.args.nums[n])) return ++zel_fuzz_skipped, 0;
        if (!nulls.empty()) return ++zel_fuzz_skipped, 0;
    } else {
        // a check refuses the call, so nothing may be read: garble what no check looks at
        if (d.chance(2))
            for (auto [t, n] : c.tables())
                for (std::size_t e = 0; e < n; ++e)
                    if (d.chance(2)) t[e] = d.chance(2) ? nullptr : wild(d);
        if (d.chance(3))
            for (const auto& p : c.pointer_args())
                if (c.args.ptrs[p] && d.chance(2)) c.args.ptrs[p] = wild(d);
        c.rebase();
    }

    subst::Scope scope(threads, -1, failing_malloc);
    const zelStatus st = c.call();
    if (expect != zelStsOk) {
        if (st != expect) fault(c, st, "refused with status " + std::to_string(st) + ", expected " + std::to_string(expect));
        if (!c.changed().empty()) fault(c, st, "wrote to the arena after a failed check");
        return ++zel_fuzz_refused, 0;
    }
    bool allowed = st == zelStsOk;
    for (zelStatus f : c.spec().failures) allowed |= st == f;
    if (!allowed) fault(c, st, "a status the export cannot return");
    std::string where;
    if (!c.stray_writes(&where).empty()) fault(c, st, "wrote outside its destination: " + where);
    return ++zel_fuzz_passed, 0;
}
