// Test harness for the element-wise exports: lays out the operands of any
// Add/Sub/Mul export in its storage form (strided, object table, element
// table), fills them, calls the export through the registry's generic caller
// and checks the destination memory bit for bit against a plain reference
// loop, including the bytes between and around the results.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
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

// One call of one export, laid out, run and checked.
template <class T>
class Case {
public:
    Case(const reg::ExportRow& row, int w_or_len, int h, int count, const Layout& L, unsigned seed = 1)
        : row_(row), rng_(seed), op_(row.op[0]), form_(row.form[0]), letters_(letters_of(row.sig)) {
        bool any_arr = false, matrix = false;
        int nsrc = 0;
        for (auto l : letters_) {
            any_arr |= l.array;
            matrix |= l.kind == 'm' || l.kind == 't';
            nsrc += l.kind != 'c';
        }
        W_ = w_or_len, H_ = matrix ? h : 1, count_ = any_arr ? count : 1;
        args.nums["width"] = args.nums["len"] = W_;
        args.nums["height"] = H_;
        args.nums["count"] = count_;
        auto make = [&](char kind, bool array, int rows, int cols, bool dst) {
            auto o = std::make_shared<lay::Operand<T>>();
            o->kind = kind, o->array = array, o->rows = rows, o->cols = cols, o->objs = array ? count_ : 1;
            lay::build(*o, form_, L, dst, rng_);
            return o;
        };
        for (std::size_t i = 0; i < letters_.size(); ++i) {
            const Letter l = letters_[i];
            if (l.kind == 'c') {
                cidx_ = int(i);
                continue;
            }
            const bool t = l.kind == 't';
            srcs_.push_back(make(l.kind, l.array, t ? W_ : H_, t ? H_ : W_, false));
            auto& o = *srcs_.back();
            for (int n = 0; n < o.objs; ++n)
                for (int r = 0; r < o.rows; ++r)
                    for (int c = 0; c < o.cols; ++c) *o.at(n, r, c) = lay::random_value<T>(rng_);
            bind(o, nsrc == 1 ? "Src" : "Src" + std::to_string(srcs_.size()));
            // in place: the first source read as stored with as many objects as the result
            if (L.in_place && !dst_ && !t && (l.array || !any_arr)) dst_ = srcs_.back();
        }
        if (!dst_) dst_ = make(matrix ? 'm' : 'v', any_arr, H_, W_, true);
        bind(*dst_, "Dst");
        if (cidx_ < 0) return;
        if (!letters_[cidx_].array) {
            val_ = lay::random_value<T>(rng_);
            args.reals["val"] = double(val_);
            return;
        }
        // a constant array: in the list form a scrambled (and with L.repeat
        // repeating) table with a shift, else stride0 over the elements
        const int sz = int(sizeof(T)), slot = form_ == 'L' ? L.shift + 2 : L.k2 + (L.pad0 ? 1 : 0);
        cmem_.assign(std::size_t(slot) * count_ + 2, lay::sentinel<T>());
        if (form_ == 'L') {
            std::vector<int> perm(count_);
            for (int n = 0; n < count_; ++n) perm[n] = n;
            std::shuffle(perm.begin(), perm.end(), rng_);
            for (int n = 0; n < count_; ++n) ctab_.push_back(cmem_.data() + std::size_t(perm[n]) * slot);
            if (L.repeat && count_ >= 2) ctab_[count_ - 1] = ctab_[0];
            val_shift_ = L.shift * sz;
            args.ptrs["ppVal"] = ctab_.data();
            args.nums["valShift"] = val_shift_;
        } else {
            val_stride0_ = slot * sz;
            args.ptrs["pVal"] = cmem_.data();
            args.nums["valStride0"] = val_stride0_;
        }
        for (int n = 0; n < count_; ++n) *const_at(n) = lay::random_value<T>(rng_);
    }

    T* const_at(int n) {
        char* p = form_ == 'L' ? reinterpret_cast<char*>(ctab_[n]) + val_shift_
                               : reinterpret_cast<char*>(cmem_.data()) + std::ptrdiff_t(n) * val_stride0_;
        return reinterpret_cast<T*>(p);
    }

