// Determinants: every form against Eigen and bit for bit against the
// standard call of its method; thresholds; the wrapper.
#include <cmath>
#include <limits>

#include "solvers_harness.hpp"

namespace {

using sq::Mat;
using sq::Vec;

// The method of each kernel by order, as documented.
enum class Method { Generic, Extended, Scalar, Pairs };
Method method_of(const reg::ExportRow& r, bool unit, int n) {
    if (n < 3 || n > 6) return Method::Generic;
    if (!unit || *r.form == 'P') return Method::Scalar;
    if (!fh::is64(r) && std::string(r.sig) == "ma" && *r.form == 'S')
        return n == 3 ? Method::Scalar : n == 4 ? Method::Pairs : Method::Extended;
    return Method::Extended;
}

// The single standard call, contiguous or with an element stride of 2.
template <class T>
T det(const Vec<T>& a, int n, bool strided = false) {
    return sq::single_ok("Det", n, 0, strided, a)[0];
}

// The method object k of a call runs. Pairs need pSrc, srcStride0 and
// srcStride1 on 16-byte boundaries, and leave an odd last object to the
// extended method.
template <class T>
Method method_at(Method m, fh::Laid<T>& l, int k) {
    if (m != Method::Pairs) return m;
    const bool paired = fh::aligned16({&l.at("Src", 0, 0, 0), &l.at("Src", 0, 1, 0), &l.at("Src", l.count() > 1 ? 1 : 0, 0, 0)});
    return paired && k < l.count() / 2 * 2 ? Method::Scalar : Method::Extended;
}

// Random objects, object 5 zero (status 0, every other object filled); then
// the identity with the block ((p, q), (q, p)) in the top left corner, p =
// q + 1 and q a power of 2 whose square p^2 needs more bits than the type
// has: its determinant 2q + 1 comes out exactly from the extended method, as
// 2q from the element type's arithmetic.
TEST(Det, EveryFormAgreesWithEigenAndShowsItsMethod) {
    for (const auto* row : fh::exports_of({"Det"}))
        fh::with_type(*row, [&](auto t) {
            using T = decltype(t);
            const T q = std::ldexp(T(1), fh::is64(*row) ? 27 : 12), p = q + 1;
            for (int n = 1; n <= 9; ++n)
                for (const auto& L : sq::layouts()) {
                    auto l = sq::laid<T>(*row, sq::kCount, n, L);
                    auto src = sq::random_objects(l, "Src", unsigned(n), n, n);
                    if (l.count() > 1) src[sq::kBad].assign(src[sq::kBad].size(), T(0)), l.set("Src", sq::kBad, src[sq::kBad]);
                    const auto at = sq::where(*row, L, n);
                    ASSERT_TRUE(fh::call_matches(l, {})) << at;
                    const Method m = method_of(*row, L.k2 == 1, n);
                    for (int k = 0; k < l.count(); ++k) {
                        const T got = l.block("pDst")[k];
                        EXPECT_EQ(got, det(src[k], n, method_at(m, l, k) == Method::Scalar)) << at;
                        const Mat A = sq::to_eigen(src[k], n, n);
                        EXPECT_NEAR(got, A.determinant(), 64 * n * std::numeric_limits<T>::epsilon() * A.rowwise().norm().prod()) << at;
                    }
                    if (n < 3 || n > 6) continue;
                    Vec<T> a(std::size_t(n) * n, T(0));
                    for (int i = 0; i < n; ++i) a[std::size_t(i) * (n + 1)] = 1;
                    a[0] = a[std::size_t(n) + 1] = p;
                    a[1] = a[std::size_t(n)] = q;
                    for (int k = 0; k < l.count(); ++k) l.set("Src", k, a);
                    ASSERT_EQ(l.call(), zelStsOk);
                    for (int k = 0; k < l.count(); ++k)
                        EXPECT_EQ(l.block("pDst")[k], method_at(m, l, k) == Method::Scalar ? 2 * q : 2 * q + 1) << at << " object " << k;
                }
        });
}

// diag(x, 1, ..., 1) and diag(1, ..., 1, x) have the determinant x. The
// generic path (orders 1, 2, 7) gives 0 for a first pivot below T(n) = 2 n^3
// times the smallest normal value and for a last element not above it; the
// fixed orders have no threshold.
TEST(Det, Thresholds) {
    sq::for_types([](auto t) {
        using T = decltype(t);
        for (int n = 1; n <= 7; ++n) {
            const T thr = sq::limit_of<T>(n);
            for (const T x : {std::nextafter(thr, T(0)), thr, std::nextafter(thr, T(1))})
                for (int last = 0; last < 2; ++last) {
                    Vec<T> a(std::size_t(n) * n, T(0));
                    for (int i = 0; i < n; ++i) a[std::size_t(i) * (n + 1)] = i == last * (n - 1) ? x : T(1);
                    const bool zero = (n < 3 || n == 7) && (last || n == 1 ? x <= thr : x < thr);
                    EXPECT_EQ(det(a, n), zero ? T(0) : x) << "order " << n << (last ? " last " : " first ") << x;
                }
        }
    });
}

// The parallel wrapper: estimate n count against 20001, 40001 in the 32f
// list form with contiguous elements; no status to merge; the wrapper's
// scratch in place of pBuffer; singular objects among the others. (Each
// slice's odd last object leaves the 32f pairs for the extended method: even
// slices here.)
TEST(Det, FanOut) {
    sq::fan_out<true>({"Det"}, {1, 3, 7}, sq::reaches_linear(1), {{4, 10504, 7000}, {7, 6000, 4000}}, zelStsOk);
}

}  // namespace
