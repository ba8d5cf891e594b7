// Shared by the QR, inversion and determinant tests: the layouts every export
// runs in, random matrices, Eigen views of them, bitwise comparison, the
// standard call as the reference of every form, and the parallel wrapper.
#pragma once

#include <gtest/gtest.h>

#include <Eigen/Dense>
#include <cstring>
#include <limits>
#include <random>
#include <string>
#include <vector>

#include "forms_harness.hpp"
#include "substitutes.hpp"

namespace sq {

using Mat = Eigen::MatrixXd;
template <class T>
using Vec = std::vector<T>;

// Objects of an array case: more than one batch of the widest lanes (8) and
// a remainder, so that the lanes and the object loop both run; a failing
// object goes in the middle of the second batch of four.
inline constexpr int kCount = 11;
inline constexpr int kBad = 5;

// Dense (contiguous rows, objects back to back, 16-byte aligned where the
// allocator gives it), and gaps everywhere: an element stride of 2 (3 in the
// destination), padded rows, gaps between objects, a shift, interleaved
// pointer-form objects.
inline std::vector<lay::Layout> layouts() {
    lay::Layout dense, gaps;
    dense.scramble = false;
    gaps.k2 = 2, gaps.dst_k2 = 3, gaps.pad1 = 1, gaps.pad0 = 2, gaps.lead = 1, gaps.shift = 3, gaps.soa = false;
    gaps.label = "gaps";
    return {dense, gaps};
}

// The single-object standard export of an operation in T's type.
template <class T>
const reg::ExportRow& standard(const std::string& op) {
    return fh::row_named("zelm" + op + "_m" + (op.find("BackSubst") != std::string::npos ? "v" : "") +
                         (sizeof(T) == 4 ? "_32f" : "_64f"));
}

template <class T>
Vec<T> random_matrix(std::mt19937& g, int rows, int cols) {
    Vec<T> v(std::size_t(rows) * cols);
    for (auto& x : v) x = lay::random_value<T>(g) / T(8);
    return v;
}

template <class T>
Mat to_eigen(const Vec<T>& v, int rows, int cols) {
    Mat m(rows, cols);
    for (int i = 0; i < rows; ++i)
        for (int j = 0; j < cols; ++j) m(i, j) = double(v[std::size_t(i) * cols + j]);
    return m;
}

template <class T>
bool same_bits(const Vec<T>& a, const Vec<T>& b) {
    return a.size() == b.size() && std::memcmp(a.data(), b.data(), a.size() * sizeof(T)) == 0;
}

template <class T>
constexpr double eps() {
    return std::numeric_limits<T>::epsilon();
}

inline std::string where(const reg::ExportRow& r, const lay::Layout& L, int n) {
    return std::string(r.name) + " " + L.label + " order " + std::to_string(n);
}

// All destination objects of a call, one after the other.
template <class T>
Vec<T> all_of(fh::Laid<T>& l) {
    Vec<T> v;
    for (int n = 0; n < l.count(); ++n) {
        const auto o = l.get("Dst", n);
        v.insert(v.end(), o.begin(), o.end());
    }
    return v;
}

// An export at the fan-out limit of its kernel: the first object count that
// reaches the limit for order n, with contiguous or strided elements.
struct Boundary {
    const char* name;
    int n, at;
    bool strided;
};

// The parallel wrapper of one export. `make(count)` lays out and fills a call
// of `count` objects, `results(l)` reads all its destinations as one vector.
// One object below `at` the direct path (ownGetNumThreads not asked), at it the
// wrapper forks (asked twice); 1 thread, 4 threads and 4 threads whose
// scratch allocation fails give the same bits, with one block per forking
// call freed once and the caller's pBuffer left alone.
template <class T, class Make, class Results>
void fan_out_checks(const std::string& name, int at, int count, Make make, Results results) {
    for (int c : {at - 1, at}) {
        auto l = make(c);
        subst::Scope scope(2);
        l.call();
        EXPECT_EQ(subst::thread_queries, c == at ? 2 : 0) << name << " " << c;
    }
    Vec<T> out[3];
    for (int k = 0; k < 3; ++k) {
        auto l = make(count);
        subst::Scope scope(k ? 4 : 1, -1, k == 2);
        ASSERT_EQ(l.call(), zelStsOk) << name;
        EXPECT_EQ(subst::mallocs.load(), k ? 1 : 0) << name;
        EXPECT_EQ(subst::frees.load(), k == 1 ? 1 : 0) << name;
        if (k == 1) {
            EXPECT_TRUE(fh::Laid<T>::same(l.block("pBuffer")[0], lay::sentinel<T>())) << name;
        }
        out[k] = results(l);
    }
    EXPECT_TRUE(same_bits(out[0], out[1])) << name;
    EXPECT_TRUE(same_bits(out[0], out[2])) << name;
}

// fan_out_checks for the square n x n array exports: `laid(b, T(), count,
// L)` lays out a call, random sources fill it (one of them zero when the
// family has no failure, `fails` 0); then, on 4 threads, a zero object in a
// slice gives the call's status `fails`.
template <std::size_t N, class Make, class Results>
void square_fan_out(const Boundary (&bs)[N], zelStatus fails, Make laid, Results results) {
    for (const auto& b : bs)
        fh::with_type(fh::row_named(b.name), [&](auto t) {
            using T = decltype(t);
            lay::Layout L;
            L.k2 = L.dst_k2 = b.strided ? 2 : 1;
            const Vec<T> zero(std::size_t(b.n) * b.n, T(0));
            auto filled = [&](int count) {
                auto l = laid(b, t, count, L);
                std::mt19937 g(4);
                for (int k = 0; k < count; ++k) l.set("Src", k, random_matrix<T>(g, b.n, b.n));
                if (fails == zelStsOk) l.set("Src", count / 2, zero);
                return l;
            };
            fan_out_checks<T>(b.name, b.at, b.at + 1, filled, results);
            auto l = filled(b.at + 1);
            l.set("Src", b.at - 1, zero);
            subst::Scope scope(4);
            EXPECT_EQ(l.call(), fails) << b.name;
        });
}

}  // namespace sq
