// Associations of sums, written the way they read and compiled into
// straight-line code.
//
// A reduction's result depends bit for bit on how its terms are associated,
// so each association is data: a text such as "((2+4)+0)+((3+5)+1)" over term
// indices, parsed at compile time into a Tree, and evaluated by templates
// into exactly those additions. `a+b+c` is ((a+b)+c). The same Tree serves a
// scalar per object and a vector of objects in lanes, since each lane does
// its object's additions.
//
// An Assoc has two levels, for sums whose terms form chains (the column
// chains of a matrix): part j is `chain` over the terms k + j*stride, and the
// result is `combine` over the parts. A plain association has the chain "0".
// An empty `combine` is the sequential order: t0, then + t1, + t2 ...
//
// Chains are the orders of long sums beyond the products' named ones: the
// terms below m (K rounded down to `period`) go block by block into
// accumulators that start at +0.0, each block adding its `parts` in order;
// then `combine` over the accumulators, then the terms from m on, one at a
// time, ascending or descending.
#pragma once

#include <cstdint>
#include <string_view>
#include <utility>

#include "frame/frame.hpp"

namespace zel::vectors {

struct Tree {
    static constexpr int kMax = 40;
    std::int8_t leaf[kMax]{};       // the term of a leaf node, -1 for a sum
    std::int8_t l[kMax]{}, r[kMax]{};  // the two nodes a sum adds
    std::int8_t root = -1;           // -1: sequential
    std::int8_t leaves = 0;          // the number of leaves (terms it reads)
    std::int8_t nodes = 0;
    constexpr bool sequential() const { return root < 0; }
};

namespace detail {
// expr := atom ('+' atom)* ; atom := number | '(' expr ')'
struct Parser {
    std::string_view s;
    std::size_t i = 0;
    Tree t{};
    constexpr void blanks() {
        while (i < s.size() && s[i] == ' ') ++i;
    }
    constexpr int node(int leaf, int l, int r) {
        if (t.nodes >= Tree::kMax) throw "association too long";
        const int n = t.nodes++;
        t.leaf[n] = std::int8_t(leaf);
        t.l[n] = std::int8_t(l);
        t.r[n] = std::int8_t(r);
        if (leaf >= 0) ++t.leaves;
        return n;
    }
    constexpr int atom() {
        blanks();
        if (i < s.size() && s[i] == '(') {
            ++i;
            const int n = expr();
            blanks();
            if (i >= s.size() || s[i] != ')') throw "missing )";
            ++i;
            return n;
        }
        int v = 0, digits = 0;
        while (i < s.size() && s[i] >= '0' && s[i] <= '9') v = v * 10 + (s[i++] - '0'), ++digits;
        if (!digits) throw "expected a term index";
        return node(v, -1, -1);
    }
    constexpr int expr() {
        int n = atom();
        blanks();
        while (i < s.size() && s[i] == '+') {
            ++i;
            n = node(-1, n, atom());
            blanks();
        }
        return n;
    }
};
}  // namespace detail

// The tree of an association text; "" is the sequential order.
consteval Tree tree(std::string_view s) {
    detail::Parser p{s};
    if (s.empty()) return p.t;
    p.t.root = std::int8_t(p.expr());
    if (p.i != s.size()) throw "trailing text in an association";
    return p.t;
}

struct Assoc {
    Tree combine, chain;
    int stride;
    bool general;  // no association of its own: the kernel's order for any size
    constexpr bool sequential() const { return combine.sequential(); }
};
consteval Assoc assoc(std::string_view combine, std::string_view chain = "0", int stride = 1) {
    return {tree(combine), tree(chain), stride, false};
}
inline constexpr Assoc kSeqAssoc = assoc("");
inline constexpr Assoc kGeneral{tree(""), tree("0"), 1, true};

// ---------------------------------------------------------------------------
// Evaluation. `get(k)` gives term k; V is a scalar or a vector of objects.
template <Tree X, int N, class V, class Get>
ZEL_INLINE V eval_node(const Get& get) {
    if constexpr (X.leaf[N] >= 0) {
        return get(X.leaf[N]);
    } else {
        const V a = eval_node<X, X.l[N], V>(get);
        const V b = eval_node<X, X.r[N], V>(get);
        return a + b;
    }
}

// Tree X over K terms (K used by the sequential order only).
template <Tree X, int K, class V, class Get>
ZEL_INLINE V eval(const Get& get) {
    if constexpr (X.sequential()) {
        V s = get(0);
        [&]<int... I>(std::integer_sequence<int, I...>) { ((s = s + get(I + 1)), ...); }(
            std::make_integer_sequence<int, K - 1>{});
        return s;
    } else {
        return eval_node<X, X.root, V>(get);
    }
}

// Assoc A over K terms.
template <Assoc A, int K, class V, class Get>
ZEL_INLINE V sum(const Get& get) {
    if constexpr (A.sequential() || (A.chain.leaves == 1 && A.chain.leaf[0] == 0 && A.stride == 1)) {
        return eval<A.combine, K, V>(get);
    } else {
        return eval<A.combine, K, V>([&](int j) ZEL_LAMBDA_INLINE {
            return eval<A.chain, K, V>([&](int k) ZEL_LAMBDA_INLINE { return get(k + j * A.stride); });
        });
    }
}

// ---------------------------------------------------------------------------
struct Chains {
    int period;
    int parts;
    std::int8_t acc[8];  // the accumulator part i goes to
    Tree part[8];        // part i: an association over the block's terms 0 .. period-1
    int accs;
    Tree combine;        // over the accumulators
    bool descending;     // the terms from m on, from the last one down
};

template <Chains C, class T, class Term>
ZEL_INLINE T chain_sum(int K, const Term& t) {
    const int m = K / C.period * C.period;
    T a[8] = {T(0), T(0), T(0), T(0), T(0), T(0), T(0), T(0)};
    for (int k0 = 0; k0 < m; k0 += C.period) {
        [&]<int... I>(std::integer_sequence<int, I...>) {
            ((a[C.acc[I]] += eval<C.part[I], C.period, T>([&](int k) { return t(k0 + k); })), ...);
        }(std::make_integer_sequence<int, C.parts>{});
    }
    T s = eval<C.combine, C.accs, T>([&](int j) { return a[j]; });
    if constexpr (C.descending) {
        for (int k = K - 1; k >= m; --k) s += t(k);
    } else {
        for (int k = m; k < K; ++k) s += t(k);
    }
    return s;
}

}  // namespace zel::vectors
