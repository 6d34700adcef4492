// test_record.cpp - the bitmap record: initialisation rules, creation, the export frame, freeing, caller
// memory and the data pointer. (Allocation failures of creation: StorageFaults; heights: StorageHeight.)
#include <gtest/gtest.h>

#include <cstring>
#include <thread>
#include <vector>

#include "krn/common/memory.h"
#include "krn/common/settings.h"
#include "ombrix.h"
#include "check_list.h"

namespace {

using checklist::expectAll;

long warmLiveBlocks() {  // baseline for leak checks: the per-thread settings block is made on first use
    K_GetDefaultXResolution();
    return krn::faultinject::liveBlocks();
}
BITMAPRECORD patterned(uint8_t byte) {
    BITMAPRECORD bm;
    std::memset(&bm, byte, sizeof bm);
    return bm;
}
bool same(const BITMAPRECORD& a, const BITMAPRECORD& b) { return std::memcmp(&a, &b, sizeof a) == 0; }
BITMAPDATACALLBACKS callbacks(void* user) {
    BITMAPDATACALLBACKS cb{};
    cb.uStructSize = BITMAPDATACALLBACKS_SIZE;
    cb.pUserData = user;
    return cb;
}
const uint32_t N = BITMAPRECORD_SIZE, O = BITMAPRECORD_SIZE_OLD;

// An empty record keeps only its size word; the older layout never writes past its bytes.
TEST(RecordInit, EmptyRecordKeepsOnlyItsSizeAndOlderLayoutStaysInItsBytes) {
    for (uint32_t id : {N, O}) {
        BITMAPRECORD bm = patterned(0xAB);
        ASSERT_EQ(K_InitBitmap(&bm, id, 0, 0, 0), KS_SUCCESS);
        std::vector<uint8_t> expect(OMBRIX_RECORD_BYTES(id), 0);
        std::memcpy(expect.data(), &id, sizeof id);
        EXPECT_EQ(std::memcmp(&bm, expect.data(), expect.size()), 0) << id;
    }
    BITMAPRECORD bm = patterned(0xCD);
    ASSERT_EQ(K_InitBitmap(&bm, O, 10, 10, 24), KS_SUCCESS);
    const auto* bytes = reinterpret_cast<const uint8_t*>(&bm);
    EXPECT_EQ(std::vector<uint8_t>(bytes + OMBRIX_RECORD_BYTES_OLD, bytes + sizeof bm), std::vector<uint8_t>(sizeof bm - OMBRIX_RECORD_BYTES_OLD, 0xCD));
}

// Statuses and sizes at the edges: size words, dimensions, depths, rows whose bit count does not fit 32 bits,
// and the older layout's 32-bit data size (uSize 0xFFFF0000 and width 0 when it cannot hold the image).
TEST(RecordInit, EdgesOfEveryArgument) {
    const struct { uint32_t id; int32_t w, h, bpp, expect; uint64_t size64; } cases[] = {
        {0, 1, 1, 1, KS_INVALID_STRUCT_SIZE, 0},         {175, 1, 1, 1, KS_INVALID_STRUCT_SIZE, 0},
        {177, 1, 1, 1, KS_INVALID_STRUCT_SIZE, 0},       {215, 1, 1, 1, KS_INVALID_STRUCT_SIZE, 0},
        {217, 1, 1, 1, KS_INVALID_STRUCT_SIZE, 0},       {N, -1, 1, 1, KS_INVALID_DIMENSIONS, 0},
        {N, 1, -1, 1, KS_INVALID_DIMENSIONS, 0},         {N, 0x7FFFFFFF, 1, 64, KS_INVALID_DIMENSIONS, 0},
        {N, 0x08000000, 1, 32, KS_INVALID_DIMENSIONS, 0}, {N, 0x07FFFFFF, 1, 32, KS_SUCCESS, 0x1FFFFFFCull},
        {O, 0x10000, 0x10000, 8, KS_MEMORY_TOO_LOW, 0},  {N, 0x10000, 0x10000, 8, KS_SUCCESS, 0x100000000ull},
        {O, 0x10000, 0xFFFF, 8, KS_SUCCESS, 0xFFFF0000ull}, {O, 0x7FFFFFFF, 0x7FFFFFFF, 1, KS_MEMORY_TOO_LOW, 0},
        {N, 0x7FFFFFFF, 0x7FFFFFFF, 1, KS_SUCCESS, uint64_t(0x10000000u) * 0x7FFFFFFFu}};
    BITMAPRECORD bm;
    for (const auto& c : cases) {
        SCOPED_TRACE(::testing::Message() << c.id << " " << c.w << "x" << c.h << "x" << c.bpp);
        ASSERT_EQ(K_InitBitmap(&bm, c.id, c.w, c.h, c.bpp), c.expect);
        EXPECT_TRUE(c.expect != KS_MEMORY_TOO_LOW || (bm.uSize == 0xFFFF0000u && bm.nWidth == 0));
        EXPECT_TRUE(c.expect != KS_SUCCESS || (bm.uSize == uint32_t(c.size64) && (c.id != N || bm.uSize64 == c.size64)));
    }
    EXPECT_EQ(K_InitBitmap(nullptr, N, 1, 1, 1), KS_INVALID_PARAMETER);
    for (int bpp : {0, 9, 10, 11, 13, 14, 15, 17, 25, 33, 63, 65, -8})
        EXPECT_EQ(K_InitBitmap(&bm, N, 5, 5, bpp), KS_INVALID_BITS_PER_PIXEL) << bpp;
}

// The fields derived from the depth: rows padded to 4 bytes, 2^bpp colours up to 8 bits, order and bit fields.
TEST(RecordInit, FieldsFollowTheDepth) {
    for (int bpp : {1, 2, 4, 7, 8, 12, 16, 24, 32, 48, 64}) {
        BITMAPRECORD bm;
        ASSERT_EQ(K_InitBitmap(&bm, N, 33, 7, bpp), KS_SUCCESS);
        const int high = bpp <= 8 ? bpp - 1 : bpp == 12 || bpp == 16 ? bpp - 1 : bpp == 24 ? 7 : bpp == 32 ? -1 : 15;
        expectAll({IS(bm.nBytesPerLine, (33 * bpp + 31) / 32 * 4), IS(bm.uSize64, (33 * bpp + 31) / 32 * 4 * 7),
                   IS(bm.nColors, bpp <= 8 ? 1 << bpp : 0), IS(bm.nHighBit, high), IS(bm.nMaxBit, high),
                   IS(bm.nOrder, bpp <= 8 ? ORDER_RGB : bpp == 12 ? ORDER_GRAY : ORDER_BGR), IS(bm.nLowBit, 0),
                   IS(bm.nViewPerspective, BOTTOM_LEFT), IS(bm.nLevel, 100), IS(bm.uFlags, 0)});
    }
}

TEST(RecordDefaults, ResolutionsArePerThreadWithASharedFallback) {
    const int32_t oldX = K_SetDefaultXResolution(300), oldY = K_SetDefaultYResolution(-5);
    BITMAPRECORD bm;
    int32_t other = 0;
    expectAll({IS(K_InitBitmap(&bm, N, 2, 2, 8), KS_SUCCESS), IS(bm.nXResolution, 300), IS(bm.nYResolution, 150) /* 0 or below */,
               IS((std::thread([&] { other = K_GetDefaultXResolution(); }).join(), other), 150),
               IS(K_SetDefaultXResolution(oldX), 300)});
    K_SetDefaultYResolution(oldY);
    // Threads on the process-wide fallback share it.
    krn::testhook::forceSettingsFallback(true);
    const int32_t before = K_GetDefaultXResolution();
    K_SetDefaultXResolution(77);
    std::thread([&] {
        krn::testhook::forceSettingsFallback(true);
        other = K_GetDefaultXResolution();
        krn::testhook::forceSettingsFallback(false);
    }).join();
    K_SetDefaultXResolution(before);
    krn::testhook::forceSettingsFallback(false);
    EXPECT_TRUE(other == 77 && krn::processSettings().nXResolution == before);
}

// Perspective 0 means top-left; depth 0 means 8-bit grey; grey order gets a ramp; a caller palette is
// copied; no palette: the fixed one of the depth.
TEST(RecordCreate, PerspectiveOrderAndPalette) {
    RGBQUAD pal[16];
    for (int i = 0; i < 16; ++i) pal[i] = RGBQUAD{uint8_t(i), uint8_t(2 * i), uint8_t(3 * i), 0};
    const struct { int32_t bpp, order; const RGBQUAD* pal; int32_t vp, bppAfter, orderAfter; } cases[] = {
        {24, ORDER_RGB, nullptr, 0, 24, ORDER_RGB}, {0, ORDER_BGR, nullptr, 1, 8, ORDER_RGB},
        {2, ORDER_GRAY, nullptr, 1, 2, ORDER_RGB},  {4, ORDER_BGR, pal, 1, 4, -1}, {1, ORDER_BGR, nullptr, 1, 1, -1}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.bpp);
        BITMAPRECORD bm;
        ASSERT_EQ(K_CreateBitmap(&bm, N, 1, 8, 8, c.bpp, c.order, c.pal, c.vp, nullptr, 0), KS_SUCCESS);
        expectAll({IS(bm.nViewPerspective, c.vp ? c.vp : TOP_LEFT), IS(bm.nBitsPerPixel, c.bppAfter),
                   IS(c.orderAfter < 0 || bm.nOrder == c.orderAfter, 1),
                   IS(bm.uFlags & 0xFFFFu & ~BRF_MOVABLE_BLOCK, BRF_ALLOCATED | BRF_CONVENTIONAL),
                   IS(c.bpp != 2 || bm.pPalette[1].rgbRed == 85, 1),
                   IS(!c.pal || (bm.pPalette != pal && std::memcmp(bm.pPalette, pal, sizeof pal) == 0), 1),
                   IS(c.bpp != 1 || (bm.pPalette[0].rgbRed == 0 && bm.pPalette[1].rgbBlue == 255), 1)});
        for (int i = 0; c.bpp == 0 && i < 256; ++i) ASSERT_EQ(bm.pPalette[i].rgbGreen, i);
        K_FreeBitmap(&bm);
    }
}

