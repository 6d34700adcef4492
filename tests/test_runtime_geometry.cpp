// test_runtime_geometry.cpp - matrices against a six-double reference (type 0 holding garbage too), rectangles
// against a pixel-set oracle, the comparison edge cases, the fixed-point sine against long double.
#include <gtest/gtest.h>

#include <cstring>

#include <cfloat>
#include <cmath>
#include <random>
#include <set>

#include "ombrix.h"
#include "krn/common/sine.h"

namespace {

struct Ref { double m11, m12, m21, m22, ox, oy; };
const Ref kId{1, 0, 0, 1, 0, 0};

Ref refOf(const KMATRIX& m) { return m.nType == 0 ? kId : Ref{m.dM11, m.dM12, m.dM21, m.dM22, m.dOffsetX, m.dOffsetY}; }
// Row-vector convention: p' = p * A, then * B.
Ref mul(const Ref& a, const Ref& b) {
    return {a.m11 * b.m11 + a.m12 * b.m21,       a.m11 * b.m12 + a.m12 * b.m22,
            a.m21 * b.m11 + a.m22 * b.m21,       a.m21 * b.m12 + a.m22 * b.m22,
            a.ox * b.m11 + a.oy * b.m21 + b.ox,  a.ox * b.m12 + a.oy * b.m22 + b.oy};
}
Ref inverse(const Ref& a) {
    const double det = a.m11 * a.m22 - a.m12 * a.m21, i11 = a.m22 / det, i12 = -a.m12 / det, i21 = -a.m21 / det,
                 i22 = a.m11 / det;
    return {i11, i12, i21, i22, -(a.ox * i11 + a.oy * i21), -(a.ox * i12 + a.oy * i22)};
}
int refType(const Ref& m) {
    if (m.m12 != 0 || m.m21 != 0) return 4;
    return ((m.m11 == 1 && m.m22 == 1) ? 0 : 2) | ((m.ox != 0 || m.oy != 0) ? 1 : 0);
}
void applyPoint(const Ref& m, double& x, double& y, bool vector = false) {
    const double nx = x * m.m11 + y * m.m21 + (vector ? 0 : m.ox);
    y = x * m.m12 + y * m.m22 + (vector ? 0 : m.oy), x = nx;
}

bool close(double a, double b, double scale = 1.0) {
    return std::fabs(a - b) <= 1e-12 * (std::fabs(a) + std::fabs(b) + scale);
}
::testing::AssertionResult sameMatrix(const KMATRIX& got, const Ref& want, double scale = 1.0) {
    const Ref g = refOf(got);
    const double *a = &g.m11, *b = &want.m11;
    for (int i = 0; i < 6; ++i)
        if (!close(a[i], b[i], scale))
            return ::testing::AssertionFailure() << "element " << i << ": got " << a[i] << " want " << b[i];
    return got.uReserved == 0 ? ::testing::AssertionSuccess() : ::testing::AssertionFailure() << "reserved word not 0";
}

// Builder k: even k appends the step, odd k prepends it.
void build(int k, KMATRIX* m, double a, double cx, double cy, double sx, double sy, double kx, double ky) {
    switch (k) {
        case 0: return K_Matrix_Rotate(m, a);
        case 1: return K_Matrix_RotatePrepend(m, a);
        case 2: return K_Matrix_RotateAt(m, a, cx, cy);
        case 3: return K_Matrix_RotateAtPrepend(m, a, cx, cy);
        case 4: return K_Matrix_Scale(m, sx, sy);
        case 5: return K_Matrix_ScalePrepend(m, sx, sy);
        case 6: return K_Matrix_ScaleAt(m, sx, sy, cx, cy);
        case 7: return K_Matrix_ScaleAtPrepend(m, sx, sy, cx, cy);
        case 8: return K_Matrix_Skew(m, kx, ky);
        case 9: return K_Matrix_SkewPrepend(m, kx, ky);
        case 10: return K_Matrix_Translate(m, cx, cy);
        default: return K_Matrix_TranslatePrepend(m, cx, cy);
    }
}

// Random matrix of a given type; type 0 comes as a record holding garbage values (still the identity).
struct Gen {
    std::mt19937_64 rng;
    explicit Gen(uint64_t seed) : rng(seed) {}
    double val() {
        double v = std::uniform_real_distribution<double>(-4.0, 4.0)(rng);
        return std::fabs(v) < 0.05 ? v + 0.5 : v;  // keep away from singular
    }
    KMATRIX matrix(int type) {  // the values are drawn in a fixed order: type 0 keeps them, the others are set
        KMATRIX m{val(), val(), val(), val(), val(), val(), 0, 0};
        const double a = val(), b = type == 4 ? val() : 0, c = type == 4 ? val() : 0, d = val();
        const double ox = type & 1 || type == 4 ? val() : 0, oy = type & 1 || type == 4 ? val() : 0;
        if (type) K_Matrix_Set(&m, type == 1 ? 1 : a, b, c, type == 1 ? 1 : d, ox, oy);
        return m;
    }
};

void expectAll(std::initializer_list<std::pair<double, double>> rows) {
    int i = 0;
    for (const auto& [got, want] : rows) EXPECT_EQ(got, want) << "row " << i++;
}

TEST(RuntimeGeometryDouble, EdgeCasesClosenessRulesDoubleToIntAndNormalizeAngle) {
    // The relative rule: eps = (|a| + |b| + 10) * DBL_EPSILON, strict.
    const double eps = 12.0 * DBL_EPSILON;
    RECTD r{0, 1, NAN, 3}, q{0, 1, 2, 3}, q2{1e-17, 1, 2, 3}, q3{0, 1, 2, 3.001};
    POINTD p1{1, 2}, p2{1, 2 + 1e-16}, p3{1.01, 2};
    SIZED s1{5, 6}, s2{5, 6.5};
    expectAll({
        {K_Double_AreClose(1e300, 1e300 * (1 + 1e-17)), 1}, {K_Double_IsZero(3e-15), 0}, {K_Double_IsZero(2e-15), 1},
        {K_Double_AreClose(1.0, 1.0 + eps * 0.9), 1}, {K_Double_AreClose(1.0, 1.0 + eps * 1.1), 0},
        {K_Double_AreClose(0.0, 2.2e-15), 1}, {K_Double_AreClose(0.0, 2.3e-15), 0},  // 10 * DBL_EPSILON near 0
        {K_Double_AreClose(NAN, NAN), 0}, {K_Double_AreClose(INFINITY, INFINITY), 1},
        {K_Double_AreClose(INFINITY, 1e308), 0}, {K_Double_IsOne(1.0 + 2e-15), 1}, {K_Double_IsOne(1.0 + 3e-15), 0},
        {K_Double_LessThan(1.0, 1.0 + 1e-16), 0}, {K_Double_LessThan(1.0, 1.0001), 1},
        {K_Double_GreaterThan(1.0001, 1.0), 1}, {K_Double_GreaterThan(1.0 + 1e-16, 1.0), 0},
        {K_Double_LessThanOrClose(1.0 + 1e-16, 1.0), 1}, {K_Double_LessThanOrClose(1.1, 1.0), 0},
        {K_Double_GreaterThanOrClose(1.0, 1.0 + 1e-16), 1}, {K_Double_GreaterThanOrClose(1.0, 1.1), 0},
        {K_Double_IsBetweenZeroAndOne(0.5), 1}, {K_Double_IsBetweenZeroAndOne(-1e-16), 1},
        {K_Double_IsBetweenZeroAndOne(-1e-3), 0}, {K_Double_IsBetweenZeroAndOne(1.0 + 1e-16), 1},
        {K_Double_IsBetweenZeroAndOne(1.001), 0}, {K_Double_IsBetweenZeroAndOne(NAN), 0},
        {K_Double_IsInfinity(DBL_MAX), 0}, {K_Double_RectHasNaN(&r), 1}, {K_Double_RectHasNaN(&q), 0},
        {K_Double_AreCloseRects(&q, &q2), 1}, {K_Double_AreCloseRects(&q, &q3), 0},
        {K_Double_AreClosePoints(&p1, &p2), 1}, {K_Double_AreClosePoints(&p1, &p3), 0},
        {K_Double_AreCloseSizes(&s1, &s1), 1}, {K_Double_AreCloseSizes(&s1, &s2), 0},
        {K_Double_AreClosePoints(nullptr, &p1), 0},
    });
    // DoubleToInt rounds half away from zero and saturates; NormalizeAngle equals repeated subtraction, bit for bit.
    auto loop = [](double d) {
        while (d > 360) d -= 360;
        while (d < 0) d += 360;
        return d;
    };
    std::mt19937_64 rng(7);
    std::uniform_real_distribution<double> d(-1e6, 1e6), a(-200000.0, 200000.0);
    for (int i = 0; i < 20000; ++i) {
        double v = d(rng), w = a(rng);
        if (i % 4 == 0) v = std::floor(v) + 0.5;  // exact halves
        if (i % 3 == 0) w = std::round(w);
        if (i % 7 == 0) w = 360.0 * std::round(w / 360.0);
        ASSERT_EQ(K_Double_DoubleToInt(v), int32_t(v <= 0 ? std::trunc(v - 0.5) : std::trunc(v + 0.5))) << v;
        const double want = loop(w), got = K_Double_NormalizeAngle(w);
        ASSERT_EQ(std::memcmp(&want, &got, sizeof want), 0) << w << " -> " << got << " want " << want;
    }
    const double big = K_Double_NormalizeAngle(1e300);  // the loop would never end
    expectAll({{K_Double_DoubleToInt(1e20), INT32_MAX}, {K_Double_DoubleToInt(-1e20), INT32_MIN},
               {K_Double_DoubleToInt(2147483646.6), INT32_MAX}, {K_Double_DoubleToInt(NAN), 0},
               {K_Double_DoubleToInt(-INFINITY), INT32_MIN}, {std::isnan(K_Double_NormalizeAngle(INFINITY)), 1},
               {std::isnan(K_Double_NormalizeAngle(NAN)), 1}, {big >= 0.0 && big <= 360.0, 1}});
}

TEST(RuntimeGeometryMatrix, TypeAccessorsInverseTransformsAndBuildersMatchReference) {
    KMATRIX m;
    for (const Ref& v : std::initializer_list<Ref>{{2, 0, 0, 1, 5, 0}, {1, 0.5, 0, 1, 0, 0}, {1, 0, 0, 1, 0, 0},
                                                   {1, 0, 0, 1, 0, -1}, {1, 0, 0, 3, 0, 0}, {1, 0, -0.25, 1, 0, 0}})
        EXPECT_TRUE((K_Matrix_Set(&m, v.m11, v.m12, v.m21, v.m22, v.ox, v.oy), m.nType == refType(v)) &&
                    K_Matrix_GetType(&m) == refType(v) && m.uReserved == 0u);
    std::memset(&m, 0, sizeof m);  // zero-filled record: the identity
    expectAll({{K_Matrix_IsIdentity(&m), 1},
               {K_Matrix_GetM11(&m), 1.0}, {K_Matrix_GetM22(&m), 1.0}, {K_Matrix_Determinant(&m), 1.0}});
    // Setters from the identity change one value and re-derive the type.
    const struct { void (*set)(KMATRIX*, double); double v; int type; } steps[] = {
        {K_Matrix_SetM12, 0.5, 4}, {K_Matrix_SetM12, 0.0, 0}, {K_Matrix_SetOffsetX, 2, 1}, {K_Matrix_SetM22, 3, 3},
        {K_Matrix_SetOffsetX, 0, 2}, {K_Matrix_SetM21, 1, 4}, {K_Matrix_SetM11, 7, 4}, {K_Matrix_SetOffsetY, 9, 4}};
    for (const auto& s : steps) EXPECT_EQ((s.set(&m, s.v), m.nType), s.type);
    KMATRIX z, i;
    std::memset(&z, 0, sizeof z);
    K_Matrix_Identity(&i);
    K_Matrix_Identity(nullptr);  // null records are tolerated
    K_Matrix_Rotate(nullptr, 3);
    expectAll({{K_Matrix_GetM11(&m), 7},
               {K_Matrix_GetM12(&m), 0}, {K_Matrix_GetM21(&m), 1}, {K_Matrix_GetM22(&m), 3},
               {K_Matrix_GetOffsetX(&m), 0}, {K_Matrix_GetOffsetY(&m), 9},
               {K_Matrix_IsEqual(&z, &i), 1} /* both the identity */, {K_Matrix_IsEqual(&z, &m), 0},
               {(i.nType = 4, K_Matrix_IsIdentity(&i)), 1} /* a general-typed identity is still recognised by value */,
               {(i.dOffsetX = 1e-300, K_Matrix_IsIdentity(&i)), 0}, {K_Matrix_Invert(nullptr), 0},
               {K_Matrix_GetM11(nullptr), 0.0}});
    Gen g(2);
    for (int iter = 0; iter < 2000; ++iter) {
        const int t = iter % 5;
        SCOPED_TRACE("type " + std::to_string(t));
        KMATRIX m = g.matrix(t), inv = m, prod;
        const Ref before = refOf(m);
        const double det = before.m11 * before.m22 - before.m12 * before.m21;
        if (std::fabs(det) < 1e-6) continue;
        ASSERT_TRUE(close(K_Matrix_Determinant(&m), det, 16.0) && K_Matrix_HasInverse(&m) == 1 &&
                    K_Matrix_Invert(&inv) == 1);
        ASSERT_TRUE(sameMatrix(inv, inverse(before), 1e3));
        K_Matrix_Multiply(&prod, &m, &inv);
        ASSERT_TRUE(sameMatrix(prod, kId, 1e4));
        ASSERT_EQ(inv.nType, t == 0 ? 0 : refType(refOf(inv)));
    }
    // Singular (or NaN) matrices are left alone.
    for (const Ref& v : {Ref{1e-8, 0, 0, 1e-8, 3, 4}, Ref{1, 2, 2, 4, 0, 0}, Ref{NAN, 0, 0, 1, 0, 0}}) {
        KMATRIX s;
        K_Matrix_Set(&s, v.m11, v.m12, v.m21, v.m22, v.ox, v.oy);
        const KMATRIX copy = s;
        EXPECT_TRUE(K_Matrix_HasInverse(&s) == 0 && K_Matrix_Invert(&s) == 0 && std::memcmp(&s, &copy, sizeof s) == 0);
    }
    std::memset(&z, 0, sizeof z);  // types 0 and 1 have determinant 1 whatever the values say
    EXPECT_TRUE(K_Matrix_Invert(&z) == 1 && K_Matrix_IsIdentity(&z) == 1);
    g = Gen(3);
    std::uniform_real_distribution<double> d(-100, 100);
    for (int iter = 0; iter < 3000; ++iter) {
        KMATRIX m = g.matrix(iter % 5);
        const Ref r = refOf(m);
        // Points and vectors, one at a time and three at once.
        POINTD pts[4], vec[4];
        double want[4][4];
        for (int i = 0; i < 4; ++i) {
            pts[i] = vec[i] = {d(g.rng), d(g.rng)};
            want[i][0] = want[i][2] = pts[i].x, want[i][1] = want[i][3] = pts[i].y;
            applyPoint(r, want[i][0], want[i][1]);
            applyPoint(r, want[i][2], want[i][3], true);
        }
        K_Matrix_TransformPoint(&m, &pts[3]);
        K_Matrix_TransformVector(&m, &vec[3]);
        K_Matrix_TransformPoints(&m, pts, 3);
        K_Matrix_TransformVectors(&m, vec, 3);
        for (int i = 0; i < 4; ++i)
            ASSERT_TRUE(close(pts[i].x, want[i][0], 100) && close(pts[i].y, want[i][1], 100) &&
                        close(vec[i].x, want[i][2], 100) && close(vec[i].y, want[i][3], 100))
                << "type " << iter % 5 << " point " << i;
        // Rectangles: bounding box of the four transformed corners, both entry points.
        const double l = d(g.rng), tp = d(g.rng);
        RECTD rc{l, tp, l + 1 + std::fabs(d(g.rng)), tp + 1 + std::fabs(d(g.rng))}, rc2 = rc;
        double cx[4] = {rc.left, rc.right, rc.left, rc.right}, cy[4] = {rc.top, rc.top, rc.bottom, rc.bottom};
        for (int i = 0; i < 4; ++i) applyPoint(r, cx[i], cy[i]);
        K_Matrix_TransformRect(&m, &rc);
        K_RectD_Transform(&rc2, &m);
        ASSERT_TRUE(
            close(rc.left, *std::min_element(cx, cx + 4), 100) && close(rc.right, *std::max_element(cx, cx + 4), 100) &&
            close(rc.top, *std::min_element(cy, cy + 4), 100) && close(rc.bottom, *std::max_element(cy, cy + 4), 100));
        ASSERT_EQ(std::memcmp(&rc, &rc2, sizeof rc), 0);
    }
    RECTD empty{5, 5, 5, 9};
    POINTD p{1, 1};
    K_Matrix_Set(&m, 2, 0, 0, 2, 1, 1);
    expectAll({{(K_Matrix_TransformRect(&m, &empty), empty.left), 5} /* empty rectangles are left as they are */,
               {empty.bottom, 9}, {(K_Matrix_TransformPoints(&m, &p, 0), p.x), 1}});
    // Builders against matrices the test assembles itself.
    g = Gen(4);
    std::uniform_real_distribution<double> ang(-1000, 1000), near(-10, 10);
    const double pi = 3.14159265358979323846;
    for (int iter = 0; iter < 1000; ++iter) {
        KMATRIX base = g.matrix(iter % 5);
        double a = ang(g.rng), cx = near(g.rng), cy = near(g.rng), sx = near(g.rng), sy = near(g.rng);
        double rad = std::fmod(std::fmod(a, 360.0) + 360.0, 360.0) * pi / 180.0;
        double c = std::cos(rad), s = std::sin(rad);
        double kx = std::fmod(a, 80.0), ky = std::fmod(a * 0.7, 80.0);
        const Ref steps[6] = {{c, s, -s, c, 0, 0},
                              {c, s, -s, c, cx * (1 - c) + cy * s, cy * (1 - c) - cx * s}, {sx, 0, 0, sy, 0, 0},
                              {sx, 0, 0, sy, cx - sx * cx, cy - sy * cy},
                              {1, std::tan(ky * pi / 180.0), std::tan(kx * pi / 180.0), 1, 0, 0}, {1, 0, 0, 1, cx, cy}};
        for (int k = 0; k < 12; ++k) {
            KMATRIX m = base;
            build(k, &m, a, cx, cy, sx, sy, kx, ky);
            Ref want = k % 2 ? mul(steps[k / 2], refOf(base)) : mul(refOf(base), steps[k / 2]);
            ASSERT_TRUE(sameMatrix(m, want, 1e3)) << "builder " << k << " on type " << base.nType;
            // The cached type fits the values (Translate may keep the translation bit with zero offsets).
            KMATRIX re = m;
            K_Matrix_DeriveType(&re);
            ASSERT_TRUE(m.nType == re.nType || (m.nType == (re.nType | 1) && m.dOffsetX == 0.0 && m.dOffsetY == 0.0))
                << k;
        }
    }
}

// Oracle: a rectangle as the set of integer points it holds.
using Pixels = std::set<std::pair<int, int>>;
Pixels pixels(const RECT& r) {
    Pixels s;
    for (int y = r.top; y < r.bottom; ++y)
        for (int x = r.left; x < r.right; ++x) s.insert({x, y});
    return s;
}
RECT bbox(const Pixels& s) {
    RECT r{INT32_MAX, INT32_MAX, INT32_MIN, INT32_MIN};
    for (auto& [x, y] : s)
        r = RECT{std::min(r.left, x), std::min(r.top, y), std::max(r.right, x + 1), std::max(r.bottom, y + 1)};
    return s.empty() ? RECT{0, 0, 0, 0} : r;
}
bool sameRect(const RECT& a, const RECT& b) { return std::memcmp(&a, &b, sizeof a) == 0; }
RECTD toD(const RECT& r) { return RECTD{double(r.left), double(r.top), double(r.right), double(r.bottom)}; }

// Integer, double and Win32 forms, results aliasing inputs, against the pixel sets.
TEST(RuntimeGeometryRect, OperationsMatchThePixelSetOracleSaturationRecordsAndLengths) {
    std::mt19937 rng(5);
    std::uniform_int_distribution<int> c(-6, 6);
    for (int iter = 0; iter < 5000; ++iter) {
        const RECT a{c(rng), c(rng), c(rng), c(rng)}, b{c(rng), c(rng), c(rng), c(rng)};
        const Pixels pa = pixels(a), pb = pixels(b);
        Pixels inter, uni = pb;
        for (auto& p : pa) {
            if (pb.count(p)) inter.insert(p);
            uni.insert(p);
        }
        const RECTD da = toD(a), db = toD(b);
        RECTD dr;
        RECT r, al = a, au = b, w;
        std::memset(&r, 0x77, sizeof r);
        bool contains = !pb.empty() && !pa.empty();
        for (auto& p : pb) contains = contains && pa.count(p);
        const POINT p{c(rng), c(rng)};
        const POINTD pd{double(p.x), double(p.y)};
        const bool hasP = pa.count({p.x, p.y}) == 1;
        const std::pair<int, int> flags[] = {
            // exact results: 1 is true
            {K_Rect_IsEmpty(&a), pa.empty()}, {K_RectD_IsEmpty(&da), pa.empty()},
            {K_Rect_IntersectsWith(&a, &b), !inter.empty()}, {K_RectD_IntersectsWith(&da, &db), !inter.empty()},
            {K_Rect_ContainsRect(&a, &b), contains}, {K_RectD_ContainsRect(&da, &db), contains},
            {K_Rect_ContainsPoint(&a, &p), hasP}, {K_RectD_ContainsPoint(&da, &pd), hasP},
            {K_Rect_Intersect(&r, &a, &b), !inter.empty()}, {sameRect(r, bbox(inter)), true},
            {pixels(r) == inter, true},  // the intersection of rectangles is a rectangle
            {K_RectD_Intersect(&dr, &da, &db), !inter.empty()}, {sameRect(K_RectD_ToRect(&dr), bbox(inter)), true},
            {K_Rect_Union(&r, &a, &b), !uni.empty()}, {sameRect(r, bbox(uni)), true},
            {K_RectD_Union(&dr, &da, &db), !uni.empty()}, {sameRect(K_RectD_ToRect(&dr), bbox(uni)), true},
            {(K_Rect_Intersect(&al, &al, &b), sameRect(al, bbox(inter))), true},
            {(K_Rect_Union(&au, &a, &au), sameRect(au, bbox(uni))), true},
            // The Win32 forms (InflateRect and OffsetRect: HostileRects).
            {IntersectRect(&w, &a, &b), !inter.empty()}, {sameRect(w, bbox(inter)), true},
            {IsRectEmpty(&a), pa.empty()}, {UnionRect(&w, &a, &b), !uni.empty()}, {sameRect(w, bbox(uni)), true},
            {PtInRect(&a, p), hasP}, {CopyRect(&w, &a) && EqualRect(&w, &a), true},
            {SetRect(&w, 1, 2, 3, 4) && EqualRect(&w, &b), sameRect(b, RECT{1, 2, 3, 4})},
        };
        for (size_t i = 0; i < std::size(flags); ++i)
            ASSERT_EQ(flags[i].first, flags[i].second) << "row " << i << " iter " << iter;
        const int dx = c(rng), dy = c(rng);
        RECT o = a, inf = a;
        RECTD od = da;
        K_Rect_Offset(&o, dx, dy), K_RectD_Offset(&od, dx, dy), K_Rect_Inflate(&inf, dx, dy);
        ASSERT_TRUE(sameRect(o, RECT{a.left + dx, a.top + dy, a.right + dx, a.bottom + dy}));
        ASSERT_TRUE(sameRect(K_RectD_ToRect(&od), o) || K_Rect_IsEmpty(&o));
        ASSERT_TRUE(sameRect(inf, RECT{a.left - dx, a.top - dy, a.right + dx, a.bottom + dy}));
        ASSERT_TRUE(K_Rect_Width(&a) == a.right - a.left && K_Rect_Height(&a) == a.bottom - a.top &&
                    K_RectD_Width(&da) == double(a.right - a.left));
    }
    // Integer results saturate; record makers, accessors, conversions (near edge floored, far edge ceiled), lengths.
    RECT sat = K_Rect_FromLTRB(INT32_MIN, -5, INT32_MAX, 5), m = K_Rect_Make(INT32_MAX - 1, 0, 100, 100);
    const int w = K_Rect_Width(&sat);
    K_Rect_Inflate(&sat, 10, 10);
    const RECT inflated = sat;
    K_Rect_Offset(&sat, INT32_MAX, 0);
    POINT p = K_Point_Make(INT32_MIN + 1, 0);
    K_Point_Offset(&p, -5, 3);
    RECTD big{-1e30, 0.5, 1e30, 2.5};
    const RECT b = K_RectD_ToRect(&big);
    RECT r = K_Rect_Make(2, 3, 4, 5), e = K_Rect_Empty();
    POINT tl = K_Rect_TopLeft(&r), tr = K_Rect_TopRight(&r), bl = K_Rect_BottomLeft(&r), br = K_Rect_BottomRight(&r),
          brNull = K_Rect_BottomRight(nullptr);
    SIZE s = K_Rect_Size(&r);
    RECTD d = K_Rect_ToRectD(&r), nan{0, 0, NAN, 1}, md = K_RectD_Make(1, 2, 3, 4), ed = K_RectD_Empty(),
          infl = K_RectD_FromLTRB(0, 0, 1, 1);
    RECT back = K_RectD_ToRect(&d), fromNan = K_RectD_ToRect(&nan);
    const double mdRight = md.right, mdBottom = md.bottom;
    K_RectD_Scale(&md, -2, 0.5);  // a negative factor swaps the edges
    K_RectD_Inflate(&infl, 0.5, 1);
    SIZED sd = K_RectD_Size(&md), z = K_SizeD_Empty(), sz = K_SizeD_Make(1.5, 2.5), flatX{0, 2}, flatY{2, 0};
    POINTD pd = K_PointD_Make(-2.5, 2.5), pde = K_PointD_Empty(), brdNull = K_RectD_BottomRight(nullptr),
           brd = K_RectD_BottomRight(&d);
    POINT pi = K_PointD_ToPoint(&pd), ip = K_Point_Make(4, -9), pe = K_Point_Empty();
    POINTD ipd = K_Point_ToPointD(&ip);
    SIZE isz = K_SizeD_ToSize(&sz), s2 = K_Size_Make(2, 3);
    SIZED back2 = K_Size_ToSizeD(&s2);
    const int pdeEmpty = K_PointD_IsEmpty(&pde);
    K_PointD_Offset(&pde, 1, 0);
    POINTD la{1, 1}, lb{4, 5};
    KMATRIX scale, rot;
    K_Matrix_Set(&scale, 2, 0, 0, 2, 100, 100);  // offsets do not change lengths
    K_Matrix_Identity(&rot), K_Matrix_Rotate(&rot, 33);
    expectAll({{w, INT32_MAX},
               {inflated.left, INT32_MIN}, {inflated.right, INT32_MAX}, {inflated.top, -15}, {sat.right, INT32_MAX},
               {sat.left, -1}, {m.right, INT32_MAX}, {p.x, INT32_MIN}, {p.y, 3}, {b.left, INT32_MIN},
               {b.right, INT32_MAX}, {b.top, 0}, {b.bottom, 3}, {sameRect(r, RECT{2, 3, 6, 8}), 1}, {brNull.x, 0},
               {brNull.y, 0}, {brdNull.x, 0.0}, {brdNull.y, 0.0}, {brd.x, 6.0}, {brd.y, 8.0}, {tl.x, 2}, {tr.x, 6},
               {bl.y, 8}, {br.x, 6}, {br.y, 8}, {s.cx, 4}, {s.cy, 5}, {K_Rect_IsEmpty(&e), 1}, {d.right, 6.0},
               {K_Rect_IsEqual(&back, &r), 1}, {K_RectD_IsEmpty(&nan), 1}, {K_Rect_IsEmpty(&fromNan), 1},
               {mdRight, 4.0}, {mdBottom, 6.0}, {md.left, -8.0}, {md.right, -2.0}, {md.top, 1.0}, {md.bottom, 3.0},
               {sd.cx, 6.0}, {pi.x, -3}, {pi.y, 3}, {ipd.y, -9.0}, {K_SizeD_IsEmpty(&z), 1}, {K_SizeD_IsEmpty(&sz), 0},
               {K_SizeD_IsEmpty(&flatX), 1}, {K_SizeD_IsEmpty(&flatY), 1}, {K_Rect_Width(nullptr), 0},
               {K_Rect_Height(nullptr), 0}, {isz.cx, 2}, {isz.cy, 3}, {K_Size_IsEqual(&isz, &s2), 1},
               {K_SizeD_IsEqual(&back2, &back2), 1}, {K_Point_IsEmpty(&pe), 1}, {pdeEmpty, 1},
               {K_PointD_IsEmpty(&pde), 0}, {K_PointD_IsEqual(&pde, &pde), 1}, {K_RectD_IsEmpty(&ed), 1},
               {infl.left, -0.5}, {infl.top, -1.0}, {infl.right, 1.5}, {infl.bottom, 2.0},
               {K_RectD_IsEqual(&infl, &infl), 1}, {SetRect(nullptr, 0, 0, 1, 1), 0},
               {IntersectRect(nullptr, &r, &r), 0}, {K_LengthD_Vector(3, 4), 5.0},
               {K_LengthD_Vector(3e300, 4e300), 5e300} /* no overflow inside */, {K_LengthD_Between(&la, &lb), 5.0},
               {K_LengthD_Transform(&scale, 3, 4), 10.0},
               {std::fabs(K_LengthD_Transform(&rot, 3, 4) - 5.0) < 1e-12, 1}});
}

// sin or cos of a/100 degrees times 16384, in long double.
long double exactScaled(long double hundredths, bool sine) {
    const long double rad = hundredths * 3.141592653589793238462643383279502884L / 18000.0L;
    return (sine ? std::sin(rad) : std::cos(rad)) * 16384.0L;
}

// Round half up, decided only clearly away from a tie; 0, 30 and 90 degrees are exact (0, 8192, 16384).
TEST(RuntimeSine, EveryTableEntryFollowsTheRoundingRuleAndFoldingMatchesTheTrueFunctions) {
    const int32_t* t = krn::sineTable();
    for (int a = 0; a <= 9000; ++a) {
        const long double v = exactScaled(a, true), frac = v - std::floor(v);
        const bool exact = a == 0 || a == 3000 || a == 9000;
        ASSERT_TRUE((exact || std::fabs(frac - 0.5L) > 1e-9L) &&
                    t[a] == (exact ? int32_t(std::lround(v)) : int32_t(std::floor(v + 0.5L))))
            << "entry " << a << " wrong or too close to a tie to decide";
    }
    EXPECT_TRUE(t[1] == 3 && t[4500] == 11585);
    // Over the whole turn within half a unit of the true value, with the symmetries; outside it wraps modulo 36000.
    for (int a = 0; a <= 36000; ++a) {
        const int32_t gs = K_SinValue(a), gc = K_CosValue(a);
        ASSERT_TRUE(std::fabs(gs - exactScaled(a, true)) <= 0.5L + 1e-9L &&
                    std::fabs(gc - exactScaled(a, false)) <= 0.5L + 1e-9L)
            << a;
        ASSERT_TRUE(gs == -K_SinValue(36000 - a) && gc == K_CosValue(36000 - a) &&
                    (a > 18000 || gs == K_SinValue(18000 - a)) && (a > 9000 || gs == K_CosValue(9000 - a)))
            << a;
    }
    for (int32_t a : {-1, -4500, -9000, -36000, -36001, 36001, 45000, 72000, 123457, -987654, INT32_MAX, INT32_MIN,
                      INT32_MIN + 1, 99999999}) {
        const int32_t r = int32_t(((int64_t(a) % 36000) + 36000) % 36000);
        EXPECT_TRUE(K_SinValue(a) == K_SinValue(r) && K_CosValue(a) == K_CosValue(r)) << a;
    }
    EXPECT_TRUE(K_SinValue(-9000) == -16384 && K_CosValue(-18000) == -16384 && K_CosValue(4500) == 11585);
}

}  // namespace
