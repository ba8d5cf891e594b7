// The single-vector element-wise exports: Add/Sub vv, Add/Sub/Mul vc, Sub cv,
// in both types and in the standard and pointer forms, against a plain loop.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>
#include <random>
#include <string>
#include <vector>

#include "zelm.h"

namespace {

template <class T>
bool same_bits(T a, T b) {
    return std::memcmp(&a, &b, sizeof(T)) == 0;
}

enum class Stem { AddVV, SubVV, AddVC, SubVC, SubCV, MulVC };

template <class T>
T reference(Stem s, T x, T y) {
    switch (s) {
        case Stem::AddVV:
        case Stem::AddVC: return x + y;
        case Stem::SubVV:
        case Stem::SubVC: return x - y;
        case Stem::SubCV: return y - x;  // constant minus source
        case Stem::MulVC: return x * y;
    }
    return 0;
}
bool two_vectors(Stem s) { return s == Stem::AddVV || s == Stem::SubVV; }

// The export of a stem, type and form, called with byte strides.
template <class T>
struct Vec;
#define ZEL_VEC_TYPE(T, SFX)                                                                         \
    template <>                                                                                      \
    struct Vec<T> {                                                                                  \
        static zelStatus vv(Stem s, const T* a, int as, const T* b, int bs, T* d, int ds, int len) { \
            return s == Stem::AddVV ? zelmAdd_vv_##SFX(a, as, b, bs, d, ds, len)                     \
                                    : zelmSub_vv_##SFX(a, as, b, bs, d, ds, len);                    \
        }                                                                                            \
        static zelStatus vc(Stem s, const T* a, int as, T v, T* d, int ds, int len) {                \
            switch (s) {                                                                             \
                case Stem::AddVC: return zelmAdd_vc_##SFX(a, as, v, d, ds, len);                     \
                case Stem::SubVC: return zelmSub_vc_##SFX(a, as, v, d, ds, len);                     \
                case Stem::SubCV: return zelmSub_cv_##SFX(a, as, v, d, ds, len);                     \
                default: return zelmMul_vc_##SFX(a, as, v, d, ds, len);                              \
            }                                                                                        \
        }                                                                                            \
        static zelStatus vv_P(Stem s, const T* const* a, int ash, const T* const* b, int bsh,        \
                              T* const* d, int dsh, int len) {                                       \
            return s == Stem::AddVV ? zelmAdd_vv_##SFX##_P(a, ash, b, bsh, d, dsh, len)              \
                                    : zelmSub_vv_##SFX##_P(a, ash, b, bsh, d, dsh, len);             \
        }                                                                                            \
        static zelStatus vc_P(Stem s, const T* const* a, int ash, T v, T* const* d, int dsh,         \
                              int len) {                                                             \
            switch (s) {                                                                             \
                case Stem::AddVC: return zelmAdd_vc_##SFX##_P(a, ash, v, d, dsh, len);               \
                case Stem::SubVC: return zelmSub_vc_##SFX##_P(a, ash, v, d, dsh, len);               \
                case Stem::SubCV: return zelmSub_cv_##SFX##_P(a, ash, v, d, dsh, len);               \
                default: return zelmMul_vc_##SFX##_P(a, ash, v, d, dsh, len);                        \
            }                                                                                        \
        }                                                                                            \
    };
ZEL_VEC_TYPE(float, 32f)
ZEL_VEC_TYPE(double, 64f)
#undef ZEL_VEC_TYPE

const Stem kStems[] = {Stem::AddVV, Stem::SubVV, Stem::AddVC, Stem::SubVC, Stem::SubCV, Stem::MulVC};
const int kLens[] = {1, 2, 3, 4, 5, 6, 7, 8, 9, 15, 16, 17, 33, 100, 1001};

// A layout of one call: element strides of the two sources and the
// destination, and the destination's offset in elements from a 16-byte boundary.
struct Layout {
    int a, b, d;  // strides in elements
    int dst_offset;
};
const Layout kLayouts[] = {
    {1, 1, 1, 0}, {1, 1, 1, 1}, {1, 1, 1, 3}, {2, 1, 1, 0}, {1, 3, 2, 1}, {1, 1, 2, 0}, {3, 2, 4, 2},
};

template <class T>
class VectorExports : public ::testing::Test {};
using Types = ::testing::Types<float, double>;
TYPED_TEST_SUITE(VectorExports, Types);

template <class T>
std::vector<T> values(std::size_t n, unsigned seed) {
    std::mt19937 g(seed);
    std::uniform_real_distribution<double> u(-100, 100);
    std::vector<T> v(n);
    for (auto& x : v) x = T(u(g));
    return v;
}

TYPED_TEST(VectorExports, StandardFormMatchesPlainLoop) {
    using T = TypeParam;
    const T sentinel = T(-7777.25);
    const int E = sizeof(T);
    for (Stem s : kStems) {
        for (int len : kLens) {
            for (const Layout& l : kLayouts) {
                const auto a = values<T>(std::size_t(len) * l.a, 1 + len);
                const auto b = values<T>(std::size_t(len) * l.b, 2 + len);
                const T val = T(3.375);
                std::vector<T> dst(std::size_t(len) * l.d + l.dst_offset + 4, sentinel);
                T* d = dst.data() + l.dst_offset;
                const zelStatus st = two_vectors(s) ? Vec<T>::vv(s, a.data(), l.a * E, b.data(), l.b * E, d, l.d * E, len)
                                                    : Vec<T>::vc(s, a.data(), l.a * E, val, d, l.d * E, len);
                ASSERT_EQ(st, zelStsOk);
                for (std::size_t k = 0; k < dst.size(); ++k) {
                    const std::ptrdiff_t rel = std::ptrdiff_t(k) - l.dst_offset;
                    const bool written = rel >= 0 && rel % l.d == 0 && rel / l.d < len;
                    if (!written) {
                        ASSERT_TRUE(same_bits(dst[k], sentinel)) << "element between results changed";
                        continue;
                    }
                    const std::size_t j = rel / l.d;
                    const T want = two_vectors(s) ? reference<T>(s, a[j * l.a], b[j * l.b])
                                                  : reference<T>(s, a[j * l.a], val);
                    ASSERT_TRUE(same_bits(dst[k], want)) << "stem " << int(s) << " len " << len << " j " << j;
                }
            }
        }
    }
}

TYPED_TEST(VectorExports, PointerFormMatchesPlainLoop) {
    using T = TypeParam;
    const int E = sizeof(T);
    for (Stem s : kStems) {
        for (int len : kLens) {
            // elements scattered in scrambled order, reached through a shift
            const int shift = 2 * E;
            std::vector<T> pool(3 * std::size_t(len) + 8, T(0));
            std::vector<T> dpool(std::size_t(len) + 8, T(-1));
            std::vector<const T*> ta(len), tb(len);
            std::vector<T*> td(len);
            const auto a = values<T>(len, 5 + len), b = values<T>(len, 6 + len);
            std::vector<int> perm(2 * std::size_t(len));
            for (int k = 0; k < 2 * len; ++k) perm[k] = k;
            std::shuffle(perm.begin(), perm.end(), std::mt19937(len));
            for (int j = 0; j < len; ++j) {
                const int pa = perm[j], pb = perm[len + j];
                pool[pa + 2] = a[j];
                pool[pb + 2] = b[j];
                ta[j] = pool.data() + pa;
                tb[j] = pool.data() + pb;
                td[j] = dpool.data() + (len - 1 - j);
            }
            const T val = T(-0.625);
            const zelStatus st = two_vectors(s)
                                     ? Vec<T>::vv_P(s, ta.data(), shift, tb.data(), shift, td.data(), shift, len)
                                     : Vec<T>::vc_P(s, ta.data(), shift, val, td.data(), shift, len);
            ASSERT_EQ(st, zelStsOk);
            for (int j = 0; j < len; ++j) {
                const T want = two_vectors(s) ? reference<T>(s, a[j], b[j]) : reference<T>(s, a[j], val);
                ASSERT_TRUE(same_bits(dpool[len - 1 - j + 2], want)) << "stem " << int(s) << " len " << len;
            }
        }
    }
}

TYPED_TEST(VectorExports, InPlaceWithEqualStrides) {
    using T = TypeParam;
    const int E = sizeof(T);
    for (Stem s : kStems) {
        for (int len : kLens) {
            for (int stride : {1, 2}) {
                auto buf = values<T>(std::size_t(len) * stride, 9 + len);
                const auto orig = buf;
                const auto b = values<T>(len, 10 + len);
                const T val = T(1.5);
                const zelStatus st = two_vectors(s)
                                         ? Vec<T>::vv(s, buf.data(), stride * E, b.data(), E, buf.data(), stride * E, len)
                                         : Vec<T>::vc(s, buf.data(), stride * E, val, buf.data(), stride * E, len);
                ASSERT_EQ(st, zelStsOk);
                for (int j = 0; j < len; ++j) {
                    const T x = orig[std::size_t(j) * stride];
                    const T want = two_vectors(s) ? reference<T>(s, x, b[j]) : reference<T>(s, x, val);
                    ASSERT_TRUE(same_bits(buf[std::size_t(j) * stride], want));
                }
            }
        }
    }
}

TYPED_TEST(VectorExports, SubtractingAConstantFromEitherSide) {
    using T = TypeParam;
    const int E = sizeof(T);
    std::vector<T> src(7, T(0.25)), d1(7), d2(7);
    ASSERT_EQ(Vec<T>::vc(Stem::SubCV, src.data(), E, T(1), d1.data(), E, 7), zelStsOk);
    ASSERT_EQ(Vec<T>::vc(Stem::SubVC, src.data(), E, T(1), d2.data(), E, 7), zelStsOk);
    for (int j = 0; j < 7; ++j) {
        EXPECT_EQ(d1[j], T(0.75));
        EXPECT_EQ(d2[j], T(-0.75));
    }
}

TYPED_TEST(VectorExports, NaNAndInfinityPassThroughWithStatusZero) {
    using T = TypeParam;
    const int E = sizeof(T);
    const T inf = std::numeric_limits<T>::infinity();
    for (int len : {1, 4, 9, 40}) {
        std::vector<T> src(len, T(0)), d(len, T(5));
        ASSERT_EQ(Vec<T>::vc(Stem::MulVC, src.data(), E, inf, d.data(), E, len), zelStsOk);
        for (T x : d) EXPECT_TRUE(std::isnan(x));
        std::vector<T> big(len, std::numeric_limits<T>::max());
        ASSERT_EQ(Vec<T>::vv(Stem::AddVV, big.data(), E, big.data(), E, d.data(), E, len), zelStsOk);
        for (T x : d) EXPECT_EQ(x, inf);
    }
}

// A constant of -0.0 is used as it stands on every path, the long vector
// runs included: 1 * -0.0 and -0.0 + -0.0 are -0.0.
TYPED_TEST(VectorExports, NegativeZeroConstantKeepsItsSign) {
    using T = TypeParam;
    const int E = sizeof(T);
    for (int len : {3, 16, 17, 64, 65, 301}) {
        std::vector<T> ones(len, T(1)), zeros(len, T(-0.0)), d(len, T(5));
        ASSERT_EQ(Vec<T>::vc(Stem::MulVC, ones.data(), E, T(-0.0), d.data(), E, len), zelStsOk);
        for (T x : d) EXPECT_TRUE(x == 0 && std::signbit(x)) << len;
        ASSERT_EQ(Vec<T>::vc(Stem::AddVC, zeros.data(), E, T(-0.0), d.data(), E, len), zelStsOk);
        for (T x : d) EXPECT_TRUE(x == 0 && std::signbit(x)) << len;
    }
}

}  // namespace
