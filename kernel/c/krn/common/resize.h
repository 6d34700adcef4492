// resize.h - internal calls between the nearest-pixel resizer (resize.cpp)
// and the interpolating resamplers (resample.cpp).
#pragma once

#include <cstdint>

#include "ombrix.h"

namespace krn {

// Size flags of K_SizeBitmap.
constexpr uint32_t kSizeFavourBlack = 0x01;
constexpr uint32_t kSizeResample = 0x02;
constexpr uint32_t kSizeBicubic = 0x04;
constexpr uint32_t kSizeScaleToGray = 0x08;
constexpr uint32_t kSizeLanczos = 0x10;
constexpr uint32_t kSizePremultiply = 0x20;

// Filters of the resampler.
enum class ResampleFilter { LinearOrArea, Cubic, Lanczos3 };

// Fills the allocated dst from src by interpolation (any sizes). Formats:
// src any depth; dst 8-bit grey, 12/16-bit grey, 24, 32, 48, 64 bits, or a
// palette depth (nearest entry). uFlags: kSizePremultiply for 32/64 bits.
// Rows of dst are written upside down when bFlipRows. Returns 1 or a status;
// progress through the status callback.
int32_t resampleInto(BITMAPRECORD* src, BITMAPRECORD* dst, ResampleFilter filter, uint32_t uFlags,
                     bool bFlipRows) noexcept;

// The depth an in-place resample produces for a source of depth bpp: palette
// images go to 24 bits (or 8-bit grey when their palette is grey).
int32_t resampleTargetBits(const BITMAPRECORD* src) noexcept;

// Makes a bitmap newW x newH (depth bpp) in a working record shaped like
// src (layout, order, palette, perspective, resolutions, significant bits),
// in a storage kind suited to src's. Palette: pPalette (nColors entries), or
// src's when null and the depth is src's.
int32_t createWorkingBitmap(BITMAPRECORD* work, const BITMAPRECORD* src, int32_t newW, int32_t newH,
                            int32_t bpp, bool grayPalette) noexcept;
// Moves the working record over the caller's record: the region (scaled),
// LUT, extra data and overlays stay with the image; the old storage goes.
int32_t replaceWithWorking(BITMAPRECORD* bm, BITMAPRECORD* work) noexcept;

// Test and benchmark hooks of the resampler: use the plain loops even where
// AVX2 is available; cap the threads of the row helper (0: all processors).
namespace resampletest {
void forcePlain(bool on) noexcept;
void setMaxThreads(int32_t n) noexcept;
bool plainForced() noexcept;
// Caps the vector level of the resize kernels (conv::kSimdNone .. kSimdAvx512).
void setSimdCap(int level) noexcept;
}  // namespace resampletest

}  // namespace krn
