// palette.cpp - fixed palettes, grey ramps and the nearest-entry search.
#include <array>
#include <cstring>

#include "hooks.h"
#include "kernel.h"
#include "palette.h"
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

int32_t findPaletteIndexScalar(const RGBQUAD* pal, int32_t n, int r, int g, int b) noexcept {
    if (!pal) return 0;
    if (n <= 0) return -1;
    auto isRgb = [](const RGBQUAD& e, int v) { return e.rgbRed == v && e.rgbGreen == v && e.rgbBlue == v; };
    if (r == 0 && g == 0 && b == 0) {
        if (isRgb(pal[0], 0)) return 0;
        if (isRgb(pal[n - 1], 0)) return n - 1;
    } else if (r == 255 && g == 255 && b == 255) {
        if (isRgb(pal[n - 1], 255)) return n - 1;
        if (isRgb(pal[0], 255)) return 0;
    }
    const int cls = hueClass(r, g, b);
    uint32_t best = 0xFFFFFFFFu;
    int32_t bestIndex = -1;
    for (int32_t i = 0; i < n; ++i) {
        int dr = pal[i].rgbRed - r, dg = pal[i].rgbGreen - g, db = pal[i].rgbBlue - b;
        uint32_t d = uint32_t(dr * dr + dg * dg + db * db);
        if (d < best || (d == best && hueClass(pal[i].rgbRed, pal[i].rgbGreen, pal[i].rgbBlue) == cls)) {
            best = d;
            bestIndex = i;
            if (d == 0) break;
        }
    }
    return bestIndex;
}

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

KAPI int32_t K_FindPaletteIndex(const RGBQUAD* pPalette, int32_t nColors, int32_t nRed, int32_t nGreen,
                                int32_t nBlue) {
    return findPaletteIndexScalar(pPalette, nColors, nRed & 0xFF, nGreen & 0xFF, nBlue & 0xFF);
}