    // The destination memory a correct call leaves: what was there, with the
    // results written where the form puts them.
    std::vector<T> expected() {
        std::vector<std::vector<T>> before;
        for (auto& s : srcs_) before.push_back(s->mem);
        std::vector<T> out = dst_->mem;
        for (int n = 0; n < count_; ++n)
            for (int i = 0; i < H_; ++i)
                for (int j = 0; j < W_; ++j) {
                    T v[2];
                    for (std::size_t li = 0, si = 0; li < letters_.size(); ++li) {
                        const Letter l = letters_[li];
                        if (l.kind == 'c') {
                            v[li] = l.array ? *const_at(n) : val_;
                            continue;
                        }
                        auto& o = *srcs_[si];
                        v[li] = before[si++][o.offset(n, l.kind == 't' ? j : l.kind == 'v' ? 0 : i,
                                                      l.kind == 't' ? i : j)];
                    }
                    out[dst_->offset(n, i, j)] = op_ == 'A' ? v[0] + v[1] : op_ == 'S' ? v[0] - v[1] : v[0] * v[1];
                }
        return out;
    }

    zelStatus call() { return reg::caller_of(row_.name)(args); }

    // Runs the call and checks status and memory, the sources and constants
    // unchanged; false (with a gtest failure) on the first difference.
    bool run_and_check(const std::string& what) {
        const std::vector<T> want = expected(), c_before = cmem_;
        std::vector<std::vector<T>> src_before;
        for (auto& s : srcs_) src_before.push_back(s->mem);
        const zelStatus st = call();
        EXPECT_EQ(st, zelStsOk) << row_.name << " " << what;
        if (st != zelStsOk) return false;
        auto same = [](const std::vector<T>& a, const std::vector<T>& b) {
            return std::memcmp(a.data(), b.data(), a.size() * sizeof(T)) == 0;
        };
        if (!same(want, dst_->mem)) {
            std::size_t k = 0;
            while (std::memcmp(&want[k], &dst_->mem[k], sizeof(T)) == 0) ++k;
            ADD_FAILURE() << row_.name << " " << what << ": destination element " << k << " is " << dst_->mem[k]
                          << ", expected " << want[k];
            return false;
        }
        for (std::size_t s = 0; s < srcs_.size(); ++s)
            if (srcs_[s] != dst_ && !same(src_before[s], srcs_[s]->mem)) {
                ADD_FAILURE() << row_.name << " " << what << ": source " << s << " changed";
                return false;
            }
        if (!same(c_before, cmem_)) {
            ADD_FAILURE() << row_.name << " " << what << ": constant array changed";
            return false;
        }
        return true;
    }

    const std::vector<T>& dst_mem() const { return dst_->mem; }

    reg::Args args;

private:
    void bind(lay::Operand<T>& o, const std::string& X) {
        std::string x = X;
        x[0] = char(std::tolower(x[0]));
        args.ptrs[o.form == 'S' ? "p" + X : "pp" + X] = o.form == 'S' ? (void*)o.base : (void*)o.tab.data();
        args.nums[x + "Shift"] = o.shift;
        args.nums[x + "Stride0"] = o.s0;
        args.nums[x + "Stride1"] = o.s1;
        args.nums[x + "Stride2"] = o.s2;
    }

    const reg::ExportRow& row_;
    std::mt19937 rng_;
    char op_;  // A(dd), S(ub), M(ul)
    char form_;
    std::vector<Letter> letters_;
    int W_ = 1, H_ = 1, count_ = 1;
    std::vector<std::shared_ptr<lay::Operand<T>>> srcs_;
    std::shared_ptr<lay::Operand<T>> dst_;
    int cidx_ = -1;
    T val_{};
    std::vector<T> cmem_;
    std::vector<T*> ctab_;
    int val_stride0_ = 0, val_shift_ = 0;
};

}  // namespace ewt
