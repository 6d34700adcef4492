// Colour resolution under memory failure: every allocation of a call fails in
// turn; the call either succeeds or leaves the source, the destination record
// and the kernel's block count as they were.
#include <gtest/gtest.h>

#include <cstring>
#include <vector>

#include "krn/common/memory.h"
#include "ombrix.h"

namespace {

struct Case {
    int srcBits, dstBits;
    uint32_t flags;
    bool inPlace;
};

std::vector<uint8_t> pixels(BITMAPRECORD* bm) {
    std::vector<uint8_t> all(size_t(bm->nBytesPerLine) * size_t(bm->nHeight));
    for (int y = 0; y < bm->nHeight; ++y)
        K_GetBitmapRow(bm, all.data() + size_t(y) * bm->nBytesPerLine, y, bm->nBytesPerLine);
    return all;
}

TEST(ColorResFailures, EveryAllocationFailureLeavesEverythingAsItWas) {
    const Case cases[] = {
        {8, 24, 0, false},                                   // palette to colour (the frame-drawing path)
        {24, 8, CRF_FIXEDPALETTE | CRF_NODITHERING, false},  // fixed palette lookup
        {24, 8, CRF_OPTIMIZEDPALETTE | CRF_NODITHERING, false},
        {24, 4, CRF_FIXEDPALETTE | CRF_DITHER(1), false},    // the dithering engine
        {24, 16, CRF_BYTEORDER565, true},                    // in place
        {16, 8, CRF_BYTEORDERGRAY, true},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(testing::Message() << c.srcBits << " -> " << c.dstBits << " flags " << c.flags);
        BITMAPRECORD src{};
        ASSERT_EQ(K_CreateBitmap(&src, BITMAPRECORD_SIZE, MEMTYPE_CONVENTIONAL, 37, 11, c.srcBits,
                                 c.srcBits == 16 ? ORDER_GRAY : c.srcBits <= 8 ? ORDER_RGB : ORDER_BGR, nullptr, TOP_LEFT, nullptr, 0),
                  KS_SUCCESS);
        std::vector<uint8_t> row(src.nBytesPerLine);
        for (int y = 0; y < src.nHeight; ++y) {
            for (size_t i = 0; i < row.size(); ++i) row[i] = uint8_t(i * 7 + size_t(y) * 13);
            ASSERT_GE(K_PutBitmapRow(&src, row.data(), y, src.nBytesPerLine), 0);
        }
        const std::vector<uint8_t> before = pixels(&src);
        const BITMAPRECORD record = src;
        bool succeeded = false;
        for (long n = 0; n < 400 && !succeeded; ++n) {
            BITMAPRECORD dst;
            std::memset(&dst, 0xA7, sizeof dst);
            const BITMAPRECORD dstBefore = dst;
            const long live = krn::faultinject::liveBlocks();
            krn::faultinject::arm(n);
            const int32_t rc =
                K_ColorResBitmap(&src, c.inPlace ? &src : &dst, c.dstBits, c.flags, nullptr, 0, BITMAPRECORD_SIZE);
            const bool injected = krn::faultinject::injected() > 0;
            krn::faultinject::disarm();
            if (rc == KS_SUCCESS) {
                // A failure the call could work around (a cache, a helper thread) still succeeds.
                if (!c.inPlace) {
                    K_FreeBitmap(&dst);
                    EXPECT_EQ(krn::faultinject::liveBlocks(), live) << "blocks leaked by a success";
                }
                if (!injected || c.inPlace) succeeded = true;
                continue;
            }
            ASSERT_TRUE(injected) << "failed with " << rc << " without an injected failure";
            EXPECT_EQ(rc, KS_NO_MEMORY) << "allocation " << n;
            EXPECT_EQ(krn::faultinject::liveBlocks(), live) << "blocks leaked when allocation " << n << " failed";
            EXPECT_EQ(std::memcmp(&src, &record, sizeof src), 0) << "source record changed, allocation " << n;
            EXPECT_EQ(pixels(&src), before) << "source pixels changed, allocation " << n;
            if (!c.inPlace) {
                EXPECT_EQ(std::memcmp(&dst, &dstBefore, sizeof dst), 0) << "destination written";
            }
        }
        EXPECT_TRUE(succeeded);
        K_FreeBitmap(&src);
    }
}

}  // namespace