// Values are checked in a fixed order: dimensions and depth, then the colour order, then the perspective. A
// failed call leaves the record untouched and makes nothing, even for 2^59 bytes that may not go to disk.
TEST(RecordCreate, ValuesCheckedDimensionsThenOrderThenPerspective) {
    const long base = warmLiveBlocks();
    const struct { uint32_t type; int32_t width, height, bpp, order, perspective, expect; } cases[] = {
        {1, -1, 4, 24, ORDER_BGR, 9, KS_INVALID_DIMENSIONS},  // width before perspective
        {1, -1, 4, 24, 3, 1, KS_INVALID_DIMENSIONS},          // width before order
        {1, 4, 4, 9, 3, 9, KS_INVALID_BITS_PER_PIXEL},        // depth before order and perspective
        {1, 4, 4, 8, ORDER_ROMM, 9, KS_INVALID_BITS_PER_PIXEL},  // order before perspective
        {1, 4, 4, 24, 3, 9, KS_INVALID_PARAMETER},             {1, 4, 4, 16, 3, 1, KS_INVALID_PARAMETER},
        {1, 4, 4, 24, ORDER_BGR, 9, KS_INVALID_PARAMETER},     {1, 4, 4, 24, ORDER_BGR, -1, KS_INVALID_PARAMETER},
        {1, 0x7FFFFFFF, 4, 64, ORDER_BGR, 9, KS_INVALID_DIMENSIONS},
        {1, 0x7FFFFFFF, 1, 2, ORDER_BGR, 1, KS_INVALID_DIMENSIONS},
        {1, 0x7FFFFFFF, 1, 12, ORDER_BGR, 1, KS_INVALID_DIMENSIONS},
        {MEMTYPE_CONVENTIONAL | MEMTYPE_NO_DISK, 0x7FFFFFFF, 0x7FFFFFFF, 1, ORDER_RGB, 1, KS_NO_MEMORY}};
    for (const auto& c : cases) {
        BITMAPRECORD bm = patterned(0x5E);
        const BITMAPRECORD before = bm;
        EXPECT_EQ(K_CreateBitmap(&bm, N, c.type, c.width, c.height, c.bpp, c.order, nullptr, c.perspective, nullptr, 0), c.expect)
            << c.width << " " << c.bpp << " " << c.order << " " << c.perspective;
        EXPECT_TRUE(same(bm, before));
    }
    EXPECT_EQ(krn::faultinject::liveBlocks(), base);
}

