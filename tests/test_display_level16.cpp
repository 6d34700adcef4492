// test_display_level16.cpp - the 16-bit-lane line of K_WindowLevel (chosen
// automatically where the window fits it) on every sample value, at the edges
// of the windows it takes: the narrowest (256) and widest (65535) windows,
// windows ending past the sample range, inverted and bit-field samples.
#include <gtest/gtest.h>

#include <vector>

#include "dis/common/paintutil.h"
#include "ombrix.h"

namespace {

TEST(DisplayLevel16, EverySampleAtTheWindowEdges) {
    struct Window {
        int32_t lowBit, highBit, low, high;
        uint32_t flags;
    } const windows[] = {
        {0, 15, 0, 256, 0},        {0, 15, 1, 258, WL_INVERT}, {0, 15, 0, 65535, 0},    {0, 15, 3, 32771, 0},
        {0, 15, 65279, 65535, 0},  {0, 15, 65535, 131070, 0},  {0, 15, 40000, 50001, WL_INVERT},
        {4, 15, 7, 4000, 0},       {0, 11, 100, 4095, 0},      {2, 13, 300, 12000, WL_INVERT},
    };
    constexpr int32_t kW = 256, kH = 256;
    BITMAPRECORD src;
    ASSERT_EQ(K_CreateBitmap(&src, BITMAPRECORD_SIZE, 1, kW, kH, 16, ORDER_GRAY, nullptr, 1, nullptr, 0), KS_SUCCESS);
    for (int32_t y = 0; y < kH; ++y) {
        uint16_t row[kW];
        for (int32_t x = 0; x < kW; ++x) row[x] = uint16_t(y * kW + x);
        ASSERT_GE(K_PutBitmapRow(&src, reinterpret_cast<uint8_t*>(row), y, src.nBytesPerLine), 0);
    }
    for (const Window& w : windows) {
        src.nLowBit = w.lowBit;
        src.nHighBit = w.highBit;
        krn::testhook::windowLevelKernels(4);
        BITMAPRECORD out;
        const int32_t rc = K_WindowLevel(&src, &out, BITMAPRECORD_SIZE, w.low, w.high, 0, w.flags);
        krn::testhook::windowLevelKernels(0);
        ASSERT_EQ(rc, KS_SUCCESS);
        std::vector<uint8_t> got(size_t(out.nBytesPerLine));
        for (int32_t y = 0; y < kH; ++y) {
            ASSERT_GE(K_GetBitmapRow(&out, got.data(), y, out.nBytesPerLine), 0);
            for (int32_t x = 0; x < kW; ++x) {
                const int64_t s = (int64_t(y * kW + x) >> w.lowBit) & ((int64_t(1) << (w.highBit - w.lowBit + 1)) - 1);
                int64_t g = s <= w.low ? 0 : s >= w.high ? 255 : (s - w.low) * 255 / (int64_t(w.high) - w.low);
                if (w.flags & WL_INVERT) g = 255 - g;
                ASSERT_EQ(got[size_t(x)], g) << "window " << w.low << ".." << w.high << " sample " << s;
            }
        }
        K_FreeBitmap(&out);
    }
    K_FreeBitmap(&src);
}

}  // namespace
