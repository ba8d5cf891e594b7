// A laid-out call of any grid export, for the families' table-driven tests:
// every operand group the registry gives the export is laid out in the
// export's storage form (lay::build), every further pointer (pDst, pBuffer,
// pDstIndex, pSrcIndex, pDstValues, ...) is a plain block of the registry's
// extent with a guard of sentinels behind it, and the call goes through the
// registry's generic caller. Tests set and read objects in logical terms
// (object n, row r, column c as stored), so one test body serves the
// standard, list and pointer forms.
//
//   fh::Laid<double> l(row, count, {{"widthHeight", 4}});
//   l.set("Src", n, values);               // row-major
//   zelStatus st = l.call();
//   auto x = l.get("Dst", n);              // row-major
//   EXPECT_TRUE(l.guards_intact());
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <bit>
#include <cctype>
#include <cstdint>
#include <cstring>
#include <map>
#include <memory>
#include <random>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "arena_call.hpp"
#include "registry_table.hpp"
#include "substitutes.hpp"

// How operands lie in memory: one object array in any storage form with the
// padding, shifts and table orders a case asks for, sentinels elsewhere.
namespace lay {

// How the operands of a case lie in memory.
struct Layout {
    int k2 = 1;           // stride2 in elements (standard and list forms)
    int dst_k2 = 1;       // the destination's
    int pad1 = 0;         // extra elements at the end of each stored row
    int pad0 = 0;         // extra elements after each object
    int lead = 0;         // elements before the first object
    int dst_lead = 0;     // the destination's further ones (standard form)
    int shift = 0;        // shift in elements (list and pointer forms)
    bool repeat = false;  // list form: a source table names one object twice
    bool soa = true;      // pointer form: objects of an element position adjacent (else interleaved)
    bool scramble = true;  // tables in scrambled memory order
    int k0 = 1;           // pointer form, soa: stride0 in elements
    bool in_place = false;  // the destination is the first array source read as m or v
    bool columns = false;   // column-major: stride1 one element, stride2 a column (standard and list forms)
    const Layout* dst = nullptr;  // the destination's own layout, laid out as a source's
    const char* label = "dense";
};

// Dense, or (strided) with an element step of 2 in every operand: the
// kernels for other steps.
inline Layout steps(bool strided) {
    Layout L;
    if (strided) L.k2 = L.dst_k2 = 2, L.label = "strided";
    return L;
}

// A group as laid out in memory of its own (`mem`).
template <class T>
struct Operand : ac::Place {
    std::vector<T> mem;
    T* at(int n, int r, int c) const { return reinterpret_cast<T*>(Place::at(n, r, c)); }
};

template <class T>
inline T sentinel() {
    // a signalling-looking NaN with a payload that no arithmetic produces
    if constexpr (sizeof(T) == 4) return std::bit_cast<T>(std::uint32_t(0x7FA5A5A5u));
    else return std::bit_cast<T>(std::uint64_t(0x7FF5A5A5A5A5A5A5ull));
}

// Lays out one matrix/vector operand, shaped and in its form, in memory of
// its own: the standard form at its leading elements, the entries of a table
// (objects, element positions) `step` elements apart in an order `rng`
// scrambles.
template <class T>
void build(Operand<T>& o, const Layout& L, bool is_dst, std::mt19937& rng) {
    const int sz = int(sizeof(T));
    const bool array = o.g->array();
    const int entries = o.form == 'L' ? o.objs : o.rows * o.cols;
    o.shift = o.form == 'S' ? 0 : L.shift * sz;
    int first = 0, step = 1, elems;
    if (o.form != 'P') {
        o.dense(sz, L.columns ? o.rows : is_dst ? L.dst_k2 : L.k2, L.pad1, L.pad0);
        const int obj = o.s0 / sz;
        if (L.columns) o.s1 = sz;
        if (o.form == 'S') {
            if (!array) o.s0 = 0;
            first = L.lead + (is_dst ? L.dst_lead : 0);
            elems = first + obj * o.objs;
        } else {
            o.s0 = 0;
            step = obj + L.shift;
            elems = step * o.objs;
        }
    } else if (L.soa) {  // each element position in a lane of its own
        step = L.shift + (array ? (o.objs - 1) * L.k0 + 1 : 1) + 1;
        o.s0 = array ? L.k0 * sz : 0;
        elems = step * entries;
    } else {  // the elements of an object adjacent
        const int pitch = entries + L.pad0;
        o.s0 = array ? pitch * sz : 0;
        elems = L.shift + pitch * o.objs;
    }
    o.mem.assign(std::size_t(elems) + 4, sentinel<T>());
    unsigned char* const start = reinterpret_cast<unsigned char*>(o.mem.data() + first);
    if (o.form == 'S') {
        o.base = start;
        return;
    }
    std::vector<int> perm(entries);
    for (int e = 0; e < entries; ++e) perm[e] = e;
    if (L.scramble) std::shuffle(perm.begin(), perm.end(), rng);
    for (int e = 0; e < entries; ++e) o.table.push_back(start + std::size_t(perm[e]) * step * sz);
    if (L.repeat && !is_dst && o.form == 'L' && o.objs >= 2) o.table[o.objs - 1] = o.table[0];
}

template <class T>
T random_value(std::mt19937& rng) {
    std::uniform_real_distribution<double> d(-8.0, 8.0);
    // full mantissas, so that every sum and product has to be rounded
    return T(d(rng)) * T(1.0000001);
}

}  // namespace lay

