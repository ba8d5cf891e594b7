// Vector algebra and reductions bit for bit against the documented
// associations and named long orders; thresholds; parallel against direct.
#include <xmmintrin.h>

#include <cmath>

#include "forms_harness.hpp"
#include "products_reference.hpp"

namespace {

using pref::eval_doc;
using pref::Kern;

// DotProduct and L2Norm beyond the written-out lengths: the pointer form's
// eight chains (c0 + c1 + ... + c7; vv and v) or three (odd, 0 mod 8, other
// even positions) over the terms below a multiple of 8, then the terms from
// the last down; P (the S2 and LS2 kernels but S2 of 64f), else from +0.0 at
// lengths up to 2 and 7, and from 8 on W (32f) or Q (64f), some with leading
// terms up to the 16-byte boundary of the second source `at` (a misaligned
// one: from +0.0).
template <class T>
T long_ref(const reg::ExportRow& r, Kern k, const std::vector<T>& t, const void* at) {
    const std::string sig = r.sig;
    const int len = int(t.size());
    const bool s2 = k == Kern::S2 || k == Kern::LS2, is64 = fh::is64(r), eight = sig == "vv" || sig == "v";
    if (k == Kern::P && len > 2)
        return pref::acc_sum(t, len / 8 * 8, [&](int j) { return eight ? j % 8 : j % 2 ? 0 : j % 8 ? 2 : 1; },
                             eight ? "0+1+2+3+4+5+6+7" : "(0+1)+2", true);
    if (s2 && !(is64 && k == Kern::S2) && len > 2) return pref::reference_sum(pref::Order{pref::How::Pair, 2}, t);
    int lead = 0;
    if (!s2 && (std::string(r.op) == "DotProduct" ? sig != "vava" || k == Kern::Std : sig == "v")) {
        const auto a = reinterpret_cast<std::uintptr_t>(at);
        lead = a % sizeof(T) ? len : int((16 - a % 16) % 16 / sizeof(T));
    }
    if (len <= 2 || len == 7 || len - lead < 8) return eval_doc<T>("S0", t);
    return pref::reference_sum(pref::Order{is64 ? pref::How::Eight64 : pref::How::Eight32, 8, lead}, t);
}

// The documented associations at lengths (Trace: orders) 3 to 6, of the
// products t(k) of DotProduct, the squares s(k) of L2Norm, the diagonal d(i);
// the kernels not listed add from the first term on ("S").
struct Doc {
    const char *op, *sigs, *types;
    std::vector<Kern> kerns;
    const char* at[4];
};
const std::vector<Doc> kDocs = {
    {"DotProduct", "vav", "32f", {Kern::Std, Kern::L}, {"S", "(0+1)+(2+3)", "S", "S"}},
    {"DotProduct", "vv vav vava", "64f", {Kern::Std, Kern::L},
     {"S", "(0+2)+(1+3)", "((0+2)+(1+3))+4", "((2+4)+0)+((3+5)+1)"}},
    {"DotProduct", "vv", "32f 64f", {Kern::S2}, {"(1+2)+0", "((1+3)+2)+0", "(((2+4)+3)+0)+1", "((((3+5)+4)+0)+1)+2"}},
    {"DotProduct", "vav", "32f 64f", {Kern::S2}, {"S", "((0+3)+1)+2", "(((3+4)+0)+1)+2", "((((4+5)+0)+1)+2)+3"}},
    {"DotProduct", "vav", "32f 64f", {Kern::LS2}, {"(1+2)+0", "((2+3)+1)+0", "(((3+4)+2)+0)+1", "((((4+5)+3)+0)+1)+2"}},
    {"DotProduct", "vava", "32f 64f", {Kern::S2, Kern::LS2},
     {"S", "((0+3)+1)+2", "(((0+4)+1)+2)+3", "((((0+5)+1)+2)+3)+4"}},
    {"L2Norm", "v", "32f", {Kern::Std}, {"S", "(0+1)+(2+3)", "((0+1)+(2+3))+4", "((0+1)+(2+3))+(4+5)"}},
    {"L2Norm", "va", "32f", {Kern::Std, Kern::L}, {"S", "S", "((0+1)+(2+3))+4", "((0+2)+4)+((1+3)+5)"}},
    {"L2Norm", "v va", "64f", {Kern::Std, Kern::L}, {"(0+2)+1", "(0+2)+(1+3)", "((0+2)+4)+(1+3)", "((0+2)+4)+((1+3)+5)"}},
    {"L2Norm", "v va", "32f 64f", {Kern::S2, Kern::LS2, Kern::P},
     {"S", "((0+3)+1)+2", "(((0+4)+1)+2)+3", "((((0+5)+1)+2)+3)+4"}},
    {"Trace", "m ma", "32f 64f", {Kern::S2, Kern::LS2}, {"(1+2)+0", "((2+3)+1)+0", "(((3+4)+2)+0)+1", "((((4+5)+3)+0)+1)+2"}},
};

std::string doc_at(const reg::ExportRow& r, Kern k, int n) {
    for (const auto& d : kDocs)
        if (r.op == std::string(d.op) && fh::has_word(d.sigs, r.sig) && fh::has_word(d.types, r.type) &&
            std::find(d.kerns.begin(), d.kerns.end(), k) != d.kerns.end())
            return d.at[n - 3];
    return "S";
}

// FrobNorm's documented orders of the squares q: `how` over q, or `how` over
// parts j, each `chain` over the squares from q(j) (columns) or q(W j)
// (rows); PAIRS and LANES the general ones.
struct FrobOrder {
    const char *how, *chain = nullptr;
    bool rows = false;
};
FrobOrder frob_order(const reg::ExportRow& r, Kern k, int W, int H, bool block) {
    const bool is64 = fh::is64(r), single = std::string(r.sig) == "m";
    const int n = W == H ? W : 0;
    if (k == Kern::P) return {!single && n == 3 ? "S" : "PAIRS"};
    if (W >= 8) return {"LANES"};
    if (single && !is64 && n >= 2 && n <= 5) {
        const FrobOrder o[] = {{"(0+1)+(2+3)"}, {"(0+1)+2", "(0+3)+6"}, {"(0+2)+(1+3)", "(0+4)+(8+12)"},
                               {"((0+2)+(1+3))+4", "((0+5)+(10+15))+20"}};
        return o[n - 2];
    }
    if (single || (n != 3 && n != 4)) return {"S"};
    if (k == Kern::Std && n == 3 && block)
        return {is64 ? "(((0+1)+8)+(2+5))+((3+4)+(6+7))" : "(((0+1)+8)+(2+3))+((4+5)+(6+7))"};
    if (k == Kern::Std && n == 3) return {is64 ? "(0+2)+1" : "(0+1)+2", "(0+3)+6"};
    if (k == Kern::Std && !is64) return {block ? "(0+1)+(2+3)" : "(0+2)+(1+3)", "(0+4)+(8+12)"};
    if (k == Kern::Std) return {"(((0+2)+(4+6))+((8+10)+(12+14)))+(((1+3)+(5+7))+((9+11)+(13+15)))"};
    if (n == 3) return {"0+1+2+4+3+5+8+6+7"};
    if (k == Kern::L && !is64) return {"S"};
    return {"(0+2)+(1+3)", "((0+1)+2)+3", true};
}

// The four-object square root of L2Norm_va_32f_S2 and _P at len 3: whether
// object n of `count` is in a block (results at `out`), and a block's result.
bool rsqrt_blocked(int n, int count, const void* out, bool first_alone) {
    const auto a = reinterpret_cast<std::uintptr_t>(out);
    const int from = first_alone ? 1 : 0, m = count - from;
    int p = 0;
    while (p < m && (a + 4u * unsigned(from + p)) % 16) ++p;
    if (a % 4 || m < 4 || m < p + 4) return false;
    return n >= from + p && n < from + p + (m - p) / 4 * 4;
}
float newton_root(float x) {
    float y = _mm_cvtss_f32(_mm_rsqrt_ss(_mm_set_ss(x)));
    if (!(std::fabs(x) >= 1.1754944e-38f)) y = 0.0f;
    const float u = x * y;
    return (u * ((y * u) - 3.0f)) * -0.5f;
}

// ---------------------------------------------------------------------------
// Layouts: dense, leading elements (the second source off its 16-byte
// boundary), 16-byte object strides, element steps of 2 and 3 with shifts.
std::vector<lay::Layout> layouts() {
    return {{},
            {.lead = 1, .shift = 1, .label = "lead 1"},
            {.pad0 = 1, .lead = 3, .label = "lead 3 pad 1"},
            {.pad0 = 1, .soa = false, .label = "pad 1, interleaved"},
            {.k2 = 2, .dst_k2 = 2, .k0 = 2, .label = "step 2"},
            {.k2 = 3, .dst_k2 = 1, .pad1 = 1, .shift = 2, .label = "step 3"}};
}

// A laid-out call of an export: `count` objects of H x W (vectors W), sources
// filled, constants set. L2Norm's results start 0 to 3 elements past a
// 16-byte boundary (the four-object square root's blocks then start after
// some single objects), and its objects 1, 2 and 5 sum to 0, a subnormal and
// an infinity. Object 0 of DotProduct and Trace has terms of -0.0 (a sum from
// +0.0 is +0.0, one from its first term -0.0); that of CrossProduct is a x a.
template <class T>
std::unique_ptr<fh::Laid<T>> laid(const reg::ExportRow& r, int count, int H, int W, const lay::Layout& L, unsigned seed) {
    auto l = std::make_unique<fh::Laid<T>>(r, count, fh::Sizes{{"len", W}, {"widthHeight", W}, {"width", W}, {"height", H}}, L,
                                           seed, std::map<std::string, std::string>{}, std::map<std::string, int>{{"pDst", count + 3}});
    std::mt19937 g(seed);
    const std::string op = r.op;
    for (const std::string s : {"Src1", "Src2", "Src"})
        if (l->has(s))
            l->fill(s, [&](int n, int i, int j) {
                const T v = pref::spread<T>(g);
                if (op == "L2Norm") return n == 1 ? T(0) : n == 2 ? T(1e-20) : n == 5 ? T(INFINITY) : v;
                if (n || op == "Saxpy" || op == "LComb" || op == "FrobNorm") return v;
                return op == "CrossProduct" ? (s == "Src2" ? l->at("Src1", 0, i, j) : v) : s == "Src2" ? std::fabs(v) : T(-0.0);
            });
    if (op == "L2Norm") l->args.ptrs["pDst"] = l->block("pDst") + seed % 4;
    l->real("val", 1.0 / 3), l->real("val1", 1.0 / 3), l->real("val2", -2.5);
    return l;
}

// Every export of `ops` at every size (H x W; vectors W), layout and count,
// its sources filled, handed to body(l, row, kernel, H, W, label) to call.
template <class Body>
void sweep(const std::vector<std::string>& ops, std::size_t exports, const std::vector<std::pair<int, int>>& sizes,
           const std::vector<int>& counts, Body&& body) {
    const auto rows = fh::exports_of(ops);
    ASSERT_EQ(rows.size(), exports);
    unsigned seed = 1;
    for (const auto* r : rows)
        for (const auto& size : sizes)
            for (const auto& L : layouts())
                for (int count : counts) fh::with_type(*r, [&](auto z) {
                    const auto [H, W] = size;
                    const std::string op = r->op;
                    if ((op == "Trace" && W != H) || (op == "CrossProduct" && W != 3)) return;
                    const auto l = laid<decltype(z)>(*r, count, H, W, L, seed++);
                    // the single FrobNorm matrix has one kernel for all strides
                    const Kern k = op == "FrobNorm" && std::string(r->sig) == "m" && r->form[0] != 'P'
                                       ? Kern::Std
                                       : pref::kern_of(r->form[0], L.k2 == 1 && (L.dst_k2 == 1 || !l->has("Dst")));
                    body(*l, *r, k, H, W, std::string(L.label));
                });
}

// ---------------------------------------------------------------------------
// The reference of object n of a reduction: the documented association at the
// written-out sizes, the named long orders beyond, and the block paths' own.
template <class T>
T reduction_ref(fh::Laid<T>& l, const reg::ExportRow& r, Kern k, int H, int W, int n) {
    const std::string op = r.op, sig = r.sig;
    const int cnt = l.count();
    const bool f32 = sizeof(T) == 4;
    if (op == "Trace") {
        std::vector<T> d(W);
        for (int i = 0; i < W; ++i) d[i] = l.at("Src", n, i, i);
        std::string how = W >= 3 && W <= 6 ? doc_at(r, k, W) : "S";
        // the S2 kernel of ma takes objects in pairs at the orders 3, 4, 5
        if (k == Kern::S2 && sig == "ma" && W <= 5 && n < cnt / 2 * 2) how = W == 5 ? "(((0+2)+1)+3)+4" : "S";
        return eval_doc<T>(how, d);
    }
    std::vector<T> q;
    if (op == "FrobNorm") {
        for (int i = 0; i < H; ++i)
            for (int j = 0; j < W; ++j) q.push_back(l.at("Src", n, i, j) * l.at("Src", n, i, j));
        const bool block = k == Kern::Std && sig == "ma" && n < cnt / 4 * 4 && (W == 3 || (W == 4 && f32));
        const FrobOrder o = frob_order(r, k, W, H, block);
        const std::string how = o.how;
        if (how == "PAIRS") {  // sums of adjacent squares, alternately into two accumulators
            const int m = int(q.size()) / 4 * 4;
            std::vector<T> u;
            for (int i = 0; i < int(q.size()); i += i < m ? 2 : 1) u.push_back(i < m ? q[i] + q[i + 1] : q[i]);
            return std::sqrt(pref::acc_sum(u, m / 2, [](int j) { return j % 2; }, "0+1"));
        }
        const int lanes = 16 / sizeof(T), Wl = W / lanes * lanes;  // LANES: the columns below Wl in lanes
        if (how == "LANES")
            return std::sqrt(pref::acc_sum(q, H * W, [&](int i) { return i % W < Wl ? i % W % lanes : lanes; },
                                           lanes == 4 ? "((0+2)+(1+3))+4" : "(0+1)+2"));
        std::vector<T> parts;
        for (int j = 0; o.chain && j < W; ++j) parts.push_back(eval_doc<T>(o.chain, {q.begin() + (o.rows ? W * j : j), q.end()}));
        return std::sqrt(eval_doc<T>(how, o.chain ? parts : q));
    }
    const bool dot = op == "DotProduct", va = sig == "va";
    const std::string first = dot ? "Src1" : "Src", second = dot ? "Src2" : "Src";
    for (int j = 0; j < W; ++j) q.push_back(l.at(first, n, 0, j) * l.at(second, n, 0, j));
    std::string how = W >= 3 && W <= 6 ? doc_at(r, k, W) : "";
    // the four-object blocks: DotProduct vava 32f at len 3 from 5 objects
    // with every pointer and stride0 on 16 bytes, L2Norm va 32f at len 5
    const bool aligned = dot && fh::aligned16({&l.at("Src1", 0, 0, 0), &l.at("Src2", 0, 0, 0), l.args.ptrs.at("pDst")}) &&
                         l.args.nums.at("src1Stride0") % 16 == 0 &&
                         l.args.nums.at("src2Stride0") % 16 == 0;
    if (dot && f32 && k == Kern::Std && sig == "vava" && W == 3 && cnt >= 5 && n < cnt / 4 * 4 && aligned)
        how = "(0+2)+1";
    if (!dot && f32 && (k == Kern::Std || k == Kern::L) && va && W == 5 && n < cnt / 4 * 4) how = "((0+2)+(1+3))+4";
    const T s = how.empty() ? long_ref<T>(r, k, q, &l.at(second, n, 0, 0)) : eval_doc<T>(how, q);
    if (!dot && f32 && va && W == 3 && (k == Kern::S2 || k == Kern::P) &&
        rsqrt_blocked(n, cnt, l.args.ptrs.at("pDst"), k == Kern::S2))
        return T(newton_root(float(s)));
    return dot ? s : std::sqrt(s);
}

TEST(VectorReductions, MatchTheDocumentedOrders) {
    const auto body = [](auto& l, const reg::ExportRow& r, Kern k, int H, int W, const std::string& label) {
        using T = std::remove_reference_t<decltype(l.at("", 0, 0, 0))>;
        // every result against the reference, the rest of pDst's block untouched
        fh::Image<T> want(l, "pDst");
        const auto at = static_cast<T*>(l.args.ptrs.at("pDst")) - l.block("pDst");
        for (int n = 0; n < l.count(); ++n) want.mem[at + n] = reduction_ref<T>(l, r, k, H, W, n);
        ASSERT_TRUE(fh::call_matches(l, {want})) << r.name << " " << H << "x" << W << " " << label;
    };
    sweep({"DotProduct", "L2Norm"}, 26,
          {{1, 1}, {1, 2}, {1, 3}, {1, 4}, {1, 5}, {1, 6}, {1, 7}, {1, 8}, {1, 9}, {1, 11}, {1, 16}, {1, 19}}, {4, 7, 19},
          body);
    sweep({"Trace", "FrobNorm"}, 20,
          {{1, 1}, {2, 2}, {3, 3}, {4, 4}, {5, 5}, {6, 6}, {7, 7}, {8, 8}, {3, 9}, {9, 3}, {5, 2}, {2, 12}}, {4, 7, 19},
          body);
}

// ---------------------------------------------------------------------------
// CrossProduct, Saxpy, LComb: each element of the destination from plain
// expressions, and every other byte of its memory untouched.
TEST(VectorCombinations, EveryExportMatchesPlainExpressions) {
    sweep({"CrossProduct", "Saxpy", "LComb"}, 60, {{1, 1}, {1, 3}, {1, 4}, {1, 5}, {1, 6}, {1, 9}, {1, 17}}, {1, 4, 7, 19, 41},
          [](auto& l, const reg::ExportRow& r, Kern, int, int len, const std::string& label) {
        using T = std::remove_reference_t<decltype(l.at("", 0, 0, 0))>;
        const std::string op = r.op;
        const T v1 = T(1.0 / 3), v2 = T(-2.5);
        fh::Image<T> want(l, "Dst");
        for (int n = 0; n < l.count(); ++n)
            for (int j = 0; j < len; ++j) {
                auto a = [&](int k) { return l.at("Src1", n, 0, k); };
                auto b = [&](int k) { return l.at("Src2", n, 0, k); };
                want.put(n, 0, j,
                    op == "CrossProduct" ? a((j + 1) % 3) * b((j + 2) % 3) - a((j + 2) % 3) * b((j + 1) % 3)
                    : op == "Saxpy"      ? a(j) * v1 + b(j)
                                         : a(j) * v1 + b(j) * v2);
            }
        ASSERT_TRUE(fh::call_matches(l, {want})) << r.name << " len " << len << " count " << l.count() << " " << label;
    });
}

// A documented example the sweeps do not reach: val1 0 still multiplies, so
// an infinity gives NaN.
TEST(VectorCombinations, WorkedExamples) {
    double x[2] = {INFINITY, 1}, y[2] = {1, 1}, e[2];
    ASSERT_EQ(zelmLComb_vv_64f(x, 8, 0.0, y, 8, 2.0, e, 8, 2), zelStsOk);
    EXPECT_TRUE(std::isnan(e[0]) && e[1] == 2.0);
}

// ---------------------------------------------------------------------------
// Thresholds: the first count through the wrapper (it asks for the thread
// count twice), the one before it direct (no question).
const struct Boundary {
    const char* name;
    int size;     // len, widthHeight, or width with height 1
    int wrapper;  // the first count through the wrapper
    bool strided;
} kBoundaries[] = {
    // DotProduct vav (count + 1) len, vava 2 len count: 40000 contiguous and _L,
    // 20000 other strides and _LS2; _P 20000 in 32f, 40000 in 64f
    {"zelmDotProduct_vava_32f", 100, 201, false}, {"zelmDotProduct_vava_32f", 100, 101, true},
    {"zelmDotProduct_vava_64f_L", 100, 201, false}, {"zelmDotProduct_vava_64f_L", 100, 101, true},
    {"zelmDotProduct_vav_32f_P", 100, 200, false}, {"zelmDotProduct_vav_64f_P", 100, 400, false},
    // L2Norm len count against 20000 everywhere
    {"zelmL2Norm_va_32f_L", 100, 201, false}, {"zelmL2Norm_va_64f", 100, 201, true},
    // CrossProduct: vav 2 count from 20000 (32f _L 40000), vava 3 count above 20000 (40000)
    {"zelmCrossProduct_vav_32f", 3, 10000, false}, {"zelmCrossProduct_vav_32f_L", 3, 20000, true},
    {"zelmCrossProduct_vva_64f_L", 3, 10000, false}, {"zelmCrossProduct_vava_64f", 3, 6667, false},
    {"zelmCrossProduct_vava_32f_L", 3, 13334, false},
    // Saxpy 40000 everywhere; LComb 20000, 32f _L with contiguous elements 40000
    {"zelmSaxpy_vava_32f", 100, 134, true}, {"zelmSaxpy_vav_64f_P", 100, 200, false},
    {"zelmLComb_vava_32f", 100, 67, false}, {"zelmLComb_vava_32f_L", 100, 134, false},
    {"zelmLComb_vav_32f_L", 100, 100, true}, {"zelmLComb_vav_64f_L", 100, 100, false},
    // Trace n count, FrobNorm w h count: 20000, 32f _L contiguous 40000
    {"zelmTrace_ma_64f", 3, 6667, false}, {"zelmTrace_ma_32f_L", 3, 13334, false},
    {"zelmTrace_ma_32f_L", 3, 6667, true}, {"zelmFrobNorm_ma_32f_P", 10, 2001, false},  // 10 x 1
    {"zelmFrobNorm_ma_64f_L", 10, 2001, false},
};

// One object below each boundary the call runs on the calling thread, at it
// the wrapper forks (fh::expect_forks_from).
TEST(VectorThresholds, AtTheirBoundaries) {
    for (const auto& b : kBoundaries) fh::with_type(fh::row_named(b.name), [&](auto z) {
        const auto& r = fh::row_named(b.name);
        const int H = std::string(r.op) == "Trace" ? b.size : 1;
        fh::expect_forks_from(b.wrapper, [&](int count) {
            EXPECT_EQ(laid<decltype(z)>(r, count, H, b.size, lay::steps(b.strided), 7)->call(), zelStsOk) << b.name;
        }, b.name);
    });
}

// Four threads give the bits of one, at sizes without block paths (those
// count their objects from the start of a slice and may differ); every array
// export enters the wrapper here but CrossProduct_vva_64f_P.
TEST(VectorThresholds, ParallelCallsGiveTheBitsOfDirectOnes) {
    for (const auto* r : fh::exports_of({"DotProduct", "L2Norm", "CrossProduct", "Saxpy", "LComb", "Trace", "FrobNorm"})) {
        const std::string sig = r->sig, op = r->op, name = r->name;
        if (sig.find('a') == std::string::npos) continue;
        const int size = op == "CrossProduct" ? 3 : op == "FrobNorm" ? 5 : 16, count = size == 3 ? 20001 : 2601;
        for (bool strided : {false, true}) fh::with_type(*r, [&](auto z) {
            fh::expect_same_on_threads<false>([&] { return std::move(*laid<decltype(z)>(*r, count, size, size, lay::steps(strided), 7)); },
                                              name != "zelmCrossProduct_vva_64f_P", name + (strided ? " strided" : ""));
        });
    }
}

}  // namespace
