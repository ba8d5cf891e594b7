// Data movement (Copy, LoadIdentity, Extract, Transpose) against reference
// loops over random bits with signalling NaNs, every byte compared.
#include <type_traits>

#include "forms_harness.hpp"

namespace {

using Bytes = std::vector<unsigned char>;

// Layout `style` of an operand: 0 packed (tables in order, list objects and
// element-table objects back to back); 1 padded rows, gaps between objects,
// scrambled tables behind a shift, pointer-form stride0 of 3; 2 element step
// 3, pointer-form objects adjacent; 3 column-major.
const lay::Layout kStyles[] = {{.soa = false, .scramble = false},
                               {.pad1 = 2, .pad0 = 1, .lead = 1, .shift = 2, .k0 = 3},
                               {.k2 = 3, .pad1 = 1, .pad0 = 2, .shift = 2},
                               {.pad0 = 1, .shift = 1, .columns = true}};

// A signalling NaN with random payload and sign in every third element of a
// group, random bits in the others.
template <class T>
void random_bits(fh::Laid<T>& l, const std::string& g, std::mt19937& rng) {
    using U = std::conditional_t<sizeof(T) == 4, std::uint32_t, std::uint64_t>;
    const U exp = sizeof(T) == 4 ? U(0xff) << 23 : U(0x7ff) << 52, quiet = sizeof(T) == 4 ? U(1) << 22 : U(1) << 51;
    l.each(g, [&](T& x, int n, int r, int c) {
        U v = U(std::uint64_t(rng()) << 32 ^ rng());
        if ((n + r + c) % 3 == 0) v = (v & ~(exp | quiet)) | exp | 1;
        std::memcpy(&x, &v, sizeof(T));
    });
}

// One call of export `row` with sizes W x H (len W for vectors), N objects,
// the source in layout `style`, the destination in `dstyle`: every byte as
// the reference loop says, the source unchanged.
template <class T>
::testing::AssertionResult run_case(const reg::ExportRow& row, int W, int H, int N, int style, int dstyle, std::mt19937& rng) {
    const std::string op = row.op, sig = row.sig;
    const bool trans = op == "Transpose", extract = op == "Extract", ident = op == "LoadIdentity";
    const bool src_t = extract && sig[0] == 't';  // a t source is stored with W rows of H
    if (sig[0] == 'v') H = 1;
    lay::Layout L = kStyles[style];
    L.dst = &kStyles[dstyle];
    fh::Laid<T> l(row, N, {{"width", W}, {"len", W}, {"height", H}}, L, rng());
    if (!ident) random_bits(l, "Src", rng);
    // Extract's destination is one packed block
    const std::string dst = extract ? "pDst" : "Dst";
    if (!extract) random_bits(l, dst, rng);
    std::vector<fh::Image<T>> want{fh::Image<T>(l, dst)};
    if (!ident) want.emplace_back(l, "Src");
    for (int n = 0; n < l.count(); ++n)
        for (int i = 0; i < H; ++i)
            for (int j = 0; j < W; ++j) {
                T& to = want[0].mem[extract ? (std::size_t(n) * H + i) * W + j : &l.at(dst, n, trans ? j : i, trans ? i : j) - l.memory(dst).data()];
                if (ident) to = T(i == j);
                else std::memcpy(&to, src_t ? &l.at("Src", n, j, i) : &l.at("Src", n, i, j), sizeof(T));
            }
    return fh::call_matches(l, want);
}
::testing::AssertionResult run_any(const reg::ExportRow& row, int W, int H, int N, int style, int dstyle, std::mt19937& rng) {
    ::testing::AssertionResult r = ::testing::AssertionSuccess();
    fh::with_type(row, [&](auto t) { r = run_case<decltype(t)>(row, W, H, N, style, dstyle, rng); });
    return r;
}

TEST(Movement, EveryExportMatchesItsReferenceLoopBitForBit) {
    std::mt19937 rng(12345);
    const auto rows = fh::exports_of({"Copy", "LoadIdentity", "Extract", "Transpose"});  // not the fixed-size ones
    EXPECT_EQ(rows.size(), 82u);
    for (const auto* row : rows) {
        const std::string sig = row->sig;
        for (int W = 1; W <= 7; ++W)
            for (int H = 1; H <= (sig[0] == 'v' ? 1 : 7); ++H)
                for (int N : sig.back() == 'a' ? std::vector<int>{1, 2, 5, 9} : std::vector<int>{1})
                    for (int style = 0; style < 4; ++style)
                        ASSERT_TRUE(run_any(*row, W, H, N, style, (style + 1) % 4, rng))
                            << row->name << " width/len " << W << " height " << H << " count " << N << " style " << style;
    }
}

// ---------------------------------------------------------------------------
// Copy: source and destination overlapping at every offset give the forward
// element order (a destination one element above spreads the first element).
TEST(Copy, OverlappingOperandsGetTheForwardOrder) {
    std::mt19937 rng(7);
    for (int esz : {4, 8})
        for (int W : {3, 8, 40})
            for (int HN : {11, 12, 31, 32})  // height, count
                for (int step : {1, 2})
                    for (int off : {-20, -8, -2, 0, 2, 4, 8, 12, 64}) {
                        const int H = HN / 10, N = HN % 10, s1 = W * esz, s0 = H * s1, d2 = step * esz, d1 = W * d2, d0 = H * d1;
                        Bytes buf(1024 + std::size_t(N) * (s0 + d0));
                        for (auto& x : buf) x = static_cast<unsigned char>(rng());
                        Bytes want = buf;
                        for (int k = 0; k < N * H * W; ++k) {  // objects, rows, columns in order
                            const int n = k / (H * W), i = k / W % H, j = k % W;
                            std::memmove(&want[256 + off + n * d0 + i * d1 + j * d2], &want[256 + n * s0 + i * s1 + j * esz], esz);
                        }
                        reg::Args a;
                        a.ptrs = {{"pSrc", buf.data() + 256}, {"pDst", buf.data() + 256 + off}};
                        a.nums = {{"srcStride0", s0}, {"srcStride1", s1}, {"srcStride2", esz}, {"dstStride0", d0}, {"dstStride1", d1},
                                  {"dstStride2", d2}, {"width", W},       {"len", W},        {"height", H},      {"count", N}};
                        const std::string name = std::string("zelmCopy_") + (H == 1 ? "va" : "ma") + (esz == 4 ? "_32f_SS" : "_64f_SS");
                        ASSERT_EQ(reg::caller_of(name)(a), zelStsOk);
                        ASSERT_EQ(std::mismatch(buf.begin(), buf.end(), want.begin()).first - buf.begin(), std::ptrdiff_t(buf.size()))
                            << "first differing byte, " << name << " W " << W << " H " << H << " N " << N << " dst step " << step << " offset " << off;
                    }
}

// A pointer-form source read again after the destination has overwritten it:
// the element positions cross, so only the object-by-object order gives this.
// The same for destination elements that meet.
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
    // Destination objects on one another (element j of object n at n + j),
    // the source apart: each element keeps what the last object wrote.
    constexpr int len = 4;
    for (bool ptr_dst : {true, false})
        for (int count : {8, 40}) {
            std::vector<float> src(len * count), dst(count + len, -1.f), want = dst;
            for (std::size_t i = 0; i < src.size(); ++i) src[i] = float(100 + i);
            float* dtab[len];
            const float* stab[len];
            for (int j = 0; j < len; ++j) dtab[j] = dst.data() + j, stab[j] = src.data() + j * count;
            for (int n = 0; n < count; ++n)
                for (int j = 0; j < len; ++j) want[n + j] = ptr_dst ? src[n * len + j] : src[j * count + n];
            ASSERT_EQ(ptr_dst ? zelmCopy_va_32f_SP(src.data(), 4 * len, 4, dtab, 0, 4, len, count)
                              : zelmCopy_va_32f_PS(stab, 0, 4, dst.data(), 4, 4, len, count),
                      zelStsOk);
            EXPECT_EQ(dst, want) << (ptr_dst ? "SP " : "PS ") << count;
        }
}

