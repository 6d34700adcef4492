// windowsregion.cpp - the kernel's own Win32 region and rectangle functions.
//
// Region handles are emulated objects of kind 4 whose payload is an OrvaRgn.
// Every handle function refuses null, all-ones, stale and foreign handles
// with errno 22 and a 0 result. CombineRgn and SetRectRgn build the new
// region off to the side and swap it in, so a handle keeps its identity and,
// on failure, its old region.
#include <cerrno>
#include <cmath>
#include <cstring>

#include "dis/common/region.h"
#include "krn/common/kernel.h"
#include "krn/common/memory.h"
#include "objects.h"

using namespace krn;

namespace {

// Swaps a freshly built region into a handle; the old one is freed.
bool replacePayload(HRGN h, OrvaRgn* fresh) noexcept {
    OrvaRgn* old = nullptr;
    bool ok = objWith(h, kObjRegion, [&](OmbrixObject_* o) {
        old = static_cast<OrvaRgn*>(o->pPayload);
        o->pPayload = fresh;
    });
    if (!ok) {
        errno = EINVAL;
        rgn::destroy(fresh);
        return false;
    }
    rgn::destroy(old);
    return true;
}

HRGN newHandle(int32_t st, OrvaRgn* r) noexcept {
    if (st != KS_SUCCESS) return nullptr;
    return rgn::makeHandle(r);
}

bool axisAligned(const XFORM& x) noexcept {
    return (x.eM12 == 0.0f && x.eM21 == 0.0f) || (x.eM11 == 0.0f && x.eM22 == 0.0f);
}

int32_t roundCoord(double v, bool* ok) noexcept {
    double r = std::floor(v + 0.5);
    if (!(r >= double(INT32_MIN) && r <= double(INT32_MAX))) {
        *ok = false;
        return 0;
    }
    return int32_t(r);
}

}  // namespace

// ---------------------------------------------------------------- creation
KAPI HRGN CreateRectRgn(int32_t nLeft, int32_t nTop, int32_t nRight, int32_t nBottom) {
    if (nLeft > nRight) std::swap(nLeft, nRight);
    if (nTop > nBottom) std::swap(nTop, nBottom);
    OrvaRgn* r = nullptr;
    int32_t st = rgn::fromRect(RECT{nLeft, nTop, nRight, nBottom}, &r);
    return newHandle(st, r);
}

KAPI HRGN CreateEllipticRgn(int32_t nLeft, int32_t nTop, int32_t nRight, int32_t nBottom) {
    OrvaRgn* r = nullptr;
    int32_t st = rgn::ellipse(RECT{nLeft, nTop, nRight, nBottom}, &r);
    return newHandle(st, r);
}

KAPI HRGN CreatePolygonRgn(const POINT* pPoints, int32_t nCount, int32_t nFillMode) {
    if ((!pPoints && nCount > 0) || nCount < 0) return nullptr;
    OrvaRgn* r = nullptr;
    int32_t st = rgn::polygon(pPoints, nullptr, size_t(nCount), nFillMode == WINDING, &r);
    return newHandle(st, r);
}

