// playback.h - internal hooks of animation playback.
#pragma once

#include <cstdint>

#include "ombrix.h"

namespace krn::testhook {
// Replaces the millisecond tick source of playback (null: the steady clock).
void setPlaybackClock(uint32_t (*now)(void* ctx), void* ctx) noexcept;
// The region of the pixels of one colour that frame drawing builds itself
// (8, 24 and 32-bit frames in memory); KS_NOT_SUPPORTED for other frames.
int32_t playbackKeyRegion(BITMAPRECORD* frame, uint32_t colour, OrvaRgn** out) noexcept;
// true: that scan without AVX2 (the plain reference).
void playbackPlainKeyScan(bool on) noexcept;
}  // namespace krn::testhook
