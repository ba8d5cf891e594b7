// One laid-out element-wise call (fh::Laid), checked bit for bit against a
// plain loop, the bytes between and around the results included.
#pragma once

#include <gtest/gtest.h>

#include <cstring>
#include <map>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "forms_harness.hpp"
#include "layout.hpp"
#include "registry_table.hpp"

namespace ewt {

using fh::row_named;
using fh::with_type;
using lay::Layout;

// Add and Sub of any grid signature, Mul by a constant.
inline std::vector<const reg::ExportRow*> elementwise_exports() {
    const std::string by_constant = " mc tc vc mac tac vac vca vaca ";
    std::vector<const reg::ExportRow*> out;
    for (const auto* r : fh::exports_of({"Add", "Sub", "Mul"})) {
        const std::string sig = r->sig;
        if (sig.find_first_not_of("mtvca") == std::string::npos &&  // not the fixed-size v2...
            (std::string(r->op) != "Mul" || by_constant.find(" " + sig + " ") != std::string::npos))
            out.push_back(r);
    }
    return out;
}

struct Letter {
    char kind;  // m t v c
    bool array;
};
inline std::vector<Letter> letters_of(const std::string& sig) {
    std::vector<Letter> out;
    for (char ch : sig) {
        if (ch == 'a') out.back().array = true;
        else out.push_back({ch, false});
    }
    return out;
}

// The source the destination can be (-1: none): the first read as stored (m
// or v) with as many objects as the result.
inline int in_place_source(const std::vector<Letter>& ls) {
    bool any_arr = false;
    for (auto l : ls) any_arr |= l.array;
    for (std::size_t i = 0; i < ls.size(); ++i)
        if ((ls[i].kind == 'm' || ls[i].kind == 'v') && (ls[i].array || !any_arr)) return int(i);
    return -1;
}

// One call of one export, laid out, run and checked. A constant array lies
// as a list-form operand of 1x1 objects in the list form, else as a
// standard-form one; L.in_place makes the destination in_place_source().
template <class T>
class Case {
public:
    Case(const reg::ExportRow& row, int w_or_len, int h, int count, const Layout& L, unsigned seed = 1)
        : name_(row.name), op_(row.op[0]), letters_(letters_of(row.sig)), rng_(seed) {
        bool matrix = false;
        int nsrc = 0;
        for (auto l : letters_) matrix |= l.kind == 'm' || l.kind == 't', nsrc += l.kind != 'c';
        W_ = w_or_len, H_ = matrix ? h : 1;
        fh::Shapes shapes{{"Dst", {H_, W_}}};
        std::map<std::string, std::string> alias;
        for (std::size_t i = 0; i < letters_.size(); ++i) {
            const Letter l = letters_[i];
            groups_.push_back(l.kind == 'c' ? "" : nsrc == 1 ? "Src" : "Src" + std::to_string(i + 1));
            if (l.kind == 'c') cidx_ = int(i);
            else shapes[groups_[i]] = l.kind == 't' ? std::pair{W_, H_} : std::pair{H_, W_};
            if (L.in_place && int(i) == in_place_source(letters_)) alias["Dst"] = groups_[i];
        }
        l_ = std::make_unique<fh::Laid<T>>(row, count, shapes, fh::Blocks{}, L, seed, alias);
        for (const auto& g : groups_)
            if (!g.empty()) l_->fill(g, [&](int, int, int) { return lay::random_value<T>(rng_); });
        l_->args.nums.insert({{"width", W_}, {"len", W_}, {"height", H_}});
        if (cidx_ < 0) return;
        if (!letters_[cidx_].array) {
            val_ = lay::random_value<T>(rng_);
            l_->real("val", double(val_));
            return;
        }
        c_.rows = c_.cols = 1, c_.array = true, c_.objs = l_->count();
        lay::build(c_, row.form[0] == 'L' ? 'L' : 'S', L, false, rng_);
        for (int n = 0; n < c_.objs; ++n) *c_.at(n, 0, 0) = lay::random_value<T>(rng_);
        if (row.form[0] == 'L') l_->args.ptrs["ppVal"] = c_.tab.data(), l_->num("valShift", c_.shift);
        else l_->args.ptrs["pVal"] = c_.base, l_->num("valStride0", c_.s0);
    }

    // The destination memory a correct call leaves: what was there, with the
    // results written where the form puts them.
    std::vector<T> expected() {
        std::vector<T> out = l_->memory("Dst");
        for (int n = 0; n < l_->count(); ++n)
            for (int i = 0; i < H_; ++i)
                for (int j = 0; j < W_; ++j) {
                    T v[2];
                    for (std::size_t k = 0; k < 2; ++k) {
                        const char kind = letters_[k].kind;
                        v[k] = kind == 'c' ? (letters_[k].array ? *c_.at(n, 0, 0) : val_)
                                           : l_->at(groups_[k], n, kind == 't' ? j : kind == 'v' ? 0 : i, kind == 't' ? i : j);
                    }
                    out[&l_->at("Dst", n, i, j) - l_->memory("Dst").data()] =
                        op_ == 'A' ? v[0] + v[1] : op_ == 'S' ? v[0] - v[1] : v[0] * v[1];
                }
        return out;
    }

    // Runs the call and checks status and memory, the sources and constants
    // unchanged; false (with a gtest failure) on the first difference.
    bool run_and_check(const std::string& what) {
        const std::vector<T> want = expected();
        std::vector<std::vector<T>> before;
        for (const auto& g : groups_) before.push_back(g.empty() ? c_.mem : l_->memory(g));
        const zelStatus st = l_->call();
        EXPECT_EQ(st, zelStsOk) << name_ << " " << what;
        if (st != zelStsOk) return false;
        auto differs = [&](const std::vector<T>& a, const std::vector<T>& b, const std::string& name) {
            std::size_t k = 0;
            while (k < a.size() && std::memcmp(&a[k], &b[k], sizeof(T)) == 0) ++k;
            if (k < a.size()) ADD_FAILURE() << name_ << " " << what << ": " << name << " element " << k << " is " << b[k] << ", expected " << a[k];
            return k < a.size();
        };
        if (differs(want, l_->memory("Dst"), "destination")) return false;
        for (std::size_t k = 0; k < groups_.size(); ++k)
            if (groups_[k].empty() ? differs(before[k], c_.mem, "constant array")
                                   : &l_->memory(groups_[k]) != &l_->memory("Dst") && differs(before[k], l_->memory(groups_[k]), groups_[k]))
                return false;
        return true;
    }

    const std::vector<T>& dst_mem() const { return l_->memory("Dst"); }

private:
    std::string name_;
    char op_;  // A(dd), S(ub), M(ul)
    std::vector<Letter> letters_;
    std::mt19937 rng_;
    int W_ = 1, H_ = 1, cidx_ = -1;
    std::vector<std::string> groups_;  // by letter; "" for the constant
    std::unique_ptr<fh::Laid<T>> l_;
    T val_{};
    lay::Operand<T> c_;  // a constant array
};

}  // namespace ewt
