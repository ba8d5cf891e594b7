// Add, Sub and multiplication by a constant against a reference loop, bit
// for bit, the memory around the results included.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <limits>
#include <string>
#include <vector>

#include "elementwise_harness.hpp"

namespace {

struct Size {
    int w, h = 1;  // h is ignored by vector signatures
};

bool is_vector_sig(const char* sig) { return std::string(sig).find_first_of("mt") == std::string::npos; }
bool is_array_sig(const char* sig) { return std::string(sig).find('a') != std::string::npos; }

const lay::Layout kLayouts[] = {
    {},  // contiguous, objects back to back
    // every stride larger than the element, tables scrambled and repeating
    {.k2 = 2, .dst_k2 = 3, .pad1 = 1, .pad0 = 3, .lead = 1, .shift = 2, .repeat = true, .soa = false, .label = "strided"},
    // contiguous sources, a destination with gaps; pointer form with stride0 of 3
    {.dst_k2 = 2, .lead = 3, .shift = 1, .k0 = 3, .label = "mixed"},
    // tables in memory order, the destination one element off the sources' alignment
    {.dst_lead = 1, .shift = 1, .soa = false, .scramble = false, .label = "regular"},
};

// Matrices of every order to 7 and rectangles; vectors up to and past the
// runs of eight registers, with remainders.
std::vector<Size> sizes_of(const reg::ExportRow& r) {
    if (is_vector_sig(r.sig)) return {{1}, {2}, {3}, {4}, {5}, {6}, {7}, {9}, {17}, {33}, {100}, {1001}};
    return {{1, 1}, {2, 2}, {3, 3}, {4, 4}, {5, 5}, {6, 6}, {7, 7}, {3, 2}, {2, 3}, {4, 5}, {6, 1}, {1, 5}, {6, 4}};
}

// Every export (with a source the destination can be, if `in_place`) in every
// layout, at the sizes `sizes(row)` gives, `counts` objects for the arrays.
template <class Sizes>
void sweep(bool in_place, const std::vector<int>& counts, Sizes&& sizes) {
    const auto rows = ewt::elementwise_exports();
    ASSERT_EQ(rows.size(), 288u);
    for (const auto* row : rows) {
        if (in_place && ewt::in_place_source(ewt::letters_of(row->sig)) < 0) continue;
        unsigned seed = 1;
        for (lay::Layout L : kLayouts) {
            // equal strides; a destination table naming an object twice is no in-place call
            if (in_place) L.in_place = true, L.repeat = false, L.dst_k2 = L.k2;
            for (Size s : sizes(*row))
                for (int count : is_array_sig(row->sig) ? counts : std::vector<int>{1}) {
                    bool ok = true;
                    ewt::with_type(*row, [&](auto t) {
                        ewt::Case<decltype(t)> c(*row, s.w, s.h, count, L, seed++);
                        ok = c.run_and_check(std::string(in_place ? "in place " : "") + L.label + " " + std::to_string(s.w) +
                                             "x" + std::to_string(s.h) + " count " + std::to_string(count));
                    });
                    if (!ok) return;  // one report per run is enough
                }
        }
    }
}

TEST(ElementwiseExports, MatchReferenceInEveryFormSizeCountAndLayout) { sweep(false, {1, 2, 5}, sizes_of); }

TEST(ElementwiseExports, InPlaceOnASourceReadAsStored) { sweep(true, {1, 5}, sizes_of); }

// The order-6 and order-7 neighbours of the fast paths with a single operand
// shared by many objects, for the signatures that have one.
TEST(ElementwiseExports, SingleOperandSharedByManyObjects) {
    sweep(false, {37}, [](const reg::ExportRow& r) {
        bool single = false;
        for (auto l : ewt::letters_of(r.sig)) single |= !l.array;
        std::vector<Size> v;
        for (int n = 3; n <= 7 && single && is_array_sig(r.sig); ++n) v.push_back({n, is_vector_sig(r.sig) ? 1 : n});
        return v;
    });
}

// Source rows that overlap (stride1 below the row) read as they lie.
TEST(ElementwiseExamples, OverlappingRowsReadAHankelPattern) {
    float src[8] = {1, 2, 3, 4, 5, 6, 7, 8}, dst[9];
    ASSERT_EQ(zelmMul_mc_32f(src, 4, 4, 1.0f, dst, 12, 4, 3, 3), zelStsOk);
    for (int i = 0; i < 9; ++i) EXPECT_EQ(dst[i], src[i / 3 + i % 3]);
}

// Non-finite values and -0.0 on every path of the contiguous vector kernels,
// the long runs included, against the operation in plain C++ (NaN as NaN,
// zeros with their sign): inf * 0, max + max, 1 * -0, -0 + -0, -2 * inf.
template <class T>
void non_finite() {
    const T inf = INFINITY, big = std::numeric_limits<T>::max(), nz = T(-0.0);
    const std::string ty = sizeof(T) == 4 ? "_32f" : "_64f";
    const struct {
        const char* name;  // vv: x + x
        T x, c;
    } ops[] = {{"Mul_vc", 0, inf}, {"Add_vv", big, big}, {"Mul_vc", 1, nz}, {"Add_vc", nz, nz}, {"Mul_vc", -2, inf}};
    for (const auto& op : ops)
        for (int len : {1, 3, 4, 9, 16, 17, 40, 65, 301}) {
            std::vector<T> x(len, op.x), d(len, T(5));
            reg::Args a;
            a.ptrs = {{"pSrc", x.data()}, {"pSrc1", x.data()}, {"pSrc2", x.data()}, {"pDst", d.data()}};
            const int e = int(sizeof(T));
            a.nums = {{"srcStride2", e}, {"src1Stride2", e}, {"src2Stride2", e}, {"dstStride2", e}, {"len", len}};
            a.reals["val"] = double(op.c);
            ASSERT_EQ(reg::caller_of("zelm" + std::string(op.name) + ty)(a), zelStsOk);
            const T want = op.name[0] == 'M' ? op.x * op.c : op.x + op.c;
            for (T v : d)
                ASSERT_TRUE(std::isnan(want) ? std::isnan(v) : std::memcmp(&v, &want, sizeof(T)) == 0)
                    << op.name << ty << " " << op.x << " " << op.c << " len " << len << ": " << v;
        }
}
TEST(ElementwiseExamples, NonFiniteValuesAndNegativeZeroConstants) {
    non_finite<float>();
    non_finite<double>();
}

}  // namespace