// Memory type 2 with the caller's buffer: the record points at the buffer, the kernel never frees or moves
// it, a buffer of the wrong size is refused with nothing made, a record without a buffer takes one later.
TEST(RecordCreate, CallerMemoryWithData) {
    const long base = warmLiveBlocks();
    std::vector<uint8_t> pixels(8 * 5, 0);  // 2 x 5 at 24 bits: 8 bytes per line
    for (uint32_t id : {N, O}) {
        SCOPED_TRACE(id);
        BITMAPRECORD bm;
        for (uint8_t* data : {pixels.data(), static_cast<uint8_t*>(nullptr)}) {
            ASSERT_EQ(K_CreateBitmap(&bm, id, MEMTYPE_USER, 2, 5, 24, ORDER_BGR, nullptr, 1, data, data ? 40 : 0), KS_SUCCESS);
            EXPECT_EQ(bm.uFlags & BRF_STORAGE_MASK, BRF_ALLOCATED | BRF_CONVENTIONAL | BRF_USER_MEMORY);
            EXPECT_TRUE(bm.pData == data && bm.hMemory == nullptr);
            expectAll({IS(data ? 1 : K_SetBitmapDataPointer(&bm, pixels.data(), pixels.size()), 1), IS(K_AccessBitmap(&bm), 1),
                       IS(bm.pData[39] = data ? 0x77 : 0x78, data ? 0x77 : 0x78), IS(K_ReleaseBitmap(&bm), 1),
                       IS(bm.pData == pixels.data(), 1) /* caller memory is not unlocked away */,
                       IS(K_FreeBitmap(&bm), 1) /* must not free the caller's buffer (ASan) */, IS(pixels[39], data ? 0x77 : 0x78)});
        }
        for (size_t wrong : {pixels.size() - 1, size_t(0)}) {
            BITMAPRECORD keep = patterned(0x42);
            const BITMAPRECORD before = keep;
            EXPECT_EQ(K_CreateBitmap(&keep, id, MEMTYPE_USER, 2, 5, 24, ORDER_BGR, nullptr, 1, pixels.data(), wrong), KS_INVALID_PARAMETER);
            EXPECT_TRUE(same(keep, before));
        }
        EXPECT_EQ(krn::faultinject::liveBlocks(), base);
    }
}

