// Products and Gaxpy: every export against an independent reference that
// adds the terms in the association each kernel is documented to use, bit for
// bit, over every row class, the exact orders, rectangular shapes, the three
// forms with and without contiguous elements and the vector's alignment;
// the documented examples; the thresholds of the parallel wrapper.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <cstring>
#include <functional>
#include <random>
#include <string>
#include <vector>

#include "products_reference.hpp"
#include "registry_table.hpp"
#include "substitutes.hpp"
#include "zelm.h"

namespace {

using pref::Kern;

// ---------------------------------------------------------------------------
// Operands laid out in one of the three forms, in a sentinel-filled block so
// that a write outside the destination's elements shows.
struct Operand {
    int rows = 1, cols = 1, objs = 1, esz = 4;
    char form = 'S';  // the operand's own form
    int step = 1;     // element stride in elements
    int s0 = 0, s1 = 0, s2 = 0, shift = 0;
    std::vector<unsigned char> mem;
    std::vector<void*> table;
    unsigned char* base = nullptr;  // 64-byte aligned start

    // align: byte offset of every object's first element past a 16-byte boundary
    // tight: rows back to back and standard-form objects packed one behind
    // the other, as most callers store them.
    void build(char f, int r, int c, int n, int es, int stp, int align, bool tight = false) {
        form = f, rows = r, cols = c, objs = n, esz = es, step = stp;
        s2 = esz * step;
        s1 = cols * s2 + (tight ? 0 : esz);
        const int span = (rows * s1 + 2 * esz + 15) / 16 * 16 + 16;
        std::size_t bytes = 0;
        if (form == 'P') {
            s0 = esz * 3;  // objects interleaved
            bytes = std::size_t(rows * cols) * std::size_t(objs * 3 + 2) * esz + 256;
        } else {
            s0 = tight ? rows * s1 : span;
            bytes = std::size_t(span) * (objs + 1) + 256;
        }
        mem.assign(bytes + 64, 0xA5);
        base = mem.data() + (64 - reinterpret_cast<std::uintptr_t>(mem.data()) % 64) % 64;
        if (form == 'S') {
            shift = 0;
        } else if (form == 'L') {
            shift = 16;
            table.resize(objs);
            // objects in reverse order
            for (int o = 0; o < objs; ++o) table[o] = base + 64 + std::size_t(objs - 1 - o) * span + align - shift + 16;
        } else {
            shift = esz;
            const int n_el = rows * cols;
            table.resize(n_el);
            // positions scattered: reversed
            const std::size_t slot = std::size_t(objs * 3 + 1) * esz;
            for (int k = 0; k < n_el; ++k) table[k] = base + 32 + std::size_t(n_el - 1 - k) * slot;
        }
        align_ = align;
    }
    unsigned char* at(int o, int r, int c) {
        if (form == 'S') return base + 64 + align_ + std::size_t(o) * s0 + std::size_t(r) * s1 + std::size_t(c) * s2;
        if (form == 'L') return static_cast<unsigned char*>(table[o]) + shift + std::size_t(r) * s1 + std::size_t(c) * s2;
        return static_cast<unsigned char*>(table[std::size_t(r) * cols + c]) + shift + std::size_t(o) * s0;
    }
    template <class T>
    T get(int o, int r, int c) {
        T v;
        std::memcpy(&v, at(o, r, c), sizeof(T));
        return v;
    }
    template <class T>
    void set(int o, int r, int c, T v) {
        std::memcpy(at(o, r, c), &v, sizeof(T));
    }
    // The arguments of this operand, by the names of role X ("Src1", "Dst").
    void args(reg::Args& a, const std::string& role) const {
        std::string low = role;
        low[0] = char(std::tolower(low[0]));
        a.ptrs["p" + role] = form == 'S' ? static_cast<void*>(base + 64 + align_) : static_cast<void*>(const_cast<void**>(table.data()));
        a.ptrs["pp" + role] = a.ptrs["p" + role];
        a.nums[low + "Stride0"] = s0;
        a.nums[low + "Stride1"] = s1;
        a.nums[low + "Stride2"] = s2;
        a.nums[low + "Shift"] = shift;
    }

private:
    int align_ = 0;
};

// A value whose bits make different associations differ: a random
// mantissa, sign and an exponent spread over a few binades.
template <class T>
T spread_value(std::mt19937& g) {
    std::uniform_real_distribution<double> m(1.0, 2.0);
    std::uniform_int_distribution<int> e(-6, 6), s(0, 1);
    double v = std::ldexp(m(g), e(g));
    return T(s(g) ? -v : v);
}

struct Shape {
    int H, K, W;
};

// One export as the tests see it.
struct Export {
    const reg::ExportRow* row;
    std::string sig;
    bool is64;
    char form;  // 'S', 'L', 'P'
    bool gaxpy;
    bool vec;  // matrix by vector (or Gaxpy)
    char la, lb;  // letters of the two sources ('m', 't', 'v')
    bool arr1, arr2, arr3;
    bool array;
};

Export describe(const reg::ExportRow& r) {
    Export e{&r, r.sig, std::string(r.type) == "64f", r.form[0], std::string(r.op) == "Gaxpy", false, 'm', 'm',
             false, false, false, false};
    const std::string& s = e.sig;
    if (e.gaxpy) {
        e.vec = true;
        e.la = 'm', e.lb = 'v';
        e.arr2 = s != "mv";
        e.arr3 = s == "mva";
    } else {
        std::vector<std::pair<char, bool>> l;
        for (char ch : s) {
            if (ch == 'a') l.back().second = true;
            else l.push_back({ch, false});
        }
        e.la = l[0].first, e.arr1 = l[0].second;
        e.lb = l[1].first, e.arr2 = l[1].second;
        e.vec = e.lb == 'v';
    }
    e.array = e.arr1 || e.arr2 || e.arr3;
    return e;
}

std::vector<Export> product_exports() {
    std::vector<Export> out;
    for (const auto& r : reg::exports()) {
        const std::string op = r.op, sig = r.sig;
        if (!r.implemented) continue;
        if (op == "Gaxpy" || (op == "Mul" && sig.find('c') == std::string::npos && !sig.empty() &&
                              sig.find('4') == std::string::npos))
            out.push_back(describe(r));
    }
    return out;
}

// A call of one export on one shape, with the reference's expectation.
template <class T>
struct Run {
    const Export& e;
    Shape sh;
    int count;
    int step;   // element stride in elements (1: contiguous)
    int align;  // the second source's byte offset past a 16-byte boundary
    bool tight;
    Operand a, b, y, d;
    std::mt19937 gen;

