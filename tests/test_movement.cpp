// Data movement: Copy, LoadIdentity, Extract and Transpose against reference
// loops written here, over every export of the four families, in every form,
// with sizes 1..7, counts 1, 2, 5, 9, and several memory layouts. Source
// elements are random bit patterns with signalling NaNs among them, and the
// whole of every destination arena is compared byte for byte, so that a
// changed bit, a misplaced element or a stray write all show.
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

void fill_random(Bytes& b, std::mt19937& rng) {
    for (auto& x : b) x = static_cast<unsigned char>(rng());
}

// `N` objects of R rows and C columns (as stored) in form 'S', 'L' or 'P', in
// layout `style`: 0 packed (unit steps, objects back to back, tables in
// order, no shift), 1 padded rows and gaps between objects, 2 element step 3,
// 3 column-major. Styles 1 to 3 put list objects and pointer-form runs in
// reverse order of their tables, behind a shift. Random bytes throughout, a
// signalling NaN with random payload and sign in every third element.
class Operand {
public:
    Operand(char form, int R, int C, int N, int esz, int style, std::mt19937& rng)
        : form_(form), C_(C), pad_(3 * esz) {
        const int e = esz;
        const int st[4][3] = {{e, C * e, R * C * e},
                              {e, (C + 2) * e, R * (C + 2) * e + e},
                              {3 * e, (3 * C + 1) * e, R * (3 * C + 1) * e + 2 * e},
                              {R * e, e, R * C * e + e}};  // s2, s1, s0
        s2 = st[style][0], s1 = st[style][1], s0 = st[style][2];
        if (form == 'P') s0 = style == 0 ? e : 3 * e;
        if (form != 'S') shift = style == 0 ? 0 : 2 * e;
        const bool rev = style != 0;
        const std::size_t pad = pad_, obj = std::size_t(R - 1) * s1 + std::size_t(C - 1) * s2 + e;
        const int slots = form == 'S' ? 1 : form == 'L' ? N : R * C;
        const std::size_t slot = form == 'S' ? std::size_t(N - 1) * s0 + obj
                                             : shift + (form == 'L' ? obj : std::size_t(N - 1) * s0 + e) + (rev ? e : 0);
        mem.resize(2 * pad + slots * slot);
        if (form != 'S')
            for (int k = 0; k < slots; ++k) table.push_back(mem.data() + pad + (rev ? slots - 1 - k : k) * slot);
        fill_random(mem, rng);
        for (int n = 0; n < N; ++n)
            for (int r = 0; r < R; ++r)
                for (int c = 0; c < C; ++c) {
                    if ((n + r + c) % 3) continue;
                    const std::uint64_t sign = rng() & 1u, pay = (std::uint64_t(rng()) << 20) | 1u;
                    const std::uint32_t v32 = 0x7f800000u | (pay & 0x1fffffu) | std::uint32_t(sign << 31);
                    const std::uint64_t v64 = 0x7ff0000000000000ull | (pay & 0x7ffffffffffffull) | sign << 63;
                    std::memcpy(addr(n, r, c), e == 4 ? (const void*)&v32 : (const void*)&v64, e);
                }
    }
    Operand(const Operand&) = delete;

    // Stored element (r, c) of object n.
    unsigned char* addr(int n, int r, int c) {
        if (form_ == 'S') return base() + std::ptrdiff_t(n) * s0 + std::ptrdiff_t(r) * s1 + std::ptrdiff_t(c) * s2;
        if (form_ == 'L') return (unsigned char*)table[n] + shift + std::ptrdiff_t(r) * s1 + std::ptrdiff_t(c) * s2;
        return (unsigned char*)table[std::size_t(r) * C_ + c] + shift + std::ptrdiff_t(n) * s0;
    }
    std::size_t offset(int n, int r, int c) { return std::size_t(addr(n, r, c) - mem.data()); }
    unsigned char* base() { return mem.data() + pad_; }

