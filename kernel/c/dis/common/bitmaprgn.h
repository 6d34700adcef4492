// bitmaprgn.h - bitmap regions for other kernel families.
//
//   bitmapRegion(bm)             the bitmap's OrvaRgn, or nullptr without one
//   clipSegmentsMax(bm)          x values one row can yield (2 without region)
//   clipSegments(bm, row, out)   the row's clip segments (K_GetBitmapClipSegments)
//   setBitmapRegion(...)         K_SetBitmapRgn (takes ownership of the region)
//   putRowSegments(...)          writes pixel runs [x1, x2) of one stored row from a full row buffer
//   fillRaw(bm, raw)             K_FillBitmap2
//   colorRegion(bm, c, grey, r)  the colour-region builder: one pass over the rows,
//                                runs of matching pixels (grey: "white after conversion to 1 bit")
#pragma once

#include <cstdint>

#include "ombrix.h"

namespace krn {
const OrvaRgn* bitmapRegion(const BITMAPRECORD* bm) noexcept;
uint32_t clipSegmentsMax(const BITMAPRECORD* bm) noexcept;
uint32_t clipSegments(const BITMAPRECORD* bm, int32_t row, int32_t* out) noexcept;
int32_t setBitmapRegion(BITMAPRECORD* bm, const RGNXFORM* xf, OrvaRgn* rgn, uint32_t mode) noexcept;
int32_t putRowSegments(BITMAPRECORD* bm, int32_t row, const uint8_t* rowData, const int32_t* segs,
                       uint32_t count) noexcept;
int32_t fillRaw(BITMAPRECORD* bm, uint64_t raw) noexcept;
int32_t colorRegion(const BITMAPRECORD* src, uint32_t color, bool whiteByGrey, OrvaRgn** out) noexcept;
}  // namespace krn
