// bitmaprgn.cpp - regions attached to bitmaps, filling through them and the
// colour-region builder.
//
// A bitmap's region lives in the record's hRgn field as a region handle
// (kind 4) whose payload is an OrvaRgn in stored pixel coordinates. Every
// setter builds the new region off to the side, combines it with the current
// one by the combine mode and swaps the result in; a failing setter leaves
// the bitmap's region as it was.
#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>

#include "bitmaprgn.h"
#include "region.h"
#include "krn/common/hooks.h"
#include "krn/common/kernel.h"
#include "krn/common/memory.h"
#include "krn/windowsemul/objects.h"

namespace krn {

namespace {

constexpr uint32_t kFloatData = 0x100000u;

OrvaRgn* regionOf(const BITMAPRECORD* bm) noexcept {
    if (!bm->hRgn) return nullptr;
    return static_cast<OrvaRgn*>(objPayload(bm->hRgn, kObjRegion));
}

// Stores r as the bitmap's region (taking ownership); null removes it.
int32_t storeRegion(BITMAPRECORD* bm, OrvaRgn* r) noexcept {
    if (!r) {
        if (bm->hRgn) DeleteObject(bm->hRgn);
        bm->hRgn = nullptr;
        return KS_SUCCESS;
    }
    if (bm->hRgn && objKind(bm->hRgn) == kObjRegion) {
        OrvaRgn* old = nullptr;
        objWith(bm->hRgn, kObjRegion, [&](OmbrixObject_* o) {
            old = static_cast<OrvaRgn*>(o->pPayload);
            o->pPayload = r;
        });
        rgn::destroy(old);
        return KS_SUCCESS;
    }
    HRGN h = rgn::makeHandle(r);
    if (!h) return KS_NO_MEMORY;
    bm->hRgn = h;
    return KS_SUCCESS;
}

bool vpValid(int32_t v) noexcept { return v >= 1 && v <= 8; }
bool vpRotated(int32_t v) noexcept { return v >= 5 && v <= 8; }

int32_t checkXForm(const RGNXFORM* xf) noexcept {
    if (!xf) return KS_SUCCESS;
    if (!vpValid(xf->nViewPerspective) || xf->nXScalarDen == 0 || xf->nYScalarDen == 0)
        return KS_INVALID_PARAMETER;
    return KS_SUCCESS;
}

// Reduces num/den to a non-negative numerator over a positive denominator.
bool normScale(int32_t num, int32_t den, int32_t* n, int32_t* d) noexcept {
    int64_t a = num, b = den;
    if (b < 0) {
        a = -a;
        b = -b;
    }
    if (a < 0 || a > INT32_MAX || b > INT32_MAX) return false;
    *n = int32_t(a);
    *d = int32_t(b);
    return true;
}

// Size of the image as seen in perspective vp.
void dimsIn(const BITMAPRECORD* bm, int32_t vp, int64_t* w, int64_t* h) noexcept {
    *w = bm->nWidth;
    *h = bm->nHeight;
    if (vpValid(bm->nViewPerspective) && vpRotated(vp) != vpRotated(bm->nViewPerspective)) std::swap(*w, *h);
}

// Caller coordinates -> bitmap pixels: offset, scale, change of perspective.
int32_t mapIn(const BITMAPRECORD* bm, const RGNXFORM* xf, OrvaRgn* r) noexcept {
    if (!xf) return KS_SUCCESS;
    int32_t st = rgn::offset(r, xf->nXOffset, xf->nYOffset);
    if (st != KS_SUCCESS) return st;
    int32_t xn, xd, yn, yd;
    if (!normScale(xf->nXScalarNum, xf->nXScalarDen, &xn, &xd) ||
        !normScale(xf->nYScalarNum, xf->nYScalarDen, &yn, &yd))
        return KS_INVALID_PARAMETER;
    st = rgn::scale(r, xn, xd, yn, yd);
    if (st != KS_SUCCESS) return st;
    if (xf->nViewPerspective != bm->nViewPerspective) {
        if (!vpValid(bm->nViewPerspective)) return KS_INVALID_PARAMETER;
        int64_t w, h;
        dimsIn(bm, xf->nViewPerspective, &w, &h);
        st = rgn::perspective(r, xf->nViewPerspective, bm->nViewPerspective, w, h);
    }
    return st;
}

// Bitmap pixels -> caller coordinates: change of perspective, scale, offset.
int32_t mapOut(const BITMAPRECORD* bm, const RGNXFORM* xf, OrvaRgn* r) noexcept {
    if (!xf) return KS_SUCCESS;
    int32_t st = KS_SUCCESS;
    if (xf->nViewPerspective != bm->nViewPerspective) {
        if (!vpValid(bm->nViewPerspective)) return KS_INVALID_PARAMETER;
        st = rgn::perspective(r, bm->nViewPerspective, xf->nViewPerspective, bm->nWidth, bm->nHeight);
        if (st != KS_SUCCESS) return st;
    }
    int32_t xn, xd, yn, yd;
    if (!normScale(xf->nXScalarNum, xf->nXScalarDen, &xn, &xd) ||
        !normScale(xf->nYScalarNum, xf->nYScalarDen, &yn, &yd))
        return KS_INVALID_PARAMETER;
    st = rgn::scale(r, xn, xd, yn, yd);
    if (st != KS_SUCCESS) return st;
    return rgn::offset(r, xf->nXOffset, xf->nYOffset);
}

RECT bitmapRect(const BITMAPRECORD* bm) noexcept { return RECT{0, 0, bm->nWidth, bm->nHeight}; }

bool unclipped(const BITMAPRECORD* bm) noexcept { return (bm->uFlags & BRF_UNCLIPPED_RGN) != 0; }


int64_t ceilDiv(int64_t a, int64_t b) noexcept {  // b > 0
    int64_t q = a / b;
    if ((a % b != 0) && (a > 0)) ++q;
    return q;
}
int64_t floorDiv(int64_t a, int64_t b) noexcept {  // b > 0
    int64_t q = a / b;
    if ((a % b != 0) && (a < 0)) --q;
    return q;
}

int32_t clampCoord(int64_t v) noexcept {
    return int32_t(std::clamp<int64_t>(v, -(int64_t(1) << 30), int64_t(1) << 30));
}

}  // namespace

// ---------------------------------------------------------------- the core setter
int32_t setBitmapRegion(BITMAPRECORD* bm, const RGNXFORM* xf, OrvaRgn* newRgn, uint32_t mode) noexcept {
    rgn::Owned owned{newRgn};
    if (!bm) return KS_INVALID_BITMAP;
    if (!recordSizeValid(bm->uStructSize)) return KS_INVALID_STRUCT_SIZE;
    if (!newRgn) {
        storeRegion(bm, nullptr);
        return KS_SUCCESS;
    }
    if (mode > 6) return KS_INVALID_PARAMETER;
    int32_t st = checkXForm(xf);
    if (st != KS_SUCCESS) return st;
    st = mapIn(bm, xf, newRgn);
    if (st != KS_SUCCESS) return st;
    const RECT full = bitmapRect(bm);
    OrvaRgn* cur = regionOf(bm);
    if (!cur && mode == 0) {
        // The whole bitmap AND the new region: the new region clipped,
        // stored as a fresh region (no placement words, no cached handle)
        // like a combine's result.
        st = rgn::clip(newRgn, full);
        if (st != KS_SUCCESS) return st;
        if (newRgn->hCachedRgn) DeleteObject(newRgn->hCachedRgn);
        newRgn->hCachedRgn = nullptr;
        std::memset(newRgn->nPlacement, 0, sizeof newRgn->nPlacement);
        return storeRegion(bm, owned.release());
    }
    if (!cur && mode == 4 && !unclipped(bm)) {
        // The whole bitmap OR the new region, clipped: the whole bitmap.
        rgn::Owned whole;
        st = rgn::fromRect(full, &whole.r);
        if (st != KS_SUCCESS) return st;
        return storeRegion(bm, whole.release());
    }
    rgn::Owned fullRgn;
    if (!cur && mode != 1) {
        st = rgn::fromRect(full, &fullRgn.r);
        if (st != KS_SUCCESS) return st;
        cur = fullRgn.r;
    }
    rgn::Owned result;
    switch (mode) {
        case 0: st = rgn::combine(cur, newRgn, RGN_AND, &result.r); break;
        case 1: result.r = owned.release(); break;
        case 2: st = rgn::combine(newRgn, cur, RGN_DIFF, &result.r); break;
        case 3: st = rgn::combine(cur, newRgn, RGN_DIFF, &result.r); break;
        case 4: st = rgn::combine(cur, newRgn, RGN_OR, &result.r); break;
        case 5: st = rgn::combine(cur, newRgn, RGN_XOR, &result.r); break;
        case 6: {
            rgn::Owned rect;
            st = rgn::fromRect(full, &rect.r);
            if (st == KS_SUCCESS) st = rgn::combine(rect.r, newRgn, RGN_DIFF, &result.r);
            break;
        }
        default: break;
    }
    if (st != KS_SUCCESS) return st;
    if (!unclipped(bm)) {
        st = rgn::clip(result.r, full);
        if (st != KS_SUCCESS) return st;
    }
    return storeRegion(bm, result.release());
}

void releaseBitmapRegion(BITMAPRECORD* bm) noexcept {
    if (bm->hRgn) DeleteObject(bm->hRgn);
    bm->hRgn = nullptr;
}

const OrvaRgn* bitmapRegion(const BITMAPRECORD* bm) noexcept { return regionOf(bm); }

uint32_t clipSegments(const BITMAPRECORD* bm, int32_t row, int32_t* out) noexcept {
    const OrvaRgn* r = regionOf(bm);
    if (!r) {
        if (row < 0 || row >= bm->nHeight || bm->nWidth <= 0) return 0;
        out[0] = 0;
        out[1] = bm->nWidth;
        return 2;
    }
    uint32_t n;
    const int32_t* xs = rgn::rowAt(r, row, &n);
    if (!unclipped(bm)) {
        if (n) std::memcpy(out, xs, n * sizeof(int32_t));
        return n;
    }
    if (row < 0 || row >= bm->nHeight) return 0;
    uint32_t m = 0;
    for (uint32_t i = 0; i < n; i += 2) {
        int32_t a = std::max(xs[i], 0), b = std::min(xs[i + 1], bm->nWidth);
        if (a < b) {
            out[m++] = a;
            out[m++] = b;
        }
    }
    return m;
}

uint32_t clipSegmentsMax(const BITMAPRECORD* bm) noexcept {
    const OrvaRgn* r = regionOf(bm);
    if (!r) return 2;
    int64_t w = int64_t(r->rcBounds.right) - r->rcBounds.left;
    // Segments read from an unclipped region are clipped to the bitmap's
    // width, which bounds them as well.
    if (unclipped(bm)) w = std::min<int64_t>(w, std::max(bm->nWidth, 0));
    uint64_t m = uint64_t(w + 1) & ~uint64_t(1);
    return m > UINT32_MAX ? UINT32_MAX : uint32_t(m);
}

// ---------------------------------------------------------------- pixels
namespace {

// Raw pixel value of a COLORREF in the bitmap's format.
uint64_t encodeColor(const BITMAPRECORD* bm, uint32_t color) noexcept {
    const uint32_t r = color & 0xFF, g = (color >> 8) & 0xFF, b = (color >> 16) & 0xFF;
    const uint32_t grey = (2 * r + 5 * g + b + 4) >> 3;
    const int32_t bpp = bm->nBitsPerPixel;
    const bool rgbOrder = bm->nOrder == ORDER_RGB;
    if (bpp <= 8) {
        const RGBQUAD* pal = bm->pPalette ? bm->pPalette : fixedPalette(bpp);
        int32_t n = bm->pPalette ? bm->nColors : (1 << bpp);
        int32_t idx = K_FindPaletteIndex(pal, n, int32_t(r), int32_t(g), int32_t(b));
        return uint64_t(std::max(idx, 0));
    }
    switch (bpp) {
        case 12: return (grey * 4095u + 127u) / 255u;
        case 16:
            if (bm->nOrder == ORDER_GRAY) return grey * 257u;
            if (bm->nOrder == ORDER_RGB565) return ((r >> 3) << 11) | ((g >> 2) << 5) | (b >> 3);
            return rgbOrder ? ((b >> 3) << 10) | ((g >> 3) << 5) | (r >> 3)
                            : ((r >> 3) << 10) | ((g >> 3) << 5) | (b >> 3);
        case 24:
        case 32: {
            uint64_t v = rgbOrder ? (r | (g << 8) | (b << 16)) : (b | (g << 8) | (r << 16));
            if (bpp == 32) v |= 0xFFull << 24;
            return v;
        }
        case 48:
        case 64: {
            uint64_t R = r * 257ull, G = g * 257ull, B = b * 257ull;
            uint64_t v = rgbOrder ? (R | (G << 16) | (B << 32)) : (B | (G << 16) | (R << 32));
            if (bpp == 64) v |= 0xFFFFull << 48;
            return v;
        }
        default: return 0;
    }
}

// One row of the pattern pixel, as stored (sub-byte pixels first in the high
// bits; 12-bit grey two pixels in three bytes).
void buildPatternRow(uint8_t* row, uint32_t bytes, int32_t width, int32_t bpp, uint64_t raw) noexcept {
    std::memset(row, 0, bytes);
    if (bpp == 12) {
        const uint32_t v = uint32_t(raw & 0xFFFu);
        const uint8_t pair[3] = {uint8_t(v), uint8_t((v >> 8) | ((v & 0xFu) << 4)), uint8_t(v >> 4)};
        for (int64_t x = 0; x < width; x += 2) {
            const size_t o = size_t(x) / 2 * 3;
            row[o] = pair[0];
            row[o + 1] = x + 1 < width ? pair[1] : uint8_t(pair[1] & 0x0Fu);
            if (x + 1 < width) row[o + 2] = pair[2];
        }
        return;
    }
    if (bpp % 8 == 0) {
        const int32_t pb = bpp / 8;
        for (int32_t x = 0; x < width; ++x)
            for (int32_t k = 0; k < pb; ++k) row[size_t(x) * pb + k] = uint8_t(raw >> (8 * k));
        return;
    }
    raw &= (uint64_t(1) << bpp) - 1;
    for (int64_t x = 0; x < width; ++x) {
        for (int32_t k = 0; k < bpp; ++k) {
            uint64_t bit = uint64_t(x) * uint64_t(bpp) + uint64_t(k);
            if ((raw >> (bpp - 1 - k)) & 1u) row[bit >> 3] |= uint8_t(0x80u >> (bit & 7));
        }
    }
}

}  // namespace

int32_t putRowSegments(BITMAPRECORD* bm, int32_t row, const uint8_t* rowData, const int32_t* segs,
                       uint32_t count) noexcept {
    return K_PutBitmapRowSegments(bm, rowData, row, segs, int32_t(count / 2));
}

int32_t fillRaw(BITMAPRECORD* bm, uint64_t raw) noexcept {
    int32_t st = checkAllocated(bm);
    if (st != KS_SUCCESS) return st;
    if (bm->uFlags & kFloatData) return KS_FLOAT_NOT_SUPPORTED;
    if (bm->nWidth <= 0 || bm->nHeight <= 0) return KS_SUCCESS;
    return guarded([&]() -> int32_t {
        kvector<uint8_t> pattern(bm->nBytesPerLine);
        buildPatternRow(pattern.data(), bm->nBytesPerLine, bm->nWidth, bm->nBitsPerPixel, raw);
        kvector<int32_t> segs(std::max<uint32_t>(clipSegmentsMax(bm), 2));
        int32_t rc = K_AccessBitmap(bm);
        if (rc != KS_SUCCESS) return rc;
        const OrvaRgn* r = regionOf(bm);
        int32_t y0 = 0, y1 = bm->nHeight;
        if (r) {
            y0 = std::max(y0, r->rcBounds.top);
            y1 = std::min(y1, r->rcBounds.bottom);
        }
        // Rows pass through the row layer, so every storage kind is filled.
        for (int32_t y = y0; y < y1 && rc == KS_SUCCESS; ++y) {
            uint32_t n = clipSegments(bm, y, segs.data());
            if (n) rc = putRowSegments(bm, y, pattern.data(), segs.data(), n);
        }
        K_ReleaseBitmap(bm);
        return rc;
    });
}

// ---------------------------------------------------------------- colour regions
namespace {

// Reads pixel x of a stored row as its raw value.
template <int BPP>
inline uint64_t pixelAt(const uint8_t* row, int32_t x) noexcept {
    if constexpr (BPP == 12) {
        // Two pixels in three bytes: the low 12 bits of the little-endian word
        // at the pair's first byte, or the high 12 bits of the word one byte on.
        const uint8_t* p = row + size_t(x) / 2 * 3;
        return (x & 1) ? uint64_t((p[1] >> 4) | (p[2] << 4)) : uint64_t(p[0] | ((p[1] & 0x0Fu) << 8));
    } else if constexpr (BPP % 8 == 0) {
        uint64_t v = 0;
        const uint8_t* p = row + size_t(x) * (BPP / 8);
        for (int k = 0; k < BPP / 8; ++k) v |= uint64_t(p[k]) << (8 * k);
        return v;
    } else {
        uint64_t bit = uint64_t(x) * BPP;
        uint64_t v = 0;
        for (int k = 0; k < BPP; ++k, ++bit) v = (v << 1) | ((row[bit >> 3] >> (7 - (bit & 7))) & 1u);
        return v;
    }
}

template <int BPP, class Match>
uint32_t scanRow(const uint8_t* row, int32_t width, const Match& match, int32_t* out) noexcept {
    uint32_t n = 0;
    bool in = false;
    int32_t x = 0;
    if constexpr (BPP == 1) {
        // Whole bytes of one value are decided at once.
        const bool m0 = match(0), m1 = match(1);
        while (x < width) {
            if ((x & 7) == 0 && x + 8 <= width) {
                uint8_t byte = row[x >> 3];
                if (byte == 0x00 || byte == 0xFF) {
                    bool now = byte ? m1 : m0;
                    if (now != in) {
                        out[n++] = x;
                        in = now;
                    }
                    x += 8;
                    continue;
                }
            }
            bool now = ((row[x >> 3] >> (7 - (x & 7))) & 1u) ? m1 : m0;
            if (now != in) {
                out[n++] = x;
                in = now;
            }
            ++x;
        }
    } else {
        for (; x < width; ++x) {
            bool now = match(pixelAt<BPP>(row, x));
            if (now != in) {
                out[n++] = x;
                in = now;
            }
        }
    }
    if (in) out[n++] = width;
    return n;
}

template <int BPP, class Match>
int32_t scanBitmap(BITMAPRECORD* bm, const Match& match, OrvaRgn** out) {
    rgn::Builder bld;
    const int32_t w = bm->nWidth;
    int32_t st = bld.start(0, bm->nHeight, 0);
    if (st != KS_SUCCESS) return st;
    kvector<uint8_t> row(bm->nBytesPerLine);
    for (int32_t y = 0; y < bm->nHeight; ++y) {
        int32_t got = K_GetBitmapRow(bm, row.data(), y, bm->nBytesPerLine);
        if (got < 0) return got;
        int32_t* d = bld.rowSpace(uint32_t(w) + 2u);
        if (!d) return KS_NO_MEMORY;
        bld.endRow(scanRow<BPP>(row.data(), w, match, d));
    }
    return bld.finish(out);
}

template <class Match>
int32_t scanAny(BITMAPRECORD* bm, const Match& match, OrvaRgn** out) {
    switch (bm->nBitsPerPixel) {
        case 1: return scanBitmap<1>(bm, match, out);
        case 2: return scanBitmap<2>(bm, match, out);
        case 3: return scanBitmap<3>(bm, match, out);
        case 4: return scanBitmap<4>(bm, match, out);
        case 5: return scanBitmap<5>(bm, match, out);
        case 6: return scanBitmap<6>(bm, match, out);
        case 7: return scanBitmap<7>(bm, match, out);
        case 8: return scanBitmap<8>(bm, match, out);
        case 12: return scanBitmap<12>(bm, match, out);
        case 16: return scanBitmap<16>(bm, match, out);
        case 24: return scanBitmap<24>(bm, match, out);
        case 32: return scanBitmap<32>(bm, match, out);
        case 48: return scanBitmap<48>(bm, match, out);
        case 64: return scanBitmap<64>(bm, match, out);
        default: return KS_INVALID_BITS_PER_PIXEL;
    }
}

// Grey level 0..255 of a raw pixel of a depth above 8 bits.
uint32_t greyOf(const BITMAPRECORD* bm, uint64_t v) noexcept {
    uint32_t r, g, b;
    const bool rgbOrder = bm->nOrder == ORDER_RGB;
    switch (bm->nBitsPerPixel) {
        case 12: return uint32_t((v & 0xFFF) * 255 / 4095);
        case 16:
            if (bm->nOrder == ORDER_GRAY) return uint32_t((v & 0xFFFF) >> 8);
            if (bm->nOrder == ORDER_RGB565) {
                r = uint32_t((v >> 11) & 31) * 255 / 31;
                g = uint32_t((v >> 5) & 63) * 255 / 63;
                b = uint32_t(v & 31) * 255 / 31;
            } else {
                uint32_t hi = uint32_t((v >> 10) & 31) * 255 / 31, lo = uint32_t(v & 31) * 255 / 31;
                g = uint32_t((v >> 5) & 31) * 255 / 31;
                r = rgbOrder ? lo : hi;
                b = rgbOrder ? hi : lo;
            }
            break;
        case 24:
        case 32: {
            uint32_t c0 = uint32_t(v & 0xFF), c2 = uint32_t((v >> 16) & 0xFF);
            g = uint32_t((v >> 8) & 0xFF);
            r = rgbOrder ? c0 : c2;
            b = rgbOrder ? c2 : c0;
            break;
        }
        default: {  // 48, 64
            uint32_t c0 = uint32_t((v >> 8) & 0xFF), c2 = uint32_t((v >> 40) & 0xFF);
            g = uint32_t((v >> 24) & 0xFF);
            r = rgbOrder ? c0 : c2;
            b = rgbOrder ? c2 : c0;
            break;
        }
    }
    return (2 * r + 5 * g + b + 4) >> 3;
}

}  // namespace

int32_t colorRegion(const BITMAPRECORD* src, uint32_t color, bool whiteByGrey, OrvaRgn** out) noexcept {
    int32_t st = checkAllocated(src);
    if (st != KS_SUCCESS) return st;
    if (src->uFlags & kFloatData) return KS_FLOAT_NOT_SUPPORTED;
    auto* bm = const_cast<BITMAPRECORD*>(src);  // access counting only
    st = K_AccessBitmap(bm);
    if (st != KS_SUCCESS) return st;
    st = guarded([&]() -> int32_t {
        const int32_t bpp = bm->nBitsPerPixel;
        const uint32_t cr = color & 0xFF, cg = (color >> 8) & 0xFF, cb = (color >> 16) & 0xFF;
        if (bpp <= 8) {
            // A table over the palette: which indices have the colour.
            bool table[256] = {};
            const RGBQUAD* pal = bm->pPalette ? bm->pPalette : fixedPalette(bpp);
            const int32_t n = std::min(bm->pPalette ? bm->nColors : (1 << bpp), 1 << bpp);
            for (int32_t i = 0; i < n && pal; ++i) {
                const RGBQUAD& q = pal[i];
                if (whiteByGrey)
                    table[i] = ((2u * q.rgbRed + 5u * q.rgbGreen + q.rgbBlue + 4u) >> 3) >= 128u;
                else
                    table[i] = q.rgbRed == cr && q.rgbGreen == cg && q.rgbBlue == cb;
            }
            return scanAny(bm, [&](uint64_t v) { return table[v & 0xFF]; }, out);
        }
        if (whiteByGrey) return scanAny(bm, [&](uint64_t v) { return greyOf(bm, v) >= 128u; }, out);
        const uint64_t want = encodeColor(bm, color);
        const uint64_t mask = bpp == 64 ? ~0ull : ((uint64_t(1) << bpp) - 1);
        // 32 and 64-bit pixels compare their colour samples only.
        const uint64_t cmpMask = bpp == 32 ? 0xFFFFFFull : bpp == 64 ? 0xFFFFFFFFFFFFull : mask;
        return scanAny(bm, [&](uint64_t v) { return (v & cmpMask) == (want & cmpMask); }, out);
    });
    K_ReleaseBitmap(bm);
    return st;
}

}  // namespace krn

