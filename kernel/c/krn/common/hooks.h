// hooks.h - calls that cross from the bitmap core into other families.
//
// Each function is defined by the family named beside it.
#pragma once

#include <cstdint>

#include "ombrix.h"

namespace krn {

// Storage (alloc.cpp): allocation with the extra argument handed to the
// allocation callbacks (the palette given to K_CreateBitmap).
int32_t allocateBitmap(BITMAPRECORD* bm, uint32_t memoryType, void* extra) noexcept;
// Storage (alloc.cpp): frees the storage of an allocated record by kind and
// clears the storage bits; the caller has checked the allocated bit.
void freeStorage(BITMAPRECORD* bm) noexcept;
// Storage (alloc.cpp): grows or shrinks the storage; the frame checks are done.
int32_t changeStorageHeight(BITMAPRECORD* bm, int32_t newHeight) noexcept;

// Storage (alloc.cpp): while on, single blocks that the calling thread
// allocates are not zero-filled. Only for a caller that writes every byte of
// the block (rows and their padding) before anything reads it (the copies).
void setNoZeroFill(bool on) noexcept;

// Regions (dis/common/bitmaprgn.cpp): deletes the bitmap's region, if any.
void releaseBitmapRegion(BITMAPRECORD* bm) noexcept;

// Display (dis/common/paintutil.cpp): frees the paint-table block a record
// owns and clears its slot.
void releasePaintTables(BITMAPRECORD* bm) noexcept;
// Display (dis/common/paintutil.cpp): forgets the paint-table block without
// freeing it, for a record that was copied byte for byte from another one
// (the copy rebuilds its own tables on the next change).
void detachPaintTables(BITMAPRECORD* bm) noexcept;

// Dithering (dither.cpp): stops a dithering run on the record, if any.
void releaseDitherState(BITMAPRECORD* bm) noexcept;

// Palettes (palette.cpp): the kernel's constant fixed palette of a depth 1..8.
const RGBQUAD* fixedPalette(int32_t bitsPerPixel) noexcept;
// Palettes (palette.cpp): fills n entries with the grey ramp k*255/(n-1).
void fillGrayRamp(RGBQUAD* pal, uint32_t n) noexcept;

}  // namespace krn