    // The operand's arguments, under the names of role "Src" or "Dst".
    void bind(reg::Args& a, const std::string& role) {
        std::string low = role;
        low[0] = char(std::tolower(low[0]));
        if (form_ == 'S') a.ptrs["p" + role] = base();
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
    std::size_t pad_;
};

std::string first_difference(const Bytes& got, const Bytes& want, int esz) {
    for (std::size_t i = 0; i < got.size(); ++i)
        if (got[i] != want[i])
            return "first difference at byte " + std::to_string(i) + " (element " + std::to_string(i / esz) + ")";
    return "";
}

// One call of export `row` with sizes W x H (len W for vectors), N objects and
// layout `style`; "" when every byte is as the reference loop says and the
// source is unchanged.
std::string run_case(const reg::ExportRow& row, int W, int H, int N, int style, std::mt19937& rng) {
    const std::string op = row.op, sig = row.sig, form = row.form;
    const int esz = std::string(row.type) == "64f" ? 8 : 4;
    const bool trans = op == "Transpose", extract = op == "Extract", ident = op == "LoadIdentity";
    const bool src_t = extract && sig[0] == 't';  // a t source is stored with W rows of H
    if (sig[0] == 'v') H = 1;
    if (sig.back() != 'a') N = 1;
    reg::Args a;
    a.nums["width"] = a.nums["len"] = W;
    a.nums["height"] = H;
    a.nums["count"] = N;

    // Extract's destination is one packed block
    const char dform = extract ? 'S' : op == "Copy" ? form[1] : form[0];
    Operand s(form[0], src_t ? W : H, src_t ? H : W, N, esz, style, rng);
    Operand d(dform, trans ? W : H, trans ? H : W, N, esz, extract ? 0 : (style + 1) % 4, rng);
    if (!ident) s.bind(a, "Src");
    d.bind(a, "Dst");
    const Bytes src_before = s.mem;
    Bytes want = d.mem;
    const double one64 = 1.0, zero64 = 0.0;
    const float one32 = 1.0f, zero32 = 0.0f;
    for (int n = 0; n < N; ++n)
        for (int i = 0; i < H; ++i)
            for (int j = 0; j < W; ++j) {
                const void* from = src_t ? s.addr(n, j, i) : s.addr(n, i, j);
                if (ident) from = esz == 4 ? (i == j ? (const void*)&one32 : &zero32) : (i == j ? &one64 : &zero64);
                std::memcpy(&want[d.offset(n, trans ? j : i, trans ? i : j)], from, esz);
            }
    const zelStatus st = reg::caller_of(row.name)(a);
    if (st != zelStsOk) return "status " + std::to_string(st);
    if (s.mem != src_before) return "source changed";
    return first_difference(d.mem, want, esz);
}

TEST(Movement, EveryExportMatchesItsReferenceLoopBitForBit) {
    std::mt19937 rng(12345);
    int failures = 0, exports = 0;
    for (const auto& row : reg::exports()) {
        const std::string op = row.op, sig = row.sig;
        // fixed-size exports (zelmTranspose_m4_32f) have no grammar signature
        if (!row.implemented || sig.empty() ||
            (op != "Copy" && op != "LoadIdentity" && op != "Extract" && op != "Transpose"))
            continue;
        ++exports;
        for (int W = 1; W <= 7; ++W)
            for (int H = 1; H <= (sig[0] == 'v' ? 1 : 7); ++H)
                for (int N : sig.back() == 'a' ? std::vector<int>{1, 2, 5, 9} : std::vector<int>{1})
                    for (int style = 0; style < 4; ++style) {
                        const std::string err = run_case(row, W, H, N, style, rng);
                        if (!err.empty() && ++failures <= 20)
                            ADD_FAILURE() << row.name << " width/len " << W << " height " << H << " count " << N
                                          << " style " << style << ": " << err;
                    }
    }
    EXPECT_EQ(exports, 82);
}

// ---------------------------------------------------------------------------
// Copy: source and destination overlapping at every offset give the forward
// element order (a destination one element above spreads the first element).
TEST(Copy, OverlappingOperandsGetTheForwardOrder) {
    std::mt19937 rng(7);
    for (int esz : {4, 8})
        for (int W : {3, 8, 40})
            for (int H : {1, 3})
                for (int N : {1, 2})
                    for (int step : {1, 2})
                        for (std::ptrdiff_t off : {-20, -8, -2, 0, 2, 4, 8, 12, 64}) {
                            const int s2s = esz, s1s = W * s2s, s0s = H * s1s;
                            const int s2d = step * esz, s1d = W * s2d, s0d = H * s1d;
                            const std::ptrdiff_t base = 256;
                            Bytes buf(std::size_t(base) * 2 + std::size_t(N) * (s0s + s0d) + 512);
                            fill_random(buf, rng);
                            Bytes want = buf;
                            for (int n = 0; n < N; ++n)
                                for (int i = 0; i < H; ++i)
                                    for (int j = 0; j < W; ++j)
                                        std::memmove(&want[base + off + n * s0d + i * s1d + j * s2d],
                                                     &want[base + n * s0s + i * s1s + j * s2s], esz);
                            unsigned char *src = buf.data() + base, *dst = src + off;
                            using F = const float*;
                            using D = const double*;
                            const zelStatus st =
                                esz == 4 ? (H == 1 ? zelmCopy_va_32f_SS(F(src), s0s, s2s, (float*)dst, s0d, s2d, W, N)
                                                   : zelmCopy_ma_32f_SS(F(src), s0s, s1s, s2s, (float*)dst, s0d, s1d,
                                                                        s2d, W, H, N))
                                         : (H == 1 ? zelmCopy_va_64f_SS(D(src), s0s, s2s, (double*)dst, s0d, s2d, W, N)
                                                   : zelmCopy_ma_64f_SS(D(src), s0s, s1s, s2s, (double*)dst, s0d, s1d,
                                                                        s2d, W, H, N));
                            ASSERT_EQ(st, zelStsOk);
                            ASSERT_EQ(first_difference(buf, want, esz), "") << "esz " << esz << " W " << W << " H "
                                                                            << H << " N " << N << " dst step "
                                                                            << step << " offset " << off;
                        }
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

// LoadIdentity where elements share memory: the row is cleared before its one
// is set, so a repeated object or address ends as that order leaves it.
TEST(LoadIdentity, RepeatedObjectsAndAddressesEndAsTheRowOrderLeavesThem) {
    float m[9];
    std::fill(m, m + 9, 7.0f);
    float* objs[2] = {m, m};
    ASSERT_EQ(zelmLoadIdentity_ma_32f_L(objs, 0, 12, 4, 3, 3, 2), zelStsOk);
    const float eye[9] = {1, 0, 0, 0, 1, 0, 0, 0, 1};
    EXPECT_EQ(std::memcmp(m, eye, sizeof m), 0);
    // pointer form, 1 row of 2 at one address: (0, 1) is cleared after (0, 0)
    // and before the one is set
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
// cache size forced to `cache`; checks the result against the reference.
TransposeRun transpose_32f(int W, int H, int N, bool array, char form, int cache) {
    std::mt19937 rng(99);
    Operand s(form, H, W, N, 4, 1, rng), d(form, W, H, N, 4, 1, rng);
    Bytes want = d.mem;
    for (int n = 0; n < N; ++n)
        for (int i = 0; i < H; ++i)
            for (int j = 0; j < W; ++j) std::memcpy(&want[d.offset(n, j, i)], s.addr(n, i, j), 4);
    TransposeRun r{};
    {
        subst::Scope scope(0, cache);
        auto sb = (const float*)s.base();
        auto db = (float*)d.base();
        if (!array) r.status = zelmTranspose_m_32f(sb, s.s1, s.s2, W, H, db, d.s1, d.s2);
        else if (form == 'S')
            r.status = zelmTranspose_ma_32f(sb, s.s0, s.s1, s.s2, W, H, db, d.s0, d.s1, d.s2, N);
        else
            r.status = zelmTranspose_ma_32f_L((const float* const*)s.table.data(), s.shift, s.s1, s.s2, W, H,
                                              (float* const*)d.table.data(), d.shift, d.s1, d.s2, N);
        r.queries = subst::cache_queries;
    }
    EXPECT_EQ(r.status, zelStsOk);
    EXPECT_EQ(first_difference(d.mem, want, 4), "") << W << "x" << H << " count " << N << " cache " << cache;
    r.dst = std::move(d.mem);
    return r;
}

// Every case under an unknown cache, one so small that every large matrix
// streams, and a large one; `queries` the cache questions (-1: any number).
TEST(Transpose, BandedPathsAndTheCacheQuestions) {
    struct Case {
        int W, H, N;
        bool array;
        char form;
        int cache, queries;
    };
    const int any = -1, big = 1 << 30;
    const Case cases[] = {
        {8, 8, 1, false, 'S', any, any}, {16, 70, 1, false, 'S', any, any}, {70, 16, 1, false, 'S', any, any},
        {131, 129, 1, false, 'S', any, any}, {256, 140, 1, false, 'S', any, any}, {129, 200, 1, false, 'S', any, any},
        {10, 10, 400, true, 'S', any, any}, {33, 7, 200, true, 'L', any, any}, {160, 130, 2, true, 'S', any, any},
        {131, 129, 2, true, 'L', any, any}, {2, 2, 5000, true, 'S', any, any},
        // single matrices ask when the smaller side exceeds 128
        {129, 4096, 1, false, 'S', 0, 1}, {4096, 129, 1, false, 'S', big, 1},
        {128, 4096, 1, false, 'S', 0, 0}, {4096, 128, 1, false, 'S', 0, 0},
        // arrays once when the traffic 8*W*H*count exceeds 131072 ...
        {7, 7, 1000, true, 'S', big, 1}, {7, 7, 1000, true, 'L', 0, 1},
        {8, 8, 256, true, 'S', 0, 0}, {8, 8, 257, true, 'S', 0, 1},
        // ... never for the square orders 3 to 6
        {5, 5, 1000, true, 'S', 0, 0}, {6, 6, 4000, true, 'L', 0, 0},
        // and again per object without the stream decision if a side exceeds 128
        {200, 200, 2, true, 'S', big, 3}, {200, 200, 2, true, 'S', 0, 3}, {200, 200, 2, true, 'S', 4096, 1},
    };
    for (const auto& c : cases) {
        Bytes first;
        for (int cache : c.cache == any ? std::vector<int>{0, 4096, big} : std::vector<int>{c.cache}) {
            const auto r = transpose_32f(c.W, c.H, c.N, c.array, c.form, cache);
            if (first.empty()) first = r.dst;
            EXPECT_TRUE(r.dst == first) << c.W << "x" << c.H << " cache " << cache;
            if (c.queries != any)
                EXPECT_EQ(r.queries, c.queries) << c.W << "x" << c.H << " count " << c.N << " form " << c.form
                                                << " cache " << cache;
        }
    }
}

// The strided kernel, the pointer form and 64f have no cache decision.
TEST(Transpose, PathsWithoutTheCacheDecisionNeverAsk) {
    std::vector<float> s(7 * 7 * 1000 * 2), d(s.size());
    std::vector<double> sd(s.size()), dd(s.size());
    std::vector<const float*> st(49);
    std::vector<float*> dt(49);
    for (int k = 0; k < 49; ++k) st[k] = s.data() + k * 1000, dt[k] = d.data() + k * 1000;
    subst::Scope scope(0, 0);
    EXPECT_EQ(zelmTranspose_ma_32f(s.data(), 392, 56, 8, 7, 7, d.data(), 392, 56, 8, 1000), zelStsOk);
    EXPECT_EQ(zelmTranspose_ma_32f_P(st.data(), 0, 4, 7, 7, dt.data(), 0, 4, 1000), zelStsOk);
    EXPECT_EQ(zelmTranspose_ma_64f(sd.data(), 392, 56, 8, 7, 7, dd.data(), 392, 56, 8, 1000), zelStsOk);
    std::vector<double> big(300 * 300), bigt(big.size());
    EXPECT_EQ(zelmTranspose_m_64f(big.data(), 2400, 8, 300, 300, bigt.data(), 2400, 8), zelStsOk);
    EXPECT_EQ(subst::cache_queries, 0);
}

}  // namespace
