// palette_bitmap.cpp - palettes attached to a bitmap record.
//
//   K_SetBitmapPalette, K_CopyBitmapPalette            replace a record's palette
//   K_CreateBitmapFixedPalette, K_CreateBitmapGrayPalette
//   K_GetBitmapColors, K_PutBitmapColors               read / write a range of entries
//   K_CompareBitmapToPalette                           1 same colours, 0 different
//   K_GetTrueColorValue, K_TranslateBitmapColor        colour values (RGB or palette index)
//   K_GetBitmapPaletteEntries                          the distinct colours the pixels use
//
// Invariants kept for every record these functions touch:
//  - a palette owned by a record is a GMEM_FIXED block from globalAlloc;
//  - for depths up to 8 the block always holds 2^depth entries (entries past
//    nColors are black), so any pixel value indexes inside the block;
//  - a new block is built and filled before the old one is freed, so a
//    failed call leaves the record as it was and a caller may pass the
//    record's own palette as the source.
#include <cstring>

#include "convert.h"
#include "hooks.h"
#include "kernel.h"
#include "memory.h"
#include "palette.h"
#include "storage.h"
#include "../windowsemul/globalmem.h"

namespace krn {
namespace {

inline uint32_t rgbOf(const RGBQUAD& e) noexcept {
    return uint32_t(e.rgbRed) | uint32_t(e.rgbGreen) << 8 | uint32_t(e.rgbBlue) << 16;
}

inline int32_t capacity(const BITMAPRECORD* bm) noexcept {
    return bm->nBitsPerPixel >= 1 && bm->nBitsPerPixel <= 8 ? 1 << bm->nBitsPerPixel : 256;
}

// Replaces the record's palette with n entries of src (src may be the
// record's own palette). Blocks for depths up to 8 are padded with black to
// 2^depth entries.
int32_t replacePalette(BITMAPRECORD* bm, const RGBQUAD* src, int32_t n) noexcept {
    const int32_t cap = capacity(bm);
    if (n < 1 || n > cap) return KS_INVALID_PARAMETER;
    const int32_t slots = bm->nBitsPerPixel <= 8 ? cap : n;
    auto* pal = static_cast<RGBQUAD*>(globalAlloc(GMEM_FIXED | GMEM_ZEROINIT, size_t(slots) * sizeof(RGBQUAD)));
    if (!pal) return KS_NO_MEMORY;
    std::memcpy(pal, src, size_t(n) * sizeof(RGBQUAD));
    if (bm->pPalette) globalFree(bm->pPalette);
    bm->pPalette = pal;
    bm->nColors = n;
    return KS_SUCCESS;
}

// Resolves a colour value to 0x00BBGGRR through the record's colours.
int32_t trueColor(const BITMAPRECORD* bm, uint32_t color, uint32_t* out) noexcept {
    const uint32_t kind = color >> 24;
    if (kind == 0) {
        *out = color;
        return KS_SUCCESS;
    }
    if (kind != (KCOLOR_INDEX_FLAG >> 24) || !bm) return KS_INVALID_PARAMETER;
    const uint32_t index = color & 0xFFFFFFu;
    const RGBQUAD* pal = bitmapColors(bm);
    if (!pal || index >= uint32_t(bitmapColorCount(bm))) return KS_INVALID_PARAMETER;
    *out = rgbOf(pal[index]);
    return KS_SUCCESS;
}

// ---- distinct colours of the pixels -------------------------------------

// 2^24 bits, one per colour, keyed 0xRRGGBB so that walking the words in
// order gives the colours in ascending order.
struct ColorSet {
    UniqueMem<uint64_t> bits;
    bool make() noexcept {
        bits.reset(static_cast<uint64_t*>(memCalloc((size_t(1) << 24) / 8)));
        return bits != nullptr;
    }
    void add(uint32_t rgb) noexcept { bits.get()[rgb >> 6] |= uint64_t(1) << (rgb & 63); }
};

inline uint32_t pack(uint32_t r, uint32_t g, uint32_t b) noexcept { return r | g << 8 | b << 16; }
inline uint32_t key(uint32_t r, uint32_t g, uint32_t b) noexcept { return r << 16 | g << 8 | b; }
inline uint32_t five(uint32_t v) noexcept { return (v << 3) | (v >> 2); }
inline uint32_t six(uint32_t v) noexcept { return (v << 2) | (v >> 4); }

// Adds the colours of one stored row; false for a format it cannot read.
// Paletted rows only mark the pixel values they use in `used`.
bool addRow(const BITMAPRECORD* bm, const uint8_t* row, bool* used, ColorSet& set) noexcept {
    const int32_t w = bm->nWidth, bpp = bm->nBitsPerPixel, order = bm->nOrder;
    const bool rgbFirst = order == ORDER_RGB;
    switch (bpp) {
        case 1: case 2: case 3: case 4: case 5: case 6: case 7: case 8: {
            const uint32_t mask = (1u << bpp) - 1;
            for (int32_t x = 0; x < w; ++x) {
                const uint32_t bit = uint32_t(x) * uint32_t(bpp);
                const uint32_t byte = bit >> 3, off = bit & 7;
                // A value may straddle two bytes (3, 5, 6, 7 bits); the second
                // byte is read only when the value reaches into it.
                uint32_t word = uint32_t(row[byte]) << 8;
                if (off + uint32_t(bpp) > 8) word |= row[byte + 1];
                used[(word >> (16 - off - uint32_t(bpp))) & mask] = true;
            }
            return true;
        }
        case 16:
            for (int32_t x = 0; x < w; ++x) {
                const uint32_t v = uint32_t(row[2 * x]) | uint32_t(row[2 * x + 1]) << 8;
                if (order == ORDER_GRAY) {
                    const uint32_t g = v >> 8;
                    set.add(key(g, g, g));
                } else if (order == ORDER_RGB565) {
                    set.add(key(five(v >> 11), six((v >> 5) & 63), five(v & 31)));
                } else {
                    uint32_t hi = five((v >> 10) & 31), mid = five((v >> 5) & 31), lo = five(v & 31);
                    set.add(rgbFirst ? key(lo, mid, hi) : key(hi, mid, lo));
                }
            }
            return true;
        case 24:
        case 32:
        case 48:
        case 64: {
            if (order != ORDER_RGB && order != ORDER_BGR) return false;
            const int32_t step = bpp / 8, comp = bpp >= 48 ? 2 : 1, hiByte = comp - 1;
            for (int32_t x = 0; x < w; ++x) {
                const uint8_t* p = row + size_t(x) * size_t(step);
                uint32_t c0 = p[hiByte], c1 = p[comp + hiByte], c2 = p[2 * comp + hiByte];
                set.add(rgbFirst ? key(c0, c1, c2) : key(c2, c1, c0));
            }
            return true;
        }
        default:
            return false;
    }
}

}  // namespace
}  // namespace krn

