// Add, Sub and multiplication by a constant on matrices, vectors and arrays of
// them: every export, every storage form, against a reference loop, bit for
// bit, with the memory around the results checked as well; in place; vectors
// long enough for the unrolled runs; overlapping rows; non-finite values.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <limits>
#include <string>
#include <vector>

#include "elementwise_harness.hpp"

namespace {

using ewt::Layout;

struct Size {
    int w, h;  // h is ignored by vector signatures
};

const std::vector<Size> kMatrixSizes = {{1, 1}, {2, 2}, {3, 3}, {4, 4}, {5, 5}, {6, 6}, {7, 7},
                                        {3, 2}, {2, 3}, {4, 5}, {6, 1}, {1, 5}, {6, 4}};
// up to and past the runs of eight registers, with remainders
const std::vector<Size> kVectorSizes = {{1, 1}, {2, 1}, {3, 1},  {4, 1},   {5, 1},   {6, 1},
                                        {7, 1}, {9, 1}, {17, 1}, {33, 1}, {100, 1}, {1001, 1}};

std::vector<Layout> layouts() {
    std::vector<Layout> v(4);  // [0]: contiguous, objects back to back
    // every stride larger than the element, tables scrambled and repeating
    v[1].k2 = 2, v[1].dst_k2 = 3, v[1].pad1 = 1, v[1].pad0 = 3, v[1].lead = 1, v[1].shift = 2;
    v[1].repeat = true, v[1].soa = false, v[1].label = "strided";
    // contiguous sources, a destination with gaps; pointer form with stride0 of 3
    v[2].dst_k2 = 2, v[2].lead = 3, v[2].shift = 1, v[2].k0 = 3, v[2].label = "mixed";
    // tables in memory order (each object's elements one behind the other);
    // the destination one element off the sources' alignment
    v[3].scramble = false, v[3].soa = false, v[3].shift = 1, v[3].dst_lead = 1, v[3].label = "regular";
    return v;
}

bool is_vector_sig(const char* sig) { return std::string(sig).find_first_of("mt") == std::string::npos; }
bool is_array_sig(const char* sig) { return std::string(sig).find('a') != std::string::npos; }

// Every export (with a source the destination can be, if `in_place`) in every
// layout, at the sizes `sizes(row)` gives, `counts` objects for the arrays.
template <class Sizes>
void sweep(bool in_place, const std::vector<int>& counts, Sizes&& sizes) {
    const auto rows = ewt::elementwise_exports();
    ASSERT_EQ(rows.size(), 288u);
    for (const auto* row : rows) {
        if (in_place && ewt::in_place_source(ewt::letters_of(row->sig)) < 0) continue;
        unsigned seed = 1;
        for (Layout L : layouts()) {
            // equal strides; a destination table naming an object twice is no in-place call
            if (in_place) L.in_place = true, L.repeat = false, L.dst_k2 = L.k2;
            for (Size s : sizes(*row))
                for (int count : is_array_sig(row->sig) ? counts : std::vector<int>{1}) {
                    bool ok = true;
                    ewt::with_type(*row, [&](auto t) {
                        ewt::Case<decltype(t)> c(*row, s.w, s.h, count, L, seed++);
                        ok = c.run_and_check(std::string(in_place ? "in place " : "") + L.label + " " +
                                             std::to_string(s.w) + "x" + std::to_string(s.h) + " count " +
                                             std::to_string(count));
                    });
                    if (!ok) return;  // one report per run is enough
                }
        }
    }
}

const std::vector<Size>& sizes_of(const reg::ExportRow& r) {
    return is_vector_sig(r.sig) ? kVectorSizes : kMatrixSizes;
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
        if (single && is_array_sig(r.sig))
            for (int n = 3; n <= 7; ++n) v.push_back({n, is_vector_sig(r.sig) ? 1 : n});
        return v;
    });
}

// Source rows that overlap (stride1 below the row) read as they lie.
TEST(ElementwiseExamples, OverlappingRowsReadAHankelPattern) {
    float src[8] = {1, 2, 3, 4, 5, 6, 7, 8};
    float dst[9];
    ASSERT_EQ(zelmMul_mc_32f(src, 4, 4, 1.0f, dst, 12, 4, 3, 3), zelStsOk);
    for (int i = 0; i < 3; ++i)
        for (int j = 0; j < 3; ++j) EXPECT_EQ(dst[i * 3 + j], src[i + j]);
}

// Non-finite values and -0.0 on every path of the contiguous vector kernels,
// the long runs included, against the operation in plain C++ (NaN as NaN,
// zeros with their sign): inf * 0, max + max, 1 * -0, -0 + -0, -2 * inf.
template <class T>
void non_finite() {
    const T inf = INFINITY, big = std::numeric_limits<T>::max(), nz = T(-0.0);
    const std::string ty = sizeof(T) == 4 ? "_32f" : "_64f";
    struct Op {
        const char* name;  // vv: x + x
        T x, c;
    };
    for (const Op& op : {Op{"Mul_vc", 0, inf}, Op{"Add_vv", big, big}, Op{"Mul_vc", 1, nz}, Op{"Add_vc", nz, nz},
                         Op{"Mul_vc", -2, inf}})
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
