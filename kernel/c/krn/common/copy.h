// copy.h - the copy family for other kernel families.
//
//   dupBitmapNewDim(dst, src, id, w, h, carry)  K_DupBitmapNewDim without the export frame: a new
//                                               record of w x h at the source's depth carrying what
//                                               the DUPBITMAP_ bits name; dst is written only on success
//   copyPixels(dst, src)                        every row of src into dst (same width, height, depth),
//                                               both allocated, padding included; copy-status progress
//   copyRectPixels(dst, src, col, row)          the source window at (col, row) of dst's size into dst
//                                               at (0, 0), clipped to the source; a window that reaches
//                                               dst's right edge zeroes the row padding; copy-status progress
//   copyBits(dst, dstBit, src, srcBit, n)       n bits, most significant bit first; dstBit, srcBit < 8;
//                                               bits of dst outside the range are kept
#pragma once

#include <cstdint>

#include "ombrix.h"

namespace krn {
// wholeWrite: the caller writes every byte of the new pixels (rows and their
// padding) before anything reads them, so a single block need not be zeroed.
int32_t dupBitmapNewDim(BITMAPRECORD* dst, const BITMAPRECORD* src, uint32_t structSize, int32_t width,
                        int32_t height, uint32_t carry, bool wholeWrite = false) noexcept;
int32_t copyPixels(BITMAPRECORD* dst, BITMAPRECORD* src) noexcept;
int32_t copyRectPixels(BITMAPRECORD* dst, BITMAPRECORD* src, int32_t col, int32_t row) noexcept;
void copyBits(uint8_t* dst, uint32_t dstBit, const uint8_t* src, uint32_t srcBit, uint64_t nBits) noexcept;
}  // namespace krn
