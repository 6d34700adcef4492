// test_combine_paged.cpp - a combine into a storage kind whose row writes can
// fail (super-compressed rows are re-encoded, and allocate, as each row is
// written) changes nothing when a row fails midway: the rows written before
// it are put back.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <vector>

#include "krn/common/memory.h"
#include "ombrix.h"
#include "support/storage_kinds.h"

namespace {

using storagetest::Kind;
using storagetest::KindBitmap;

std::vector<uint8_t> rows(BITMAPRECORD* bm) {
    std::vector<uint8_t> out(size_t(bm->nBytesPerLine) * size_t(bm->nHeight));
    for (int32_t y = 0; y < bm->nHeight; ++y)
        EXPECT_GE(K_GetBitmapRow(bm, out.data() + size_t(y) * bm->nBytesPerLine, y, bm->nBytesPerLine), 0);
    return out;
}

void fill(BITMAPRECORD* bm, uint32_t seed) {
    std::vector<uint8_t> row(bm->nBytesPerLine);
    for (int32_t y = 0; y < bm->nHeight; ++y) {
        // Runs of a few bytes so that the compressed kinds hold several runs per row.
        for (size_t i = 0; i < row.size(); ++i) row[i] = uint8_t(((i / 3) * 37 + size_t(y) * 11 + seed) * 0x9E);
        ASSERT_GE(K_PutBitmapRow(bm, row.data(), y, bm->nBytesPerLine), 0);
    }
}

// The highest percent reported during one call: above 0, rows were written.
int32_t g_percent = 0;
int32_t recordPercent(int32_t percent, void*) {
    g_percent = std::max(g_percent, percent);
    return 1;
}

TEST(CombinePaged, RowFailingMidwayPutsWrittenRowsBack) {
    struct Case {
        Kind kind;
        int32_t bpp;
        uint32_t flags;
        int32_t width;
    } const cases[] = {
        {Kind::SuperCompressed, 1, CombineOr | COMBINE_SRC_INVERT, 53},
        {Kind::SuperCompressed, 8, CombineAdd, 53},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(testing::Message() << storagetest::kindName(c.kind) << ", " << c.bpp << " bits, flags " << c.flags);
        KindBitmap dst(c.kind, c.width, 21, c.bpp), src(Kind::SingleBlock, c.width, 21, c.bpp);
        ASSERT_EQ(dst.rc, KS_SUCCESS);
        ASSERT_EQ(src.rc, KS_SUCCESS);
        fill(&dst.bm, 1);
        fill(&src.bm, 7);
        const std::vector<uint8_t> before = rows(&dst.bm);
        int midway = 0;  // failures after some rows were written
        bool done = false;
        K_SetStatusCallBack(&recordPercent, nullptr, nullptr, nullptr);
        for (long n = 0; n < 2000 && !done; ++n) {
            const long live = krn::faultinject::liveBlocks();
            g_percent = 0;
            krn::faultinject::arm(n);
            const int32_t rc = K_CombineBitmapKrn(&dst.bm, 2, 1, c.width - 3, 19, &src.bm, 1, 0, c.flags);
            const bool injected = krn::faultinject::injected() > 0;
            krn::faultinject::disarm();
            if (rc == KS_SUCCESS) {
                done = !injected;
                if (!done) {  // a failure the call worked around: start again from the original pixels
                    for (int32_t y = 0; y < dst.bm.nHeight; ++y)
                        K_PutBitmapRow(&dst.bm, before.data() + size_t(y) * dst.bm.nBytesPerLine, y, dst.bm.nBytesPerLine);
                }
                continue;
            }
            midway += g_percent > 0 && g_percent < 100;
            ASSERT_TRUE(injected) << "failed with " << rc << " without an injected failure";
            EXPECT_EQ(rc, KS_NO_MEMORY) << "allocation " << n;
            EXPECT_EQ(krn::faultinject::liveBlocks(), live) << "allocation " << n;
            ASSERT_EQ(rows(&dst.bm), before) << "pixels changed when allocation " << n << " failed";
        }
        K_SetStatusCallBack(nullptr, nullptr, nullptr, nullptr);
        EXPECT_TRUE(done);
        EXPECT_GT(midway, 0) << "no failure while rows were written";
        EXPECT_NE(rows(&dst.bm), before);
    }
}

// A source whose row callback refuses row 10: the rows combined before it are put back.
int32_t rowsUpToTen(BITMAPRECORD*, uint8_t* buf, int32_t row, uint32_t bytes, void*) {
    if (row >= 10) return KS_FILE_READ;
    for (uint32_t i = 0; i < bytes; ++i) buf[i] = uint8_t(i * 5 + uint32_t(row));
    return 1;
}

TEST(CombinePaged, SourceRowRefusedMidwayPutsWrittenRowsBack) {
    KindBitmap dst(Kind::SingleBlock, 40, 16, 8);
    ASSERT_EQ(dst.rc, KS_SUCCESS);
    fill(&dst.bm, 3);
    BITMAPDATACALLBACKS cbs{};
    cbs.uStructSize = BITMAPDATACALLBACKS_SIZE;
    cbs.pfnGetRow = &rowsUpToTen;
    BITMAPRECORD src{};
    ASSERT_EQ(K_CreateBitmapWithCallbacks(&src, BITMAPRECORD_SIZE, MEMTYPE_CONVENTIONAL, 40, 16, 8, ORDER_RGB, nullptr,
                                          TOP_LEFT, nullptr, 0, &cbs),
              KS_SUCCESS);
    const std::vector<uint8_t> before = rows(&dst.bm);
    EXPECT_EQ(K_CombineBitmapKrn(&dst.bm, 0, 0, 40, 16, &src, 0, 0, CombineAdd), KS_FILE_READ);
    EXPECT_EQ(rows(&dst.bm), before);
    EXPECT_EQ(K_CombineBitmapKrn(&dst.bm, 0, 0, 40, 10, &src, 0, 0, CombineAdd), KS_SUCCESS);
    EXPECT_NE(rows(&dst.bm), before);
    K_FreeBitmap(&src);
}

}  // namespace
