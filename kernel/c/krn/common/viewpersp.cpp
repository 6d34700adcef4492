// viewpersp.cpp - view-perspective arithmetic: the flip and turn between two
// of the eight orientations, and the conversion of rectangles and pixel
// positions between them. Pure arithmetic; moving pixels is the transforms'.
#include <utility>

#include "kernel.h"

namespace {

bool vpValid(int32_t v) noexcept { return v >= 1 && v <= 8; }
bool vpRotated(int32_t v) noexcept { return v >= 5 && v <= 8; }

void changeParams(int32_t from, int32_t to, int32_t* flip, int32_t* angle) noexcept {
    static const int32_t kFlip[9] = {0, 0, 0, 0, 1, 1, 0, 1, 0};
    static const int32_t kAngle[9] = {0, 0, 0, 180, 0, 90, 90, 270, 270};
    int32_t f = kFlip[from], a = kAngle[from];
    bool keep = false;
    switch (to) {
        case 1: keep = true; break;
        case 2: a -= 180; break;
        case 3: a -= 180; keep = true; break;
        case 4: break;
        case 5: a -= 90; break;
        case 6: a -= 90; keep = true; break;
        case 7: a -= 270; break;
        case 8: a -= 270; keep = true; break;
        default: break;
    }
    if (!keep) {
        f = !f;
        a = -a;
    }
    if (from == 2) {
        if (f) {
            f = 0;
            a += 180;
        } else {
            f = 1;
            a -= 180;
        }
    }
    while (a < 0) a += 360;
    while (a >= 360) a -= 360;
    *flip = f;
    *angle = a;
}

void changeRect(int32_t from, int32_t w, int32_t h, int32_t to, RECT* r) noexcept {
    int32_t f, a;
    changeParams(from, to, &f, &a);
    RECT s = *r;
    if (f) {
        int32_t t = h - s.bottom, b = h - s.top;
        s.top = t;
        s.bottom = b;
    }
    RECT d = s;
    switch (a) {
        case 90: d = RECT{h - s.bottom, s.left, h - s.top, s.right}; break;
        case 180: d = RECT{w - s.right, h - s.bottom, w - s.left, h - s.top}; break;
        case 270: d = RECT{s.top, w - s.right, s.bottom, w - s.left}; break;
        default: break;
    }
    *r = d;
}

void changePoint(int32_t from, int32_t w, int32_t h, int32_t to, int32_t* x, int32_t* y) noexcept {
    int32_t f, a;
    changeParams(from, to, &f, &a);
    int32_t px = *x, py = *y;
    if (f) py = h - py - 1;
    int32_t qx = px, qy = py;
    switch (a) {
        case 90: qx = h - py - 1; qy = px; break;
        case 180: qx = w - px - 1; qy = h - py - 1; break;
        case 270: qx = py; qy = w - px - 1; break;
        default: break;
    }
    *x = qx;
    *y = qy;
}

// Top-left-view width and height of a bitmap.
void viewedDims(const BITMAPRECORD* bm, int32_t* w, int32_t* h) noexcept {
    *w = bm->nWidth;
    *h = bm->nHeight;
    if (vpRotated(bm->nViewPerspective)) std::swap(*w, *h);
}

}  // namespace

using namespace krn;

KAPI int32_t K_GetChangeViewPerspectiveParams(int32_t nFrom, int32_t nTo, int32_t* pbFlip, int32_t* pnAngle) {
    if (!pbFlip || !pnAngle || !vpValid(nFrom) || !vpValid(nTo)) return KS_INVALID_PARAMETER;
    changeParams(nFrom, nTo, pbFlip, pnAngle);
    return KS_SUCCESS;
}

KAPI int32_t K_ChangeRectViewPerspective(int32_t nFrom, int32_t nWidth, int32_t nHeight, int32_t nTo,
                                         RECT* pRect) {
    if (!pRect || !vpValid(nFrom) || !vpValid(nTo)) return KS_INVALID_PARAMETER;
    changeRect(nFrom, nWidth, nHeight, nTo, pRect);
    return KS_SUCCESS;
}