// ====================================================================== exports
using namespace krn;

namespace {

int32_t checkTarget(const BITMAPRECORD* bm) noexcept {
    if (!bm) return KS_INVALID_BITMAP;
    if (!recordSizeValid(bm->uStructSize)) return KS_INVALID_STRUCT_SIZE;
    return KS_SUCCESS;
}

}  // namespace

KAPI int32_t K_SetBitmapRgn(BITMAPRECORD* pBitmap, const RGNXFORM* pXForm, OrvaRgn* pRgn, uint32_t uCombineMode) {
    return setBitmapRegion(pBitmap, pXForm, pRgn, uCombineMode);
}

KAPI int32_t K_SetBitmapRgnRect(BITMAPRECORD* pBitmap, const RGNXFORM* pXForm, const RECT* pRect,
                                uint32_t uCombineMode) {
    int32_t st = checkTarget(pBitmap);
    if (st != KS_SUCCESS) return st;
    if (!pRect || uCombineMode > 6) return KS_INVALID_PARAMETER;
    if ((st = checkXForm(pXForm)) != KS_SUCCESS) return st;
    OrvaRgn* r = nullptr;
    if (unclipped(pBitmap)) {
        st = rgn::fromRect(*pRect, &r);
        if (st != KS_SUCCESS) return st;
        return setBitmapRegion(pBitmap, pXForm, r, uCombineMode);
    }
    // Transform the rectangle arithmetically and clip it to the bitmap, so a
    // huge rectangle costs nothing.
    int64_t l = pRect->left, t = pRect->top, rr = pRect->right, b = pRect->bottom;
    if (pXForm) {
        int32_t xn, xd, yn, yd;
        if (!normScale(pXForm->nXScalarNum, pXForm->nXScalarDen, &xn, &xd) ||
            !normScale(pXForm->nYScalarNum, pXForm->nYScalarDen, &yn, &yd))
            return KS_INVALID_PARAMETER;
        l = ceilDiv((l + pXForm->nXOffset) * xn, xd);
        rr = ceilDiv((rr + pXForm->nXOffset) * xn, xd);
        t = ceilDiv((t + pXForm->nYOffset) * yn, yd);
        b = ceilDiv((b + pXForm->nYOffset) * yn, yd);
    }
    RECT rc{clampCoord(l), clampCoord(t), clampCoord(rr), clampCoord(b)};
    if (pXForm && pXForm->nViewPerspective != pBitmap->nViewPerspective && rc.left < rc.right &&
        rc.top < rc.bottom) {
        if (!vpValid(pBitmap->nViewPerspective)) return KS_INVALID_PARAMETER;
        int64_t w, h;
        dimsIn(pBitmap, pXForm->nViewPerspective, &w, &h);
        K_ChangeRectViewPerspective(pXForm->nViewPerspective, int32_t(w), int32_t(h), pBitmap->nViewPerspective,
                                    &rc);
    }
    RECT clipped;
    RECT full = bitmapRect(pBitmap);
    if (!IntersectRect(&clipped, &rc, &full)) clipped = RECT{0, 0, 0, 0};
    st = rgn::fromRect(clipped, &r);
    if (st != KS_SUCCESS) return st;
    return setBitmapRegion(pBitmap, nullptr, r, uCombineMode);
}