// Every record operation answers a null record with its documented code; the callback table checks its size
// word. (That every export refuses a record with a bad size word unchanged is the API fuzzer's check.)
TEST(RecordFrame, NullRecordsAndBadSizeWords) {
    BITMAPDATACALLBACKS cb = callbacks(nullptr), out = callbacks(nullptr);
    expectAll({IS(K_InitBitmapWithCallbacks(nullptr, N, 1, 1, 1, &cb), KS_INVALID_PARAMETER),
               IS(K_CreateBitmap(nullptr, N, 1, 1, 1, 8, 0, nullptr, 1, nullptr, 0), KS_INVALID_PARAMETER),
               IS(K_CreateBitmapWithCallbacks(nullptr, N, 1, 1, 1, 8, 0, nullptr, 1, nullptr, 0, &cb), KS_INVALID_PARAMETER),
               IS(K_SetBitmapDataCallbacks(nullptr, &cb), KS_INVALID_PARAMETER),
               IS(K_GetBitmapDataCallbacks(nullptr, &cb), KS_INVALID_PARAMETER),
               IS(K_ChangeBitmapHeight(nullptr, 1), KS_INVALID_BITMAP),
               IS(K_SetBitmapDataPointer(nullptr, nullptr, 0), KS_INVALID_BITMAP), IS(K_FreeBitmap(nullptr), 1)});
    // The callback table: wrong size words, a null out-table, a round trip, none for the older layout.
    BITMAPRECORD bm;
    ASSERT_EQ(K_InitBitmap(&bm, N, 4, 4, 8), KS_SUCCESS);
    for (uint32_t bad : {0u, 40u, 43u, 45u, 48u, 88u}) {
        cb.uStructSize = bad;
        expectAll({IS(K_SetBitmapDataCallbacks(&bm, &cb), KS_INVALID_STRUCT_SIZE),
                   IS(K_GetBitmapDataCallbacks(&bm, &cb), KS_INVALID_STRUCT_SIZE),
                   IS(K_InitBitmapWithCallbacks(&bm, N, 4, 4, 8, &cb), KS_INVALID_STRUCT_SIZE)});
    }
    cb = callbacks(&bm);
    expectAll({IS(K_GetBitmapDataCallbacks(&bm, nullptr), KS_INVALID_PARAMETER), IS(K_SetBitmapDataCallbacks(&bm, &cb), 1),
               IS(K_GetBitmapDataCallbacks(&bm, &out), 1), IS(out.pUserData == &bm, 1), IS(K_FreeBitmap(&bm), 1),
               IS(bm.pCallbacks == nullptr, 1),
               IS(K_InitBitmapWithCallbacks(&bm, O, 4, 4, 8, &cb), KS_INVALID_STRUCT_SIZE)});
}

