// combine.h - the combine family for other kernel families and the tests.
//
//   combinePlan(flags, bpp, &plan)   the combine plan of a flag word (-13 for
//                                    an invalid word); nothing is touched
//   CombineFormat                    how one depth is split into samples
//   combineFormat(bm)                the format of a bitmap (depth, order,
//                                    significant bits of grey images)
//   pickCombineRow(plan, fmt, simd)  the row kernel for one plan and format,
//                                    picked once per call; simd false gives
//                                    the plain reference kernel
//
// A row kernel combines n pixels: `src` and `dst` point at the byte holding
// the first pixel, `srcBit`/`dstBit` are that pixel's bit offset in it (0 for
// whole-byte depths; 0 or 4 at 12 bits). The kernel writes exactly the n
// destination pixels, never the bits of a neighbour. `scratch` holds
// combineScratchBytes(n) bytes.
#pragma once

#include <cstddef>
#include <cstdint>

#include "ombrix.h"

namespace krn {

// Flag-word fields.
constexpr uint32_t kCombineSrcMask = 0x000Fu;
constexpr uint32_t kCombineDstMask = 0x00F0u;
constexpr uint32_t kCombineOpMask = 0x0F00u;
constexpr uint32_t kCombineResMask = 0xF000u;

// Bits of the plan word.
constexpr uint16_t kPlanReadSrc = 0x1000;
constexpr uint16_t kPlanReadDst = 0x2000;
constexpr uint16_t kPlanBitwise = 0x4000;
constexpr uint16_t kPlanInvSrc = 0x0100;
constexpr uint16_t kPlanInvDst = 0x0200;
constexpr uint16_t kPlanInvRes = 0x0400;

// Row operation codes of an arithmetic plan.
enum RowCode : uint8_t {
    kRowAdd = 0x10,
    kRowSubSrc = 0x11,   // D - S
    kRowSubDst = 0x12,   // S - D
    kRowMul = 0x13,
    kRowDivSrc = 0x14,   // D * M / S
    kRowDivDst = 0x15,   // S * M / D
    kRowAvg = 0x16,
    kRowMin = 0x17,
    kRowMax = 0x18,
    kRowAlpha = 0x19,
};

struct CombinePlan {
    uint16_t word = 0;      // the plan word
    uint8_t srcOp = 0;      // 0 value, 1 inverted, 2 all 0, 3 all 1
    uint8_t dstOp = 0;
    uint8_t resOp = 0;
    bool bitwise() const noexcept { return word & kPlanBitwise; }
    bool readsSrc() const noexcept { return word & kPlanReadSrc; }
    bool readsDst() const noexcept { return word & kPlanReadDst; }
    uint8_t truth() const noexcept { return uint8_t(word & 0x0F); }
    uint8_t rowCode() const noexcept { return uint8_t(word & 0xFF); }
    // The bitwise plan that leaves the destination as it stands.
    bool nothing() const noexcept { return bitwise() && truth() == 0xA; }
};

int32_t combinePlan(uint32_t flags, int32_t dstBpp, CombinePlan* out) noexcept;

enum class SampleKind : uint8_t {
    Bits,     // 1-7 bits: one sample per pixel, most significant bits first
    Bytes,    // 8, 24, 32 bits: one sample per byte
    Rgb555,   // 16-bit colour: three 5-bit samples (bits 0, 5, 10)
    Rgb565,   // 16-bit 5-6-5: samples of 5, 6 and 5 bits (bits 0, 5, 11)
    Grey12,   // 12-bit grey, two pixels in three bytes
    Words,    // 16-bit grey, 48 and 64 bits: 16-bit little-endian samples
};

struct CombineFormat {
    int32_t bpp = 0;
    SampleKind kind = SampleKind::Bytes;
    uint32_t maxSample = 255;   // M (of the red and blue samples for 5-6-5)
    bool alpha = false;         // four samples per pixel, the fourth alpha (32, 64 bits)
};

CombineFormat combineFormat(const BITMAPRECORD* bm) noexcept;

struct CombineRowArgs {
    const uint8_t* src;
    uint32_t srcBit;
    uint8_t* dst;
    uint32_t dstBit;
    uint32_t n;
    uint8_t* scratch;
};
using CombineRowFn = void (*)(const CombinePlan& plan, const CombineFormat& fmt, const CombineRowArgs& a);

CombineRowFn pickCombineRow(const CombinePlan& plan, const CombineFormat& fmt, bool simd) noexcept;
// The 8-bit alpha-over kernel of one SIMD level, whatever OMBRIX_SIMD says:
// 0 plain (the reference), 1 AVX2 with FMA; null for any other level and
// for a level the processor lacks.
CombineRowFn alphaOver8Kernel(int level) noexcept;
// Scratch bytes a row kernel needs for n pixels (0 when n is absurd).
size_t combineScratchBytes(uint64_t n, int32_t bpp) noexcept;

// K_CombineBitmapKrn without the export frame (for playback and the other families).
int32_t combineBitmap(BITMAPRECORD* pDst, int32_t nXDst, int32_t nYDst, int32_t nWidth, int32_t nHeight,
                      BITMAPRECORD* pSrc, int32_t nXSrc, int32_t nYSrc, uint32_t uFlags) noexcept;

// For the tests and the benchmark, per thread: bit 1 plain kernels only, bit 2
// always the row layer (no in-place path), bit 4 one thread. Returns the old mode.
uint32_t setCombineTestMode(uint32_t mode) noexcept;

}  // namespace krn
