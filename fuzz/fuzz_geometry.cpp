// fuzz_geometry.cpp - the geometry helpers and the fixed-point sine on arbitrary bit patterns (NaN,
// infinities, extremes, garbage matrix types). Nothing may trap (UBSan watches the double-to-int
// conversions and integer overflow) and a few invariants hold on every input.
#include <cmath>
#include <initializer_list>

#include "fuzz_input.h"
#include "ombrix.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    fuzzinput::Input r{data, size};
    const int32_t angle = r.get<int32_t>(), s = K_SinValue(angle), c = K_CosValue(angle);
    FUZZ_CHECK(s >= -16384 && s <= 16384 && c >= -16384 && c <= 16384);

    const double d = r.get<double>(), n = K_Double_NormalizeAngle(d);
    if (std::isfinite(d)) FUZZ_CHECK(n >= 0.0 && n <= 360.0);
    const int32_t i = K_Double_DoubleToInt(d);
    if (std::isfinite(d) && std::fabs(d) < 1e9) FUZZ_CHECK(std::fabs(double(i) - d) <= 0.5 + 1e-9);
    (void)K_Double_IsBetweenZeroAndOne(d), K_Double_AreClose(d, r.get<double>());

    KMATRIX m, m2, prod;
    r.get<uint8_t>();  // reserved for future switches
    for (double* v : {&m.dM11, &m.dM12, &m.dM21, &m.dM22, &m.dOffsetX, &m.dOffsetY}) *v = r.get<double>();
    m.nType = r.get<int32_t>(), m.uReserved = 0, m2 = m;
    K_Matrix_Multiply(&prod, &m, &m2), FUZZ_CHECK(prod.nType >= 0 && prod.nType <= 4 && prod.uReserved == 0);
    if (KMATRIX inv = m; K_Matrix_Invert(&inv) == 0) FUZZ_CHECK(std::memcmp(&inv, &m, sizeof m) == 0);
    K_Matrix_Rotate(&m2, r.get<double>()), K_Matrix_SkewPrepend(&m2, r.get<double>(), r.get<double>());
    K_Matrix_ScaleAt(&m2, r.get<double>(), r.get<double>(), r.get<double>(), r.get<double>());
    K_Matrix_Translate(&m2, r.get<double>(), r.get<double>());
    POINTD p{r.get<double>(), r.get<double>()};
    K_Matrix_TransformPoint(&m2, &p);
    RECTD rd{r.get<double>(), r.get<double>(), r.get<double>(), r.get<double>()}, rd2 = rd, rt = rd;
    K_RectD_Transform(&rd2, &m2);
    const RECT ri = K_RectD_ToRect(&rd2);
    RECT a{r.get<int32_t>(), r.get<int32_t>(), r.get<int32_t>(), r.get<int32_t>()};
    RECT b{r.get<int32_t>(), r.get<int32_t>(), r.get<int32_t>(), r.get<int32_t>()}, x, u;
    if (K_Rect_Intersect(&x, &a, &b)) FUZZ_CHECK(K_Rect_ContainsRect(&a, &x) && K_Rect_ContainsRect(&b, &x));
    if (K_Rect_Union(&u, &a, &b))
        FUZZ_CHECK((K_Rect_IsEmpty(&a) || K_Rect_ContainsRect(&u, &a)) &&
                   (K_Rect_IsEmpty(&b) || K_Rect_ContainsRect(&u, &b)));
    int32_t dx = r.get<int32_t>(), dy = r.get<int32_t>();
    K_Rect_Inflate(&a, dx, dy), K_Rect_Offset(&b, dx, dy);
    (void)K_Rect_Width(&ri), K_Rect_Width(&a), K_Rect_Height(&b);
    (void)K_Rect_Make(dx, dy, r.get<int32_t>(), r.get<int32_t>());
    RECTD ra = K_Rect_ToRectD(&a), rb{r.get<double>(), r.get<double>(), r.get<double>(), r.get<double>()}, rx;
    if (K_RectD_Intersect(&rx, &ra, &rb)) FUZZ_CHECK(!K_RectD_IsEmpty(&rx));
    K_RectD_Scale(&rb, r.get<double>(), r.get<double>());
    POINTD pd{r.get<double>(), r.get<double>()};
    POINT pi = K_PointD_ToPoint(&pd);
    K_Point_Offset(&pi, dx, dy);
    SIZED sd{r.get<double>(), r.get<double>()};
    (void)K_SizeD_ToSize(&sd), K_LengthD_Transform(&m2, pd.x, pd.y);

    // The remaining value helpers: nothing may trap, and the exact comparisons hold on their own results.
    const double e = r.get<double>(), f = r.get<double>();
    for (auto cmp : {K_Double_GreaterThan, K_Double_GreaterThanOrClose, K_Double_LessThan, K_Double_LessThanOrClose})
        (void)cmp(e, f);
    for (auto is : {K_Double_IsInfinity, K_Double_IsNaN, K_Double_IsOne, K_Double_IsZero}) (void)is(e);
    FUZZ_CHECK(!K_Double_GreaterThan(e, f) || !K_Double_LessThanOrClose(e, f));
    (void)K_Double_AreClosePoints(&p, &pd), K_Double_AreCloseRects(&rd, &rb), K_Double_AreCloseSizes(&sd, &sd);
    (void)K_Double_RectHasNaN(&rd), K_LengthD_Between(&p, &pd), K_LengthD_Vector(e, f);
    KMATRIX w = m2, z;
    K_Matrix_Append(&w, &m), K_Matrix_Prepend(&w, &m2), K_Matrix_RotatePrepend(&w, e);
    K_Matrix_RotateAt(&w, e, f, e), K_Matrix_RotateAtPrepend(&w, f, e, f), K_Matrix_ScaleAtPrepend(&w, e, f, f, e);
    for (auto op : {K_Matrix_Scale, K_Matrix_ScalePrepend, K_Matrix_Skew, K_Matrix_TranslatePrepend}) op(&w, e, f);
    (void)K_Matrix_Determinant(&w), K_Matrix_HasInverse(&w), K_Matrix_IsIdentity(&w), K_Matrix_GetType(&w);
    POINTD pts[3] = {p, pd, {e, f}};
    K_Matrix_TransformPoints(&w, pts, 3), K_Matrix_TransformVectors(&w, pts, 3), K_Matrix_TransformVector(&w, &pts[0]);
    K_Matrix_TransformRect(&w, &rt), K_Matrix_Set(&z, w.dM11, w.dM12, w.dM21, w.dM22, w.dOffsetX, w.dOffsetY);
    K_Matrix_SetM11(&z, K_Matrix_GetM11(&w)), K_Matrix_SetM12(&z, K_Matrix_GetM12(&w));
    K_Matrix_SetM21(&z, K_Matrix_GetM21(&w)), K_Matrix_SetM22(&z, K_Matrix_GetM22(&w));
    K_Matrix_SetOffsetX(&z, K_Matrix_GetOffsetX(&w)), K_Matrix_SetOffsetY(&z, K_Matrix_GetOffsetY(&w));
    K_Matrix_DeriveType(&z), (void)K_Matrix_IsEqual(&z, &w), K_Matrix_Identity(&z), FUZZ_CHECK(K_Matrix_IsIdentity(&z));
    POINTD q = K_PointD_Make(e, f), q0 = K_PointD_Empty();
    K_PointD_Offset(&q, f, e);
    FUZZ_CHECK(K_PointD_IsEmpty(&q0) && (std::isnan(q.x) || std::isnan(q.y) || K_PointD_IsEqual(&q, &q)));
    POINT pt = K_Point_Make(dx, dy), pt0 = K_Point_Empty();
    FUZZ_CHECK(K_Point_IsEmpty(&pt0) && K_Point_IsEqual(&pt, &pt)), (void)K_Point_ToPointD(&pt);
    RECTD rm = K_RectD_Make(e, f, f, e), rl = K_RectD_FromLTRB(e, f, e, f), r0 = K_RectD_Empty(), ru;
    for (POINTD k : {K_RectD_TopLeft(&rm), K_RectD_TopRight(&rm), K_RectD_BottomLeft(&rm), K_RectD_BottomRight(&rm)})
        (void)K_RectD_ContainsPoint(&rm, &k);
    (void)K_RectD_ContainsRect(&rm, &rl), K_RectD_IntersectsWith(&rm, &rb), K_RectD_IsEqual(&rm, &r0);
    (void)K_RectD_Width(&rm), K_RectD_Height(&rm), K_RectD_Size(&rm);
    K_RectD_Inflate(&rl, e, f), K_RectD_Offset(&rl, f, e), (void)K_RectD_Union(&ru, &rm, &rl);
    RECT rf = K_Rect_FromLTRB(dx, dy, r.get<int32_t>(), r.get<int32_t>()), re = K_Rect_Empty();
    FUZZ_CHECK(K_Rect_IsEqual(&rf, &rf) && K_Rect_IsEmpty(&re));
    (void)K_Rect_TopLeft(&rf), K_Rect_TopRight(&rf), K_Rect_BottomLeft(&rf);
    SIZED sm = K_SizeD_Make(e, f), s0 = K_SizeD_Empty();
    SIZE si = K_Size_Make(dx, dy), si0 = K_Size_Empty();
    FUZZ_CHECK(K_SizeD_IsEmpty(&s0) && K_Size_IsEmpty(&si0) && K_Size_IsEqual(&si, &si));
    (void)K_SizeD_IsEqual(&sm, &sd), K_Size_IsEmpty(&si), K_Size_ToSizeD(&si);
    return 0;
}
