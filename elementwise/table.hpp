// Element-wise arithmetic: when an array call goes to the parallel wrapper.
// One row per group of signatures: the work estimate, whether the comparison
// with the threshold is strict (estimate > threshold) or not (>=), and the
// thresholds by form, by kernel (all stride2 the element size or not) and by
// type. The API functions read this table; the tests iterate it.
#pragma once

#include <string_view>

#include "frame/frame.hpp"

namespace zel::elementwise {

enum class Estimate {
    whc_2c1,   // w*h*(2c + 1): one array source, a single source, the destination
    whc_3,     // 3*w*h*c: two array sources and the destination
    whc_2,     // 2*w*h*c: Mul mac/tac
    lc_2c1,    // l*(2c + 1)
    lc_l_c,    // l*c + l + c
    lc_2_c,    // 2*l*c + c
    lc_3,      // 3*l*c
    c_2,       // 2*c, whatever len is
    lc_2,      // 2*l*c
};

struct Threshold {
    int s_unit, s_other;                 // standard form
    int l_unit32, l_unit64;              // list form, contiguous elements
    int l_other32, l_other64;            // list form, other stride2
    int p;                               // pointer form
};

struct ThresholdRow {
    std::string_view ops;    // operations the row holds for
    std::string_view sigs;   // signatures, space-separated
    Estimate est;
    bool strict;
    Threshold thr;
};

inline constexpr ThresholdRow kThresholds[] = {
    {"Add Sub", "mam mat tam tat mma mta tma tta", Estimate::whc_2c1, false,
     {36864, 18432, 18432, 18432, 18432, 18432, 9216}},
    {"Add Sub", "mama mata tama tata", Estimate::whc_3, false,
     {36864, 18432, 18432, 18432, 18432, 18432, 9216}},
    {"Add Sub", "vav vva vac", Estimate::lc_2c1, true, {20000, 20000, 40000, 20000, 40000, 20000, 20000}},
    {"Add Sub", "vca cav", Estimate::lc_l_c, true, {20000, 20000, 40000, 20000, 40000, 20000, 20000}},
    {"Add Sub", "vaca cava", Estimate::lc_2_c, true, {20000, 20000, 40000, 20000, 40000, 20000, 20000}},
    {"Add Sub", "vava", Estimate::lc_3, true, {20000, 20000, 40000, 20000, 40000, 20000, 20000}},
    {"Add Sub", "cva", Estimate::c_2, true, {19999, 19999, 39999, 19999, 39999, 19999, 19999}},
    {"Mul", "mac tac", Estimate::whc_2, true, {35000, 35000, 35000, 35000, 15000, 35000, 17000}},
    {"Mul", "vac", Estimate::lc_2, true, {36864, 18432, 18432, 18432, 18432, 18432, 9216}},
    {"Mul", "vca", Estimate::lc_l_c, true, {36864, 36864, 18432, 18432, 18432, 18432, 9216}},
    {"Mul", "vaca", Estimate::lc_2_c, true, {36864, 36864, 18432, 18432, 18432, 18432, 9216}},
};

// Array exports without a parallel wrapper: they always run on the calling
// thread, whatever the estimate.
struct NoWrapper {
    std::string_view op, sig;
    bool is64;
    Form form;
};
inline constexpr NoWrapper kNoWrapper[] = {
    {"Sub", "vva", true, Form::P},
};

constexpr const ThresholdRow& threshold_row(std::string_view op, std::string_view sig) {
    for (const auto& r : kThresholds)
        if (has_word(r.ops, op) && has_word(r.sigs, sig)) return r;
    throw "no threshold row";  // a compile-time error when used in a constant expression
}

constexpr bool has_wrapper(std::string_view op, std::string_view sig, bool is64, Form f) {
    for (const auto& n : kNoWrapper)
        if (n.op == op && n.sig == sig && n.is64 == is64 && n.form == f) return false;
    return true;
}

constexpr std::int32_t estimate(Estimate e, int w, int h, int l, int c) {
    const Est W(w), H(h), L(l), C(c);
    switch (e) {
        case Estimate::whc_2c1: return (W * H * (Est(2) * C + Est(1))).value();
        case Estimate::whc_3: return (Est(3) * W * H * C).value();
        case Estimate::whc_2: return (Est(2) * W * H * C).value();
        case Estimate::lc_2c1: return (L * (Est(2) * C + Est(1))).value();
        case Estimate::lc_l_c: return (L * C + L + C).value();
        case Estimate::lc_2_c: return (Est(2) * L * C + C).value();
        case Estimate::lc_3: return (Est(3) * L * C).value();
        case Estimate::c_2: return (Est(2) * C).value();
        case Estimate::lc_2: return (Est(2) * L * C).value();
    }
    return 0;
}

constexpr int threshold(const Threshold& t, Form f, bool unit, bool is64) {
    switch (f) {
        case Form::S: return unit ? t.s_unit : t.s_other;
        case Form::L:
            return unit ? (is64 ? t.l_unit64 : t.l_unit32) : (is64 ? t.l_other64 : t.l_other32);
        case Form::P: return t.p;
    }
    return 0;
}

// Whether an array call goes to the parallel wrapper.
constexpr bool goes_parallel(const ThresholdRow& row, Form f, bool unit, bool is64, int w, int h,
                             int l, int c) {
    const std::int32_t e = estimate(row.est, w, h, l, c);
    const int t = threshold(row.thr, f, unit, is64);
    return row.strict ? e > t : e >= t;
}

}  // namespace zel::elementwise
