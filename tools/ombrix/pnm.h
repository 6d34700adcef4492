// pnm.h - binary PNM and PAM images in and out of the ombrix tool.
//
// Reading (P4, P5, P6, P7; maxval 1..65535) makes a new bitmap in
// conventional memory, view perspective TOP_LEFT:
//   P4, PAM BLACKANDWHITE          1-bit, fixed palette (index 0 black, 1 white)
//   P5, PAM GRAYSCALE[_ALPHA]      8-bit with the 256-level grey ramp
//   P6, PAM RGB[_ALPHA]            24-bit, ORDER_BGR
// Samples with a maxval other than 255 are scaled to 0..255 with rounding;
// alpha channels are dropped. ASCII formats (P1-P3) are refused.
//
// Writing picks the format from the bitmap, in its viewed orientation (all
// eight view perspectives):
//   1-bit whose two colours are black and white    P4
//   depths up to 8 with an all-grey palette        P5 (the entries' grey values)
//   other depths up to 8, 16-bit colour, 24, 32    P6, maxval 255
//   16-bit grey                                     P5, maxval 65535
//   48 and 64 bits                                  P6, maxval 65535
// A path ending in ".pam" gives the same samples as P7 with a TUPLTYPE.
// 12-bit grey and the ORDER_ROMM primaries are refused.
//
// Results are kernel status codes: 1 success, -10 file not found, -14 cannot
// open, -7 truncated or malformed file, -5 write error, -16 unsupported kind,
// -794 unsupported bitmap format, or what the kernel returned.
#pragma once

#include <cstdint>
#include <string>

#include "ombrix.h"

namespace pnm {

// On success `bm` holds a new bitmap the caller frees with K_FreeBitmap; on
// failure `bm` is left as it was. `error` (optional) receives a short reason.
int32_t read(const std::string& path, BITMAPRECORD& bm, std::string* error = nullptr);

// The bitmap is accessed and released around the write (its lock count is
// restored); the pixels are not changed.
int32_t write(const std::string& path, const BITMAPRECORD& bm, std::string* error = nullptr);

// Expands any bitmap pnm::write accepts into a new 24-bit ORDER_BGR bitmap,
// TOP_LEFT (for tools that want one working format).
int32_t toBgr24(const BITMAPRECORD& src, BITMAPRECORD& dst);

}  // namespace pnm
