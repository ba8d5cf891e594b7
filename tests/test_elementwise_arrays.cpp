// Add, Sub and multiplication by a constant on matrices, vectors and arrays of
// them: every export, every storage form, against a reference loop, bit for
// bit, with the memory around the results checked as well.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <string>
#include <vector>

#include "elementwise_harness.hpp"
#include "substitutes.hpp"

namespace {

using ewt::Layout;

struct Size {
    int w, h;  // h is ignored by vector signatures
};

const std::vector<Size> kMatrixSizes = {{1, 1}, {2, 2}, {3, 3}, {4, 4}, {5, 5}, {6, 6}, {7, 7},
                                        {3, 2}, {2, 3}, {4, 5}, {6, 1}, {1, 5}, {6, 4}};
const std::vector<Size> kVectorSizes = {{1, 1}, {2, 1}, {3, 1}, {4, 1}, {5, 1},
                                        {6, 1}, {7, 1}, {9, 1}, {17, 1}};

std::vector<Layout> layouts() {
    std::vector<Layout> out;
    Layout dense;  // contiguous, objects back to back
    dense.label = "dense";
    out.push_back(dense);

    Layout strided;  // every stride larger than the element, tables scrambled and repeating
    strided.k2 = 2;
    strided.dst_k2 = 3;
    strided.pad1 = 1;
    strided.pad0 = 3;
    strided.lead = 1;
    strided.shift = 2;
    strided.repeat = true;
    strided.soa = false;
    strided.label = "strided";
    out.push_back(strided);

    Layout mixed;  // contiguous sources, a destination with gaps; pointer form with stride0 of 3
    mixed.dst_k2 = 2;
    mixed.lead = 3;
    mixed.shift = 1;
    mixed.k0 = 3;
    mixed.label = "mixed";
    out.push_back(mixed);

    Layout regular;  // tables in memory order: each object's elements one behind the other
    regular.scramble = false;
    regular.soa = false;
    regular.shift = 1;
    regular.label = "regular";
    out.push_back(regular);
    return out;
}

std::string describe(const Layout& L, Size s, int count) {
    return std::string(L.label) + " " + std::to_string(s.w) + "x" + std::to_string(s.h) + " count " +
           std::to_string(count);
}

bool is_vector_sig(const char* sig) { return std::string(sig).find_first_of("mt") == std::string::npos; }

bool is_array_sig(const char* sig) { return std::string(sig).find('a') != std::string::npos; }

// Every element-wise export of the registry is covered here.
TEST(ElementwiseExports, AllArePresent) {
    const auto rows = ewt::elementwise_exports();
    int matrix_or_array = 0;
    for (const auto* r : rows)
        if (!is_vector_sig(r->sig) || is_array_sig(r->sig)) ++matrix_or_array;
    EXPECT_EQ(rows.size(), 288u);
    EXPECT_EQ(matrix_or_array, 264);
}

TEST(ElementwiseExports, MatchReferenceInEveryFormSizeCountAndLayout) {
    for (const auto* row : ewt::elementwise_exports()) {
        const auto& sizes = is_vector_sig(row->sig) ? kVectorSizes : kMatrixSizes;
        const std::vector<int> counts = is_array_sig(row->sig) ? std::vector<int>{1, 2, 5} : std::vector<int>{1};
        unsigned seed = 1;
        for (const Layout& L : layouts())
            for (Size s : sizes)
                for (int count : counts) {
                    bool ok = true;
                    ewt::with_type(*row, [&](auto t) {
                        using T = decltype(t);
                        ewt::Case<T> c(*row, s.w, s.h, count, L, seed++);
                        ok = c.run_and_check(describe(L, s, count));
                    });
                    if (!ok) return;  // one report per run is enough
                }
    }
}

TEST(ElementwiseExports, InPlaceOnASourceReadAsStored) {
    for (const auto* row : ewt::elementwise_exports()) {
        if (!ewt::has_in_place_source(row->sig)) continue;
        const auto& sizes = is_vector_sig(row->sig) ? kVectorSizes : kMatrixSizes;
        for (Layout L : layouts()) {
            L.in_place = true;
            L.repeat = false;  // a destination table naming an object twice is no in-place call
            L.dst_k2 = L.k2;   // equal strides
            for (Size s : sizes)
                for (int count : {1, 5}) {
                    bool ok = true;
                    ewt::with_type(*row, [&](auto t) {
                        using T = decltype(t);
                        ewt::Case<T> c(*row, s.w, s.h, count, L, 7u + unsigned(count));
                        ok = c.run_and_check("in place " + describe(L, s, count));
                    });
                    if (!ok) return;
                }
        }
    }
}

// Counts large enough for the parallel wrapper (on four threads, with a
// remainder) next to ones that stay on the calling thread.
TEST(ElementwiseExports, LargeCountsMatchReference) {
    subst::Scope four(4);
    for (const auto* row : ewt::elementwise_exports()) {
        if (!is_array_sig(row->sig)) continue;
        const bool vec = is_vector_sig(row->sig);
        const Size s = vec ? Size{5, 1} : Size{5, 5};
        const int count = vec ? 4001 : 1001;
        for (const Layout& L : layouts()) {
            bool ok = true;
            ewt::with_type(*row, [&](auto t) {
                using T = decltype(t);
                ewt::Case<T> c(*row, s.w, s.h, count, L, 99);
                ok = c.run_and_check(describe(L, s, count));
            });
            if (!ok) return;
        }
    }
}

// The order-6 and order-7 neighbours of the fast paths with a single operand
// shared by many objects, in every layout, for the signatures that have one.
TEST(ElementwiseExports, SingleOperandSharedByManyObjects) {
    for (const auto* row : ewt::elementwise_exports()) {
        const std::string sig = row->sig;
        if (!is_array_sig(row->sig)) continue;
        bool has_single = false;
        for (auto l : ewt::letters_of(sig)) has_single |= !l.array;
        if (!has_single) continue;
        const bool vec = is_vector_sig(row->sig);
        for (const Layout& L : layouts())
            for (int n : {3, 4, 5, 6, 7}) {
                bool ok = true;
                ewt::with_type(*row, [&](auto t) {
                    using T = decltype(t);
                    ewt::Case<T> c(*row, n, vec ? 1 : n, 37, L, unsigned(n));
                    ok = c.run_and_check(describe(L, {n, vec ? 1 : n}, 37));
                });
                if (!ok) return;
            }
    }
}

// A failed argument test returns its status and leaves the destination as it
// was, in every form.
TEST(ElementwiseExports, FailedTestsLeaveTheDestinationAlone) {
    for (const auto* row : ewt::elementwise_exports()) {
        ewt::with_type(*row, [&](auto t) {
            using T = decltype(t);
            const bool vec = is_vector_sig(row->sig);
            struct Breakage {
                const char* what;
                zelStatus want;
            };
            std::vector<Breakage> breaks = {{vec ? "len" : "width", zelStsErrSize},
                                            {"dst pointer", zelStsErrNullPointer}};
            if (is_array_sig(row->sig)) breaks.push_back({"count", zelStsErrCount});
            for (const auto& b : breaks) {
                Layout L = layouts()[1];
                ewt::Case<T> c(*row, 3, 3, 2, L, 5);
                const std::vector<T> before = c.dst_mem();
                const std::string w = b.what;
                if (w == "dst pointer") {
                    c.args.ptrs["pDst"] = nullptr;
                    c.args.ptrs["ppDst"] = nullptr;
                } else {
                    c.args.nums[w] = w == "count" ? 0 : -1;
                }
                EXPECT_EQ(c.call(), b.want) << row->name << " with bad " << w;
                EXPECT_EQ(std::memcmp(before.data(), c.dst_mem().data(), before.size() * sizeof(T)), 0)
                    << row->name << " wrote after failing on " << w;
            }
        });
    }
}

// Cases spelled out in the documentation of the operations.
TEST(ElementwiseExamples, SubConstantFormsHaveOppositeSigns) {
    double src[3] = {0.25, 0.25, 0.25}, a[3], b[3];
    ASSERT_EQ(zelmSub_cv_64f(src, 8, 1.0, a, 8, 3), zelStsOk);
    ASSERT_EQ(zelmSub_vc_64f(src, 8, 1.0, b, 8, 3), zelStsOk);
    for (int j = 0; j < 3; ++j) {
        EXPECT_EQ(a[j], 0.75);
        EXPECT_EQ(b[j], -0.75);
    }
}

TEST(ElementwiseExamples, TransposedPointerTableHasRowLengthHeight) {
    // width 2, height 3: the t source is stored as 2 rows of 3, its table row-major
    double store[6] = {10, 11, 12, 20, 21, 22};  // stored (r, c) = 10*(r+1) + c
    const double* tab[6];
    for (int k = 0; k < 6; ++k) tab[k] = &store[k];
    double out[6] = {};
    double* dtab[6];
    for (int k = 0; k < 6; ++k) dtab[k] = &out[k];
    ASSERT_EQ(zelmMul_tc_64f_P(tab, 0, 2.0, dtab, 0, 2, 3), zelStsOk);
    // result (i, j) = stored (j, i) * 2, written through destination entry i*2 + j
    EXPECT_EQ(out[1 * 2 + 1], 2 * 21.0);  // from table entry 1*3 + 1 = 4
    EXPECT_EQ(out[0 * 2 + 1], 2 * 20.0);  // from table entry 3
    EXPECT_EQ(out[2 * 2 + 0], 2 * 12.0);
}

TEST(ElementwiseExamples, OverlappingRowsReadAHankelPattern) {
    float src[8] = {1, 2, 3, 4, 5, 6, 7, 8};
    float dst[9];
    ASSERT_EQ(zelmMul_mc_32f(src, 4, 4, 1.0f, dst, 12, 4, 3, 3), zelStsOk);
    for (int i = 0; i < 3; ++i)
        for (int j = 0; j < 3; ++j) EXPECT_EQ(dst[i * 3 + j], src[i + j]);
}

TEST(ElementwiseExamples, ConstantArrayAddressingByForm) {
    // _P: the constant of object n at pVal + n*valStride0
    const double src[2] = {1.0, 2.0};
    const double* stab[2] = {&src[0], &src[1]};
    double vals[6] = {3, -1, 5, -1, 7, -1};
    double lane[2][6] = {};  // destination objects at a pitch of 2 elements in each lane
    double* lanes[2] = {lane[0], lane[1]};
    ASSERT_EQ(zelmMul_vca_64f_P(stab, 0, vals, 16, lanes, 0, 16, 2, 3), zelStsOk);
    for (int n = 0; n < 3; ++n) {
        EXPECT_EQ(lane[0][2 * n], 1.0 * vals[2 * n]);
        EXPECT_EQ(lane[1][2 * n], 2.0 * vals[2 * n]);
    }
    // _L: the constant of object n at ppVal[n] + valShift
    const double* vtab[3] = {&vals[3], &vals[1], &vals[0]};  // one element on: 7, 5, -1
    double out[3][2] = {};
    double* dtab[3] = {out[0], out[1], out[2]};
    ASSERT_EQ(zelmMul_vca_64f_L(src, 8, vtab, 8, dtab, 0, 8, 2, 3), zelStsOk);
    const double want[3] = {7, 5, -1};
    for (int n = 0; n < 3; ++n) {
        EXPECT_EQ(out[n][0], 1.0 * want[n]);
        EXPECT_EQ(out[n][1], 2.0 * want[n]);
    }
}

TEST(ElementwiseExamples, InfiniteConstantTimesZeroIsNaN) {
    const float src[3] = {0.0f, 1.0f, -2.0f};
    float dst[3];
    ASSERT_EQ(zelmMul_vc_32f(src, 4, INFINITY, dst, 4, 3), zelStsOk);
    EXPECT_TRUE(std::isnan(dst[0]));
    EXPECT_EQ(dst[1], INFINITY);
    EXPECT_EQ(dst[2], -INFINITY);
}

}  // namespace