KAPI int32_t K_SetBitmapRgnEllipse(BITMAPRECORD* pBitmap, const RGNXFORM* pXForm, const RECT* pRect,
                                   uint32_t uCombineMode) {
    int32_t st = checkTarget(pBitmap);
    if (st != KS_SUCCESS) return st;
    if (!pRect || uCombineMode > 6) return KS_INVALID_PARAMETER;
    OrvaRgn* r = nullptr;
    st = rgn::ellipse(*pRect, &r);
    if (st != KS_SUCCESS) return st;
    return setBitmapRegion(pBitmap, pXForm, r, uCombineMode);
}

KAPI int32_t K_SetBitmapRgnPolygon(BITMAPRECORD* pBitmap, const RGNXFORM* pXForm, const POINT* pPoints,
                                   uint32_t uCount, uint32_t uFillMode, uint32_t uCombineMode) {
    int32_t st = checkTarget(pBitmap);
    if (st != KS_SUCCESS) return st;
    if ((!pPoints && uCount) || uCombineMode > 6 || uCount > uint32_t(INT32_MAX)) return KS_INVALID_PARAMETER;
    OrvaRgn* r = nullptr;
    st = rgn::polygon(pPoints, nullptr, uCount, uFillMode == WINDING, &r);
    if (st != KS_SUCCESS) return st;
    return setBitmapRegion(pBitmap, pXForm, r, uCombineMode);
}

