// Add, Sub and multiplication by a constant: every export against a reference
// loop, bit for bit, the memory around the results included; the fan-out:
// which calls fork (ownGetNumThreads asked twice), with the same results.
#include <dlfcn.h>
#include <sys/mman.h>

#include <cmath>
#include <limits>

#include "forms_harness.hpp"

namespace {

using fh::row_named;
using fh::with_type;
using lay::Layout;

// Add and Sub of any grid signature, Mul by a constant.
std::vector<const reg::ExportRow*> elementwise_exports() {
    std::vector<const reg::ExportRow*> out;
    for (const auto* r : fh::exports_of({"Add", "Sub", "Mul"})) {
        const std::string sig = r->sig;
        if (sig.find_first_not_of("mtvca") == std::string::npos &&  // not the fixed-size v2...
            (std::string(r->op) != "Mul" || sig.find('c') != std::string::npos))
            out.push_back(r);
    }
    return out;
}

struct Letter {
    char kind;  // m t v c
    bool array;
};
std::vector<Letter> letters_of(const std::string& sig) {
    std::vector<Letter> out;
    for (char ch : sig) {
        if (ch == 'a') out.back().array = true;
        else out.push_back({ch, false});
    }
    return out;
}

// The source the destination can be (-1: none): the first read as stored (m
// or v) with as many objects as the result.
int in_place_source(const std::vector<Letter>& ls) {
    bool any_arr = false;
    for (auto l : ls) any_arr |= l.array;
    for (std::size_t i = 0; i < ls.size(); ++i)
        if ((ls[i].kind == 'm' || ls[i].kind == 'v') && (ls[i].array || !any_arr)) return int(i);
    return -1;
}

// One call of one export, laid out, run and checked; a constant array is the
// group Val of 1x1 objects. L.in_place makes the destination
// in_place_source(). `special`: the operands and constants are drawn from
// values whose results are infinities, NaN or signed zeros (inf * 0,
// max + max, 1 * -0, -0 + -0, -2 * inf), else random ones.
template <class T>
class Case {
public:
    Case(const reg::ExportRow& row, int w_or_len, int h, int count, const Layout& L, unsigned seed = 1, bool special = false)
        : name_(row.name), op_(row.op[0]), letters_(letters_of(row.sig)), rng_(seed), special_(special) {
        bool matrix = false;
        int nsrc = 0;
        for (auto l : letters_) matrix |= l.kind == 'm' || l.kind == 't', nsrc += l.kind != 'c';
        W_ = w_or_len, H_ = matrix ? h : 1;
        std::map<std::string, std::string> alias;
        for (std::size_t i = 0; i < letters_.size(); ++i) {
            const Letter l = letters_[i];
            groups_.push_back(l.kind == 'c' ? (l.array ? "Val" : "") : nsrc == 1 ? "Src" : "Src" + std::to_string(i + 1));
            if (L.in_place && int(i) == in_place_source(letters_)) alias["Dst"] = groups_[i];
        }
        l_ = std::make_unique<fh::Laid<T>>(row, count, fh::Sizes{{"width", W_}, {"len", W_}, {"height", H_}}, L, seed, alias);
        for (const auto& g : groups_)
            if (!g.empty()) l_->fill(g, [&](int, int, int) { return draw(); });
        val_ = draw();
        l_->real("val", double(val_));
    }

    // The destination memory a correct call leaves: what was there, with the
    // results written where the form puts them.
    fh::Image<T> expected() {
        fh::Image<T> out(*l_, "Dst");
        for (int n = 0; n < l_->count(); ++n)
            for (int i = 0; i < H_; ++i)
                for (int j = 0; j < W_; ++j) {
                    T v[2];
                    for (std::size_t k = 0; k < 2; ++k) {
                        const char kind = letters_[k].kind;
                        v[k] = kind == 'c' ? (letters_[k].array ? l_->at("Val", n, 0, 0) : val_)
                                           : l_->at(groups_[k], n, kind == 't' ? j : kind == 'v' ? 0 : i, kind == 't' ? i : j);
                    }
                    out.put(n, i, j, op_ == 'A' ? v[0] + v[1] : op_ == 'S' ? v[0] - v[1] : v[0] * v[1]);
                }
        return out;
    }

