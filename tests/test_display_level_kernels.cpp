// test_display_level_kernels.cpp - every row kernel of K_WindowLevel (plain,
// gathers, the computed line) on every 12- and 16-bit sample value, through
// windows that put the line's float estimate next to whole numbers, and on
// odd widths that leave every tail length, against the line written out.
#include <gtest/gtest.h>

#include <random>
#include <vector>

#include "dis/common/paintutil.h"
#include "ombrix.h"
#include "support/combine_reference.h"

namespace {

struct Window {
    int32_t lowBit, highBit, low, high;
    uint32_t flags;
};

// Runs the window with every kernel on a bitmap of the given samples.
void check(int32_t bpp, int32_t w, const std::vector<uint32_t>& values, const Window& win) {
    const int32_t h = int32_t(values.size() / size_t(w));
    BITMAPRECORD src, out;
    ASSERT_EQ(K_CreateBitmap(&src, BITMAPRECORD_SIZE, 1, w, h, bpp, ORDER_GRAY, nullptr, 1, nullptr, 0), KS_SUCCESS);
    std::vector<uint8_t> row(src.nBytesPerLine);
    for (int32_t y = 0; y < h; ++y) {
        for (int32_t x = 0; x < w; ++x) combinetest::setRawPixel(row.data(), x, {bpp, ORDER_GRAY}, values[size_t(y * w + x)]);
        ASSERT_GE(K_PutBitmapRow(&src, row.data(), y, src.nBytesPerLine), 0);
    }
    src.nLowBit = win.lowBit;
    src.nHighBit = win.highBit;
    const int bits = win.highBit - win.lowBit + 1;
    for (int mode : {0, 1, 2, 3}) {  // automatic, plain, computed line, gathers
        krn::testhook::windowLevelKernels(mode);
        const int32_t r = K_WindowLevel(&src, &out, BITMAPRECORD_SIZE, win.low, win.high, 0, win.flags);
        krn::testhook::windowLevelKernels(0);
        ASSERT_EQ(r, KS_SUCCESS);
        for (int32_t y = 0; y < h; ++y) {
            ASSERT_GE(K_GetBitmapRow(&out, row.data(), y, out.nBytesPerLine), 0);
            for (int32_t x = 0; x < w; ++x) {
                const uint32_t raw = values[size_t(y * w + x)];
                long s = long(raw >> win.lowBit) & ((1L << bits) - 1);
                if ((win.flags & WLFLAG_SIGNED) && (s >> (bits - 1))) s -= 1L << bits;
                long g = s < win.low ? 0 : s > win.high ? 255 : win.high == win.low ? 0 : (s - win.low) * 255 / (long(win.high) - win.low);
                if (win.flags & WL_INVERT) g = 255 - g;
                ASSERT_EQ(row[size_t(x)], g) << "mode " << mode << " bpp " << bpp << " width " << w << " window "
                                             << win.low << ".." << win.high << " flags " << win.flags << " raw " << raw;
            }
        }
        K_FreeBitmap(&out);
    }
    K_FreeBitmap(&src);
}

TEST(DisplayLevelKernels, EverySampleEveryKernel) {
    for (int32_t bpp : {16, 12}) {
        std::vector<uint32_t> all(size_t(1) << bpp);
        for (uint32_t v = 0; v < all.size(); ++v) all[v] = v;
        const int32_t top = int32_t(all.size()) - 1;
        const Window windows[] = {
            {0, bpp - 1, 0, top, 0},         {0, bpp - 1, 1, 2, 0},          {0, bpp - 1, 7, 10, WL_INVERT},
            {0, bpp - 1, 100, 355, 0},       {0, bpp - 1, 99, 356, 0},       {0, bpp - 1, 1000, top - 3, 0},
            {0, bpp - 1, -65536, -1, 0},     {0, bpp - 1, top, top + 65535, 0}, {0, bpp - 1, 5, 5, 0},
            {0, bpp - 1, -700, 2900, WLFLAG_SIGNED}, {3, bpp - 2, -9, 40, WLFLAG_SIGNED | WL_INVERT},
            {2, bpp - 1, 17, 1234, 0},       {0, bpp - 1, -70000, 70000, 0},
        };
        for (const Window& w : windows) ASSERT_NO_FATAL_FAILURE(check(bpp, bpp == 16 ? 256 : 64, all, w));
    }
    std::mt19937 rng(7);
    for (int32_t bpp : {12, 16})
        for (int32_t width : {1, 2, 15, 16, 17, 18, 19, 21, 31, 33, 34, 35, 47, 63, 65, 66, 101}) {
            std::vector<uint32_t> values(size_t(width) * 3);
            for (auto& v : values) v = rng() & ((1u << bpp) - 1);
            ASSERT_NO_FATAL_FAILURE(check(bpp, width, values, {0, bpp - 1, 300, 3000, 0}));
            ASSERT_NO_FATAL_FAILURE(check(bpp, width, values, {1, bpp - 2, -50, 400, WLFLAG_SIGNED}));
        }
}

}  // namespace
