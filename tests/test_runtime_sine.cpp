// test_runtime_sine.cpp - the fixed-point sine table against an independent
// long-double computation, the quadrant folding against the periodic
// functions, and angles outside 0..36000.
#include <gtest/gtest.h>

#include <cmath>

#include "ombrix.h"
#include "krn/common/sine.h"

namespace {

// Round half up of sin(a/100 degrees) * 16384 in long double. The rounding is
// decided only when the product is clearly away from a tie; the margin is far
// above long double's error and far below the generator's 1e-5 nearest tie.
long double exactScaled(long double hundredths, bool sine) {
    const long double pi = 3.141592653589793238462643383279502884L;
    long double rad = hundredths * pi / 18000.0L;
    return (sine ? std::sin(rad) : std::cos(rad)) * 16384.0L;
}
int32_t roundHalfUp(long double v) {
    long double f = std::floor(v);
    long double frac = v - f;
    EXPECT_GT(std::fabs(frac - 0.5L), 1e-9L) << "value too close to a tie to decide: " << double(v);
    return int32_t(std::floor(v + 0.5L));
}

TEST(RuntimeSine, EveryTableEntryFollowsTheRoundingRule) {
    const int32_t* t = krn::sineTable();
    for (int a = 0; a <= 9000; ++a) {
        long double v = exactScaled(a, true);
        int32_t want;
        if (a == 0 || a == 3000 || a == 9000) {
            want = int32_t(std::lround(v));  // exact values 0, 8192, 16384
        } else {
            want = roundHalfUp(v);
        }
        ASSERT_EQ(t[a], want) << "entry " << a;
    }
    EXPECT_EQ(t[1], 3);
    EXPECT_EQ(t[4500], 11585);
}

// Over the whole turn the folded value equals the rounded true value except
// where folding a negative value rounds the other way: -T[x] is round half
// down of the true value. Both are within half a unit of it.
TEST(RuntimeSine, FoldingMatchesTheTrueFunctionsOverTheWholeTurn) {
    for (int a = 0; a <= 36000; ++a) {
        long double s = exactScaled(a, true), c = exactScaled(a, false);
        int32_t gs = K_SinValue(a), gc = K_CosValue(a);
        ASSERT_LE(std::fabs(gs - s), 0.5L + 1e-9L) << a;
        ASSERT_LE(std::fabs(gc - c), 0.5L + 1e-9L) << a;
        // Symmetries the table must keep exactly.
        ASSERT_EQ(gs, -K_SinValue(36000 - a)) << a;
        ASSERT_EQ(gc, K_CosValue(36000 - a)) << a;
        if (a <= 18000) {
            ASSERT_EQ(gs, K_SinValue(18000 - a)) << a;
        }
        if (a <= 9000) {
            ASSERT_EQ(gs, K_CosValue(9000 - a)) << a;
        }
    }
}

TEST(RuntimeSine, AnglesOutsideTheTurnWrapModulo36000) {
    const int32_t probes[] = {-1,     -4500,   -9000,     -36000,    -36001,   36001,    45000,
                              72000,  123457,  -987654,   INT32_MAX, INT32_MIN, INT32_MIN + 1, 99999999};
    for (int32_t a : probes) {
        int64_t r = ((int64_t(a) % 36000) + 36000) % 36000;
        EXPECT_EQ(K_SinValue(a), K_SinValue(int32_t(r))) << a;
        EXPECT_EQ(K_CosValue(a), K_CosValue(int32_t(r))) << a;
    }
    EXPECT_EQ(K_SinValue(-9000), -16384);
    EXPECT_EQ(K_CosValue(-18000), -16384);
    EXPECT_EQ(K_CosValue(4500), 11585);
}

}  // namespace