KAPI int32_t K_SetBitmapRgnHandle(BITMAPRECORD* pBitmap, const RGNXFORM* pXForm, HRGN hRgn,
                                  uint32_t uCombineMode) {
    int32_t st = checkTarget(pBitmap);
    if (st != KS_SUCCESS) return st;
    if (!hRgn) return setBitmapRegion(pBitmap, pXForm, nullptr, uCombineMode);
    if (uCombineMode > 6) return KS_INVALID_PARAMETER;
    OrvaRgn* r = nullptr;
    st = K_ConvertHandleToRgn(hRgn, &r);
    if (st != KS_SUCCESS) return st;
    return setBitmapRegion(pBitmap, pXForm, r, uCombineMode);
}

KAPI int32_t K_SetBitmapRgnData(BITMAPRECORD* pBitmap, const RGNXFORM* pXForm, int32_t nSize,
                                const RGNDATA* pData, uint32_t uCombineMode) {
    int32_t st = checkTarget(pBitmap);
    if (st != KS_SUCCESS) return st;
    if (nSize < 0) return KS_INVALID_PARAMETER;
    if (nSize == 0) return setBitmapRegion(pBitmap, pXForm, nullptr, uCombineMode);
    if (uCombineMode > 6) return KS_INVALID_PARAMETER;
    OrvaRgn* r = nullptr;
    st = rgn::fromRegionData(nullptr, uint32_t(nSize), pData, &r);
    if (st != KS_SUCCESS) return KS_NO_MEMORY;
    return setBitmapRegion(pBitmap, pXForm, r, uCombineMode);
}

