// palette.cpp - fixed palettes, grey ramps, grey classification, the exported
// nearest-entry search and the user match table.
//
//   K_GetFixedPalette, K_IntGetFixedPalette, K_IntGetNetscapePalette
//   K_CreateGrayPalette, K_CreateFixedPalette, K_DupPalette      blocks from K_GlobalAlloc
//   K_IsGrayScalePalette, K_IntIsGrayScaleBitmap                classification codes 0..3
//   K_FindPaletteIndex                                          (search in palette_search.cpp)
//   K_CreateUserMatchTable, K_FreeUserMatchTable,
//   K_SetUserMatchTable, K_GetUserMatchTable                    per-thread table
//
// The palette helpers that work on a bitmap record are in palette_bitmap.cpp.
#include <array>
#include <cstring>

#include "hooks.h"
#include "kernel.h"
#include "memory.h"
#include "palette.h"
#include "settings.h"
#include "../windowsemul/globalmem.h"

namespace krn {
namespace {

constexpr uint8_t L4[4] = {0, 85, 170, 255};
constexpr uint8_t L8[8] = {0, 36, 73, 109, 146, 182, 219, 255};
constexpr uint8_t kSixteen[16][3] = {{0, 0, 0},     {128, 0, 0},   {0, 128, 0},   {128, 128, 0},
                                     {0, 0, 128},   {128, 0, 128}, {0, 128, 128}, {128, 128, 128},
                                     {192, 192, 192}, {255, 0, 0}, {0, 255, 0},   {255, 255, 0},
                                     {0, 0, 255},   {255, 0, 255}, {0, 255, 255}, {255, 255, 255}};

constexpr RGBQUAD q(int r, int g, int b) { return RGBQUAD{uint8_t(b), uint8_t(g), uint8_t(r), 0}; }

struct FixedPalettes {
    // Depth d occupies entries [offset(d), offset(d) + 2^d).
    std::array<RGBQUAD, 2 + 4 + 8 + 16 + 32 + 64 + 128 + 256> all{};
    std::array<RGBQUAD, 256> web{};
    static constexpr size_t offset(int d) { return (size_t(1) << d) - 2; }

