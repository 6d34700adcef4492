// dither.h - internal interface of the dithering engine.
//
//   fixedPaletteCode(pal, n)        2..10 when pal is exactly a fixed palette
//                                   (or the web palette), else -1
//   quantiseFixed(code, r, g, b)    the direct index of a fixed-palette code
//   kDitherDispersed/Clustered      the 8x8 threshold tables of methods 7 and 8
//   ditherTaps(method)              the weights of an error-diffusion method
//
// Palette codes: 0 a caller palette with a table the run built, 1 a caller
// match table, 2..9 the fixed palettes of 2, 4, 8, ..., 256 entries, 10 the
// web palette.
#pragma once

#include <cstdint>

#include "ombrix.h"

namespace krn {

enum : int {
    kCodeBuiltTable = 0,
    kCodeCallerTable = 1,
    kCodeFixed2 = 2,    // black, white: grey >> 10
    kCodeFixed4 = 3,    // four greys: grey >> 9
    kCodeFixed8 = 4,
    kCodeFixed16 = 5,
    kCodeFixed32 = 6,
    kCodeFixed64 = 7,
    kCodeFixed128 = 8,
    kCodeFixed256 = 9,
    kCodeWeb = 10,
};

// The palette code for a target palette of n entries, when it is byte for
// byte one of the fixed palettes of full size (2^d entries for d = 1..8) or
// the 256-entry web palette; -1 otherwise.
int fixedPaletteCode(const RGBQUAD* pal, uint32_t n) noexcept;

// The direct index for palette code 2..10 (no table). Codes 2 and 3 use the
// kernel's grey (2R + 5G + B + 4) >> 3 with a fixed cut; codes 4..10 give
// the nearest entry wherever the nearest entry is unique.
int quantiseFixed(int code, int r, int g, int b) noexcept;

extern const uint8_t kDitherDispersed[8][8];
extern const uint8_t kDitherClustered[8][8];

struct DitherTap {
    int8_t dx;  // column offset
    int8_t dy;  // 0: this row (to the right), 1..3: rows below
    int16_t w;  // weight
};
struct DitherTaps {
    const DitherTap* taps;
    int count;
    int divisor;
    int rowsBelow;
    int margin;  // entries of the error row on each side
};
// The taps of methods 1..6; count 0 for any other method.
DitherTaps ditherTaps(int method) noexcept;

// The palette code of the record's run, -1 without a run.
int ditherRunCode(const BITMAPRECORD* bm) noexcept;

// Whether the record's run diffuses one grey channel (a grey source into an
// all-grey target).
bool ditherRunIsGrey(const BITMAPRECORD* bm) noexcept;

// Whole images: dithers `rows` consecutive rows of the record's run, the
// same as K_DitherLine on src[k], dst[k] in turn (bit for bit), but with
// blocks of rows in one loop where the run's kernel allows (Floyd-Steinberg
// to black and white from grey: a wavefront over the block's rows). The
// rows must not overlap one another. Status as K_DitherLine's; -1 when the
// block's buffers cannot be allocated (the run is then as it was). After a
// failure on a later block the earlier blocks are done.
int32_t ditherRows(BITMAPRECORD* bm, const uint8_t* const* src, uint8_t* const* dst, int32_t rows) noexcept;

// The rows per block that ditherRows works best with for the record's run
// (1 when it goes row by row); callers feed multiples of it.
int ditherBlockRows(const BITMAPRECORD* bm) noexcept;

namespace testhook {
// Rows per wavefront block of ditherRows: 0 the default, 1 row by row, or
// 2, 4, 8 (tests compare them).
extern int ditherWaveRows;
// Makes runs of method 1 started from now on use the plain tap loop instead
// of the register-rolling kernel (tests compare the two).
extern bool ditherPlainKernels;
}

}  // namespace krn