using namespace krn;

KAPI int32_t K_SetBitmapPalette(BITMAPRECORD* pBitmap, const RGBQUAD* pPalette, int32_t nColors) {
    int32_t rc = checkRecord(pBitmap);
    if (rc != KS_SUCCESS) return rc;
    if (!pPalette) {
        pPalette = fixedPalette(pBitmap->nBitsPerPixel);
        if (!pPalette) return KS_INVALID_PARAMETER;
        nColors = 1 << pBitmap->nBitsPerPixel;
    }
    return replacePalette(pBitmap, pPalette, nColors);
}

KAPI int32_t K_CopyBitmapPalette(BITMAPRECORD* pDst, const BITMAPRECORD* pSrc) {
    int32_t rc = checkRecord(pDst);
    if (rc != KS_SUCCESS) return rc;
    rc = checkRecord(pSrc);
    if (rc != KS_SUCCESS) return rc;
    if (pDst == pSrc) return KS_SUCCESS;
    const RGBQUAD* colors = bitmapColors(pSrc);
    const int32_t n = bitmapColorCount(pSrc);
    if (colors && n > 0) return replacePalette(pDst, colors, n);
    // The source has no colours: the destination falls back to the fixed
    // palette of its own depth (a null palette means exactly that).
    if (pDst->pPalette) globalFree(pDst->pPalette);
    pDst->pPalette = nullptr;
    pDst->nColors = pDst->nBitsPerPixel >= 1 && pDst->nBitsPerPixel <= 8 ? 1 << pDst->nBitsPerPixel : 0;
    return KS_SUCCESS;
}

KAPI int32_t K_CreateBitmapFixedPalette(BITMAPRECORD* pBitmap) {
    int32_t rc = checkRecord(pBitmap);
    if (rc != KS_SUCCESS) return rc;
    const RGBQUAD* fixed = fixedPalette(pBitmap->nBitsPerPixel);
    if (!fixed) return KS_INVALID_BITS_PER_PIXEL;
    return replacePalette(pBitmap, fixed, 1 << pBitmap->nBitsPerPixel);
}

