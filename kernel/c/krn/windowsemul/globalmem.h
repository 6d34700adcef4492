// globalmem.h - internal entry points of the global-memory functions.
#pragma once

#include <cstddef>
#include <cstdint>

#include "ombrix.h"

namespace krn {
HGLOBAL globalAlloc(uint32_t flags, size_t bytes) noexcept;
HGLOBAL globalReAlloc(HGLOBAL h, size_t bytes, uint32_t flags) noexcept;
HGLOBAL globalFree(HGLOBAL h) noexcept;  // null on success
void* globalLock(HGLOBAL h) noexcept;
bool globalUnlock(HGLOBAL h) noexcept;  // true while still locked
size_t globalSize(HGLOBAL h) noexcept;
bool isGlobalBlock(HGLOBAL h) noexcept;
}  // namespace krn
