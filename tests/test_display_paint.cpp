// Paint intensity, contrast and gamma: every entry of both paint tables against the formulas in double precision, the
// table flag, failures.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>

#include "check_list.h"
#include "transform_kit.h"

namespace {

// Win32 MulDiv by double rounding (half away from zero).
long mulDivRef(long a, long b, long c) { return std::lround(double(a) * double(b) / double(c)); }

// The paint table of a given scale: 1 (8-bit, 256 entries) or 257 (16-bit); `differs` tells whether any entry is not
// its own index.
std::vector<long> paintRef(int intensity, int contrast, int gamma, long scale, bool* differs) {
    const long n = scale == 1 ? 256 : 65536, top = n - 1;
    std::vector<long> t(static_cast<size_t>(n));
    auto rampInto = [&](long x0, long x1, long y0, long y1) {
        for (long x = x0; x < std::min(x1, n); ++x)
            t[size_t(x)] = std::min(y0 + std::min(std::max(mulDivRef(x - x0, y1 - y0, x1 - x0), 0L), top), top);
    };
    for (long i = 0; i < n; ++i) t[size_t(i)] = i;
    if (contrast != 0) {
        const long ac = std::labs(contrast), a = mulDivRef(ac, 128, 4000);
        const long b = 256 - long(5.34 * std::pow(1.5, std::log2(double(ac) * 0.128)));
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
        const double v = double(std::min(std::max(t[size_t(i)] + o, 0L), top));
        const double g = 0.5 + std::pow(v / double(top), 100.0 / gamma) * double(top);
        t[size_t(i)] = g >= double(top) ? top : long(g);
        *differs = *differs || t[size_t(i)] != i;
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
        return K_GetPaintTable(&bm, t) == KS_SUCCESS ? std::vector<long>(t, t + 256) : std::vector<long>();
    }
    std::vector<long> table16() {
        std::vector<uint16_t> t(65536);
        return std::vector<long>(t.begin(), K_GetPaintTable16(&bm, t.data()) == KS_SUCCESS ? t.end() : t.begin());
    }
    bool flag() const { return (bm.uFlags & BRF_PAINT_TABLE) != 0; }
};

// The three setters in a changing order (the tables depend only on the final values); the flag is cleared only by a
// rebuild with a contrast other than 0 and set when an entry differs.
TEST(DisplayPaint, EveryEntryOverAGridOfValues) {
    Bitmap grey16(16, ORDER_GRAY), colour8(8, ORDER_RGB);
    bool flag16 = false, flag8 = false;
    int step = 0;
    for (int g : {100, 1, 37, 250, -100})
        for (int c : {0, 1, 7, 16, -16, 250, -333, 999, 1000, -1000})
            for (int i : {0, 1, -1, 37, -499, 500, 999, -1000, 1000}) {
                for (Bitmap* b : {&grey16, &colour8}) {
                    const int32_t rc[] = {step % 3 ? K_SetPaintIntensity(&b->bm, i) : K_SetPaintGamma(&b->bm, g),
                                          step % 3 ? K_SetPaintGamma(&b->bm, g) : K_SetPaintContrast(&b->bm, c),
                                          step % 3 ? K_SetPaintContrast(&b->bm, c) : K_SetPaintIntensity(&b->bm, i)};
                    ASSERT_EQ(rc[0] | rc[1] | rc[2], KS_SUCCESS);
                }
                ++step;
                bool d8 = false, d16 = false;
                ASSERT_EQ(grey16.table8(), paintRef(i, c, g, 1, &d8)) << i << " " << c << " " << g;
                ASSERT_EQ(colour8.table8(), paintRef(i, c, g, 1, &d8)) << i << " " << c << " " << g;
                ASSERT_EQ(grey16.table16(), paintRef(i, c, g, 257, &d16)) << i << " " << c << " " << g;
                EXPECT_EQ(std::vector<int32_t>({K_GetPaintIntensity(&grey16.bm), K_GetPaintContrast(&grey16.bm),
                                                K_GetPaintGamma(&grey16.bm)}),
                          std::vector<int32_t>({i, c, g}));
                flag8 = (c == 0 && flag8) || d8;
                flag16 = (c == 0 && flag16) || d8 || d16;
                EXPECT_EQ(colour8.flag(), flag8) << i << " " << c << " " << g;
                EXPECT_EQ(grey16.flag(), flag16) << i << " " << c << " " << g;
            }
}

// Ranges and the record checks; the flag; every allocation failure leaves the value, the tables and the flags alone and
// leaks nothing; freeing the bitmap frees the tables.
TEST(DisplayPaint, RangesFlagAndAllocationFailures) {
    { Bitmap warm(8, ORDER_RGB); }  // per-thread settings exist before counting
    const long base = krn::faultinject::liveBlocks();
    {
        Bitmap g(16, ORDER_GRAY);
        const int failures = tkit::allocationWalk([&](tkit::Armed& armed) {
            const uint32_t flags = g.bm.uFlags;
            EXPECT_TRUE(armed([&] { return K_SetPaintContrast(&g.bm, 500); }) == KS_SUCCESS ||
                        (K_GetPaintContrast(&g.bm) == 0 && g.bm.uFlags == flags)) << armed.n;
        }, 1, true);
        bool d = false;
        EXPECT_TRUE(failures >= 1 && g.table16() == paintRef(0, 500, 100, 257, &d));
    }
    EXPECT_EQ(krn::faultinject::liveBlocks(), base);
    Bitmap b(8, ORDER_RGB), c(8, ORDER_RGB), fresh(8, ORDER_RGB);
    BITMAPRECORD bad = b.bm, empty;
    bad.uStructSize = 200;
    ASSERT_EQ(K_InitBitmap(&empty, BITMAPRECORD_SIZE, 4, 4, 8), KS_SUCCESS);
    uint8_t t[256];
    BITMAPRECORD *r = &b.bm, *q = &c.bm;
    const int32_t P = KS_INVALID_PARAMETER, S = KS_INVALID_STRUCT_SIZE, OK = KS_SUCCESS, B = KS_INVALID_BITMAP;
    checklist::expectAll({IS(K_SetPaintContrast(r, 1001), P), IS(K_SetPaintContrast(r, -1001), P),
        IS(K_SetPaintIntensity(r, 1001), P), IS(K_SetPaintIntensity(r, -1001), P),
        IS(K_SetPaintGamma(r, 0), P), IS(K_SetPaintContrast(r, -1000), OK), IS(K_GetPaintContrast(r), -1000),
        IS(K_GetPaintIntensity(r), 0), IS(K_GetPaintGamma(r), 100),  // never set: 1.0
        IS(K_SetPaintIntensity(nullptr, 5), B), IS(K_GetPaintIntensity(nullptr), P), IS(K_GetPaintGamma(nullptr), P),
        IS(K_GetPaintTable(nullptr, t), P), IS(K_GetPaintTable(r, nullptr), P), IS(K_SetPaintContrast(&bad, 5), S),
        IS(K_GetPaintContrast(&bad), S), IS(K_GetPaintTable(&bad, t), S), IS(K_SetPaintGamma(&empty, 150), B),
        IS(K_GetPaintGamma(&empty), 100)});  // a getter needs no storage
    // The same value again does no work: a rebuild would set the cleared flag again. Back to the identity with contrast
    // 0: the flag stays; a non-zero contrast clears it first.
    EXPECT_TRUE(K_SetPaintIntensity(q, 300) == OK && c.flag());
    c.bm.uFlags &= ~BRF_PAINT_TABLE;
    bool d1 = false;
    paintRef(0, 1, 100, 1, &d1);
    checklist::expectAll({IS(K_SetPaintIntensity(q, 300), OK), IS(c.flag(), 0),
        IS(K_SetPaintIntensity(q, 301), OK), IS(c.flag(), 1), IS(K_SetPaintIntensity(q, 0), OK), IS(c.flag(), 1),
        IS(K_SetPaintContrast(q, 1), OK), IS(K_SetPaintContrast(q, 0), OK), IS(c.flag(), d1)});
    // Gamma 100 on a fresh record is the value it already has: no table block is made.
    const long before = krn::faultinject::liveBlocks();
    EXPECT_TRUE(K_SetPaintGamma(&fresh.bm, 100) == OK && krn::faultinject::liveBlocks() == before && !fresh.flag());
}

}  // namespace
