// Data movement: Copy, LoadIdentity, Extract and Transpose against reference
// loops written here, over every export of the four families, in every form,
// with sizes 1..7, counts 1, 2, 5, and several memory layouts. Source elements
// are random bit patterns with signalling NaNs among them, and the whole of
// every destination arena is compared byte for byte, so that a changed bit, a
// misplaced element or a stray write all show.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "registry_table.hpp"
#include "substitutes.hpp"
#include "zelm.h"

namespace {

using Bytes = std::vector<unsigned char>;

// A signalling NaN with a random payload and sign.
void put_snan(unsigned char* p, int esz, std::mt19937& rng) {
    if (esz == 4) {
        const std::uint32_t v = 0x7f800000u | ((rng() & 0x1fffffu) | 1u) | (rng() & 0x80000000u);
        std::memcpy(p, &v, 4);
    } else {
        const std::uint64_t v = 0x7ff0000000000000ull | ((std::uint64_t(rng()) << 20 | 1u) & 0x7ffffffffffffull) |
                                (std::uint64_t(rng() & 1u) << 63);
        std::memcpy(p, &v, 8);
    }
}

void fill_random(Bytes& b, std::mt19937& rng) {
    for (auto& x : b) x = static_cast<unsigned char>(rng());
}

// One operand in memory: `N` objects of R rows and C columns (as stored) in
// form 'S', 'L' or 'P', laid out in style
//   0 packed: unit steps, objects back to back (pointer form: one run per element position)
//   1 padded rows and gaps between objects, unit step
//   2 element step 3, padded rows
//   3 column-major: stride1 is the element size, stride2 a whole column
// List objects and pointer-form runs lie in reverse order of their tables,
// with a shift in front, except in style 0.
class Operand {
public:
    Operand(char form, int R, int C, int N, int esz, int style, std::mt19937& rng)
        : form_(form), C_(C) {
        const int pad = 3 * esz;
        switch (style) {
            case 0: s2 = esz; s1 = C * esz; s0 = R * C * esz; break;
            case 1: s2 = esz; s1 = (C + 2) * esz; s0 = R * s1 + esz; break;
            case 2: s2 = 3 * esz; s1 = C * s2 + esz; s0 = R * s1 + 2 * esz; break;
            default: s1 = esz; s2 = R * esz; s0 = R * C * esz + esz; break;
        }
        const bool reversed = style != 0;
        if (form == 'P') s0 = style == 0 ? esz : 3 * esz;
        if (form != 'S') shift = style == 0 ? 0 : 2 * esz;
        const std::size_t obj = std::size_t(R - 1) * s1 + std::size_t(C - 1) * s2 + esz;
        if (form == 'S') {
            mem.resize(pad + std::size_t(N - 1) * s0 + obj + pad);
            origin_ = pad;
        } else if (form == 'L') {
            const std::size_t slot = shift + obj + (reversed ? esz : 0);
            mem.resize(pad + N * slot + pad);
            for (int n = 0; n < N; ++n) table.push_back(mem.data() + pad + (reversed ? N - 1 - n : n) * slot);
        } else {
            const std::size_t run = std::size_t(N - 1) * s0 + esz;
            const std::size_t slot = shift + run + (reversed ? esz : 0);
            const int K = R * C;
            mem.resize(pad + K * slot + pad);
            for (int k = 0; k < K; ++k) table.push_back(mem.data() + pad + (reversed ? K - 1 - k : k) * slot);
        }
        fill_random(mem, rng);
        // a signalling NaN in every third element
        for (int n = 0; n < N; ++n)
            for (int r = 0; r < R; ++r)
                for (int c = 0; c < C; ++c)
                    if ((n + r + c) % 3 == 0) put_snan(addr(n, r, c), esz, rng);
    }
    Operand(const Operand&) = delete;
    Operand& operator=(const Operand&) = delete;

    // Stored element (r, c) of object n.
    unsigned char* addr(int n, int r, int c) {
        if (form_ == 'S')
            return mem.data() + origin_ + std::ptrdiff_t(n) * s0 + std::ptrdiff_t(r) * s1 + std::ptrdiff_t(c) * s2;
        if (form_ == 'L')
            return static_cast<unsigned char*>(table[n]) + shift + std::ptrdiff_t(r) * s1 + std::ptrdiff_t(c) * s2;
        return static_cast<unsigned char*>(table[std::size_t(r) * C_ + c]) + shift + std::ptrdiff_t(n) * s0;
    }
    std::size_t offset(int n, int r, int c) { return std::size_t(addr(n, r, c) - mem.data()); }
    // The base pointer of the standard form.
    unsigned char* base() { return mem.data() + origin_; }

