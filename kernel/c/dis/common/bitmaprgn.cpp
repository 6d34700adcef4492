// bitmaprgn.cpp - regions attached to bitmaps.
#include "../../krn/common/hooks.h"

namespace krn {
void releaseBitmapRegion(BITMAPRECORD* bm) noexcept {
    // Regions arrive with the region engine; until then a record never has one.
    bm->hRgn = nullptr;
}
}  // namespace krn
