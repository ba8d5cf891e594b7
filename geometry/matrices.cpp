// The 4x4 constructors: identity, scaling, translation, rotations, view and
// projection matrices, and the exact identity test. Row-major for row
// vectors: the translation stands in row 3, a projection's w in column 3.
// Every constructor writes all 16 elements, the ones it doesn't name +0.
// Angles in radians, sines and cosines by sinf and cosf, everything else in
// 32 bits in the order written. Nothing is tested; a zero denominator gives
// what IEEE arithmetic gives.
#include <cmath>

#include "geometry/geometry.hpp"

namespace zel::geometry {
namespace {

// A matrix being built: all zero, then the named elements.
struct M4 {
    float m[4][4] = {};
    zelStatus store(float* dst) const {
        for (int r = 0; r < 4; ++r)
            for (int c = 0; c < 4; ++c) dst[4 * r + c] = m[r][c];
        return zelStsOk;
    }
};

M4 identity() {
    M4 a;
    a.m[0][0] = a.m[1][1] = a.m[2][2] = a.m[3][3] = 1.0f;
    return a;
}

// The 3x3 rotation block of a, row 3 and column 3 of the identity around it.
M4 rotation(const float (&r)[3][3]) {
    M4 a = identity();
    for (int i = 0; i < 3; ++i)
        for (int j = 0; j < 3; ++j) a.m[i][j] = r[i][j];
    return a;
}

// The view matrix from its view direction: x = normalize(up x z),
// y = z x x, the axes in the columns, the eye moved to the origin in row 3.
M4 look_at(const float* zaxis_unnormalised, const float* eye, const float* up) {
    float z[3], xu[3], x[3], y[3];
    normalize<3>(zaxis_unnormalised, z);
    cross3(up, z, xu);
    normalize<3>(xu, x);
    cross3(z, x, y);
    M4 a;
    for (int i = 0; i < 3; ++i) {
        a.m[i][0] = x[i];
        a.m[i][1] = y[i];
        a.m[i][2] = z[i];
    }
    a.m[3][0] = -w7_zelmMul_v3_32f(x, eye);
    a.m[3][1] = -w7_zelmMul_v3_32f(y, eye);
    a.m[3][2] = -w7_zelmMul_v3_32f(z, eye);
    a.m[3][3] = 1.0f;
    return a;
}

// The elements the projections set, beside m[0][0] and m[1][1]: the two
// depth terms, the off-centre shift in row 3 (orthographic) or row 2
// (perspective), and the w column.
struct Depth {
    float m22, m32;
};
// n / (0 - (f - n)), with 0 - x rather than -x so that n == f gives +0 - 0.
Depth ortho_lh(float n, float f) { return {1.0f / (f - n), n / (0.0f - (f - n))}; }
Depth ortho_rh(float n, float f) { return {1.0f / (n - f), n / (n - f)}; }
Depth persp_lh(float n, float f) { return {f / (f - n), n * f / (0.0f - (f - n))}; }
Depth persp_rh(float n, float f) { return {f / (n - f), n * f / (n - f)}; }

M4 ortho(float sx, float sy, float tx, float ty, Depth d) {
    M4 a;
    a.m[0][0] = sx;
    a.m[1][1] = sy;
    a.m[2][2] = d.m22;
    a.m[3][0] = tx;
    a.m[3][1] = ty;
    a.m[3][2] = d.m32;
    a.m[3][3] = 1.0f;
    return a;
}
M4 perspective(float sx, float sy, float cx, float cy, Depth d, float w) {
    M4 a;
    a.m[0][0] = sx;
    a.m[1][1] = sy;
    a.m[2][0] = cx;
    a.m[2][1] = cy;
    a.m[2][2] = d.m22;
    a.m[2][3] = w;
    a.m[3][2] = d.m32;
    return a;
}

// The shift of an off-centre volume: (lo + hi) / (0 - (hi - lo)).
float off_centre(float lo, float hi) { return (lo + hi) / (0.0f - (hi - lo)); }

// cot(fovY / 2) as cos / sin.
float cot_half(float fov) {
    const float h = fov * 0.5f;
    return cosf(h) / sinf(h);
}

}  // namespace
}  // namespace zel::geometry

using zel::geometry::M4;
namespace g = zel::geometry;

extern "C" ZEL_INTERNAL zelStatus w7_zelmIdentity_m4_32f(float* pDst) { return g::identity().store(pDst); }

