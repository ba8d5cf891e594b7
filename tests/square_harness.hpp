// Shared by the QR, inversion and determinant tests: the layouts every export
// runs in, random matrices, Eigen views of them, bitwise comparison, and the
// calls that show whether an array call entered the parallel wrapper.
#pragma once

#include <gtest/gtest.h>

#include <Eigen/Dense>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "forms_harness.hpp"
#include "substitutes.hpp"

namespace sq {

using Mat = Eigen::MatrixXd;

// Objects of an array case: more than one batch of the widest lanes (8) and
// a remainder, so that the lanes and the object loop both run; a failing
// object goes in the middle of the second batch of four.
inline constexpr int kCount = 11;
inline constexpr int kBad = 5;

// The layouts of every case: dense (contiguous rows, objects back to back,
// 16-byte aligned where the allocator gives it), and one with gaps
// everywhere: an element stride of 2 (3 in the destination), padded rows,
// gaps between objects, a shift, interleaved pointer-form objects.
inline std::vector<lay::Layout> layouts() {
    lay::Layout dense;
    dense.scramble = false;
    lay::Layout gaps;
    gaps.k2 = 2;
    gaps.dst_k2 = 3;
    gaps.pad1 = 1;
    gaps.pad0 = 2;
    gaps.lead = 1;
    gaps.shift = 3;
    gaps.soa = false;
    gaps.label = "gaps";
    return {dense, gaps};
}

template <class T>
std::vector<T> random_matrix(std::mt19937& g, int rows, int cols) {
    std::vector<T> v(std::size_t(rows) * cols);
    for (auto& x : v) x = lay::random_value<T>(g) / T(8);
    return v;
}

template <class T>
Mat to_eigen(const std::vector<T>& v, int rows, int cols) {
    Mat m(rows, cols);
    for (int i = 0; i < rows; ++i)
        for (int j = 0; j < cols; ++j) m(i, j) = double(v[std::size_t(i) * cols + j]);
    return m;
}

template <class T>
bool same_bits(const std::vector<T>& a, const std::vector<T>& b) {
    return a.size() == b.size() && std::memcmp(a.data(), b.data(), a.size() * sizeof(T)) == 0;
}

template <class T>
constexpr double eps() {
    return sizeof(T) == 4 ? 1.1920928955078125e-07 : 2.220446049250313e-16;
}

inline std::string where(const reg::ExportRow& r, const lay::Layout& L, int n) {
    return std::string(r.name) + " " + L.label + " order " + std::to_string(n);
}

// Calls `run` once with `threads` forced and returns how often the thread
// count was asked for: 0 on the direct path, 1 in a wrapper that does not
// fork, 2 in one that forks.
template <class F>
int thread_queries(int threads, F&& run) {
    subst::Scope scope(threads);
    run();
    return subst::thread_queries;
}

// An export at the fan-out limit of its kernel: object counts just below and
// at the limit for order n, with contiguous or strided elements.
struct Boundary {
    const char* name;
    int n, below, at;
    bool strided;
};

// The parallel wrapper of one export. `make(count)` lays out and fills a call
// of `count` objects, `results(l)` reads all its destinations as one vector.
// Below the limit the direct path, at it the wrapper; 1 thread, 4 threads and
// 4 threads whose scratch allocation fails give the same bits, with one block
// per forking call freed once and the caller's pBuffer left alone.
template <class T, class Make, class Results>
void fan_out_checks(const std::string& name, int below, int at, int count, Make make, Results results) {
    for (int c : {below, at}) {
        auto l = make(c);
        EXPECT_EQ(thread_queries(2, [&] { l.call(); }), c == at ? 2 : 0) << name << " " << c;
    }
    std::vector<T> out[3];
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
// All destination objects of a call, one after the other.
template <class T>
std::vector<T> all_of(fh::Laid<T>& l, const char* operand = "Dst") {
    std::vector<T> v;
    for (int n = 0; n < l.count(); ++n) {
        const auto o = l.get(operand, n);
        v.insert(v.end(), o.begin(), o.end());
    }
    return v;
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
            const std::vector<T> zero(std::size_t(b.n) * b.n, T(0));
            auto filled = [&](int count) {
                auto l = laid(b, t, count, L);
                std::mt19937 g(4);
                for (int k = 0; k < count; ++k) l.set("Src", k, random_matrix<T>(g, b.n, b.n));
                if (fails == zelStsOk) l.set("Src", count / 2, zero);
                return l;
            };
            fan_out_checks<T>(b.name, b.below, b.at, b.at + 1, filled, results);
            auto l = filled(b.at + 1);
            l.set("Src", b.at - 1, zero);
            subst::Scope scope(4);
            EXPECT_EQ(l.call(), fails) << b.name;
        });
}

}  // namespace sq