    Run(const Export& ex, Shape s, int cnt, int stp, int al, unsigned seed, bool tg)
        : e(ex), sh(s), count(e.array ? cnt : 1), step(stp), align(al), tight(tg), gen(seed) {}

    char own_form(bool arr) const { return e.form == 'L' && !arr ? 'S' : e.form; }
    int objs(bool arr) const { return arr ? count : 1; }

    Kern kern() const {
        if (e.form == 'P') return Kern::P;
        if (e.form == 'L') return step == 1 ? Kern::L : Kern::LS2;
        return step == 1 ? Kern::Std : Kern::S2;
    }

    // Builds the operands, fills the sources, calls the export; false with a
    // message if any element or byte of the destination's block differs.
    ::testing::AssertionResult check() {
        const int H = sh.H, K = sh.K, W = sh.W;
        const int esz = int(sizeof(T));
        // stored shapes
        const int ar = e.la == 't' ? K : H, ac = e.la == 't' ? H : K;
        a.build(own_form(e.arr1), ar, ac, objs(e.arr1), esz, step, 0, tight);
        if (e.vec) {
            b.build(own_form(e.arr2), 1, K, objs(e.arr2), esz, step, align, tight);
            d.build(own_form(e.array), 1, H, count, esz, step, 0, tight);
        } else {
            const int br = e.lb == 't' ? W : K, bc = e.lb == 't' ? K : W;
            b.build(own_form(e.arr2), br, bc, objs(e.arr2), esz, step, align, tight);
            d.build(own_form(e.array), H, W, count, esz, step, 0, tight);
        }
        if (e.gaxpy) y.build(own_form(e.arr3), 1, H, objs(e.arr3), esz, step, 0, tight);
        auto fill = [&](Operand& o) {
            for (int n = 0; n < o.objs; ++n)
                for (int r = 0; r < o.rows; ++r)
                    for (int c = 0; c < o.cols; ++c) o.set<T>(n, r, c, spread_value<T>(gen));
        };
        fill(a);
        fill(b);
        if (e.gaxpy) fill(y);

        // the expected image of the destination's block
        std::vector<unsigned char> want = d.mem;
        auto put = [&](int n, int r, int c, T v) {
            unsigned char* p = d.at(n, r, c);
            std::memcpy(want.data() + (p - d.mem.data()), &v, sizeof(T));
        };
        const bool f64 = e.is64;
        const int fast = e.gaxpy ? (K == H ? K : 0)
                                 : e.vec ? (ar == ac && ac == K ? K : 0)
                                         : (ar == ac && b.rows == b.cols && ar == b.rows ? K : 0);
        for (int n = 0; n < count; ++n) {
            const int na = e.arr1 ? n : 0, nb = e.arr2 ? n : 0, ny = e.arr3 ? n : 0;
            auto av = [&](int i, int k) { return e.la == 't' ? a.get<T>(na, k, i) : a.get<T>(na, i, k); };
            if (e.vec) {
                int lead = 0;
                if (e.form != 'P') {
                    const auto addr = reinterpret_cast<std::uintptr_t>(b.at(nb, 0, 0));
                    lead = addr % esz ? -1 : int((16 - addr % 16) % 16) / esz;
                }
                for (int i = 0; i < H; ++i) {
                    std::vector<T> t(K);
                    for (int k = 0; k < K; ++k) t[k] = av(i, k) * b.get<T>(nb, 0, k);
                    T v;
                    if (e.gaxpy) {
                        const T yi = y.get<T>(ny, 0, i);
                        const int first = pref::gaxpy_y_first(e.sig, kern(), fast, i);
                        if (first >= 0) {
                            v = t[first] + yi;
                            for (int k = 0; k < K; ++k)
                                if (k != first) v = v + t[k];
                        } else {
                            v = pref::reference_sum(pref::gaxpy_order(f64, kern(), fast, K), t, i) + yi;
                        }
                    } else {
                        v = pref::reference_sum(pref::mv_order(e.sig, f64, kern(), fast, H, K, i, lead), t, i);
                    }
                    put(n, 0, i, v);
                }
            } else {
                auto bv = [&](int k, int j) { return e.lb == 't' ? b.get<T>(nb, j, k) : b.get<T>(nb, k, j); };
                for (int i = 0; i < H; ++i) {
                    const pref::Order o = pref::mm_order(e.sig, f64, kern(), fast, H, K, i);
                    for (int j = 0; j < W; ++j) {
                        std::vector<T> t(K);
                        for (int k = 0; k < K; ++k) t[k] = av(i, k) * bv(k, j);
                        put(n, i, j, pref::reference_sum(o, t, i));
                    }
                }
            }
        }

        reg::Args args;
        a.args(args, "Src1");
        b.args(args, "Src2");
        if (e.gaxpy) y.args(args, "Src3");
        d.args(args, "Dst");
        args.nums["src1Width"] = ac;
        args.nums["src1Height"] = ar;
        args.nums["src2Width"] = b.cols;
        args.nums["src2Height"] = b.rows;
        args.nums["src2Len"] = K;
        args.nums["src3Len"] = H;
        args.nums["count"] = count;
        const zelStatus st = reg::caller_of(e.row->name)(args);
        if (st != zelStsOk) return ::testing::AssertionFailure() << e.row->name << " returned " << st;
        if (d.mem != want) {
            std::size_t k = 0;
            while (d.mem[k] == want[k]) ++k;
            return ::testing::AssertionFailure() << e.row->name << " H=" << H << " K=" << K << " W=" << W
                                                 << " count=" << count << " step=" << step << " align=" << align
                                                 << ": destination block differs at byte " << k;
        }
        return ::testing::AssertionSuccess();
    }
};

template <class T>
::testing::AssertionResult run_one(const Export& e, Shape s, int count, int step, int align, unsigned seed,
                                   bool tight) {
    Run<T> r(e, s, count, step, align, seed, tight);
    return r.check();
}
::testing::AssertionResult run_any(const Export& e, Shape s, int count, int step, int align, unsigned seed,
                                   bool tight = false) {
    return e.is64 ? run_one<double>(e, s, count, step, align, seed, tight)
                  : run_one<float>(e, s, count, step, align, seed, tight);
}

// Shapes: every remainder of H by 4 and by 8, K around 4 and 8, exact orders,
// rectangles.
std::vector<Shape> matrix_shapes() {
    std::vector<Shape> s;
    for (int n = 3; n <= 6; ++n) s.push_back({n, n, n});
    for (int H : {1, 2, 3, 4, 5, 6, 7, 8, 9})
        for (int K : {1, 2, 3, 4, 5, 7, 8, 9, 17}) s.push_back({H, K, H % 3 + 1 + (K & 1) * 2});
    s.push_back({3, 3, 4});
    s.push_back({4, 4, 3});
    s.push_back({2, 2, 2});
    s.push_back({7, 7, 7});
    return s;
}
std::vector<Shape> vector_shapes() {
    std::vector<Shape> s;
    for (int n = 3; n <= 6; ++n) s.push_back({n, n, 1});
    for (int H : {1, 2, 3, 4, 5, 7, 8, 9, 10, 11, 12, 13, 15})
        for (int K : {1, 2, 3, 4, 5, 7, 8, 9, 11, 12, 17}) s.push_back({H, K, 1});
    s.push_back({4, 3, 1});
    s.push_back({3, 4, 1});
    return s;
}

TEST(Products, EveryExportMatchesTheReferenceBitForBit) {
    const auto exports = product_exports();
    ASSERT_EQ(exports.size(), 148u);
    unsigned seed = 1;
    int runs = 0;
    for (const auto& e : exports) {
        const auto shapes = e.vec ? vector_shapes() : matrix_shapes();
        const std::vector<int> steps = e.form == 'P' ? std::vector<int>{1} : std::vector<int>{1, 2};
        for (int step : steps)
            for (const Shape& s : shapes) {
                ASSERT_TRUE(run_any(e, s, 3, step, 0, seed++));
                ++runs;
            }
        // rows back to back, objects packed: odd and even counts
        if (e.form != 'P')
            for (const Shape& s : shapes)
                for (int count : {3, 4}) {
                    ASSERT_TRUE(run_any(e, s, count, 1, 0, seed++, true));
                    ++runs;
                }
    }
    EXPECT_GT(runs, 10000);
}

// The second source at every offset from a 16-byte boundary; the matrix by
// vector kernels take leading terms up to it.
TEST(Products, SecondSourceAtEveryAlignment) {
    unsigned seed = 7;
    for (const auto& e : product_exports()) {
        if (e.form == 'P') continue;
        const auto shapes = e.vec ? vector_shapes() : std::vector<Shape>{{5, 9, 3}, {4, 4, 4}, {3, 17, 2}};
        const int esz = e.is64 ? 8 : 4;
        for (int align = 0; align <= 12; align += 4) {
            if (align % esz) {
                if (!e.vec || e.array) continue;  // misaligned doubles: the single mv kernels only
            }
            for (const Shape& s : shapes) ASSERT_TRUE(run_any(e, s, 2, 1, align, seed++));
        }
    }
}

// ---------------------------------------------------------------------------
// Documented examples.

template <class T>
std::vector<T> iota_like(int n, std::mt19937& g) {
    std::vector<T> v(n);
    for (auto& x : v) x = spread_value<T>(g);
    return v;
}

// In mm_32f with K = 8 and H = 5, rows 0 to 3 are sequential and row 4 is
// c(0,2) + c(1,2): identical inputs in two rows differ.
TEST(ProductExamples, RowsOfOneProductDifferInTheirOrder) {
    // terms whose sequential and pair sums differ
    float t[8];
    std::mt19937 g(1);
    for (;;) {
        for (float& v : t) v = spread_value<float>(g);
        float s = 0, e = 0, o = 0;
        for (int k = 0; k < 8; ++k) s += t[k];
        for (int k = 0; k < 8; k += 2) e += t[k], o += t[k + 1];
        if (s != e + o) break;
    }
    std::vector<float> A(5 * 8), B(8, 1.0f), D(5);
    for (int i = 0; i < 5; ++i)
        for (int k = 0; k < 8; ++k) A[i * 8 + k] = t[k];
    ASSERT_EQ(zelmMul_mm_32f(A.data(), 32, 4, 8, 5, B.data(), 4, 4, 1, 8, D.data(), 4, 4), zelStsOk);
    float seq = 0;
    for (float v : t) seq += v;
    float even = 0, odd = 0;
    for (int k = 0; k < 8; k += 2) even += t[k], odd += t[k + 1];
    ASSERT_NE(seq, even + odd);  // the inputs tell the two apart
    for (int i = 0; i < 4; ++i) EXPECT_EQ(D[i], seq) << i;
    EXPECT_EQ(D[4], even + odd);
    // H = 7: all rows sequential
    std::vector<float> A7(7 * 8), D7(7);
    for (int i = 0; i < 7; ++i)
        for (int k = 0; k < 8; ++k) A7[i * 8 + k] = t[k];
    ASSERT_EQ(zelmMul_mm_32f(A7.data(), 32, 4, 8, 7, B.data(), 4, 4, 1, 8, D7.data(), 4, 4), zelStsOk);
    for (int i = 0; i < 7; ++i) EXPECT_EQ(D7[i], seq) << i;
    // dstStride2 8: the S2 kernel, sequential everywhere
    std::vector<float> D2(10);
    ASSERT_EQ(zelmMul_mm_32f(A.data(), 32, 4, 8, 5, B.data(), 4, 4, 1, 8, D2.data(), 8, 8), zelStsOk);
    EXPECT_EQ(D2[8], seq);
}

// mt_32f: 4 by 4 is the fast path (sequential); with 5 rows in src2 every
// element is (t0 + t2) + (t1 + t3).
TEST(ProductExamples, MtFastPathAgainstGenericPath) {
    const float r[4] = {1.0f, 1e-8f, -1.0f, 1e-8f};
    float A[16], B[20], D[20];
    for (int i = 0; i < 4; ++i)
        for (int k = 0; k < 4; ++k) A[i * 4 + k] = r[k];
    for (float& v : B) v = 1.0f;
    const float seq = ((r[0] + r[1]) + r[2]) + r[3], lanes = (r[0] + r[2]) + (r[1] + r[3]);
    ASSERT_NE(seq, lanes);
    ASSERT_EQ(zelmMul_mt_32f(A, 16, 4, 4, 4, B, 16, 4, 4, 4, D, 16, 4), zelStsOk);
    for (int k = 0; k < 16; ++k) EXPECT_EQ(D[k], seq);
    ASSERT_EQ(zelmMul_mt_32f(A, 16, 4, 4, 4, B, 16, 4, 4, 5, D, 20, 4), zelStsOk);
    for (int k = 0; k < 20; ++k) EXPECT_EQ(D[k], lanes);
}

TEST(ProductExamples, NegativeZeroTermsInFastAndGenericPaths) {
    // every term -0.0: generic paths give +0.0, fast paths -0.0
    float A[16], B[16], D[16];
    for (int k = 0; k < 16; ++k) A[k] = -0.0f, B[k] = 1.0f;
    ASSERT_EQ(zelmMul_mm_32f(A, 12, 4, 3, 3, B, 12, 4, 3, 3, D, 12, 4), zelStsOk);  // fast
    EXPECT_TRUE(std::signbit(D[0]));
    ASSERT_EQ(zelmMul_mm_32f(A, 8, 4, 2, 2, B, 8, 4, 2, 2, D, 8, 4), zelStsOk);  // generic
    EXPECT_FALSE(std::signbit(D[0]));
    ASSERT_EQ(zelmMul_mv_32f(A, 16, 4, 4, 4, B, 4, 4, D, 4), zelStsOk);  // fast
    EXPECT_TRUE(std::signbit(D[0]));
    ASSERT_EQ(zelmMul_mv_32f(A, 8, 4, 2, 2, B, 4, 2, D, 4), zelStsOk);  // generic
    EXPECT_FALSE(std::signbit(D[0]));
}

TEST(ProductExamples, MatrixVector) {
    // mv_64f 4 by 4: (t0 + t1) + (t2 + t3); the S2 kernel: sequential
    alignas(16) double A[16], x[8], d[8];
    const double r[4] = {1.0, 1e-17, -1.0, 1e-17};
    for (int i = 0; i < 4; ++i)
        for (int k = 0; k < 4; ++k) A[i * 4 + k] = r[k];
    for (double& v : x) v = 1.0;
    const double pairs = (r[0] + r[1]) + (r[2] + r[3]), seq = ((r[0] + r[1]) + r[2]) + r[3];
    ASSERT_NE(pairs, seq);
    ASSERT_EQ(zelmMul_mv_64f(A, 32, 8, 4, 4, x, 8, 4, d, 8), zelStsOk);
    EXPECT_EQ(d[0], pairs);
    ASSERT_EQ(zelmMul_mv_64f(A, 32, 8, 4, 4, x, 8, 4, d, 16), zelStsOk);
    EXPECT_EQ(d[0], seq);

    // mv_32f K = 4 with an aligned vector: H = 5 all rows (t0 + t2) + (t1 + t3);
    // H = 9: row 8 sequential
    alignas(16) float Af[36], xf[4] = {1, 1, 1, 1}, df[9];
    const float rf[4] = {1.0f, 1e-8f, -1.0f, 1e-8f};
    for (int i = 0; i < 9; ++i)
        for (int k = 0; k < 4; ++k) Af[i * 4 + k] = rf[k];
    const float lanes = (rf[0] + rf[2]) + (rf[1] + rf[3]), seqf = ((rf[0] + rf[1]) + rf[2]) + rf[3];
    ASSERT_NE(lanes, seqf);
    ASSERT_EQ(zelmMul_mv_32f(Af, 16, 4, 4, 5, xf, 4, 4, df, 4), zelStsOk);
    for (int i = 0; i < 5; ++i) EXPECT_EQ(df[i], lanes);
    ASSERT_EQ(zelmMul_mv_32f(Af, 16, 4, 4, 9, xf, 4, 4, df, 4), zelStsOk);
    for (int i = 0; i < 8; ++i) EXPECT_EQ(df[i], lanes);
    EXPECT_EQ(df[8], seqf);

    // K = 9, the vector 4 bytes below a 16-byte boundary: p = 1, every row of
    // H = 4 is ((t0 + t1) + t5) + (t3 + t7) added to (t2 + t6) + (t4 + t8)
    alignas(16) float buf[16];
    float* xv = buf + 3;
    std::mt19937 g(3);
    float t9[9], A9[36];
    for (int k = 0; k < 9; ++k) xv[k] = 1.0f, t9[k] = spread_value<float>(g);
    for (int i = 0; i < 4; ++i)
        for (int k = 0; k < 9; ++k) A9[i * 9 + k] = t9[k];
    float d9[4];
    ASSERT_EQ(zelmMul_mv_32f(A9, 36, 4, 9, 4, xv, 4, 9, d9, 4), zelStsOk);
    const float want = (((t9[0] + t9[1]) + t9[5]) + (t9[3] + t9[7])) + ((t9[2] + t9[6]) + (t9[4] + t9[8]));
    for (int i = 0; i < 4; ++i) EXPECT_EQ(d9[i], want);
}

TEST(ProductExamples, ListFormArrayTakesTheGenericPath) {
    // mta_32f_L at order 4 takes its generic path: (t0 + t2) + (t1 + t3)
    const float r[4] = {1.0f, 1e-8f, -1.0f, 1e-8f};
    float A[16], B[16], D[16];
    for (int i = 0; i < 4; ++i)
        for (int k = 0; k < 4; ++k) A[i * 4 + k] = r[k];
    for (float& v : B) v = 1.0f;
    const float* pb[1] = {B};
    float* pd[1] = {D};
    ASSERT_EQ(zelmMul_mta_32f_L(A, 16, 4, 4, 4, pb, 0, 16, 4, 4, 4, pd, 0, 16, 4, 1), zelStsOk);
    EXPECT_EQ(D[0], (r[0] + r[2]) + (r[1] + r[3]));
    ASSERT_EQ(zelmMul_mta_32f(A, 16, 4, 4, 4, B, 64, 16, 4, 4, 4, D, 64, 16, 4, 1), zelStsOk);
    EXPECT_EQ(D[0], ((r[0] + r[1]) + r[2]) + r[3]);
}

TEST(ProductExamples, Gaxpy) {
    // order 4, mvav_64f: the standard form adds y last, the P form to t3 first
    const double r[4] = {1.0, 1e-17, 3e-17, -1.0};
    double A[16], X[4] = {1, 1, 1, 1}, Y[4] = {1e-17, 1e-17, 1e-17, 1e-17}, D[4], DP[4];
    for (int i = 0; i < 4; ++i)
        for (int k = 0; k < 4; ++k) A[i * 4 + k] = r[k];
    ASSERT_EQ(zelmGaxpy_mvav_64f(A, 32, 8, 4, 4, X, 32, 8, 4, Y, 8, 4, D, 32, 8, 1), zelStsOk);
    const double* pa[16];
    for (int k = 0; k < 16; ++k) pa[k] = &A[k];
    const double* px[4] = {&X[0], &X[1], &X[2], &X[3]};
    const double* py[4] = {&Y[0], &Y[1], &Y[2], &Y[3]};
    double* pd[4] = {&DP[0], &DP[1], &DP[2], &DP[3]};
    ASSERT_EQ(zelmGaxpy_mvav_64f_P(pa, 0, 4, 4, px, 0, 8, 4, py, 0, 4, pd, 0, 8, 1), zelStsOk);
    EXPECT_EQ(D[0], ((r[0] + r[1]) + (r[2] + r[3])) + Y[0]);
    EXPECT_EQ(DP[0], (((r[3] + Y[0]) + r[0]) + r[1]) + r[2]);
    EXPECT_NE(D[0], DP[0]);
}

// ---------------------------------------------------------------------------
// Thresholds: the direct path asks for no thread count.

struct Boundary {
    const char* what;
    std::function<zelStatus(int)> call;  // by count
    int direct, wrapper;                  // the last direct count, the first through the wrapper
};

TEST(ProductThresholds, AtTheirBoundaries) {
    static std::vector<float> F(1 << 20);
    static std::vector<double> Dd(1 << 19);
    static std::vector<const float*> tf(1 << 16, F.data());
    static std::vector<float*> tfd(1 << 16, F.data() + (1 << 19));
    float* f = F.data();
    float* fd = F.data() + (1 << 19);
    double* g = Dd.data();
    double* gd = Dd.data() + (1 << 18);
    const std::vector<Boundary> cases = {
        // 3x3: 9 + 18 count against 36864 (contiguous), 18432 (dstStride2 8), 9216 (P)
        {"mam_32f", [&](int c) { return zelmMul_mam_32f(f, 0 + 36, 12, 4, 3, 3, f, 12, 4, 3, 3, fd, 36, 12, 4, c); }, 2047, 2048},
        {"mam_32f S2", [&](int c) { return zelmMul_mam_32f(f, 36, 12, 4, 3, 3, f, 12, 4, 3, 3, fd, 72, 24, 8, c); }, 1023, 1024},
        {"mam_32f_L", [&](int c) { return zelmMul_mam_32f_L(tf.data(), 0, 12, 4, 3, 3, f, 12, 4, 3, 3, tfd.data(), 0, 12, 4, c); }, 1023, 1024},
        {"mam_32f_P", [&](int c) { return zelmMul_mam_32f_P(tf.data(), 0, 4, 3, 3, tf.data(), 0, 3, 3, tfd.data(), 0, 4, c); }, 511, 512},
        // Gaxpy mva 4 wide, 3 high: (4 + 6) count against 5000
        {"Gaxpy mva_32f", [&](int c) { return zelmGaxpy_mva_32f(f, 16, 4, 4, 3, f, 16, 4, 4, f, 16, 4, 3, fd, 16, 4, c); }, 500, 501},
        // Gaxpy mvav_64f order 4: 4 count + 4 (count + 1)
        {"Gaxpy mvav_64f", [&](int c) { return zelmGaxpy_mvav_64f(g, 32, 8, 4, 4, g, 32, 8, 4, g, 8, 4, gd, 32, 8, c); }, 624, 625},
    };
    for (const auto& b : cases) {
        {
            subst::Scope s(4);
            ASSERT_EQ(b.call(b.direct), zelStsOk) << b.what;
            EXPECT_EQ(subst::thread_queries.load(), 0) << b.what << " count " << b.direct;
        }
        {
            subst::Scope s(4);
            ASSERT_EQ(b.call(b.wrapper), zelStsOk) << b.what;
            EXPECT_GT(subst::thread_queries.load(), 0) << b.what << " count " << b.wrapper;
        }
    }
}

// The same array on 1 and on 4 threads: the same bits.
TEST(ProductThresholds, ThreadsGiveTheSameBits) {
    std::mt19937 gen(5);
    for (int n : {3, 4, 7}) {
        const int count = 5000;
        auto A = iota_like<float>(n * n * count, gen), B = iota_like<float>(n * n * count, gen);
        std::vector<float> D1(n * n * count), D4(n * n * count);
        const int s0 = 4 * n * n, s1 = 4 * n;
        {
            subst::Scope s(1);
            ASSERT_EQ(zelmMul_mama_32f(A.data(), s0, s1, 4, n, n, B.data(), s0, s1, 4, n, n, D1.data(), s0, s1, 4, count), zelStsOk);
        }
        {
            subst::Scope s(4);
            ASSERT_EQ(zelmMul_mama_32f(A.data(), s0, s1, 4, n, n, B.data(), s0, s1, 4, n, n, D4.data(), s0, s1, 4, count), zelStsOk);
            EXPECT_GT(subst::thread_queries.load(), 0);
        }
        EXPECT_EQ(std::memcmp(D1.data(), D4.data(), D1.size() * 4), 0) << n;
    }
}

}  // namespace
