// geometry.cpp - the shared arithmetic of the kernel and its callers:
// tolerant double comparisons, 2-D affine matrices, integer and double
// points, sizes and rectangles, lengths.
//
//   K_Double_*   comparisons with the kernel's two tolerance rules
//   K_Matrix_*   affine matrices with a cached shape (type) for short cuts
//   K_Point_* K_Size_* K_Rect_*        integer records (POINT, SIZE, RECT)
//   K_PointD_* K_SizeD_* K_RectD_*     double records (POINTD, SIZED, RECTD)
//   K_LengthD_*  Euclidean lengths
//
// Invariants:
//   - a matrix of type 0 is the identity whatever its values say (a
//     zero-filled record is an identity); every reader goes through load();
//   - every operation that writes values leaves a type that the values
//     support, so the short cuts give the same numbers as the full product;
//   - integer results saturate at the int32 limits, never wrap;
//   - rectangles are half-open in both forms; empty when right <= left or
//     bottom <= top (NaN edges make a double rectangle empty).
#include <algorithm>
#include <cmath>
#include <cstdint>
#include <limits>

#include "kernel.h"

namespace {

constexpr double kEpsilon = 2.220446049250313e-16;       // DBL_EPSILON
constexpr double kZeroThreshold = 2.220446049250313e-15;  // ten times it
constexpr double kDegToRad = 0.017453292519943295;

// ------------------------------------------------------------ comparisons
inline bool areClose(double a, double b) noexcept {
    if (a == b) return true;
    double eps = (std::fabs(a) + std::fabs(b) + 10.0) * kEpsilon;
    double d = a - b;
    return -eps < d && d < eps;
}
inline bool isZero(double a) noexcept { return std::fabs(a) < kZeroThreshold; }

// Same result as "subtract 360 while above 360, add 360 while below 0" for
// every finite value: each of those steps is exact (360 is a multiple of the
// unit in the last place of anything the loop meets below 2^55), so the loop
// ends on the exact remainder, which fmod also computes exactly. Above 2^55
// the loop would never end; fmod still gives the exact remainder.
double normalizeAngle(double d) noexcept {
    if (std::isnan(d)) return d;
    if (std::isinf(d)) return std::numeric_limits<double>::quiet_NaN();
    if (d > 360.0) {
        double r = std::fmod(d, 360.0);
        return r == 0.0 ? 360.0 : r;
    }
    if (d < 0.0) {
        double r = std::fmod(d, 360.0);
        return r == 0.0 ? 0.0 : r + 360.0;
    }
    return d;
}

int32_t saturate(int64_t v) noexcept {
    if (v > INT32_MAX) return INT32_MAX;
    if (v < INT32_MIN) return INT32_MIN;
    return int32_t(v);
}
// Truncation toward zero of a double already rounded, saturated.
int32_t saturateDouble(double v) noexcept {
    if (std::isnan(v)) return 0;
    if (v >= 2147483647.0) return INT32_MAX;
    if (v <= -2147483648.0) return INT32_MIN;
    return int32_t(v);
}
int32_t doubleToInt(double a) noexcept {
    if (std::isnan(a)) return 0;
    return saturateDouble(a <= 0.0 ? a - 0.5 : a + 0.5);
}

// ------------------------------------------------------------ matrices
struct Mat {
    double m11, m12, m21, m22, ox, oy;
    int32_t type;
};

constexpr Mat kIdentity{1, 0, 0, 1, 0, 0, KMATRIX_TYPE_IDENTITY};

int32_t deriveType(const Mat& m) noexcept {
    if (m.m21 == 0 && m.m12 == 0) {
        int32_t t = (m.m11 != 1 || m.m22 != 1) ? KMATRIX_TYPE_SCALING : KMATRIX_TYPE_IDENTITY;
        if (m.ox != 0 || m.oy != 0) t |= KMATRIX_TYPE_TRANSLATION;
        return t;
    }
    return KMATRIX_TYPE_GENERAL;
}

// A type outside 0..4 is not one this kernel wrote: treat it as general, the
// only type whose operations read every value.
Mat load(const KMATRIX* p) noexcept {
    if (p->nType == KMATRIX_TYPE_IDENTITY) return kIdentity;
    Mat m{p->dM11, p->dM12, p->dM21, p->dM22, p->dOffsetX, p->dOffsetY, p->nType};
    if (m.type < 0 || m.type > KMATRIX_TYPE_GENERAL) m.type = KMATRIX_TYPE_GENERAL;
    return m;
}
void store(KMATRIX* p, const Mat& m) noexcept {
    p->dM11 = m.m11;
    p->dM12 = m.m12;
    p->dM21 = m.m21;
    p->dM22 = m.m22;
    p->dOffsetX = m.ox;
    p->dOffsetY = m.oy;
    p->nType = m.type;
    p->uReserved = 0;
}
Mat make(double m11, double m12, double m21, double m22, double ox, double oy) noexcept {
    Mat m{m11, m12, m21, m22, ox, oy, 0};
    m.type = deriveType(m);
    return m;
}

double determinant(const Mat& m) noexcept {
    switch (m.type) {
        case KMATRIX_TYPE_IDENTITY:
        case KMATRIX_TYPE_TRANSLATION:
            return 1.0;
        case KMATRIX_TYPE_SCALING:
        case KMATRIX_TYPE_SCALING_TRANSLATION:
            return m.m11 * m.m22;
        default:
            return m.m11 * m.m22 - m.m12 * m.m21;
    }
}

// a x b: a applied first. The short cuts compute exactly the terms of the
// full product that are not multiplications by the 0 and 1 the type vouches
// for, so they agree with it bit for bit (up to the sign of zero).
Mat multiply(const Mat& a, const Mat& b) noexcept {
    if (a.type == KMATRIX_TYPE_IDENTITY) return b;
    if (b.type == KMATRIX_TYPE_IDENTITY) return a;
    Mat r;
    if (b.type == KMATRIX_TYPE_TRANSLATION) {
        r = a;
        r.ox = a.ox + b.ox;
        r.oy = a.oy + b.oy;
    } else if (a.type == KMATRIX_TYPE_TRANSLATION) {
        r = b;
        r.ox = a.ox * b.m11 + a.oy * b.m21 + b.ox;
        r.oy = a.ox * b.m12 + a.oy * b.m22 + b.oy;
    } else if (a.type != KMATRIX_TYPE_GENERAL && b.type != KMATRIX_TYPE_GENERAL) {
        // both scaling, with or without translation
        r.m11 = a.m11 * b.m11;
        r.m12 = 0;
        r.m21 = 0;
        r.m22 = a.m22 * b.m22;
        if ((a.type | b.type) & KMATRIX_TYPE_TRANSLATION) {
            r.ox = (a.type & KMATRIX_TYPE_TRANSLATION) ? a.ox * b.m11 : 0.0;
            r.oy = (a.type & KMATRIX_TYPE_TRANSLATION) ? a.oy * b.m22 : 0.0;
            if (b.type & KMATRIX_TYPE_TRANSLATION) {
                r.ox += b.ox;
                r.oy += b.oy;
            }
        } else {
            r.ox = r.oy = 0;
        }
    } else {
        r.m11 = a.m11 * b.m11 + a.m12 * b.m21;
        r.m12 = a.m11 * b.m12 + a.m12 * b.m22;
        r.m21 = a.m21 * b.m11 + a.m22 * b.m21;
        r.m22 = a.m21 * b.m12 + a.m22 * b.m22;
        r.ox = a.ox * b.m11 + a.oy * b.m21 + b.ox;
        r.oy = a.ox * b.m12 + a.oy * b.m22 + b.oy;
    }
    r.type = deriveType(r);
    return r;
}

void appendTo(KMATRIX* p, const Mat& step) noexcept { store(p, multiply(load(p), step)); }
void prependTo(KMATRIX* p, const Mat& step) noexcept { store(p, multiply(step, load(p))); }

Mat rotation(double degrees, double cx, double cy) noexcept {
    double rad = normalizeAngle(degrees) * kDegToRad;
    double s = std::sin(rad), c = std::cos(rad);
    return make(c, s, -s, c, cx * (1.0 - c) + cy * s, cy * (1.0 - c) - cx * s);
}
Mat scaling(double sx, double sy, double cx, double cy) noexcept {
    return make(sx, 0, 0, sy, cx - sx * cx, cy - sy * cy);
}
Mat skewing(double skewX, double skewY) noexcept {
    return make(1, std::tan(normalizeAngle(skewY) * kDegToRad), std::tan(normalizeAngle(skewX) * kDegToRad), 1, 0,
                0);
}

inline void transformPoint(const Mat& m, double& x, double& y) noexcept {
    switch (m.type) {
        case KMATRIX_TYPE_IDENTITY:
            return;
        case KMATRIX_TYPE_TRANSLATION:
            x += m.ox;
            y += m.oy;
            return;
        case KMATRIX_TYPE_SCALING:
            x *= m.m11;
            y *= m.m22;
            return;
        case KMATRIX_TYPE_SCALING_TRANSLATION:
            x = x * m.m11 + m.ox;
            y = y * m.m22 + m.oy;
            return;
        default: {
            double nx = x * m.m11 + y * m.m21 + m.ox;
            double ny = x * m.m12 + y * m.m22 + m.oy;
            x = nx;
            y = ny;
        }
    }
}
inline void transformVector(const Mat& m, double& x, double& y) noexcept {
    switch (m.type) {
        case KMATRIX_TYPE_IDENTITY:
        case KMATRIX_TYPE_TRANSLATION:
            return;
        case KMATRIX_TYPE_SCALING:
        case KMATRIX_TYPE_SCALING_TRANSLATION:
            x *= m.m11;
            y *= m.m22;
            return;
        default: {
            double nx = x * m.m11 + y * m.m21;
            double ny = x * m.m12 + y * m.m22;
            x = nx;
            y = ny;
        }
    }
}

// ------------------------------------------------------------ rectangles
inline bool rectEmpty(const RECT& r) noexcept { return r.right <= r.left || r.bottom <= r.top; }
inline bool rectDEmpty(const RECTD& r) noexcept { return !(r.right > r.left && r.bottom > r.top); }
inline bool emptyRect(const RECT& r) noexcept { return rectEmpty(r); }
inline bool emptyRect(const RECTD& r) noexcept { return rectDEmpty(r); }

// Intersection and union of integer and double rectangles: an empty result
// (or an empty source of an intersection) is written as all zeros and gives 0.
template <class R>
int32_t intersectRects(R* pResult, const R* pA, const R* pB) noexcept {
    if (!pResult || !pA || !pB) return 0;
    const R r{std::max(pA->left, pB->left), std::max(pA->top, pB->top), std::min(pA->right, pB->right),
              std::min(pA->bottom, pB->bottom)};
    if (emptyRect(*pA) || emptyRect(*pB) || emptyRect(r)) {
        *pResult = R{0, 0, 0, 0};
        return 0;
    }
    *pResult = r;
    return 1;
}
template <class R>
int32_t unionRects(R* pResult, const R* pA, const R* pB) noexcept {
    if (!pResult || !pA || !pB) return 0;
    const bool ea = emptyRect(*pA), eb = emptyRect(*pB);
    if (ea && eb) {
        *pResult = R{0, 0, 0, 0};
        return 0;
    }
    *pResult = ea ? *pB
               : eb ? *pA
                    : R{std::min(pA->left, pB->left), std::min(pA->top, pB->top), std::max(pA->right, pB->right),
                        std::max(pA->bottom, pB->bottom)};
    return 1;
}

void transformRect(const Mat& m, RECTD* r) noexcept {
    if (rectDEmpty(*r)) return;
    double xs[4] = {r->left, r->right, r->left, r->right};
    double ys[4] = {r->top, r->top, r->bottom, r->bottom};
    for (int i = 0; i < 4; ++i) transformPoint(m, xs[i], ys[i]);
    r->left = std::min({xs[0], xs[1], xs[2], xs[3]});
    r->right = std::max({xs[0], xs[1], xs[2], xs[3]});
    r->top = std::min({ys[0], ys[1], ys[2], ys[3]});
    r->bottom = std::max({ys[0], ys[1], ys[2], ys[3]});
}

}  // namespace

