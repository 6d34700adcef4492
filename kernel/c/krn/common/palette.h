// palette.h - internal palette helpers shared by the converter and the dithering engine.
#pragma once

#include <cstdint>

#include "ombrix.h"

namespace krn {

// 3-bit hue class used to break distance ties in the nearest-entry search:
// 4 when red < blue, 2 when green is below red and blue, 1 when green is above both.
constexpr int hueClass(int r, int g, int b) noexcept {
    return (r < b ? 4 : 0) | ((g < r && g < b) ? 2 : 0) | ((g > r && g > b) ? 1 : 0);
}

const RGBQUAD* webPalette() noexcept;
// The plain nearest-entry scan: the reference that faster searches must match.
int32_t findPaletteIndexScalar(const RGBQUAD* pal, int32_t n, int r, int g, int b) noexcept;

}  // namespace krn
