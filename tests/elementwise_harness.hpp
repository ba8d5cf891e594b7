// Test harness for the element-wise exports: lays out the operands of any
// Add/Sub/Mul export in its storage form (strided, object table, element
// table), fills them, calls the export through the registry's generic caller
// and checks the destination memory bit for bit against a plain reference
// loop, including the bytes between and around the results.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
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
using lay::build;
using lay::Layout;
using lay::Operand;
using lay::random_value;
using lay::sentinel;

inline bool is_elementwise(const reg::ExportRow& r) {
    const std::string op = r.op, sig = r.sig;
    if (!r.implemented || sig.empty()) return false;
    if (sig.find_first_not_of("mtvca") != std::string::npos) return false;  // fixed-size v2...
    if (op == "Add" || op == "Sub") return true;
    if (op == "Mul") {
        for (const char* s : {"mc", "tc", "vc", "mac", "tac", "vac", "vca", "vaca"})
            if (sig == s) return true;
    }
    return false;
}

inline std::vector<const reg::ExportRow*> elementwise_exports() {
    std::vector<const reg::ExportRow*> out;
    for (const auto& r : reg::exports())
        if (is_elementwise(r)) out.push_back(&r);
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

// Whether the destination can be the same memory as a source: one read as
// stored (m or v) that has as many objects as the result.
inline bool has_in_place_source(const std::string& sig) {
    const auto ls = letters_of(sig);
    bool any_arr = false;
    for (auto l : ls) any_arr |= l.array;
    for (auto l : ls)
        if ((l.kind == 'm' || l.kind == 'v') && (l.array || !any_arr)) return true;
    return false;
}

enum class Arith { Add, Sub, Mul };

template <class T>
T apply(Arith a, T x, T y) {
    switch (a) {
        case Arith::Add: return x + y;
        case Arith::Sub: return x - y;
        case Arith::Mul: return x * y;
    }
    return T();
}

// One call of one export, laid out, run and checked.
template <class T>
class Case {
public:
    Case(const reg::ExportRow& row, int w_or_len, int h, int count, const Layout& L, unsigned seed = 1)
        : row_(row), rng_(seed) {
        const std::string op = row.op;
        arith_ = op == "Add" ? Arith::Add : op == "Sub" ? Arith::Sub : Arith::Mul;
        form_ = row.form[0];
        letters_ = letters_of(row.sig);
        bool any_arr = false, matrix = false;
        for (auto l : letters_) {
            any_arr |= l.array;
            matrix |= l.kind == 'm' || l.kind == 't';
        }
        W_ = w_or_len;
        H_ = matrix ? h : 1;
        count_ = any_arr ? count : 1;
        int nsrc = 0;
        for (auto l : letters_) nsrc += l.kind != 'c';
        // sources
        int k = 0;
        for (std::size_t i = 0; i < letters_.size(); ++i) {
            const Letter l = letters_[i];
            if (l.kind == 'c') {
                cidx_ = int(i);
                continue;
            }
            auto o = std::make_shared<Operand<T>>();
            o->kind = l.kind;
            o->array = l.array;
            o->rows = l.kind == 't' ? W_ : H_;
            o->cols = l.kind == 't' ? H_ : W_;
            o->objs = l.array ? count_ : 1;
            build(*o, form_, L, false, rng_);
            for (int n = 0; n < o->objs; ++n)
                for (int r = 0; r < o->rows; ++r)
                    for (int c = 0; c < o->cols; ++c) *o->at(n, r, c) = random_value<T>(rng_);
            names_.push_back(nsrc == 1 ? "Src" : "Src" + std::to_string(++k));
            srcs_.push_back(o);
            src_letter_.push_back(int(i));
        }
        // destination
        if (L.in_place) {
            for (std::size_t s = 0; s < srcs_.size(); ++s) {
                const Letter l = letters_[src_letter_[s]];
                if (l.kind != 't' && (l.array || !any_arr)) {
                    dst_ = srcs_[s];
                    break;
                }
            }
        }
        if (!dst_) {
            dst_ = std::make_shared<Operand<T>>();
            dst_->kind = matrix ? 'm' : 'v';
            dst_->array = any_arr;
            dst_->rows = H_;
            dst_->cols = W_;
            dst_->objs = count_;
            build(*dst_, form_, L, true, rng_);
        }
        // constant
        if (cidx_ >= 0) {
            if (letters_[cidx_].array) {
                const int sz = int(sizeof(T));
                if (form_ == 'L') {
                    const int slot = L.shift + 2;
                    val_shift_ = L.shift * sz;
                    cmem_.assign(std::size_t(slot) * count_ + 2, sentinel<T>());
                    std::vector<int> perm(count_);
                    for (int n = 0; n < count_; ++n) perm[n] = n;
                    std::shuffle(perm.begin(), perm.end(), rng_);
                    ctab_.resize(count_);
                    for (int n = 0; n < count_; ++n) ctab_[n] = cmem_.data() + std::size_t(perm[n]) * slot;
                    if (L.repeat && count_ >= 2) ctab_[count_ - 1] = ctab_[0];
                } else {
                    const int kv = L.k2 + (L.pad0 ? 1 : 0);
                    val_stride0_ = kv * sz;
                    cmem_.assign(std::size_t(kv) * count_ + 2, sentinel<T>());
                }
                for (int n = 0; n < count_; ++n) *const_at(n) = random_value<T>(rng_);
            } else {
                val_ = random_value<T>(rng_);
            }
        }
        fill_args();
    }

    T* const_at(int n) {
        if (form_ == 'L')
            return reinterpret_cast<T*>(reinterpret_cast<char*>(ctab_[n]) + val_shift_);
        return reinterpret_cast<T*>(reinterpret_cast<char*>(cmem_.data()) + std::ptrdiff_t(n) * val_stride0_);
    }

    void fill_args() {
        auto group = [&](Operand<T>& o, const std::string& X) {
            std::string x = X;
            x[0] = char(std::tolower(x[0]));
            if (o.form == 'S') {
                args.ptrs["p" + X] = o.base;
                args.nums[x + "Stride0"] = o.s0;
                args.nums[x + "Stride1"] = o.s1;
                args.nums[x + "Stride2"] = o.s2;
            } else {
                args.ptrs["pp" + X] = o.tab.data();
                args.nums[x + "Shift"] = o.shift;
                if (o.form == 'L') {
                    args.nums[x + "Stride1"] = o.s1;
                    args.nums[x + "Stride2"] = o.s2;
                } else {
                    args.nums[x + "Stride0"] = o.s0;
                }
            }
        };
        for (std::size_t s = 0; s < srcs_.size(); ++s) group(*srcs_[s], names_[s]);
        group(*dst_, "Dst");
        if (cidx_ >= 0) {
            if (letters_[cidx_].array) {
                if (form_ == 'L') {
                    args.ptrs["ppVal"] = ctab_.data();
                    args.nums["valShift"] = val_shift_;
                } else {
                    args.ptrs["pVal"] = cmem_.data();
                    args.nums["valStride0"] = val_stride0_;
                }
            } else {
                args.reals["val"] = double(val_);
            }
        }
        args.nums["width"] = W_;
        args.nums["height"] = H_;
        args.nums["len"] = W_;
        args.nums["count"] = count_;
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
                    int vi = 0, si = 0;
                    for (std::size_t li = 0; li < letters_.size(); ++li) {
                        const Letter l = letters_[li];
                        if (l.kind == 'c') {
                            v[vi++] = l.array ? *const_at(n) : val_;
                            continue;
                        }
                        Operand<T>& o = *srcs_[si];
                        const std::ptrdiff_t off =
                            l.kind == 't' ? o.offset(n, j, i) : l.kind == 'v' ? o.offset(n, 0, j) : o.offset(n, i, j);
                        v[vi++] = before[si][off];
                        ++si;
                    }
                    out[dst_->offset(n, i, j)] = apply(arith_, v[0], v[1]);
                }
        return out;
    }

    zelStatus call() { return reg::caller_of(row_.name)(args); }

    // Runs the call and checks status and memory; returns false (with a
    // gtest failure) on the first difference.
    bool run_and_check(const std::string& what) {
        const std::vector<T> want = expected();
        std::vector<std::vector<T>> src_before;
        for (auto& s : srcs_) src_before.push_back(s->mem);
        const std::vector<T> c_before = cmem_;
        const zelStatus st = call();
        EXPECT_EQ(st, zelStsOk) << row_.name << " " << what;
        if (st != zelStsOk) return false;
        if (std::memcmp(want.data(), dst_->mem.data(), want.size() * sizeof(T)) != 0) {
            std::size_t k = 0;
            while (std::memcmp(&want[k], &dst_->mem[k], sizeof(T)) == 0) ++k;
            ADD_FAILURE() << row_.name << " " << what << ": destination element " << k << " is "
                          << dst_->mem[k] << ", expected " << want[k];
            return false;
        }
        for (std::size_t s = 0; s < srcs_.size(); ++s) {
            if (srcs_[s] == dst_) continue;
            if (std::memcmp(src_before[s].data(), srcs_[s]->mem.data(), src_before[s].size() * sizeof(T))) {
                ADD_FAILURE() << row_.name << " " << what << ": source " << s << " changed";
                return false;
            }
        }
        if (!c_before.empty() && std::memcmp(c_before.data(), cmem_.data(), c_before.size() * sizeof(T))) {
            ADD_FAILURE() << row_.name << " " << what << ": constant array changed";
            return false;
        }
        return true;
    }

    const std::vector<T>& dst_mem() const { return dst_->mem; }

    reg::Args args;

private:
    const reg::ExportRow& row_;
    std::mt19937 rng_;
    Arith arith_;
    char form_;
    std::vector<Letter> letters_;
    int W_ = 1, H_ = 1, count_ = 1;
    std::vector<std::shared_ptr<Operand<T>>> srcs_;
    std::vector<std::string> names_;
    std::vector<int> src_letter_;
    std::shared_ptr<Operand<T>> dst_;
    int cidx_ = -1;
    T val_{};
    std::vector<T> cmem_;
    std::vector<T*> ctab_;
    int val_stride0_ = 0, val_shift_ = 0;
};

}  // namespace ewt
