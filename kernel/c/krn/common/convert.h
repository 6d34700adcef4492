// convert.h - the buffer converter, for other families of the kernel.
//
// One dispatcher brings a run of pixels from one format (bits per pixel,
// colour order, grey window) to another, in place, without allocating.
// The exported K_ConvertBuffer* functions are thin entries over it.
//
//   convertBuffer(...)          the dispatcher (all arguments of the widest
//                               export plus an optional colour-match tree)
//   convertBufferBytes(w,a,b)   bytes a buffer needs to convert w pixels
//                               from depth a to depth b (unpadded)
//   convertRowToBGR24(...)      any source row to 24-bit BGR (the dithering
//                               engine's input form)
//   buildColorMatchTree / freeColorMatchTree / colorMatchTreeLookup
//                               the colour-match tree over a palette
//   grayScale(v, from, to)      the grey rescaling rule between bit widths
//   grayFromRGB(r, g, b)        (2R + 5G + B + 4) >> 3
//   rgbToHsv / hsvToRgb         the integer HSV model
#pragma once

#include <cstddef>
#include <cstdint>

#include "ombrix.h"

namespace krn {

constexpr uint32_t kConvertSrcGray = 0x01u;
constexpr uint32_t kConvertDstGray = 0x02u;
constexpr uint32_t kConvertSrcRange = 0x04u;
constexpr uint32_t kConvertDstRange = 0x08u;
constexpr uint32_t kConvertTransparent = 0x80u;

// A colour reference whose top byte is 0x01 names a palette index (low byte).
constexpr bool colorRefIsIndex(uint32_t cr) noexcept { return (cr >> 24) == 0x01u; }

constexpr int grayFromRGB(int r, int g, int b) noexcept { return (2 * r + 5 * g + b + 4) >> 3; }

// Rescales a grey value of `from` significant bits to `to` bits: narrower
// keeps the top bits (v >> (from - to)), wider stretches so that full scale
// stays full scale: v * (2^to - 1) / (2^from - 1), integer division.
constexpr uint32_t grayScale(uint32_t v, int from, int to) noexcept {
    if (to == from) return v;
    if (to < from) return v >> (from - to);
    return uint32_t((uint64_t(v) * ((uint64_t(1) << to) - 1)) / ((uint64_t(1) << from) - 1));
}

// The colour-match tree: one block of 256-word nodes. The root (node 0) is
// indexed by blue, its children by green, theirs by red. A word below 256 is
// a palette index, 0xFFFFFFFF an absent prefix, any other word the word
// offset of a child node inside the block.
constexpr uint32_t kTreeAbsent = 0xFFFFFFFFu;

// Builds the tree over n (1..256) entries; nullptr on a bad argument or
// when memory runs out. Free with freeColorMatchTree.
uint32_t* buildColorMatchTree(const RGBQUAD* pal, int32_t n) noexcept;
void freeColorMatchTree(uint32_t* tree) noexcept;
// The palette index for (r, g, b), or -1 when no entry has its prefix.
inline int32_t colorMatchTreeLookup(const uint32_t* tree, int r, int g, int b) noexcept {
    uint32_t w = tree[b];
    if (w < 256u) return int32_t(w);
    if (w >= 0xFFFFFFFEu) return -1;
    w = tree[w + uint32_t(g)];
    if (w < 256u) return int32_t(w);
    if (w >= 0xFFFFFFFEu) return -1;
    w = tree[w + uint32_t(r)];
    if (w < 256u) return int32_t(w);
    return -1;
}

// Bytes needed for converting `width` pixels between two depths in place:
// the larger of the two unpadded row sizes (depth 0 counts as 8).
size_t convertBufferBytes(int32_t width, int32_t srcBits, int32_t dstBits) noexcept;

// The dispatcher. Checks every argument first and returns -13 before any
// pixel is touched; returns 1, or -16 after converting when destination
// order 5 is asked at a depth other than 24 or 48. `tree` (may be null)
// answers palette-index searches in place of the nearest-colour scan.
int32_t convertBuffer(uint8_t* buffer, int32_t width, int32_t srcBits, int32_t dstBits,
                      int32_t srcOrder, int32_t dstOrder, const RGBQUAD* srcPalette,
                      const RGBQUAD* dstPalette, void* extra, uint32_t flags, int32_t lowBit,
                      int32_t highBit, uint32_t crTransparent, const uint32_t* tree) noexcept;

// Converts a row of any source format to 24-bit BGR in place (the buffer
// must hold convertBufferBytes(width, srcBits, 24) bytes). Grey sources
// (order 2) use their whole sample unless flags carries kConvertSrcRange.
inline int32_t convertRowToBGR24(uint8_t* buffer, int32_t width, int32_t srcBits, int32_t srcOrder,
                                 const RGBQUAD* srcPalette, uint32_t flags = 0, int32_t lowBit = -1,
                                 int32_t highBit = -1) noexcept {
    return convertBuffer(buffer, width, srcBits, 24, srcOrder, ORDER_BGR, srcPalette, nullptr, nullptr,
                         flags, lowBit, highBit, 0, nullptr);
}

// The forward (into order 5) and inverse wide-primaries matrices, in place
// on `count` pixels of three samples each, `stride` samples apart
// (3 for 24/48 bits, 4 for 32/64 bits).
void widePrimariesForward8(uint8_t* p, size_t count, size_t stride) noexcept;
void widePrimariesForward16(uint8_t* p, size_t count, size_t stride) noexcept;
void widePrimariesInverse8(uint8_t* p, size_t count, size_t stride) noexcept;
void widePrimariesInverse16(uint8_t* p, size_t count, size_t stride) noexcept;

// HSV (hsv.cpp): the kernel's integer model, RGB red in the low byte, HSV
// hue in the low byte; the exported K_RGBtoHSV/K_HSVtoRGB call these.
uint32_t rgbToHsv(uint32_t rgb) noexcept;
uint32_t hsvToRgb(uint32_t hsv) noexcept;

}  // namespace krn
