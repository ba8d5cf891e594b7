// Products and Gaxpy bit for bit against each kernel's documented
// association; the parallel wrapper's limits.
#include <cmath>

#include "forms_harness.hpp"
#include "products_reference.hpp"

namespace {

using pref::Kern;

struct Shape {
    int H, K, W;
};

// One export as the tests see it: the letters of its two sources ('m', 't', 'v').
struct Export {
    const reg::ExportRow* row;
    std::string sig = row->sig;
    bool is64 = fh::is64(*row), gaxpy = std::string(row->op) == "Gaxpy", array = sig.find('a') != std::string::npos;
    char form = row->form[0], la = gaxpy ? 'm' : sig[0], lb = gaxpy ? 'v' : sig[sig[1] == 'a' ? 2 : 1];
    bool vec() const { return lb == 'v'; }
};

// Mul of matrices and vectors (not by a constant, not the fixed-size ones), and Gaxpy.
std::vector<Export> product_exports() {
    std::vector<Export> out;
    for (const auto* r : fh::exports_of({"Mul", "Gaxpy"}))
        if (std::string(r->op) == "Gaxpy" || std::string(r->sig).find_first_of("c4") == std::string::npos) out.push_back({r});
    return out;
}

// A call of one export on one shape, laid out by the forms harness and
// checked against the reference's image of the destination's whole memory.
// `step`: element stride in elements (1: contiguous); `align`: the vector's
// byte offset past a 16-byte boundary (off its element: a single vector
// moved there); `tight`: rows and objects back to back; `negzero`: every
// term -0.0 (and y -0.0), which tells a sum that starts from +0.0 from one
// that starts from its first term.
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
        const int H = sh.H, K = sh.K, W = sh.W, esz = int(sizeof(T));
        const bool vec = e.vec();
        const Kern kern = pref::kern_of(e.form, step == 1);
        // stored shapes
        const int ar = e.la == 't' ? K : H, ac = e.la == 't' ? H : K;
        const int br = vec ? 1 : e.lb == 't' ? W : K, bc = vec ? K : e.lb == 't' ? K : W;
        lay::Layout L;
        L.k2 = L.dst_k2 = step, L.shift = 1, L.k0 = 3, L.lead = align % esz ? 0 : align / esz;
        if (!tight) L.pad1 = 1, L.pad0 = 2;
        fh::Laid<T> l(*e.row, count,
                      {{"src1Width", ac}, {"src1Height", ar}, {"src2Width", bc}, {"src2Height", br}, {"src2Len", K}, {"src3Len", H}}, L, seed);
        std::mt19937 gen(seed);
        auto fill = [&](const char* g, int sign) {  // sign 0: any, 1: -0.0, 2: positive
            l.fill(g, [&](int, int, int) {
                const T v = pref::spread<T>(gen);
                return sign == 1 ? T(-0.0) : sign == 2 ? std::fabs(v) : v;
            });
        };
        fill("Src1", negzero ? 1 : 0);
        fill("Src2", negzero ? 2 : 0);
        if (e.gaxpy) fill("Src3", negzero ? 1 : 0);
        std::vector<unsigned char> moved(std::size_t(K) * esz + 32);
        if (align % esz) {
            unsigned char* p = moved.data() + (16 - reinterpret_cast<std::uintptr_t>(moved.data()) % 16) % 16 + align;
            for (int k = 0; k < K; ++k) std::memcpy(p + k * esz, &l.at("Src2", 0, 0, k), esz);
            l.args.ptrs["pSrc2"] = p;
            l.num("src2Stride2", esz);
        }