// K_FreeBitmap's order: region, palette and overlays go before the free callback is asked; storage, allocated
// bit, LUT, extra data, callbacks and the dithering after it. The callback sees the record in that middle state.
struct FreeOrderSeen {
    int calls = 0;
    uint32_t state = 0;  // one bit per observation, all set when the order is right
    int32_t answer = KS_SUCCESS;
};
int32_t observeFree(BITMAPRECORD* bm, void* user) {
    auto* seen = static_cast<FreeOrderSeen*>(user);
    ++seen->calls;
    seen->state = (bm->hRgn == nullptr) | (bm->pPalette == nullptr) << 1 | ((bm->uFlags & BRF_ALLOCATED) != 0) << 2 |
                  (bm->pLUT != nullptr) << 3 | (bm->pExtraData != nullptr) << 4 | (bm->pDitherState != nullptr) << 5;
    return seen->answer;  // 1: the kernel frees the storage by its kind; 2: the callback owns it
}

TEST(RecordFree, OrderAroundTheFreeCallbackAndEverythingReleased) {
    const long base = warmLiveBlocks();
    FreeOrderSeen seen;
    BITMAPDATACALLBACKS cb = callbacks(&seen);
    cb.pfnFree = observeFree;
    BITMAPRECORD bm;
    ASSERT_EQ(K_CreateBitmapWithCallbacks(&bm, N, 1, 16, 16, 8, ORDER_RGB, nullptr, 1, nullptr, 0, &cb), KS_SUCCESS);
    const RECT r{2, 2, 10, 10};
    ASSERT_EQ(K_SetBitmapRgnRect(&bm, nullptr, &r, RGN_SET_OR), KS_SUCCESS);
    ASSERT_EQ(K_StartDithering(&bm, nullptr, 16), KS_SUCCESS);
    bm.pLUT = K_GlobalAlloc(GMEM_FIXED, 256);
    bm.pExtraData = K_GlobalAlloc(GMEM_FIXED, 8);
    bm.uExtraDataSize = 8;
    K_FreeBitmap(&bm);
    BITMAPRECORD bad = patterned(0);
    expectAll({IS(seen.calls, 1), IS(seen.state, 0x3F), IS(bm.hRgn == nullptr && bm.pDitherState == nullptr, 1),
               IS(bm.pPalette == nullptr && bm.pLUT == nullptr && bm.pExtraData == nullptr, 1),
               IS(bm.uExtraDataSize, 0), IS(bm.pCallbacks == nullptr, 1), IS(bm.uFlags & BRF_STORAGE_MASK, 0),
               IS(krn::faultinject::liveBlocks(), base) /* storage freed by kind, everything else released */,
               IS(K_FreeBitmap(&bm), 1) /* twice is harmless */, IS((bad.uStructSize = 100, K_FreeBitmap(&bad)), 1),
               IS(krn::faultinject::liveBlocks(), base)});
    // A free callback that owns the storage: the kernel only forgets it.
    std::vector<uint8_t> pixels(16 * 4);
    seen = FreeOrderSeen{};
    seen.answer = 2;
    ASSERT_EQ(K_CreateBitmapWithCallbacks(&bm, N, MEMTYPE_USER, 16, 4, 8, ORDER_RGB, nullptr, 1, pixels.data(), pixels.size(), &cb), 1);
    expectAll({IS(K_FreeBitmap(&bm), 1), IS(seen.calls, 1), IS(bm.uFlags & (BRF_ALLOCATED | BRF_USER_MEMORY | BRF_CONVENTIONAL), 0),
               IS(krn::faultinject::liveBlocks(), base)});
    // A caller's movable block (locked on access, never freed by the kernel): releasing the record forgets
    // the handle and its movable-block flag; the record then holds an ordinary block.
    HGLOBAL h = K_GlobalAlloc(GMEM_MOVEABLE, 16 * 4);
    ASSERT_EQ(K_CreateBitmap(&bm, N, MEMTYPE_USER, 16, 4, 8, ORDER_RGB, nullptr, 1, nullptr, 0), 1);
    bm.hMemory = h;
    bm.uFlags |= BRF_MOVABLE_BLOCK;
    expectAll({IS(K_AccessBitmap(&bm), 1), IS(bm.pData == K_GlobalLock(h), 1), IS(K_GlobalUnlock(h), 1), IS(K_ReleaseBitmap(&bm), 1),
               IS(K_FreeBitmap(&bm), 1), IS(bm.uFlags & BRF_MOVABLE_BLOCK, 0), IS(bm.hMemory == nullptr, 1),
               IS(K_AllocateBitmap(&bm, MEMTYPE_CONVENTIONAL), 1), IS(bm.uFlags & (BRF_MOVABLE_BLOCK | BRF_USER_MEMORY), 0),
               IS(K_FreeBitmap(&bm), 1), IS(K_GlobalFree(h) == nullptr, 1) /* still the caller's */});
    // A record freed while still accessed is reusable: its next storage is locked by its next first access.
    ASSERT_EQ(K_CreateBitmap(&bm, N, 1, 30, 7, 8, ORDER_RGB, nullptr, 1, nullptr, 0), KS_SUCCESS);
    expectAll({IS(K_AccessBitmap(&bm), 1), IS(K_AccessBitmap(&bm), 1), IS(K_FreeBitmap(&bm), 1),
               IS(bm.uFlags & (BRF_ALLOCATED | BRF_LOCKED), 0), IS(bm.pData == nullptr, 1),
               IS(K_AllocateBitmap(&bm, MEMTYPE_CONVENTIONAL), 1), IS(K_AccessBitmap(&bm), 1)});
    ASSERT_NE(bm.pData, nullptr);
    std::memset(bm.pData, 1, bm.uSize64);
    expectAll({IS(K_ReleaseBitmap(&bm), 1), IS(bm.pData == nullptr, 1), IS(K_FreeBitmap(&bm), 1)});
}

