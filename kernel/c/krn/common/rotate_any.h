// rotate_any.h - rotation by any angle and shear: the inverse-mapping engine.
//
// The engine renders destination rows from a source by an affine inverse map
// kept in fixed point: the source position of destination pixel (i, j) is
//   X = x0 + i * xi + j * xj,  Y = y0 + i * yi + j * yj
// in units of 1/32768 source pixel, pixel centres at whole numbers. Rotation
// maps centre to centre with the 2.14 sines of the kernel's table, so every
// position is exact and right angles copy pixels unchanged.
//
//   Map                   the inverse map
//   rotationMap(...)      the map of a turn (angle in hundredths of a degree,
//                         clockwise as stored rows are drawn top down)
//   enlargedRotationSize  width and height that hold the whole turned image
//   renderPlain(...)      one band of rows of a single-block source into
//                         memory, for benchmarks and tests (the exported
//                         calls use the same kernels)
//   forcePlainKernels     test hook: the plain reference kernels instead of SIMD
#pragma once

#include <cstdint>

namespace krn {

constexpr int kMapBits = 15;
constexpr int64_t kMapOne = int64_t(1) << kMapBits;

struct Map {
    int64_t x0, xi, xj;
    int64_t y0, yi, yj;
};

enum class Interp { Nearest = 0, Bilinear = 1, Bicubic = 2 };

// psi: turn in hundredths of a degree, 0..35999.
Map rotationMap(int32_t srcW, int32_t srcH, int32_t dstW, int32_t dstH, int32_t psi) noexcept;
// The rotated bounding box of a srcW x srcH image (ceil of |c|W + |s|H, less 1/64).
void enlargedRotationSize(int32_t srcW, int32_t srcH, int32_t psi, int64_t* w, int64_t* h) noexcept;

// Renders destination rows [y0, y1) of a dstW-wide image into dst (rows dstBpl
// apart, starting with row y0) from a source in memory. fill: the fill pixel
// (bytes in row order, for depths below 8 its value in the low bits).
// 1, or -27 for an interpolation the depth does not support.
int32_t renderPlain(const uint8_t* src, int32_t srcW, int32_t srcH, uint32_t srcBpl, int32_t bpp, bool alpha,
                    uint8_t* dst, int32_t dstW, uint32_t dstBpl, int32_t y0, int32_t y1, const Map& map,
                    Interp interp, const uint8_t fill[8]) noexcept;

namespace testhook {
void forcePlainRotateKernels(bool on) noexcept;
}

}  // namespace krn
