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
//   fixed256Index / fixed256Row*       the fixed 256-colour palette without a search (palette_fixed.cpp)
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

// The index of K_FindPaletteIndex(fixed 256-colour palette, 256, r, g, b),
// computed per channel (the palette is a product grid of 8 reds, 8 greens and
// 4 blues, so the nearest entry is the nearest level of each channel; the
// values midway between two levels take the search's tie rule).
int32_t fixed256Index(int r, int g, int b) noexcept;

// Rows of 24-bit BGR pixels to indices of the fixed 256-colour palette:
// the plain loop over fixed256Index, the SSSE3 and AVX2 kernels (16 or 32 pixels a step,
// per-channel levels by threshold counting, blocks with a tie handed to the
// plain loop), and the one chosen for this processor.
void fixed256RowPlain(const uint8_t* bgr, uint8_t* idx, int32_t w) noexcept;
void fixed256RowSsse3(const uint8_t* bgr, uint8_t* idx, int32_t w) noexcept;  // only with SSSE3
void fixed256RowAvx2(const uint8_t* bgr, uint8_t* idx, int32_t w) noexcept;   // only with AVX2
bool cpuHasSsse3() noexcept;
bool cpuHasAvx2ForColorRes() noexcept;
void fixed256Row(const uint8_t* bgr, uint8_t* idx, int32_t w) noexcept;

}  // namespace krn