// ================================================================ K_Double_
KAPI int32_t K_Double_AreClose(double a, double b) { return areClose(a, b); }
KAPI int32_t K_Double_LessThan(double a, double b) { return a < b && !areClose(a, b); }
KAPI int32_t K_Double_GreaterThan(double a, double b) { return a > b && !areClose(a, b); }
KAPI int32_t K_Double_LessThanOrClose(double a, double b) { return a < b || areClose(a, b); }
KAPI int32_t K_Double_GreaterThanOrClose(double a, double b) { return a > b || areClose(a, b); }
KAPI int32_t K_Double_IsOne(double a) { return std::fabs(a - 1.0) < kZeroThreshold; }
KAPI int32_t K_Double_IsZero(double a) { return isZero(a); }
KAPI int32_t K_Double_IsBetweenZeroAndOne(double a) {
    if (!(a > 0.0) && !areClose(a, 0.0)) return 0;
    if (a < 1.0) return 1;
    return areClose(a, 1.0);
}
KAPI int32_t K_Double_AreClosePoints(const POINTD* pA, const POINTD* pB) {
    if (!pA || !pB) return 0;
    return areClose(pA->x, pB->x) && areClose(pA->y, pB->y);
}
KAPI int32_t K_Double_AreCloseSizes(const SIZED* pA, const SIZED* pB) {
    if (!pA || !pB) return 0;
    return areClose(pA->cx, pB->cx) && areClose(pA->cy, pB->cy);
}
KAPI int32_t K_Double_AreCloseRects(const RECTD* pA, const RECTD* pB) {
    if (!pA || !pB) return 0;
    return areClose(pA->left, pB->left) && areClose(pA->top, pB->top) && areClose(pA->right, pB->right) &&
           areClose(pA->bottom, pB->bottom);
}
KAPI int32_t K_Double_RectHasNaN(const RECTD* pRect) {
    if (!pRect) return 0;
    return std::isnan(pRect->left) || std::isnan(pRect->top) || std::isnan(pRect->right) ||
           std::isnan(pRect->bottom);
}
KAPI int32_t K_Double_IsNaN(double a) { return std::isnan(a); }
KAPI int32_t K_Double_IsInfinity(double a) { return std::isinf(a); }
KAPI int32_t K_Double_DoubleToInt(double a) { return doubleToInt(a); }
KAPI double K_Double_NormalizeAngle(double dDegrees) { return normalizeAngle(dDegrees); }

