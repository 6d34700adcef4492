// test_runtime_geometry.cpp - geometry primitives against plain references:
// matrices (products, inverses, transforms, builders) against a six-double
// reference over random values of every type, including type-0 records whose
// values are garbage; rectangles against a pixel-set oracle; the double
// forms against the integer forms; the documented comparison edge cases.
#include <gtest/gtest.h>

#include <cfloat>
#include <cmath>
#include <cstring>
#include <random>
#include <set>
#include <utility>

#include "ombrix.h"

namespace {

// ---------------------------------------------------------------- reference
struct Ref {
    double m11, m12, m21, m22, ox, oy;
};
const Ref kId{1, 0, 0, 1, 0, 0};

// The values a record stands for: type 0 is the identity whatever it holds.
Ref refOf(const KMATRIX& m) {
    if (m.nType == 0) return kId;
    return {m.dM11, m.dM12, m.dM21, m.dM22, m.dOffsetX, m.dOffsetY};
}
// Row-vector convention: p' = p * A, then * B.
Ref mul(const Ref& a, const Ref& b) {
    return {a.m11 * b.m11 + a.m12 * b.m21,       a.m11 * b.m12 + a.m12 * b.m22,
            a.m21 * b.m11 + a.m22 * b.m21,       a.m21 * b.m12 + a.m22 * b.m22,
            a.ox * b.m11 + a.oy * b.m21 + b.ox,  a.ox * b.m12 + a.oy * b.m22 + b.oy};
}
Ref inverse(const Ref& a) {
    double det = a.m11 * a.m22 - a.m12 * a.m21;
    Ref r{a.m22 / det, -a.m12 / det, -a.m21 / det, a.m11 / det, 0, 0};
    r.ox = -(a.ox * r.m11 + a.oy * r.m21);
    r.oy = -(a.ox * r.m12 + a.oy * r.m22);
    return r;
}
int refType(const Ref& m) {
    if (m.m12 == 0 && m.m21 == 0) {
        int t = (m.m11 == 1 && m.m22 == 1) ? 0 : 2;
        if (m.ox != 0 || m.oy != 0) t |= 1;
        return t;
    }
    return 4;
}
void applyPoint(const Ref& m, double& x, double& y) {
    double nx = x * m.m11 + y * m.m21 + m.ox, ny = x * m.m12 + y * m.m22 + m.oy;
    x = nx;
    y = ny;
}

bool close(double a, double b, double scale = 1.0) {
    return std::fabs(a - b) <= 1e-12 * (std::fabs(a) + std::fabs(b) + scale);
}
::testing::AssertionResult sameMatrix(const KMATRIX& got, const Ref& want, double scale = 1.0) {
    Ref g = refOf(got);
    const double* a = &g.m11;
    const double* b = &want.m11;
    for (int i = 0; i < 6; ++i) {
        if (!close(a[i], b[i], scale))
            return ::testing::AssertionFailure()
                   << "element " << i << ": got " << a[i] << " want " << b[i] << " (type " << got.nType << ")";
    }
    if (got.uReserved != 0) return ::testing::AssertionFailure() << "reserved word not 0";
    return ::testing::AssertionSuccess();
}

// Random matrix of a given type. Type 0 comes as a record holding garbage
// values (it must still act as the identity).
struct Gen {
    std::mt19937_64 rng;
    explicit Gen(uint64_t seed) : rng(seed) {}
    double val() {
        std::uniform_real_distribution<double> d(-4.0, 4.0);
        double v = d(rng);
        return std::fabs(v) < 0.05 ? v + 0.5 : v;  // keep away from singular
    }
    KMATRIX matrix(int type) {
        KMATRIX m;
        switch (type) {
            case 0:
                m = {val(), val(), val(), val(), val(), val(), 0, 0};
                break;
            case 1:
                K_Matrix_Set(&m, 1, 0, 0, 1, val(), val());
                break;
            case 2:
                K_Matrix_Set(&m, val(), 0, 0, val(), 0, 0);
                break;
            case 3:
                K_Matrix_Set(&m, val(), 0, 0, val(), val(), val());
                break;
            default:
                K_Matrix_Set(&m, val(), val(), val(), val(), val(), val());
        }
        return m;
    }
};

// ---------------------------------------------------------------- doubles
TEST(RuntimeGeometryDouble, DocumentedEdgeCases) {
    EXPECT_EQ(K_Double_AreClose(1e300, 1e300 * (1 + 1e-17)), 1);
    EXPECT_EQ(K_Double_IsZero(3e-15), 0);
    EXPECT_EQ(K_Double_IsZero(2e-15), 1);
    EXPECT_EQ(K_Double_DoubleToInt(-2.5), -3);
    EXPECT_EQ(K_Double_DoubleToInt(2.5), 3);
    EXPECT_EQ(K_Double_DoubleToInt(-2.4), -2);
    EXPECT_EQ(K_Double_DoubleToInt(0.0), 0);
    EXPECT_EQ(K_Double_NormalizeAngle(720), 360);
    EXPECT_EQ(K_Double_NormalizeAngle(360), 360);
    EXPECT_EQ(K_Double_NormalizeAngle(-90), 270);
    EXPECT_EQ(K_Double_NormalizeAngle(-360), 0);
    EXPECT_EQ(K_Double_NormalizeAngle(0), 0);
}

TEST(RuntimeGeometryDouble, ClosenessRules) {
    // The relative rule: eps = (|a| + |b| + 10) * DBL_EPSILON, strict.
    double a = 1.0, eps = (1.0 + 1.0 + 10.0) * DBL_EPSILON;
    EXPECT_EQ(K_Double_AreClose(a, a + eps * 0.9), 1);
    EXPECT_EQ(K_Double_AreClose(a, a + eps * 1.1), 0);
    EXPECT_EQ(K_Double_AreClose(0.0, 2.2e-15), 1);   // 10 * DBL_EPSILON near zero
    EXPECT_EQ(K_Double_AreClose(0.0, 2.3e-15), 0);
    EXPECT_EQ(K_Double_AreClose(NAN, NAN), 0);
    EXPECT_EQ(K_Double_AreClose(INFINITY, INFINITY), 1);
    EXPECT_EQ(K_Double_AreClose(INFINITY, 1e308), 0);
    EXPECT_EQ(K_Double_IsOne(1.0 + 2e-15), 1);
    EXPECT_EQ(K_Double_IsOne(1.0 + 3e-15), 0);
    EXPECT_EQ(K_Double_LessThan(1.0, 1.0 + 1e-16), 0);
    EXPECT_EQ(K_Double_LessThan(1.0, 1.0001), 1);
    EXPECT_EQ(K_Double_GreaterThan(1.0001, 1.0), 1);
    EXPECT_EQ(K_Double_GreaterThan(1.0 + 1e-16, 1.0), 0);
    EXPECT_EQ(K_Double_LessThanOrClose(1.0 + 1e-16, 1.0), 1);
    EXPECT_EQ(K_Double_LessThanOrClose(1.1, 1.0), 0);
    EXPECT_EQ(K_Double_GreaterThanOrClose(1.0, 1.0 + 1e-16), 1);
    EXPECT_EQ(K_Double_GreaterThanOrClose(1.0, 1.1), 0);
    EXPECT_EQ(K_Double_IsBetweenZeroAndOne(0.5), 1);
    EXPECT_EQ(K_Double_IsBetweenZeroAndOne(-1e-16), 1);  // close to 0
    EXPECT_EQ(K_Double_IsBetweenZeroAndOne(-1e-3), 0);
    EXPECT_EQ(K_Double_IsBetweenZeroAndOne(1.0 + 1e-16), 1);
    EXPECT_EQ(K_Double_IsBetweenZeroAndOne(1.001), 0);
    EXPECT_EQ(K_Double_IsBetweenZeroAndOne(NAN), 0);
    EXPECT_EQ(K_Double_IsNaN(NAN), 1);
    EXPECT_EQ(K_Double_IsNaN(1.0), 0);
    EXPECT_EQ(K_Double_IsInfinity(-INFINITY), 1);
    EXPECT_EQ(K_Double_IsInfinity(DBL_MAX), 0);
    RECTD r{0, 1, NAN, 3}, q{0, 1, 2, 3};
    EXPECT_EQ(K_Double_RectHasNaN(&r), 1);
    EXPECT_EQ(K_Double_RectHasNaN(&q), 0);
    RECTD q2{1e-17, 1, 2, 3};
    EXPECT_EQ(K_Double_AreCloseRects(&q, &q2), 1);
    q2.bottom = 3.001;
    EXPECT_EQ(K_Double_AreCloseRects(&q, &q2), 0);
    POINTD p1{1, 2}, p2{1, 2 + 1e-16}, p3{1.01, 2};
    EXPECT_EQ(K_Double_AreClosePoints(&p1, &p2), 1);
    EXPECT_EQ(K_Double_AreClosePoints(&p1, &p3), 0);
    SIZED s1{5, 6}, s2{5, 6.5};
    EXPECT_EQ(K_Double_AreCloseSizes(&s1, &s1), 1);
    EXPECT_EQ(K_Double_AreCloseSizes(&s1, &s2), 0);
    EXPECT_EQ(K_Double_AreClosePoints(nullptr, &p1), 0);
}

TEST(RuntimeGeometryDouble, DoubleToIntRoundsHalfAwayAndSaturates) {
    std::mt19937_64 rng(7);
    std::uniform_real_distribution<double> d(-1e6, 1e6);
    for (int i = 0; i < 20000; ++i) {
        double v = d(rng);
        if (i % 4 == 0) v = std::floor(v) + 0.5;  // exact halves
        double want = v <= 0 ? std::trunc(v - 0.5) : std::trunc(v + 0.5);
        ASSERT_EQ(K_Double_DoubleToInt(v), int32_t(want)) << v;
    }
    EXPECT_EQ(K_Double_DoubleToInt(1e20), INT32_MAX);
    EXPECT_EQ(K_Double_DoubleToInt(-1e20), INT32_MIN);
    EXPECT_EQ(K_Double_DoubleToInt(2147483646.6), INT32_MAX);
    EXPECT_EQ(K_Double_DoubleToInt(NAN), 0);
    EXPECT_EQ(K_Double_DoubleToInt(-INFINITY), INT32_MIN);
}

// The literal rule (repeated subtraction / addition) is the oracle.
TEST(RuntimeGeometryDouble, NormalizeAngleEqualsTheRepeatedStepRule) {
    auto loop = [](double d) {
        while (d > 360) d -= 360;
        while (d < 0) d += 360;
        return d;
    };
    std::mt19937_64 rng(11);
    std::uniform_real_distribution<double> d(-200000.0, 200000.0);
    for (int i = 0; i < 20000; ++i) {
        double v = d(rng);
        if (i % 3 == 0) v = std::round(v);
        if (i % 7 == 0) v = 360.0 * std::round(v / 360.0);
        double want = loop(v);
        double got = K_Double_NormalizeAngle(v);
        ASSERT_EQ(std::memcmp(&want, &got, sizeof want), 0) << v << " -> " << got << " want " << want;
    }
    EXPECT_TRUE(std::isnan(K_Double_NormalizeAngle(INFINITY)));
    EXPECT_TRUE(std::isnan(K_Double_NormalizeAngle(NAN)));
    double big = K_Double_NormalizeAngle(1e300);  // the loop would never end
    EXPECT_GE(big, 0.0);
    EXPECT_LE(big, 360.0);
}

// ---------------------------------------------------------------- matrices
TEST(RuntimeGeometryMatrix, TypeDerivation) {
    KMATRIX m;
    K_Matrix_Set(&m, 2, 0, 0, 1, 5, 0);
    EXPECT_EQ(m.nType, 3);
    K_Matrix_Set(&m, 1, 0.5, 0, 1, 0, 0);
    EXPECT_EQ(m.nType, 4);
    K_Matrix_Set(&m, 1, 0, 0, 1, 0, 0);
    EXPECT_EQ(m.nType, 0);
    K_Matrix_Set(&m, 1, 0, 0, 1, 0, -1);
    EXPECT_EQ(m.nType, 1);
    K_Matrix_Set(&m, 1, 0, 0, 3, 0, 0);
    EXPECT_EQ(m.nType, 2);
    K_Matrix_Set(&m, 1, 0, -0.25, 1, 0, 0);
    EXPECT_EQ(m.nType, 4);
    EXPECT_EQ(m.uReserved, 0u);
    std::memset(&m, 0, sizeof m);  // zero-filled record: the identity
    EXPECT_EQ(K_Matrix_IsIdentity(&m), 1);
    EXPECT_EQ(K_Matrix_GetM11(&m), 1.0);
    EXPECT_EQ(K_Matrix_Determinant(&m), 1.0);
    K_Matrix_Set(&m, 1, 0, 0, 1, 0, 0);
    m.nType = 4;  // a general-typed identity is still recognised by value
    EXPECT_EQ(K_Matrix_IsIdentity(&m), 1);
    m.dOffsetX = 1e-300;
    EXPECT_EQ(K_Matrix_IsIdentity(&m), 0);
}

TEST(RuntimeGeometryMatrix, MultiplyMatchesReferenceForEveryTypePair) {
    Gen g(1);
    for (int iter = 0; iter < 400; ++iter) {
        for (int ta = 0; ta <= 4; ++ta) {
            for (int tb = 0; tb <= 4; ++tb) {
                KMATRIX a = g.matrix(ta), b = g.matrix(tb), r;
                std::memset(&r, 0x5A, sizeof r);
                K_Matrix_Multiply(&r, &a, &b);
                Ref want = mul(refOf(a), refOf(b));
                ASSERT_TRUE(sameMatrix(r, want, 16.0)) << ta << " x " << tb;
                if (!(ta == 0 && tb == 0)) {
                    ASSERT_EQ(r.nType, refType(refOf(r))) << ta << " x " << tb;
                }
                // Append / Prepend and aliasing of the result with an input.
                KMATRIX ap = a;
                K_Matrix_Append(&ap, &b);
                ASSERT_TRUE(sameMatrix(ap, want, 16.0));
                KMATRIX pp = b;
                K_Matrix_Prepend(&pp, &a);
                ASSERT_TRUE(sameMatrix(pp, want, 16.0));
                KMATRIX al = a;
                K_Matrix_Multiply(&al, &al, &b);
                ASSERT_TRUE(sameMatrix(al, want, 16.0));
                KMATRIX bl = b;
                K_Matrix_Multiply(&bl, &a, &bl);
                ASSERT_TRUE(sameMatrix(bl, want, 16.0));
            }
        }
    }
}

TEST(RuntimeGeometryMatrix, InverseMatchesReferenceAndUndoes) {
    Gen g(2);
    for (int iter = 0; iter < 2000; ++iter) {
        int t = iter % 5;
        KMATRIX m = g.matrix(t);
        Ref before = refOf(m);
        double det = before.m11 * before.m22 - before.m12 * before.m21;
        if (std::fabs(det) < 1e-6) continue;
        ASSERT_TRUE(close(K_Matrix_Determinant(&m), det, 16.0)) << t;
        ASSERT_EQ(K_Matrix_HasInverse(&m), 1);
        KMATRIX inv = m;
        ASSERT_EQ(K_Matrix_Invert(&inv), 1) << t;
        Ref want = inverse(before);
        ASSERT_TRUE(sameMatrix(inv, want, 1e3)) << "type " << t;
        KMATRIX prod;
        K_Matrix_Multiply(&prod, &m, &inv);
        ASSERT_TRUE(sameMatrix(prod, kId, 1e4)) << "type " << t;
        ASSERT_EQ(inv.nType == 0 ? 0 : inv.nType, t == 0 ? 0 : refType(refOf(inv)));
    }
}

TEST(RuntimeGeometryMatrix, SingularMatrixIsLeftAlone) {
    KMATRIX m, copy;
    K_Matrix_Set(&m, 1e-8, 0, 0, 1e-8, 3, 4);  // determinant 1e-16
    copy = m;
    EXPECT_EQ(K_Matrix_HasInverse(&m), 0);
    EXPECT_EQ(K_Matrix_Invert(&m), 0);
    EXPECT_EQ(std::memcmp(&m, &copy, sizeof m), 0);
    K_Matrix_Set(&m, 1, 2, 2, 4, 0, 0);  // general, determinant 0
    copy = m;
    EXPECT_EQ(K_Matrix_Invert(&m), 0);
    EXPECT_EQ(std::memcmp(&m, &copy, sizeof m), 0);
    K_Matrix_Set(&m, NAN, 0, 0, 1, 0, 0);
    EXPECT_EQ(K_Matrix_Invert(&m), 0);
    // Types 0 and 1 have determinant 1 whatever the values say.
    KMATRIX z;
    std::memset(&z, 0, sizeof z);
    EXPECT_EQ(K_Matrix_Invert(&z), 1);
    EXPECT_EQ(K_Matrix_IsIdentity(&z), 1);
}

TEST(RuntimeGeometryMatrix, TransformsMatchReference) {
    Gen g(3);
    std::uniform_real_distribution<double> d(-100, 100);
    for (int iter = 0; iter < 3000; ++iter) {
        int t = iter % 5;
        KMATRIX m = g.matrix(t);
        Ref r = refOf(m);
        POINTD pts[3];
        POINTD vec[3];
        double wx[3], wy[3], vx[3], vy[3];
        for (int i = 0; i < 3; ++i) {
            pts[i] = {d(g.rng), d(g.rng)};
            vec[i] = pts[i];
            wx[i] = pts[i].x;
            wy[i] = pts[i].y;
            applyPoint(r, wx[i], wy[i]);
            vx[i] = pts[i].x * r.m11 + pts[i].y * r.m21;
            vy[i] = pts[i].x * r.m12 + pts[i].y * r.m22;
        }
        POINTD one = pts[0], onev = vec[0];
        K_Matrix_TransformPoint(&m, &one);
        K_Matrix_TransformVector(&m, &onev);
        K_Matrix_TransformPoints(&m, pts, 3);
        K_Matrix_TransformVectors(&m, vec, 3);
        ASSERT_TRUE(close(one.x, wx[0], 100) && close(one.y, wy[0], 100)) << t;
        ASSERT_TRUE(close(onev.x, vx[0], 100) && close(onev.y, vy[0], 100)) << t;
        for (int i = 0; i < 3; ++i) {
            ASSERT_TRUE(close(pts[i].x, wx[i], 100) && close(pts[i].y, wy[i], 100)) << t;
            ASSERT_TRUE(close(vec[i].x, vx[i], 100) && close(vec[i].y, vy[i], 100)) << t;
        }
        // Rectangles: bounding box of the four transformed corners.
        double l = d(g.rng), tp = d(g.rng);
        RECTD rc{l, tp, l + 1 + std::fabs(d(g.rng)), tp + 1 + std::fabs(d(g.rng))};
        double cx[4] = {rc.left, rc.right, rc.left, rc.right}, cy[4] = {rc.top, rc.top, rc.bottom, rc.bottom};
        double minx = INFINITY, maxx = -INFINITY, miny = INFINITY, maxy = -INFINITY;
        for (int i = 0; i < 4; ++i) {
            applyPoint(r, cx[i], cy[i]);
            minx = std::min(minx, cx[i]);
            maxx = std::max(maxx, cx[i]);
            miny = std::min(miny, cy[i]);
            maxy = std::max(maxy, cy[i]);
        }
        RECTD rc2 = rc;
        K_Matrix_TransformRect(&m, &rc);
        K_RectD_Transform(&rc2, &m);
        ASSERT_TRUE(close(rc.left, minx, 100) && close(rc.right, maxx, 100) && close(rc.top, miny, 100) &&
                    close(rc.bottom, maxy, 100))
            << t;
        ASSERT_EQ(std::memcmp(&rc, &rc2, sizeof rc), 0);
    }
    KMATRIX m;
    K_Matrix_Set(&m, 2, 0, 0, 2, 1, 1);
    RECTD empty{5, 5, 5, 9};
    K_Matrix_TransformRect(&m, &empty);
    EXPECT_EQ(empty.left, 5);  // empty rectangles are left as they are
    EXPECT_EQ(empty.bottom, 9);
    POINTD p{1, 1};
    K_Matrix_TransformPoints(&m, &p, 0);
    EXPECT_EQ(p.x, 1);
}

// Builders against matrices the test assembles itself.
TEST(RuntimeGeometryMatrix, BuildersAppendAndPrepend) {
    Gen g(4);
    std::uniform_real_distribution<double> ang(-1000, 1000), d(-10, 10);
    const double pi = 3.14159265358979323846;
    for (int iter = 0; iter < 1000; ++iter) {
        KMATRIX base = g.matrix(iter % 5);
        Ref b = refOf(base);
        double a = ang(g.rng), cx = d(g.rng), cy = d(g.rng), sx = d(g.rng), sy = d(g.rng);
        double rad = std::fmod(std::fmod(a, 360.0) + 360.0, 360.0) * pi / 180.0;
        double c = std::cos(rad), s = std::sin(rad);
        Ref rot{c, s, -s, c, 0, 0};
        Ref rotAt{c, s, -s, c, cx * (1 - c) + cy * s, cy * (1 - c) - cx * s};
        Ref scl{sx, 0, 0, sy, 0, 0};
        Ref sclAt{sx, 0, 0, sy, cx - sx * cx, cy - sy * cy};
        double kx = std::fmod(a, 80.0), ky = std::fmod(a * 0.7, 80.0);
        Ref skw{1, std::tan(ky * pi / 180.0), std::tan(kx * pi / 180.0), 1, 0, 0};
        Ref trn{1, 0, 0, 1, cx, cy};

        struct Case {
            const char* name;
            void (*apply)(KMATRIX*, double, double, double, double, double, double, double);
            Ref step;
            bool prepend;
        };
        const Case cases[] = {
            {"Rotate", [](KMATRIX* m, double a, double, double, double, double, double, double) { K_Matrix_Rotate(m, a); }, rot, false},
            {"RotatePrepend", [](KMATRIX* m, double a, double, double, double, double, double, double) { K_Matrix_RotatePrepend(m, a); }, rot, true},
            {"RotateAt", [](KMATRIX* m, double a, double cx, double cy, double, double, double, double) { K_Matrix_RotateAt(m, a, cx, cy); }, rotAt, false},
            {"RotateAtPrepend", [](KMATRIX* m, double a, double cx, double cy, double, double, double, double) { K_Matrix_RotateAtPrepend(m, a, cx, cy); }, rotAt, true},
            {"Scale", [](KMATRIX* m, double, double, double, double sx, double sy, double, double) { K_Matrix_Scale(m, sx, sy); }, scl, false},
            {"ScalePrepend", [](KMATRIX* m, double, double, double, double sx, double sy, double, double) { K_Matrix_ScalePrepend(m, sx, sy); }, scl, true},
            {"ScaleAt", [](KMATRIX* m, double, double cx, double cy, double sx, double sy, double, double) { K_Matrix_ScaleAt(m, sx, sy, cx, cy); }, sclAt, false},
            {"ScaleAtPrepend", [](KMATRIX* m, double, double cx, double cy, double sx, double sy, double, double) { K_Matrix_ScaleAtPrepend(m, sx, sy, cx, cy); }, sclAt, true},
            {"Skew", [](KMATRIX* m, double, double, double, double, double, double kx, double ky) { K_Matrix_Skew(m, kx, ky); }, skw, false},
            {"SkewPrepend", [](KMATRIX* m, double, double, double, double, double, double kx, double ky) { K_Matrix_SkewPrepend(m, kx, ky); }, skw, true},
            {"Translate", [](KMATRIX* m, double, double cx, double cy, double, double, double, double) { K_Matrix_Translate(m, cx, cy); }, trn, false},
            {"TranslatePrepend", [](KMATRIX* m, double, double cx, double cy, double, double, double, double) { K_Matrix_TranslatePrepend(m, cx, cy); }, trn, true},
        };
        for (const Case& cs : cases) {
            KMATRIX m = base;
            cs.apply(&m, a, cx, cy, sx, sy, kx, ky);
            Ref want = cs.prepend ? mul(cs.step, b) : mul(b, cs.step);
            ASSERT_TRUE(sameMatrix(m, want, 1e3)) << cs.name << " on type " << base.nType;
            // The cached type must be one the values support: re-deriving
            // gives the same unless Translate kept the translation bit with
            // zero offsets (allowed: the short cut still adds 0).
            KMATRIX re = m;
            K_Matrix_DeriveType(&re);
            if (m.nType != re.nType) {
                ASSERT_EQ(m.nType, re.nType | 1) << cs.name;
                ASSERT_EQ(m.dOffsetX, 0.0);
                ASSERT_EQ(m.dOffsetY, 0.0);
            }
        }
    }
    // RotateAt keeps its centre fixed and turns (cx+1, cy) by the angle.
    KMATRIX m;
    K_Matrix_Identity(&m);
    K_Matrix_RotateAt(&m, 90, 10, 20);
    POINTD c{10, 20}, p{11, 20};
    K_Matrix_TransformPoint(&m, &c);
    K_Matrix_TransformPoint(&m, &p);
    EXPECT_NEAR(c.x, 10, 1e-12);
    EXPECT_NEAR(c.y, 20, 1e-12);
    EXPECT_NEAR(p.x, 10, 1e-12);
    EXPECT_NEAR(p.y, 21, 1e-12);
    // Translate on an identity gives a pure translation.
    std::memset(&m, 0, sizeof m);
    K_Matrix_Translate(&m, 3, -4);
    EXPECT_EQ(m.nType, 1);
    EXPECT_EQ(m.dM11, 1);
    EXPECT_EQ(m.dM22, 1);
    EXPECT_EQ(m.dOffsetY, -4);
}

TEST(RuntimeGeometryMatrix, AccessorsAndEquality) {
    KMATRIX m;
    std::memset(&m, 0, sizeof m);
    EXPECT_EQ(K_Matrix_GetM22(&m), 1.0);
    K_Matrix_SetM12(&m, 0.5);  // from the identity: only M12 changes
    EXPECT_EQ(m.nType, 4);
    EXPECT_EQ(K_Matrix_GetM11(&m), 1.0);
    EXPECT_EQ(K_Matrix_GetM12(&m), 0.5);
    K_Matrix_SetM12(&m, 0.0);
    EXPECT_EQ(m.nType, 0);
    K_Matrix_SetOffsetX(&m, 2);
    EXPECT_EQ(m.nType, 1);
    K_Matrix_SetM22(&m, 3);
    EXPECT_EQ(m.nType, 3);
    K_Matrix_SetOffsetX(&m, 0);
    EXPECT_EQ(m.nType, 2);
    K_Matrix_SetM21(&m, 1);
    K_Matrix_SetM11(&m, 7);
    K_Matrix_SetOffsetY(&m, 9);
    EXPECT_EQ(K_Matrix_GetM21(&m), 1.0);
    EXPECT_EQ(K_Matrix_GetM11(&m), 7.0);
    EXPECT_EQ(K_Matrix_GetOffsetY(&m), 9.0);
    EXPECT_EQ(K_Matrix_GetOffsetX(&m), 0.0);
    KMATRIX z, i;
    std::memset(&z, 0, sizeof z);
    K_Matrix_Identity(&i);
    EXPECT_EQ(K_Matrix_IsEqual(&z, &i), 1);  // both the identity
    EXPECT_EQ(K_Matrix_IsEqual(&z, &m), 0);
    EXPECT_EQ(K_Matrix_GetType(&m), 4);
    // Null records are tolerated.
    K_Matrix_Identity(nullptr);
    K_Matrix_Rotate(nullptr, 3);
    EXPECT_EQ(K_Matrix_Invert(nullptr), 0);
    EXPECT_EQ(K_Matrix_GetM11(nullptr), 0.0);
}

// ---------------------------------------------------------------- rectangles
// Oracle: a rectangle as the set of integer points it holds.
std::set<std::pair<int, int>> pixels(const RECT& r) {
    std::set<std::pair<int, int>> s;
    for (int y = r.top; y < r.bottom; ++y)
        for (int x = r.left; x < r.right; ++x) s.insert({x, y});
    return s;
}
RECT bbox(const std::set<std::pair<int, int>>& s) {
    if (s.empty()) return RECT{0, 0, 0, 0};
    RECT r{INT32_MAX, INT32_MAX, INT32_MIN, INT32_MIN};
    for (auto& p : s) {
        r.left = std::min(r.left, p.first);
        r.right = std::max(r.right, p.first + 1);
        r.top = std::min(r.top, p.second);
        r.bottom = std::max(r.bottom, p.second + 1);
    }
    return r;
}
bool sameRect(const RECT& a, const RECT& b) {
    return a.left == b.left && a.top == b.top && a.right == b.right && a.bottom == b.bottom;
}
RECTD toD(const RECT& r) { return RECTD{double(r.left), double(r.top), double(r.right), double(r.bottom)}; }

TEST(RuntimeGeometryRect, OperationsMatchThePixelSetOracleInBothForms) {
    std::mt19937 rng(5);
    std::uniform_int_distribution<int> c(-6, 6);
    for (int iter = 0; iter < 5000; ++iter) {
        RECT a{c(rng), c(rng), c(rng), c(rng)}, b{c(rng), c(rng), c(rng), c(rng)};
        auto pa = pixels(a), pb = pixels(b);
        ASSERT_EQ(K_Rect_IsEmpty(&a), pa.empty());
        RECTD da = toD(a), db = toD(b);
        ASSERT_EQ(K_RectD_IsEmpty(&da), pa.empty());

        std::set<std::pair<int, int>> inter, uni;
        for (auto& p : pa) {
            if (pb.count(p)) inter.insert(p);
            uni.insert(p);
        }
        uni.insert(pb.begin(), pb.end());

        RECT r;
        std::memset(&r, 0x77, sizeof r);
        ASSERT_EQ(K_Rect_Intersect(&r, &a, &b), !inter.empty());
        ASSERT_TRUE(sameRect(r, bbox(inter)));
        ASSERT_EQ(pixels(r), inter);  // the intersection of rectangles is a rectangle
        ASSERT_EQ(K_Rect_IntersectsWith(&a, &b), !inter.empty());
        RECTD dr;
        ASSERT_EQ(K_RectD_Intersect(&dr, &da, &db), !inter.empty());
        ASSERT_TRUE(sameRect(K_RectD_ToRect(&dr), bbox(inter)));
        ASSERT_EQ(K_RectD_IntersectsWith(&da, &db), !inter.empty());

        ASSERT_EQ(K_Rect_Union(&r, &a, &b), !uni.empty());
        ASSERT_TRUE(sameRect(r, bbox(uni)));
        ASSERT_EQ(K_RectD_Union(&dr, &da, &db), !uni.empty());
        ASSERT_TRUE(sameRect(K_RectD_ToRect(&dr), bbox(uni)));

        bool contains = !pb.empty() && !pa.empty();
        for (auto& p : pb) contains = contains && pa.count(p);
        ASSERT_EQ(K_Rect_ContainsRect(&a, &b), contains);
        ASSERT_EQ(K_RectD_ContainsRect(&da, &db), contains);

        POINT p{c(rng), c(rng)};
        POINTD pd{double(p.x), double(p.y)};
        ASSERT_EQ(K_Rect_ContainsPoint(&a, &p), pa.count({p.x, p.y}) == 1);
        ASSERT_EQ(K_RectD_ContainsPoint(&da, &pd), pa.count({p.x, p.y}) == 1);

        // Aliasing: result is an input.
        RECT al = a;
        K_Rect_Intersect(&al, &al, &b);
        ASSERT_TRUE(sameRect(al, bbox(inter)));
        al = b;
        K_Rect_Union(&al, &a, &al);
        ASSERT_TRUE(sameRect(al, bbox(uni)));

        int dx = c(rng), dy = c(rng);
        RECT o = a;
        K_Rect_Offset(&o, dx, dy);
        RECTD od = da;
        K_RectD_Offset(&od, dx, dy);
        ASSERT_TRUE(sameRect(o, RECT{a.left + dx, a.top + dy, a.right + dx, a.bottom + dy}));
        ASSERT_TRUE(sameRect(K_RectD_ToRect(&od), o) || K_Rect_IsEmpty(&o));
        RECT inf = a;
        K_Rect_Inflate(&inf, dx, dy);
        ASSERT_TRUE(sameRect(inf, RECT{a.left - dx, a.top - dy, a.right + dx, a.bottom + dy}));
        ASSERT_EQ(K_Rect_Width(&a), a.right - a.left);
        ASSERT_EQ(K_Rect_Height(&a), a.bottom - a.top);
        ASSERT_EQ(K_RectD_Width(&da), double(a.right - a.left));
    }
}

TEST(RuntimeGeometryRect, IntegerResultsSaturate) {
    RECT r = K_Rect_FromLTRB(INT32_MIN, -5, INT32_MAX, 5);
    EXPECT_EQ(K_Rect_Width(&r), INT32_MAX);
    K_Rect_Inflate(&r, 10, 10);
    EXPECT_EQ(r.left, INT32_MIN);
    EXPECT_EQ(r.right, INT32_MAX);
    EXPECT_EQ(r.top, -15);
    K_Rect_Offset(&r, INT32_MAX, 0);
    EXPECT_EQ(r.right, INT32_MAX);
    EXPECT_EQ(r.left, -1);
    RECT m = K_Rect_Make(INT32_MAX - 1, 0, 100, 100);
    EXPECT_EQ(m.right, INT32_MAX);
    POINT p = K_Point_Make(INT32_MIN + 1, 0);
    K_Point_Offset(&p, -5, 3);
    EXPECT_EQ(p.x, INT32_MIN);
    EXPECT_EQ(p.y, 3);
    RECTD big{-1e30, 0.5, 1e30, 2.5};
    RECT b = K_RectD_ToRect(&big);
    EXPECT_EQ(b.left, INT32_MIN);
    EXPECT_EQ(b.right, INT32_MAX);
    EXPECT_EQ(b.top, 0);     // floor of the near edge
    EXPECT_EQ(b.bottom, 3);  // ceiling of the far edge
}

TEST(RuntimeGeometryRect, RecordsAndConversions) {
    RECT r = K_Rect_Make(2, 3, 4, 5);
    EXPECT_TRUE(sameRect(r, RECT{2, 3, 6, 8}));
    POINT tl = K_Rect_TopLeft(&r), tr = K_Rect_TopRight(&r), bl = K_Rect_BottomLeft(&r),
          br = K_Rect_BottomRight(&r);
    EXPECT_EQ(tl.x, 2);
    EXPECT_EQ(tr.x, 6);
    EXPECT_EQ(bl.y, 8);
    EXPECT_EQ(br.x, 6);
    EXPECT_EQ(br.y, 8);
    SIZE s = K_Rect_Size(&r);
    EXPECT_EQ(s.cx, 4);
    EXPECT_EQ(s.cy, 5);
    RECT e = K_Rect_Empty();
    EXPECT_EQ(K_Rect_IsEmpty(&e), 1);
    RECTD d = K_Rect_ToRectD(&r);
    EXPECT_EQ(d.right, 6.0);
    RECT back = K_RectD_ToRect(&d);
    EXPECT_EQ(K_Rect_IsEqual(&back, &r), 1);
    RECTD nan{0, 0, NAN, 1};
    EXPECT_EQ(K_RectD_IsEmpty(&nan), 1);
    RECT fromNan = K_RectD_ToRect(&nan);
    EXPECT_EQ(K_Rect_IsEmpty(&fromNan), 1);
    RECTD md = K_RectD_Make(1, 2, 3, 4);
    EXPECT_EQ(md.right, 4.0);
    EXPECT_EQ(md.bottom, 6.0);
    K_RectD_Scale(&md, -2, 0.5);
    EXPECT_EQ(md.left, -8.0);  // a negative factor swaps the edges
    EXPECT_EQ(md.right, -2.0);
    EXPECT_EQ(md.top, 1.0);
    EXPECT_EQ(md.bottom, 3.0);
    SIZED sd = K_RectD_Size(&md);
    EXPECT_EQ(sd.cx, 6.0);
    POINTD pd = K_PointD_Make(-2.5, 2.5);
    POINT pi = K_PointD_ToPoint(&pd);
    EXPECT_EQ(pi.x, -3);
    EXPECT_EQ(pi.y, 3);
    POINT ip = K_Point_Make(4, -9);
    POINTD ipd = K_Point_ToPointD(&ip);
    EXPECT_EQ(ipd.y, -9.0);
    SIZED z = K_SizeD_Empty();
    EXPECT_EQ(K_SizeD_IsEmpty(&z), 1);
    SIZED sz = K_SizeD_Make(1.5, 2.5);
    EXPECT_EQ(K_SizeD_IsEmpty(&sz), 0);
    SIZE isz = K_SizeD_ToSize(&sz);
    EXPECT_EQ(isz.cx, 2);
    EXPECT_EQ(isz.cy, 3);
    SIZE s2 = K_Size_Make(2, 3);
    EXPECT_EQ(K_Size_IsEqual(&isz, &s2), 1);
    SIZED back2 = K_Size_ToSizeD(&s2);
    EXPECT_EQ(K_SizeD_IsEqual(&back2, &back2), 1);
    POINT pe = K_Point_Empty();
    EXPECT_EQ(K_Point_IsEmpty(&pe), 1);
    POINTD pde = K_PointD_Empty();
    EXPECT_EQ(K_PointD_IsEmpty(&pde), 1);
    K_PointD_Offset(&pde, 1, 0);
    EXPECT_EQ(K_PointD_IsEmpty(&pde), 0);
    EXPECT_EQ(K_PointD_IsEqual(&pde, &pde), 1);
    RECTD ed = K_RectD_Empty();
    EXPECT_EQ(K_RectD_IsEmpty(&ed), 1);
    RECTD infl = K_RectD_FromLTRB(0, 0, 1, 1);
    K_RectD_Inflate(&infl, 0.5, 1);
    EXPECT_EQ(infl.left, -0.5);
    EXPECT_EQ(infl.bottom, 2.0);
    EXPECT_EQ(K_RectD_IsEqual(&infl, &infl), 1);
}

TEST(RuntimeGeometryLength, Lengths) {
    EXPECT_EQ(K_LengthD_Vector(3, 4), 5.0);
    EXPECT_EQ(K_LengthD_Vector(3e300, 4e300), 5e300);  // no overflow inside
    POINTD a{1, 1}, b{4, 5};
    EXPECT_EQ(K_LengthD_Between(&a, &b), 5.0);
    KMATRIX m;
    K_Matrix_Set(&m, 2, 0, 0, 2, 100, 100);  // offsets do not change lengths
    EXPECT_EQ(K_LengthD_Transform(&m, 3, 4), 10.0);
    K_Matrix_Identity(&m);
    K_Matrix_Rotate(&m, 33);
    EXPECT_NEAR(K_LengthD_Transform(&m, 3, 4), 5.0, 1e-12);
}

}  // namespace
