// paintutil.h - internal hooks of the display family.
#pragma once

namespace krn::testhook {
// Window level (disutil.cpp): true makes it use only the plain row kernels.
void windowLevelPlainKernels(bool on) noexcept;
}  // namespace krn::testhook
