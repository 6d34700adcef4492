// dither.cpp - the dithering engine.
#include "hooks.h"

namespace krn {
void releaseDitherState(BITMAPRECORD* bm) noexcept {
    // Dithering runs arrive with the dithering engine; none can be active yet.
    bm->pDitherState = nullptr;
}
}  // namespace krn