KAPI int32_t K_CreateBitmapGrayPalette(BITMAPRECORD* pBitmap) {
    int32_t rc = checkRecord(pBitmap);
    if (rc != KS_SUCCESS) return rc;
    const int32_t bpp = pBitmap->nBitsPerPixel;
    if (bpp < 1 || bpp > 8) return KS_INVALID_BITS_PER_PIXEL;
    RGBQUAD ramp[256];
    fillGrayRamp(ramp, 1u << bpp);
    return replacePalette(pBitmap, ramp, 1 << bpp);
}

KAPI int32_t K_GetBitmapColors(const BITMAPRECORD* pBitmap, int32_t nIndex, int32_t nCount, RGBQUAD* pColors) {
    int32_t rc = checkRecord(pBitmap);
    if (rc != KS_SUCCESS) return rc;
    if (!pColors) return KS_INVALID_PARAMETER;
    const RGBQUAD* pal = bitmapColors(pBitmap);
    const int32_t n = pal ? bitmapColorCount(pBitmap) : 0;
    if (nIndex < 0 || nCount < 0 || nIndex > n) return KS_INVALID_PARAMETER;
    const int32_t copied = nCount < n - nIndex ? nCount : n - nIndex;
    if (copied > 0) std::memmove(pColors, pal + nIndex, size_t(copied) * sizeof(RGBQUAD));
    return copied;
}

KAPI int32_t K_PutBitmapColors(BITMAPRECORD* pBitmap, int32_t nIndex, int32_t nCount, const RGBQUAD* pColors) {
    int32_t rc = checkRecord(pBitmap);
    if (rc != KS_SUCCESS) return rc;
    if (!pColors) return KS_INVALID_PARAMETER;
    const int32_t cap = capacity(pBitmap);
    if (nIndex < 0 || nCount < 0 || nCount > cap - nIndex) return KS_INVALID_PARAMETER;
    if (nCount == 0) return 0;
    const int32_t end = nIndex + nCount;
    const RGBQUAD* cur = bitmapColors(pBitmap);
    const int32_t have = cur ? bitmapColorCount(pBitmap) : 0;
    const int32_t newCount = end > have ? end : have;
    const size_t need = size_t(pBitmap->nBitsPerPixel <= 8 ? cap : newCount) * sizeof(RGBQUAD);
    if (pBitmap->pPalette && globalSize(pBitmap->pPalette) >= need) {
        std::memmove(pBitmap->pPalette + nIndex, pColors, size_t(nCount) * sizeof(RGBQUAD));
        pBitmap->nColors = newCount;
        return nCount;
    }
    // No block of the kernel's, or one too small: build the new palette aside.
    auto* pal = static_cast<RGBQUAD*>(globalAlloc(GMEM_FIXED | GMEM_ZEROINIT, need));
    if (!pal) return KS_NO_MEMORY;
    if (have > 0) std::memcpy(pal, cur, size_t(have) * sizeof(RGBQUAD));
    std::memcpy(pal + nIndex, pColors, size_t(nCount) * sizeof(RGBQUAD));
    if (pBitmap->pPalette) globalFree(pBitmap->pPalette);
    pBitmap->pPalette = pal;
    pBitmap->nColors = newCount;
    return nCount;
}

KAPI int32_t K_CompareBitmapToPalette(const BITMAPRECORD* pBitmap, const RGBQUAD* pPalette, int32_t nColors) {
    int32_t rc = checkRecord(pBitmap);
    if (rc != KS_SUCCESS) return rc;
    if (!pPalette) {
        pPalette = fixedPalette(pBitmap->nBitsPerPixel);
        if (!pPalette) return KS_INVALID_PARAMETER;
        nColors = 1 << pBitmap->nBitsPerPixel;
    }
    if (nColors < 0) return KS_INVALID_PARAMETER;
    const RGBQUAD* pal = bitmapColors(pBitmap);
    const int32_t n = pal ? bitmapColorCount(pBitmap) : 0;
    if (n != nColors) return KS_FAILURE;
    for (int32_t i = 0; i < n; ++i)
        if (rgbOf(pal[i]) != rgbOf(pPalette[i])) return KS_FAILURE;
    return KS_SUCCESS;
}