KAPI int32_t K_SetBitmapRgnFromMask(BITMAPRECORD* pBitmap, const RGNXFORM* pXForm, const BITMAPRECORD* pMask,
                                    uint32_t uCombineMode) {
    int32_t st = checkTarget(pBitmap);
    if (st != KS_SUCCESS) return st;
    if (!pMask || !(pMask->uFlags & BRF_ALLOCATED) || uCombineMode > 6) return KS_INVALID_PARAMETER;
    if (!recordSizeValid(pMask->uStructSize)) return KS_INVALID_STRUCT_SIZE;
    OrvaRgn* r = nullptr;
    st = colorRegion(pMask, 0xFFFFFF, true, &r);
    if (st != KS_SUCCESS) return st;
    return setBitmapRegion(pBitmap, pXForm, r, uCombineMode);
}

KAPI int32_t K_SetBitmapRgnColor(BITMAPRECORD* pBitmap, uint32_t uColor, uint32_t uCombineMode) {
    int32_t st = checkTarget(pBitmap);
    if (st != KS_SUCCESS) return st;
    if (uCombineMode > 6) return KS_INVALID_PARAMETER;
    OrvaRgn* r = nullptr;
    st = colorRegion(pBitmap, uColor & 0xFFFFFF, false, &r);
    if (st != KS_SUCCESS) return st;
    return setBitmapRegion(pBitmap, nullptr, r, uCombineMode);
}

