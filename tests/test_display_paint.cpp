// test_display_paint.cpp - paint intensity, contrast and gamma: every entry of
// both paint tables against the formulas written out in double precision, the
// table flag, the worked cases, bad input and allocation failures.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "ombrix.h"
#include "krn/common/memory.h"

namespace {

// Win32 MulDiv by double rounding (half away from zero).
long mulDivRef(long a, long b, long c) { return std::lround(double(a) * double(b) / double(c)); }

// The paint table of a given scale: 1 (8-bit, 256 entries) or 257 (16-bit).
std::vector<long> paintRef(int intensity, int contrast, int gamma, long scale, bool* differs) {
    const long n = scale == 1 ? 256 : 65536, top = scale == 1 ? 255 : 65535;
    std::vector<long> t(static_cast<size_t>(n));
    auto rampInto = [&](long x0, long x1, long y0, long y1) {
        for (long x = x0; x < std::min(x1, n); ++x) {
            long inc = mulDivRef(x - x0, y1 - y0, x1 - x0);
            inc = std::min(std::max(inc, 0L), top);
            t[size_t(x)] = std::min(y0 + inc, top);
        }
    };
    if (contrast == 0) {
        for (long i = 0; i < n; ++i) t[size_t(i)] = i;
    } else {
        const long ac = std::labs(contrast);
        const long a = mulDivRef(ac, 128, 4000);
        const long k = long(5.34 * std::pow(1.5, std::log2(double(ac) * 0.128)));
        const long b = 256 - k;
        if (contrast > 0) {
            for (long i = 0; i < n; ++i) t[size_t(i)] = i < a * scale ? 0 : top;
            rampInto(a * scale, b * scale, 0, 256 * scale);
        } else {
            rampInto(0, 256 * scale, a * scale, b * scale);
        }
    }
    const long o = long(std::trunc((intensity * 255.0 + 500.0) / 1000.0)) * scale;
    *differs = false;
    for (long i = 0; i < n; ++i) {
        double v = double(std::min(std::max(t[size_t(i)] + o, 0L), top));
        double g = 0.5 + std::pow(v / double(top), 100.0 / gamma) * double(top);
        long out = g >= double(top) ? top : long(g);
        t[size_t(i)] = out;
        if (out != i) *differs = true;
    }
    return t;
}

struct Bitmap {
    BITMAPRECORD bm{};
    Bitmap(int bpp, int order, uint32_t size = BITMAPRECORD_SIZE) {
        EXPECT_EQ(K_CreateBitmap(&bm, size, 1, 16, 4, bpp, order, nullptr, 1, nullptr, 0), KS_SUCCESS);
    }
    ~Bitmap() { K_FreeBitmap(&bm); }
    std::vector<long> table8() {
        uint8_t t[256];
        EXPECT_EQ(K_GetPaintTable(&bm, t), KS_SUCCESS);
        return std::vector<long>(t, t + 256);
    }
    std::vector<long> table16() {
        std::vector<uint16_t> t(65536);
        EXPECT_EQ(K_GetPaintTable16(&bm, t.data()), KS_SUCCESS);
        return std::vector<long>(t.begin(), t.end());
    }
};

// Applies the three values in a changing order, following the flag rule
// (cleared only when the contrast is not 0, set when an entry differs).
TEST(DisplayPaint, EveryEntryOverAGridOfValues) {
    const int intensities[] = {0, 1, -1, 37, -499, 500, 999, -1000, 1000};
    const int contrasts[] = {0, 1, 7, 16, -16, 250, -333, 999, 1000, -1000};
    const int gammas[] = {100, 1, 37, 250, -100};
    Bitmap grey16(16, ORDER_GRAY), colour8(8, ORDER_RGB);
    bool flag16 = false, flag8 = false;
    int step = 0;
    for (int g : gammas)
        for (int c : contrasts)
            for (int i : intensities) {
                // Three setters in an order that varies; the tables depend only on the final values.
                for (Bitmap* b : {&grey16, &colour8}) {
                    const int pre = K_GetPaintContrast(&b->bm);
                    if (step % 3 == 0) {
                        ASSERT_EQ(K_SetPaintGamma(&b->bm, g), KS_SUCCESS);
                        ASSERT_EQ(K_SetPaintContrast(&b->bm, c), KS_SUCCESS);
                        ASSERT_EQ(K_SetPaintIntensity(&b->bm, i), KS_SUCCESS);
                    } else {
                        ASSERT_EQ(K_SetPaintIntensity(&b->bm, i), KS_SUCCESS);
                        ASSERT_EQ(K_SetPaintGamma(&b->bm, g), KS_SUCCESS);
                        ASSERT_EQ(K_SetPaintContrast(&b->bm, c), KS_SUCCESS);
                    }
                    (void)pre;
                }
                ++step;
                bool d8 = false, d16 = false;
                const std::vector<long> want8 = paintRef(i, c, g, 1, &d8);
                const std::vector<long> want16 = paintRef(i, c, g, 257, &d16);
                ASSERT_EQ(grey16.table8(), want8) << i << " " << c << " " << g;
                ASSERT_EQ(colour8.table8(), want8) << i << " " << c << " " << g;
                ASSERT_EQ(grey16.table16(), want16) << i << " " << c << " " << g;
                EXPECT_EQ(K_GetPaintIntensity(&grey16.bm), i);
                EXPECT_EQ(K_GetPaintContrast(&grey16.bm), c);
                EXPECT_EQ(K_GetPaintGamma(&grey16.bm), g);
                // The flag: when the last rebuild had contrast 0 it can only have been set.
                if (c != 0) {
                    flag8 = d8;
                    flag16 = d8 || d16;
                } else {
                    flag8 = flag8 || d8;
                    flag16 = flag16 || d8 || d16;
                }
                EXPECT_EQ((colour8.bm.uFlags & BRF_PAINT_TABLE) != 0, flag8) << i << " " << c << " " << g;
                EXPECT_EQ((grey16.bm.uFlags & BRF_PAINT_TABLE) != 0, flag16) << i << " " << c << " " << g;
            }
}

TEST(DisplayPaint, SixteenBitTableOnlyForDeepGreyInTheCurrentLayout) {
    struct Case {
        const char* what;
        int bpp, order;
        uint32_t size;
        bool has16;
    };
    const Case cases[] = {{"16-bit grey", 16, ORDER_GRAY, BITMAPRECORD_SIZE, true},
                          {"12-bit grey", 12, ORDER_GRAY, BITMAPRECORD_SIZE, true},
                          {"16-bit grey, older layout", 16, ORDER_GRAY, BITMAPRECORD_SIZE_OLD, false},
                          {"16-bit colour", 16, ORDER_BGR, BITMAPRECORD_SIZE, false},
                          {"8-bit grey", 8, ORDER_GRAY, BITMAPRECORD_SIZE, false},
                          {"24-bit", 24, ORDER_BGR, BITMAPRECORD_SIZE, false}};
    for (const Case& k : cases) {
        Bitmap b(k.bpp, k.order, k.size);
        std::vector<uint16_t> t(65536);
        EXPECT_EQ(K_GetPaintTable16(&b.bm, t.data()), k.has16 ? KS_SUCCESS : KS_NOT_SUPPORTED) << k.what;
        ASSERT_EQ(K_SetPaintContrast(&b.bm, 400), KS_SUCCESS) << k.what;
        bool d = false;
        EXPECT_EQ(b.table8(), paintRef(0, 400, 100, 1, &d)) << k.what;
        if (k.has16) {
            EXPECT_EQ(b.table16(), paintRef(0, 400, 100, 257, &d)) << k.what;
        }
    }
}

// The worked cases, each with the entries that show it.
TEST(DisplayPaint, WorkedCases) {
    struct Case {
        const char* what;
        int intensity, contrast, gamma;
        std::vector<std::pair<int, int>> entries;  // index, value of the 8-bit table
    };
    const Case cases[] = {
        {"identity", 0, 0, 100, {{0, 0}, {1, 1}, {128, 128}, {255, 255}}},
        {"full intensity saturates", 1000, 0, 100, {{0, 255}, {200, 255}}},
        // (-1000 * 255 + 500) / 1000 truncates to -254: the top entry keeps 1.
        {"negative full intensity", -1000, 0, 100, {{0, 0}, {254, 0}, {255, 1}}},
        {"intensity 100 adds 26", 100, 0, 100, {{0, 26}, {100, 126}, {229, 255}, {230, 255}}},
        // a = 32, k = 91, b = 165: 0 up to 31, the ramp from 32, 255 from 165.
        {"full contrast", 0, 1000, 100, {{31, 0}, {32, 0}, {33, 2}, {98, 127}, {164, 254}, {165, 255}}},
        // Negative: the whole table from 32 to 165.
        {"full negative contrast", 0, -1000, 100, {{0, 32}, {128, 99}, {255, 164}}},
        // Gamma 200 applies the exponent 0.5: trunc(0.5 + sqrt(64 / 255) * 255) = 128.
        {"gamma 2", 0, 0, 200, {{0, 0}, {64, 128}, {255, 255}}},
        {"gamma 0.5", 0, 0, 50, {{128, 64}, {255, 255}}},
        // A negative gamma inverts the exponent's sign: 0 goes to the top.
        {"negative gamma", 0, 0, -100, {{0, 255}, {255, 255}, {128, 255}}},
    };
    for (const Case& k : cases) {
        Bitmap b(8, ORDER_RGB);
        ASSERT_EQ(K_SetPaintGamma(&b.bm, k.gamma), KS_SUCCESS);
        ASSERT_EQ(K_SetPaintContrast(&b.bm, k.contrast), KS_SUCCESS);
        ASSERT_EQ(K_SetPaintIntensity(&b.bm, k.intensity), KS_SUCCESS);
        std::vector<long> t = b.table8();
        for (auto [i, v] : k.entries) EXPECT_EQ(t[size_t(i)], v) << k.what << " entry " << i;
    }
}

TEST(DisplayPaint, RangesAndFrame) {
    Bitmap b(8, ORDER_RGB);
    EXPECT_EQ(K_SetPaintContrast(&b.bm, 1001), KS_INVALID_PARAMETER);
    EXPECT_EQ(K_SetPaintContrast(&b.bm, -1001), KS_INVALID_PARAMETER);
    EXPECT_EQ(K_SetPaintContrast(&b.bm, -1000), KS_SUCCESS);
    EXPECT_EQ(K_SetPaintIntensity(&b.bm, 1001), KS_INVALID_PARAMETER);
    EXPECT_EQ(K_SetPaintIntensity(&b.bm, -1001), KS_INVALID_PARAMETER);
    EXPECT_EQ(K_SetPaintGamma(&b.bm, 0), KS_INVALID_PARAMETER);
    EXPECT_EQ(K_GetPaintContrast(&b.bm), -1000);
    EXPECT_EQ(K_GetPaintIntensity(&b.bm), 0);
    EXPECT_EQ(K_GetPaintGamma(&b.bm), 100);  // never set: 1.0

    EXPECT_EQ(K_SetPaintIntensity(nullptr, 5), KS_INVALID_BITMAP);
    EXPECT_EQ(K_GetPaintIntensity(nullptr), KS_INVALID_PARAMETER);
    EXPECT_EQ(K_GetPaintGamma(nullptr), KS_INVALID_PARAMETER);
    uint8_t t[256];
    EXPECT_EQ(K_GetPaintTable(nullptr, t), KS_INVALID_PARAMETER);
    EXPECT_EQ(K_GetPaintTable(&b.bm, nullptr), KS_INVALID_PARAMETER);
    BITMAPRECORD bad = b.bm;
    bad.uStructSize = 200;
    EXPECT_EQ(K_SetPaintContrast(&bad, 5), KS_INVALID_STRUCT_SIZE);
    EXPECT_EQ(K_GetPaintContrast(&bad), KS_INVALID_STRUCT_SIZE);
    EXPECT_EQ(K_GetPaintTable(&bad, t), KS_INVALID_STRUCT_SIZE);
    BITMAPRECORD empty;
    ASSERT_EQ(K_InitBitmap(&empty, BITMAPRECORD_SIZE, 4, 4, 8), KS_SUCCESS);
    EXPECT_EQ(K_SetPaintGamma(&empty, 150), KS_INVALID_BITMAP);
    EXPECT_EQ(K_GetPaintGamma(&empty), 100);  // a getter needs no storage
}

TEST(DisplayPaint, SameValueAgainDoesNoWork) {
    Bitmap b(8, ORDER_RGB);
    ASSERT_EQ(K_SetPaintIntensity(&b.bm, 300), KS_SUCCESS);
    ASSERT_NE(b.bm.uFlags & BRF_PAINT_TABLE, 0u);
    // A rebuild would set the flag again; the same value leaves it as it is.
    b.bm.uFlags &= ~BRF_PAINT_TABLE;
    EXPECT_EQ(K_SetPaintIntensity(&b.bm, 300), KS_SUCCESS);
    EXPECT_EQ(b.bm.uFlags & BRF_PAINT_TABLE, 0u);
    EXPECT_EQ(K_SetPaintIntensity(&b.bm, 301), KS_SUCCESS);
    EXPECT_NE(b.bm.uFlags & BRF_PAINT_TABLE, 0u);
    // Gamma 100 on a fresh record is the value it already has: no table block is made.
    Bitmap fresh(8, ORDER_RGB);
    const long before = krn::faultinject::liveBlocks();
    EXPECT_EQ(K_SetPaintGamma(&fresh.bm, 100), KS_SUCCESS);
    EXPECT_EQ(krn::faultinject::liveBlocks(), before);
    EXPECT_EQ(fresh.bm.uFlags & BRF_PAINT_TABLE, 0u);
}

TEST(DisplayPaint, ContrastZeroKeepsTheFlag) {
    Bitmap b(8, ORDER_RGB);
    ASSERT_EQ(K_SetPaintIntensity(&b.bm, 200), KS_SUCCESS);
    ASSERT_EQ(K_SetPaintIntensity(&b.bm, 0), KS_SUCCESS);
    // The table is the identity again, but the flag was never cleared.
    bool d = true;
    EXPECT_EQ(b.table8(), paintRef(0, 0, 100, 1, &d));
    EXPECT_FALSE(d);
    EXPECT_NE(b.bm.uFlags & BRF_PAINT_TABLE, 0u);
    // A non-zero contrast clears it first.
    ASSERT_EQ(K_SetPaintContrast(&b.bm, 1), KS_SUCCESS);
    ASSERT_EQ(K_SetPaintContrast(&b.bm, 0), KS_SUCCESS);
    bool d1 = false;
    paintRef(0, 1, 100, 1, &d1);
    EXPECT_EQ((b.bm.uFlags & BRF_PAINT_TABLE) != 0, d1);
}

// Every allocation failure leaves the value, the tables and the flags alone
// and leaks nothing; freeing the bitmap frees the tables.
TEST(DisplayPaint, AllocationFailuresChangeNothing) {
    { Bitmap warm(8, ORDER_RGB); }  // per-thread settings exist before counting
    const long base = krn::faultinject::liveBlocks();
    {
        Bitmap b(16, ORDER_GRAY);
        const long withBitmap = krn::faultinject::liveBlocks();
        int failures = 0;
        for (long n = 0;; ++n) {
            const uint32_t flags = b.bm.uFlags;
            krn::faultinject::arm(n, 1);
            int32_t r = K_SetPaintContrast(&b.bm, 500);
            krn::faultinject::disarm();
            if (r == KS_SUCCESS) break;
            ++failures;
            EXPECT_EQ(r, KS_NO_MEMORY);
            EXPECT_EQ(K_GetPaintContrast(&b.bm), 0);
            EXPECT_EQ(b.bm.uFlags, flags);
            EXPECT_EQ(krn::faultinject::liveBlocks(), withBitmap);
            ASSERT_LT(n, 20);
        }
        EXPECT_GE(failures, 1);
        bool d = false;
        EXPECT_EQ(b.table16(), paintRef(0, 500, 100, 257, &d));
    }
    EXPECT_EQ(krn::faultinject::liveBlocks(), base);
}

}  // namespace
