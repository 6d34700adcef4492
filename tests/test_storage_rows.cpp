// test_storage_rows.cpp - row and column access over every storage kind:
// the same random pixels written into each kind read back identically, row
// by row and by column range, and agree with a plain reference image.
#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <vector>

#include "ombrix.h"
#include "storage_kinds.h"

using namespace storagetest;

namespace {

uint32_t expectedType(Kind k) {
    switch (k) {
        case Kind::SingleBlock: return 1;
        case Kind::CallerMemory: case Kind::CallbackMemory: return 2;
        case Kind::TilesMemory: case Kind::TilesFile: return 4;
        case Kind::Disk: return 128;
        case Kind::Compressed: return 512;
        case Kind::SuperCompressed: return 1024;
    }
    return 0;
}

class RowsAllKinds : public ::testing::TestWithParam<int> {};

// Byte offset of a column as the row calls compute it (plain arithmetic).
uint32_t colByte(int32_t col, int32_t bpp) { return uint32_t(uint64_t(col) * uint64_t(bpp) / 8); }

TEST_P(RowsAllKinds, SameRandomPixelsReadBackFromEveryKind) {
    const int bpp = GetParam();
    const int32_t W = 37, H = 23;
    CapGuard guard;
    RefImage ref(W, H, bpp);
    ref.randomize(uint32_t(bpp) * 7919u);
    std::vector<std::vector<uint8_t>> seen;  // full read-back of each kind
    for (Kind kind : kindsFor(bpp)) {
        SCOPED_TRACE(kindName(kind));
        KindBitmap k(kind, W, H, bpp);
        ASSERT_EQ(k.rc, KS_SUCCESS);
        BITMAPRECORD* bm = &k.bm;
        ASSERT_EQ(bm->nBytesPerLine, ref.bpl);
        uint32_t type = 0;
        int32_t tiles = 0, onDisk = 0;
        ASSERT_EQ(K_GetBitmapMemoryInfo(bm, &type, nullptr, &tiles, &onDisk), KS_SUCCESS);
        EXPECT_EQ(type, expectedType(kind));
        if (kind == Kind::TilesMemory) { EXPECT_EQ(onDisk, 0); }
        if (kind == Kind::TilesMemory || kind == Kind::TilesFile) { EXPECT_GE(tiles, 5); }
        if (kind == Kind::TilesFile) { EXPECT_EQ(onDisk, tiles); }
        // A fresh bitmap of every kind reads as zero.
        std::vector<uint8_t> row(ref.bpl, 0xCC);
        ASSERT_EQ(K_GetBitmapRow(bm, row.data(), H - 1, ref.bpl), int32_t(ref.bpl));
        EXPECT_EQ(std::count(row.begin(), row.end(), 0), int(ref.bpl));
        // Write rows in a scrambled order.
        std::vector<int32_t> order(H);
        for (int32_t r = 0; r < H; ++r) order[size_t(r)] = (r * 7) % H;
        for (int32_t r : order) ASSERT_EQ(K_PutBitmapRow(bm, ref.row(r), r, ref.bpl), int32_t(ref.bpl));
        // Whole rows.
        std::vector<uint8_t> all;
        for (int32_t r = 0; r < H; ++r) {
            std::fill(row.begin(), row.end(), 0xCC);
            ASSERT_EQ(K_GetBitmapRow(bm, row.data(), r, ref.bpl), int32_t(ref.bpl));
            ASSERT_TRUE(std::equal(row.begin(), row.end(), ref.row(r))) << "row " << r;
            all.insert(all.end(), row.begin(), row.end());
        }
        seen.push_back(all);
        // Column ranges: the bytes from the column's byte on, cut at the row end.
        std::mt19937 rng(99);
        for (int i = 0; i < 200; ++i) {
            int32_t r = int32_t(rng() % H), c = int32_t(rng() % W);
            uint32_t n = uint32_t(rng() % (ref.bpl + 8));
            std::vector<uint8_t> got(n + 4, 0xEE);
            uint32_t off = colByte(c, bpp);
            int32_t expect = int32_t(std::min(n, ref.bpl - off));
            ASSERT_EQ(K_GetBitmapRowCol(bm, got.data(), r, c, n), expect);
            ASSERT_TRUE(std::equal(got.begin(), got.begin() + expect, ref.row(r) + off));
            ASSERT_EQ(got[size_t(expect)], 0xEE) << "wrote past the count";
        }
    }
    for (size_t i = 1; i < seen.size(); ++i) EXPECT_EQ(seen[i], seen[0]) << "kind " << i;
}

TEST_P(RowsAllKinds, ColumnWritesAndSegmentsMatchAPlainModel) {
    const int bpp = GetParam();
    const int32_t W = 45, H = 9;
    CapGuard guard;
    for (Kind kind : kindsFor(bpp)) {
        SCOPED_TRACE(kindName(kind));
        KindBitmap k(kind, W, H, bpp);
        ASSERT_EQ(k.rc, KS_SUCCESS);
        RefImage ref(W, H, bpp);
        ref.randomize(5);
        for (int32_t r = 0; r < H; ++r) ASSERT_GT(K_PutBitmapRow(&k.bm, ref.row(r), r, ref.bpl), 0);
        std::mt19937 rng(1234);
        for (int i = 0; i < 60; ++i) {
            const int32_t r = int32_t(rng() % H);
            RefImage src(W, 1, bpp);
            src.randomize(uint32_t(i) + 77);
            if (i % 2 == 0) {
                // Column write: whole bytes from the column's byte on.
                int32_t c = int32_t(rng() % W);
                uint32_t off = colByte(c, bpp);
                uint32_t n = uint32_t(rng() % (ref.bpl - off + 1));
                int32_t got = K_PutBitmapRowCol(&k.bm, src.row(0) + off, r, c, n);
                ASSERT_EQ(got, int32_t(n));
                std::copy(src.row(0) + off, src.row(0) + off + n, ref.row(r) + off);
                // Compressed kinds keep pixels, not padding.
                if (kind == Kind::Compressed || kind == Kind::SuperCompressed) ref.clearPadding(ref.row(r));
            } else {
                // Segments: only the pixels inside the pairs change (plain per-pixel model).
                std::vector<int32_t> segs;
                int nseg = int(rng() % 4);
                for (int s = 0; s < nseg; ++s) {
                    int32_t a = int32_t(rng() % (W + 6)) - 3, b = a + int32_t(rng() % 20);
                    segs.push_back(a);
                    segs.push_back(b);
                }
                ASSERT_EQ(K_PutBitmapRowSegments(&k.bm, src.row(0), r, segs.data(), nseg), KS_SUCCESS);
                for (int s = 0; s < nseg; ++s)
                    for (int32_t x = std::max(segs[size_t(2 * s)], 0); x < std::min(segs[size_t(2 * s + 1)], W); ++x)
                        setPixel(ref.row(r), x, bpp, getPixel(src.row(0), x, bpp));
            }
            std::vector<uint8_t> row(ref.bpl);
            for (int32_t rr = 0; rr < H; ++rr) {
                ASSERT_EQ(K_GetBitmapRow(&k.bm, row.data(), rr, ref.bpl), int32_t(ref.bpl));
                ASSERT_TRUE(std::equal(row.begin(), row.end(), ref.row(rr))) << "step " << i << " row " << rr;
            }
        }
    }
}

INSTANTIATE_TEST_SUITE_P(Depths, RowsAllKinds, ::testing::Values(1, 2, 4, 8, 12, 16, 24, 32, 48, 64),
                         [](const auto& info) { return "bpp" + std::to_string(info.param); });

TEST(RowsFrame, ArgumentChecks) {
    BITMAPRECORD bm;
    ASSERT_EQ(K_CreateBitmap(&bm, BITMAPRECORD_SIZE, 1, 10, 4, 8, 0, nullptr, 1, nullptr, 0), KS_SUCCESS);
    uint8_t buf[16] = {};
    EXPECT_EQ(K_GetBitmapRow(nullptr, buf, 0, 4), KS_INVALID_PARAMETER);
    EXPECT_EQ(K_GetBitmapRow(&bm, nullptr, 0, 4), KS_INVALID_PARAMETER);
    EXPECT_EQ(K_GetBitmapRow(&bm, buf, -1, 4), KS_INVALID_PARAMETER);
    EXPECT_EQ(K_GetBitmapRow(&bm, buf, 4, 4), KS_INVALID_PARAMETER);
    EXPECT_EQ(K_GetBitmapRowCol(&bm, buf, 0, 10, 4), KS_INVALID_PARAMETER);
    EXPECT_EQ(K_GetBitmapRow(&bm, buf, 0, 0), 0);
    EXPECT_EQ(K_PutBitmapRowSegments(&bm, buf, 0, nullptr, 1), KS_INVALID_PARAMETER);
    EXPECT_EQ(K_PutBitmapRowSegments(&bm, buf, 0, nullptr, 0), KS_SUCCESS);
    EXPECT_EQ(K_PutBitmapRowSegments(&bm, buf, 5, nullptr, 0), KS_INVALID_PARAMETER);
    bm.uStructSize = 100;
    EXPECT_EQ(K_PutBitmapRow(&bm, buf, 0, 4), KS_INVALID_STRUCT_SIZE);
    bm.uStructSize = BITMAPRECORD_SIZE;
    K_FreeBitmap(&bm);
    EXPECT_EQ(K_GetBitmapRow(&bm, buf, 0, 4), KS_INVALID_BITMAP);
}

TEST(RowsFrame, OlderLayoutRecordsWork) {
    BITMAPRECORD bm;
    ASSERT_EQ(K_CreateBitmap(&bm, BITMAPRECORD_SIZE_OLD, 512, 100, 3, 1, 0, nullptr, 1, nullptr, 0), KS_SUCCESS);
    uint8_t in[16] = {0xF0, 0x0F};
    ASSERT_EQ(K_PutBitmapRow(&bm, in, 1, 16), 16);
    uint8_t out[16] = {};
    ASSERT_EQ(K_GetBitmapRow(&bm, out, 1, 16), 16);
    EXPECT_EQ(out[0], 0xF0);
    EXPECT_EQ(out[1], 0x0F);
    ASSERT_EQ(K_AccessBitmap(&bm), KS_SUCCESS);
    ASSERT_EQ(K_ReleaseBitmap(&bm), KS_SUCCESS);
    K_FreeBitmap(&bm);
}

// A get-row callback answers first; 0 lets the storage answer.
struct RowSource {
    int calls = 0;
    int32_t answer = 0;
};
int32_t getRowFromCallback(BITMAPRECORD*, uint8_t* buf, int32_t row, uint32_t bytes, void* user) {
    auto* s = static_cast<RowSource*>(user);
    ++s->calls;
    if (s->answer > 0)
        for (uint32_t i = 0; i < bytes; ++i) buf[i] = uint8_t(row * 16 + int32_t(i));
    return s->answer;
}

TEST(RowsCallback, GetRowCallbackAnswersFirst) {
    RowSource src;
    BITMAPDATACALLBACKS cb{};
    cb.uStructSize = BITMAPDATACALLBACKS_SIZE;
    cb.pUserData = &src;
    cb.pfnGetRow = getRowFromCallback;
    BITMAPRECORD bm;
    ASSERT_EQ(K_CreateBitmapWithCallbacks(&bm, BITMAPRECORD_SIZE, 1, 8, 4, 8, 0, nullptr, 1, nullptr, 0, &cb),
              KS_SUCCESS);
    uint8_t stored[8] = {9, 9, 9, 9, 9, 9, 9, 9};
    ASSERT_EQ(K_PutBitmapRow(&bm, stored, 2, 8), 8);
    uint8_t out[8] = {};
    // 0: not handled, the storage answers.
    EXPECT_EQ(K_GetBitmapRow(&bm, out, 2, 8), 8);
    EXPECT_EQ(out[0], 9);
    // A positive answer is the result and the callback's bytes are the row.
    src.answer = 8;
    EXPECT_EQ(K_GetBitmapRow(&bm, out, 2, 8), 8);
    EXPECT_EQ(out[1], 2 * 16 + 1);
    // Column form: the callback fills the row, the column's bytes are returned.
    EXPECT_EQ(K_GetBitmapRowCol(&bm, out, 3, 5, 8), 3);
    EXPECT_EQ(out[0], 3 * 16 + 5);
    // Errors pass through unchanged.
    src.answer = -777;
    EXPECT_EQ(K_GetBitmapRow(&bm, out, 2, 8), -777);
    EXPECT_EQ(src.calls, 4);
    K_FreeBitmap(&bm);
}

}  // namespace
