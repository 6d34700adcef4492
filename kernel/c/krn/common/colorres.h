// colorres.h - colour resolution of whole bitmaps, for other families
// (animation playback converts frames with it).
//
//   colorResBitmap(src, dst, bits, flags, pal, n, size)   K_ColorResBitmap without the export frame
//   NearestIndex                                          the exact nearest-entry search of a palette,
//                                                         answering as K_FindPaletteIndex
//   buildOptimizedPalette(...)                            the optimised-palette builder over a colour sample
#pragma once

#include <cstdint>

#include "memory.h"
#include "ombrix.h"
#include "palette.h"

namespace krn {

int32_t colorResBitmap(BITMAPRECORD* src, BITMAPRECORD* dst, int32_t bits, uint32_t flags,
                       const RGBQUAD* pal, int32_t nColors, uint32_t structSize) noexcept;

// Exact nearest entry of a palette (1..256 entries), the same answer as
// K_FindPaletteIndex for every colour: the colour cube is cut into cells
// (16x16x16, or 32x32x32 on request) and each cell keeps, in index order, only the entries that can be
// nearest to some colour inside it (an entry whose smallest distance to the
// cell exceeds the smallest largest distance of any entry cannot).
class NearestIndex {
public:
    // false when memory runs out. `fine` asks for 32x32x32 cells (worth
    // their building time for large palettes over many pixels).
    bool build(const RGBQUAD* pal, int32_t n, bool fine = false) noexcept;
    int32_t operator()(int r, int g, int b) const noexcept;

private:
    const RGBQUAD* pal_ = nullptr;
    int32_t n_ = 0;
    int32_t black_ = 0, white_ = 0;
    int shift_ = 4;             // cells of 2^shift_ values per axis
    kvector<uint32_t> start_;   // offsets into cand_, one per cell and one past the end
    struct Cand {
        uint32_t dmin;  // smallest squared distance from the cell to the entry
        uint32_t index;
    };
    kvector<Cand> cand_;        // per cell, by ascending dmin
    uint8_t rgb_[256][4]{};     // r, g, b, hue class
};

// The fixed 256-colour palette's direct index and row kernels live with the
// palettes (palette.h).


// Weighted colour sample -> palette. `colors` are 0x00RRGGBB, `weights`
// their counts. Writes `free` entries after the `fixed` ones of `pal`
// (fixed entries stay clusters that never move); returns the number of new
// entries (<= free), or -1 when memory runs out.
int32_t buildOptimizedPalette(const uint32_t* colors, const uint32_t* weights, size_t count,
                              RGBQUAD* pal, int32_t fixed, int32_t free, bool refine) noexcept;

namespace testhook {
// Makes the dithering job of colorResBitmap take the row layer also for
// single-block storage (tests compare it with the direct path).
extern bool colorResRowPath;
}

}  // namespace krn
