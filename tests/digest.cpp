// Prints a digest of what every implemented export writes, for several
// repeatable calls each: the same calls, drawn from the same seeds, in the
// 32-bit and the 64-bit build must give the same lines (compare_digests.py),
// except for the operations the registry exempts (DIGEST_EXEMPT).
#include <cinttypes>
#include <cstdio>
#include <string>

#include "arena_call.hpp"
#include "substitutes.hpp"

int main() {
    subst::Scope one_thread(1);
    int lines = 0;
    for (const auto* row : ac::callable_exports()) {
        if (ac::spec_of(row->name).digest_exempt) continue;
        std::uint64_t seed = 0xCBF29CE484222325ull;
        for (const char* p = row->name; *p; ++p) seed = (seed ^ std::uint8_t(*p)) * 0x100000001B3ull;
        for (int k = 0; k < 12; ++k) {
            ac::Draw d(seed + std::uint64_t(k));
            ac::Call c(*row, d, ac::Mode::Plain);
            const zelStatus st = c.call();
            std::printf("%s %d %d %016" PRIx64 "\n", row->name, k, st, c.digest(st));
            ++lines;
        }
    }
    std::fprintf(stderr, "%d digests\n", lines);
    return 0;
}