// 1 only if all 16 elements compare equal to the identity's: -0 counts as 0,
// a NaN never matches.
extern "C" ZEL_INTERNAL zelStatus w7_zelmIsIdentity_m4_32f(const float* pSrc, unsigned int* pResult) {
    unsigned int same = 1;
    for (int r = 0; r < 4; ++r)
        for (int c = 0; c < 4; ++c)
            if (!(pSrc[4 * r + c] == (r == c ? 1.0f : 0.0f))) same = 0;
    *pResult = same;
    return zelStsOk;
}

extern "C" ZEL_INTERNAL zelStatus w7_zelmScaling_m4_32f(float x, float y, float z, float* pDst) {
    M4 a;
    a.m[0][0] = x;
    a.m[1][1] = y;
    a.m[2][2] = z;
    a.m[3][3] = 1.0f;
    return a.store(pDst);
}

extern "C" ZEL_INTERNAL zelStatus w7_zelmTranslation_m4_32f(float x, float y, float z, float* pDst) {
    M4 a = g::identity();
    a.m[3][0] = x;
    a.m[3][1] = y;
    a.m[3][2] = z;
    return a.store(pDst);
}

// Rotations by `angle` about a coordinate axis.
extern "C" ZEL_INTERNAL zelStatus w7_zelmRotationX_m4_32f(float angle, float* pDst) {
    const float s = sinf(angle), c = cosf(angle);
    return g::rotation({{1, 0, 0}, {0, c, s}, {0, -s, c}}).store(pDst);
}
extern "C" ZEL_INTERNAL zelStatus w7_zelmRotationY_m4_32f(float angle, float* pDst) {
    const float s = sinf(angle), c = cosf(angle);
    return g::rotation({{c, 0, -s}, {0, 1, 0}, {s, 0, c}}).store(pDst);
}
extern "C" ZEL_INTERNAL zelStatus w7_zelmRotationZ_m4_32f(float angle, float* pDst) {
    const float s = sinf(angle), c = cosf(angle);
    return g::rotation({{c, s, 0}, {-s, c, 0}, {0, 0, 1}}).store(pDst);
}

// About an axis, normalised here by sqrtf of its sum of squares; t = 1 - c.
extern "C" ZEL_INTERNAL zelStatus w7_zelmRotationAxis_v3m4_32f(const float* pAxis, float angle, float* pDst) {
    const float L = sqrtf(pAxis[0] * pAxis[0] + pAxis[1] * pAxis[1] + pAxis[2] * pAxis[2]);
    const float x = pAxis[0] / L, y = pAxis[1] / L, z = pAxis[2] / L;
    const float s = sinf(angle), c = cosf(angle);
    const float t = 1.0f - c;
    const float tx = t * x, ty = t * y, tz = t * z;
    return g::rotation({{tx * x + c, ty * x + s * z, tz * x - s * y},
                        {tx * y - s * z, ty * y + c, y * tz + s * x},
                        {s * y + tx * z, ty * z - s * x, c + z * tz}})
        .store(pDst);
}

// Roll about z, then pitch about x, then yaw about y.
extern "C" ZEL_INTERNAL zelStatus w7_zelmRotationYawPitchRoll_m4_32f(float yaw, float pitch, float roll,
                                                                     float* pDst) {
    const float sy = sinf(yaw), sp = sinf(pitch), sr = sinf(roll);
    const float cy = cosf(yaw), cp = cosf(pitch), cr = cosf(roll);
    const float u = sy * sp, w = sp * cy;
    return g::rotation({{sr * u + cy * cr, sr * cp, sr * w - sy * cr},
                        {u * cr - cy * sr, cr * cp, sy * sr + cr * w},
                        {sy * cp, -sp, cy * cp}})
        .store(pDst);
}

// View matrices: LH looks along +z (from eye to at), RH along -z.
extern "C" ZEL_INTERNAL zelStatus w7_zelmLookAtLH_m4_32f(const float* pEye, const float* pAt, const float* pUp,
                                                         float* pDst) {
    float z[3];
    g::sub<3>(pAt, pEye, z);
    return g::look_at(z, pEye, pUp).store(pDst);
}
extern "C" ZEL_INTERNAL zelStatus w7_zelmLookAtRH_m4_32f(const float* pEye, const float* pAt, const float* pUp,
                                                         float* pDst) {
    float z[3];
    g::sub<3>(pEye, pAt, z);
    return g::look_at(z, pEye, pUp).store(pDst);
}

