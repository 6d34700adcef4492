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

    double d = r.get<double>();
    double n = K_Double_NormalizeAngle(d);
    if (std::isfinite(d)) FUZZ_CHECK(n >= 0.0 && n <= 360.0);
    int32_t i = K_Double_DoubleToInt(d);
    if (std::isfinite(d) && std::fabs(d) < 1e9) FUZZ_CHECK(std::fabs(double(i) - d) <= 0.5 + 1e-9);
    (void)K_Double_IsBetweenZeroAndOne(d);
    (void)K_Double_AreClose(d, r.get<double>());

    KMATRIX m, m2, prod;
    r.get<uint8_t>();  // reserved for future switches
    for (double* v : {&m.dM11, &m.dM12, &m.dM21, &m.dM22, &m.dOffsetX, &m.dOffsetY}) *v = r.get<double>();
    m.nType = r.get<int32_t>();
    m.uReserved = 0;
    m2 = m;
    K_Matrix_Multiply(&prod, &m, &m2);
    FUZZ_CHECK(prod.nType >= 0 && prod.nType <= 4 && prod.uReserved == 0);
    KMATRIX inv = m;
    if (K_Matrix_Invert(&inv) == 0) FUZZ_CHECK(std::memcmp(&inv, &m, sizeof m) == 0);
    K_Matrix_Rotate(&m2, r.get<double>());
    K_Matrix_SkewPrepend(&m2, r.get<double>(), r.get<double>());
    K_Matrix_ScaleAt(&m2, r.get<double>(), r.get<double>(), r.get<double>(), r.get<double>());
    K_Matrix_Translate(&m2, r.get<double>(), r.get<double>());
    POINTD p{r.get<double>(), r.get<double>()};
    K_Matrix_TransformPoint(&m2, &p);
    RECTD rd{r.get<double>(), r.get<double>(), r.get<double>(), r.get<double>()};
    RECTD rd2 = rd;
    K_RectD_Transform(&rd2, &m2);
    RECT ri = K_RectD_ToRect(&rd2);
    (void)K_Rect_Width(&ri);
    RECT a{r.get<int32_t>(), r.get<int32_t>(), r.get<int32_t>(), r.get<int32_t>()};
    RECT b{r.get<int32_t>(), r.get<int32_t>(), r.get<int32_t>(), r.get<int32_t>()};
    RECT x, u;
    if (K_Rect_Intersect(&x, &a, &b)) FUZZ_CHECK(K_Rect_ContainsRect(&a, &x) && K_Rect_ContainsRect(&b, &x));
    if (K_Rect_Union(&u, &a, &b)) {
        if (!K_Rect_IsEmpty(&a)) FUZZ_CHECK(K_Rect_ContainsRect(&u, &a));
        if (!K_Rect_IsEmpty(&b)) FUZZ_CHECK(K_Rect_ContainsRect(&u, &b));
    }
    int32_t dx = r.get<int32_t>(), dy = r.get<int32_t>();
    K_Rect_Inflate(&a, dx, dy);
    K_Rect_Offset(&b, dx, dy);
    (void)K_Rect_Width(&a);
    (void)K_Rect_Height(&b);
    (void)K_Rect_Make(dx, dy, r.get<int32_t>(), r.get<int32_t>());
    RECTD ra = K_Rect_ToRectD(&a), rb{r.get<double>(), r.get<double>(), r.get<double>(), r.get<double>()}, rx;
    if (K_RectD_Intersect(&rx, &ra, &rb)) FUZZ_CHECK(!K_RectD_IsEmpty(&rx));
    K_RectD_Scale(&rb, r.get<double>(), r.get<double>());
    POINTD pd{r.get<double>(), r.get<double>()};
    POINT pi = K_PointD_ToPoint(&pd);
    K_Point_Offset(&pi, dx, dy);
    SIZED sd{r.get<double>(), r.get<double>()};
    (void)K_SizeD_ToSize(&sd);
    (void)K_LengthD_Transform(&m2, pd.x, pd.y);
    return 0;
}