    // The operand's arguments, under the names of role "Src" or "Dst".
    void bind(reg::Args& a, const std::string& role) {
        std::string low = role;
        low[0] = char(std::tolower(low[0]));
        if (form_ == 'S') a.ptrs["p" + role] = mem.data() + origin_;
        else a.ptrs["pp" + role] = table.data();
        a.nums[low + "Shift"] = shift;
        a.nums[low + "Stride0"] = s0;
        a.nums[low + "Stride1"] = s1;
        a.nums[low + "Stride2"] = s2;
    }

    Bytes mem;
    std::vector<void*> table;
    int shift = 0, s0 = 0, s1 = 0, s2 = 0;

private:
    char form_;
    int C_;
    std::size_t origin_ = 0;
};

std::string first_difference(const Bytes& got, const Bytes& want, int esz) {
    for (std::size_t i = 0; i < got.size(); ++i)
        if (got[i] != want[i]) return "first difference at byte " + std::to_string(i) + " (element " +
                                      std::to_string(i / esz) + " of the arena)";
    return "";
}

bool is_movement(const reg::ExportRow& r) {
    const std::string op = r.op;
    // fixed-size exports (zelmTranspose_m4_32f) have no grammar signature
    return r.implemented && (op == "Copy" || op == "LoadIdentity" || op == "Extract" || op == "Transpose") &&
           *r.sig != '\0';
}

std::vector<const reg::ExportRow*> movement_exports() {
    std::vector<const reg::ExportRow*> out;
    for (const auto& r : reg::exports())
        if (is_movement(r)) out.push_back(&r);
    return out;
}

// One call of export `row` with sizes W x H (len W for vectors), N objects and
// layout `style`; returns "" when every byte is as the reference loop says.
std::string run_case(const reg::ExportRow& row, int W, int H, int N, int style, std::mt19937& rng) {
    const std::string op = row.op, sig = row.sig, form = row.form;
    const int esz = std::string(row.type) == "64f" ? 8 : 4;
    const bool array = sig.back() == 'a';
    const bool matrix = sig[0] != 'v';
    const bool trans = sig[0] == 't';
    if (!matrix) H = 1;
    if (!array) N = 1;

    reg::Args a;
    if (matrix) {
        a.nums["width"] = W;
        a.nums["height"] = H;
    } else {
        a.nums["len"] = W;
    }
    a.nums["count"] = N;
    const auto call = reg::caller_of(row.name);
    if (!call) return "no caller";

    const char sform = form[0];
    const char dform = op == "Copy" ? form[1] : form[0];
    std::string err;
    auto check = [&](zelStatus st, const Bytes& got, const Bytes& want) {
        if (st != zelStsOk) return "status " + std::to_string(st);
        return first_difference(got, want, esz);
    };

    if (op == "Copy") {
        Operand s(sform, H, W, N, esz, style, rng), d(dform, H, W, N, esz, (style + 1) % 4, rng);
        s.bind(a, "Src");
        d.bind(a, "Dst");
        const Bytes src_before = s.mem;
        Bytes want = d.mem;
        for (int n = 0; n < N; ++n)
            for (int i = 0; i < H; ++i)
                for (int j = 0; j < W; ++j) std::memcpy(&want[d.offset(n, i, j)], s.addr(n, i, j), esz);
        err = check(call(a), d.mem, want);
        if (err.empty() && s.mem != src_before) err = "source changed";
    } else if (op == "LoadIdentity") {
        Operand d(dform, H, W, N, esz, style, rng);
        d.bind(a, "Dst");
        Bytes want = d.mem;
        const double one = 1.0, zero = 0.0;
        const float onef = 1.0f, zerof = 0.0f;
        for (int n = 0; n < N; ++n)
            for (int i = 0; i < H; ++i) {
                for (int j = 0; j < W; ++j)
                    std::memcpy(&want[d.offset(n, i, j)], esz == 4 ? (const void*)&zerof : (const void*)&zero, esz);
                if (i < W) std::memcpy(&want[d.offset(n, i, i)], esz == 4 ? (const void*)&onef : (const void*)&one, esz);
            }
        err = check(call(a), d.mem, want);
    } else if (op == "Extract") {
        // a t source is stored with W rows of H
        Operand s(sform, trans ? W : H, trans ? H : W, N, esz, style, rng);
        s.bind(a, "Src");
        Bytes out(std::size_t(N * W * H + 3) * esz);
        fill_random(out, rng);
        a.ptrs["pDst"] = out.data();
        Bytes want = out;
        for (int n = 0; n < N; ++n)
            for (int i = 0; i < H; ++i)
                for (int j = 0; j < W; ++j)
                    std::memcpy(&want[std::size_t((n * H + i) * W + j) * esz], trans ? s.addr(n, j, i) : s.addr(n, i, j),
                                esz);
        err = check(call(a), out, want);
    } else {
        // the source has H rows of W, the destination W rows of H
        Operand s(sform, H, W, N, esz, style, rng), d(dform, W, H, N, esz, (style + 1) % 4, rng);
        s.bind(a, "Src");
        d.bind(a, "Dst");
        Bytes want = d.mem;
        for (int n = 0; n < N; ++n)
            for (int i = 0; i < H; ++i)
                for (int j = 0; j < W; ++j) std::memcpy(&want[d.offset(n, j, i)], s.addr(n, i, j), esz);
        err = check(call(a), d.mem, want);
    }
    return err;
}

TEST(Movement, EveryExportMatchesItsReferenceLoopBitForBit) {
    const auto rows = movement_exports();
    ASSERT_EQ(rows.size(), 82u);
    std::mt19937 rng(12345);
    int failures = 0, cases = 0;
    for (const auto* row : rows) {
        const bool array = std::string(row->sig).back() == 'a';
        const bool matrix = row->sig[0] != 'v';
        for (int W = 1; W <= 7; ++W)
            for (int H = 1; H <= (matrix ? 7 : 1); ++H)
                for (int N : array ? std::vector<int>{1, 2, 5, 9} : std::vector<int>{1})
                    for (int style = 0; style < 4; ++style) {
                        const std::string err = run_case(*row, W, H, N, style, rng);
                        ++cases;
                        if (!err.empty() && ++failures <= 20)
                            ADD_FAILURE() << row->name << " width/len " << W << " height " << H << " count " << N
                                          << " style " << style << ": " << err;
                    }
    }
    EXPECT_EQ(failures, 0);
    EXPECT_GT(cases, 10000);
}

// ---------------------------------------------------------------------------
// Copy: the forward element order when source and destination overlap.

struct OverlapCase {
    int esz, W, H, N, s2src, s2dst;
    std::ptrdiff_t dst_offset;  // bytes from the source's start
};

TEST(Copy, OverlappingOperandsGetTheForwardOrder) {
    std::mt19937 rng(7);
    int checked = 0;
    for (int esz : {4, 8})
        for (int W : {3, 8, 40})
            for (int H : {1, 3})
                for (int N : {1, 2})
                    for (int step : {1, 2})
                        for (std::ptrdiff_t off : {-20, -8, -2, 0, 2, 4, 8, 12, 64}) {
                            const int s2s = esz, s2d = step * esz;
                            const int s1s = W * s2s, s1d = W * s2d;
                            const int s0s = H * s1s, s0d = H * s1d;
                            const std::ptrdiff_t base = 256;
                            Bytes buf(std::size_t(base) * 2 + std::size_t(N) * (s0s + s0d) + 512);
                            fill_random(buf, rng);
                            Bytes want = buf;
                            for (int n = 0; n < N; ++n)
                                for (int i = 0; i < H; ++i)
                                    for (int j = 0; j < W; ++j)
                                        std::memmove(&want[base + off + n * s0d + i * s1d + j * s2d],
                                                     &want[base + n * s0s + i * s1s + j * s2s], esz);
                            unsigned char* src = buf.data() + base;
                            unsigned char* dst = src + off;
                            zelStatus st;
                            if (esz == 4)
                                st = H == 1 ? zelmCopy_va_32f_SS((const float*)src, s0s, s2s, (float*)dst, s0d, s2d, W, N)
                                            : zelmCopy_ma_32f_SS((const float*)src, s0s, s1s, s2s, (float*)dst, s0d, s1d,
                                                                 s2d, W, H, N);
                            else
                                st = H == 1 ? zelmCopy_va_64f_SS((const double*)src, s0s, s2s, (double*)dst, s0d, s2d, W, N)
                                            : zelmCopy_ma_64f_SS((const double*)src, s0s, s1s, s2s, (double*)dst, s0d,
                                                                 s1d, s2d, W, H, N);
                            ASSERT_EQ(st, zelStsOk);
                            ASSERT_EQ(first_difference(buf, want, esz), "")
                                << "esz " << esz << " W " << W << " H " << H << " N " << N << " dst step " << step
                                << " offset " << off;
                            ++checked;
                        }
    EXPECT_GT(checked, 0);
}

// A pointer-form source read again after the destination has overwritten it:
// the element positions cross, so only the object-by-object order gives this.
TEST(Copy, OverlappingPointerFormKeepsTheObjectOrder) {
    for (int count : {3, 9, 40}) {
        std::vector<float> buf(2 * count + 2), want;
        for (std::size_t i = 0; i < buf.size(); ++i) buf[i] = float(i);
        want = buf;
        for (int n = 0; n < count; ++n) {
            want[2 * n + 2] = want[2 * n + 1];
            want[2 * n + 3] = want[2 * n];
        }
        const float* tab[2] = {buf.data() + 1, buf.data()};
        ASSERT_EQ(zelmCopy_va_32f_PS(tab, 0, 8, buf.data() + 2, 8, 4, 2, count), zelStsOk);
        EXPECT_EQ(buf, want) << count;
    }
}

TEST(Copy, DestinationOneElementAboveTheSourceSpreadsTheFirstElement) {
    float x[9] = {1, 2, 3, 4, 5, 6, 7, 8, 9};
    ASSERT_EQ(zelmCopy_ma_32f_SS(x, 32, 32, 4, x + 1, 32, 32, 4, 8, 1, 1), zelStsOk);
    for (float v : x) EXPECT_EQ(v, 1.0f);
}

// stride0 is looked at only when there is a second object to reach (the
// failing cases are the registry-driven check sweep's).
TEST(Copy, Stride0IsTestedOnlyForMoreThanOneObject) {
    float s[8] = {1, 2, 3, 4, 5, 6, 7, 8}, d[8];
    for (int bad : {6, 0, -4}) {
        std::fill(d, d + 8, -1.0f);
        EXPECT_EQ(zelmCopy_ma_32f_SS(s, bad, 8, 4, d, bad, 8, 4, 2, 2, 1), zelStsOk) << bad;
        EXPECT_EQ(std::memcmp(s, d, sizeof s / 2), 0);
    }
}

// ---------------------------------------------------------------------------
// LoadIdentity where elements share memory: the row is cleared before its one
// is set, so a repeated object or address ends as that order leaves it.
TEST(LoadIdentity, RepeatedObjectsAndAddressesEndAsTheRowOrderLeavesThem) {
    float m[9];
    std::fill(m, m + 9, 7.0f);
    float* objs[2] = {m, m};
    ASSERT_EQ(zelmLoadIdentity_ma_32f_L(objs, 0, 12, 4, 3, 3, 2), zelStsOk);
    const float eye[9] = {1, 0, 0, 0, 1, 0, 0, 0, 1};
    EXPECT_EQ(std::memcmp(m, eye, sizeof m), 0);

    // pointer form, 1 row of 2: both positions at one address; (0, 1) is
    // cleared after (0, 0) and before the one is set.
    double v[1] = {5.0};
    double* tab[2] = {v, v};
    ASSERT_EQ(zelmLoadIdentity_ma_64f_P(tab, 0, 8, 2, 1, 1), zelStsOk);
    EXPECT_EQ(v[0], 1.0);
}

// ---------------------------------------------------------------------------
// Transpose: the banded paths, the cache questions and their answers.

struct TransposeRun {
    zelStatus status;
    Bytes dst;
    int queries;
};

// Transposes N random objects of H rows by W (destination W rows of H) with
// unit steps and padded rows, in form 'S' (single if !array) or 'L', with the
// cache size forced to `cache`.
TransposeRun transpose_32f(int W, int H, int N, bool array, char form, int cache, std::uint32_t seed) {
    std::mt19937 rng(seed);
    Operand s(form, H, W, N, 4, 1, rng), d(form, W, H, N, 4, 1, rng);
    Bytes want = d.mem;
    for (int n = 0; n < N; ++n)
        for (int i = 0; i < H; ++i)
            for (int j = 0; j < W; ++j) std::memcpy(&want[d.offset(n, j, i)], s.addr(n, i, j), 4);
    TransposeRun r{};
    {
        subst::Scope scope(0, cache);
        if (!array)
            r.status = zelmTranspose_m_32f((const float*)s.base(), s.s1, s.s2, W, H, (float*)d.base(),
                                           d.s1, d.s2);
        else if (form == 'S')
            r.status = zelmTranspose_ma_32f((const float*)s.base(), s.s0, s.s1, s.s2, W, H,
                                            (float*)d.base(), d.s0, d.s1, d.s2, N);
        else
            r.status = zelmTranspose_ma_32f_L((const float* const*)s.table.data(), s.shift, s.s1, s.s2, W, H,
                                              (float* const*)d.table.data(), d.shift, d.s1, d.s2, N);
        r.queries = subst::cache_queries;
    }
    EXPECT_EQ(first_difference(d.mem, want, 4), "") << W << "x" << H << " count " << N << " cache " << cache;
    r.dst = std::move(d.mem);
    return r;
}

TEST(Transpose, BandedPathsGiveTheReferenceWhateverTheCacheSays) {
    struct Case {
        int W, H, N;
        bool array;
        char form;
    };
    const Case cases[] = {
        {8, 8, 1, false, 'S'},    {16, 70, 1, false, 'S'},  {70, 16, 1, false, 'S'},  {131, 129, 1, false, 'S'},
        {256, 140, 1, false, 'S'}, {129, 200, 1, false, 'S'}, {10, 10, 400, true, 'S'}, {33, 7, 200, true, 'L'},
        {160, 130, 2, true, 'S'}, {131, 129, 2, true, 'L'},  {2, 2, 5000, true, 'S'},
    };
    // unknown, small enough that every large matrix streams, large
    const int caches[] = {0, 4096, 1 << 30};
    for (const auto& c : cases) {
        Bytes first;
        for (int cache : caches) {
            const auto r = transpose_32f(c.W, c.H, c.N, c.array, c.form, cache, 99);
            ASSERT_EQ(r.status, zelStsOk);
            if (first.empty()) first = r.dst;
            EXPECT_TRUE(r.dst == first) << c.W << "x" << c.H << " cache " << cache;
        }
    }
}

TEST(Transpose, AsksForTheCacheSizeExactlyWhenItMatters) {
    struct Case {
        int W, H, N;
        bool array;
        char form;
        int cache;
        int queries;
    };
    const Case cases[] = {
        // single matrices: when the smaller side exceeds 128
        {129, 4096, 1, false, 'S', 0, 1},
        {4096, 129, 1, false, 'S', 1 << 30, 1},
        {128, 4096, 1, false, 'S', 0, 0},
        {4096, 128, 1, false, 'S', 0, 0},
        // arrays: once when the traffic 8*W*H*count exceeds 131072 ...
        {7, 7, 1000, true, 'S', 1 << 30, 1},
        {7, 7, 1000, true, 'L', 0, 1},
        {8, 8, 256, true, 'S', 0, 0},  // exactly 131072
        {8, 8, 257, true, 'S', 0, 1},
        // ... never for the square orders 3 to 6
        {5, 5, 1000, true, 'S', 0, 0},
        {6, 6, 4000, true, 'L', 0, 0},
        // and again per object without the stream decision if a side exceeds 128
        {200, 200, 2, true, 'S', 1 << 30, 3},
        {200, 200, 2, true, 'S', 0, 3},
        {200, 200, 2, true, 'S', 4096, 1},
    };
    for (const auto& c : cases) {
        const auto r = transpose_32f(c.W, c.H, c.N, c.array, c.form, c.cache, 5);
        EXPECT_EQ(r.status, zelStsOk);
        EXPECT_EQ(r.queries, c.queries) << c.W << "x" << c.H << " count " << c.N << " form " << c.form << " cache "
                                        << c.cache;
    }
}

TEST(Transpose, PathsWithoutTheCacheDecisionNeverAsk) {
    std::vector<float> s(7 * 7 * 1000 * 2), d(s.size());
    std::vector<double> sd(s.size()), dd(s.size());
    std::vector<const float*> st(49);
    std::vector<float*> dt(49);
    for (int k = 0; k < 49; ++k) {
        st[k] = s.data() + k * 1000;
        dt[k] = d.data() + k * 1000;
    }
    subst::Scope scope(0, 0);
    // element step 8: the strided kernel
    EXPECT_EQ(zelmTranspose_ma_32f(s.data(), 392, 56, 8, 7, 7, d.data(), 392, 56, 8, 1000), zelStsOk);
    // pointer form
    EXPECT_EQ(zelmTranspose_ma_32f_P(st.data(), 0, 4, 7, 7, dt.data(), 0, 4, 1000), zelStsOk);
    // 64f
    EXPECT_EQ(zelmTranspose_ma_64f(sd.data(), 392, 56, 8, 7, 7, dd.data(), 392, 56, 8, 1000), zelStsOk);
    std::vector<double> big(300 * 300), bigt(big.size());
    EXPECT_EQ(zelmTranspose_m_64f(big.data(), 2400, 8, 300, 300, bigt.data(), 2400, 8), zelStsOk);
    EXPECT_EQ(subst::cache_queries, 0);
}

}  // namespace
