// Fixed-size geometry against glm (column-major: the same memory as this
// row-major, row-vector layout), the written formulas and identities.
#define GLM_ENABLE_EXPERIMENTAL
#include <gtest/gtest.h>

#include <cfloat>
#include <cmath>
#include <cstring>
#include <glm/glm.hpp>
#include <glm/gtc/matrix_transform.hpp>
#include <glm/gtc/type_ptr.hpp>
#include <glm/gtx/euler_angles.hpp>
#include <glm/gtx/spline.hpp>
#include <random>
#include <vector>

#include "forms_harness.hpp"
#include "zelm.h"

namespace {

constexpr float kSentinel = -777.25f;
std::mt19937 rng;
float rnd(float lo = -2.0f, float hi = 2.0f) { return std::uniform_real_distribution<float>(lo, hi)(rng); }
void fill(float* p, int n, float lo = -2.0f, float hi = 2.0f) {
    for (int i = 0; i < n; ++i) p[i] = rnd(lo, hi);
}
bool same_bits(float a, float b) { return std::memcmp(&a, &b, 4) == 0; }
bool untouched(const float* p, int n) { return std::all_of(p, p + n, [](float v) { return v == kSentinel; }); }

// Element-wise |got - want| <= tol * (1 + |want|); tol 0: the same bits;
// kEqual: equal values (-0 == +0).
constexpr float kEqual = -1.0f;
::testing::AssertionResult close(const float* got, const float* want, int n, float tol) {
    for (int i = 0; i < n; ++i) {
        const bool ok = tol == 0 ? same_bits(got[i], want[i])
                        : tol < 0 ? got[i] == want[i]
                                  : std::fabs(got[i] - want[i]) <= tol * (1.0f + std::fabs(want[i]));
        if (!ok) return ::testing::AssertionFailure() << "element " << i << ": " << got[i] << " vs " << want[i];
    }
    return ::testing::AssertionSuccess();
}

// ours(got) returns zelStsOk and writes n values, as `want` within tol; the
// element after them untouched.
template <class F>
::testing::AssertionResult writes(F&& ours, const float* want, int n, float tol) {
    float got[17];
    std::fill(got, got + 17, kSentinel);
    if (const zelStatus st = ours(got); st != zelStsOk) return ::testing::AssertionFailure() << "status " << st;
    if (got[n] != kSentinel) return ::testing::AssertionFailure() << "wrote past its result";
    return close(got, want, n, tol);
}

using M = glm::mat4;

// Every test draws the same numbers, whichever tests run before it.
class Geometry : public ::testing::Test {
protected:
    void SetUp() override { rng.seed(20240611); }
};

template <int N>
glm::vec<N, float> gv(const float* p) {
    glm::vec<N, float> v;
    return std::memcpy(&v, p, sizeof v), v;
}

// ---------------------------------------------------------------------------
// Small vectors, each length against glm: ZEL_V calls the export of length N
// with `args`, glm's `expr` on the same values (A .. D the glm vectors of
// a .. d; s, t the scalars); `outs` values written (0: the length).

template <int N>
void run_vec_rows() {
    for (int trial = 0; trial < 200; ++trial) {
        float a[4], b[4], c[4], d[4];
        fill(a, 4), fill(b, 4), fill(c, 4), fill(d, 4);
        const float s = rnd(0, 1), t = rnd(0, 1);
        const auto A = gv<N>(a), B = gv<N>(b), C = gv<N>(c), D = gv<N>(d);
        const auto check = [&](const char* name, auto ours, auto expr, int outs, float tol) {
            float want[4];
            std::memcpy(want, &expr, sizeof expr);
            ASSERT_TRUE(writes(ours, want, outs ? outs : N, tol)) << name << " v" << N << " trial " << trial;
        };
#define ZEL_V(Op, args, expr, outs, tol) \
    check(#Op, [&](float* o) { return (N == 2 ? zelm##Op##_v2_32f : N == 3 ? zelm##Op##_v3_32f : zelm##Op##_v4_32f) args; }, expr, outs, tol)
        ZEL_V(Add, (a, b, o), A + B, 0, 0);
        ZEL_V(Sub, (a, b, o), A - B, 0, 0);
        ZEL_V(Min, (a, b, o), glm::min(A, B), 0, 0);
        ZEL_V(Max, (a, b, o), glm::max(A, B), 0, 0);
        ZEL_V(MulC, (a, s, o), A * s, 0, 0);
        ZEL_V(DotProduct, (a, b, o), glm::dot(A, B), 1, 1e-6f);
        ZEL_V(LenSqr, (a, o), glm::dot(A, A), 1, 1e-6f);
        ZEL_V(Len, (a, o), glm::length(A), 1, 1e-6f);
        ZEL_V(Normalize, (a, o), glm::normalize(A), 0, 1e-6f);
        ZEL_V(InterpolationLinear, (a, b, s, o), glm::mix(A, B, s), 0, 1e-5f);
        ZEL_V(BaryCentric, (a, b, c, s, t, o), A + (B - A) * s + (C - A) * t, 0, 1e-5f);
        ZEL_V(Hermite, (a, b, c, d, s, o), glm::hermite(A, B, C, D, s), 0, 1e-5f);
        ZEL_V(InterpolationCatmullRom, (a, b, c, d, s, o), glm::catmullRom(A, B, C, D, s), 0, 1e-5f);
#undef ZEL_V
    }
}

TEST_F(Geometry, AgreeWithGlmAtEveryLength) {
    run_vec_rows<2>();
    run_vec_rows<3>();
    run_vec_rows<4>();
}

// The written formulas where the order is the result: Hermite's weights in
// 64 bits, the length's root in 64 bits, ties and NaN going to b; the cross
// products (of four components: x . d = -det(a, b, c, d) for every d).
TEST_F(Geometry, WrittenOrderAndEdgeCases) {
    for (int trial = 0; trial < 500; ++trial) {
        float a[4], b[4], c[4], d[4], got[4];
        fill(a, 4), fill(b, 4), fill(c, 4), fill(d, 4);
        const float s = rnd(-0.5f, 1.5f), s2 = s * s, s3 = s2 * s;
        const double S = s, S2 = s2, S3 = s3;
        const float w1 = float(S - S2 - S2 + S3), w2 = float(S3 - 3.0 * S2 + S3), w3 = float(S3 - S2);
        zelmHermite_v3_32f(a, b, c, d, s, got);
        for (int i = 0; i < 3; ++i)
            ASSERT_TRUE(same_bits(got[i], (a[i] - c[i]) * w2 + ((a[i] + b[i] * w1) + d[i] * w3))) << trial;
        zelmLen_v3_32f(a, got);
        ASSERT_TRUE(same_bits(got[0], float(std::sqrt(double((a[0] * a[0] + a[1] * a[1]) + a[2] * a[2])))));
        zelmCrossProduct_v4_32f(a, b, c, got);
        const float det = glm::determinant(M(gv<4>(a), gv<4>(b), gv<4>(c), gv<4>(d)));
        ASSERT_NEAR(glm::dot(gv<4>(got), gv<4>(d)), -det, 1e-4f * (1 + std::fabs(det)));
        // v3 as glm's; v2 the z of the v3 one of (a0, a1, 0) and (b0, b1, 0)
        zelmCrossProduct_v3_32f(a, b, got);
        ASSERT_TRUE(close(got, glm::value_ptr(glm::cross(gv<3>(a), gv<3>(b))), 3, 0));
        got[1] = kSentinel;
        zelmCrossProduct_v2_32f(a, b, got);
        ASSERT_TRUE(same_bits(got[0], glm::cross(glm::vec3(a[0], a[1], 0), glm::vec3(b[0], b[1], 0)).z) && got[1] == kSentinel);
    }
    const float p[4] = {0.0f, -0.0f, NAN, 1.0f}, q[4] = {-0.0f, 0.0f, 1.0f, NAN};
    float mn[4], mx[4];
    zelmMin_v4_32f(p, q, mn);
    zelmMax_v4_32f(p, q, mx);
    for (int i = 0; i < 4; ++i) EXPECT_TRUE(same_bits(mn[i], q[i]) && same_bits(mx[i], q[i])) << i;
    const float zero[3] = {0, 0, 0};
    float n3[3];
    EXPECT_EQ(zelmNormalize_v3_32f(zero, n3), zelStsOk);
    EXPECT_TRUE(std::isnan(n3[0]) && std::isnan(n3[1]) && std::isnan(n3[2]));
}

// ---------------------------------------------------------------------------
// Constructors against glm's left- and right-handed functions. glm's view
// and projection matrices (depth 0..1, "_ZO") are these; the width/height
// forms are glm's centred frustum and box.
TEST_F(Geometry, AgreeWithGlm) {
    for (int trial = 0; trial < 50; ++trial) {
        const float x = rnd(), y = rnd(), z = rnd(), ang = rnd(-3, 3), p = rnd(-3, 3), r = rnd(-3, 3);
        const float l = rnd(-3, -1), rt = rnd(1, 3), b = rnd(-3, -1), t = rnd(1, 3), n = rnd(0.1f, 1), f = rnd(5, 50);
        const float w = rt - l, h = t - b, hw = w / 2, hh = h / 2, fov = rnd(0.3f, 2.5f), asp = rnd(0.5f, 2);
        float axis[3], eye[3], at[3], up[3] = {0, 1, 0};
        fill(axis, 3), fill(eye, 3, -5, 5), fill(at, 3, -5, 5);
        // glm's left-handed frustum shifts x and y the other way; with w = z the
        // centre of the near plane goes to x = y = 0 by (l + r) / (0 - (r - l))
        M off_lh = glm::frustumLH_ZO(l, rt, b, t, n, f);
        off_lh[2][0] = (l + rt) / (0 - (rt - l)), off_lh[2][1] = (b + t) / (0 - (t - b));
// The constructor Name called with `args` against glm's `ref`.
#define ZEL_CTOR(Name, sig, args, ref, tol) \
    ASSERT_TRUE(writes([&](float* o) { return zelm##Name##_##sig##_32f args; }, glm::value_ptr(M(ref)), 16, tol)) << #Name
        ZEL_CTOR(Identity, m4, (o), M(1), kEqual);
        ZEL_CTOR(Scaling, m4, (x, y, z, o), glm::scale(M(1), {x, y, z}), kEqual);
        ZEL_CTOR(Translation, m4, (x, y, z, o), glm::translate(M(1), {x, y, z}), kEqual);
        ZEL_CTOR(RotationX, m4, (ang, o), glm::eulerAngleX(ang), kEqual);
        ZEL_CTOR(RotationY, m4, (ang, o), glm::eulerAngleY(ang), kEqual);
        ZEL_CTOR(RotationZ, m4, (ang, o), glm::eulerAngleZ(ang), kEqual);
        ZEL_CTOR(RotationAxis, v3m4, (axis, ang, o), glm::rotate(M(1), ang, gv<3>(axis)), 2e-6f);
        ZEL_CTOR(RotationYawPitchRoll, m4, (ang, p, r, o), glm::yawPitchRoll(ang, p, r), 2e-6f);
        ZEL_CTOR(LookAtLH, m4, (eye, at, up, o), glm::lookAtLH(gv<3>(eye), gv<3>(at), gv<3>(up)), 1e-5f);
        ZEL_CTOR(LookAtRH, m4, (eye, at, up, o), glm::lookAtRH(gv<3>(eye), gv<3>(at), gv<3>(up)), 1e-5f);
        ZEL_CTOR(OrthoLH, m4, (w, h, n, f, o), glm::orthoLH_ZO(-hw, hw, -hh, hh, n, f), kEqual);
        ZEL_CTOR(OrthoRH, m4, (w, h, n, f, o), glm::orthoRH_ZO(-hw, hw, -hh, hh, n, f), kEqual);
        ZEL_CTOR(OrthoOffCenterLH, m4, (l, rt, b, t, n, f, o), glm::orthoLH_ZO(l, rt, b, t, n, f), kEqual);
        ZEL_CTOR(OrthoOffCenterRH, m4, (l, rt, b, t, n, f, o), glm::orthoRH_ZO(l, rt, b, t, n, f), kEqual);
        ZEL_CTOR(PerspectiveLH, m4, (w, h, n, f, o), glm::frustumLH_ZO(-hw, hw, -hh, hh, n, f), kEqual);
        ZEL_CTOR(PerspectiveRH, m4, (w, h, n, f, o), glm::frustumRH_ZO(-hw, hw, -hh, hh, n, f), kEqual);
        ZEL_CTOR(PerspectiveOffCenterLH, m4, (l, rt, b, t, n, f, o), off_lh, kEqual);
        ZEL_CTOR(PerspectiveOffCenterRH, m4, (l, rt, b, t, n, f, o), glm::frustumRH_ZO(l, rt, b, t, n, f), kEqual);
        ZEL_CTOR(PerspectiveFovLH, m4, (fov, asp, n, f, o), glm::perspectiveLH_ZO(fov, asp, n, f), 1e-6f);
        ZEL_CTOR(PerspectiveFovRH, m4, (fov, asp, n, f, o), glm::perspectiveRH_ZO(fov, asp, n, f), 1e-6f);
#undef ZEL_CTOR
    }
}

// The written edge cases: 0 - (f - n) keeps an infinite depth term positive;
// the identity test is exact, -0 counting as 0.
TEST_F(Geometry, EdgeCasesAndIdentityTest) {
    float m[16];
    zelmOrthoLH_m4_32f(2, 2, 1, 1, m);
    EXPECT_TRUE(std::isinf(m[10]) && m[10] > 0 && std::isinf(m[14]) && m[14] > 0);
    unsigned int res = 7;
    zelmIdentity_m4_32f(m);
    m[4] = -0.0f;
    zelmIsIdentity_m4_32f(m, &res);
    EXPECT_EQ(res, 1u);
    for (const float bad : {std::nextafter(1.0f, 2.0f), FLT_MIN, NAN})
        for (const int at : {0, 7}) {
            zelmIdentity_m4_32f(m);
            m[at] = at == 0 && bad == FLT_MIN ? 0.0f : bad;
            zelmIsIdentity_m4_32f(m, &res);
            EXPECT_EQ(res, 0u) << bad << " at " << at;
        }
}

// ---------------------------------------------------------------------------
// 4x4 operations on well conditioned matrices: random plus 4 on the
// diagonal, rows shuffled so that the pivots move.
void random_m4(float* m) {
    fill(m, 16);
    for (int i = 0; i < 4; ++i) m[5 * i] += (i & 1) ? -4.0f : 4.0f;
    for (int i = 3; i > 0; --i) std::swap_ranges(m + 4 * i, m + 4 * i + 4, m + 4 * (rng() % (i + 1)));
}

TEST_F(Geometry, ProductsTransposeDeterminantAndInverse) {
    for (int trial = 0; trial < 200; ++trial) {
        float a[16], b[16], d[16], t[16], mt[16], a2[16], b2[16], inv[16], det, det2 = 0;
        random_m4(a), random_m4(b);
        const M ga = glm::make_mat4(a), gb = glm::make_mat4(b);
        // row-major a * b is column-major gb * ga, with glm's sums in the same order of k
        ASSERT_EQ(zelmMul_mm4x4_32f(a, b, d), zelStsOk);
        ASSERT_TRUE(close(d, glm::value_ptr(gb * ga), 16, 0));
        zelmMulTranspose_m4_32f(a, b, mt);
        zelmTranspose_m4_32f(d, t);
        ASSERT_TRUE(close(mt, t, 16, 0) && close(t, glm::value_ptr(glm::transpose(gb * ga)), 16, 0));
        zelmDet_m4_32f(a, &det);
        ASSERT_NEAR(det, glm::determinant(ga), 1e-5f * std::fabs(det));
        // in place on either source
        std::memcpy(a2, a, sizeof a), std::memcpy(b2, b, sizeof b);
        zelmMul_mm4x4_32f(a2, b, a2);
        zelmMul_mm4x4_32f(a, b2, b2);
        ASSERT_TRUE(close(a2, d, 16, 0) && close(b2, d, 16, 0));
        // the inverse and the determinant of its pivots; without pDet and in place the same bits
        ASSERT_EQ(zelmInvert_m4_32f(a, &det2, inv), zelStsOk);
        ASSERT_TRUE(close(inv, glm::value_ptr(glm::inverse(ga)), 16, 1e-4f)) << trial;
        ASSERT_NEAR(det, det2, 1e-5f * std::fabs(det));
        ASSERT_EQ(zelmInvert_m4_32f(a, nullptr, a), zelStsOk);
        ASSERT_TRUE(close(a, inv, 16, 0));
    }
}

// Singular by the absolute pivot threshold 12 * 2^-23: the destination is
// untouched, the determinant 0, with or without pDet; at the threshold not.
TEST_F(Geometry, SingularLeavesTheDestination) {
    const float thr = std::ldexp(12.0f, -23);
    float at[16], below[16], zero_row[16], tiny[16], d = 0, dst[16];
    zelmScaling_m4_32f(thr, thr, thr, at);
    at[15] = thr;
    EXPECT_EQ(zelmInvert_m4_32f(at, &d, dst), zelStsOk);
    zelmScaling_m4_32f(std::nextafter(thr, 0.0f), 1, 1, below);
    random_m4(zero_row);
    std::fill(zero_row + 8, zero_row + 12, 0.0f);
    zelmScaling_m4_32f(1e-7f, 1e-7f, 1e-7f, tiny);  // a determinant far from 0
    tiny[15] = 1e-7f;
    for (const float* m : {below, zero_row, tiny})
        for (float* pdet : {static_cast<float*>(nullptr), &d}) {
            std::fill(dst, dst + 16, kSentinel);
            d = kSentinel;
            EXPECT_EQ(zelmInvert_m4_32f(m, pdet, dst), zelStsErrSingular);
            EXPECT_TRUE(untouched(dst, 16) && (pdet ? d == 0.0f : d == kSentinel));
        }
}

// ---------------------------------------------------------------------------
// Point transforms: each against its written formula, bit for bit, the
// array forms equal to the single ones.
struct TransformRow {
    const char* name;
    int n, outs;
    zelStatus (*single)(const float*, const float*, float*);
    zelStatus (*array)(const float*, const float*, int, float*, int, int);
    void (*ref)(const float (*m)[4], const float* v, float* o);
};
// The written formula of component j (x, y, z, w the source, W_ the
// transformed w of the Coord forms).
#define ZEL_REF(outs, W, expr)                                                      \
    [](const float(*M)[4], const float* v, float* o) {                                \
        [[maybe_unused]] const float x = v[0], y = v[1], z = v[2], w = v[3], W_ = W; \
        for (int j = 0; j < outs; ++j) o[j] = expr;                                   \
    }
#define ZEL_TRANSFORM(Op, sig, n, outs) #Op "_" #sig, n, outs, zelm##Op##_##sig##_32f, zelm##Op##_##sig##a_32f
const TransformRow kTransforms[] = {
    {ZEL_TRANSFORM(AffineTransform, m4v2, 2, 4), ZEL_REF(4, 0, (M[0][j] * x + M[1][j] * y) + M[3][j])},
    {ZEL_TRANSFORM(AffineTransform, m4v3, 3, 4), ZEL_REF(4, 0, ((M[3][j] + M[0][j] * x) + M[1][j] * y) + M[2][j] * z)},
    {ZEL_TRANSFORM(AffineTransform, m4v4, 4, 4),
     ZEL_REF(4, 0, ((M[0][j] * x + M[1][j] * y) + M[2][j] * z) + M[3][j] * w)},
    {ZEL_TRANSFORM(AffineTransformCoord, m4v2, 2, 2),
     ZEL_REF(2, (M[0][3] * x + M[3][3]) + M[1][3] * y, ((M[0][j] * x + M[3][j]) + M[1][j] * y) / W_)},
    {ZEL_TRANSFORM(AffineTransformCoord, m4v3, 3, 3),
     ZEL_REF(3, (M[3][3] + M[2][3] * z) + (M[0][3] * x + M[1][3] * y),
             ((M[3][j] + M[2][j] * z) + (M[0][j] * x + M[1][j] * y)) / W_)},
    {ZEL_TRANSFORM(AffineTransformNormal, m4v2, 2, 2), ZEL_REF(2, 0, M[0][j] * x + M[1][j] * y)},
    {ZEL_TRANSFORM(AffineTransformNormal, m4v3, 3, 3), ZEL_REF(3, 0, (M[0][j] * x + M[1][j] * y) + M[2][j] * z)},
};

TEST_F(Geometry, SingleAndArrayFormsFollowTheWrittenFormulas) {
    for (const auto& t : kTransforms) {
        SCOPED_TRACE(t.name);
        float m[16];
        fill(m, 16);
        // single points, in place too
        for (int trial = 0; trial < 100; ++trial) {
            float v[5], want[4];
            fill(v, 4);
            t.ref(reinterpret_cast<const float(*)[4]>(m), v, want);
            ASSERT_TRUE(writes([&](float* o) { return t.single(m, v, o); }, want, t.outs, 0));
            t.single(m, v, v);
            ASSERT_TRUE(close(v, want, t.outs, 0));
        }
        // arrays, apart and in one buffer: tight strides (the dense loops of
        // m4v3 and Coord m4v3) and padded ones; count 0 and -1 write nothing
        for (const auto& [ss, ds] : {std::pair{4 * t.n, 4 * t.outs}, std::pair{4 * t.n + 8, 28}})
            for (const int count : {-1, 0, 1, 2, 7, 64}) {
                const std::size_t cnt = std::max(count, 0), is = ss / 4, os = ds / 4;
                std::vector<float> src(cnt * is + 4), dst(cnt * os + 4, kSentinel), buf(std::max(src.size(), dst.size()));
                fill(src.data(), int(src.size())), fill(buf.data(), int(buf.size()));
                std::vector<float> want = dst, seq = buf;
                for (std::size_t i = 0; i < cnt; ++i) t.single(m, &src[i * is], &want[i * os]), t.single(m, &seq[i * is], &seq[i * os]);
                ASSERT_EQ(t.array(m, src.data(), ss, dst.data(), ds, count), zelStsOk);
                ASSERT_TRUE(close(dst.data(), want.data(), int(dst.size()), 0)) << ss << "/" << ds << " count " << count;
                t.array(m, buf.data(), ss, buf.data(), ds, count);
                ASSERT_TRUE(close(buf.data(), seq.data(), int(buf.size()), 0)) << "in place " << ss << "/" << ds;
            }
    }
}

// Project and Unproject with the world, view and projection matrices of a
// camera and a scene in front of it; a singular product.
TEST_F(Geometry, UnprojectUndoesProject) {
    float rot[16], tr[16], world[16], view[16], proj[16], flat[16];
    const float eye[3] = {1, 2, -10}, at[3] = {0, 0, 0}, up[3] = {0, 1, 0}, vp[4] = {640, 480, 0.25f, 1};
    zelmRotationYawPitchRoll_m4_32f(0.3f, -0.2f, 0.1f, rot);
    zelmTranslation_m4_32f(0.5f, -0.25f, 1, tr);
    zelmMul_mm4x4_32f(rot, tr, world);
    zelmLookAtLH_m4_32f(eye, at, up, view);
    zelmPerspectiveFovLH_m4_32f(1.0f, 4.0f / 3.0f, 0.5f, 100.0f, proj);
    float pts[30], screen[30], back[30], one[4];
    fill(pts, 30, -3, 3);
    ASSERT_EQ(zelmProject_m4v3a_32f(proj, view, world, pts, 12, vp[0], vp[1], vp[2], vp[3], screen, 12, 10), zelStsOk);
    ASSERT_EQ(zelmUnproject_m4v3a_32f(proj, view, world, screen, 12, vp[0], vp[1], vp[2], vp[3], back, 12, 10), zelStsOk);
    for (int i = 0; i < 10; ++i) {
        EXPECT_TRUE(close(back + 3 * i, pts + 3 * i, 3, 2e-3f)) << i;
        zelmProject_m4v3_32f(proj, view, world, pts + 3 * i, vp[0], vp[1], vp[2], vp[3], one);
        EXPECT_TRUE(close(one, screen + 3 * i, 3, 0));
        zelmUnproject_m4v3_32f(proj, view, world, screen + 3 * i, vp[0], vp[1], vp[2], vp[3], one);
        EXPECT_TRUE(close(one, back + 3 * i, 3, 0));
    }
    // identity matrices: the origin to the middle of the viewport at the near depth
    const float origin[3] = {0, 0, 0}, middle[3] = {320, 240, 0.25f};
    zelmIdentity_m4_32f(flat);
    zelmProject_m4v3_32f(flat, flat, flat, origin, 640, 480, 0.25f, 1, one);
    EXPECT_TRUE(close(one, middle, 3, 0));
    // every depth projected to 0: the single form keeps the device coordinates
    // of its first step (the fourth float untouched), the array form writes nothing
    zelmScaling_m4_32f(1, 1, 0, flat);
    const float s[3] = {160, 360, 0.5f}, device[4] = {2 * 160.0f / 640 - 1, 1 + -2 * 360.0f / 480, 0.5f / 2, kSentinel};
    std::fill(one, one + 4, kSentinel), std::fill(back, back + 6, kSentinel);
    EXPECT_EQ(zelmUnproject_m4v3_32f(flat, view, world, s, 640, 480, 0, 2, one), zelStsErrSingular);
    EXPECT_TRUE(close(one, device, 4, 0));
    EXPECT_EQ(zelmUnproject_m4v3a_32f(flat, view, world, s, 0, 640, 480, 0, 2, back, 12, 2), zelStsErrSingular);
    EXPECT_TRUE(untouched(back, 6));
}

// ---------------------------------------------------------------------------
// The homogeneous transform of column vectors with the full frame: a call
// laid out with element steps (in floats) for the matrix, the vectors and the
// destination, so that a step other than 1 selects the S2 kernel.
struct H3D {
    int ms, vs, ds, count;
    std::vector<float> m, v, d;
    H3D(int ms_, int vs_, int ds_, int count_) : ms(ms_), vs(vs_), ds(ds_), count(count_) {
        m.resize(16 * ms), v.resize(std::size_t(count) * 4 * vs), d.assign(std::size_t(count) * 4 * ds, kSentinel);
        fill(m.data(), int(m.size())), fill(v.data(), int(v.size()));
    }
    float& M(int i, int j) { return m[std::size_t(4 * i + j) * ms]; }
    float& X(int n, int j) { return v[std::size_t(n) * 4 * vs + std::size_t(j) * vs]; }
    float& D(int n, int j) { return d[std::size_t(n) * 4 * ds + std::size_t(j) * ds]; }
    zelStatus call() {
        return zelmAffineTransform3DH_mva_32f(m.data(), 16 * ms, 4 * ms, v.data(), 16 * vs, 4 * vs, d.data(), 16 * ds,
                                              4 * ds, count);
    }
    // Every vector by the written formula in the association of its kernel:
    // the dense kernel (all element steps 1) pairs the terms, the other adds x,
    // the constant, y, z. The largest float where |w| is at most 2^-126.
    void expect() {
        const bool pairs = ms == 1 && vs == 1 && ds == 1;
        for (int n = 0; n < count; ++n) {
            const float x = X(n, 0), y = X(n, 1), z = X(n, 2);
            float r[4];
            for (int i = 0; i < 4; ++i)
                r[i] = pairs ? (M(i, 0) * x + M(i, 1) * y) + (M(i, 2) * z + M(i, 3))
                             : ((M(i, 0) * x + M(i, 3)) + M(i, 1) * y) + M(i, 2) * z;
            for (int i = 0; i < 3; ++i)
                ASSERT_TRUE(same_bits(D(n, i), std::fabs(r[3]) > FLT_MIN ? r[i] * (1.0f / r[3]) : FLT_MAX))
                    << "vector " << n << " " << i;
            ASSERT_EQ(D(n, 3), kSentinel);
        }
    }
};

// count * 6 above 1984 goes to the wrapper (fh::expect_forks_from), with the
// results and the merged status of the direct path.
TEST_F(Geometry, EachKernelInItsOrderTheDivisionFailureAndTheWrapper) {
    const int steps[][3] = {{1, 1, 1}, {2, 1, 1}, {1, 3, 1}, {1, 1, 2}};
    for (const auto& st : steps) {
        H3D c(st[0], st[1], st[2], 40);
        // w = x for some vectors, on both sides of 2^-126, a NaN among them
        c.M(3, 0) = 1, c.M(3, 1) = c.M(3, 2) = c.M(3, 3) = 0;
        const float xs[] = {0.0f, FLT_MIN, -FLT_MIN, std::nextafter(FLT_MIN, 1.0f), NAN};
        for (int k = 0; k < 5; ++k) c.X(5 * k + 3, 0) = xs[k];
        EXPECT_EQ(c.call(), zelStsErrDivByZero);
        c.expect();
        c.M(3, 3) = 8;  // now no w is small
        c.X(23, 0) = 1;
        EXPECT_EQ(c.call(), zelStsOk);
        c.expect();
    }
    fh::expect_forks_from(331, [](int count) {
        H3D c(1, 2, 1, count);
        c.M(3, 3) = 8;
        c.X(count - 2, 0) = NAN;
        EXPECT_EQ(c.call(), zelStsErrDivByZero);
        c.expect();
    }, "zelmAffineTransform3DH_mva_32f");
}

}  // namespace
