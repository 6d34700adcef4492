// resize_kernels.h - row kernels of the resizers that have vector builds:
// integer block means of 8-bit samples (area reduction by whole factors) and
// nearest-pixel halving of 24-bit rows. Each has a plain form; the vector
// forms are picked once per call for the level the processor, the
// OMBRIX_SIMD ceiling and the test hooks allow.
#pragma once

#include <cstdint>

namespace krn::rsz {

// The vector level to use now (conv::kSimdNone .. kSimdAvx2): the lowest of
// the processor's, the OMBRIX_SIMD ceiling and the test cap; none when the
// plain loops are forced.
int simdLevel() noexcept;

// Rounded block mean (sum + n/2) / n by a multiply and a shift, exact for
// sums of n 8-bit samples while n <= kBoxMaxPixels.
constexpr int32_t kBoxMaxPixels = 4096;
struct BoxDivider {
    uint32_t half;
    uint64_t mul;
    uint8_t operator()(uint32_t sum) const noexcept { return uint8_t((uint64_t(sum + half) * mul) >> 32); }
};
BoxDivider boxDivider(int32_t n) noexcept;

// Adds m 8-bit samples to 16-bit column sums (or sets them when first).
void boxAddRow(const uint8_t* s, uint16_t* acc, int32_t m, bool first, int level) noexcept;
// n target pixels of c channels (1, 3, 4) from column sums: each the
// rounded mean of bx neighbouring sums of its channel.
void boxFinishRow(const uint16_t* acc, uint8_t* d, int32_t n, int32_t bx, int32_t c, BoxDivider div) noexcept;

// 2 x 2 block means of two source rows a, b into n target pixels of c
// channels, pixels [from, n), plainly.
void box22Plain(const uint8_t* a, const uint8_t* b, uint8_t* d, int32_t from, int32_t n, int32_t c) noexcept;
// The vector form: does the leading pixels it can without reading past 2n
// source pixels or writing past n target pixels and returns their count.
using Box22Fn = int32_t (*)(const uint8_t* a, const uint8_t* b, uint8_t* d, int32_t n) noexcept;
Box22Fn pickBox22(int32_t c, int level) noexcept;  // null: plain only

// Nearest halving of a 24-bit row: target pixel i = source pixel 2i, the
// leading pixels that need no read past oldW source pixels or write past n
// target pixels; returns their count (the caller finishes the row).
using Halve24Fn = int32_t (*)(const uint8_t* src, uint8_t* dst, int32_t n, int32_t oldW) noexcept;
Halve24Fn pickHalve24(int level) noexcept;  // null: plain only

}  // namespace krn::rsz
