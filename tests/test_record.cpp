// test_record.cpp - the bitmap record: initialisation rules, creation, the
// export frame, freeing, and allocation-failure sweeps.
#include <gtest/gtest.h>

#include <cstring>
#include <vector>

#include "ombrix.h"
#include "krn/common/memory.h"

namespace {

TEST(RecordInit, EmptyRecordKeepsOnlyItsSize) {
    BITMAPRECORD bm;
    std::memset(&bm, 0xAB, sizeof bm);
    ASSERT_EQ(K_InitBitmap(&bm, BITMAPRECORD_SIZE, 0, 0, 0), KS_SUCCESS);
    BITMAPRECORD zero;
    std::memset(&zero, 0, sizeof zero);
    zero.uStructSize = BITMAPRECORD_SIZE;
    EXPECT_EQ(std::memcmp(&bm, &zero, sizeof bm), 0);
}

}  // namespace
