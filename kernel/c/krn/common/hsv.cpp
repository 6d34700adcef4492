// hsv.cpp - the kernel's integer hue, saturation and value model.
//
// Hue is the proportion between the two channels above the smallest one,
// within each third of the colour circle; the inverse follows the same
// proportion, so the third channel varies as a ratio across a half-sector.
#include <algorithm>

#include "convert.h"
#include "kernel.h"

namespace krn {

uint32_t rgbToHsv(uint32_t rgb) noexcept {
    const int32_t r = int32_t(rgb & 0xFF), g = int32_t((rgb >> 8) & 0xFF), b = int32_t((rgb >> 16) & 0xFF);
    const int32_t mn = std::min({r, g, b}), mx = std::max({r, g, b});
    if (mx == mn) return uint32_t(mx) << 16;
    int32_t h16;
    if (b != mn && r != mn)  // green is the smallest
        h16 = (r - mn) * 30720 / (r - 2 * mn + b) + 61620;
    else if (b != mn)  // red is the smallest
        h16 = (b - mn) * 30720 / (g - 2 * mn + b) + 30900;
    else  // blue is the smallest
        h16 = (g - mn) * 30720 / (r - 2 * mn + g) + 180;
    // Just below a full turn the rounded hue reaches 256, which is hue 0.
    const uint32_t h = uint32_t(h16 / 360) & 0xFFu;
    const uint32_t s = uint32_t((mx - mn) * 255 / mx);
    return h | (s << 8) | (uint32_t(mx) << 16);
}

uint32_t hsvToRgb(uint32_t hsv) noexcept {
    const int32_t H = int32_t(hsv & 0xFF), S = int32_t((hsv >> 8) & 0xFF), V = int32_t((hsv >> 16) & 0xFF);
    if (S == 0) return uint32_t(V) | (uint32_t(V) << 8) | (uint32_t(V) << 16);
    const int32_t h = (H * 360) >> 8;
    const int32_t m = (255 - S) * V / 255, d = V - m;
    int32_t r, g, b;
    if (h <= 60) {
        r = V, g = d * h / (120 - h) + m, b = m;
    } else if (h <= 120) {
        r = (120 - h) * d / h + m, g = V, b = m;
    } else if (h <= 180) {
        r = m, g = V, b = (h - 120) * d / (240 - h) + m;
    } else if (h <= 240) {
        r = m, g = (240 - h) * d / (h - 120) + m, b = V;
    } else if (h <= 300) {
        r = (h - 240) * d / (360 - h) + m, g = m, b = V;
    } else {
        r = V, g = m, b = (360 - h) * d / (h - 240) + m;
    }
    return uint32_t(r) | (uint32_t(g) << 8) | (uint32_t(b) << 16);
}

}  // namespace krn

KAPI uint32_t K_RGBtoHSV(uint32_t rgb) { return krn::rgbToHsv(rgb); }

KAPI int32_t K_RGBtoHSV2(uint32_t rgb, uint32_t* pHsv) {
    if (!pHsv) return KS_INVALID_PARAMETER;
    *pHsv = krn::rgbToHsv(rgb);
    return KS_SUCCESS;
}

KAPI uint32_t K_HSVtoRGB(uint32_t hsv) { return krn::hsvToRgb(hsv); }

KAPI uint32_t K_HSVtoRGB2(const uint32_t* pHsv) { return pHsv ? krn::hsvToRgb(*pHsv) : 0u; }
