// rotate.h - flips, mirrors and right-angle turns for other kernel families
// (the arbitrary rotation, combine, resize).
//
// Row kernels (orient_kernels.cpp; one row or one block, any depth, no
// record; the SIMD forms are picked once per process, the plain forms stay
// callable for the tests):
//   mirrorRow(row, pixels, bpp)        pixel order of one packed row reversed in place
//   swapRows(a, b, bytes)              exchanges two byte runs
//   turnBlock(...)                     quarter turn of a pixel block (see below)
//
// Whole bitmaps (flip.cpp, rotate90.cpp). Each works on the stored rows of
// an allocated record (nothing is checked but the allocated bit: -2), moves
// the region with the pixels, reports progress from..to through the status
// callback, and on any failure or stop leaves pixels, region and record as
// they were:
//   flipStored(bm, from, to)            rows top to bottom (K_IntFlipBitmap)
//   reverseStored(bm, from, to)         each row left to right (K_IntReverseBitmap)
//   turnHalfStored(bm, from, to)        half turn, in place
//   turnQuarterStored(bm, cw, from, to) quarter turn into new storage of exchanged
//                                       size; cw: stored row 0 becomes the last
//                                       stored column. No exchange for mirrored
//                                       perspectives here: K_RotateBitmap90 does it.
//   turnRightAngle(bm, degrees, from, to)
//                                       0/90/180/270 degrees as K_RotateBitmap's
//                                       right-angle short cuts do it for a bitmap in
//                                       perspective 1 (+90 = cw), any perspective
//                                       accepted (the stored pixels turn).
#pragma once

#include <cstddef>
#include <cstdint>

#include "ombrix.h"

namespace krn {

// -- row kernels --------------------------------------------------------------
// Reverses the order of `pixels` pixels of a packed row (bit 7 of byte 0 is the
// first pixel). Bits after the last pixel in its byte are kept. Any depth that
// a record accepts.
void mirrorRow(uint8_t* row, uint32_t pixels, int32_t bpp) noexcept;
void mirrorRowPlain(uint8_t* row, uint32_t pixels, int32_t bpp) noexcept;
void swapRows(uint8_t* a, uint8_t* b, size_t bytes) noexcept;

// Rows become columns. The source block is h rows of w pixels at `src` (rows
// sstride bytes apart, the first pixel at bit 7 of the first byte); the
// destination block is w rows of h pixels at `dst` (dstride apart, first pixel
// at bit 7): dst[r][c] = src[revY ? h-1-c : c][revX ? w-1-r : r].
// (revY, revX) = (1, 0) is the clockwise quarter turn, (0, 1) the
// anticlockwise one, (0, 0) the transpose, (1, 1) the transpose across the
// other diagonal. Every destination byte that holds a pixel of the block is
// written; bits past the block's last pixel in that byte become 0.
void turnBlock(const uint8_t* src, size_t sstride, uint8_t* dst, size_t dstride, uint32_t w, uint32_t h,
               int32_t bpp, bool revY, bool revX) noexcept;
void turnBlockPlain(const uint8_t* src, size_t sstride, uint8_t* dst, size_t dstride, uint32_t w, uint32_t h,
                    int32_t bpp, bool revY, bool revX) noexcept;

// The block kernel for one depth, picked once per call of an image loop from
// the SIMD level in use (null for a depth no record has); same contract as
// turnBlock for w, h > 0.
using TurnKernel = void (*)(const uint8_t* src, size_t sstride, uint8_t* dst, size_t dstride, uint32_t w, uint32_t h,
                            bool revY, bool revX) noexcept;
TurnKernel turnKernel(int32_t bpp) noexcept;
// The kernels of one SIMD level (0 no SIMD, 1 SSSE3, 2 AVX2; capped by what
// the processor has), for the tests and the benchmark.
void turnBlockAt(int level, const uint8_t* src, size_t sstride, uint8_t* dst, size_t dstride, uint32_t w, uint32_t h,
                 int32_t bpp, bool revY, bool revX) noexcept;
// The SIMD level in use: the best the processor has, capped by OMBRIX_SIMD
// ("none", "ssse3", "avx2") as for the converter.
int orientSimdLevel() noexcept;
// Test hooks: 0 plain kernels only, else the best the processor has; or the
// kernels of one level (capped by the processor; -1 restores the level in
// use), returning the level now in effect.
void setOrientSimd(bool on) noexcept;
int setOrientSimdLevel(int level) noexcept;

// -- whole bitmaps ------------------------------------------------------------
int32_t flipStored(BITMAPRECORD* bm, int32_t from = 0, int32_t to = 100) noexcept;
int32_t reverseStored(BITMAPRECORD* bm, int32_t from = 0, int32_t to = 100) noexcept;
int32_t turnHalfStored(BITMAPRECORD* bm, int32_t from = 0, int32_t to = 100) noexcept;
int32_t turnQuarterStored(BITMAPRECORD* bm, bool cw, int32_t from = 0, int32_t to = 100) noexcept;
int32_t turnRightAngle(BITMAPRECORD* bm, int32_t degrees, int32_t from = 0, int32_t to = 100) noexcept;

// Stored size up to which a tiled, disk or compressed bitmap is turned through
// one temporary block; above it the turn runs in bands straight into storage
// of the bitmap's own kind.
constexpr uint64_t kTurnThroughCopyBytes = 18000000;
// Test hooks: band budget of the turn in bytes, and the stored size up to
// which the turn goes through one temporary block (0 restores the defaults).
void setTurnBandBytes(uint64_t bytes) noexcept;
void setTurnCopyLimit(uint64_t bytes) noexcept;

}  // namespace krn