namespace krn::rgn {
int32_t fromRegionData(const XFORM* pXform, uint32_t nBytes, const RGNDATA* pData, OrvaRgn** out) noexcept {
    if (!pData || nBytes < 33) return KS_INVALID_PARAMETER;
    RGNDATAHEADER h;
    std::memcpy(&h, pData, sizeof h);
    if (uint64_t(nBytes) < 16ull * (uint64_t(h.nCount) + 2ull)) return KS_INVALID_PARAMETER;
    if (h.dwSize != 32 || h.iType != RDH_RECTANGLES) return KS_INVALID_PARAMETER;
    const char* rectBytes = reinterpret_cast<const char*>(pData) + 32;
    return guarded([&]() -> int32_t {
        kvector<RECT> rects(h.nCount);
        if (h.nCount) std::memcpy(rects.data(), rectBytes, size_t(h.nCount) * sizeof(RECT));
        if (!pXform) return fromRects(rects.data(), rects.size(), out);
        const XFORM& x = *pXform;
        auto tx = [&](double px, double py) { return double(x.eM11) * px + double(x.eM21) * py + double(x.eDx); };
        auto ty = [&](double px, double py) { return double(x.eM12) * px + double(x.eM22) * py + double(x.eDy); };
        if (axisAligned(x)) {
            // Rectangles stay rectangles: transform two corners and round.
            bool ok = true;
            for (RECT& rc : rects) {
                if (rc.left >= rc.right || rc.top >= rc.bottom) {
                    rc = RECT{0, 0, 0, 0};
                    continue;
                }
                double ax = tx(rc.left, rc.top), ay = ty(rc.left, rc.top);
                double bx = tx(rc.right, rc.bottom), by = ty(rc.right, rc.bottom);
                RECT t{roundCoord(std::fmin(ax, bx), &ok), roundCoord(std::fmin(ay, by), &ok),
                       roundCoord(std::fmax(ax, bx), &ok), roundCoord(std::fmax(ay, by), &ok)};
                rc = t;
            }
            if (!ok) return KS_INVALID_PARAMETER;
            return fromRects(rects.data(), rects.size(), out);
        }
        // Rotation or shear: every rectangle becomes a parallelogram; their
        // union is the non-zero winding fill of all of them (they share one
        // orientation).
        kvector<PointD> pts;
        kvector<size_t> starts;
        for (const RECT& rc : rects) {
            if (rc.left >= rc.right || rc.top >= rc.bottom) continue;
            starts.push_back(pts.size());
            const double cx[4] = {double(rc.left), double(rc.right), double(rc.right), double(rc.left)};
            const double cy[4] = {double(rc.top), double(rc.top), double(rc.bottom), double(rc.bottom)};
            for (int k = 0; k < 4; ++k) pts.push_back(PointD{tx(cx[k], cy[k]), ty(cx[k], cy[k])});
        }
        return polygonD(pts.data(), starts.data(), starts.size(), pts.size(), true, out);
    });
}
}  // namespace krn::rgn

KAPI HRGN ExtCreateRegion(const XFORM* pXform, uint32_t nBytes, const RGNDATA* pData) {
    OrvaRgn* r = nullptr;
    int32_t st = rgn::fromRegionData(pXform, nBytes, pData, &r);
    return newHandle(st, r);
}

// ---------------------------------------------------------------- operations
KAPI int32_t CombineRgn(HRGN hDst, HRGN hSrc1, HRGN hSrc2, int32_t nMode) {
    // Hold the table lock so that the sources stay alive while we read them.
    int32_t result = 0;
    objTableLock();
    OrvaRgn* d = rgn::handleRegion(hDst);
    OrvaRgn* a = rgn::handleRegion(hSrc1);
    OrvaRgn* b = rgn::handleRegion(hSrc2);
    if (d && a && b && nMode >= RGN_AND && nMode <= RGN_COPY) {
        OrvaRgn* res = nullptr;
        if (rgn::combine(a, b, nMode, &res, d) == KS_SUCCESS) {
            // Placement words belong to the destination.
            std::memcpy(res->nPlacement, d->nPlacement, sizeof res->nPlacement);
            result = rgn::kind(res);
            replacePayload(hDst, res);
        }
    }
    objTableUnlock();
    return result;
}

KAPI int32_t OffsetRgn(HRGN hRgn, int32_t dx, int32_t dy) {
    int32_t st = 0;
    objTableLock();
    OrvaRgn* r = rgn::handleRegion(hRgn);
    if (r) st = rgn::offset(r, dx, dy);
    objTableUnlock();
    return st == KS_SUCCESS ? 1 : 0;
}

KAPI int32_t GetRgnBox(HRGN hRgn, RECT* pRect) {
    int32_t k = 0;
    objTableLock();
    OrvaRgn* r = rgn::handleRegion(hRgn);
    if (r && pRect) {
        *pRect = r->rcBounds;
        k = rgn::kind(r);
    }
    objTableUnlock();
    return k;
}