// ================================================================ K_Matrix_
KAPI void K_Matrix_Identity(KMATRIX* pMatrix) {
    if (pMatrix) store(pMatrix, kIdentity);
}
KAPI void K_Matrix_Set(KMATRIX* pMatrix, double dM11, double dM12, double dM21, double dM22, double dOffsetX,
                       double dOffsetY) {
    if (pMatrix) store(pMatrix, make(dM11, dM12, dM21, dM22, dOffsetX, dOffsetY));
}
KAPI void K_Matrix_DeriveType(KMATRIX* pMatrix) {
    if (!pMatrix) return;
    Mat m{pMatrix->dM11, pMatrix->dM12, pMatrix->dM21, pMatrix->dM22, pMatrix->dOffsetX, pMatrix->dOffsetY, 0};
    pMatrix->nType = deriveType(m);
    pMatrix->uReserved = 0;
}
KAPI int32_t K_Matrix_GetType(const KMATRIX* pMatrix) { return pMatrix ? load(pMatrix).type : 0; }
KAPI int32_t K_Matrix_IsIdentity(const KMATRIX* pMatrix) {
    if (!pMatrix) return 0;
    if (pMatrix->nType == KMATRIX_TYPE_IDENTITY) return 1;
    return pMatrix->dM11 == 1 && pMatrix->dM12 == 0 && pMatrix->dM21 == 0 && pMatrix->dM22 == 1 &&
           pMatrix->dOffsetX == 0 && pMatrix->dOffsetY == 0;
}
KAPI double K_Matrix_Determinant(const KMATRIX* pMatrix) { return pMatrix ? determinant(load(pMatrix)) : 0.0; }
// NaN determinants count as not invertible (the comparison is written so).
KAPI int32_t K_Matrix_HasInverse(const KMATRIX* pMatrix) {
    return pMatrix && std::fabs(determinant(load(pMatrix))) >= kZeroThreshold;
}
KAPI int32_t K_Matrix_Invert(KMATRIX* pMatrix) {
    if (!pMatrix) return 0;
    Mat m = load(pMatrix);
    double det = determinant(m);
    if (!(std::fabs(det) >= kZeroThreshold)) return 0;
    Mat r = m;
    switch (m.type) {
        case KMATRIX_TYPE_IDENTITY:
            return 1;
        case KMATRIX_TYPE_TRANSLATION:
            r.ox = -m.ox;
            r.oy = -m.oy;
            break;
        case KMATRIX_TYPE_SCALING:
            r.m11 = 1.0 / m.m11;
            r.m22 = 1.0 / m.m22;
            break;
        case KMATRIX_TYPE_SCALING_TRANSLATION:
            r.m11 = 1.0 / m.m11;
            r.m22 = 1.0 / m.m22;
            r.ox = -(m.ox * r.m11);
            r.oy = -(m.oy * r.m22);
            break;
        default: {
            double inv = 1.0 / det;
            r.m11 = m.m22 * inv;
            r.m12 = -m.m12 * inv;
            r.m21 = -m.m21 * inv;
            r.m22 = m.m11 * inv;
            r.ox = (m.m21 * m.oy - m.m22 * m.ox) * inv;
            r.oy = (m.m12 * m.ox - m.m11 * m.oy) * inv;
        }
    }
    r.type = deriveType(r);
    store(pMatrix, r);
    return 1;
}
KAPI void K_Matrix_Multiply(KMATRIX* pResult, const KMATRIX* pA, const KMATRIX* pB) {
    if (!pResult || !pA || !pB) return;
    Mat r = multiply(load(pA), load(pB));
    store(pResult, r);
}
KAPI void K_Matrix_Append(KMATRIX* pMatrix, const KMATRIX* pOther) {
    if (pMatrix && pOther) appendTo(pMatrix, load(pOther));
}
KAPI void K_Matrix_Prepend(KMATRIX* pMatrix, const KMATRIX* pOther) {
    if (pMatrix && pOther) prependTo(pMatrix, load(pOther));
}
KAPI void K_Matrix_Rotate(KMATRIX* pMatrix, double dAngle) {
    if (pMatrix) appendTo(pMatrix, rotation(dAngle, 0, 0));
}
KAPI void K_Matrix_RotatePrepend(KMATRIX* pMatrix, double dAngle) {
    if (pMatrix) prependTo(pMatrix, rotation(dAngle, 0, 0));
}
KAPI void K_Matrix_RotateAt(KMATRIX* pMatrix, double dAngle, double dCenterX, double dCenterY) {
    if (pMatrix) appendTo(pMatrix, rotation(dAngle, dCenterX, dCenterY));
}
KAPI void K_Matrix_RotateAtPrepend(KMATRIX* pMatrix, double dAngle, double dCenterX, double dCenterY) {
    if (pMatrix) prependTo(pMatrix, rotation(dAngle, dCenterX, dCenterY));
}
KAPI void K_Matrix_Scale(KMATRIX* pMatrix, double dScaleX, double dScaleY) {
    if (pMatrix) appendTo(pMatrix, scaling(dScaleX, dScaleY, 0, 0));
}
KAPI void K_Matrix_ScalePrepend(KMATRIX* pMatrix, double dScaleX, double dScaleY) {
    if (pMatrix) prependTo(pMatrix, scaling(dScaleX, dScaleY, 0, 0));
}
KAPI void K_Matrix_ScaleAt(KMATRIX* pMatrix, double dScaleX, double dScaleY, double dCenterX, double dCenterY) {
    if (pMatrix) appendTo(pMatrix, scaling(dScaleX, dScaleY, dCenterX, dCenterY));
}
KAPI void K_Matrix_ScaleAtPrepend(KMATRIX* pMatrix, double dScaleX, double dScaleY, double dCenterX,
                                  double dCenterY) {
    if (pMatrix) prependTo(pMatrix, scaling(dScaleX, dScaleY, dCenterX, dCenterY));
}
KAPI void K_Matrix_Skew(KMATRIX* pMatrix, double dSkewX, double dSkewY) {
    if (pMatrix) appendTo(pMatrix, skewing(dSkewX, dSkewY));
}
KAPI void K_Matrix_SkewPrepend(KMATRIX* pMatrix, double dSkewX, double dSkewY) {
    if (pMatrix) prependTo(pMatrix, skewing(dSkewX, dSkewY));
}
// On an identity: a pure translation (type 1, even for a zero offset).
// Otherwise the offsets grow and the type gains the translation bit.
KAPI void K_Matrix_Translate(KMATRIX* pMatrix, double dOffsetX, double dOffsetY) {
    if (!pMatrix) return;
    Mat m = load(pMatrix);
    if (m.type == KMATRIX_TYPE_IDENTITY) {
        m = kIdentity;
        m.ox = dOffsetX;
        m.oy = dOffsetY;
        m.type = KMATRIX_TYPE_TRANSLATION;
    } else {
        m.ox += dOffsetX;
        m.oy += dOffsetY;
        if (m.type != KMATRIX_TYPE_GENERAL) m.type |= KMATRIX_TYPE_TRANSLATION;
    }
    store(pMatrix, m);
}
KAPI void K_Matrix_TranslatePrepend(KMATRIX* pMatrix, double dOffsetX, double dOffsetY) {
    if (!pMatrix) return;
    Mat t = kIdentity;
    t.ox = dOffsetX;
    t.oy = dOffsetY;
    t.type = KMATRIX_TYPE_TRANSLATION;
    prependTo(pMatrix, t);
}
KAPI void K_Matrix_TransformPoint(const KMATRIX* pMatrix, POINTD* pPoint) {
    if (pMatrix && pPoint) transformPoint(load(pMatrix), pPoint->x, pPoint->y);
}
KAPI void K_Matrix_TransformVector(const KMATRIX* pMatrix, POINTD* pVector) {
    if (pMatrix && pVector) transformVector(load(pMatrix), pVector->x, pVector->y);
}
KAPI void K_Matrix_TransformPoints(const KMATRIX* pMatrix, POINTD* pPoints, int32_t nCount) {
    if (!pMatrix || !pPoints || nCount <= 0) return;
    Mat m = load(pMatrix);
    for (int32_t i = 0; i < nCount; ++i) transformPoint(m, pPoints[i].x, pPoints[i].y);
}
KAPI void K_Matrix_TransformVectors(const KMATRIX* pMatrix, POINTD* pVectors, int32_t nCount) {
    if (!pMatrix || !pVectors || nCount <= 0) return;
    Mat m = load(pMatrix);
    for (int32_t i = 0; i < nCount; ++i) transformVector(m, pVectors[i].x, pVectors[i].y);
}
KAPI void K_Matrix_TransformRect(const KMATRIX* pMatrix, RECTD* pRect) {
    if (pMatrix && pRect) transformRect(load(pMatrix), pRect);
}
KAPI int32_t K_Matrix_IsEqual(const KMATRIX* pA, const KMATRIX* pB) {
    if (!pA || !pB) return 0;
    Mat a = load(pA), b = load(pB);
    return a.m11 == b.m11 && a.m12 == b.m12 && a.m21 == b.m21 && a.m22 == b.m22 && a.ox == b.ox && a.oy == b.oy;
}