    constexpr FixedPalettes() {
        for (int d = 1; d <= 8; ++d) {
            int n = 1 << d;
            for (int i = 0; i < n; ++i) all[offset(d) + i] = entry(d, i);
        }
        for (int i = 0; i < 256; ++i)
            web[i] = i < 216 ? q(51 * (i / 36), 51 * ((i / 6) % 6), 51 * (i % 6)) : q(0, 0, 0);
    }
    static constexpr RGBQUAD entry(int d, int i) {
        switch (d) {
            case 1: return i ? q(255, 255, 255) : q(0, 0, 0);
            case 2: return q(L4[i], L4[i], L4[i]);
            case 3: return q((i & 4) ? 255 : 0, (i & 2) ? 255 : 0, (i & 1) ? 255 : 0);
            case 4: return q(kSixteen[i][0], kSixteen[i][1], kSixteen[i][2]);
            case 5: return q(L4[i >> 3], L4[(i >> 1) & 3], 255 * (i & 1));
            case 6: return q(L4[i >> 4], L4[(i >> 2) & 3], L4[i & 3]);
            case 7: return q(L4[i >> 5], L8[(i >> 2) & 7], L4[i & 3]);
            default: return q(L8[i >> 5], L8[(i >> 2) & 7], L4[i & 3]);
        }
    }
};
constexpr FixedPalettes kFixed{};

constexpr size_t kMatchTableWords = 32768;

inline int clampComponent(int32_t v) noexcept { return v < 0 ? 0 : v > 255 ? 255 : int(v); }

// A lookup table of a deep grey bitmap: RGBQUAD entries, as the window-level
// functions fill them.
int32_t classifyLut(const RGBQUAD* lut, int32_t n) noexcept {
    bool up = true, down = true;
    for (int32_t i = 0; i < n; ++i) {
        const RGBQUAD& e = lut[i];
        if (e.rgbRed != e.rgbGreen || e.rgbRed != e.rgbBlue) return 0;
        if (i > 0) {
            if (e.rgbRed < lut[i - 1].rgbRed) up = false;
            if (e.rgbRed > lut[i - 1].rgbRed) down = false;
        }
    }
    if (up) return 1;
    return down ? 2 : 3;
}

}  // namespace

const RGBQUAD* fixedPalette(int32_t bpp) noexcept {
    if (bpp < 1 || bpp > 8) return nullptr;
    return kFixed.all.data() + FixedPalettes::offset(bpp);
}

const RGBQUAD* webPalette() noexcept { return kFixed.web.data(); }

void fillGrayRamp(RGBQUAD* pal, uint32_t n) noexcept {
    if (n == 1) {
        pal[0] = q(0, 0, 0);
        return;
    }
    for (uint32_t k = 0; k < n; ++k) {
        auto v = uint8_t((k * 255u) / (n - 1));
        pal[k] = q(v, v, v);
    }
}

int32_t classifyGray(const RGBQUAD* pal, int32_t n) noexcept {
    for (int32_t i = 0; i < n; ++i)
        if (pal[i].rgbRed != pal[i].rgbGreen || pal[i].rgbRed != pal[i].rgbBlue) return 0;
    if (n <= 1) {
        // One entry, or none: the first entry decides.
        if (pal[0].rgbRed == 0) return 1;
        return pal[0].rgbRed == 255 ? 2 : 3;
    }
    // The expected ramp accumulates the truncated step (mod 256), so ramps
    // whose exact entries are not multiples of it (8 entries: 0, 36, 72, 109
    // against 0, 36, 72, 108) classify as 3. Kept on purpose.
    const uint32_t step = 255u / uint32_t(n - 1);
    const bool descending = pal[0].rgbRed != 0;
    uint8_t expect = descending ? 255 : 0;
    for (int32_t i = 0; i < n; ++i) {
        if (pal[i].rgbRed != expect) return 3;
        expect = uint8_t(descending ? expect - step : expect + step);
    }
    return descending ? 2 : 1;
}

int32_t bitmapColorCount(const BITMAPRECORD* bm) noexcept {
    if (bm->nBitsPerPixel >= 1 && bm->nBitsPerPixel <= 8) {
        int32_t full = 1 << bm->nBitsPerPixel;
        return bm->nColors >= 1 && bm->nColors <= full ? bm->nColors : full;
    }
    if (!bm->pPalette) return 0;
    return bm->nColors >= 0 && bm->nColors <= 256 ? bm->nColors : 0;
}

const RGBQUAD* bitmapColors(const BITMAPRECORD* bm) noexcept {
    if (bm->pPalette) return bm->pPalette;
    return fixedPalette(bm->nBitsPerPixel);
}

const uint32_t* userMatchTable() noexcept { return settings().pUserMatchTable; }

}  // namespace krn

using namespace krn;

KAPI int32_t K_GetFixedPalette(RGBQUAD* pPalette, int32_t nBitsPerPixel) {
    if (!pPalette || nBitsPerPixel < 0 || nBitsPerPixel > 8) return KS_INVALID_PARAMETER;
    if (nBitsPerPixel == 0)
        fillGrayRamp(pPalette, 256);
    else
        std::memcpy(pPalette, fixedPalette(nBitsPerPixel), sizeof(RGBQUAD) << nBitsPerPixel);
    return KS_SUCCESS;
}

KAPI const RGBQUAD* K_IntGetFixedPalette(int32_t nBitsPerPixel) { return fixedPalette(nBitsPerPixel); }
KAPI const RGBQUAD* K_IntGetNetscapePalette(void) { return webPalette(); }

KAPI RGBQUAD* K_CreateGrayPalette(int32_t nBitsPerPixel) {
    if (nBitsPerPixel < 0 || nBitsPerPixel > 8) return nullptr;
    uint32_t n = 1u << (nBitsPerPixel == 0 ? 8 : nBitsPerPixel);
    auto* pal = static_cast<RGBQUAD*>(globalAlloc(GMEM_FIXED, n * sizeof(RGBQUAD)));
    if (pal) fillGrayRamp(pal, n);
    return pal;
}