KAPI uint32_t GetRegionData(HRGN hRgn, uint32_t nBytes, RGNDATA* pData) {
    uint32_t need = 0;
    objTableLock();
    OrvaRgn* r = rgn::handleRegion(hRgn);
    if (r) {
        need = rgn::regionDataSize(r);
        if (pData && nBytes >= need) rgn::writeRegionData(r, pData);
    }
    objTableUnlock();
    return need;
}

KAPI BOOL PtInRegion(HRGN hRgn, int32_t x, int32_t y) {
    BOOL in = 0;
    objTableLock();
    OrvaRgn* r = rgn::handleRegion(hRgn);
    if (r) in = rgn::pointIn(r, x, y, nullptr, nullptr) ? 1 : 0;
    objTableUnlock();
    return in;
}

KAPI BOOL SetRectRgn(HRGN hRgn, int32_t nLeft, int32_t nTop, int32_t nRight, int32_t nBottom) {
    if (nLeft > nRight) std::swap(nLeft, nRight);
    if (nTop > nBottom) std::swap(nTop, nBottom);
    objTableLock();
    BOOL ok = 0;
    OrvaRgn* d = rgn::handleRegion(hRgn);
    OrvaRgn* res = nullptr;
    if (d && rgn::fromRect(RECT{nLeft, nTop, nRight, nBottom}, &res) == KS_SUCCESS) {
        std::memcpy(res->nPlacement, d->nPlacement, sizeof res->nPlacement);
        ok = replacePayload(hRgn, res) ? 1 : 0;
    }
    objTableUnlock();
    return ok;
}

KAPI BOOL DeleteObject(HGDIOBJ hObject) {
    void* payload = nullptr;
    uint32_t k = 0;
    objTableLock();
    k = objKind(hObject);
    if (k == kObjRegion || k == kObjPalette) {
        payload = objPayload(hObject, k);
        objDestroy(hObject, k);
    }
    objTableUnlock();
    if (k == kObjRegion) {
        rgn::destroy(static_cast<OrvaRgn*>(payload));
        return 1;
    }
    if (k == kObjPalette) {
        memFree(payload);
        return 1;
    }
    errno = EINVAL;
    return 0;
}

KAPI int32_t GetObject(HGDIOBJ hObject, int32_t nBytes, void* pOut) {
    int32_t res = 0;
    objTableLock();
    // A palette object's payload starts like LOGPALETTE: version, entry count.
    auto* pal = static_cast<const uint16_t*>(objPayload(hObject, kObjPalette));
    if (!pal) {
        errno = EINVAL;
    } else if (pOut && nBytes >= 2) {
        std::memcpy(pOut, pal + 1, 2);
        res = 2;
    }
    objTableUnlock();
    return res;
}

// ---------------------------------------------------------------- kernel wrappers
KAPI int32_t K_ConvertHandleToRgn(HRGN hRgn, OrvaRgn** ppRgn) {
    if (!ppRgn) return KS_INVALID_PARAMETER;
    objTableLock();
    int32_t st = KS_INVALID_PARAMETER;
    OrvaRgn* r = rgn::handleRegion(hRgn);
    if (r) st = rgn::copy(r, ppRgn);
    objTableUnlock();
    return st;
}

KAPI int32_t K_WinCreateRectRgn(HRGN* phRgn, int32_t nLeft, int32_t nTop, int32_t nRight, int32_t nBottom) {
    if (!phRgn) return KS_INVALID_PARAMETER;
    HRGN h = CreateRectRgn(nLeft, nTop, nRight, nBottom);
    if (!h) return KS_NO_MEMORY;
    *phRgn = h;
    return KS_SUCCESS;
}

KAPI int32_t K_WinDeleteObject(HGDIOBJ hObject) { return DeleteObject(hObject); }

// ---------------------------------------------------------------- rectangles
KAPI BOOL SetRect(RECT* pRect, int32_t nLeft, int32_t nTop, int32_t nRight, int32_t nBottom) {
    if (!pRect) return 0;
    *pRect = RECT{nLeft, nTop, nRight, nBottom};
    return 1;
}