KAPI int32_t K_GetTrueColorValue(const BITMAPRECORD* pBitmap, uint32_t uColor, uint32_t* puColor) {
    if (!puColor) return KS_INVALID_PARAMETER;
    int32_t rc = checkRecord(pBitmap);
    if (rc != KS_SUCCESS) return rc;
    uint32_t out;
    rc = trueColor(pBitmap, uColor, &out);
    if (rc == KS_SUCCESS) *puColor = out;
    return rc;
}

KAPI int32_t K_TranslateBitmapColor(const BITMAPRECORD* pDst, const BITMAPRECORD* pSrc, uint32_t uColor,
                                    uint32_t* puColor) {
    if (!puColor) return KS_INVALID_PARAMETER;
    int32_t rc = checkRecord(pDst);
    if (rc != KS_SUCCESS) return rc;
    if (pSrc) {
        rc = checkRecord(pSrc);
        if (rc != KS_SUCCESS) return rc;
    }
    uint32_t rgb;
    rc = trueColor(pSrc, uColor, &rgb);
    if (rc != KS_SUCCESS) return rc;
    const int r = int(rgb & 0xFF), g = int((rgb >> 8) & 0xFF), b = int((rgb >> 16) & 0xFF);
    const int32_t bpp = pDst->nBitsPerPixel;
    if (bpp >= 1 && bpp <= 8) {
        const int32_t index = findPaletteIndex(bitmapColors(pDst), bitmapColorCount(pDst), r, g, b);
        *puColor = KCOLOR_INDEX_FLAG | uint32_t(index);
    } else if (pDst->nOrder == ORDER_GRAY) {
        const uint32_t v = uint32_t(grayFromRGB(r, g, b));
        *puColor = pack(v, v, v);
    } else {
        *puColor = rgb;
    }
    return KS_SUCCESS;
}

KAPI int32_t K_GetBitmapPaletteEntries(BITMAPRECORD* pBitmap, RGBQUAD* pEntries, int32_t nMaxEntries,
                                       int32_t* pnColors) {
    int32_t rc = checkAllocated(pBitmap);
    if (rc != KS_SUCCESS) return rc;
    if (!pnColors || nMaxEntries < 0 || (nMaxEntries > 0 && !pEntries)) return KS_INVALID_PARAMETER;
    const int32_t bpp = pBitmap->nBitsPerPixel;
    if (bpp == 12 || ((bpp == 24 || bpp == 32 || bpp == 48 || bpp == 64) && pBitmap->nOrder != ORDER_RGB &&
                      pBitmap->nOrder != ORDER_BGR))
        return KS_UNSUPPORTED_CONVERSION;
    return guarded([&]() -> int32_t {
        ColorSet set;
        if (!set.make()) return KS_NO_MEMORY;
        bool used[256] = {};
        // Rows through the row layer, so every storage kind (and a get-row
        // callback) answers the same.
        kvector<uint8_t> row(pBitmap->nBytesPerLine);
        const RGBQUAD* pal = bitmapColors(pBitmap);
        const int32_t count = pal ? bitmapColorCount(pBitmap) : 0;
        for (int32_t y = 0; y < pBitmap->nHeight; ++y) {
            rc = readFullRow(pBitmap, y, row.data());
            if (rc != KS_SUCCESS) return rc;
            if (!addRow(pBitmap, row.data(), used, set)) return KS_UNSUPPORTED_CONVERSION;
        }
        if (bpp <= 8) {
            // Pixel values past the palette's entries read as black (the
            // block is padded with black).
            for (int32_t i = 0; i < (1 << bpp); ++i)
                if (used[i]) set.add(i < count ? key(pal[i].rgbRed, pal[i].rgbGreen, pal[i].rgbBlue) : 0u);
        }
        int32_t found = 0;
        const uint64_t* bits = set.bits.get();
        for (uint32_t w = 0; w < (1u << 18); ++w) {
            for (uint64_t word = bits[w]; word; word &= word - 1) {
                const uint32_t k = w << 6 | uint32_t(__builtin_ctzll(word));
                if (found < nMaxEntries)
                    pEntries[found] = RGBQUAD{uint8_t(k), uint8_t(k >> 8), uint8_t(k >> 16), 0};
                ++found;
            }
        }
        *pnColors = found;
        return KS_SUCCESS;
    });
}