#define OMBRIX_MATRIX_FIELD(Name, field)                                    \
    KAPI double K_Matrix_Get##Name(const KMATRIX* pMatrix) {                \
        return pMatrix ? load(pMatrix).field : 0.0;                         \
    }                                                                       \
    KAPI void K_Matrix_Set##Name(KMATRIX* pMatrix, double dValue) {         \
        if (!pMatrix) return;                                               \
        Mat m = load(pMatrix);                                              \
        m.field = dValue;                                                   \
        m.type = deriveType(m);                                             \
        store(pMatrix, m);                                                  \
    }
OMBRIX_MATRIX_FIELD(M11, m11)
OMBRIX_MATRIX_FIELD(M12, m12)
OMBRIX_MATRIX_FIELD(M21, m21)
OMBRIX_MATRIX_FIELD(M22, m22)
OMBRIX_MATRIX_FIELD(OffsetX, ox)
OMBRIX_MATRIX_FIELD(OffsetY, oy)
#undef OMBRIX_MATRIX_FIELD

// ================================================================ integer records
KAPI POINT K_Point_Make(int32_t x, int32_t y) { return POINT{x, y}; }
KAPI POINT K_Point_Empty(void) { return POINT{0, 0}; }
KAPI int32_t K_Point_IsEmpty(const POINT* pPoint) { return pPoint && pPoint->x == 0 && pPoint->y == 0; }
KAPI int32_t K_Point_IsEqual(const POINT* pA, const POINT* pB) {
    return pA && pB && pA->x == pB->x && pA->y == pB->y;
}
KAPI void K_Point_Offset(POINT* pPoint, int32_t dx, int32_t dy) {
    if (!pPoint) return;
    pPoint->x = saturate(int64_t(pPoint->x) + dx);
    pPoint->y = saturate(int64_t(pPoint->y) + dy);
}
KAPI POINTD K_Point_ToPointD(const POINT* pPoint) {
    if (!pPoint) return POINTD{0, 0};
    return POINTD{double(pPoint->x), double(pPoint->y)};
}
KAPI SIZE K_Size_Make(int32_t cx, int32_t cy) { return SIZE{cx, cy}; }
KAPI SIZE K_Size_Empty(void) { return SIZE{0, 0}; }
KAPI int32_t K_Size_IsEmpty(const SIZE* pSize) { return !pSize || pSize->cx <= 0 || pSize->cy <= 0; }
KAPI int32_t K_Size_IsEqual(const SIZE* pA, const SIZE* pB) {
    return pA && pB && pA->cx == pB->cx && pA->cy == pB->cy;
}
KAPI SIZED K_Size_ToSizeD(const SIZE* pSize) {
    if (!pSize) return SIZED{0, 0};
    return SIZED{double(pSize->cx), double(pSize->cy)};
}
KAPI RECT K_Rect_Make(int32_t x, int32_t y, int32_t cx, int32_t cy) {
    return RECT{x, y, saturate(int64_t(x) + cx), saturate(int64_t(y) + cy)};
}
KAPI RECT K_Rect_FromLTRB(int32_t nLeft, int32_t nTop, int32_t nRight, int32_t nBottom) {
    return RECT{nLeft, nTop, nRight, nBottom};
}
KAPI RECT K_Rect_Empty(void) { return RECT{0, 0, 0, 0}; }
KAPI int32_t K_Rect_IsEmpty(const RECT* pRect) { return !pRect || rectEmpty(*pRect); }
KAPI int32_t K_Rect_IsEqual(const RECT* pA, const RECT* pB) {
    return pA && pB && pA->left == pB->left && pA->top == pB->top && pA->right == pB->right &&
           pA->bottom == pB->bottom;
}
KAPI int32_t K_Rect_Width(const RECT* pRect) {
    return pRect ? saturate(int64_t(pRect->right) - pRect->left) : 0;
}
KAPI int32_t K_Rect_Height(const RECT* pRect) {
    return pRect ? saturate(int64_t(pRect->bottom) - pRect->top) : 0;
}
KAPI POINT K_Rect_TopLeft(const RECT* pRect) { return pRect ? POINT{pRect->left, pRect->top} : POINT{0, 0}; }
KAPI POINT K_Rect_TopRight(const RECT* pRect) { return pRect ? POINT{pRect->right, pRect->top} : POINT{0, 0}; }
KAPI POINT K_Rect_BottomLeft(const RECT* pRect) {
    return pRect ? POINT{pRect->left, pRect->bottom} : POINT{0, 0};
}
KAPI POINT K_Rect_BottomRight(const RECT* pRect) {
    return pRect ? POINT{pRect->right, pRect->bottom} : POINT{0, 0};
}
KAPI SIZE K_Rect_Size(const RECT* pRect) { return SIZE{K_Rect_Width(pRect), K_Rect_Height(pRect)}; }
KAPI int32_t K_Rect_ContainsPoint(const RECT* pRect, const POINT* pPoint) {
    if (!pRect || !pPoint) return 0;
    return pPoint->x >= pRect->left && pPoint->x < pRect->right && pPoint->y >= pRect->top &&
           pPoint->y < pRect->bottom;
}
KAPI int32_t K_Rect_ContainsRect(const RECT* pOuter, const RECT* pInner) {
    if (!pOuter || !pInner || rectEmpty(*pInner) || rectEmpty(*pOuter)) return 0;
    return pInner->left >= pOuter->left && pInner->top >= pOuter->top && pInner->right <= pOuter->right &&
           pInner->bottom <= pOuter->bottom;
}
KAPI void K_Rect_Inflate(RECT* pRect, int32_t dx, int32_t dy) {
    if (!pRect) return;
    pRect->left = saturate(int64_t(pRect->left) - dx);
    pRect->top = saturate(int64_t(pRect->top) - dy);
    pRect->right = saturate(int64_t(pRect->right) + dx);
    pRect->bottom = saturate(int64_t(pRect->bottom) + dy);
}
KAPI void K_Rect_Offset(RECT* pRect, int32_t dx, int32_t dy) {
    if (!pRect) return;
    pRect->left = saturate(int64_t(pRect->left) + dx);
    pRect->top = saturate(int64_t(pRect->top) + dy);
    pRect->right = saturate(int64_t(pRect->right) + dx);
    pRect->bottom = saturate(int64_t(pRect->bottom) + dy);
}
KAPI int32_t K_Rect_Intersect(RECT* pResult, const RECT* pA, const RECT* pB) {
    return intersectRects(pResult, pA, pB);
}
KAPI int32_t K_Rect_IntersectsWith(const RECT* pA, const RECT* pB) {
    RECT r;
    return K_Rect_Intersect(&r, pA, pB);
}
KAPI int32_t K_Rect_Union(RECT* pResult, const RECT* pA, const RECT* pB) { return unionRects(pResult, pA, pB); }
KAPI RECTD K_Rect_ToRectD(const RECT* pRect) {
    if (!pRect) return RECTD{0, 0, 0, 0};
    return RECTD{double(pRect->left), double(pRect->top), double(pRect->right), double(pRect->bottom)};
}

