// test_display_level_kernels.cpp - the row kernels of K_WindowLevel and
// K_WindowLevelExt: every sample value of 12 and 16 bits through windows of
// many widths (the computed linear path must be exact where a float estimate
// is close to a whole number), odd widths that leave tails of every length,
// and the kernel picked for this processor against the plain table kernel.
#include <gtest/gtest.h>

#include <random>
#include <vector>

#include "dis/common/paintutil.h"
#include "ombrix.h"
#include "support/combine_reference.h"

namespace {

// The 8-bit grey of a sample, by the line written out (black below, white above).
uint8_t lineRef(long s, long low, long high, bool invert) {
    const long v = s < low ? 0 : s > high ? 255 : high == low ? 0 : (s - low) * 255 / (high - low);
    return uint8_t(invert ? 255 - v : v);
}

// A grey bitmap of the given sample values, row by row.
BITMAPRECORD greyOf(int32_t bpp, int32_t w, const std::vector<uint32_t>& values) {
    BITMAPRECORD bm;
    const int32_t h = int32_t((values.size() + size_t(w) - 1) / size_t(w));
    EXPECT_EQ(K_CreateBitmap(&bm, BITMAPRECORD_SIZE, 1, w, h, bpp, ORDER_GRAY, nullptr, 1, nullptr, 0), KS_SUCCESS);
    std::vector<uint8_t> row(bm.nBytesPerLine);
    for (int32_t y = 0; y < h; ++y) {
        for (int32_t x = 0; x < w; ++x) {
            const size_t i = size_t(y) * size_t(w) + size_t(x);
            combinetest::setRawPixel(row.data(), x, {bpp, ORDER_GRAY}, i < values.size() ? values[i] : 0);
        }
        EXPECT_GE(K_PutBitmapRow(&bm, row.data(), y, bm.nBytesPerLine), 0);
    }
    return bm;
}

std::vector<uint8_t> bytesOf(BITMAPRECORD* bm) {
    std::vector<uint8_t> px, row(bm->nBytesPerLine);
    for (int32_t y = 0; y < bm->nHeight; ++y) {
        EXPECT_GE(K_GetBitmapRow(bm, row.data(), y, bm->nBytesPerLine), 0);
        px.insert(px.end(), row.begin(), row.begin() + bm->nWidth);
    }
    return px;
}

struct Window {
    int32_t lowBit, highBit, low, high;
    uint32_t flags;
};

// Runs the window with every row kernel; each must give the line of every pixel.
void check(BITMAPRECORD* src, const std::vector<uint32_t>& values, const Window& w) {
    src->nLowBit = w.lowBit;
    src->nHighBit = w.highBit;
    const int bits = w.highBit - w.lowBit + 1;
    for (int mode : {0, 1, 2, 3}) {  // automatic, plain, computed line, gathers
        krn::testhook::windowLevelKernels(mode);
        BITMAPRECORD out;
        ASSERT_EQ(K_WindowLevel(src, &out, BITMAPRECORD_SIZE, w.low, w.high, 0, w.flags), KS_SUCCESS);
        krn::testhook::windowLevelKernels(0);
        const std::vector<uint8_t> got = bytesOf(&out);
        K_FreeBitmap(&out);
        for (size_t i = 0; i < values.size(); ++i) {
            long s = long(values[i] >> w.lowBit) & ((1L << bits) - 1);
            if ((w.flags & WLFLAG_SIGNED) && (s >> (bits - 1))) s -= 1L << bits;
            ASSERT_EQ(got[i], lineRef(s, w.low, w.high, w.flags & WL_INVERT))
                << "kernel mode " << mode << " bpp " << src->nBitsPerPixel << " window " << w.low << ".."
                << w.high << " flags " << w.flags << " bits " << w.lowBit << "-" << w.highBit << " value "
                << values[i];
        }
    }
}

TEST(DisplayLevelKernels, EverySampleThroughManyWindows) {
    for (int32_t bpp : {16, 12}) {
        const uint32_t count = 1u << bpp;
        std::vector<uint32_t> all(count);
        for (uint32_t v = 0; v < count; ++v) all[v] = v;
        BITMAPRECORD src = greyOf(bpp, bpp == 16 ? 256 : 64, all);
        const int32_t top = int32_t(count) - 1;
        const Window windows[] = {
            {0, bpp - 1, 0, top, 0},          {0, bpp - 1, 1, 2, 0},           {0, bpp - 1, 7, 10, WL_INVERT},
            {0, bpp - 1, 100, 355, 0},        {0, bpp - 1, 100, 356, 0},       {0, bpp - 1, 99, 354, 0},
            {0, bpp - 1, 1000, top - 3, 0},   {0, bpp - 1, -65536, -1, 0},     {0, bpp - 1, top, top + 65535, 0},
            {0, bpp - 1, -700, 2900, WLFLAG_SIGNED}, {3, bpp - 2, -9, 40, WLFLAG_SIGNED | WL_INVERT},
            {2, bpp - 1, 17, 1234, 0},        {0, bpp - 1, 5, 5, 0},           {0, bpp - 1, -70000, 70000, 0},
            {0, bpp - 1, 65536, 70000, 0},
        };
        for (const Window& w : windows) {
            check(&src, all, w);
            if (HasFatalFailure()) return;
        }
        K_FreeBitmap(&src);
    }
}

TEST(DisplayLevelKernels, OddWidthsAndCallerTables) {
    std::mt19937 rng(7);
    for (int32_t bpp : {12, 16})
        for (int32_t width : {1, 2, 15, 16, 17, 18, 19, 21, 31, 33, 34, 35, 47, 63, 65, 66, 101}) {
            std::vector<uint32_t> values(size_t(width) * 5);
            for (auto& v : values) v = rng() & ((1u << bpp) - 1);
            BITMAPRECORD src = greyOf(bpp, width, values);
            check(&src, values, {0, bpp - 1, 300, 3000, 0});
            check(&src, values, {1, bpp - 2, -50, 400, WLFLAG_SIGNED});
            // A caller table (gathered): each pixel is its entry's grey.
            std::vector<RGBQUAD> lut(size_t(1) << bpp);
            for (auto& q : lut) q = RGBQUAD{uint8_t(rng()), uint8_t(rng()), uint8_t(rng()), 0};
            std::vector<uint8_t> ref;
            for (bool plain : {false, true}) {
                krn::testhook::windowLevelPlainKernels(plain);
                BITMAPRECORD out;
                ASSERT_EQ(K_WindowLevelExt(&src, &out, BITMAPRECORD_SIZE, lut.data(), uint32_t(lut.size()), 0, bpp - 1,
                                           0),
                          KS_SUCCESS);
                krn::testhook::windowLevelPlainKernels(false);
                const std::vector<uint8_t> got = bytesOf(&out);
                K_FreeBitmap(&out);
                for (size_t i = 0; i < values.size(); ++i) {
                    const RGBQUAD& q = lut[values[i]];
                    ASSERT_EQ(got[i], (2 * q.rgbRed + 5 * q.rgbGreen + q.rgbBlue + 4) >> 3)
                        << "width " << width << " pixel " << i << (plain ? " plain" : " picked");
                }
            }
            K_FreeBitmap(&src);
        }
}

}  // namespace