// LoadIdentity where elements share memory: the row is cleared before its one
// is set, so a repeated address ends as that order leaves it. Pointer form, 1
// row of 2 at one address: (0, 1) is cleared after (0, 0) and before the one
// is set.
TEST(LoadIdentity, RepeatedAddressesEndAsTheRowOrderLeavesThem) {
    double v[1] = {5.0};
    double* tab[2] = {v, v};
    ASSERT_EQ(zelmLoadIdentity_ma_64f_P(tab, 0, 8, 2, 1, 1), zelStsOk);
    EXPECT_EQ(v[0], 1.0);
}

// ---------------------------------------------------------------------------
// Transpose: the banded paths give the reference under an unknown cache, one
// so small that every large matrix streams, and a large one; the cache size
// is asked for exactly when it matters (`queries`, -1: not counted).
TEST(Transpose, BandedPathsAndTheCacheQuestions) {
    struct Case {
        const char* name;
        int W, H, N, style, cache, queries;
    };
    const int any = -1, big = 1 << 30;
    const char *m = "zelmTranspose_m_32f", *ma = "zelmTranspose_ma_32f", *maL = "zelmTranspose_ma_32f_L";
    const Case cases[] = {
        // bands with remainders of rows, 4x4 tiles and (streamed) column pairs;
        // a width of 16s streamed in bands; arrays streamed object by object
        {m, 131, 129, 1, 1, any, any}, {m, 256, 140, 1, 1, any, any},
        {ma, 10, 10, 400, 1, any, any}, {maL, 33, 7, 200, 1, any, any},
        // single matrices ask when the smaller side exceeds 128
        {m, 129, 4096, 1, 1, 0, 1}, {m, 4096, 129, 1, 1, big, 1}, {m, 128, 4096, 1, 1, 0, 0}, {m, 4096, 128, 1, 1, 0, 0},
        // arrays once when the traffic 8*W*H*count exceeds 131072 ...
        {ma, 7, 7, 1000, 1, big, 1}, {maL, 7, 7, 1000, 1, 0, 1}, {ma, 8, 8, 256, 1, 0, 0}, {ma, 8, 8, 257, 1, 0, 1},
        // ... never for the square orders 3 to 6
        {ma, 5, 5, 1000, 1, 0, 0}, {maL, 6, 6, 4000, 1, 0, 0},
        // and again per object without the stream decision if a side exceeds 128
        {ma, 200, 200, 2, 1, big, 3}, {ma, 200, 200, 2, 1, 0, 3}, {ma, 200, 200, 2, 1, 4096, 1},
        // no cache decision: the strided kernel, the pointer form, 64f
        {ma, 7, 7, 1000, 2, big, 0}, {"zelmTranspose_ma_32f_P", 7, 7, 1000, 1, big, 0},
        {"zelmTranspose_ma_64f", 7, 7, 1000, 1, big, 0}, {"zelmTranspose_m_64f", 300, 300, 1, 1, big, 0},
    };
    std::mt19937 rng(99);
    for (const auto& c : cases)
        for (int cache : c.cache == any ? std::vector<int>{0, 4096, big} : std::vector<int>{c.cache}) {
            subst::Scope scope(0, cache);
            EXPECT_TRUE(run_any(fh::row_named(c.name), c.W, c.H, c.N, c.style, c.style, rng))
                << c.name << " " << c.W << "x" << c.H << " count " << c.N << " cache " << cache;
            if (c.queries != any) {
                EXPECT_EQ(subst::cache_queries, c.queries) << c.name << " " << c.W << "x" << c.H << " count " << c.N;
            }
        }
}

}  // namespace