KAPI int32_t K_BitmapHasRgn(const BITMAPRECORD* pBitmap) {
    if (!pBitmap || !recordSizeValid(pBitmap->uStructSize)) return 0;
    return pBitmap->hRgn ? 1 : 0;
}

KAPI int32_t K_FreeBitmapRgn(BITMAPRECORD* pBitmap) {
    int32_t st = checkRecord(pBitmap);
    if (st != KS_SUCCESS) return st;
    releaseBitmapRegion(pBitmap);
    return KS_SUCCESS;
}

KAPI int32_t K_GetBitmapRgnBounds(const BITMAPRECORD* pBitmap, const RGNXFORM* pXForm, RECT* pRect) {
    if (!pBitmap || !pRect) return KS_INVALID_BITMAP;
    if (!recordSizeValid(pBitmap->uStructSize)) return KS_INVALID_STRUCT_SIZE;
    int32_t st = checkXForm(pXForm);
    if (st != KS_SUCCESS) return st;
    const OrvaRgn* r = regionOf(pBitmap);
    RECT rc = r ? r->rcBounds : bitmapRect(pBitmap);
    if (pXForm) {
        if (pXForm->nViewPerspective != pBitmap->nViewPerspective) {
            if (!vpValid(pBitmap->nViewPerspective)) return KS_INVALID_PARAMETER;
            K_ChangeRectViewPerspective(pBitmap->nViewPerspective, pBitmap->nWidth, pBitmap->nHeight,
                                        pXForm->nViewPerspective, &rc);
        }
        int32_t xn, xd, yn, yd;
        if (!normScale(pXForm->nXScalarNum, pXForm->nXScalarDen, &xn, &xd) ||
            !normScale(pXForm->nYScalarNum, pXForm->nYScalarDen, &yn, &yd))
            return KS_INVALID_PARAMETER;
        const bool upY = pXForm->nViewPerspective == 1 || pXForm->nViewPerspective == 4;
        auto sc = [](int64_t v, int64_t n, int64_t d, bool up) { return up ? ceilDiv(v * n, d) : floorDiv(v * n, d); };
        int64_t l = sc(rc.left, xn, xd, true) + pXForm->nXOffset;
        int64_t rr = sc(rc.right, xn, xd, true) + pXForm->nXOffset;
        int64_t t = sc(rc.top, yn, yd, upY) + pXForm->nYOffset;
        int64_t b = sc(rc.bottom, yn, yd, upY) + pXForm->nYOffset;
        if (l < INT32_MIN || rr > INT32_MAX || t < INT32_MIN || b > INT32_MAX || l > INT32_MAX ||
            t > INT32_MAX || rr < INT32_MIN || b < INT32_MIN)
            return KS_INVALID_PARAMETER;
        rc = RECT{int32_t(l), int32_t(t), int32_t(rr), int32_t(b)};
    }
    *pRect = rc;
    return KS_SUCCESS;
}

