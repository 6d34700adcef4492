// sine.cpp - fixed-point sine and cosine (2.14, 16384 = 1.0) of angles in
// hundredths of a degree, from one constant quarter-wave table.
//
//   K_SinValue, K_CosValue   fold the angle by quadrant onto the table
//   krn::sineTable()         the 9001 entries, for kernels that rotate
//
// The table is generated data (tools/gen/gen_sine_table.py, 60-digit
// arithmetic): T[a] = round half up of sin(a / 100 degrees) * 16384. The
// nearest any inexact entry comes to a rounding tie is about 1e-5, so the
// rounding of every entry is unambiguous; the tests recompute all of them.
#include "kernel.h"
#include "sine.h"

namespace {

constexpr int32_t kTable[9001] = {
#include "sine_table.inc"
};
static_assert(kTable[0] == 0 && kTable[1] == 3 && kTable[3000] == 8192 && kTable[4500] == 11585 &&
              kTable[9000] == 16384);

// Angles outside 0..36000 are reduced modulo 36000 (so -9000 is 27000 and
// 45000 is 9000): the table is never read out of range and the results stay
// those of the periodic functions.
inline int32_t reduce(int32_t a) noexcept {
    if (a >= 0 && a <= 36000) return a;
    int32_t r = a % 36000;
    return r < 0 ? r + 36000 : r;
}

}  // namespace

namespace krn {
const int32_t* sineTable() noexcept { return kTable; }

int32_t sinFixed(int32_t nAngle) noexcept {
    int32_t a = reduce(nAngle);
    if (a <= 9000) return kTable[a];
    if (a <= 18000) return kTable[18000 - a];
    if (a <= 27000) return -kTable[a - 18000];
    return -kTable[36000 - a];
}

int32_t cosFixed(int32_t nAngle) noexcept {
    int32_t a = reduce(nAngle);
    if (a <= 9000) return kTable[9000 - a];
    if (a <= 18000) return -kTable[a - 9000];
    if (a <= 27000) return -kTable[27000 - a];
    return kTable[a - 27000];
}
}  // namespace krn

KAPI int32_t K_SinValue(int32_t nAngle) { return krn::sinFixed(nAngle); }
KAPI int32_t K_CosValue(int32_t nAngle) { return krn::cosFixed(nAngle); }
