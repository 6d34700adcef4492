// paintutil.h - internal hooks of the display family.
#pragma once

namespace krn::testhook {
// Window level (disutil.cpp): true makes it use only the plain row kernels.
void windowLevelPlainKernels(bool on) noexcept;
// 0 automatic, 1 plain kernels only, 2 the 32-bit computed line wherever the
// window allows it (AVX2), 3 table gathers only (AVX2), 4 the 16-bit line
// wherever the window fits it, else as automatic (AVX2).
void windowLevelKernels(int mode) noexcept;
}  // namespace krn::testhook