namespace fh {

inline const reg::ExportRow& row_named(const std::string& name) {
    for (const auto& r : reg::exports())
        if (name == r.name) return r;
    throw std::runtime_error("no export " + name);
}

// The standard-form export of r's operation, signature and type.
inline const reg::ExportRow& standard_of(const reg::ExportRow& r) {
    return row_named("zelm" + std::string(r.op) + "_" + r.sig + "_" + r.type);
}

// The implemented grid exports of some operations, in registry order.
inline std::vector<const reg::ExportRow*> exports_of(const std::vector<std::string>& ops) {
    std::vector<const reg::ExportRow*> out;
    for (const auto& r : reg::exports())
        if (r.implemented && *r.sig)
            for (const auto& o : ops)
                if (o == r.op) out.push_back(&r);
    return out;
}

inline bool is64(const reg::ExportRow& r) { return std::string(r.type) == "64f"; }

// Whether w is one of the words of `list`.
inline bool has_word(const std::string& list, const std::string& w) {
    return (" " + list + " ").find(" " + w + " ") != std::string::npos;
}

// Whether every address is on a 16-byte boundary.
inline bool aligned16(std::initializer_list<const void*> ps) {
    for (const void* p : ps)
        if (reinterpret_cast<std::uintptr_t>(p) % 16) return false;
    return true;
}

// Runs f(float()) or f(double()) as the export's type says.
template <class F>
void with_type(const reg::ExportRow& r, F&& f) {
    if (is64(r)) f(double());
    else f(float());
}

using Sizes = std::map<std::string, int>;  // size arguments by name: width, len, widthHeight ...

inline bool same_bits(const void* a, const void* b, std::size_t bytes) { return std::memcmp(a, b, bytes) == 0; }
template <class T>
bool same(T a, T b) { return same_bits(&a, &b, sizeof(T)); }
template <class T>
bool same(const std::vector<T>& a, const std::vector<T>& b) {
    return a.size() == b.size() && same_bits(a.data(), b.data(), a.size() * sizeof(T));
}
// Still the sentinel: nothing was stored there.
template <class T>
bool untouched(T x) { return same(x, lay::sentinel<T>()); }

// The parallel wrapper of an array export forks from `at` objects on:
// call(count) lays out and runs a call of `count` objects. One object fewer
// runs on the calling thread without asking for the thread count; at `at`
// the wrapper asks for it and forks (asked again).
template <class Call>
void expect_forks_from(int at, Call&& call, const std::string& what) {
    for (int count : {at - 1, at}) {
        subst::Scope scope(2);
        call(count);
        EXPECT_EQ(subst::thread_queries, count == at ? 2 : 0) << what << " count " << count;
    }
}

// make() lays out a fresh call (an fh::Laid, or anything with call() and
// results()): on 1 thread, on 4 and on 4 whose scratch allocation fails it
// gives the same results. A call above the wrapper's limit (`fans`) asks for
// the thread count, on 4 threads twice (it forks); with Scratch it takes one
// scratch block per forking call on 4 threads, freed once, leaving the
// caller's pBuffer alone. One below neither asks nor allocates.
template <bool Scratch = true, class Make>
void expect_same_on_threads(Make make, bool fans, const std::string& what) {
    std::vector<decltype(make().results())> bits;
    for (int mode = 0; mode < 3; ++mode) {
        auto l = make();
        subst::Scope scope(mode ? 4 : 1, -1, mode == 2);
        ASSERT_EQ(l.call(), zelStsOk) << what;
        EXPECT_EQ(subst::thread_queries > 0, fans) << what << " mode " << mode;
        EXPECT_TRUE(mode == 2 || !fans || subst::thread_queries == mode + 1) << what << " mode " << mode << " asked " << subst::thread_queries;
        EXPECT_EQ(subst::mallocs.load(), int(Scratch && mode && fans)) << what << " mode " << mode;
        EXPECT_EQ(subst::frees.load(), int(Scratch && mode == 1 && fans)) << what << " mode " << mode;
        if constexpr (Scratch) {
            EXPECT_TRUE(mode != 1 || !fans || untouched(l.block("pBuffer")[0])) << what;
        }
        bits.push_back(l.results());
    }
    EXPECT_TRUE(same(bits[0], bits[1]) && same(bits[0], bits[2])) << what;
}

template <class T>
class Laid {
public:
    // The operand groups and further pointers of the export as the registry
    // describes them, at the given sizes: `count` objects for the array groups
    // (ignored where the export has none); `alias` lays a group on another
    // one's memory (in-place calls); `blocks` gives some pointers more
    // elements than the registry's extent.
    Laid(const reg::ExportRow& row, int count, const Sizes& sizes, const lay::Layout& L = {}, unsigned seed = 1,
         const std::map<std::string, std::string>& alias = {}, const std::map<std::string, int>& blocks = {})
        : row_(row), rng_(seed) {
        const auto params = reg::params_of(row);
        const bool arrays = !reg::type_of(params, "count").empty();
        count_ = arrays ? count : 1;
        std::map<std::string, std::int64_t> names{{"count", count_}};
        for (const auto& [k, v] : sizes) names[k] = args.nums[k] = v;
        if (arrays) args.nums["count"] = count_;
        const auto shapes = ac::shapes_of(row, names);  // the registry's groups, shaped
        for (const auto& p : shapes.groups) {
            auto& gr = groups_[p.g->role];
            gr.g = p.g;
            if (alias.count(p.g->role)) continue;
            gr.op = std::make_shared<lay::Operand<T>>();
            static_cast<ac::Place&>(*gr.op) = p;
            lay::build(*gr.op, p.dst && L.dst ? *L.dst : L, p.dst && !L.dst, rng_);
        }
        for (const auto& [g, to] : alias) groups_.at(g).op = groups_.at(to).op;
        for (auto& [g, gr] : groups_) ac::pass(args, *gr.g, *gr.op, gr.op->table.data());
        for (const auto& b : ac::spec_of(row.name).blocks) {
            const std::size_t n = blocks.count(b.param) ? blocks.at(b.param) : shapes.extent(b);
            if (reg::type_of(params, b.param).find("int") != std::string::npos) {
                ints_[b.param].assign(n + kGuard, kIntSentinel);
                args.ptrs[b.param] = ints_[b.param].data();
            } else {
                reals_[b.param].assign(n + kGuard, lay::sentinel<T>());
                args.ptrs[b.param] = reals_[b.param].data();
                if (b.role == "out") outs_.push_back(b.param);
            }
        }
    }

