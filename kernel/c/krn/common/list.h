// list.h - bitmap lists for the kernel's own use (playback).
#pragma once

#include <cstdint>

#include "ombrix.h"

namespace krn {
// The items of a live list (count in *count), or null for a handle that is
// not one; the pointer is valid until the list next changes.
BITMAPRECORD* listItems(HBITMAPLIST h, uint32_t* count) noexcept;
}  // namespace krn