KAPI int32_t K_GetBitmapRgnArea(const BITMAPRECORD* pBitmap, uint64_t* puArea) {
    if (!pBitmap) return KS_INVALID_BITMAP;
    if (!recordSizeValid(pBitmap->uStructSize)) return KS_INVALID_STRUCT_SIZE;
    if (!puArea) return KS_INVALID_PARAMETER;
    const OrvaRgn* r = regionOf(pBitmap);
    *puArea = r ? rgn::area(r) : uint64_t(uint32_t(pBitmap->nWidth)) * uint64_t(uint32_t(pBitmap->nHeight));
    return KS_SUCCESS;
}

KAPI int32_t K_IsPtInBitmapRgn(const BITMAPRECORD* pBitmap, int32_t nRow, int32_t nCol) {
    if (!pBitmap || !recordSizeValid(pBitmap->uStructSize)) return 0;
    const OrvaRgn* r = regionOf(pBitmap);
    if (!r) return nCol >= 0 && nCol < pBitmap->nWidth && nRow >= 0 && nRow < pBitmap->nHeight;
    if (unclipped(pBitmap) && (nCol < 0 || nCol >= pBitmap->nWidth || nRow < 0 || nRow >= pBitmap->nHeight))
        return 0;
    return rgn::pointIn(r, nCol, nRow, nullptr, nullptr) ? 1 : 0;
}

KAPI int32_t K_GetBitmapClipSegmentsMax(const BITMAPRECORD* pBitmap, uint32_t* puMax) {
    if (!pBitmap) return KS_INVALID_BITMAP;
    if (!recordSizeValid(pBitmap->uStructSize)) return KS_INVALID_STRUCT_SIZE;
    if (!puMax) return KS_INVALID_PARAMETER;
    *puMax = clipSegmentsMax(pBitmap);
    return KS_SUCCESS;
}

KAPI int32_t K_GetBitmapClipSegments(const BITMAPRECORD* pBitmap, int32_t nRow, int32_t* pSegments,
                                     uint32_t* puCount) {
    if (!pBitmap) return KS_INVALID_BITMAP;
    if (!recordSizeValid(pBitmap->uStructSize)) return KS_INVALID_STRUCT_SIZE;
    if (!pSegments || !puCount) return KS_INVALID_PARAMETER;
    *puCount = clipSegments(pBitmap, nRow, pSegments);
    return KS_SUCCESS;
}

KAPI int32_t K_OffsetBitmapRgn(BITMAPRECORD* pBitmap, int32_t nRowOffset, int32_t nColOffset) {
    int32_t st = checkRecord(pBitmap);
    if (st != KS_SUCCESS) return st;
    rgn::Owned work;
    const OrvaRgn* cur = regionOf(pBitmap);
    st = cur ? rgn::copy(cur, &work.r) : rgn::fromRect(bitmapRect(pBitmap), &work.r);
    if (st != KS_SUCCESS) return st;
    st = rgn::offset(work.r, nColOffset, nRowOffset);
    if (st != KS_SUCCESS) return st;
    if (!unclipped(pBitmap)) {
        st = rgn::clip(work.r, bitmapRect(pBitmap));
        if (st != KS_SUCCESS) return st;
    }
    return storeRegion(pBitmap, work.release());
}

namespace {
template <class F>
int32_t transformRegion(BITMAPRECORD* bm, F&& fn) noexcept {
    int32_t st = checkRecord(bm);
    if (st != KS_SUCCESS) return st;
    const OrvaRgn* cur = regionOf(bm);
    if (!cur) return KS_SUCCESS;
    rgn::Owned work;
    st = rgn::copy(cur, &work.r);
    if (st != KS_SUCCESS) return st;
    st = fn(work.r);
    if (st != KS_SUCCESS) return st;
    return storeRegion(bm, work.release());
}
}  // namespace

KAPI int32_t K_SizeBitmapRgn(BITMAPRECORD* pBitmap, int32_t nWidth, int32_t nHeight) {
    return transformRegion(pBitmap, [&](OrvaRgn* r) -> int32_t {
        if (pBitmap->nWidth <= 0 || pBitmap->nHeight <= 0 || nWidth < 0 || nHeight < 0) return KS_INVALID_PARAMETER;
        return rgn::scale(r, nWidth, pBitmap->nWidth, nHeight, pBitmap->nHeight);
    });
}

