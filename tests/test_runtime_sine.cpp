// test_runtime_sine.cpp - the fixed-point sine table against an independent
// long-double computation, the quadrant folding against the periodic
// functions, and angles outside 0..36000.
#include <gtest/gtest.h>

#include <cmath>

#include "ombrix.h"
#include "krn/common/sine.h"

namespace {

// sin or cos of a/100 degrees times 16384, in long double.
long double exactScaled(long double hundredths, bool sine) {
    const long double rad = hundredths * 3.141592653589793238462643383279502884L / 18000.0L;
    return (sine ? std::sin(rad) : std::cos(rad)) * 16384.0L;
}

// Round half up, decided only when the product is clearly away from a tie:
// the margin is far above long double's error and far below the generator's
// 1e-5 nearest tie. 0, 30 and 90 degrees are exact (0, 8192, 16384).
TEST(RuntimeSine, EveryTableEntryFollowsTheRoundingRule) {
    const int32_t* t = krn::sineTable();
    for (int a = 0; a <= 9000; ++a) {
        const long double v = exactScaled(a, true), frac = v - std::floor(v);
        const bool exact = a == 0 || a == 3000 || a == 9000;
        ASSERT_TRUE(exact || std::fabs(frac - 0.5L) > 1e-9L) << "too close to a tie to decide: " << a;
        ASSERT_EQ(t[a], exact ? int32_t(std::lround(v)) : int32_t(std::floor(v + 0.5L))) << "entry " << a;
    }
    EXPECT_TRUE(t[1] == 3 && t[4500] == 11585);
}

// Over the whole turn the folded value is within half a unit of the true one
// (folding a negative value may round the other way) and keeps the symmetries.
TEST(RuntimeSine, FoldingMatchesTheTrueFunctionsOverTheWholeTurn) {
    for (int a = 0; a <= 36000; ++a) {
        const int32_t gs = K_SinValue(a), gc = K_CosValue(a);
        ASSERT_LE(std::fabs(gs - exactScaled(a, true)), 0.5L + 1e-9L) << a;
        ASSERT_LE(std::fabs(gc - exactScaled(a, false)), 0.5L + 1e-9L) << a;
        ASSERT_TRUE(gs == -K_SinValue(36000 - a) && gc == K_CosValue(36000 - a)) << a;
        ASSERT_TRUE(a > 18000 || gs == K_SinValue(18000 - a)) << a;
        ASSERT_TRUE(a > 9000 || gs == K_CosValue(9000 - a)) << a;
    }
}

TEST(RuntimeSine, AnglesOutsideTheTurnWrapModulo36000) {
    for (int32_t a : {-1, -4500, -9000, -36000, -36001, 36001, 45000, 72000, 123457, -987654, INT32_MAX, INT32_MIN,
                      INT32_MIN + 1, 99999999}) {
        const int32_t r = int32_t(((int64_t(a) % 36000) + 36000) % 36000);
        EXPECT_TRUE(K_SinValue(a) == K_SinValue(r) && K_CosValue(a) == K_CosValue(r)) << a;
    }
    EXPECT_TRUE(K_SinValue(-9000) == -16384 && K_CosValue(-18000) == -16384 && K_CosValue(4500) == 11585);
}

}  // namespace