// Caller memory through K_SetBitmapDataPointer: the size check comes before the size-word check; a larger
// buffer is taken, a smaller one never; accessed storage is never replaced (in either layout; the older one
// has only the locked bit); owned storage is freed when replaced.
TEST(RecordDataPointer, FrameOrderAttachAndReplace) {
    const long base = warmLiveBlocks();
    std::vector<uint8_t> pixels(8 * 3), bigger(100);
    BITMAPRECORD bm;
    ASSERT_EQ(K_InitBitmap(&bm, N, 2, 3, 24), KS_SUCCESS);  // 8 bytes per line
    bm.uStructSize = 99;
    expectAll({IS(K_SetBitmapDataPointer(&bm, pixels.data(), pixels.size() - 1), KS_INVALID_PARAMETER),
               IS(K_SetBitmapDataPointer(&bm, pixels.data(), pixels.size()), KS_INVALID_STRUCT_SIZE),
               IS(bm.uStructSize = N, N), IS(K_SetBitmapDataPointer(&bm, pixels.data(), pixels.size()), 1),
               IS(bm.pData == pixels.data(), 1),
               IS(bm.uFlags & 0xFFFFu, BRF_ALLOCATED | BRF_CONVENTIONAL | BRF_USER_MEMORY),
               IS(K_SetBitmapDataPointer(&bm, bigger.data(), 10), KS_INVALID_PARAMETER),
               IS(K_SetBitmapDataPointer(&bm, bigger.data(), bigger.size()), 1),
               IS(K_SetBitmapDataPointer(&bm, nullptr, 0), 1), IS(bm.pData == nullptr, 1), IS(K_FreeBitmap(&bm), 1)});
    for (uint32_t id : {N, O}) {
        SCOPED_TRACE(id);
        ASSERT_EQ(K_CreateBitmap(&bm, id, 1, 4, 4, 32, ORDER_BGR, nullptr, 1, nullptr, 0), KS_SUCCESS);
        ASSERT_EQ(K_AccessBitmap(&bm), KS_SUCCESS);
        uint8_t* own = bm.pData;
        std::vector<uint8_t> mine(bm.uSize);
        EXPECT_TRUE(K_SetBitmapDataPointer(&bm, mine.data(), mine.size()) == KS_INVALID_PARAMETER && bm.pData == own);
        std::memset(own, 0x3A, bm.uSize);  // still the bitmap's own block (ASan)
        expectAll({IS(K_ReleaseBitmap(&bm), 1), IS(K_SetBitmapDataPointer(&bm, mine.data(), mine.size()), 1),
                   IS(bm.pData == mine.data(), 1), IS(bm.hMemory == nullptr, 1), IS(K_FreeBitmap(&bm), 1),
                   IS(krn::faultinject::liveBlocks(), base)});
    }
}

}  // namespace