KAPI int32_t K_FlipBitmapRgn(BITMAPRECORD* pBitmap) {
    return transformRegion(pBitmap, [&](OrvaRgn* r) { return rgn::flipRows(r, pBitmap->nHeight); });
}

KAPI int32_t K_ReverseBitmapRgn(BITMAPRECORD* pBitmap) {
    return transformRegion(pBitmap, [&](OrvaRgn* r) { return rgn::reverseCols(r, pBitmap->nWidth); });
}

namespace {
// The bitmap's region (or its rectangle) mapped out through the transform.
int32_t mappedRegion(const BITMAPRECORD* bm, const RGNXFORM* xf, OrvaRgn** out) noexcept {
    int32_t st = checkXForm(xf);
    if (st != KS_SUCCESS) return st;
    rgn::Owned work;
    const OrvaRgn* cur = regionOf(bm);
    st = cur ? rgn::copy(cur, &work.r) : rgn::fromRect(bitmapRect(bm), &work.r);
    if (st != KS_SUCCESS) return st;
    st = mapOut(bm, xf, work.r);
    if (st != KS_SUCCESS) return st;
    *out = work.release();
    return KS_SUCCESS;
}
}  // namespace

KAPI int32_t K_GetBitmapRgnHandle(const BITMAPRECORD* pBitmap, const RGNXFORM* pXForm, HRGN* phRgn) {
    if (!pBitmap) return KS_INVALID_BITMAP;
    if (!recordSizeValid(pBitmap->uStructSize)) return KS_INVALID_STRUCT_SIZE;
    if (!phRgn) return KS_INVALID_PARAMETER;
    OrvaRgn* r = nullptr;
    int32_t st = mappedRegion(pBitmap, pXForm, &r);
    if (st != KS_SUCCESS) return st;
    HRGN h = rgn::makeHandle(r);
    if (!h) return KS_NO_MEMORY;
    *phRgn = h;
    return KS_SUCCESS;
}

KAPI int32_t K_GetBitmapRgnData(const BITMAPRECORD* pBitmap, const RGNXFORM* pXForm, int32_t nSize,
                                RGNDATA* pData) {
    if (nSize < 0) return KS_INVALID_PARAMETER;
    if (!pBitmap || !recordSizeValid(pBitmap->uStructSize) || !regionOf(pBitmap)) return 0;
    rgn::Owned work;
    int32_t st = mappedRegion(pBitmap, pXForm, &work.r);
    if (st == KS_NO_MEMORY) return KS_NO_MEMORY;
    if (st != KS_SUCCESS) return st;
    uint32_t need = rgn::regionDataSize(work.r);
    if (need > uint32_t(INT32_MAX)) return KS_NO_MEMORY;
    if (nSize > 0 && pData && uint32_t(nSize) >= need) rgn::writeRegionData(work.r, pData);
    return int32_t(need);
}

KAPI int32_t K_CreateMaskFromBitmapRgn(const BITMAPRECORD* pBitmap, BITMAPRECORD* pMask, uint32_t uStructSize) {
    if (!pBitmap || !pMask) return KS_INVALID_PARAMETER;
    if (!recordSizeValid(pBitmap->uStructSize) || !recordSizeValid(uStructSize)) return KS_INVALID_STRUCT_SIZE;
    BITMAPRECORD mask;
    int32_t vp = vpValid(pBitmap->nViewPerspective) ? pBitmap->nViewPerspective : TOP_LEFT;
    int32_t st = K_CreateBitmap(&mask, uStructSize, MEMTYPE_CONVENTIONAL, pBitmap->nWidth, pBitmap->nHeight, 1,
                                ORDER_RGB, nullptr, vp, nullptr, 0);
    if (st != KS_SUCCESS) return st;
    st = fillRaw(&mask, 0);
    if (st == KS_SUCCESS) st = K_CopyBitmapRgn(&mask, pBitmap, 0, 0);
    if (st == KS_SUCCESS) st = fillRaw(&mask, 1);
    if (st != KS_SUCCESS) {
        K_FreeBitmap(&mask);
        return st;
    }
    releaseBitmapRegion(&mask);
    std::memcpy(pMask, &mask, recordBytes(uStructSize));
    return KS_SUCCESS;
}

KAPI int32_t K_CopyBitmapRgn(BITMAPRECORD* pDst, const BITMAPRECORD* pSrc, int32_t dx, int32_t dy) {
    if (!pDst || !pSrc) return KS_INVALID_PARAMETER;
    if (!recordSizeValid(pDst->uStructSize) || !recordSizeValid(pSrc->uStructSize)) return KS_INVALID_STRUCT_SIZE;
    const OrvaRgn* cur = regionOf(pSrc);
    rgn::Owned work;
    if (cur) {
        int32_t st = rgn::copy(cur, &work.r);
        if (st == KS_SUCCESS) st = rgn::offset(work.r, dx, dy);
        if (st == KS_SUCCESS && !unclipped(pDst)) st = rgn::clip(work.r, bitmapRect(pDst));
        if (st != KS_SUCCESS) return st;
    }
    pDst->hRgn = nullptr;  // not freed: destinations come without a region
    if (!work.r) return KS_SUCCESS;
    return storeRegion(pDst, work.release());
}

KAPI int32_t K_FillBitmap(BITMAPRECORD* pBitmap, uint32_t uColor) {
    int32_t st = checkAllocated(pBitmap);
    if (st != KS_SUCCESS) return st;
    return fillRaw(pBitmap, encodeColor(pBitmap, uColor));
}

KAPI int32_t K_FillBitmap2(BITMAPRECORD* pBitmap, uint64_t uRawPixel) { return fillRaw(pBitmap, uRawPixel); }

KAPI int32_t K_ClearBitmap(BITMAPRECORD* pBitmap) { return fillRaw(pBitmap, 0); }
