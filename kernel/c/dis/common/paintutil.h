// paintutil.h - the paint tables a record owns, for the kernel's own use.
#pragma once

#include <cstdint>

#include "ombrix.h"

namespace krn {
// The 8-bit paint table of a record, or null while it is the identity.
const uint8_t* paintTable8(const BITMAPRECORD* bm) noexcept;
}  // namespace krn

namespace krn::testhook {
// Window level (disutil.cpp): true makes it use only the plain row kernels.
void windowLevelPlainKernels(bool on) noexcept;
}  // namespace krn::testhook
