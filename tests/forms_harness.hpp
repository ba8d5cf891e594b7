// A laid-out call of any grid export, for the families' table-driven tests:
// every operand group of the export's parameter list is laid out in the
// export's storage form (lay::build), every further pointer (pDst, pBuffer,
// pDstIndex, pSrcIndex, pDstValues, ...) is a plain block with a guard of
// sentinels behind it, and the call goes through the registry's generic
// caller. Tests set and read objects in logical terms (object n, row r,
// column c as stored), so one test body serves the standard, list and
// pointer forms.
//
//   fh::Laid<double> l(row, count, {{"Src", {4, 4}}, {"Dst", {4, 4}}}, {{"pBuffer", 20}});
//   l.num("widthHeight", 4);
//   l.set("Src", n, values);               // row-major
//   zelStatus st = l.call();
//   auto x = l.get("Dst", n);              // row-major
//   EXPECT_TRUE(l.guards_intact());
#pragma once

#include <gtest/gtest.h>

#include <cctype>
#include <map>
#include <memory>
#include <random>
#include <regex>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "layout.hpp"
#include "registry_table.hpp"

namespace fh {

inline const reg::ExportRow& row_named(const std::string& name) {
    for (const auto& r : reg::exports())
        if (name == r.name) return r;
    throw std::runtime_error("no export " + name);
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

// Runs f(float()) or f(double()) as the export's type says.
template <class F>
void with_type(const reg::ExportRow& r, F&& f) {
    if (is64(r)) f(double());
    else f(float());
}

using Shapes = std::map<std::string, std::pair<int, int>>;  // group -> rows, cols as stored
using Blocks = std::map<std::string, int>;                  // pointer -> elements in all

template <class T>
class Laid {
public:
    // `count` objects for the array groups (ignored where the export has
    // none); `alias` lays a group on another one's memory (in-place calls).
    Laid(const reg::ExportRow& row, int count, const Shapes& shapes, const Blocks& blocks = {},
         const lay::Layout& L = {}, unsigned seed = 1, const std::map<std::string, std::string>& alias = {})
        : row_(row), form_(row.form[0]), rng_(seed) {
        const auto params = reg::params_of(row);
        bool any_array = false;
        for (const auto& p : params) any_array |= p.name == "count";
        count_ = any_array ? count : 1;
        static const std::regex group_re("^(pp|p)(Src[123]?|Dst(VectorsRight|VectorsLeft|Vectors)?)$");
        for (const auto& p : params) {
            std::smatch m;
            if (p.pointer() && std::regex_match(p.name, m, group_re) && shapes.count(m[2].str())) {
                const std::string g = m[2].str();
                groups_[g].prefix = prefix_of(g);
                groups_[g].table = m[1].str() == "pp";
            } else if (p.pointer()) {
                const int n = blocks.count(p.name) ? blocks.at(p.name) : 0;
                if (p.type.find("int") != std::string::npos) {
                    ints_[p.name].assign(std::size_t(n) + kGuard, kIntSentinel);
                    args.ptrs[p.name] = ints_[p.name].data();
                } else {
                    reals_[p.name].assign(std::size_t(n) + kGuard, lay::sentinel<T>());
                    args.ptrs[p.name] = reals_[p.name].data();
                }
            } else if (p.name == "count") {
                args.nums["count"] = count_;
            }
        }
        auto has = [&](const std::string& n) {
            for (const auto& p : params)
                if (p.name == n) return true;
            return false;
        };
        for (auto& [g, gr] : groups_) {
            const auto [rows, cols] = shapes.at(g);
            // whether the group is an array: stride0 in the standard and
            // pointer forms, a table in the list form
            const bool array = form_ == 'L' ? gr.table : has(gr.prefix + "Stride0");
            if (alias.count(g)) continue;
            gr.op = std::make_shared<lay::Operand<T>>();
            gr.op->kind = rows == 1 ? 'v' : 'm';
            gr.op->array = array;
            gr.op->rows = rows;
            gr.op->cols = cols;
            gr.op->objs = array ? count_ : 1;
            lay::build(*gr.op, form_, L, g.rfind("Dst", 0) == 0, rng_);
        }
        for (const auto& [g, to] : alias) groups_.at(g).op = groups_.at(to).op;
        for (auto& [g, gr] : groups_) fill_args(g, gr);
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
    // Every object of a group from f(n, r, c).
    template <class F>
    void fill(const std::string& g, F&& f) {
        auto& o = *groups_.at(g).op;
        for (int n = 0; n < o.objs; ++n)
            for (int r = 0; r < o.rows; ++r)
                for (int c = 0; c < o.cols; ++c) *o.at(n, r, c) = T(f(n, r, c));
    }
    // The whole memory of a group, sentinels and gaps included.
    const std::vector<T>& memory(const std::string& g) const { return groups_.at(g).op->mem; }
    int objects(const std::string& g) const { return groups_.at(g).op->objs; }

    T* block(const std::string& name) { return reals_.at(name).data(); }
    int* index(const std::string& name) { return ints_.at(name).data(); }
    void num(const std::string& name, int v) { args.nums[name] = v; }
    void real(const std::string& name, double v) { args.reals[name] = v; }

    zelStatus call() {
        const auto c = reg::caller_of(row_.name);
        if (!c) throw std::runtime_error(std::string("no caller for ") + row_.name);
        return c(args);
    }

    // The guards behind every block still hold their sentinels.
    bool guards_intact() const {
        for (const auto& [n, v] : reals_)
            for (std::size_t k = v.size() - kGuard; k < v.size(); ++k)
                if (!same(v[k], lay::sentinel<T>())) return false;
        for (const auto& [n, v] : ints_)
            for (std::size_t k = v.size() - kGuard; k < v.size(); ++k)
                if (v[k] != kIntSentinel) return false;
        return true;
    }

    int count() const { return count_; }
    char form() const { return form_; }

    static bool same(T a, T b) { return std::memcmp(&a, &b, sizeof(T)) == 0; }
    static constexpr int kIntSentinel = 0x5A5A5A5A;
    static constexpr std::size_t kGuard = 8;

    reg::Args args;

private:
    struct Group {
        std::string prefix;  // of the stride and shift names: src, src1, dst, dstRight ...
        bool table = false;
        std::shared_ptr<lay::Operand<T>> op;
    };

    static std::string prefix_of(const std::string& g) {
        if (g == "DstVectors") return "dst";
        if (g == "DstVectorsRight") return "dstRight";
        if (g == "DstVectorsLeft") return "dstLeft";
        std::string x = g;
        x[0] = char(std::tolower(x[0]));
        return x;
    }

    void fill_args(const std::string& g, const Group& gr) {
        const auto& o = *gr.op;
        const std::string& x = gr.prefix;
        if (o.form == 'S') {
            args.ptrs["p" + g] = o.base;
            args.nums[x + "Stride0"] = o.s0;
            args.nums[x + "Stride1"] = o.s1;
            args.nums[x + "Stride2"] = o.s2;
        } else {
            args.ptrs["pp" + g] = const_cast<T**>(o.tab.data());
            args.nums[x + "Shift"] = o.shift;
            args.nums[x + "Stride0"] = o.s0;
            args.nums[x + "Stride1"] = o.s1;
            args.nums[x + "Stride2"] = o.s2;
        }
    }

    const reg::ExportRow& row_;
    char form_;
    int count_ = 1;
    std::mt19937 rng_;
    std::map<std::string, Group> groups_;
    std::map<std::string, std::vector<T>> reals_;
    std::map<std::string, std::vector<int>> ints_;
};

}  // namespace fh
