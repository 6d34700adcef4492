// 12-bit grey rows written by the fill, segment and colour-region paths agree
// with the packing the converter reads: two pixels in three bytes, the first
// the low 12 bits of the little-endian word at the pair's first byte, the
// second the high 12 bits of the word one byte on.
#include <gtest/gtest.h>

#include <cstdint>
#include <vector>

#include "ombrix.h"

namespace {

// The packing, written from its definition (the words, not nibble masks).
uint32_t pixel12(const std::vector<uint8_t>& row, int x) {
    const size_t o = size_t(x) / 2 * 3 + (x & 1);
    const uint32_t word = uint32_t(row[o]) | uint32_t(row[o + 1]) << 8;
    return (x & 1) ? word >> 4 : word & 0xFFFu;
}

struct Grey12 {
    BITMAPRECORD bm{};
    explicit Grey12(int w, int h = 2) {
        EXPECT_EQ(K_CreateBitmap(&bm, BITMAPRECORD_SIZE, MEMTYPE_CONVENTIONAL, w, h, 12, ORDER_GRAY, nullptr, TOP_LEFT,
                                 nullptr, 0),
                  1);
    }
    ~Grey12() { K_FreeBitmap(&bm); }
    std::vector<uint8_t> row(int y) {
        std::vector<uint8_t> r(bm.nBytesPerLine + 2);
        EXPECT_EQ(K_GetBitmapRow(&bm, r.data(), y, bm.nBytesPerLine), int32_t(bm.nBytesPerLine));
        return r;
    }
};

TEST(Grey12Rows, FillWritesEveryPixelAsTheConverterReadsIt) {
    for (int w = 1; w <= 7; ++w) {
        SCOPED_TRACE(w);
        Grey12 g(w);
        ASSERT_EQ(K_FillBitmap2(&g.bm, 0xA5C), 1);
        std::vector<uint8_t> r = g.row(1);
        for (int x = 0; x < w; ++x) EXPECT_EQ(pixel12(r, x), 0xA5Cu) << x;
        // The converter, which owns the packing, agrees: widened to 16-bit grey,
        // every sample keeps the value in its top 12 bits.
        r.resize(size_t(w) * 2 + 2);
        ASSERT_EQ(K_ConvertBuffer(r.data(), w, 12, 16, ORDER_GRAY, ORDER_GRAY, nullptr, nullptr), 1);
        for (int x = 0; x < w; ++x) EXPECT_EQ((r[2 * size_t(x)] | r[2 * size_t(x) + 1] << 8) >> 4, 0xA5C) << x;
    }
}

TEST(Grey12Rows, SegmentsReplaceExactlyTheirPixels) {
    const int w = 9;
    // Every start and end parity: each pixel inside a segment comes from the
    // source row, every other keeps the fill.
    const int32_t segsTable[][4] = {{0, 1, 3, 4}, {1, 2, 4, 7}, {2, 5, 8, 9}, {1, 8, 8, 8}, {0, 9, 0, 0}};
    for (const auto& segs : segsTable) {
        SCOPED_TRACE(testing::Message() << segs[0] << ".." << segs[1] << ", " << segs[2] << ".." << segs[3]);
        Grey12 g(w);
        ASSERT_EQ(K_FillBitmap2(&g.bm, 0x123), 1);
        std::vector<uint8_t> src(g.bm.nBytesPerLine);
        // Source pixels 0xF00 + x, packed by the definition.
        for (int x = 0; x < w; ++x) {
            const uint32_t v = 0xF00u + uint32_t(x);
            const size_t o = size_t(x) / 2 * 3;
            if (x & 1) {
                src[o + 1] = uint8_t((src[o + 1] & 0x0F) | (v & 0xF) << 4);
                src[o + 2] = uint8_t(v >> 4);
            } else {
                src[o] = uint8_t(v);
                src[o + 1] = uint8_t((src[o + 1] & 0xF0) | v >> 8);
            }
        }
        ASSERT_EQ(K_PutBitmapRowSegments(&g.bm, src.data(), 0, segs, 2), 1);
        std::vector<uint8_t> r = g.row(0);
        for (int x = 0; x < w; ++x) {
            const bool in = (x >= segs[0] && x < segs[1]) || (x >= segs[2] && x < segs[3]);
            EXPECT_EQ(pixel12(r, x), in ? 0xF00u + uint32_t(x) : 0x123u) << x;
        }
    }
}

TEST(Grey12Rows, ColourRegionFindsThePixelsOfThatGrey) {
    // Fill with one grey, then paint a rectangle of another through a region:
    // the colour region of the second grey is that rectangle, pixel for pixel.
    const int w = 7, h = 4;
    Grey12 g(w, h);
    ASSERT_EQ(K_FillBitmap(&g.bm, 0x000000), 1);
    const RECT rc{1, 1, 4, 3};
    ASSERT_EQ(K_SetBitmapRgnRect(&g.bm, nullptr, &rc, RGN_SET_REPLACE), 1);
    ASSERT_EQ(K_FillBitmap(&g.bm, 0xFFFFFF), 1);
    ASSERT_EQ(K_FreeBitmapRgn(&g.bm), 1);
    ASSERT_EQ(K_SetBitmapRgnColor(&g.bm, 0xFFFFFF, RGN_SET_REPLACE), 1);
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x) {
            const bool in = x >= rc.left && x < rc.right && y >= rc.top && y < rc.bottom;
            EXPECT_EQ(K_IsPtInBitmapRgn(&g.bm, y, x) == 1, in) << x << "," << y;
            EXPECT_EQ(pixel12(g.row(y), x), in ? 0xFFFu : 0u) << x << "," << y;
        }
}

}  // namespace
