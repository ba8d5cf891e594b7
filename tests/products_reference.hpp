// An independent statement of how each product and Gaxpy kernel associates
// its sums, and a reference that adds given terms in a named association.
// Written from the documented behaviour, not from the library's tables: the
// tests compare the library's bits with these.
#pragma once

#include <cctype>
#include <cmath>
#include <random>
#include <string>
#include <vector>

#include "forms_harness.hpp"

namespace pref {

// A value whose bits make different associations differ: a random mantissa
// and sign, an exponent spread over a few binades.
template <class T>
T spread(std::mt19937& g) {
    const double v = std::ldexp(std::uniform_real_distribution<double>(1.0, 2.0)(g), int(g() % 13) - 6);
    return T(g() % 2 ? -v : v);
}

// Named associations of a sum of terms t(0..K-1).
enum class How {
    ZeroSeq,   // +0.0, then t0, t1, ... (generic paths)
    FirstSeq,  // t0, then t1, ... (fast paths)
    Pair,      // c(0,2) + c(1,2), limit a multiple of `mult`, then the rest
    Four,      // (c0 + c2) + (c1 + c3) over 4 accumulators
    Eight32,   // (l0 + l2) + (l1 + l3), l(r) = c(r) + c(r+4) over 8
    Eight64,   // ((c0+c2)+(c4+c6)) + ((c1+c3)+(c5+c7)) over 8
    Spread,    // vector-lane fast paths, see lane_sum()
    Adjacent,
    Split,
    LastFirst,
};

struct Order {
    How how = How::ZeroSeq;
    int mult = 1;
    int lead = 0;  // leading terms that start accumulator 0
};

// A documented association of the terms t: "((1+3)+2)+0" (letters and spaces
// ignored, so "(q0+q1)+q2" too); "S" sequential from t0, "S0" from +0.0.
template <class T>
T eval_doc(const std::string& e, const std::vector<T>& t) {
    if (e == "S" || e == "S0") {
        T s = e == "S" ? t[0] : T(0);
        for (std::size_t k = e == "S"; k < t.size(); ++k) s = s + t[k];
        return s;
    }
    std::size_t i = 0;
    // the terms and bracketed sums up to ')' or the end, added left to right
    const auto sum = [&](auto& self) -> T {
        T v{}, x;
        for (bool first = true; i < e.size() && e[i] != ')'; v = first ? x : v + x, first = false) {
            std::size_t n = 0;
            while (i < e.size() && e[i] != '(' && !std::isdigit(static_cast<unsigned char>(e[i]))) ++i;
            if (e[i] == '(') ++i, x = self(self), ++i;
            else x = t.at(std::stoul(e.substr(i), &n)), i += n;
        }
        return v;
    };
    return sum(sum);
}

// The vector-lane fast paths at lengths 3 to 6 (Spread at length 5: rows 0
// to 3, then the others); sequential elsewhere, and for FirstSeq.
template <class T>
T lane_sum(How h, const std::vector<T>& t, int row) {
    static const char* const docs[4][5] = {
        {"S", "(0+2)+(1+3)", "((0+1)+4)+(2+3)", "((0+2)+4)+(1+3)", "((0+2)+4)+((1+3)+5)"},       // Spread
        {"S", "(0+1)+(2+3)", "((0+1)+(2+3))+4", "((0+1)+(2+3))+4", "((0+1)+(2+3))+(4+5)"},       // Adjacent
        {"S", "(0+1)+(2+3)", "((0+1)+4)+(2+3)", "((0+1)+4)+(2+3)", "((0+1)+(2+3))+(4+5)"},       // Split
        {"S", "((0+3)+1)+2", "(((0+4)+1)+2)+3", "(((0+4)+1)+2)+3", "((((0+5)+1)+2)+3)+4"},      // LastFirst
    };
    const int n = int(t.size());
    if (h < How::Spread || n < 3 || n > 6) return eval_doc<T>("S", t);
    return eval_doc<T>(docs[int(h) - int(How::Spread)][n == 6 ? 4 : n == 5 ? 2 + (row >= 4) : n - 3], t);
}

// Accumulators, each from +0.0: term k below m adds to accumulator acc(k) in
// the order of k; then `combine` over the accumulators, then the terms from m
// on, ascending (`down`: from the last one down).
template <class T, class Acc>
T acc_sum(const std::vector<T>& t, int m, Acc acc, const char* combine, bool down = false) {
    std::vector<T> a(9, T(0));
    for (int k = 0; k < m; ++k) a[acc(k)] = a[acc(k)] + t[k];
    T s = eval_doc<T>(combine, a);
    for (int k = m; k < int(t.size()); ++k) s = s + t[down ? int(t.size()) - 1 - (k - m) : k];
    return s;
}

// Pair to Eight64: `lead` terms, then the terms to the last whole multiple of
// `mult` in turn over the accumulators; the leading ones start accumulator 0.
template <class T>
T reference_sum(const Order& o, const std::vector<T>& t, int row = 0) {
    const int K = int(t.size());
    if (o.how == How::FirstSeq || o.how >= How::Spread) return lane_sum(o.how, t, row);
    if (o.how == How::ZeroSeq || o.lead >= K) return eval_doc<T>("S0", t);
    static const char* const combine[] = {"0+1", "(0+2)+(1+3)", "((0+4)+(2+6))+((1+5)+(3+7))",
                                          "((0+2)+(4+6))+((1+3)+(5+7))"};
    const int lanes = o.how == How::Pair ? 2 : o.how == How::Four ? 4 : 8;
    return acc_sum(t, o.lead + (K - o.lead) / o.mult * o.mult, [&](int k) { return k < o.lead ? 0 : (k - o.lead) % lanes; },
                   combine[int(o.how) - int(How::Pair)]);
}

// The kernel a call reaches: by form, and whether every element step is one.
enum class Kern { Std, S2, L, LS2, P };
inline Kern kern_of(char form, bool unit) {
    return form == 'P' ? Kern::P : form == 'L' ? (unit ? Kern::L : Kern::LS2) : (unit ? Kern::Std : Kern::S2);
}

// The rows after the last whole tile of the lane kernels, from eight terms
// on: one row alone, the first and the second of two, and three.
inline Order rest_rows(bool is64, int R, int r, int lead = 0) {
    if (is64) return {R == 1 ? How::Eight64 : R == 2 && r == 0 ? How::Four : How::Pair, 8, lead};
    return {R == 1 || (R == 2 && r == 0) ? How::Eight32 : How::Four, 8, lead};
}

// Matrix by matrix. `sig` is the export's signature, K the terms, H the
// destination's rows, `fast` the exact order of a square call (0: none).
inline Order mm_order(const std::string& sig, bool is64, Kern k, int fast, int H, int K, int i) {
    const bool f32 = !is64;
    if (fast >= 3 && fast <= 6) {
        bool has = true;
        if (sig == "tm" && f32 && k == Kern::Std) has = fast != 6;
        if (sig == "mam" && f32 && (k == Kern::LS2 || k == Kern::P)) has = fast == 3;
        if (fh::has_word("mat tam", sig) && f32 && (k == Kern::S2 || k == Kern::LS2 || k == Kern::P)) has = fast == 3;
        if (sig == "tat" && f32 && k == Kern::LS2) has = fast == 3;
        if (sig == "mama" && f32 && k == Kern::S2) has = fast <= 5;
        if (fh::has_word("mta tta", sig) && f32 && k == Kern::L) has = false;
        if (sig == "tta" && is64 && k == Kern::L) has = false;
        if (has) return {How::FirstSeq};
    }
    const bool mt = fh::has_word("mt mat mta mata", sig);
    // the strided kernels (the pointer form from +0.0 throughout)
    if (k != Kern::Std && k != Kern::L) return k != Kern::P && mt && is64 && K >= 8 ? Order{How::Eight64, 8} : Order{};
    const int tiles = H / 4 * 4, R = H % 4, r = i - tiles;
    if (is64) {
        if (sig == "mata" && k == Kern::Std) return {};
        if (i < tiles) return {How::Pair, 2};
        return K < 8 ? Order{} : rest_rows(true, R, r);
    }
    if (mt) {
        if (i < tiles) return K < 4 ? Order{} : Order{How::Four, 4};
        return K < 8 ? Order{} : rest_rows(false, R, r);
    }
    const bool tm = fh::has_word("tm tam tma tama", sig);
    if (i < tiles) return {};
    if (R == 1 || (R == 2 && !tm)) return {How::Pair, 2};
    return {};
}

// Matrix by vector. `lead` is the vector's leading terms to its 16-byte
// boundary, -1 if its address is not a multiple of the element size.
inline Order mv_order(const std::string& sig, bool is64, Kern k, int fast, int H, int K, int i, int lead) {
    const bool single = sig == "mv" || sig == "tv";
    const bool m = sig[0] == 'm';
    if (fast >= 3 && fast <= 6) {
        if (single) return {is64 && m && k == Kern::Std ? How::Adjacent : How::FirstSeq};
        const bool none = (k == Kern::L && !is64 && fh::has_word("mva tva", sig)) ||
                          (k == Kern::L && is64 && fh::has_word("tva tava", sig));
        if (!none) {
            if (k == Kern::S2 || k == Kern::LS2 || k == Kern::P) return {How::FirstSeq};
            if (m) return {is64 ? How::Adjacent : How::Spread};
            if (!is64) return {How::Split};
            return {k == Kern::L ? How::Adjacent : How::FirstSeq};  // tav 64f L; tva tav tava 64f Std
        }
    }
    if (k != Kern::Std && k != Kern::L) return k != Kern::P && m && is64 && K >= 8 ? Order{How::Eight64, 8} : Order{};
    // standard and list kernels: 8-row blocks
    const int T8 = H / 8 * 8, rr = H - T8;
    const bool block = rr >= 4 || i < T8;
    const int R = rr, r = i - T8;
    if (!is64 && !m) {  // no leading terms
        if (block) return {};
        if (R == 1 || R == 2) return {How::Pair, 2};
        return {};
    }
    if (lead < 0) return {};
    const int Kp = K - lead;
    if (block && !is64) return Kp < 4 ? Order{} : Order{How::Four, 4, lead};
    if (block) return Kp < 2 ? Order{} : Order{How::Pair, 2, lead};
    return Kp < 8 ? Order{} : rest_rows(is64, R, r, lead);
}

// Gaxpy: the terms' order; y is added last unless gaxpy_y_first says where.
inline Order gaxpy_order(bool is64, Kern k, int fast, int K) {
    if (fast >= 3 && fast <= 6) {
        if (k == Kern::Std || k == Kern::L) return {is64 ? How::Adjacent : How::Spread};
        return {How::LastFirst};
    }
    if (is64 && k == Kern::S2 && K >= 8) return {How::Eight64, 8};
    return {};
}

// The Gaxpy fast paths of the scalar kernels that start with a term plus y:
// returns the term, or -1 where y comes last.
inline int gaxpy_y_first(const std::string& sig, Kern k, int fast, int row) {
    if (fast < 3 || fast > 6 || k == Kern::Std || k == Kern::L) return -1;
    if (sig == "mvav") return fast == 3 ? 0 : fast - 1;
    return fast >= 4 && row == fast - 1 ? fast - 1 : -1;
}

}  // namespace pref