// Orthographic projections: x and y to [-1, 1], depth n..f to 0..1.
extern "C" ZEL_INTERNAL zelStatus w7_zelmOrthoLH_m4_32f(float viewWidth, float viewHeight, float zNear, float zFar,
                                                        float* pDst) {
    return g::ortho(2.0f / viewWidth, 2.0f / viewHeight, 0.0f, 0.0f, g::ortho_lh(zNear, zFar)).store(pDst);
}
extern "C" ZEL_INTERNAL zelStatus w7_zelmOrthoRH_m4_32f(float viewWidth, float viewHeight, float zNear, float zFar,
                                                        float* pDst) {
    return g::ortho(2.0f / viewWidth, 2.0f / viewHeight, 0.0f, 0.0f, g::ortho_rh(zNear, zFar)).store(pDst);
}
extern "C" ZEL_INTERNAL zelStatus w7_zelmOrthoOffCenterLH_m4_32f(float left, float right, float bottom, float top,
                                                                 float zNear, float zFar, float* pDst) {
    return g::ortho(2.0f / (right - left), 2.0f / (top - bottom), g::off_centre(left, right),
                    g::off_centre(bottom, top), g::ortho_lh(zNear, zFar))
        .store(pDst);
}
extern "C" ZEL_INTERNAL zelStatus w7_zelmOrthoOffCenterRH_m4_32f(float left, float right, float bottom, float top,
                                                                 float zNear, float zFar, float* pDst) {
    return g::ortho(2.0f / (right - left), 2.0f / (top - bottom), g::off_centre(left, right),
                    g::off_centre(bottom, top), g::ortho_rh(zNear, zFar))
        .store(pDst);
}

// Perspective projections: w = z (LH) or -z (RH), depth n..f to 0..1.
extern "C" ZEL_INTERNAL zelStatus w7_zelmPerspectiveLH_m4_32f(float viewWidth, float viewHeight, float zNear,
                                                              float zFar, float* pDst) {
    const float n2 = zNear + zNear;
    return g::perspective(n2 / viewWidth, n2 / viewHeight, 0.0f, 0.0f, g::persp_lh(zNear, zFar), 1.0f).store(pDst);
}
extern "C" ZEL_INTERNAL zelStatus w7_zelmPerspectiveRH_m4_32f(float viewWidth, float viewHeight, float zNear,
                                                              float zFar, float* pDst) {
    const float n2 = zNear + zNear;
    return g::perspective(n2 / viewWidth, n2 / viewHeight, 0.0f, 0.0f, g::persp_rh(zNear, zFar), -1.0f).store(pDst);
}
// The vertical field of view, `aspect` = width / height. The LH depth term
// is (0 - n * f) / (f - n), unlike the other LH matrices' n * f / (0 - (f - n)).
extern "C" ZEL_INTERNAL zelStatus w7_zelmPerspectiveFovLH_m4_32f(float fovY, float aspect, float zNear, float zFar,
                                                                 float* pDst) {
    const float y = g::cot_half(fovY);
    const g::Depth d{zFar / (zFar - zNear), (0.0f - zNear * zFar) / (zFar - zNear)};
    return g::perspective(y / aspect, y, 0.0f, 0.0f, d, 1.0f).store(pDst);
}
extern "C" ZEL_INTERNAL zelStatus w7_zelmPerspectiveFovRH_m4_32f(float fovY, float aspect, float zNear, float zFar,
                                                                 float* pDst) {
    const float y = g::cot_half(fovY);
    return g::perspective(y / aspect, y, 0.0f, 0.0f, g::persp_rh(zNear, zFar), -1.0f).store(pDst);
}
// Off-centre: the LH shift is (l + r) / (0 - (r - l)), the RH one
// (l + r) / (r - l).
extern "C" ZEL_INTERNAL zelStatus w7_zelmPerspectiveOffCenterLH_m4_32f(float left, float right, float bottom,
                                                                       float top, float zNear, float zFar,
                                                                       float* pDst) {
    const float n2 = zNear + zNear;
    return g::perspective(n2 / (right - left), n2 / (top - bottom), g::off_centre(left, right),
                          g::off_centre(bottom, top), g::persp_lh(zNear, zFar), 1.0f)
        .store(pDst);
}
extern "C" ZEL_INTERNAL zelStatus w7_zelmPerspectiveOffCenterRH_m4_32f(float left, float right, float bottom,
                                                                       float top, float zNear, float zFar,
                                                                       float* pDst) {
    const float n2 = zNear + zNear;
    return g::perspective(n2 / (right - left), n2 / (top - bottom), (left + right) / (right - left),
                          (bottom + top) / (top - bottom), g::persp_rh(zNear, zFar), -1.0f)
        .store(pDst);
}