KAPI int32_t K_ChangePointViewPerspective(int32_t nFrom, int32_t nWidth, int32_t nHeight, int32_t nTo,
                                          int32_t* pnX, int32_t* pnY) {
    if (!pnX || !pnY || !vpValid(nFrom) || !vpValid(nTo)) return KS_INVALID_PARAMETER;
    changePoint(nFrom, nWidth, nHeight, nTo, pnX, pnY);
    return KS_SUCCESS;
}

// The dimensions handed to the record-based conversions follow the kernel's
// established convention: the top-left-view size, exchanged once more only
// when converting from perspective 6 or 8 into the bitmap.
KAPI int32_t K_RectToBitmap(const BITMAPRECORD* pBitmap, int32_t nViewPerspective, RECT* pRect) {
    if (!pBitmap) return KS_INVALID_PARAMETER;
    if (!recordSizeValid(pBitmap->uStructSize)) return KS_INVALID_STRUCT_SIZE;
    if (nViewPerspective == pBitmap->nViewPerspective) return KS_SUCCESS;
    if (!pRect || !vpValid(nViewPerspective) || !vpValid(pBitmap->nViewPerspective)) return KS_INVALID_PARAMETER;
    int32_t w, h;
    viewedDims(pBitmap, &w, &h);
    if (nViewPerspective == 6 || nViewPerspective == 8) std::swap(w, h);
    changeRect(nViewPerspective, w, h, pBitmap->nViewPerspective, pRect);
    return KS_SUCCESS;
}

KAPI int32_t K_RectFromBitmap(const BITMAPRECORD* pBitmap, int32_t nViewPerspective, RECT* pRect) {
    if (!pBitmap) return KS_INVALID_PARAMETER;
    if (!recordSizeValid(pBitmap->uStructSize)) return KS_INVALID_STRUCT_SIZE;
    if (nViewPerspective == pBitmap->nViewPerspective) return KS_SUCCESS;
    if (!pRect || !vpValid(nViewPerspective) || !vpValid(pBitmap->nViewPerspective)) return KS_INVALID_PARAMETER;
    changeRect(pBitmap->nViewPerspective, pBitmap->nWidth, pBitmap->nHeight, nViewPerspective, pRect);
    return KS_SUCCESS;
}

KAPI int32_t K_PointToBitmap(const BITMAPRECORD* pBitmap, int32_t nViewPerspective, int32_t* pnX, int32_t* pnY) {
    if (!pBitmap || !pnX || !pnY) return KS_INVALID_PARAMETER;
    if (!recordSizeValid(pBitmap->uStructSize)) return KS_INVALID_STRUCT_SIZE;
    if (nViewPerspective == pBitmap->nViewPerspective) return KS_SUCCESS;
    if (!vpValid(nViewPerspective) || !vpValid(pBitmap->nViewPerspective)) return KS_INVALID_PARAMETER;
    int32_t w, h;
    viewedDims(pBitmap, &w, &h);
    if (nViewPerspective == 6 || nViewPerspective == 8) std::swap(w, h);
    changePoint(nViewPerspective, w, h, pBitmap->nViewPerspective, pnX, pnY);
    return KS_SUCCESS;
}

KAPI int32_t K_PointFromBitmap(const BITMAPRECORD* pBitmap, int32_t nViewPerspective, int32_t* pnX,
                               int32_t* pnY) {
    if (!pBitmap) return KS_INVALID_PARAMETER;
    if (!recordSizeValid(pBitmap->uStructSize)) return KS_INVALID_STRUCT_SIZE;
    if (nViewPerspective == pBitmap->nViewPerspective) return KS_SUCCESS;
    if (!pnX || !pnY || !vpValid(nViewPerspective) || !vpValid(pBitmap->nViewPerspective))
        return KS_INVALID_PARAMETER;
    changePoint(pBitmap->nViewPerspective, pBitmap->nWidth, pBitmap->nHeight, nViewPerspective, pnX, pnY);
    return KS_SUCCESS;
}