KAPI RGBQUAD* K_CreateFixedPalette(int32_t nBitsPerPixel) {
    if (nBitsPerPixel < 0 || nBitsPerPixel > 8) return nullptr;
    uint32_t n = 1u << (nBitsPerPixel == 0 ? 8 : nBitsPerPixel);
    auto* pal = static_cast<RGBQUAD*>(globalAlloc(GMEM_FIXED, n * sizeof(RGBQUAD)));
    if (pal) K_GetFixedPalette(pal, nBitsPerPixel);
    return pal;
}

KAPI RGBQUAD* K_DupPalette(const RGBQUAD* pPalette, int32_t nColors) {
    if (!pPalette || nColors < 1 || nColors > 65536) return nullptr;
    auto* pal = static_cast<RGBQUAD*>(globalAlloc(GMEM_FIXED, size_t(nColors) * sizeof(RGBQUAD)));
    if (pal) std::memcpy(pal, pPalette, size_t(nColors) * sizeof(RGBQUAD));
    return pal;
}

KAPI int32_t K_IsGrayScalePalette(const RGBQUAD* pPalette, int32_t nColors) {
    if (!pPalette || nColors < 0) return KS_INVALID_PARAMETER;
    return classifyGray(pPalette, nColors);
}

KAPI int32_t K_IntIsGrayScaleBitmap(const BITMAPRECORD* pBitmap) {
    int32_t rc = checkRecord(pBitmap);
    if (rc != KS_SUCCESS) return rc;
    const int32_t bpp = pBitmap->nBitsPerPixel;
    if (bpp >= 1 && bpp <= 8) {
        const int32_t n = bitmapColorCount(pBitmap);
        int32_t cls = classifyGray(bitmapColors(pBitmap), n);
        // A ramp that does not cover every pixel value is not a full ramp.
        if ((cls == 1 || cls == 2) && n < (1 << bpp)) cls = 3;
        return cls;
    }
    if (pBitmap->nOrder != ORDER_GRAY) return 0;
    if (!pBitmap->pLUT || pBitmap->nLUTLength <= 0) return 1;
    return classifyLut(static_cast<const RGBQUAD*>(pBitmap->pLUT), pBitmap->nLUTLength);
}

KAPI int32_t K_FindPaletteIndex(const RGBQUAD* pPalette, int32_t nColors, int32_t nRed, int32_t nGreen,
                                int32_t nBlue) {
    return findPaletteIndex(pPalette, nColors, clampComponent(nRed), clampComponent(nGreen), clampComponent(nBlue));
}

KAPI uint32_t* K_CreateUserMatchTable(const RGBQUAD* pPalette, int32_t nColors) {
    if (!pPalette || nColors < 1) return nullptr;
    auto* table = static_cast<uint32_t*>(memAlloc(kMatchTableWords * sizeof(uint32_t)));
    if (!table) return nullptr;
    for (uint32_t k = 0; k < kMatchTableWords; ++k) {
        int r = int((k >> 10) & 31) * 8, g = int((k >> 5) & 31) * 8, b = int(k & 31) * 8;
        table[k] = uint32_t(findPaletteIndex(pPalette, nColors, r, g, b) + 1);
    }
    return table;
}

KAPI int32_t K_FreeUserMatchTable(uint32_t* pTable) {
    if (!pTable) return KS_SUCCESS;
    // Do not leave the calling thread (or the process-wide block) pointing at freed memory.
    if (settings().pUserMatchTable == pTable) settings().pUserMatchTable = nullptr;
    if (processSettings().pUserMatchTable == pTable) processSettings().pUserMatchTable = nullptr;
    memFree(pTable);
    return KS_SUCCESS;
}

// The tables belong to the caller, so they are handed back writable (a table
// made by K_CreateUserMatchTable can go straight to K_FreeUserMatchTable).
KAPI uint32_t* K_SetUserMatchTable(const uint32_t* pTable) {
    ThreadSettings& ts = settings();
    const uint32_t* old = ts.pUserMatchTable;
    ts.pUserMatchTable = pTable;
    return const_cast<uint32_t*>(old);
}

KAPI uint32_t* K_GetUserMatchTable(void) { return const_cast<uint32_t*>(settings().pUserMatchTable); }
