// test_record.cpp - the bitmap record: initialisation rules, creation, the
// export frame, freeing, caller memory, height changes, data callbacks and
// allocation-failure sweeps.
#include <gtest/gtest.h>

#include <cstring>
#include <thread>
#include <vector>

#include "krn/common/memory.h"
#include "krn/common/settings.h"
#include "ombrix.h"

namespace {

// Baseline for leak checks: the per-thread settings block is made on first use.
long warmLiveBlocks() {
    K_GetDefaultXResolution();
    return krn::faultinject::liveBlocks();
}

BITMAPRECORD patterned(uint8_t byte) {
    BITMAPRECORD bm;
    std::memset(&bm, byte, sizeof bm);
    return bm;
}

TEST(RecordInit, EmptyRecordKeepsOnlyItsSize) {
    for (uint32_t id : {BITMAPRECORD_SIZE, BITMAPRECORD_SIZE_OLD}) {
        BITMAPRECORD bm = patterned(0xAB);
        ASSERT_EQ(K_InitBitmap(&bm, id, 0, 0, 0), KS_SUCCESS);
        std::vector<uint8_t> expect(OMBRIX_RECORD_BYTES(id), 0);
        std::memcpy(expect.data(), &id, sizeof id);
        EXPECT_EQ(std::memcmp(&bm, expect.data(), expect.size()), 0) << id;
    }
}

TEST(RecordInit, OlderLayoutNeverTouchesBytesPastItsEnd) {
    BITMAPRECORD bm = patterned(0xCD);
    ASSERT_EQ(K_InitBitmap(&bm, BITMAPRECORD_SIZE_OLD, 10, 10, 24), KS_SUCCESS);
    const auto* bytes = reinterpret_cast<const uint8_t*>(&bm);
    for (size_t i = OMBRIX_RECORD_BYTES_OLD; i < sizeof bm; ++i) ASSERT_EQ(bytes[i], 0xCD) << i;
    EXPECT_EQ(bm.uSize, 10u * 32u);
}

TEST(RecordInit, RejectsBadArgumentsInFrameOrder) {
    BITMAPRECORD bm;
    EXPECT_EQ(K_InitBitmap(nullptr, BITMAPRECORD_SIZE, 1, 1, 1), KS_INVALID_PARAMETER);
    for (uint32_t id : {0u, 175u, 177u, 215u, 217u, 1000u})
        EXPECT_EQ(K_InitBitmap(&bm, id, 1, 1, 1), KS_INVALID_STRUCT_SIZE) << id;
    EXPECT_EQ(K_InitBitmap(&bm, BITMAPRECORD_SIZE, -1, 1, 1), KS_INVALID_DIMENSIONS);
    EXPECT_EQ(K_InitBitmap(&bm, BITMAPRECORD_SIZE, 1, -1, 1), KS_INVALID_DIMENSIONS);
    for (int bpp : {0, 9, 10, 11, 13, 14, 15, 17, 25, 33, 63, 65, -8})
        EXPECT_EQ(K_InitBitmap(&bm, BITMAPRECORD_SIZE, 5, 5, bpp), KS_INVALID_BITS_PER_PIXEL) << bpp;
    // A row whose bit count does not fit 32 bits is refused, never wrapped.
    EXPECT_EQ(K_InitBitmap(&bm, BITMAPRECORD_SIZE, 0x7FFFFFFF, 1, 64), KS_INVALID_DIMENSIONS);
    EXPECT_EQ(K_InitBitmap(&bm, BITMAPRECORD_SIZE, 0x08000000, 1, 32), KS_INVALID_DIMENSIONS);
    EXPECT_EQ(K_InitBitmap(&bm, BITMAPRECORD_SIZE, 0x07FFFFFF, 1, 32), KS_SUCCESS);
}

TEST(RecordInit, FieldsFollowTheDepth) {
    struct Case {
        int bpp, width;
        uint32_t bpl;
        int colors, order, high;
    };
    const Case cases[] = {{1, 1, 4, 2, ORDER_RGB, 0},      {1, 33, 8, 2, ORDER_RGB, 0},
                          {4, 9, 8, 16, ORDER_RGB, 3},     {8, 5, 8, 256, ORDER_RGB, 7},
                          {12, 3, 8, 0, ORDER_GRAY, 11},   {16, 3, 8, 0, ORDER_BGR, 15},
                          {24, 3, 12, 0, ORDER_BGR, 7},    {24, 1, 4, 0, ORDER_BGR, 7},
                          {32, 3, 12, 0, ORDER_BGR, -1},   {48, 3, 20, 0, ORDER_BGR, 15},
                          {64, 3, 24, 0, ORDER_BGR, 15},   {7, 100, 88, 128, ORDER_RGB, 6}};
    for (const Case& c : cases) {
        BITMAPRECORD bm;
        ASSERT_EQ(K_InitBitmap(&bm, BITMAPRECORD_SIZE, c.width, 7, c.bpp), KS_SUCCESS);
        EXPECT_EQ(bm.nBytesPerLine, c.bpl) << c.bpp;
        EXPECT_EQ(bm.uSize64, uint64_t(c.bpl) * 7) << c.bpp;
        EXPECT_EQ(bm.uSize, c.bpl * 7) << c.bpp;
        EXPECT_EQ(bm.nColors, c.colors) << c.bpp;
        EXPECT_EQ(bm.nOrder, c.order) << c.bpp;
        EXPECT_EQ(bm.nHighBit, c.high) << c.bpp;
        EXPECT_EQ(bm.nMaxBit, c.high) << c.bpp;
        EXPECT_EQ(bm.nLowBit, 0);
        EXPECT_EQ(bm.nViewPerspective, BOTTOM_LEFT);
        EXPECT_EQ(bm.nLevel, 100);
        EXPECT_EQ(bm.uFlags, 0u);
    }
}

TEST(RecordInit, OlderLayoutSizeLimit) {
    // 0x10000 x 0x10000 at 8 bits = 4 GiB: too big for the older layout only.
    BITMAPRECORD bm;
    EXPECT_EQ(K_InitBitmap(&bm, BITMAPRECORD_SIZE_OLD, 0x10000, 0x10000, 8), KS_MEMORY_TOO_LOW);
    EXPECT_EQ(bm.uSize, 0xFFFF0000u);
    EXPECT_EQ(bm.nWidth, 0);
    ASSERT_EQ(K_InitBitmap(&bm, BITMAPRECORD_SIZE, 0x10000, 0x10000, 8), KS_SUCCESS);
    EXPECT_EQ(bm.uSize64, 0x100000000ull);
    EXPECT_EQ(bm.uSize, 0u);
    // Exactly at the limit is still fine for the older layout.
    EXPECT_EQ(K_InitBitmap(&bm, BITMAPRECORD_SIZE_OLD, 0x10000, 0xFFFF, 8), KS_SUCCESS);
}

TEST(RecordDefaults, ResolutionsArePerThread) {
    const int32_t oldX = K_SetDefaultXResolution(300);
    const int32_t oldY = K_SetDefaultYResolution(-5);
    EXPECT_EQ(K_GetDefaultXResolution(), 300);
    BITMAPRECORD bm;
    ASSERT_EQ(K_InitBitmap(&bm, BITMAPRECORD_SIZE, 2, 2, 8), KS_SUCCESS);
    EXPECT_EQ(bm.nXResolution, 300);
    EXPECT_EQ(bm.nYResolution, 150);  // 0 or below means 150
    int32_t other = 0;
    std::thread([&] { other = K_GetDefaultXResolution(); }).join();
    EXPECT_EQ(other, 150);
    EXPECT_EQ(K_SetDefaultXResolution(oldX), 300);
    K_SetDefaultYResolution(oldY);
}

TEST(RecordDefaults, FallbackBlockIsSharedAndStartsZero) {
    krn::testhook::forceSettingsFallback(true);
    const int32_t before = K_GetDefaultXResolution();
    K_SetDefaultXResolution(77);
    int32_t seen = 0;
    std::thread([&] {
        krn::testhook::forceSettingsFallback(true);
        seen = K_GetDefaultXResolution();
        krn::testhook::forceSettingsFallback(false);
    }).join();
    EXPECT_EQ(seen, 77);
    K_SetDefaultXResolution(before);
    krn::testhook::forceSettingsFallback(false);
    EXPECT_EQ(krn::processSettings().nXResolution, before);
}

// A caller's thread-local object made before the kernel's per-thread block is
// destroyed while the thread ends. Its destructor still sees the thread's own
// block (the block is freed after every thread-local object of the thread),
// never a freed one, and nothing leaks.
int32_t g_resolutionAtThreadEnd = 0;
struct CallsKernelAtThreadEnd {
    bool touched = false;
    ~CallsKernelAtThreadEnd() {
        K_SetDefaultYResolution(321);
        g_resolutionAtThreadEnd = K_GetDefaultXResolution();
    }
};
thread_local CallsKernelAtThreadEnd t_callsKernel;

TEST(RecordDefaults, KernelCallsDuringThreadEndSeeTheThreadsBlock) {
    const long base = warmLiveBlocks();
    krn::ThreadSettings& process = krn::processSettings();
    const int32_t processX = process.nXResolution, processY = process.nYResolution;
    process.nXResolution = 4242;
    g_resolutionAtThreadEnd = 0;
    std::thread([] {
        t_callsKernel.touched = true;  // constructed before the kernel's block
        K_SetDefaultXResolution(600);
        EXPECT_EQ(K_GetDefaultXResolution(), 600);
    }).join();
    EXPECT_EQ(g_resolutionAtThreadEnd, 600);
    EXPECT_EQ(process.nYResolution, processY);  // the write went to the thread's block
    process.nXResolution = processX;
    EXPECT_EQ(krn::faultinject::liveBlocks(), base);
}

TEST(RecordCreate, PerspectiveOrderAndPalette) {
    BITMAPRECORD bm;
    ASSERT_EQ(K_CreateBitmap(&bm, BITMAPRECORD_SIZE, 1, 8, 8, 24, ORDER_RGB, nullptr, 0, nullptr, 0), KS_SUCCESS);
    EXPECT_EQ(bm.nViewPerspective, TOP_LEFT);
    EXPECT_EQ(bm.nOrder, ORDER_RGB);
    EXPECT_EQ(bm.uFlags & 0xFFFFu & ~BRF_MOVABLE_BLOCK, BRF_ALLOCATED | BRF_CONVENTIONAL);
    K_FreeBitmap(&bm);
    EXPECT_EQ(K_CreateBitmap(&bm, BITMAPRECORD_SIZE, 1, 8, 8, 24, ORDER_RGB, nullptr, 9, nullptr, 0),
              KS_INVALID_PARAMETER);
    EXPECT_EQ(K_CreateBitmap(&bm, BITMAPRECORD_SIZE, 1, 8, 8, 8, ORDER_ROMM, nullptr, 1, nullptr, 0),
              KS_INVALID_BITS_PER_PIXEL);
    EXPECT_EQ(K_CreateBitmap(&bm, BITMAPRECORD_SIZE, 1, 8, 8, 16, 3, nullptr, 1, nullptr, 0),
              KS_INVALID_PARAMETER);

    // Bits 0: an 8-bit grey bitmap.
    ASSERT_EQ(K_CreateBitmap(&bm, BITMAPRECORD_SIZE, 1, 4, 4, 0, ORDER_BGR, nullptr, 1, nullptr, 0), KS_SUCCESS);
    EXPECT_EQ(bm.nBitsPerPixel, 8);
    EXPECT_EQ(bm.nOrder, ORDER_RGB);
    ASSERT_NE(bm.pPalette, nullptr);
    for (int i = 0; i < 256; ++i) ASSERT_EQ(bm.pPalette[i].rgbGreen, i);
    K_FreeBitmap(&bm);

    // Grey order without a palette at 2 bits: a 4-level ramp.
    ASSERT_EQ(K_CreateBitmap(&bm, BITMAPRECORD_SIZE, 1, 4, 4, 2, ORDER_GRAY, nullptr, 1, nullptr, 0), KS_SUCCESS);
    EXPECT_EQ(bm.nOrder, ORDER_RGB);
    EXPECT_EQ(bm.pPalette[1].rgbRed, 85);
    K_FreeBitmap(&bm);

    // A caller palette is copied; the bitmap owns its copy.
    RGBQUAD pal[16];
    for (int i = 0; i < 16; ++i) pal[i] = RGBQUAD{uint8_t(i), uint8_t(2 * i), uint8_t(3 * i), 0};
    ASSERT_EQ(K_CreateBitmap(&bm, BITMAPRECORD_SIZE, 1, 4, 4, 4, ORDER_BGR, pal, 1, nullptr, 0), KS_SUCCESS);
    EXPECT_NE(bm.pPalette, pal);
    EXPECT_EQ(std::memcmp(bm.pPalette, pal, sizeof pal), 0);
    K_FreeBitmap(&bm);

    // No palette: the fixed palette of the depth (depth 1: black, white).
    ASSERT_EQ(K_CreateBitmap(&bm, BITMAPRECORD_SIZE, 1, 4, 4, 1, ORDER_BGR, nullptr, 1, nullptr, 0), KS_SUCCESS);
    EXPECT_EQ(bm.pPalette[0].rgbRed, 0);
    EXPECT_EQ(bm.pPalette[1].rgbBlue, 255);
    K_FreeBitmap(&bm);
}

TEST(RecordCreate, PixelsAreReachableThroughAccess) {
    BITMAPRECORD bm;
    ASSERT_EQ(K_CreateBitmap(&bm, BITMAPRECORD_SIZE, 1, 333, 77, 24, ORDER_BGR, nullptr, 1, nullptr, 0),
              KS_SUCCESS);
    ASSERT_EQ(K_AccessBitmap(&bm), KS_SUCCESS);
    ASSERT_NE(bm.pData, nullptr);
    std::memset(bm.pData, 0x5A, bm.uSize64);  // ASan checks the whole block is ours
    ASSERT_EQ(K_AccessBitmap(&bm), KS_SUCCESS);  // nested
    uint8_t* p = bm.pData;
    ASSERT_EQ(K_ReleaseBitmap(&bm), KS_SUCCESS);
    EXPECT_EQ(bm.pData, p);  // still valid until the last release
    ASSERT_EQ(K_ReleaseBitmap(&bm), KS_SUCCESS);
    EXPECT_EQ(bm.pData, nullptr);
    EXPECT_EQ(bm.uFlags & BRF_LOCKED, 0u);
    EXPECT_EQ(K_ReleaseBitmap(nullptr), KS_NULL_POINTER);
    K_FreeBitmap(&bm);
}

// Every allocation of K_CreateBitmap fails in turn, once (the storage decision
// may then fall back to another kind) and from then on: the call either
// succeeds with a whole bitmap or reports KS_NO_MEMORY with the caller's record
// byte for byte as before, and nothing leaks.
TEST(RecordCreate, AllocationFailureSweep) {
    BITMAPDATACALLBACKS cb{};
    cb.uStructSize = BITMAPDATACALLBACKS_SIZE;
    for (long repeat : {1L, -1L})
    for (int bpp : {1, 8, 24}) {
        for (const BITMAPDATACALLBACKS* callbacks : {static_cast<const BITMAPDATACALLBACKS*>(nullptr),
                                                     static_cast<const BITMAPDATACALLBACKS*>(&cb)}) {
            const long base = warmLiveBlocks();
            int failures = 0;
            for (long n = 0;; ++n) {
                BITMAPRECORD bm = patterned(0x3C);
                const BITMAPRECORD before = bm;
                krn::faultinject::arm(n, repeat);
                int32_t rc = K_CreateBitmapWithCallbacks(&bm, BITMAPRECORD_SIZE, 1, 50, 20, bpp, ORDER_BGR,
                                                         nullptr, 1, nullptr, 0, callbacks);
                const long injected = krn::faultinject::injected();
                krn::faultinject::disarm();
                if (injected == 0) {
                    ASSERT_EQ(rc, KS_SUCCESS);
                    K_FreeBitmap(&bm);
                    break;
                }
                if (rc == KS_SUCCESS) {
                    // The storage decision may absorb a failure (another storage kind
                    // took over): the bitmap must then be whole.
                    EXPECT_EQ(bm.uFlags & BRF_ALLOCATED, BRF_ALLOCATED);
                    K_FreeBitmap(&bm);
                    EXPECT_EQ(krn::faultinject::liveBlocks(), base) << "leak at point " << n;
                    continue;
                }
                ++failures;
                EXPECT_EQ(rc, KS_NO_MEMORY) << "bpp " << bpp << " failure point " << n;
                EXPECT_EQ(std::memcmp(&bm, &before, sizeof bm), 0) << "record changed at point " << n;
                EXPECT_EQ(krn::faultinject::liveBlocks(), base) << "leak at point " << n;
            }
            if (repeat < 0) {
                EXPECT_GE(failures, 1) << "bpp " << bpp;
            }
            EXPECT_EQ(krn::faultinject::liveBlocks(), base);
        }
    }
}

TEST(RecordCreate, PersistentFailureLeavesNothing) {
    const long base = warmLiveBlocks();
    BITMAPRECORD bm = patterned(0x11);
    krn::faultinject::arm(0, -1);
    EXPECT_EQ(K_CreateBitmap(&bm, BITMAPRECORD_SIZE, 1, 10, 10, 8, ORDER_RGB, nullptr, 1, nullptr, 0),
              KS_NO_MEMORY);
    krn::faultinject::disarm();
    EXPECT_EQ(krn::faultinject::liveBlocks(), base);
}

// Values are checked in a fixed order: dimensions and depth (as the record is
// initialised), then the colour order, then the view perspective. A failed
// call leaves the caller's record untouched.
TEST(RecordCreate, ValuesCheckedDimensionsThenOrderThenPerspective) {
    const struct {
        int32_t width, bpp, order, perspective, expect;
    } cases[] = {
        {-1, 24, ORDER_BGR, 9, KS_INVALID_DIMENSIONS},     // width before perspective
        {-1, 24, 3, 1, KS_INVALID_DIMENSIONS},             // width before order
        {4, 9, 3, 9, KS_INVALID_BITS_PER_PIXEL},           // depth before order and perspective
        {4, 8, ORDER_ROMM, 9, KS_INVALID_BITS_PER_PIXEL},  // order before perspective
        {4, 24, 3, 9, KS_INVALID_PARAMETER},
        {4, 24, ORDER_BGR, 9, KS_INVALID_PARAMETER},
        {4, 24, ORDER_BGR, -1, KS_INVALID_PARAMETER},
        {0x7FFFFFFF, 64, ORDER_BGR, 9, KS_INVALID_DIMENSIONS},
    };
    for (const auto& c : cases) {
        BITMAPRECORD bm = patterned(0x5E);
        const BITMAPRECORD before = bm;
        EXPECT_EQ(K_CreateBitmap(&bm, BITMAPRECORD_SIZE, 1, c.width, 4, c.bpp, c.order, nullptr, c.perspective,
                                 nullptr, 0),
                  c.expect)
            << c.width << " " << c.bpp << " " << c.order << " " << c.perspective;
        EXPECT_EQ(std::memcmp(&bm, &before, sizeof bm), 0);
    }
}

// Memory type 2 with the caller's buffer: the record points at the buffer, the
// kernel never frees or moves it, and a buffer of the wrong size is refused
// with nothing made.
TEST(RecordCreate, CallerMemoryWithData) {
    const long base = warmLiveBlocks();
    std::vector<uint8_t> pixels(8 * 5, 0);  // 2 x 5 at 24 bits: 8 bytes per line
    for (uint32_t id : {BITMAPRECORD_SIZE, BITMAPRECORD_SIZE_OLD}) {
        BITMAPRECORD bm;
        ASSERT_EQ(K_CreateBitmap(&bm, id, MEMTYPE_USER, 2, 5, 24, ORDER_BGR, nullptr, 1, pixels.data(),
                                 pixels.size()),
                  KS_SUCCESS);
        EXPECT_EQ(bm.uFlags & BRF_STORAGE_MASK, BRF_ALLOCATED | BRF_CONVENTIONAL | BRF_USER_MEMORY);
        EXPECT_EQ(bm.pData, pixels.data());
        EXPECT_EQ(bm.hMemory, nullptr);
        ASSERT_EQ(K_AccessBitmap(&bm), KS_SUCCESS);
        EXPECT_EQ(bm.pData, pixels.data());
        bm.pData[39] = 0x77;
        ASSERT_EQ(K_ReleaseBitmap(&bm), KS_SUCCESS);
        EXPECT_EQ(bm.pData, pixels.data());  // caller memory is not unlocked away
        K_FreeBitmap(&bm);                   // must not free the caller's buffer (ASan)
        EXPECT_EQ(pixels[39], 0x77);
        EXPECT_EQ(krn::faultinject::liveBlocks(), base) << id;

        // Wrong sizes: refused, the record as it was, nothing leaked.
        for (size_t wrong : {pixels.size() - 1, size_t(0)}) {
            BITMAPRECORD keep = patterned(0x42);
            const BITMAPRECORD before = keep;
            EXPECT_EQ(K_CreateBitmap(&keep, id, MEMTYPE_USER, 2, 5, 24, ORDER_BGR, nullptr, 1, pixels.data(), wrong),
                      KS_INVALID_PARAMETER);
            EXPECT_EQ(std::memcmp(&keep, &before, sizeof keep), 0);
            EXPECT_EQ(krn::faultinject::liveBlocks(), base);
        }
        // No buffer yet: allocated as caller memory, attached later.
        ASSERT_EQ(K_CreateBitmap(&bm, id, MEMTYPE_USER, 2, 5, 24, ORDER_BGR, nullptr, 1, nullptr, 0), KS_SUCCESS);
        EXPECT_EQ(bm.pData, nullptr);
        EXPECT_EQ(bm.uFlags & BRF_STORAGE_MASK, BRF_ALLOCATED | BRF_CONVENTIONAL | BRF_USER_MEMORY);
        EXPECT_EQ(K_SetBitmapDataPointer(&bm, pixels.data(), pixels.size()), KS_SUCCESS);
        EXPECT_EQ(bm.pData, pixels.data());
        K_FreeBitmap(&bm);
    }
    EXPECT_EQ(krn::faultinject::liveBlocks(), base);
}

struct CallbackStorage {
    int allocations = 0;
    int frees = 0;
    std::vector<uint8_t> pixels;
};
int32_t supplyStorage(BITMAPRECORD* bm, BITMAPALLOCINFO* info, void* user) {
    auto* s = static_cast<CallbackStorage*>(user);
    ++s->allocations;
    s->pixels.assign(size_t(info->uDataSize), 0);
    bm->pData = s->pixels.data();
    return 2;
}
int32_t returnStorage(BITMAPRECORD*, void* user) {
    ++static_cast<CallbackStorage*>(user)->frees;
    return 2;
}

// Storage that an allocate callback supplied goes back through the free
// callback whenever K_CreateBitmap fails after the allocation (here: the
// palette cannot be made), exactly once per allocation.
TEST(RecordCreate, FailureAfterCallbackStorageCallsTheFreeCallback) {
    const long base = warmLiveBlocks();
    CallbackStorage store;
    BITMAPDATACALLBACKS cb{};
    cb.uStructSize = BITMAPDATACALLBACKS_SIZE;
    cb.pUserData = &store;
    cb.pfnAllocate = supplyStorage;
    cb.pfnFree = returnStorage;
    int failedAfterAllocation = 0;
    for (long n = 0; n < 50; ++n) {
        store.allocations = store.frees = 0;
        BITMAPRECORD bm = patterned(0x66);
        const BITMAPRECORD before = bm;
        krn::faultinject::arm(n, 1);
        const int32_t rc = K_CreateBitmapWithCallbacks(&bm, BITMAPRECORD_SIZE, 1, 16, 4, 8, ORDER_RGB, nullptr, 1,
                                                       nullptr, 0, &cb);
        const long injected = krn::faultinject::injected();
        krn::faultinject::disarm();
        if (injected == 0) {
            ASSERT_EQ(rc, KS_SUCCESS);
            EXPECT_EQ(store.allocations, 1);
            EXPECT_EQ(store.frees, 0);
            EXPECT_EQ(bm.uFlags & BRF_STORAGE_MASK, BRF_ALLOCATED | BRF_USER_MEMORY);
            K_FreeBitmap(&bm);
            EXPECT_EQ(store.frees, 1);
            break;
        }
        ASSERT_EQ(rc, KS_NO_MEMORY) << n;
        EXPECT_EQ(std::memcmp(&bm, &before, sizeof bm), 0) << n;
        EXPECT_EQ(store.frees, store.allocations) << "failure point " << n;
        if (store.allocations) ++failedAfterAllocation;
        EXPECT_EQ(krn::faultinject::liveBlocks(), base) << n;
    }
    EXPECT_GE(failedAfterAllocation, 1);  // the palette failure was reached
}

// A record freed while still accessed is reusable: its next storage is locked
// by its next first access.
TEST(RecordFree, ReusedRecordLocksItsNextStorage) {
    BITMAPRECORD bm;
    ASSERT_EQ(K_CreateBitmap(&bm, BITMAPRECORD_SIZE, 1, 30, 7, 8, ORDER_RGB, nullptr, 1, nullptr, 0), KS_SUCCESS);
    ASSERT_EQ(K_AccessBitmap(&bm), KS_SUCCESS);
    ASSERT_EQ(K_AccessBitmap(&bm), KS_SUCCESS);
    K_FreeBitmap(&bm);  // two accesses outstanding
    EXPECT_EQ(bm.uFlags & (BRF_ALLOCATED | BRF_LOCKED), 0u);
    EXPECT_EQ(bm.pData, nullptr);
    ASSERT_EQ(K_AllocateBitmap(&bm, MEMTYPE_CONVENTIONAL), KS_SUCCESS);
    ASSERT_EQ(K_AccessBitmap(&bm), KS_SUCCESS);
    ASSERT_NE(bm.pData, nullptr);
    std::memset(bm.pData, 1, bm.uSize64);
    ASSERT_EQ(K_ReleaseBitmap(&bm), KS_SUCCESS);
    EXPECT_EQ(bm.pData, nullptr);
    K_FreeBitmap(&bm);
}

// Extreme dimensions are refused or fail cleanly, never wrap into a small block.
TEST(RecordCreate, ExtremeDimensions) {
    const long base = warmLiveBlocks();
    BITMAPRECORD bm;
    // Rows whose bit count does not fit 32 bits.
    for (int bpp : {2, 4, 8, 12, 16, 24, 32, 48, 64})
        EXPECT_EQ(K_CreateBitmap(&bm, BITMAPRECORD_SIZE, 1, 0x7FFFFFFF, 1, bpp, ORDER_BGR, nullptr, 1, nullptr, 0),
                  KS_INVALID_DIMENSIONS)
            << bpp;
    EXPECT_EQ(K_InitBitmap(&bm, BITMAPRECORD_SIZE, 0x7FFFFFFF, 0x7FFFFFFF, 1), KS_SUCCESS);
    EXPECT_EQ(bm.nBytesPerLine, 0x10000000u);
    EXPECT_EQ(bm.uSize64, uint64_t(0x10000000u) * 0x7FFFFFFFu);
    EXPECT_EQ(bm.uSize, uint32_t(bm.uSize64));
    // The older layout cannot hold it.
    EXPECT_EQ(K_InitBitmap(&bm, BITMAPRECORD_SIZE_OLD, 0x7FFFFFFF, 0x7FFFFFFF, 1), KS_MEMORY_TOO_LOW);
    EXPECT_EQ(bm.uSize, 0xFFFF0000u);
    EXPECT_EQ(bm.nWidth, 0);
    // 2^59 bytes with memory that may not go to disk: refused, nothing made.
    BITMAPRECORD big = patterned(0x19);
    const BITMAPRECORD before = big;
    EXPECT_LT(K_CreateBitmap(&big, BITMAPRECORD_SIZE, MEMTYPE_CONVENTIONAL | MEMTYPE_NO_DISK, 0x7FFFFFFF,
                             0x7FFFFFFF, 1, ORDER_RGB, nullptr, 1, nullptr, 0),
              0);
    EXPECT_EQ(std::memcmp(&big, &before, sizeof big), 0);
    EXPECT_EQ(krn::faultinject::liveBlocks(), base);
}

// Every record operation answers a null record and every wrong size word with
// its documented code and leaves the record's bytes as they were.
TEST(RecordFrame, NullRecordsAndBadSizeWords) {
    BITMAPDATACALLBACKS cb{};
    cb.uStructSize = BITMAPDATACALLBACKS_SIZE;
    uint8_t pixels[64] = {};
    EXPECT_EQ(K_InitBitmapWithCallbacks(nullptr, BITMAPRECORD_SIZE, 1, 1, 1, &cb), KS_INVALID_PARAMETER);
    EXPECT_EQ(K_CreateBitmap(nullptr, BITMAPRECORD_SIZE, 1, 1, 1, 8, 0, nullptr, 1, nullptr, 0), KS_INVALID_PARAMETER);
    EXPECT_EQ(K_CreateBitmapWithCallbacks(nullptr, BITMAPRECORD_SIZE, 1, 1, 1, 8, 0, nullptr, 1, nullptr, 0, &cb),
              KS_INVALID_PARAMETER);
    EXPECT_EQ(K_SetBitmapDataCallbacks(nullptr, &cb), KS_INVALID_PARAMETER);
    EXPECT_EQ(K_GetBitmapDataCallbacks(nullptr, &cb), KS_INVALID_PARAMETER);
    EXPECT_EQ(K_ChangeBitmapHeight(nullptr, 1), KS_INVALID_BITMAP);
    EXPECT_EQ(K_SetBitmapDataPointer(nullptr, nullptr, 0), KS_INVALID_BITMAP);

    for (uint32_t bad : {0u, 1u, 44u, 175u, 177u, 188u, 189u, 215u, 217u, 0xFFFFFFFFu}) {
        // A valid allocated record whose size word was damaged afterwards.
        BITMAPRECORD bm;
        ASSERT_EQ(K_CreateBitmap(&bm, BITMAPRECORD_SIZE, MEMTYPE_USER, 4, 4, 8, ORDER_RGB, nullptr, 1, pixels,
                                 sizeof pixels),
                  KS_SUCCESS);
        bm.uStructSize = bad;
        const BITMAPRECORD before = bm;
        EXPECT_EQ(K_InitBitmap(&bm, bad, 1, 1, 1), KS_INVALID_STRUCT_SIZE) << bad;
        EXPECT_EQ(K_CreateBitmap(&bm, bad, 1, 1, 1, 8, 0, nullptr, 1, nullptr, 0), KS_INVALID_STRUCT_SIZE) << bad;
        EXPECT_EQ(K_SetBitmapDataCallbacks(&bm, &cb), KS_INVALID_STRUCT_SIZE) << bad;
        EXPECT_EQ(K_GetBitmapDataCallbacks(&bm, &cb), KS_INVALID_STRUCT_SIZE) << bad;
        EXPECT_EQ(K_ChangeBitmapHeight(&bm, 2), KS_INVALID_STRUCT_SIZE) << bad;
        EXPECT_EQ(K_SetBitmapDataPointer(&bm, pixels, sizeof pixels), KS_INVALID_STRUCT_SIZE) << bad;
        EXPECT_EQ(K_AllocateBitmap(&bm, 1), KS_INVALID_STRUCT_SIZE) << bad;
        EXPECT_EQ(K_FreeBitmap(&bm), KS_SUCCESS) << bad;  // ignored
        EXPECT_EQ(std::memcmp(&bm, &before, sizeof bm), 0) << bad;
        bm.uStructSize = BITMAPRECORD_SIZE;
        K_FreeBitmap(&bm);
    }
    // A callback table with a wrong size word, and a null out-table.
    BITMAPRECORD bm;
    ASSERT_EQ(K_InitBitmap(&bm, BITMAPRECORD_SIZE, 4, 4, 8), KS_SUCCESS);
    for (uint32_t bad : {0u, 40u, 43u, 45u, 48u, 88u}) {
        cb.uStructSize = bad;
        EXPECT_EQ(K_SetBitmapDataCallbacks(&bm, &cb), KS_INVALID_STRUCT_SIZE) << bad;
        EXPECT_EQ(K_GetBitmapDataCallbacks(&bm, &cb), KS_INVALID_STRUCT_SIZE) << bad;
        EXPECT_EQ(K_InitBitmapWithCallbacks(&bm, BITMAPRECORD_SIZE, 4, 4, 8, &cb), KS_INVALID_STRUCT_SIZE) << bad;
    }
    EXPECT_EQ(K_GetBitmapDataCallbacks(&bm, nullptr), KS_INVALID_PARAMETER);
    K_FreeBitmap(&bm);
}

// K_FreeBitmap's order: region, palette and overlays go before the free
// callback is asked; storage, allocated bit, LUT, extra data, callbacks and the
// dithering run after it. The callback sees the record in that middle state.
struct FreeOrderSeen {
    int calls = 0;
    bool regionGone = false, paletteGone = false, stillAllocated = false, lutKept = false, extraKept = false,
         ditherKept = false;
};
int32_t observeFree(BITMAPRECORD* bm, void* user) {
    auto* seen = static_cast<FreeOrderSeen*>(user);
    ++seen->calls;
    seen->regionGone = bm->hRgn == nullptr;
    seen->paletteGone = bm->pPalette == nullptr;
    seen->stillAllocated = (bm->uFlags & BRF_ALLOCATED) != 0;
    seen->lutKept = bm->pLUT != nullptr;
    seen->extraKept = bm->pExtraData != nullptr;
    seen->ditherKept = bm->pDitherState != nullptr;
    return KS_SUCCESS;  // carry on: the kernel frees the storage by its kind
}

TEST(RecordFree, OrderAroundTheFreeCallback) {
    const long base = warmLiveBlocks();
    FreeOrderSeen seen;
    BITMAPDATACALLBACKS cb{};
    cb.uStructSize = BITMAPDATACALLBACKS_SIZE;
    cb.pUserData = &seen;
    cb.pfnFree = observeFree;
    BITMAPRECORD bm;
    ASSERT_EQ(K_CreateBitmapWithCallbacks(&bm, BITMAPRECORD_SIZE, 1, 16, 16, 8, ORDER_RGB, nullptr, 1, nullptr, 0,
                                          &cb),
              KS_SUCCESS);
    const RECT r{2, 2, 10, 10};
    ASSERT_EQ(K_SetBitmapRgnRect(&bm, nullptr, &r, RGN_SET_OR), KS_SUCCESS);
    ASSERT_NE(bm.hRgn, nullptr);
    ASSERT_EQ(K_StartDithering(&bm, nullptr, 16), KS_SUCCESS);
    ASSERT_NE(bm.pDitherState, nullptr);
    bm.pLUT = K_GlobalAlloc(GMEM_FIXED, 256);
    bm.pExtraData = K_GlobalAlloc(GMEM_FIXED, 8);
    bm.uExtraDataSize = 8;
    K_FreeBitmap(&bm);
    EXPECT_EQ(seen.calls, 1);
    EXPECT_TRUE(seen.regionGone);
    EXPECT_TRUE(seen.paletteGone);
    EXPECT_TRUE(seen.stillAllocated);
    EXPECT_TRUE(seen.lutKept);
    EXPECT_TRUE(seen.extraKept);
    EXPECT_TRUE(seen.ditherKept);
    EXPECT_EQ(bm.hRgn, nullptr);
    EXPECT_EQ(bm.pDitherState, nullptr);
    EXPECT_EQ(bm.uFlags & BRF_STORAGE_MASK, 0u);
    EXPECT_EQ(krn::faultinject::liveBlocks(), base);  // storage freed by kind, everything else released
}

TEST(RecordFree, IgnoresBadRecordsAndReleasesEverything) {
    EXPECT_EQ(K_FreeBitmap(nullptr), KS_SUCCESS);
    BITMAPRECORD bad = patterned(0);
    bad.uStructSize = 100;
    EXPECT_EQ(K_FreeBitmap(&bad), KS_SUCCESS);

    const long base = warmLiveBlocks();
    BITMAPDATACALLBACKS cb{};
    cb.uStructSize = BITMAPDATACALLBACKS_SIZE;
    BITMAPRECORD bm;
    ASSERT_EQ(K_CreateBitmapWithCallbacks(&bm, BITMAPRECORD_SIZE, 1, 64, 64, 8, ORDER_RGB, nullptr, 1, nullptr, 0,
                                          &cb),
              KS_SUCCESS);
    bm.pLUT = K_GlobalAlloc(GMEM_FIXED, 1024);
    bm.pExtraData = K_GlobalAlloc(GMEM_FIXED, 16);
    bm.uExtraDataSize = 16;
    EXPECT_GT(krn::faultinject::liveBlocks(), base);
    K_FreeBitmap(&bm);
    EXPECT_EQ(krn::faultinject::liveBlocks(), base);
    EXPECT_EQ(bm.uFlags & BRF_ALLOCATED, 0u);
    EXPECT_EQ(bm.pPalette, nullptr);
    EXPECT_EQ(bm.pLUT, nullptr);
    EXPECT_EQ(bm.pExtraData, nullptr);
    EXPECT_EQ(bm.uExtraDataSize, 0u);
    EXPECT_EQ(bm.pCallbacks, nullptr);
    K_FreeBitmap(&bm);  // freeing twice is harmless
    EXPECT_EQ(krn::faultinject::liveBlocks(), base);
}

int32_t keepStorage(BITMAPRECORD*, void* user) {
    ++*static_cast<int*>(user);
    return 2;
}

TEST(RecordFree, FreeCallbackCanOwnTheStorage) {
    int calls = 0;
    BITMAPDATACALLBACKS cb{};
    cb.uStructSize = BITMAPDATACALLBACKS_SIZE;
    cb.pUserData = &calls;
    cb.pfnFree = keepStorage;
    std::vector<uint8_t> pixels(16 * 4);
    BITMAPRECORD bm;
    ASSERT_EQ(K_CreateBitmapWithCallbacks(&bm, BITMAPRECORD_SIZE, MEMTYPE_USER, 16, 4, 8, ORDER_RGB, nullptr, 1,
                                          pixels.data(), pixels.size(), &cb),
              KS_SUCCESS);
    K_FreeBitmap(&bm);
    EXPECT_EQ(calls, 1);
    EXPECT_EQ(bm.uFlags & (BRF_ALLOCATED | BRF_USER_MEMORY | BRF_CONVENTIONAL), 0u);
}

TEST(RecordCallbacks, SizeWordAndLayoutChecked) {
    BITMAPRECORD bm;
    ASSERT_EQ(K_InitBitmap(&bm, BITMAPRECORD_SIZE, 4, 4, 8), KS_SUCCESS);
    BITMAPDATACALLBACKS cb{};
    cb.uStructSize = 40;
    EXPECT_EQ(K_SetBitmapDataCallbacks(&bm, &cb), KS_INVALID_STRUCT_SIZE);
    cb.uStructSize = BITMAPDATACALLBACKS_SIZE;
    cb.pUserData = &bm;
    ASSERT_EQ(K_SetBitmapDataCallbacks(&bm, &cb), KS_SUCCESS);
    BITMAPDATACALLBACKS out{};
    out.uStructSize = BITMAPDATACALLBACKS_SIZE;
    ASSERT_EQ(K_GetBitmapDataCallbacks(&bm, &out), KS_SUCCESS);
    EXPECT_EQ(out.pUserData, &bm);
    K_FreeBitmap(&bm);
    EXPECT_EQ(bm.pCallbacks, nullptr);
    BITMAPRECORD old;
    EXPECT_EQ(K_InitBitmapWithCallbacks(&old, BITMAPRECORD_SIZE_OLD, 4, 4, 8, &cb), KS_INVALID_STRUCT_SIZE);
}

TEST(RecordDataPointer, FrameOrderAndAttach) {
    std::vector<uint8_t> pixels(8 * 3);
    BITMAPRECORD bm;
    EXPECT_EQ(K_SetBitmapDataPointer(nullptr, pixels.data(), pixels.size()), KS_INVALID_BITMAP);
    ASSERT_EQ(K_InitBitmap(&bm, BITMAPRECORD_SIZE, 2, 3, 24), KS_SUCCESS);  // 8 bytes per line
    // The size check comes before the size-word check.
    bm.uStructSize = 99;
    EXPECT_EQ(K_SetBitmapDataPointer(&bm, pixels.data(), pixels.size() - 1), KS_INVALID_PARAMETER);
    EXPECT_EQ(K_SetBitmapDataPointer(&bm, pixels.data(), pixels.size()), KS_INVALID_STRUCT_SIZE);
    bm.uStructSize = BITMAPRECORD_SIZE;
    ASSERT_EQ(K_SetBitmapDataPointer(&bm, pixels.data(), pixels.size()), KS_SUCCESS);
    EXPECT_EQ(bm.pData, pixels.data());
    EXPECT_EQ(bm.uFlags & 0xFFFFu, BRF_ALLOCATED | BRF_CONVENTIONAL | BRF_USER_MEMORY);
    // Caller memory takes a larger buffer, never a smaller one.
    std::vector<uint8_t> bigger(100);
    EXPECT_EQ(K_SetBitmapDataPointer(&bm, bigger.data(), 10), KS_INVALID_PARAMETER);
    EXPECT_EQ(K_SetBitmapDataPointer(&bm, bigger.data(), bigger.size()), KS_SUCCESS);
    EXPECT_EQ(K_SetBitmapDataPointer(&bm, nullptr, 0), KS_SUCCESS);
    EXPECT_EQ(bm.pData, nullptr);
    K_FreeBitmap(&bm);
}

// Storage that is being accessed is never replaced by caller memory, in either
// layout (the older one has no lock count, only the locked bit).
TEST(RecordDataPointer, AccessedStorageIsNotReplaced) {
    for (uint32_t id : {BITMAPRECORD_SIZE, BITMAPRECORD_SIZE_OLD}) {
        BITMAPRECORD bm;
        ASSERT_EQ(K_CreateBitmap(&bm, id, 1, 4, 4, 32, ORDER_BGR, nullptr, 1, nullptr, 0), KS_SUCCESS);
        ASSERT_EQ(K_AccessBitmap(&bm), KS_SUCCESS);
        uint8_t* pixels = bm.pData;
        ASSERT_NE(pixels, nullptr);
        std::vector<uint8_t> mine(bm.uSize);
        EXPECT_EQ(K_SetBitmapDataPointer(&bm, mine.data(), mine.size()), KS_INVALID_PARAMETER) << id;
        EXPECT_EQ(bm.pData, pixels);
        std::memset(pixels, 0x3A, bm.uSize);  // still the bitmap's own block (ASan)
        ASSERT_EQ(K_ReleaseBitmap(&bm), KS_SUCCESS);
        EXPECT_EQ(K_SetBitmapDataPointer(&bm, mine.data(), mine.size()), KS_SUCCESS);
        EXPECT_EQ(bm.pData, mine.data());
        K_FreeBitmap(&bm);
    }
}

TEST(RecordDataPointer, ReplacesOwnedStorageWithoutLeaking) {
    const long base = warmLiveBlocks();
    BITMAPRECORD bm;
    ASSERT_EQ(K_CreateBitmap(&bm, BITMAPRECORD_SIZE, 1, 4, 4, 32, ORDER_BGR, nullptr, 1, nullptr, 0), KS_SUCCESS);
    std::vector<uint8_t> pixels(bm.uSize64);
    ASSERT_EQ(K_SetBitmapDataPointer(&bm, pixels.data(), pixels.size()), KS_SUCCESS);
    EXPECT_EQ(bm.hMemory, nullptr);
    K_FreeBitmap(&bm);
    EXPECT_EQ(krn::faultinject::liveBlocks(), base);
}

TEST(RecordHeight, GrowAndShrinkKeepThePixels) {
    BITMAPRECORD bm;
    EXPECT_EQ(K_ChangeBitmapHeight(nullptr, 3), KS_INVALID_BITMAP);
    ASSERT_EQ(K_InitBitmap(&bm, BITMAPRECORD_SIZE, 10, 10, 8), KS_SUCCESS);
    EXPECT_EQ(K_ChangeBitmapHeight(&bm, 3), KS_INVALID_BITMAP);  // not allocated
    bm.uStructSize = 100;  // the allocated bit is looked at before the size word
    EXPECT_EQ(K_ChangeBitmapHeight(&bm, 3), KS_INVALID_BITMAP);
    ASSERT_EQ(K_CreateBitmap(&bm, BITMAPRECORD_SIZE, 1, 10, 10, 8, ORDER_RGB, nullptr, 1, nullptr, 0), KS_SUCCESS);
    ASSERT_EQ(K_AccessBitmap(&bm), KS_SUCCESS);
    for (uint32_t i = 0; i < bm.uSize64; ++i) bm.pData[i] = uint8_t(i * 7);
    EXPECT_EQ(K_ChangeBitmapHeight(&bm, 20), KS_INVALID_PARAMETER);  // locked
    ASSERT_EQ(K_ReleaseBitmap(&bm), KS_SUCCESS);
    EXPECT_EQ(K_ChangeBitmapHeight(&bm, -1), KS_INVALID_DIMENSIONS);
    EXPECT_EQ(K_ChangeBitmapHeight(&bm, 10), KS_SUCCESS);
    ASSERT_EQ(K_ChangeBitmapHeight(&bm, 4000), KS_SUCCESS);
    EXPECT_EQ(bm.nHeight, 4000);
    EXPECT_EQ(bm.uSize64, 12u * 4000u);
    ASSERT_EQ(K_ChangeBitmapHeight(&bm, 3), KS_SUCCESS);
    ASSERT_EQ(K_AccessBitmap(&bm), KS_SUCCESS);
    for (uint32_t i = 0; i < bm.uSize64; ++i) ASSERT_EQ(bm.pData[i], uint8_t(i * 7));
    K_ReleaseBitmap(&bm);
    K_FreeBitmap(&bm);

    std::vector<uint8_t> pixels(12 * 10);
    ASSERT_EQ(K_CreateBitmap(&bm, BITMAPRECORD_SIZE, MEMTYPE_USER, 10, 10, 8, ORDER_RGB, nullptr, 1, pixels.data(),
                             pixels.size()),
              KS_SUCCESS);
    EXPECT_EQ(K_ChangeBitmapHeight(&bm, 5), KS_INVALID_PARAMETER);  // caller memory
    K_FreeBitmap(&bm);
}

// K_ChangeBitmapHeight on every storage kind, through a sequence of heights
// that includes 0: the rows both heights share keep their pixels, new rows
// read as zero, and the data size follows. Oracle: a plain vector of rows.
TEST(RecordHeight, EveryStorageKindKeepsSharedRows) {
    const long base = warmLiveBlocks();
    struct Kind {
        const char* name;
        uint32_t convertTo;  // 0: stay a single block
        uint64_t tileSize;
        int32_t bpp;
    } kinds[] = {{"block", 0, 0, 8},        {"tiles", MEMTYPE_DISK, 1024, 8},
                 {"disk", MEMTYPE_NO_CONVENTIONAL, 0, 8}, {"runs", MEMTYPE_COMPRESSED, 0, 1},
                 {"super", MEMTYPE_SUPERCOMPRESSED, 0, 8}};
    const int32_t width = 37;
    for (const Kind& k : kinds) {
        BITMAPRECORD bm;
        ASSERT_EQ(K_CreateBitmap(&bm, BITMAPRECORD_SIZE, 1, width, 50, k.bpp, ORDER_RGB, nullptr, 1, nullptr, 0),
                  KS_SUCCESS);
        if (k.convertTo) {
            ASSERT_EQ(K_SetBitmapMemoryInfo(&bm, k.convertTo, k.tileSize), KS_SUCCESS) << k.name;
        }
        const uint32_t pixelBytes = uint32_t((width * k.bpp + 7) / 8);
        std::vector<std::vector<uint8_t>> model;
        for (int32_t r = 0; r < 50; ++r) {
            std::vector<uint8_t> row(pixelBytes);
            for (uint32_t i = 0; i < pixelBytes; ++i) row[i] = uint8_t(r * 31 + i * 7 + 1);
            if (k.bpp == 1) row.back() &= 0xF8;  // 37 pixels: the last 3 bits are pixels, the rest padding
            ASSERT_EQ(K_PutBitmapRow(&bm, row.data(), r, pixelBytes), int32_t(pixelBytes)) << k.name;
            model.push_back(row);
        }
        for (int32_t h : {80, 0, 3, 120, 50, 50}) {
            ASSERT_EQ(K_ChangeBitmapHeight(&bm, h), KS_SUCCESS) << k.name << " to " << h;
            ASSERT_EQ(bm.nHeight, h);
            ASSERT_EQ(bm.uSize64, uint64_t(bm.nBytesPerLine) * uint64_t(h));
            model.resize(size_t(h), std::vector<uint8_t>(pixelBytes, 0));
            std::vector<uint8_t> got(pixelBytes);
            for (int32_t r = 0; r < h; ++r) {
                ASSERT_EQ(K_GetBitmapRow(&bm, got.data(), r, pixelBytes), int32_t(pixelBytes)) << k.name;
                if (k.bpp == 1) got.back() &= 0xF8;
                ASSERT_EQ(got, model[size_t(r)]) << k.name << " height " << h << " row " << r;
            }
        }
        K_FreeBitmap(&bm);
        EXPECT_EQ(krn::faultinject::liveBlocks(), base) << k.name;
    }
}

TEST(RecordHeight, FailedGrowthKeepsTheOldHeight) {
    BITMAPRECORD bm;
    ASSERT_EQ(K_CreateBitmap(&bm, BITMAPRECORD_SIZE, 1, 10, 10, 8, ORDER_RGB, nullptr, 1, nullptr, 0), KS_SUCCESS);
    krn::faultinject::arm(0, -1);
    EXPECT_EQ(K_ChangeBitmapHeight(&bm, 50), KS_NO_MEMORY);
    krn::faultinject::disarm();
    EXPECT_EQ(bm.nHeight, 10);
    EXPECT_EQ(bm.uSize64, 120u);
    K_FreeBitmap(&bm);
}

}  // namespace