KAPI BOOL SetRectEmpty(RECT* pRect) {
    if (!pRect) return 0;
    *pRect = RECT{0, 0, 0, 0};
    return 1;
}

KAPI BOOL IsRectEmpty(const RECT* pRect) {
    if (!pRect) return 1;
    return pRect->right <= pRect->left || pRect->bottom <= pRect->top;
}

KAPI BOOL PtInRect(const RECT* pRect, POINT pt) {
    if (!pRect) return 0;
    return pt.x >= pRect->left && pt.x < pRect->right && pt.y >= pRect->top && pt.y < pRect->bottom;
}

KAPI BOOL IntersectRect(RECT* pDst, const RECT* pSrc1, const RECT* pSrc2) {
    if (!pDst || !pSrc1 || !pSrc2) return 0;
    RECT r{std::max(pSrc1->left, pSrc2->left), std::max(pSrc1->top, pSrc2->top),
           std::min(pSrc1->right, pSrc2->right), std::min(pSrc1->bottom, pSrc2->bottom)};
    if (r.right <= r.left || r.bottom <= r.top) {
        *pDst = RECT{0, 0, 0, 0};
        return 0;
    }
    *pDst = r;
    return 1;
}

// The four edges are computed in 64 bits; a rectangle whose edges would leave
// the 32-bit range is refused (0, unchanged) rather than wrapped.
namespace {
bool fitsAll(const int64_t (&v)[4]) noexcept {
    for (int64_t x : v)
        if (x < INT32_MIN || x > INT32_MAX) return false;
    return true;
}
}  // namespace

KAPI BOOL InflateRect(RECT* pRect, int32_t dx, int32_t dy) {
    if (!pRect) return 0;
    const int64_t v[4] = {int64_t(pRect->left) - dx, int64_t(pRect->top) - dy, int64_t(pRect->right) + dx,
                          int64_t(pRect->bottom) + dy};
    if (!fitsAll(v)) return 0;
    *pRect = RECT{int32_t(v[0]), int32_t(v[1]), int32_t(v[2]), int32_t(v[3])};
    return 1;
}

KAPI BOOL CopyRect(RECT* pDst, const RECT* pSrc) {
    if (!pDst || !pSrc) return 0;
    *pDst = *pSrc;
    return 1;
}

KAPI BOOL UnionRect(RECT* pDst, const RECT* pSrc1, const RECT* pSrc2) {
    if (!pDst || !pSrc1 || !pSrc2) return 0;
    const bool e1 = IsRectEmpty(pSrc1), e2 = IsRectEmpty(pSrc2);
    if (e1 && e2) {
        *pDst = RECT{0, 0, 0, 0};
        return 0;
    }
    if (e1) {
        *pDst = *pSrc2;
        return 1;
    }
    if (e2) {
        *pDst = *pSrc1;
        return 1;
    }
    *pDst = RECT{std::min(pSrc1->left, pSrc2->left), std::min(pSrc1->top, pSrc2->top),
                 std::max(pSrc1->right, pSrc2->right), std::max(pSrc1->bottom, pSrc2->bottom)};
    return 1;
}

KAPI BOOL OffsetRect(RECT* pRect, int32_t dx, int32_t dy) {
    if (!pRect) return 0;
    const int64_t v[4] = {int64_t(pRect->left) + dx, int64_t(pRect->top) + dy, int64_t(pRect->right) + dx,
                          int64_t(pRect->bottom) + dy};
    if (!fitsAll(v)) return 0;
    *pRect = RECT{int32_t(v[0]), int32_t(v[1]), int32_t(v[2]), int32_t(v[3])};
    return 1;
}

KAPI BOOL EqualRect(const RECT* pRect1, const RECT* pRect2) {
    if (!pRect1 || !pRect2) return 0;
    return pRect1->left == pRect2->left && pRect1->top == pRect2->top && pRect1->right == pRect2->right &&
           pRect1->bottom == pRect2->bottom;
}
