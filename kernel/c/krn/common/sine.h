// sine.h - the fixed-point sine table for kernels that rotate or shear.
#pragma once

#include <cstdint>

namespace krn {
// The 9001-entry quarter-wave table: T[a] for a = 0..9000 hundredths of a
// degree, 2.14 fixed point.
const int32_t* sineTable() noexcept;
// Same results as K_SinValue / K_CosValue, callable inline from kernels.
int32_t sinFixed(int32_t nAngle) noexcept;
int32_t cosFixed(int32_t nAngle) noexcept;
}  // namespace krn