    // Object n of a group, row-major over its stored rows and columns.
    void set(const std::string& g, int n, const std::vector<T>& v) {
        auto& o = *groups_.at(g).op;
        for (int r = 0, k = 0; r < o.rows; ++r)
            for (int c = 0; c < o.cols; ++c, ++k) *o.at(n, r, c) = v.at(k);
    }
    std::vector<T> get(const std::string& g, int n) {
        auto& o = *groups_.at(g).op;
        std::vector<T> v;
        for (int r = 0; r < o.rows; ++r)
            for (int c = 0; c < o.cols; ++c) v.push_back(*o.at(n, r, c));
        return v;
    }
    T& at(const std::string& g, int n, int r, int c) { return *groups_.at(g).op->at(n, r, c); }
    // f(element, n, r, c) for every element of every object of a group.
    template <class F>
    void each(const std::string& g, F&& f) {
        groups_.at(g).op->each([&](unsigned char* p, int n, int r, int c) { f(*reinterpret_cast<T*>(p), n, r, c); });
    }
    // Every object of a group from f(n, r, c).
    template <class F>
    void fill(const std::string& g, F&& f) {
        each(g, [&](T& x, int n, int r, int c) { x = T(f(n, r, c)); });
    }
    // The whole memory of a group or a block, sentinels, gaps and guard included.
    const std::vector<T>& memory(const std::string& g) const { return groups_.count(g) ? groups_.at(g).op->mem : reals_.at(g); }
    int objects(const std::string& g) const { return groups_.at(g).op->objs; }