        // the expected image of the destination's memory
        fh::Image<T> want(l, "Dst");
        auto put = [&](int n, int r, int c, T v) { want.put(n, r, c, v); };
        const int fast = (ar == ac && ac == K && (e.gaxpy || vec || (br == bc && br == K))) ? K : 0;
        for (int n = 0; n < l.count(); ++n) {
            auto av = [&](int i, int k) { return e.la == 't' ? l.at("Src1", n, k, i) : l.at("Src1", n, i, k); };
            auto bv = [&](int k, int j) {
                return vec ? l.at("Src2", n, 0, k) : e.lb == 't' ? l.at("Src2", n, j, k) : l.at("Src2", n, k, j);
            };
            // the vector's leading terms to its 16-byte boundary, -1 if off its element alignment
            const auto addr = align % esz ? std::uintptr_t(align) : reinterpret_cast<std::uintptr_t>(&l.at("Src2", n, 0, 0));
            const int lead = e.form == 'P' ? 0 : addr % esz ? -1 : int((16 - addr % 16) % 16) / esz;
            for (int i = 0; i < H; ++i)
                for (int j = 0; j < (vec ? 1 : W); ++j) {
                    std::vector<T> t(K);
                    for (int k = 0; k < K; ++k) t[k] = av(i, k) * bv(k, j);
                    if (!vec) {
                        put(n, i, j, pref::reference_sum(pref::mm_order(e.sig, e.is64, kern, fast, H, K, i), t, i));
                    } else if (!e.gaxpy) {
                        put(n, 0, i, pref::reference_sum(pref::mv_order(e.sig, e.is64, kern, fast, H, K, i, lead), t, i));
                    } else if (const int first = pref::gaxpy_y_first(e.sig, kern, fast, i); first >= 0) {
                        t.insert(t.begin(), t[first] + l.at("Src3", n, 0, i));  // then the others in order
                        t.erase(t.begin() + 1 + first);
                        put(n, 0, i, pref::reference_sum({pref::How::FirstSeq}, t));
                    } else {
                        put(n, 0, i, pref::reference_sum(pref::gaxpy_order(e.is64, kern, fast, K), t, i) + l.at("Src3", n, 0, i));
                    }
                }
        }
        return fh::call_matches(l, {want}) << " in " << e.row->name << " " << H << "x" << K << "x" << W << " count " << count
                                            << " step " << step << " align " << align << " negzero " << negzero;
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

// Every export at every shape: on each kernel (element steps 1 and 2), with
// -0.0 terms, with rows and objects back to back, and with the second source
// at every offset from a 16-byte boundary (the matrix by vector kernels take
// leading terms up to it; misaligned doubles: the single mv kernels only).
TEST(Products, EveryExportMatchesTheReferenceBitForBit) {
    const auto exports = product_exports();
    ASSERT_EQ(exports.size(), 148u);
    unsigned seed = 1;
    for (const auto& e : exports) {
        const bool P = e.form == 'P';
        const int by = e.is64 && (e.array || !e.vec()) ? 8 : 4;
        for (const Shape& s : shapes(e.vec()))
            for (int step : P ? std::vector<int>{1} : std::vector<int>{1, 2}) {
                ASSERT_TRUE((Call{s, 3, step, 0, false, false, seed++})(e));
                ASSERT_TRUE((Call{s, 2, step, 0, false, true, seed++})(e));
                if (P || step > 1) continue;
                for (int count : {3, 4}) ASSERT_TRUE((Call{s, count, 1, 0, true, false, seed++})(e));
                for (int align = by; align <= 12; align += by) ASSERT_TRUE((Call{s, 2, 1, align, false, false, seed++})(e));
            }
    }
}

// ---------------------------------------------------------------------------
// The parallel wrapper: the last count that runs directly asks for no thread
// count, the first above the limit forks (fh::expect_forks_from), and its
// objects on 2 threads still get the reference's bits.
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
    for (const auto& b : cases) {
        const Export e{&fh::row_named(b.name)};
        fh::expect_forks_from(b.direct + 1, [&](int count) { ASSERT_TRUE((Call{b.sh, count, b.step})(e)); }, b.name);
    }
}

}  // namespace
