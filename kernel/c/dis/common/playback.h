// playback.h - internal hooks of animation playback.
#pragma once

#include <cstdint>

namespace krn::testhook {
// Replaces the millisecond tick source of playback (null: the steady clock).
void setPlaybackClock(uint32_t (*now)(void* ctx), void* ctx) noexcept;
}  // namespace krn::testhook
