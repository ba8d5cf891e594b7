// Products and Gaxpy: every export against an independent reference that
// adds the terms in the association each kernel is documented to use, bit for
// bit, over every row class, the exact orders, rectangular shapes, the three
// forms with and without contiguous elements, the vector's alignment and
// terms of -0.0; the thresholds of the parallel wrapper.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "forms_harness.hpp"
#include "products_reference.hpp"
#include "registry_table.hpp"
#include "substitutes.hpp"
#include "zelm.h"

namespace {

using pref::Kern;

// Operands laid out in one of the three forms, in a sentinel-filled block so
// that a write outside the destination's elements shows. `align`: every
// object's first element that many bytes past a 16-byte boundary; `tight`:
// rows back to back and standard-form objects packed one behind the other,
// as most callers store them. Tables name objects (L) and element positions
// (P) in reverse memory order.
struct Operand {
    int rows = 1, cols = 1, objs = 1, esz = 4, s0 = 0, s1 = 0, s2 = 0, shift = 0, align = 0;
    char form = 'S';
    std::vector<unsigned char> mem;
    std::vector<void*> table;
    unsigned char* base = nullptr;  // 64-byte aligned start

    void build(char f, int r, int c, int n, int es, int step, int al, bool tight) {
        form = f, rows = r, cols = c, objs = n, esz = es, align = al;
        s2 = esz * step;
        s1 = cols * s2 + (tight ? 0 : esz);
        const int span = (rows * s1 + 2 * esz + 15) / 16 * 16 + 16;
        s0 = form == 'P' ? esz * 3 : tight ? rows * s1 : span;  // P: objects interleaved
        mem.assign(64 + 256 + (form == 'P' ? std::size_t(rows * cols) * (objs * 3 + 2) * esz
                                           : std::size_t(span) * (objs + 1)), 0xA5);
        base = mem.data() + (64 - reinterpret_cast<std::uintptr_t>(mem.data()) % 64) % 64;
        shift = form == 'S' ? 0 : form == 'L' ? 16 : esz;
        const int slots = form == 'S' ? 0 : form == 'L' ? objs : rows * cols;
        const std::size_t slot = form == 'L' ? std::size_t(span) : std::size_t(objs * 3 + 1) * esz;
        table.resize(slots);
        for (int k = 0; k < slots; ++k)
            table[k] = base + (form == 'L' ? 64 + align - shift + 16 : 32) + std::size_t(slots - 1 - k) * slot;
    }
    unsigned char* at(int o, int r, int c) {
        if (form == 'S') return base + 64 + align + std::size_t(o) * s0 + std::size_t(r) * s1 + std::size_t(c) * s2;
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
    void args(reg::Args& a, const std::string& role) {
        std::string low = role;
        low[0] = char(std::tolower(low[0]));
        a.ptrs["p" + role] = a.ptrs["pp" + role] = form == 'S' ? static_cast<void*>(base + 64 + align) : table.data();
        a.nums[low + "Stride0"] = s0;
        a.nums[low + "Stride1"] = s1;
        a.nums[low + "Stride2"] = s2;
        a.nums[low + "Shift"] = shift;
    }
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

// One export as the tests see it: the letters of its two sources ('m', 't',
// 'v') and which of the operands are arrays.
struct Export {
    const reg::ExportRow* row;
    std::string sig;
    bool is64, gaxpy, vec;
    char form;  // 'S', 'L', 'P'
    char la = 'm', lb = 'v';
    bool arr1 = false, arr2 = false, arr3 = false, array = false;
};

// Mul of matrices and vectors (not by a constant, not the fixed-size ones),
// and Gaxpy.
std::vector<Export> product_exports() {
    std::vector<Export> out;
    for (const auto* r : fh::exports_of({"Mul", "Gaxpy"})) {
        Export e{r, r->sig, fh::is64(*r), std::string(r->op) == "Gaxpy", true, r->form[0]};
        const std::string& s = e.sig;
        if (e.gaxpy) {
            e.arr2 = s != "mv", e.arr3 = s == "mva";
        } else {
            if (s.find_first_of("c4") != std::string::npos) continue;
            std::vector<std::pair<char, bool>> l;
            for (char ch : s) {
                if (ch == 'a') l.back().second = true;
                else l.push_back({ch, false});
            }
            e.la = l[0].first, e.arr1 = l[0].second, e.lb = l[1].first, e.arr2 = l[1].second;
            e.vec = e.lb == 'v';
        }
        e.array = e.arr1 || e.arr2 || e.arr3;
        out.push_back(e);
    }
    return out;
}

// A call of one export on one shape, checked against the reference's image
// of the destination's whole block. `step`: element stride in elements (1:
// contiguous); `align`: the second source's byte offset past a 16-byte
// boundary; `negzero`: every term -0.0 (and y -0.0), which tells a sum that
// starts from +0.0 from one that starts from its first term.
struct Call {
    Shape sh;
    int count = 3, step = 1, align = 0;
    bool tight = false, negzero = false;
    unsigned seed = 1;

    ::testing::AssertionResult operator()(const Export& e) const {
        return e.is64 ? check<double>(e) : check<float>(e);
    }

    template <class T>
    ::testing::AssertionResult check(const Export& e) const {
        const int H = sh.H, K = sh.K, W = sh.W, esz = int(sizeof(T)), cnt = e.array ? count : 1;
        std::mt19937 gen(seed);
        const Kern kern = e.form == 'P' ? Kern::P
                          : e.form == 'L' ? (step == 1 ? Kern::L : Kern::LS2)
                                          : (step == 1 ? Kern::Std : Kern::S2);
        auto form = [&](bool arr) { return e.form == 'L' && !arr ? 'S' : e.form; };
        Operand a, b, y, d;
        // stored shapes
        const int ar = e.la == 't' ? K : H, ac = e.la == 't' ? H : K;
        const int br = e.vec ? 1 : e.lb == 't' ? W : K, bc = e.vec ? K : e.lb == 't' ? K : W;
        a.build(form(e.arr1), ar, ac, e.arr1 ? cnt : 1, esz, step, 0, tight);
        b.build(form(e.arr2), br, bc, e.arr2 ? cnt : 1, esz, step, align, tight);
        d.build(form(e.array), e.vec ? 1 : H, e.vec ? H : W, cnt, esz, step, 0, tight);
        if (e.gaxpy) y.build(form(e.arr3), 1, H, e.arr3 ? cnt : 1, esz, step, 0, tight);
        auto fill = [&](Operand& o, int sign) {  // sign 0: any, 1: -0.0, 2: positive
            for (int n = 0; n < o.objs; ++n)
                for (int r = 0; r < o.rows; ++r)
                    for (int c = 0; c < o.cols; ++c) {
                        const T v = spread_value<T>(gen);
                        o.set<T>(n, r, c, sign == 1 ? T(-0.0) : sign == 2 ? std::fabs(v) : v);
                    }
        };
        fill(a, negzero ? 1 : 0);
        fill(b, negzero ? 2 : 0);
        if (e.gaxpy) fill(y, negzero ? 1 : 0);

        // the expected image of the destination's block
        std::vector<unsigned char> want = d.mem;
        auto put = [&](int n, int r, int c, T v) { std::memcpy(want.data() + (d.at(n, r, c) - d.mem.data()), &v, esz); };
        const int fast = (ar == ac && ac == K && (e.gaxpy || e.vec || (br == bc && br == K))) ? K : 0;
        for (int n = 0; n < cnt; ++n) {
            const int na = e.arr1 ? n : 0, nb = e.arr2 ? n : 0, ny = e.arr3 ? n : 0;
            auto av = [&](int i, int k) { return e.la == 't' ? a.get<T>(na, k, i) : a.get<T>(na, i, k); };
            auto bv = [&](int k, int j) {
                return e.vec ? b.get<T>(nb, 0, k) : e.lb == 't' ? b.get<T>(nb, j, k) : b.get<T>(nb, k, j);
            };
            // the vector's leading terms to its 16-byte boundary, -1 if unaligned to its element
            const auto addr = reinterpret_cast<std::uintptr_t>(b.at(nb, 0, 0));
            const int lead = e.form == 'P' ? 0 : addr % esz ? -1 : int((16 - addr % 16) % 16) / esz;
            for (int i = 0; i < H; ++i)
                for (int j = 0; j < (e.vec ? 1 : W); ++j) {
                    std::vector<T> t(K);
                    for (int k = 0; k < K; ++k) t[k] = av(i, k) * bv(k, j);
                    if (!e.vec) {
                        put(n, i, j, pref::reference_sum(pref::mm_order(e.sig, e.is64, kern, fast, H, K, i), t, i));
                    } else if (!e.gaxpy) {
                        put(n, 0, i, pref::reference_sum(pref::mv_order(e.sig, e.is64, kern, fast, H, K, i, lead), t, i));
                    } else if (const int first = pref::gaxpy_y_first(e.sig, kern, fast, i); first >= 0) {
                        T v = t[first] + y.get<T>(ny, 0, i);
                        for (int k = 0; k < K; ++k)
                            if (k != first) v = v + t[k];
                        put(n, 0, i, v);
                    } else {
                        put(n, 0, i, pref::reference_sum(pref::gaxpy_order(e.is64, kern, fast, K), t, i) + y.get<T>(ny, 0, i));
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
        args.nums["src2Width"] = bc;
        args.nums["src2Height"] = br;
        args.nums["src2Len"] = K;
        args.nums["src3Len"] = H;
        args.nums["count"] = cnt;
        const zelStatus st = reg::caller_of(e.row->name)(args);
        if (st != zelStsOk) return ::testing::AssertionFailure() << e.row->name << " returned " << st;
        if (d.mem == want) return ::testing::AssertionSuccess();
        std::size_t k = 0;
        while (d.mem[k] == want[k]) ++k;
        return ::testing::AssertionFailure() << e.row->name << " H=" << H << " K=" << K << " W=" << W << " count="
                                             << cnt << " step=" << step << " align=" << align << " negzero="
                                             << negzero << ": destination block differs at byte " << k;
    }
};

// Shapes: every remainder of H by 4 and by 8, K around 4 and 8, exact orders,
// rectangles.
std::vector<Shape> shapes(bool vec) {
    std::vector<Shape> s;
    for (int n = 3; n <= 6; ++n) s.push_back({n, n, vec ? 1 : n});
    for (int H : vec ? std::vector<int>{1, 2, 3, 4, 5, 7, 8, 9, 10, 11, 12, 13, 15} : std::vector<int>{1, 2, 3, 4, 5, 6, 7, 8, 9})
        for (int K : vec ? std::vector<int>{1, 2, 3, 4, 5, 7, 8, 9, 11, 12, 17} : std::vector<int>{1, 2, 3, 4, 5, 7, 8, 9, 17})
            s.push_back({H, K, vec ? 1 : H % 3 + 1 + (K & 1) * 2});
    for (Shape x : vec ? std::vector<Shape>{{4, 3, 1}, {3, 4, 1}} : std::vector<Shape>{{3, 3, 4}, {4, 4, 3}, {2, 2, 2}, {7, 7, 7}})
        s.push_back(x);
    return s;
}

TEST(Products, EveryExportMatchesTheReferenceBitForBit) {
    const auto exports = product_exports();
    ASSERT_EQ(exports.size(), 148u);
    unsigned seed = 1;
    for (const auto& e : exports) {
        const bool P = e.form == 'P';
        for (const Shape& s : shapes(e.vec)) {
            for (int step : P ? std::vector<int>{1} : std::vector<int>{1, 2})
                ASSERT_TRUE((Call{s, 3, step, 0, false, false, seed++})(e));
            // rows back to back, objects packed: odd and even counts
            for (int count : P ? std::vector<int>{} : std::vector<int>{3, 4})
                ASSERT_TRUE((Call{s, count, 1, 0, true, false, seed++})(e));
            // -0.0 terms on every kernel
            for (int step : P ? std::vector<int>{1} : std::vector<int>{1, 2})
                    ASSERT_TRUE((Call{s, 2, step, 0, false, true, seed++})(e));
        }
    }
}

// The second source at every offset from a 16-byte boundary; the matrix by
// vector kernels take leading terms up to it (misaligned doubles: the single
// mv kernels only).
TEST(Products, SecondSourceAtEveryAlignment) {
    unsigned seed = 7;
    for (const auto& e : product_exports())
        for (int align = 4; align <= 12 && e.form != 'P'; align += 4)
            if (align % (e.is64 ? 8 : 4) == 0 || (e.vec && !e.array)) {
                for (const Shape& s : e.vec ? shapes(true) : std::vector<Shape>{{5, 9, 3}, {4, 4, 4}, {3, 17, 2}})
                    ASSERT_TRUE((Call{s, 2, 1, align, false, false, seed++})(e));
            }
}

// ---------------------------------------------------------------------------
// The parallel wrapper: the last count that runs directly asks for no thread
// count, the first above the limit does, and its objects on 4 threads still
// get the reference's bits.
TEST(ProductThresholds, AtTheirBoundaries) {
    struct Boundary {
        const char* name;
        Shape sh;
        int step, direct;  // the last direct count
    };
    const Boundary cases[] = {
        // 3x3: 9 + 18 count against 36864 (contiguous), 18432 (strided, list), 9216 (pointer form)
        {"zelmMul_mam_32f", {3, 3, 3}, 1, 2047},
        {"zelmMul_mam_32f", {3, 3, 3}, 2, 1023},
        {"zelmMul_mam_32f_L", {3, 3, 3}, 1, 1023},
        {"zelmMul_mam_32f_P", {3, 3, 3}, 1, 511},
        // Gaxpy mva 4 wide, 3 high: (4 + 6) count against 5000, reached exactly
        {"zelmGaxpy_mva_32f", {3, 4, 1}, 1, 500},
        // Gaxpy mvav_64f order 4: 4 count + 4 (count + 1)
        {"zelmGaxpy_mvav_64f", {4, 4, 1}, 1, 624},
    };
    const auto exports = product_exports();
    for (const auto& b : cases) {
        const auto e = std::find_if(exports.begin(), exports.end(), [&](const Export& x) { return x.row->name == std::string(b.name); });
        ASSERT_NE(e, exports.end()) << b.name;
        for (int count : {b.direct, b.direct + 1}) {
            subst::Scope s(4);
            ASSERT_TRUE((Call{b.sh, count, b.step})(*e));
            EXPECT_EQ(subst::thread_queries.load() > 0, count > b.direct) << b.name << " count " << count;
        }
    }
}

}  // namespace
