// palette.h - internal palette helpers shared by the converter, the dithering
// engine and colour-resolution conversion.
//
//   hueClass(r, g, b)                  tie-break class of the nearest-entry search
//   findPaletteIndex(pal, n, r, g, b)  nearest entry, fastest path for this CPU
//   findPaletteIndexScalar(...)        the plain scan: the reference every fast path must match
//   findPaletteIndexSse2/Avx2(...)     the vector paths (tests compare them with the scalar scan)
//   classifyGray(pal, n)               the grey classification code (0..3)
//   bitmapColorCount(bm)               number of colours a record's palette holds
//   bitmapColors(bm)                   the record's palette, or the fixed palette of its depth
//   userMatchTable()                   the table installed for the calling thread (may be null)
//
// Components passed to the internal searches are 0..255; the exported
// K_FindPaletteIndex clamps its arguments into that range first.
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
int32_t findPaletteIndexSse2(const RGBQUAD* pal, int32_t n, int r, int g, int b) noexcept;
// Only call when the CPU has AVX2 (cpuHasAvx2()).
int32_t findPaletteIndexAvx2(const RGBQUAD* pal, int32_t n, int r, int g, int b) noexcept;
bool cpuHasAvx2() noexcept;
// The path chosen once for this CPU.
int32_t findPaletteIndex(const RGBQUAD* pal, int32_t n, int r, int g, int b) noexcept;

// Grey classification of n entries (n may be 0: the first entry is still read).
int32_t classifyGray(const RGBQUAD* pal, int32_t n) noexcept;

// Colours of a record: for depths up to 8, nColors when it is 1..2^depth,
// else 2^depth; for deeper records nColors (0..256) when a palette is attached.
int32_t bitmapColorCount(const BITMAPRECORD* bm) noexcept;
// The record's palette, or the fixed palette of its depth when it has none
// (null for a deeper record without a palette).
const RGBQUAD* bitmapColors(const BITMAPRECORD* bm) noexcept;

// The user match table installed for the calling thread, or null.
const uint32_t* userMatchTable() noexcept;

}  // namespace krn
