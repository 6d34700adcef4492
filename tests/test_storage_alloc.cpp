// test_storage_alloc.cpp - the bitmap record (initialisation, creation, freeing) and its storage: the allocation
// decision, access, the cap and counter, callbacks, height changes of every kind, failures at every step, threads.
#include <gtest/gtest.h>

#include <atomic>
#include <random>
#include <thread>

#include "ombrix.h"
#include "krn/common/memory.h"
#include "krn/common/settings.h"
#include "krn/common/storage.h"
#include "check_list.h"
#include "run_threads.h"
#include "storage_kinds.h"

using namespace storagetest;
using checklist::expectAll;
namespace fi = krn::faultinject;

namespace {

int64_t counter() { int64_t c = 0; return K_ManageMemory(MANAGEMEMORY_GET_COUNTER, 0, &c), c; }
uint32_t kindOf(const BITMAPRECORD& bm) {
    uint32_t t = 0;
    return K_GetBitmapMemoryInfo(&bm, &t, nullptr, nullptr, nullptr), t;
}
BITMAPDATACALLBACKS callbacks(void* user) {
    BITMAPDATACALLBACKS cb{};
    return cb.uStructSize = BITMAPDATACALLBACKS_SIZE, cb.pUserData = user, cb;
}
int32_t create(BITMAPRECORD* bm, uint32_t type, int32_t w, int32_t h, int32_t bpp, int32_t order = 0) {
    return K_CreateBitmap(bm, BITMAPRECORD_SIZE, type, w, h, bpp, order, nullptr, 1, nullptr, 0);
}
// A w x h 8-bit record allocated with `type` (then freed): its storage kind and tiles, or unallocated.
int32_t allocate(int32_t w, int32_t h, uint32_t type, uint32_t* kind = nullptr, int32_t* tiles = nullptr,
                 uint64_t* tileSize = nullptr) {
    BITMAPRECORD bm;
    EXPECT_EQ(K_InitBitmap(&bm, BITMAPRECORD_SIZE, w, h, 8), KS_SUCCESS);
    const int32_t rc = K_AllocateBitmap(&bm, type);
    if (rc == KS_SUCCESS) K_GetBitmapMemoryInfo(&bm, kind, tileSize, tiles, nullptr);
    EXPECT_EQ(bm.uFlags & BRF_ALLOCATED, rc == KS_SUCCESS ? BRF_ALLOCATED : 0u) << type;
    K_FreeBitmap(&bm);
    return rc;
}

// Row r of a pattern of row and byte; the padding stays zero (compressed kinds keep pixels only).
std::vector<uint8_t> patternRow(const BITMAPRECORD* bm, int32_t r, uint32_t seed) {
    std::vector<uint8_t> row(bm->nBytesPerLine);
    for (uint32_t i = 0; i < row.size(); ++i) row[i] = uint8_t(r * 31 + int32_t(i) * 7 + int32_t(seed));
    for (uint64_t b = uint64_t(bm->nWidth) * uint64_t(bm->nBitsPerPixel); b < uint64_t(row.size()) * 8; ++b)
        row[b >> 3] &= uint8_t(~(0x80u >> (b & 7)));
    return row;
}
int32_t fillPattern(BITMAPRECORD* bm, int32_t rows, uint32_t seed) {
    int32_t w = KS_SUCCESS;
    for (int32_t r = 0; r < rows && w >= 0; ++r)
        w = K_PutBitmapRow(bm, patternRow(bm, r, seed).data(), r, bm->nBytesPerLine);
    return w < 0 ? w : KS_SUCCESS;
}
void expectPattern(BITMAPRECORD* bm, int32_t rows, uint32_t seed, const char* what) {
    std::vector<uint8_t> got(bm->nBytesPerLine);
    for (int32_t r = 0; r < rows; ++r) {
        ASSERT_EQ(K_GetBitmapRow(bm, got.data(), r, bm->nBytesPerLine), int32_t(bm->nBytesPerLine));
        ASSERT_EQ(got, patternRow(bm, r, seed)) << what << " row " << r;
    }
}

long warmLiveBlocks() {  // baseline for leak checks: the per-thread settings block is made on first use
    K_GetDefaultXResolution();
    return fi::liveBlocks();
}
BITMAPRECORD patterned(uint8_t byte) {
    BITMAPRECORD bm;
    std::memset(&bm, byte, sizeof bm);
    return bm;
}
bool same(const BITMAPRECORD& a, const BITMAPRECORD& b) { return std::memcmp(&a, &b, sizeof a) == 0; }
const uint32_t N = BITMAPRECORD_SIZE, O = BITMAPRECORD_SIZE_OLD;

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

// An empty record keeps only its size word; the older layout never writes past its bytes. Statuses and sizes at
// the edges: size words, dimensions, depths, rows whose bit count does not fit 32 bits, and the older layout's
// 32-bit data size (uSize 0xFFFF0000 and width 0 when it cannot hold the image).
TEST(RecordInit, InitCreateAndFreeInTheirOrder) {
    for (uint32_t id : {N, O}) {
        BITMAPRECORD bm = patterned(0xAB);
        std::vector<uint8_t> expect(OMBRIX_RECORD_BYTES(id), 0);
        std::memcpy(expect.data(), &id, sizeof id);
        EXPECT_TRUE(K_InitBitmap(&bm, id, 0, 0, 0) == KS_SUCCESS && !std::memcmp(&bm, expect.data(), expect.size()))
            << id;
    }
    BITMAPRECORD bm = patterned(0xCD);
    ASSERT_EQ(K_InitBitmap(&bm, O, 10, 10, 24), KS_SUCCESS);
    const auto* bytes = reinterpret_cast<const uint8_t*>(&bm);
    EXPECT_EQ(std::vector<uint8_t>(bytes + OMBRIX_RECORD_BYTES_OLD, bytes + sizeof bm),
              std::vector<uint8_t>(sizeof bm - OMBRIX_RECORD_BYTES_OLD, 0xCD));
    const struct { uint32_t id; int32_t w, h, bpp, expect; uint64_t size64; } cases[] = {
        {0, 1, 1, 1, KS_INVALID_STRUCT_SIZE, 0},         {175, 1, 1, 1, KS_INVALID_STRUCT_SIZE, 0},
        {177, 1, 1, 1, KS_INVALID_STRUCT_SIZE, 0},       {215, 1, 1, 1, KS_INVALID_STRUCT_SIZE, 0},
        {217, 1, 1, 1, KS_INVALID_STRUCT_SIZE, 0},       {N, -1, 1, 1, KS_INVALID_DIMENSIONS, 0},
        {N, 1, -1, 1, KS_INVALID_DIMENSIONS, 0},         {N, 0x7FFFFFFF, 1, 64, KS_INVALID_DIMENSIONS, 0},
        {N, 0x08000000, 1, 32, KS_INVALID_DIMENSIONS, 0}, {N, 0x07FFFFFF, 1, 32, KS_SUCCESS, 0x1FFFFFFCull},
        {O, 0x10000, 0x10000, 8, KS_MEMORY_TOO_LOW, 0},  {N, 0x10000, 0x10000, 8, KS_SUCCESS, 0x100000000ull},
        {O, 0x10000, 0xFFFF, 8, KS_SUCCESS, 0xFFFF0000ull}, {O, 0x7FFFFFFF, 0x7FFFFFFF, 1, KS_MEMORY_TOO_LOW, 0},
        {N, 0x7FFFFFFF, 0x7FFFFFFF, 1, KS_SUCCESS, uint64_t(0x10000000u) * 0x7FFFFFFFu}};
    for (const auto& c : cases) {
        SCOPED_TRACE(::testing::Message() << c.id << " " << c.w << "x" << c.h << "x" << c.bpp);
        ASSERT_EQ(K_InitBitmap(&bm, c.id, c.w, c.h, c.bpp), c.expect);
        EXPECT_TRUE(c.expect != KS_MEMORY_TOO_LOW || (bm.uSize == 0xFFFF0000u && bm.nWidth == 0));
        EXPECT_TRUE(c.expect != KS_SUCCESS ||
                    (bm.uSize == uint32_t(c.size64) && (c.id != N || bm.uSize64 == c.size64)));
    }
    EXPECT_EQ(K_InitBitmap(nullptr, N, 1, 1, 1), KS_INVALID_PARAMETER);
    for (int bpp : {0, 9, 10, 11, 13, 14, 15, 17, 25, 33, 63, 65, -8})
        EXPECT_EQ(K_InitBitmap(&bm, N, 5, 5, bpp), KS_INVALID_BITS_PER_PIXEL) << bpp;
    // Perspective 0 means top-left, depth 0 8-bit grey; grey order gets a ramp, a caller palette is copied.
    RGBQUAD pal[16];
    for (int i = 0; i < 16; ++i) pal[i] = RGBQUAD{uint8_t(i), uint8_t(2 * i), uint8_t(3 * i), 0};
    const struct { int32_t bpp, order; const RGBQUAD* pal; int32_t vp, bppAfter, orderAfter; } made[] = {
        {24, ORDER_RGB, nullptr, 0, 24, ORDER_RGB}, {0, ORDER_BGR, nullptr, 1, 8, ORDER_RGB},
        {2, ORDER_GRAY, nullptr, 1, 2, ORDER_RGB},  {4, ORDER_BGR, pal, 1, 4, -1}, {1, ORDER_BGR, nullptr, 1, 1, -1}};
    for (const auto& c : made) {
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
    // Checked in order: dimensions, depth, colour order, perspective. A failure changes and makes nothing.
    const long base = warmLiveBlocks();
    const int32_t DIM = KS_INVALID_DIMENSIONS, BPP = KS_INVALID_BITS_PER_PIXEL, PAR = KS_INVALID_PARAMETER;
    const struct { uint32_t type; int32_t width, height, bpp, order, perspective, expect; } refused[] = {
        {1, -1, 4, 24, ORDER_BGR, 9, DIM}, {1, -1, 4, 24, 3, 1, DIM}, {1, 4, 4, 9, 3, 9, BPP},
        {1, 4, 4, 8, ORDER_ROMM, 9, BPP}, {1, 4, 4, 24, 3, 9, PAR}, {1, 4, 4, 16, 3, 1, PAR},
        {1, 4, 4, 24, ORDER_BGR, 9, PAR}, {1, 4, 4, 24, ORDER_BGR, -1, PAR}, {1, 0x7FFFFFFF, 4, 64, ORDER_BGR, 9, DIM},
        {1, 0x7FFFFFFF, 1, 2, ORDER_BGR, 1, DIM}, {1, 0x7FFFFFFF, 1, 12, ORDER_BGR, 1, DIM},
        {MEMTYPE_CONVENTIONAL | MEMTYPE_NO_DISK, 0x7FFFFFFF, 0x7FFFFFFF, 1, ORDER_RGB, 1, KS_NO_MEMORY}};
    for (const auto& c : refused) {
        BITMAPRECORD bm = patterned(0x5E);
        EXPECT_TRUE(K_CreateBitmap(&bm, N, c.type, c.width, c.height, c.bpp, c.order, nullptr, c.perspective, nullptr,
                                   0) == c.expect && same(bm, patterned(0x5E)))
            << c.width << " " << c.bpp << " " << c.order << " " << c.perspective;
    }
    EXPECT_EQ(fi::liveBlocks(), base);
    // K_FreeBitmap releases region, palette and overlays before asking the free callback, storage, LUT, extra data,
    // callbacks and dithering after it.
    FreeOrderSeen seen;
    BITMAPDATACALLBACKS cb = callbacks(&seen);
    cb.pfnFree = observeFree;
    ASSERT_EQ(K_CreateBitmapWithCallbacks(&bm, N, 1, 16, 16, 8, ORDER_RGB, nullptr, 1, nullptr, 0, &cb), KS_SUCCESS);
    const RECT r{2, 2, 10, 10};
    ASSERT_TRUE(K_SetBitmapRgnRect(&bm, nullptr, &r, RGN_SET_OR) == KS_SUCCESS &&
                K_StartDithering(&bm, nullptr, 16) == KS_SUCCESS);
    bm.pLUT = K_GlobalAlloc(GMEM_FIXED, 256), bm.pExtraData = K_GlobalAlloc(GMEM_FIXED, 8), bm.uExtraDataSize = 8;
    K_FreeBitmap(&bm);
    BITMAPRECORD bad = patterned(0);
    expectAll({IS(seen.calls, 1), IS(seen.state, 0x3F), IS(bm.hRgn == nullptr && bm.pDitherState == nullptr, 1),
               IS(bm.pPalette == nullptr && bm.pLUT == nullptr && bm.pExtraData == nullptr, 1),
               IS(bm.uExtraDataSize, 0), IS(bm.pCallbacks == nullptr, 1), IS(bm.uFlags & BRF_STORAGE_MASK, 0),
               IS(fi::liveBlocks(), base) /* storage freed by kind, everything else released */,
               IS(K_FreeBitmap(&bm), 1) /* twice is harmless */, IS((bad.uStructSize = 100, K_FreeBitmap(&bad)), 1),
               IS(fi::liveBlocks(), base)});
    // A free callback that owns the storage: the kernel only forgets it.
    std::vector<uint8_t> pixels(16 * 4);
    seen = FreeOrderSeen{0, 0, 2};
    ASSERT_EQ(K_CreateBitmapWithCallbacks(&bm, N, MEMTYPE_USER, 16, 4, 8, 1, nullptr, 1, pixels.data(), 64, &cb), 1);
    expectAll({IS(K_FreeBitmap(&bm), 1), IS(seen.calls, 1),
               IS(bm.uFlags & (BRF_ALLOCATED | BRF_USER_MEMORY | BRF_CONVENTIONAL), 0), IS(fi::liveBlocks(), base)});
    // A caller's movable block is locked on access, never freed; freeing forgets the handle and its flag.
    HGLOBAL h = K_GlobalAlloc(GMEM_MOVEABLE, 16 * 4);
    ASSERT_EQ(K_CreateBitmap(&bm, N, MEMTYPE_USER, 16, 4, 8, ORDER_RGB, nullptr, 1, nullptr, 0), 1);
    bm.hMemory = h, bm.uFlags |= BRF_MOVABLE_BLOCK;
    expectAll({IS(K_AccessBitmap(&bm), 1), IS(bm.pData == K_GlobalLock(h), 1), IS(K_GlobalUnlock(h), 1),
               IS(K_ReleaseBitmap(&bm), 1), IS(K_FreeBitmap(&bm), 1), IS(bm.uFlags & BRF_MOVABLE_BLOCK, 0),
               IS(bm.hMemory == nullptr, 1), IS(K_AllocateBitmap(&bm, MEMTYPE_CONVENTIONAL), 1),
               IS(bm.uFlags & (BRF_MOVABLE_BLOCK | BRF_USER_MEMORY), 0), IS(K_FreeBitmap(&bm), 1),
               IS(K_GlobalFree(h) == nullptr, 1) /* still the caller's */});
    // A record freed while still accessed is reusable: its next storage is locked by its next first access.
    ASSERT_EQ(K_CreateBitmap(&bm, N, 1, 30, 7, 8, ORDER_RGB, nullptr, 1, nullptr, 0), KS_SUCCESS);
    expectAll({IS(K_AccessBitmap(&bm), 1), IS(K_AccessBitmap(&bm), 1), IS(K_FreeBitmap(&bm), 1),
               IS(bm.uFlags & (BRF_ALLOCATED | BRF_LOCKED), 0), IS(bm.pData == nullptr, 1),
               IS(K_AllocateBitmap(&bm, MEMTYPE_CONVENTIONAL), 1), IS(K_AccessBitmap(&bm), 1)});
    ASSERT_NE(bm.pData, nullptr);
    std::memset(bm.pData, 1, bm.uSize64);
    expectAll({IS(K_ReleaseBitmap(&bm), 1), IS(bm.pData == nullptr, 1), IS(K_FreeBitmap(&bm), 1)});
}

TEST(StorageDecision, MemoryTypesCapThresholdsAndFreeMemorySteerTheKind) {
    for (uint32_t t : {3, 5, 6, 7, 10, 258, 2048, 2049}) EXPECT_EQ(allocate(8, 8, t), KS_INVALID_PARAMETER) << t;
    for (uint32_t t : {1, 4, 8, 9, 128, 256, 257, 260, 264, 265, 1024, 1025, 1280, 1281})
        EXPECT_EQ(allocate(8, 8, t), KS_SUCCESS) << t;
    BITMAPRECORD bm;
    expectAll({IS(allocate(0, 0, 1), KS_INVALID_DIMENSIONS), IS(K_AllocateBitmap(nullptr, 1), KS_INVALID_PARAMETER),
               IS(K_InitBitmap(&bm, BITMAPRECORD_SIZE, 8, 8, 8), KS_SUCCESS),
               IS((bm.uStructSize = 99, K_AllocateBitmap(&bm, 1)), KS_INVALID_STRUCT_SIZE)});
    // The storage flags each request ends with (compression falls back to one block where it cannot apply).
    const struct { uint32_t type; int32_t bpp, order; uint32_t flags; } kinds[] = {
        {512, 24, 1, 0x0003}, {512, 1, 0, 0x0103}, {1024, 8, 0, 0x8003}, {1024, 16, 1, 0x0003}, {128, 8, 0, 0x0005},
        {2, 8, 0, 0x0403}};
    for (const auto& k : kinds) {
        EXPECT_TRUE(create(&bm, k.type, 64, 4, k.bpp, k.order) == KS_SUCCESS &&
                    (bm.uFlags & BRF_STORAGE_MASK) == k.flags && (k.type != 128 || bm.hMemory != nullptr))
            << k.type << " " << k.bpp;
        K_FreeBitmap(&bm);
    }
    // The cap, the thresholds, the free memory (0: the real one) and the process-wide largest image steer a 2000-byte
    // image between one block, tiles, a file and a refusal.
    CapGuard guard;
    struct Restore { ~Restore() { krn::testhook::setAvailableMemory(0); } } restore;
    // Tile size 0 means 16 MiB: one tile holds every row.
    uint64_t tileSize = 0;
    int32_t tiles = 0;
    expectAll({IS(K_SetMemoryThresholds(0, 0, 0, 0, 0, MEMTHRESHOLD_TILE_SIZE), KS_SUCCESS),
               IS(create(&bm, 1, 1024, 40, 8), KS_SUCCESS), IS(K_SetBitmapMemoryInfo(&bm, 4, 0), KS_SUCCESS),
               IS(K_GetBitmapMemoryInfo(&bm, nullptr, &tileSize, &tiles, nullptr), 1), IS(tiles, 1),
               IS(tileSize, 40u * 1024u), IS(K_FreeBitmap(&bm), 1)});

    constexpr uint32_t KEEP = MEMTHRESHOLD_KEEP_FREE, BIG = MEMTHRESHOLD_LARGEST_IMAGE, TILE = MEMTHRESHOLD_TILE_SIZE;
    constexpr int32_t HUGE_ = INT32_MAX - 100, OK = KS_SUCCESS, NOMEM = KS_NO_MEMORY;
    const struct { int64_t cap; int32_t keep, largest, tile; uint32_t which; uint64_t avail; int64_t global;
                   uint32_t type; int32_t h, rc; uint32_t kinds; /* mask of the kinds allowed */ } steps[] = {
        {1000, 0, 0, 0, 0, 0, 0, 1, 20, OK, 4 | 128}, {1000, 0, 0, 0, 0, 0, 0, 265, 20, KS_MEMORY_CAP_EXCEEDED, 0},
        // Largest image 1000 bytes: no single block; no tiles and no disk leaves nothing; no tiles: a file.
        {0, 0, 1000, 0, BIG, 0, 0, 1, 20, OK, 4 | 128}, {0, 0, 1000, 0, BIG, 0, 0, 265, 20, NOMEM, 0},
        {0, 0, 1000, 0, BIG, 0, 0, 9, 20, OK, 128},
        // Keeping all but nothing free (-100 = 100% of the total) has the same effect.
        {0, -100, HUGE_, 0, KEEP | BIG, 0, 0, 265, 20, NOMEM, 0},
        // The process-wide largest image sends it to a file, until it is removed.
        {0, 0, HUGE_, 0, KEEP | BIG, 0, 1000, 1, 20, OK, 128}, {0, 0, HUGE_, 0, KEEP | BIG, 0, 0, 1, 20, OK, 1},
        // Disk allowed and larger than the tile size: tiles (in memory here).
        {0, 0, 0, 500, TILE, 0, 0, 4, 20, OK, 4},
        // Free memory less the reserve limits one block (then: tiles).
        {0, 7000, 0, 0, KEEP | TILE, 10000, 0, 265, 20, OK, 1}, {0, 9000, 0, 0, KEEP, 10000, 0, 265, 20, NOMEM, 0},
        {0, 9000, 0, 0, KEEP, 10000, 0, 1, 20, OK, 4},
        // A percentage: the largest image is 15% of the 10000 free bytes.
        {0, 0, -15, 0, KEEP | BIG, 10000, 0, 265, 20, NOMEM, 0}, {0, 0, -15, 0, KEEP | BIG, 10000, 0, 265, 15, OK, 1}};
    const int64_t base = counter();
    for (const auto& s : steps) {
        SCOPED_TRACE(::testing::Message() << "type " << s.type << " keep " << s.keep << " largest " << s.largest);
        krn::testhook::setAvailableMemory(s.avail);
        GLOBALMEMORYTHRESHOLDS g{GLOBALMEMORYTHRESHOLDS_SIZE, s.global};
        uint32_t kind = 0;
        ASSERT_TRUE(K_ManageMemory(MANAGEMEMORY_SET_CAP, s.cap ? base + s.cap : 0, nullptr) == KS_SUCCESS &&
                    (!s.which || K_SetMemoryThresholds(s.keep, s.largest, s.tile, 0, 0, s.which) == KS_SUCCESS) &&
                    K_SetGlobalMemoryThresholds(s.global ? &g : nullptr) == KS_SUCCESS);
        ASSERT_EQ(allocate(100, s.h, s.type, &kind, &tiles, &tileSize), s.rc);
        EXPECT_TRUE((s.rc != OK || (kind & s.kinds)) && (s.type != 4 || (tiles == 4 && tileSize == 500u)) &&
                    counter() == base)
            << kind << " " << tiles << " " << tileSize;
    }
}

int32_t onAccess(BITMAPRECORD*, void* u) { return ++static_cast<int32_t*>(u)[0], static_cast<int32_t*>(u)[2]; }
int32_t onRelease(BITMAPRECORD*, void* u) { return ++static_cast<int32_t*>(u)[1], 1; }

// Nested accesses lock once, the last release unlocks; the internal forms report and undo; the access callbacks
// are asked once per outermost access; a refusal is undone.
TEST(StorageAccess, NestedAccessCallbacksCapCounterThresholdsAndDefaults) {
    BITMAPRECORD bm;
    ASSERT_TRUE(create(&bm, 1, 16, 4, 8) == KS_SUCCESS && bm.pData == nullptr && K_AccessBitmap(&bm) == KS_SUCCESS);
    uint8_t* p = bm.pData;
    ASSERT_TRUE(p != nullptr && (bm.uFlags & BRF_LOCKED));
    uint8_t row[16];
    int32_t flag = -1;
    expectAll({IS(K_AccessBitmap(&bm), 1), IS(bm.nLockCount, 2), IS(bm.pData == p, 1), IS(p[35] = 0x77, 0x77),
               IS(K_ReleaseBitmap(&bm), 1), IS(bm.pData == p, 1), IS(K_GetBitmapRow(&bm, row, 2, 16), 16),
               IS(row[3], 0x77), IS(K_ChangeBitmapHeight(&bm, 8), KS_INVALID_PARAMETER), IS(K_ReleaseBitmap(&bm), 1),
               IS(bm.pData == nullptr, 1), IS(bm.uFlags & BRF_LOCKED, 0), IS(bm.nLockCount, 0),
               IS(K_ReleaseBitmap(nullptr), KS_NULL_POINTER), IS(K_IntAccessBitmap(nullptr, &flag), KS_INVALID_BITMAP),
               IS(flag, 0), IS(K_IntAccessBitmap(&bm, &flag), 1), IS(flag, 1),
               IS(K_IntReleaseBitmap(&bm, flag, -42), -42), IS(bm.nLockCount, 0), IS(K_IntReleaseBitmap(&bm, 0, 1), 1),
               IS(K_IntReleaseBitmap(nullptr, 1, 1), KS_NULL_POINTER), IS(K_FreeBitmap(&bm), 1),
               IS(K_AccessBitmap(&bm), KS_INVALID_BITMAP)});
    int32_t log[3] = {0, 0, 1};  // accesses, releases, the access answer
    BITMAPDATACALLBACKS cb = callbacks(log);
    cb.pfnAccess = onAccess, cb.pfnRelease = onRelease;
    ASSERT_EQ(K_CreateBitmapWithCallbacks(&bm, BITMAPRECORD_SIZE, 1, 8, 2, 8, 0, nullptr, 1, nullptr, 0, &cb), 1);
    expectAll({IS(K_AccessBitmap(&bm), 1), IS(K_AccessBitmap(&bm), 1), IS(K_ReleaseBitmap(&bm), 1),
               IS(K_ReleaseBitmap(&bm), 1), IS(log[0], 1), IS(log[1], 1), IS(log[2] = -55, -55),
               IS(K_AccessBitmap(&bm), -55), IS(bm.nLockCount, 0), IS(log[2] = 2, 2), IS(K_AccessBitmap(&bm), 1),
               IS(bm.pData == nullptr, 1) /* 2: the callback did the work */, IS(K_ReleaseBitmap(&bm), 1)});
    K_FreeBitmap(&bm);
    // The cap commands, the counter through blocks, tiles (7 rows each), heights and files, a height the cap does not
    // allow; refused thresholds; the default memory type is per thread and type 0 takes it.
    CapGuard guard;
    int64_t v = 0;
    const int64_t base = (K_ManageMemory(MANAGEMEMORY_SET_CAP, 0, nullptr), counter());
    expectAll({IS(K_ManageMemory(MANAGEMEMORY_GET_ROOM, 0, &v), 1), IS(v, INT64_MAX),
               IS(K_ManageMemory(MANAGEMEMORY_SET_CAP, base + 100, &v), 1), IS(v, 0),
               IS(K_ManageMemory(MANAGEMEMORY_GET_CAP, 0, &v), 1), IS(v, base + 100),
               IS(K_ManageMemory(MANAGEMEMORY_RESERVE, 60, nullptr), 1),
               IS(K_ManageMemory(MANAGEMEMORY_RESERVE, 41, nullptr), KS_MEMORY_CAP_EXCEEDED), IS(counter(), base + 60),
               IS(K_ManageMemory(MANAGEMEMORY_GET_ROOM, 40, &v), 1), IS(v, 40),
               IS(K_ManageMemory(MANAGEMEMORY_GET_ROOM, 41, &v), KS_MEMORY_CAP_EXCEEDED), IS(counter(), base + 60),
               IS(K_ManageMemory(MANAGEMEMORY_RESERVE, 40, nullptr), 1),
               IS(K_ManageMemory(MANAGEMEMORY_GET_ROOM, 0, &v), 1), IS(v, 1),
               IS(K_ManageMemory(MANAGEMEMORY_RELEASE, 100, nullptr), 1), IS(counter(), base),
               IS(K_ManageMemory(MANAGEMEMORY_GET_COUNTER, 0, nullptr), KS_NULL_POINTER),
               IS(K_ManageMemory(6, 0, &v), KS_NOT_SUPPORTED), IS(K_ManageMemory(-1, 0, &v), KS_NOT_SUPPORTED),
               IS(K_ManageMemory(MANAGEMEMORY_SET_CAP, 0, nullptr), 1)});
    ASSERT_EQ(create(&bm, 1, 100, 10, 8), KS_SUCCESS);
    const struct { uint32_t type; int32_t height; int64_t counted; } steps[] = {
        {0, 10, 1000}, {0, 30, 3000}, {4, 30, 3000}, {0, 12, 1200}, {128, 12, 0}, {1, 12, 1200}};
    for (const auto& s : steps)
        expectAll({IS(s.type ? K_SetBitmapMemoryInfo(&bm, s.type, 700) : 1, 1),
                   IS(K_ChangeBitmapHeight(&bm, s.height), 1), IS(counter(), base + s.counted)});
    expectAll({IS(K_ManageMemory(MANAGEMEMORY_SET_CAP, base + 1500, nullptr), 1),
               IS(K_ChangeBitmapHeight(&bm, 20), KS_MEMORY_CAP_EXCEEDED), IS(bm.nHeight, 12),
               IS(counter(), base + 1200), IS(K_FreeBitmap(&bm), 1), IS(counter(), base)});
    int32_t a, b;  // a refused value keeps the earlier one, the valid ones are taken
    uint32_t kind = 0, other = 0;
    GLOBALMEMORYTHRESHOLDS g{GLOBALMEMORYTHRESHOLDS_SIZE, -2};
    expectAll({IS(K_SetMemoryThresholds(1, 2, 3, 4, 5, 31), 1),
               IS(K_SetMemoryThresholds(7, INT32_MAX - 99, 3, 4, 5, 31), KS_INVALID_PARAMETER),
               IS(K_GetMemoryThresholds(&a, &b, nullptr, nullptr, nullptr), 1), IS(a * 10 + b, 72),
               IS(K_SetMemoryThresholds(0, 0, -1, 0, 0, MEMTHRESHOLD_TILE_SIZE), KS_INVALID_PARAMETER),
               IS(K_SetMemoryThresholds(0, 0, 0, INT32_MAX, 0, MEMTHRESHOLD_FOURTH), KS_INVALID_PARAMETER),
               IS(K_SetMemoryThresholds(0, 0, 0, 0, INT32_MAX, MEMTHRESHOLD_FIFTH), KS_INVALID_PARAMETER),
               IS(K_SetMemoryThresholds(0, INT32_MAX - 100, 0, 0, 0, 2), 1), IS(K_GetDefaultMemoryType(), 1),
               IS(K_SetDefaultMemoryType(2), KS_INVALID_PARAMETER), IS(K_SetDefaultMemoryType(128), 1),
               IS((std::thread([&] { other = K_GetDefaultMemoryType(); }).join(), other), 1),
               IS(allocate(10, 10, 0, &kind), 1), IS(kind, 128), IS(K_SetDefaultMemoryType(1), 1),
               IS(K_SetGlobalMemoryThresholds(&g), KS_INVALID_PARAMETER),
               IS((g.uStructSize = 16, K_SetGlobalMemoryThresholds(&g)), KS_INVALID_STRUCT_SIZE)});
}

struct AllocCb {
    uint32_t newType = 0;
    int32_t answer = 1;
    BITMAPALLOCINFO seen{};
};
int32_t allocCb(BITMAPRECORD*, BITMAPALLOCINFO* info, void* user) {
    auto* g = static_cast<AllocCb*>(user);
    g->seen = *info;
    if (g->newType) info->uMemoryType = g->newType;
    return g->answer;
}

// The process-wide and the per-bitmap allocation callbacks see the request, may change the type, may supply the
// pixels (2) or refuse (their status is the result, nothing leaks).
TEST(StorageCallbacks, AllocationCallbacksAndHeightsOfEveryKind) {
    AllocCb g;
    g.newType = 128;  // the callback changes the type
    PFN_BITMAPALLOCATE old = nullptr, mine = nullptr;
    void* oldUser = nullptr;
    ASSERT_EQ(K_SetAllocateBitmapCallback(allocCb, &g, &old, &oldUser), KS_SUCCESS);
    RGBQUAD pal[256] = {};
    BITMAPRECORD bm;
    ASSERT_EQ(K_CreateBitmap(&bm, BITMAPRECORD_SIZE, 1, 30, 5, 8, 0, pal, 1, nullptr, 0), KS_SUCCESS);
    EXPECT_TRUE(g.seen.uStructSize == BITMAPALLOCINFO_SIZE && g.seen.uMemoryType == 1u && g.seen.nWidth == 30 &&
                g.seen.nBytesPerLine == 0u && g.seen.uDataSize == 32u * 5u && g.seen.pExtra == pal);
    expectAll({IS(kindOf(bm), 128), IS(K_FreeBitmap(&bm), 1), IS((g.answer = -321, create(&bm, 1, 30, 5, 8)), -321),
               IS(K_SetAllocateBitmapCallback(old, oldUser, &mine, nullptr), KS_SUCCESS), IS(mine == &allocCb, 1)});

    AllocCb d;
    BITMAPDATACALLBACKS cb = callbacks(&d);
    cb.pfnAllocate = allocCb;
    const long live = fi::liveBlocks();
    const struct { int32_t answer; uint32_t newType; int32_t rc; uint32_t flags; } cases[] = {
        {2, 0, KS_SUCCESS, 0x0401}, {1, 1024, KS_SUCCESS, 0x8003}, {1, 3, KS_INVALID_PARAMETER, 0}, {-9, 0, -9, 0}};
    for (const auto& c : cases) {
        d.answer = c.answer, d.newType = c.newType;
        expectAll(
            {IS(K_CreateBitmapWithCallbacks(&bm, BITMAPRECORD_SIZE, 1, 30, 5, 8, 0, nullptr, 1, nullptr, 0, &cb), c.rc),
             IS(bm.uFlags & BRF_STORAGE_MASK, c.flags), IS(d.seen.nBytesPerLine, 32),
             IS(c.rc == KS_SUCCESS ? K_FreeBitmap(&bm) : 1, 1), IS(fi::liveBlocks(), live)});
    }
    // Height changes (0 too) on every kind against a plain vector of rows: shared rows kept, new rows zero, the
    // kind kept.
    CapGuard guard;
    const long base = fi::liveBlocks();
    for (int bpp : {1, 8, 24}) {
        for (Kind kind : kindsFor(bpp)) {
            if (kind == Kind::CallerMemory || kind == Kind::CallbackMemory) continue;
            SCOPED_TRACE(std::string(kindName(kind)) + " bpp " + std::to_string(bpp));
            KindBitmap k(kind, 61, 10, bpp);
            ASSERT_TRUE(k.rc == KS_SUCCESS && fillPattern(&k.bm, 10, 1) == KS_SUCCESS);
            const uint32_t type = kindOf(k.bm);
            std::vector<std::vector<uint8_t>> model;
            for (int32_t r = 0; r < 10; ++r) model.push_back(patternRow(&k.bm, r, 1));
            for (int32_t h : {23, 4, 0, 12, 50, 50}) {
                ASSERT_EQ(K_ChangeBitmapHeight(&k.bm, h), KS_SUCCESS) << h;
                ASSERT_TRUE(k.bm.nHeight == h && k.bm.uSize64 == uint64_t(k.bm.nBytesPerLine) * uint64_t(h));
                model.resize(size_t(h), std::vector<uint8_t>(k.bm.nBytesPerLine, 0));
                std::vector<uint8_t> got(k.bm.nBytesPerLine);
                for (int32_t r = 0; r < h; ++r) {
                    ASSERT_EQ(K_GetBitmapRow(&k.bm, got.data(), r, k.bm.nBytesPerLine), int32_t(k.bm.nBytesPerLine));
                    ASSERT_EQ(got, model[size_t(r)]) << "height " << h << " row " << r;
                }
                EXPECT_EQ(K_GetBitmapRow(&k.bm, got.data(), h, 8), KS_INVALID_PARAMETER);
                if (h != 23) continue;  // new contents before shrinking
                for (int32_t r = 0; r < 23; ++r) model[size_t(r)] = patternRow(&k.bm, r, 2);
                ASSERT_EQ(fillPattern(&k.bm, 23, 2), KS_SUCCESS);
            }
            EXPECT_EQ(kindOf(k.bm), type) << "the kind does not change";
        }
    }
    EXPECT_EQ(fi::liveBlocks(), base);
    // Refusals: caller memory, a locked bitmap, a negative height, no storage (allocated bit before size word).
    KindBitmap c(Kind::CallerMemory, 8, 8, 8), b(Kind::SingleBlock, 8, 8, 8);
    BITMAPRECORD none;
    expectAll({IS(K_ChangeBitmapHeight(&c.bm, 9), KS_INVALID_PARAMETER), IS(K_AccessBitmap(&b.bm), 1),
               IS(K_ChangeBitmapHeight(&b.bm, 20), KS_INVALID_PARAMETER), IS(K_ReleaseBitmap(&b.bm), 1),
               IS(K_ChangeBitmapHeight(&b.bm, -1), KS_INVALID_DIMENSIONS),
               IS(K_InitBitmap(&none, BITMAPRECORD_SIZE, 10, 10, 8), 1),
               IS(K_ChangeBitmapHeight(&none, 3), KS_INVALID_BITMAP),
               IS((none.uStructSize = 100, K_ChangeBitmapHeight(&none, 3)), KS_INVALID_BITMAP)});
}

struct CallbackStorage {
    int allocations = 0, frees = 0;
    std::vector<uint8_t> pixels;
};
int32_t supplyStorage(BITMAPRECORD* bm, BITMAPALLOCINFO* info, void* user) {
    auto* s = static_cast<CallbackStorage*>(user);
    ++s->allocations;
    s->pixels.assign(size_t(info->uDataSize), 0);
    bm->pData = s->pixels.data();
    return 2;
}
int32_t returnStorage(BITMAPRECORD*, void* user) { return ++static_cast<CallbackStorage*>(user)->frees, 2; }

// Creation, writing every row and a conversion with the Nth allocation failing (once, or from then on) for every N:
// a failed creation leaves the record byte for byte (supplied storage goes back through the free callback), a failed
// write or conversion keeps the pixels, nothing leaks or stays counted.
TEST(StorageFaults, AllocationFailureAtEveryStepHeightChangesAndTileRetries) {
    CapGuard guard;
    CallbackStorage store;
    BITMAPDATACALLBACKS none = callbacks(nullptr), supplied = callbacks(&store);
    supplied.pfnAllocate = supplyStorage, supplied.pfnFree = returnStorage;
    const struct { uint32_t type; int bpp; uint32_t convertTo; long repeat; const BITMAPDATACALLBACKS* cb; } cases[] = {
        {1, 8, 0, 1, nullptr},     {128, 8, 0, 1, nullptr},  {512, 1, 0, 1, nullptr}, {1024, 8, 0, 1, nullptr},
        {1024, 24, 0, 1, nullptr}, {1024, 1, 0, 1, nullptr}, {1, 8, 4, 1, nullptr},   {1, 1, 512, 1, nullptr},
        {1, 24, 1024, 1, nullptr}, {1, 8, 128, 1, nullptr},  {1, 1, 0, -1, nullptr},  {1, 24, 0, -1, &none},
        {1, 8, 0, 1, &none},       {1, 8, 0, 1, &supplied},  {1, 8, 0, -1, &supplied}};
    K_GetDefaultMemoryType();  // the per-thread block exists before the snapshot
    const long live = fi::liveBlocks();
    const int64_t base = counter();
    for (const auto& c : cases) {
        SCOPED_TRACE(::testing::Message() << "type " << c.type << " bpp " << c.bpp << " to " << c.convertTo
                                          << " repeat " << c.repeat << " callbacks " << !!c.cb);
        int failures = 0, failedAfterSupply = 0;
        for (long n = 0; n < 400; ++n) {
            BITMAPRECORD bm;
            std::memset(&bm, 0x3C, sizeof bm);
            const BITMAPRECORD before = bm;
            store.allocations = store.frees = 0;
            fi::arm(n, c.repeat);
            int32_t rc = K_CreateBitmapWithCallbacks(&bm, BITMAPRECORD_SIZE, c.type, 70, 40, c.bpp, 1, nullptr, 1,
                                                     nullptr, 0, c.cb);
            const bool created = rc == KS_SUCCESS;
            if (created) rc = fillPattern(&bm, bm.nHeight, 5);  // compressed kinds allocate per row
            if (created && rc == KS_SUCCESS && c.convertTo) {
                rc = K_SetBitmapMemoryInfo(&bm, c.convertTo, 5 * bm.nBytesPerLine);
                if (rc != KS_SUCCESS) expectPattern(&bm, bm.nHeight, 5, "after a failed conversion");
            }
            const long injected = fi::injected();
            fi::disarm();
            failures += rc != KS_SUCCESS;
            if (!created) {
                EXPECT_TRUE(rc == KS_NO_MEMORY && std::memcmp(&bm, &before, sizeof bm) == 0)
                    << "record changed at n=" << n;
                failedAfterSupply += store.allocations;
            } else if (rc == KS_SUCCESS) {
                const bool user = c.cb == &supplied;  // the callback's storage is caller memory
                EXPECT_EQ(bm.uFlags & (user ? BRF_STORAGE_MASK : BRF_ALLOCATED),
                          user ? BRF_ALLOCATED | BRF_USER_MEMORY : BRF_ALLOCATED);
                expectPattern(&bm, bm.nHeight, 5, "after absorbed failures");
            }
            K_FreeBitmap(&bm);
            EXPECT_TRUE(store.frees == store.allocations && fi::liveBlocks() == live && counter() == base)
                << "leak at n=" << n;
            if (injected == 0) { ASSERT_EQ(rc, KS_SUCCESS); break; }  // walked past the last allocation
        }
        EXPECT_GT(failures, 0) << "no step failed";
        EXPECT_TRUE(c.cb != &supplied || failedAfterSupply >= 1) << "no failure after the callback supplied storage";
    }
    // A failed height change keeps the bitmap, row for row. Tiles in memory only: a failed tile is retried with half
    // the tile size; at the floor (8 MiB) it fails.
    for (uint32_t type : {1u, 4u, 128u, 512u, 1024u}) {
        BITMAPRECORD bm;
        ASSERT_EQ(create(&bm, 1, 64, 20, type == 512 ? 1 : 8, 1), KS_SUCCESS);
        ASSERT_EQ(K_SetBitmapMemoryInfo(&bm, type, 3 * bm.nBytesPerLine), KS_SUCCESS);
        ASSERT_EQ(fillPattern(&bm, 20, 5), KS_SUCCESS);
        const long live = fi::liveBlocks();
        bool sawFailure = false;
        for (long n = 0; n < 50; ++n) {
            fi::arm(n, -1);  // every allocation from the Nth on fails
            // Compressed rows live in blocks of 32768 rows: grow past one.
            const int32_t rc = K_ChangeBitmapHeight(&bm, type == 512 ? 40000 : 70000 / int32_t(bm.nBytesPerLine) + 40);
            fi::disarm();
            if (rc == KS_SUCCESS) break;
            sawFailure = true;
            EXPECT_TRUE(bm.nHeight == 20 && fi::liveBlocks() == live) << type << " n=" << n;
            expectPattern(&bm, 20, 5, "after a failed height change");
        }
        EXPECT_TRUE(sawFailure || type == 128 || type == 4) << type;  // tiles and files need no allocator here
        expectPattern(&bm, 20, 5, "after growth");
        K_FreeBitmap(&bm);
    }
    ASSERT_EQ(K_SetMemoryThresholds(0, 1 << 20, 0, 0, 0, MEMTHRESHOLD_LARGEST_IMAGE | MEMTHRESHOLD_TILE_SIZE), 1);
    for (int32_t floor : {0, 1}) {
        if (floor) { ASSERT_EQ(K_SetMemoryThresholds(0, 0, 8 << 20, 0, 0, MEMTHRESHOLD_TILE_SIZE), KS_SUCCESS); }
        BITMAPRECORD bm;
        ASSERT_EQ(K_InitBitmap(&bm, BITMAPRECORD_SIZE, 4096, 8192, 8), KS_SUCCESS);  // 32 MiB
        fi::arm(1, 1);  // allocation 0 is the tile table, 1 the first 16 MiB tile
        const int32_t rc = K_AllocateBitmap(&bm, MEMTYPE_CONVENTIONAL | MEMTYPE_NO_DISK);
        fi::disarm();
        EXPECT_EQ(rc, floor ? KS_NO_MEMORY : KS_SUCCESS);
        uint64_t tileSize = 0;
        int32_t tiles = 0, onDisk = -1;
        uint32_t type = 0;
        K_GetBitmapMemoryInfo(&bm, &type, &tileSize, &tiles, &onDisk);
        EXPECT_TRUE(floor || (type == 4 && tileSize == 8u << 20 && tiles == 4 && onDisk == 0)) << tileSize;
        EXPECT_EQ(bm.uFlags & BRF_ALLOCATED, floor ? 0u : BRF_ALLOCATED);
        K_FreeBitmap(&bm);
    }
    EXPECT_EQ(fi::liveBlocks(), live);
}

// Six threads allocate, tile, write and resize against one cap: never past it, every refusal is the cap's.
TEST(StorageThreads, CounterStaysExactUnderACap) {
    CapGuard guard;
    const int64_t base = counter(), cap = base + 64 * 1024;
    ASSERT_EQ(K_ManageMemory(MANAGEMEMORY_SET_CAP, cap, nullptr), KS_SUCCESS);
    std::atomic<int> ok{0}, capped{0}, other{0}, overCap{0};
    onThreads(6, [&](int t) {
        std::mt19937 rng{uint32_t(t)};
        BITMAPRECORD held[3];  // up to three bitmaps at a time
        for (auto& b : held) K_InitBitmap(&b, BITMAPRECORD_SIZE, 0, 0, 0);
        for (int i = 0; i < 300; ++i) {
            BITMAPRECORD& bm = held[i % 3];
            const int32_t h = 1 + int32_t(rng() % 40);
            if (K_FreeBitmap(&bm), K_InitBitmap(&bm, BITMAPRECORD_SIZE, 1000, h, 8) != KS_SUCCESS) return;
            int32_t rc = K_AllocateBitmap(&bm, 265);  // one block or nothing; every fourth one tiles
            if (rc == KS_SUCCESS && i % 4 == 0) rc = K_SetBitmapMemoryInfo(&bm, 4, 5000);
            overCap += counter() > cap;
            (rc == KS_SUCCESS ? ok : rc == KS_MEMORY_CAP_EXCEEDED ? capped : other)++;
            const std::vector<uint8_t> row(1000, uint8_t(t));
            if (rc == KS_SUCCESS) K_PutBitmapRow(&bm, row.data(), h - 1, 1000);
            if (rc == KS_SUCCESS && i % 3 == 0) K_ChangeBitmapHeight(&bm, h + 5);
        }
        for (auto& b : held) K_FreeBitmap(&b);
    });
    EXPECT_TRUE(counter() == base && overCap == 0 && other == 0 && ok > 0 && capped > 0)
        << ok << " ok, " << capped << " capped, " << other << " other, " << overCap << " over the cap";
}


}  // namespace