    // What the call stored for object k: its elements of every destination
    // group and its share of every result block; k < 0: the whole memory of
    // those, gaps, sentinels and guards included.
    std::vector<T> results(int k = -1) {
        std::vector<T> v;
        for (const auto& [g, gr] : groups_) {
            if (g.rfind("Dst", 0) != 0) continue;
            const auto x = k < 0 ? gr.op->mem : get(g, k);
            v.insert(v.end(), x.begin(), x.end());
        }
        for (const auto& b : outs_) {
            const auto& m = reals_.at(b);
            const std::size_t per = (m.size() - kGuard) / count_;
            v.insert(v.end(), k < 0 ? m.begin() : m.begin() + per * k, k < 0 ? m.end() : m.begin() + per * (k + 1));
        }
        return v;
    }
    bool has(const std::string& g) const { return groups_.count(g) != 0; }

    T* block(const std::string& name) { return reals_.at(name).data(); }
    int* index(const std::string& name) { return ints_.at(name).data(); }
    void num(const std::string& name, int v) { args.nums[name] = v; }
    void real(const std::string& name, double v) { args.reals[name] = v; }

    zelStatus call() { return ac::call(row_, args); }

    // The guards behind every block still hold their sentinels.
    bool guards_intact() const {
        for (const auto& [n, v] : reals_)
            for (std::size_t k = v.size() - kGuard; k < v.size(); ++k)
                if (!untouched(v[k])) return false;
        for (const auto& [n, v] : ints_)
            for (std::size_t k = v.size() - kGuard; k < v.size(); ++k)
                if (v[k] != kIntSentinel) return false;
        return true;
    }

    int count() const { return count_; }
    char form() const { return row_.form[0]; }

    static constexpr int kIntSentinel = 0x5A5A5A5A;
    static constexpr std::size_t kGuard = 8;

    reg::Args args;

private:
    struct Group {
        const ac::GroupSpec* g;  // the registry's: role, prefix of the stride and shift names
        std::shared_ptr<lay::Operand<T>> op;  // another group's where laid on its memory
    };

    const reg::ExportRow& row_;
    int count_ = 1;
    std::mt19937 rng_;
    std::map<std::string, Group> groups_;
    std::map<std::string, std::vector<T>> reals_;
    std::map<std::string, std::vector<int>> ints_;
    std::vector<std::string> outs_;  // the result blocks
};

// The memory of a group or block as it must be after a call: what it held
// before, with the elements the call stores put in.
template <class T>
struct Image {
    Laid<T>& l;
    std::string g;
    std::vector<T> mem;
    Image(Laid<T>& laid, const std::string& group) : l(laid), g(group), mem(laid.memory(group)) {}
    void put(int n, int r, int c, T v) { mem[&l.at(g, n, r, c) - l.memory(g).data()] = v; }
    // The first element that differs from the memory as it is now (mem.size(): none).
    std::size_t first_difference() const {
        std::size_t k = 0;
        while (k < mem.size() && same(mem[k], l.memory(g)[k])) ++k;
        return k;
    }
};

// Calls l: the status `want`, every image matched (what must stand in those
// groups and blocks afterwards), the guards intact; else what differs first.
template <class T>
::testing::AssertionResult call_matches(Laid<T>& l, const std::vector<Image<T>>& images, zelStatus want = zelStsOk) {
    if (const zelStatus st = l.call(); st != want) return ::testing::AssertionFailure() << "status " << st << ", expected " << want;
    for (const auto& im : images)
        if (const std::size_t k = im.first_difference(); k < im.mem.size())
            return ::testing::AssertionFailure() << im.g << " element " << k << " is " << im.l.memory(im.g)[k] << ", expected " << im.mem[k];
    if (!l.guards_intact()) return ::testing::AssertionFailure() << "wrote past a block";
    return ::testing::AssertionSuccess();
}

}  // namespace fh