    // Runs the call and checks status and memory, the sources and constants
    // unchanged; false (with a gtest failure) on the first difference.
    bool run_and_check(const std::string& what) {
        std::vector<fh::Image<T>> images{expected()};  // and the sources as they were
        for (const auto& g : groups_)
            if (!g.empty() && &l_->memory(g) != &l_->memory("Dst")) images.emplace_back(*l_, g);
        const auto r = fh::call_matches(*l_, images);
        EXPECT_TRUE(r) << name_ << " " << what;
        return r;
    }

    // As a laid-out call: the checked call, the destination's memory.
    zelStatus call() { return run_and_check("") ? zelStsOk : zelStsErrGeneric; }
    std::vector<T> results() const { return l_->memory("Dst"); }

private:
    T draw() {
        const T v[] = {T(0), T(-0.0), T(INFINITY), T(-INFINITY), std::numeric_limits<T>::max(), T(1), T(-2)};
        return special_ ? v[rng_() % 7] : lay::random_value<T>(rng_);
    }

    std::string name_;
    char op_;  // A(dd), S(ub), M(ul)
    std::vector<Letter> letters_;
    std::mt19937 rng_;
    bool special_;
    int W_ = 1, H_ = 1;
    std::vector<std::string> groups_;  // by letter; "" for a single constant
    std::unique_ptr<fh::Laid<T>> l_;
    T val_{};
};

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
// layout and size, `counts` objects for the arrays, values as Case says.
void sweep(bool in_place, const std::vector<int>& counts, bool special = false) {
    const auto rows = elementwise_exports();
    ASSERT_EQ(rows.size(), 288u);
    for (const auto* row : rows) {
        if (in_place && in_place_source(letters_of(row->sig)) < 0) continue;
        unsigned seed = 1;
        for (lay::Layout L : kLayouts) {
            // equal strides; a destination table naming an object twice is no in-place call
            if (in_place) L.in_place = true, L.repeat = false, L.dst_k2 = L.k2;
            for (Size s : sizes_of(*row))
                for (int count : is_array_sig(row->sig) ? counts : std::vector<int>{1}) {
                    bool ok = true;
                    with_type(*row, [&](auto t) {
                        Case<decltype(t)> c(*row, s.w, s.h, count, L, seed++, special);
                        ok = c.run_and_check(std::string(in_place ? "in place " : special ? "special " : "") + L.label + " " + std::to_string(s.w) +
                                             "x" + std::to_string(s.h) + " count " + std::to_string(count));
                    });
                    if (!ok) return;  // one report per run is enough
                }
        }
    }
}

TEST(ElementwiseExports, MatchReferenceInEveryFormSizeCountAndLayout) { sweep(false, {1, 2, 5}); }

TEST(ElementwiseExports, InPlaceOnASourceReadAsStored) { sweep(true, {1, 5}); }

TEST(ElementwiseExports, NonFiniteValuesAndSignedZeros) { sweep(false, {5}, true); }

// 1x1 objects back to back read through a stride1 that no element uses.
TEST(ElementwiseExports, OneByOneObjectsBackToBackIgnoreStride1) {
    const Layout L{.pad1 = 2, .pad0 = -2, .label = "1x1 back to back, stride1 of 3"};
    for (const auto* row : elementwise_exports())
        if (is_array_sig(row->sig) && !is_vector_sig(row->sig))
            with_type(*row, [&](auto t) { Case<decltype(t)>(*row, 1, 1, 5, L).run_and_check(L.label); });
}

// Source rows that overlap (stride1 below the row) read as they lie.
TEST(ElementwiseExamples, OverlappingRowsReadAHankelPattern) {
    float src[8] = {1, 2, 3, 4, 5, 6, 7, 8}, dst[9];
    ASSERT_EQ(zelmMul_mc_32f(src, 4, 4, 1.0f, dst, 12, 4, 3, 3), zelStsOk);
    for (int i = 0; i < 9; ++i) EXPECT_EQ(dst[i], src[i / 3 + i % 3]);
}

// The documented work estimates of the array signatures (w x h objects or
// vectors of len w, c of them) and their thresholds by kernel: standard form
// with every stride2 the element size, with others; list form 32f and 64f,
// contiguous, then other; pointer form. Matrices of Add and Sub start the
// wrapper at the threshold, the rest above it. The sizes make the estimate
// meet some thresholds exactly.
struct Limit {
    const char *ops, *sigs;
    long long (*est)(long long w, long long h, long long c);
    bool strict;
    int w, h;
    int thr[7];
};
#define ZEL_EST(e) [](long long w, long long h, long long c) { return (void)w, (void)h, (long long)(e); }
constexpr int kMat[7] = {36864, 18432, 18432, 18432, 18432, 18432, 9216};
const Limit kLimits[] = {
    {"Add Sub", "mam mat tam tat mma mta tma tta", ZEL_EST(w * h * (2 * c + 1)), false, 3, 3, {}},
    {"Add Sub", "mama mata tama tata", ZEL_EST(3 * w * h * c), false, 4, 4, {}},  // 48 c: exactly at 768, 384, 192
    {"Add Sub", "vav vva vac", ZEL_EST(w * (2 * c + 1)), true, 32, 1, {20000, 20000, 40000, 20000, 40000, 20000, 20000}},
    {"Add Sub", "vca cav", ZEL_EST(w * c + w + c), true, 2, 1, {20000, 20000, 40000, 20000, 40000, 20000, 20000}},
    {"Add Sub", "vaca cava", ZEL_EST(2 * w * c + c), true, 2, 1, {20000, 20000, 40000, 20000, 40000, 20000, 20000}},
    {"Add Sub", "vava", ZEL_EST(3 * w * c), true, 2, 1, {20000, 20000, 40000, 20000, 40000, 20000, 20000}},
    {"Add Sub", "cva", ZEL_EST(2 * c), true, 3, 1, {19999, 19999, 39999, 19999, 39999, 19999, 19999}},
    {"Mul", "mac tac", ZEL_EST(2 * w * h * c), true, 5, 5, {35000, 35000, 35000, 35000, 15000, 35000, 17000}},
    {"Mul", "vac", ZEL_EST(2 * w * c), true, 4, 1, {}},
    {"Mul", "vca", ZEL_EST(w * c + w + c), true, 4, 1, {36864, 36864, 18432, 18432, 18432, 18432, 9216}},
    {"Mul", "vaca", ZEL_EST(2 * w * c + c), true, 1, 1, {36864, 36864, 18432, 18432, 18432, 18432, 9216}},
};
#undef ZEL_EST

// Every array export at its kernels' thresholds, with a remainder in the
// slices: one object below the boundary it runs on the calling thread (no
// question), at it the wrapper forks (asked twice); on 1 thread, on 4 and on
// 4 with a failing scratch allocation (the wrappers take none) the same bits.
// zelmSub_vva_64f_P has no wrapper.
TEST(FanOut, EachThresholdAtItsExactBoundary) {
    int boundaries = 0;
    for (const auto* row : elementwise_exports()) {
        const std::string sig = row->sig, name = row->name;
        if (!is_array_sig(row->sig)) continue;
        const Limit* lim = nullptr;
        for (const auto& l : kLimits)
            if (fh::has_word(l.ops, row->op) && fh::has_word(l.sigs, sig)) lim = &l;
        ASSERT_NE(lim, nullptr) << name;
        const char form = row->form[0];
        for (bool strided : {false, true}) {
            if (form == 'P' && strided) continue;
            const int* thr = lim->thr[0] ? lim->thr : kMat;
            const int limit = form == 'P' ? thr[6] : form == 'S' ? thr[strided] : thr[2 + 2 * strided + fh::is64(*row)];
            int at = 1;
            while (lim->strict ? lim->est(lim->w, lim->h, at) <= limit : lim->est(lim->w, lim->h, at) < limit) ++at;
            for (int count : {at - 1, at})
                with_type(*row, [&](auto t) {
                    fh::expect_same_on_threads<false>(
                        [&] { return Case<decltype(t)>(*row, lim->w, lim->h, count, lay::steps(strided), unsigned(count)); },
                        count == at && name != "zelmSub_vva_64f_P",
                        name + (strided ? " strided" : " contiguous") + ", limit " + std::to_string(limit) + ", count " + std::to_string(count));
                });
            ++boundaries;
        }
    }
    EXPECT_GT(boundaries, 300);
}

// Inside the wrapper, a call of fewer objects than threads, or on one
// thread, runs the kernel on the calling thread (asked once); one of as
// many objects as threads forks (asked twice). 100x100: far above the limit.
TEST(FanOut, FewerObjectsThanThreadsGoDirectInsideTheWrapper) {
    for (int count : {3, 4})
        for (int threads : {1, 4}) {
            Case<float> c(row_named("zelmAdd_mam_32f"), 100, 100, count, Layout(), unsigned(count));
            subst::Scope scope(threads);
            EXPECT_TRUE(c.run_and_check("count " + std::to_string(count)));
            EXPECT_EQ(subst::thread_queries, threads == 4 && count == 4 ? 2 : 1) << count << " objects on " << threads;
        }
}

// A runtime that gives fewer threads than asked (here: none at all) still
// covers every object: the split follows the real team size, the results are
// those of one thread.
TEST(FanOut, ARuntimeThatGivesOneThreadStillCoversAllObjects) {
    using SetLevels = void (*)(int);
    using GetLevels = int (*)();
    auto set_levels = reinterpret_cast<SetLevels>(dlsym(RTLD_DEFAULT, "omp_set_max_active_levels"));
    auto get_levels = reinterpret_cast<GetLevels>(dlsym(RTLD_DEFAULT, "omp_get_max_active_levels"));
    if (!set_levels || !get_levels) GTEST_SKIP() << "no OpenMP runtime in the process";
    const int saved = get_levels();
    set_levels(0);  // every parallel region runs as a team of one
    if (get_levels() != 0) {
        set_levels(saved);
        GTEST_SKIP() << "the runtime keeps parallel regions active";
    }
    for (const char* n : {"zelmAdd_mama_32f", "zelmSub_tam_64f_L", "zelmMul_vaca_32f_P"}) {
        const auto& row = row_named(n);
        const bool vec = is_vector_sig(row.sig);
        with_type(row, [&](auto t) {
            fh::expect_same_on_threads<false>([&] { return Case<decltype(t)>(row, vec ? 3000 : 60, vec ? 1 : 60, 11, Layout()); }, true,
                                              std::string(n) + " on a team of one");
        });
    }
    set_levels(saved);
}

// Pointer-form objects more than 2 GB apart in all: a slice starts at shift +
// first * stride0 reckoned in 64 bits (one element per object, a page
// apart; the address space reserved, a page per object touched).
TEST(FanOut, PointerFormSlicesReachPast2GB) {
    if (sizeof(void*) < 8) GTEST_SKIP() << "a 32-bit address space";
    const int count = 4800, s0 = 600000, step = s0 / 4;
    const std::size_t bytes = std::size_t(count) * s0;
    void* m = mmap(nullptr, 2 * bytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    if (m == MAP_FAILED) GTEST_SKIP() << "no 6 GB of address space";
    float* src = static_cast<float*>(m);
    float* dst = src + bytes / 4;
    for (int n = 0; n < count; ++n) src[std::size_t(n) * step] = float(n);
    const float* ps = src;
    float* pd = dst;
    {
        subst::Scope scope(4);
        EXPECT_EQ(zelmMul_vac_32f_P(&ps, 0, s0, 2.0f, &pd, 0, s0, 1, count), zelStsOk);
        EXPECT_EQ(subst::thread_queries, 2);
    }
    int wrong = 0;
    for (int n = 0; n < count; ++n) wrong += dst[std::size_t(n) * step] != float(2 * n);
    EXPECT_EQ(wrong, 0);
    munmap(m, 2 * bytes);
}

// A thread count that grows between the wrapper's two questions (another
// thread of the application sets it) runs no more threads than the scratch
// blocks asked for: nothing written past the block, the bits of one thread.
TEST(FanOut, AThreadCountGrownAfterTheScratchWasSizedStaysWithinIt) {
    const int n = 4, count = 2000;
    std::vector<float> a(n * n * count), one(n * count), many(n * count), buf(n * n + 2 * n);
    std::mt19937 rng(3);
    for (int k = 0; k < count; ++k)
        for (int i = 0; i < n; ++i)
            for (int j = 0; j <= i; ++j) a[(k * n + i) * n + j] = a[(k * n + j) * n + i] = lay::random_value<float>(rng);
    auto run = [&](float* out) { return zelmEigenValuesSym_ma_32f(a.data(), 4 * n * n, 4 * n, 4, buf.data(), out, n, count); };
    {
        subst::Scope scope(1);
        ASSERT_EQ(run(one.data()), zelStsOk);
    }
    subst::Scope scope(2);
    subst::grow_threads = 4;
    ASSERT_EQ(run(many.data()), zelStsOk);
    EXPECT_EQ(subst::mallocs, 1);
    EXPECT_EQ(subst::overruns, 0);
    EXPECT_EQ(one, many);
}

}  // namespace
