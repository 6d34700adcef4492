// viewpersp.cpp - view-perspective arithmetic: the flip and turn between two
// of the eight orientations, and the conversion of rectangles and pixel
// positions between them. Pure arithmetic; moving pixels is the transforms'.
#include <cstdint>
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

// The arithmetic is done in 64 bits: every term is a difference of two 32-bit
// values (at most 2^33 in magnitude). A result outside the 32-bit range is
// refused (false) and nothing is written.
bool fits32(int64_t v) noexcept { return v >= INT32_MIN && v <= INT32_MAX; }

bool changeRect(int32_t from, int32_t w, int32_t h, int32_t to, RECT* r) noexcept {
    int32_t f, a;
    changeParams(from, to, &f, &a);
    const int64_t W = w, H = h;
    int64_t left = r->left, top = r->top, right = r->right, bottom = r->bottom;
    if (f) {
        const int64_t t = H - bottom, b = H - top;
        top = t;
        bottom = b;
    }
    int64_t d[4] = {left, top, right, bottom};
    switch (a) {
        case 90: d[0] = H - bottom; d[1] = left; d[2] = H - top; d[3] = right; break;
        case 180: d[0] = W - right; d[1] = H - bottom; d[2] = W - left; d[3] = H - top; break;
        case 270: d[0] = top; d[1] = W - right; d[2] = bottom; d[3] = W - left; break;
        default: break;
    }
    for (int64_t v : d)
        if (!fits32(v)) return false;
    *r = RECT{int32_t(d[0]), int32_t(d[1]), int32_t(d[2]), int32_t(d[3])};
    return true;
}

bool changePoint(int32_t from, int32_t w, int32_t h, int32_t to, int32_t* x, int32_t* y) noexcept {
    int32_t f, a;
    changeParams(from, to, &f, &a);
    const int64_t W = w, H = h;
    int64_t px = *x, py = *y;
    if (f) py = H - py - 1;
    int64_t qx = px, qy = py;
    switch (a) {
        case 90: qx = H - py - 1; qy = px; break;
        case 180: qx = W - px - 1; qy = H - py - 1; break;
        case 270: qx = py; qy = W - px - 1; break;
        default: break;
    }
    if (!fits32(qx) || !fits32(qy)) return false;
    *x = int32_t(qx);
    *y = int32_t(qy);
    return true;
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
    if (!changeRect(nFrom, nWidth, nHeight, nTo, pRect)) return KS_INVALID_PARAMETER;
    return KS_SUCCESS;
}

KAPI int32_t K_ChangePointViewPerspective(int32_t nFrom, int32_t nWidth, int32_t nHeight, int32_t nTo,
                                          int32_t* pnX, int32_t* pnY) {
    if (!pnX || !pnY || !vpValid(nFrom) || !vpValid(nTo)) return KS_INVALID_PARAMETER;
    if (!changePoint(nFrom, nWidth, nHeight, nTo, pnX, pnY)) return KS_INVALID_PARAMETER;
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
    if (!changeRect(nViewPerspective, w, h, pBitmap->nViewPerspective, pRect)) return KS_INVALID_PARAMETER;
    return KS_SUCCESS;
}

KAPI int32_t K_RectFromBitmap(const BITMAPRECORD* pBitmap, int32_t nViewPerspective, RECT* pRect) {
    if (!pBitmap) return KS_INVALID_PARAMETER;
    if (!recordSizeValid(pBitmap->uStructSize)) return KS_INVALID_STRUCT_SIZE;
    if (nViewPerspective == pBitmap->nViewPerspective) return KS_SUCCESS;
    if (!pRect || !vpValid(nViewPerspective) || !vpValid(pBitmap->nViewPerspective)) return KS_INVALID_PARAMETER;
    if (!changeRect(pBitmap->nViewPerspective, pBitmap->nWidth, pBitmap->nHeight, nViewPerspective, pRect))
        return KS_INVALID_PARAMETER;
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
    if (!changePoint(nViewPerspective, w, h, pBitmap->nViewPerspective, pnX, pnY)) return KS_INVALID_PARAMETER;
    return KS_SUCCESS;
}

KAPI int32_t K_PointFromBitmap(const BITMAPRECORD* pBitmap, int32_t nViewPerspective, int32_t* pnX,
                               int32_t* pnY) {
    if (!pBitmap) return KS_INVALID_PARAMETER;
    if (!recordSizeValid(pBitmap->uStructSize)) return KS_INVALID_STRUCT_SIZE;
    if (nViewPerspective == pBitmap->nViewPerspective) return KS_SUCCESS;
    if (!pnX || !pnY || !vpValid(nViewPerspective) || !vpValid(pBitmap->nViewPerspective))
        return KS_INVALID_PARAMETER;
    if (!changePoint(pBitmap->nViewPerspective, pBitmap->nWidth, pBitmap->nHeight, nViewPerspective, pnX, pnY))
        return KS_INVALID_PARAMETER;
    return KS_SUCCESS;
}
