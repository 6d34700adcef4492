// test_storage_rows.cpp - row and column access over every storage kind against a plain reference image;
// the frame of the row calls; the get-row callback.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <random>
#include <vector>

#include "ombrix.h"
#include "check_list.h"
#include "storage_kinds.h"

using namespace storagetest;
using checklist::expectAll;

namespace {

class RowsAllKinds : public ::testing::TestWithParam<int> {};

uint32_t colByte(int32_t col, int32_t bpp) { return uint32_t(uint64_t(col) * uint64_t(bpp) / 8); }

void expectRows(BITMAPRECORD* bm, RefImage& ref, const char* what) {
    std::vector<uint8_t> row(ref.bpl);
    for (int32_t r = 0; r < ref.height; ++r) {
        std::fill(row.begin(), row.end(), 0xCC);
        ASSERT_EQ(K_GetBitmapRow(bm, row.data(), r, ref.bpl), int32_t(ref.bpl));
        ASSERT_TRUE(std::equal(row.begin(), row.end(), ref.row(r))) << what << " row " << r;
    }
}

// The same random pixels written into every kind (rows in a scrambled order) read back identically, whole and
// by column range; then column writes and segments change exactly what a plain per-pixel model says.
TEST_P(RowsAllKinds, EveryKindMatchesAPlainModel) {
    const int bpp = GetParam();
    const int32_t W = 45, H = 23;
    CapGuard guard;
    RefImage start(W, H, bpp), blank(W, H, bpp);
    start.randomize(uint32_t(bpp) * 7919u);
    for (Kind kind : kindsFor(bpp)) {
        SCOPED_TRACE(kindName(kind));
        KindBitmap k(kind, W, H, bpp);
        ASSERT_EQ(k.rc, KS_SUCCESS);
        RefImage ref = start;
        ASSERT_EQ(k.bm.nBytesPerLine, ref.bpl);
        uint32_t type = 0;
        int32_t tiles = 0, onDisk = 0;
        ASSERT_EQ(K_GetBitmapMemoryInfo(&k.bm, &type, nullptr, &tiles, &onDisk), KS_SUCCESS);
        const uint32_t types[] = {1, 2, 2, 4, 4, 128, 512, 1024};  // in the order of Kind
        EXPECT_EQ(type, types[int(kind)]);
        EXPECT_TRUE(type != 4 || (tiles >= 5 && onDisk == (kind == Kind::TilesFile ? tiles : 0)));
        expectRows(&k.bm, blank, "fresh");  // every kind starts as zero
        for (int32_t i = 0; i < H; ++i) {
            const int32_t r = (i * 7) % H;
            ASSERT_EQ(K_PutBitmapRow(&k.bm, ref.row(r), r, ref.bpl), int32_t(ref.bpl));
        }
        expectRows(&k.bm, ref, "written");
        std::mt19937 rng(99);
        for (int i = 0; i < 200; ++i) {  // column reads: the bytes from the column's byte on, cut at the row end
            const int32_t r = int32_t(rng() % H), c = int32_t(rng() % W);
            const uint32_t n = uint32_t(rng() % (ref.bpl + 8)), off = colByte(c, bpp);
            std::vector<uint8_t> got(n + 4, 0xEE);
            const int32_t expect = int32_t(std::min(n, ref.bpl - off));
            ASSERT_EQ(K_GetBitmapRowCol(&k.bm, got.data(), r, c, n), expect);
            ASSERT_TRUE(std::equal(got.begin(), got.begin() + expect, ref.row(r) + off));
            ASSERT_EQ(got[size_t(expect)], 0xEE) << "wrote past the count";
        }
        for (int i = 0; i < 40; ++i) {
            const int32_t r = int32_t(rng() % H);
            RefImage src(W, 1, bpp);
            src.randomize(uint32_t(i) + 77);
            if (i % 2 == 0) {  // column write: whole bytes from the column's byte on
                const int32_t c = int32_t(rng() % W);
                const uint32_t off = colByte(c, bpp), n = uint32_t(rng() % (ref.bpl - off + 1));
                ASSERT_EQ(K_PutBitmapRowCol(&k.bm, src.row(0) + off, r, c, n), int32_t(n));
                std::copy(src.row(0) + off, src.row(0) + off + n, ref.row(r) + off);
                // Compressed kinds keep pixels, not padding.
                if (kind == Kind::Compressed || kind == Kind::SuperCompressed) ref.clearPadding(ref.row(r));
            } else {  // segments: only the pixels inside the pairs change
                std::vector<int32_t> segs;
                const int nseg = int(rng() % 4);
                for (int s = 0; s < nseg; ++s) {
                    const int32_t a = int32_t(rng() % (W + 6)) - 3;
                    segs.insert(segs.end(), {a, a + int32_t(rng() % 20)});
                }
                ASSERT_EQ(K_PutBitmapRowSegments(&k.bm, src.row(0), r, segs.data(), nseg), KS_SUCCESS);
                for (int s = 0; s < nseg; ++s)
                    for (int32_t x = std::max(segs[size_t(2 * s)], 0); x < std::min(segs[size_t(2 * s + 1)], W); ++x)
                        setPixel(ref.row(r), x, bpp, getPixel(src.row(0), x, bpp));
            }
            expectRows(&k.bm, ref, "after a write");
        }
    }
}

INSTANTIATE_TEST_SUITE_P(Depths, RowsAllKinds, ::testing::Values(1, 2, 4, 8, 12, 16, 24, 32, 48, 64),
                         [](const auto& info) { return "bpp" + std::to_string(info.param); });

// Refused arguments; then an older-layout record of the run-compressed kind works.
TEST(RowsFrame, ArgumentChecksAndOlderLayoutRecords) {
    BITMAPRECORD bm;
    ASSERT_EQ(K_CreateBitmap(&bm, BITMAPRECORD_SIZE, 1, 10, 4, 8, 0, nullptr, 1, nullptr, 0), KS_SUCCESS);
    uint8_t buf[16] = {};
    expectAll({IS(K_GetBitmapRow(nullptr, buf, 0, 4), KS_INVALID_PARAMETER),
               IS(K_GetBitmapRow(&bm, nullptr, 0, 4), KS_INVALID_PARAMETER),
               IS(K_GetBitmapRow(&bm, buf, -1, 4), KS_INVALID_PARAMETER),
               IS(K_GetBitmapRow(&bm, buf, 4, 4), KS_INVALID_PARAMETER),
               IS(K_GetBitmapRowCol(&bm, buf, 0, 10, 4), KS_INVALID_PARAMETER), IS(K_GetBitmapRow(&bm, buf, 0, 0), 0),
               IS(K_PutBitmapRowSegments(&bm, buf, 0, nullptr, 1), KS_INVALID_PARAMETER),
               IS(K_PutBitmapRowSegments(&bm, buf, 0, nullptr, 0), KS_SUCCESS),
               IS(K_PutBitmapRowSegments(&bm, buf, 5, nullptr, 0), KS_INVALID_PARAMETER),
               IS((bm.uStructSize = 100, K_PutBitmapRow(&bm, buf, 0, 4)), KS_INVALID_STRUCT_SIZE),
               IS((bm.uStructSize = BITMAPRECORD_SIZE, K_FreeBitmap(&bm)), 1),
               IS(K_GetBitmapRow(&bm, buf, 0, 4), KS_INVALID_BITMAP)});
    ASSERT_EQ(K_CreateBitmap(&bm, BITMAPRECORD_SIZE_OLD, 512, 100, 3, 1, 0, nullptr, 1, nullptr, 0), KS_SUCCESS);
    const uint8_t in[16] = {0xF0, 0x0F};
    uint8_t out[16] = {};
    expectAll({IS(K_PutBitmapRow(&bm, in, 1, 16), 16), IS(K_GetBitmapRow(&bm, out, 1, 16), 16),
               IS(std::memcmp(in, out, 16), 0), IS(K_AccessBitmap(&bm), 1), IS(K_ReleaseBitmap(&bm), 1)});
    K_FreeBitmap(&bm);
}

// A get-row callback answers first: 0 lets the storage answer, a positive answer is the result with the
// callback's bytes as the row (the column form returns the column's bytes of it), errors pass through.
int32_t getRowFromCallback(BITMAPRECORD*, uint8_t* buf, int32_t row, uint32_t bytes, void* user) {
    auto* s = static_cast<int32_t*>(user);  // calls, answer
    ++s[0];
    for (uint32_t i = 0; s[1] > 0 && i < bytes; ++i) buf[i] = uint8_t(row * 16 + int32_t(i));
    return s[1];
}

TEST(RowsCallback, GetRowCallbackAnswersFirst) {
    int32_t src[2] = {0, 0};
    BITMAPDATACALLBACKS cb{};
    cb.uStructSize = BITMAPDATACALLBACKS_SIZE;
    cb.pUserData = src;
    cb.pfnGetRow = getRowFromCallback;
    BITMAPRECORD bm;
    ASSERT_EQ(K_CreateBitmapWithCallbacks(&bm, BITMAPRECORD_SIZE, 1, 8, 4, 8, 0, nullptr, 1, nullptr, 0, &cb), 1);
    const uint8_t stored[8] = {9, 9, 9, 9, 9, 9, 9, 9};
    uint8_t out[8] = {};
    expectAll({IS(K_PutBitmapRow(&bm, stored, 2, 8), 8), IS(K_GetBitmapRow(&bm, out, 2, 8), 8), IS(out[0], 9),
               IS(src[1] = 8, 8), IS(K_GetBitmapRow(&bm, out, 2, 8), 8), IS(out[1], 2 * 16 + 1),
               IS(K_GetBitmapRowCol(&bm, out, 3, 5, 8), 3), IS(out[0], 3 * 16 + 5), IS(src[1] = -777, -777),
               IS(K_GetBitmapRow(&bm, out, 2, 8), -777), IS(src[0], 4)});
    K_FreeBitmap(&bm);
}

}  // namespace