// ================================================================ double records
KAPI POINTD K_PointD_Make(double x, double y) { return POINTD{x, y}; }
KAPI POINTD K_PointD_Empty(void) { return POINTD{0, 0}; }
KAPI int32_t K_PointD_IsEmpty(const POINTD* pPoint) { return pPoint && pPoint->x == 0 && pPoint->y == 0; }
KAPI int32_t K_PointD_IsEqual(const POINTD* pA, const POINTD* pB) {
    return pA && pB && pA->x == pB->x && pA->y == pB->y;
}
KAPI void K_PointD_Offset(POINTD* pPoint, double dx, double dy) {
    if (!pPoint) return;
    pPoint->x += dx;
    pPoint->y += dy;
}
KAPI POINT K_PointD_ToPoint(const POINTD* pPoint) {
    if (!pPoint) return POINT{0, 0};
    return POINT{doubleToInt(pPoint->x), doubleToInt(pPoint->y)};
}
KAPI SIZED K_SizeD_Make(double cx, double cy) { return SIZED{cx, cy}; }
KAPI SIZED K_SizeD_Empty(void) { return SIZED{0, 0}; }
KAPI int32_t K_SizeD_IsEmpty(const SIZED* pSize) { return !pSize || !(pSize->cx > 0 && pSize->cy > 0); }
KAPI int32_t K_SizeD_IsEqual(const SIZED* pA, const SIZED* pB) {
    return pA && pB && pA->cx == pB->cx && pA->cy == pB->cy;
}
KAPI SIZE K_SizeD_ToSize(const SIZED* pSize) {
    if (!pSize) return SIZE{0, 0};
    return SIZE{doubleToInt(pSize->cx), doubleToInt(pSize->cy)};
}
KAPI RECTD K_RectD_Make(double x, double y, double cx, double cy) { return RECTD{x, y, x + cx, y + cy}; }
KAPI RECTD K_RectD_FromLTRB(double dLeft, double dTop, double dRight, double dBottom) {
    return RECTD{dLeft, dTop, dRight, dBottom};
}
KAPI RECTD K_RectD_Empty(void) { return RECTD{0, 0, 0, 0}; }
KAPI int32_t K_RectD_IsEmpty(const RECTD* pRect) { return !pRect || rectDEmpty(*pRect); }
KAPI int32_t K_RectD_IsEqual(const RECTD* pA, const RECTD* pB) {
    return pA && pB && pA->left == pB->left && pA->top == pB->top && pA->right == pB->right &&
           pA->bottom == pB->bottom;
}
KAPI double K_RectD_Width(const RECTD* pRect) { return pRect ? pRect->right - pRect->left : 0.0; }
KAPI double K_RectD_Height(const RECTD* pRect) { return pRect ? pRect->bottom - pRect->top : 0.0; }
KAPI POINTD K_RectD_TopLeft(const RECTD* pRect) {
    return pRect ? POINTD{pRect->left, pRect->top} : POINTD{0, 0};
}
KAPI POINTD K_RectD_TopRight(const RECTD* pRect) {
    return pRect ? POINTD{pRect->right, pRect->top} : POINTD{0, 0};
}
KAPI POINTD K_RectD_BottomLeft(const RECTD* pRect) {
    return pRect ? POINTD{pRect->left, pRect->bottom} : POINTD{0, 0};
}
KAPI POINTD K_RectD_BottomRight(const RECTD* pRect) {
    return pRect ? POINTD{pRect->right, pRect->bottom} : POINTD{0, 0};
}
KAPI SIZED K_RectD_Size(const RECTD* pRect) { return SIZED{K_RectD_Width(pRect), K_RectD_Height(pRect)}; }
KAPI int32_t K_RectD_ContainsPoint(const RECTD* pRect, const POINTD* pPoint) {
    if (!pRect || !pPoint) return 0;
    return pPoint->x >= pRect->left && pPoint->x < pRect->right && pPoint->y >= pRect->top &&
           pPoint->y < pRect->bottom;
}
KAPI int32_t K_RectD_ContainsRect(const RECTD* pOuter, const RECTD* pInner) {
    if (!pOuter || !pInner || rectDEmpty(*pInner) || rectDEmpty(*pOuter)) return 0;
    return pInner->left >= pOuter->left && pInner->top >= pOuter->top && pInner->right <= pOuter->right &&
           pInner->bottom <= pOuter->bottom;
}
KAPI void K_RectD_Inflate(RECTD* pRect, double dx, double dy) {
    if (!pRect) return;
    pRect->left -= dx;
    pRect->top -= dy;
    pRect->right += dx;
    pRect->bottom += dy;
}
KAPI void K_RectD_Offset(RECTD* pRect, double dx, double dy) {
    if (!pRect) return;
    pRect->left += dx;
    pRect->top += dy;
    pRect->right += dx;
    pRect->bottom += dy;
}
KAPI int32_t K_RectD_Intersect(RECTD* pResult, const RECTD* pA, const RECTD* pB) {
    return intersectRects(pResult, pA, pB);
}
KAPI int32_t K_RectD_IntersectsWith(const RECTD* pA, const RECTD* pB) {
    RECTD r;
    return K_RectD_Intersect(&r, pA, pB);
}
KAPI int32_t K_RectD_Union(RECTD* pResult, const RECTD* pA, const RECTD* pB) {
    return unionRects(pResult, pA, pB);
}
KAPI void K_RectD_Scale(RECTD* pRect, double dScaleX, double dScaleY) {
    if (!pRect) return;
    pRect->left *= dScaleX;
    pRect->right *= dScaleX;
    pRect->top *= dScaleY;
    pRect->bottom *= dScaleY;
    if (dScaleX < 0) std::swap(pRect->left, pRect->right);
    if (dScaleY < 0) std::swap(pRect->top, pRect->bottom);
}
KAPI void K_RectD_Transform(RECTD* pRect, const KMATRIX* pMatrix) { K_Matrix_TransformRect(pMatrix, pRect); }
KAPI RECT K_RectD_ToRect(const RECTD* pRect) {
    if (!pRect || rectDEmpty(*pRect)) return RECT{0, 0, 0, 0};
    return RECT{saturateDouble(std::floor(pRect->left)), saturateDouble(std::floor(pRect->top)),
                saturateDouble(std::ceil(pRect->right)), saturateDouble(std::ceil(pRect->bottom))};
}

// ================================================================ lengths
KAPI double K_LengthD_Vector(double dx, double dy) { return std::hypot(dx, dy); }
KAPI double K_LengthD_Between(const POINTD* pA, const POINTD* pB) {
    if (!pA || !pB) return 0.0;
    return std::hypot(pB->x - pA->x, pB->y - pA->y);
}
KAPI double K_LengthD_Transform(const KMATRIX* pMatrix, double dx, double dy) {
    if (pMatrix) transformVector(load(pMatrix), dx, dy);
    return std::hypot(dx, dy);
}
