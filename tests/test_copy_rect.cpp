// Rectangle copies, in-place crops and trims against index arithmetic; fill,
// clear and K_ClearNegativePixels inside regions on every storage kind.
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <random>

#include "copy_helpers.h"
#include "krn/common/memory.h"

using namespace copytest;

namespace {

struct Source {
    KindBitmap kb;
    RefImage ref;
    Source(Kind k, int32_t w, int32_t h, int32_t bpp, uint32_t seed) : kb(k, w, h, bpp), ref(w, h, bpp) {
        ref.randomize(seed);
        if (kb.rc == KS_SUCCESS) kb.rc = putImage(&kb.bm, ref);
    }
};

uint32_t kindOf(const BITMAPRECORD* bm) {
    uint32_t t = 0;
    K_GetBitmapMemoryInfo(bm, &t, nullptr, nullptr, nullptr);
    return t;
}

// The source window at (col, row), zero outside the source.
auto windowOf(RefImage& ref, int32_t col, int32_t row) {
    return [&ref, col, row](int x, int y) -> uint64_t {
        const int64_t sx = int64_t(x) + col, sy = int64_t(y) + row;
        if (sx < 0 || sy < 0 || sx >= ref.width || sy >= ref.height) return 0;
        return pixelAt(ref.row(int32_t(sy)), int32_t(sx), ref.bpp);
    };
}

std::vector<Kind> someKinds(int bpp) {
    // Every kind at the depths the compressed stores take; two elsewhere.
    if (bpp == 1 || bpp == 8 || bpp == 24 || bpp == 12) return storagetest::kindsFor(bpp);
    return {Kind::SingleBlock, Kind::Disk};
}

}  // namespace

TEST(CopyRect, WindowEqualsIndexArithmetic) {
    storagetest::CapGuard guard;
    std::mt19937 rng(2024);
    for (int bpp : allDepths())
        for (Kind k : someKinds(bpp)) {
            SCOPED_TRACE(std::string(storagetest::kindName(k)) + " bpp " + std::to_string(bpp));
            Source src(k, 53, 17, bpp, uint32_t(bpp * 17 + int(k)));
            ASSERT_EQ(src.kb.rc, KS_SUCCESS);
            for (int iter = 0; iter < 12; ++iter) {
                // Corners from well left/above to past the right/bottom edge.
                const int32_t col = int32_t(rng() % 80) - 20, row = int32_t(rng() % 30) - 8;
                const uint32_t w = 1 + rng() % 60, h = 1 + rng() % 22;
                SCOPED_TRACE("rect " + std::to_string(col) + "," + std::to_string(row) + " " + std::to_string(w) +
                             "x" + std::to_string(h));
                BITMAPRECORD d;
                ASSERT_EQ(K_CopyBitmapRect(&d, &src.kb.bm, BITMAPRECORD_SIZE, col, row, w, h), KS_SUCCESS);
                ASSERT_EQ(d.nWidth, int32_t(w));
                ASSERT_EQ(d.nHeight, int32_t(h));
                RefImage got = getImage(&d);
                EXPECT_EQ(firstMismatch(got, windowOf(src.ref, col, row)), "");
                K_FreeBitmap(&d);
            }
        }
}

TEST(CopyRect, InPlaceCropEqualsCropIntoNewRecord) {
    storagetest::CapGuard guard;
    struct Rect {
        int32_t col, row;
        uint32_t w, h;
    };
    const Rect rects[] = {{3, 2, 20, 9}, {-4, -3, 30, 8}, {13, 5, 100, 100}, {0, 0, 41, 13}, {40, 12, 1, 1}};
    for (int bpp : {1, 3, 12, 24})
        for (Kind k : storagetest::kindsFor(bpp)) {
            if (k == Kind::CallbackMemory) continue;  // its buffer belongs to the caller's callback
            for (const Rect& r : rects) {
                SCOPED_TRACE(std::string(storagetest::kindName(k)) + " bpp " + std::to_string(bpp) + " col " +
                             std::to_string(r.col));
                Source src(k, 41, 13, bpp, uint32_t(bpp + r.col + 50));
                ASSERT_EQ(src.kb.rc, KS_SUCCESS);
                const uint32_t kind = kindOf(&src.kb.bm);
                BITMAPRECORD fresh;
                ASSERT_EQ(K_CopyBitmapRect(&fresh, &src.kb.bm, BITMAPRECORD_SIZE, r.col, r.row, r.w, r.h),
                          KS_SUCCESS);
                ASSERT_EQ(K_CopyBitmapRect(nullptr, &src.kb.bm, BITMAPRECORD_SIZE, r.col, r.row, r.w, r.h),
                          KS_SUCCESS);
                EXPECT_EQ(src.kb.bm.nWidth, int32_t(r.w));
                EXPECT_EQ(src.kb.bm.nHeight, int32_t(r.h));
                // Caller memory cannot be kept: the crop gets a block of its own.
                EXPECT_EQ(kindOf(&src.kb.bm), k == Kind::CallerMemory ? 1u : kind);
                RefImage a = getImage(&fresh), b = getImage(&src.kb.bm);
                EXPECT_EQ(firstMismatch(b, [&](int x, int y) { return pixelAt(a.row(y), x, bpp); }), "");
                EXPECT_EQ(firstMismatch(b, windowOf(src.ref, r.col, r.row)), "");
                K_FreeBitmap(&fresh);
            }
        }
}

TEST(CopyRect, StorageChosenByTheCaller) {
    storagetest::CapGuard guard;
    for (uint32_t memory : {1u, 128u, 512u, 1024u})
        for (Kind k : storagetest::kindsFor(1)) {
            SCOPED_TRACE(std::string(storagetest::kindName(k)) + " type " + std::to_string(memory));
            Source src(k, 77, 21, 1, memory);
            BITMAPRECORD d;
            ASSERT_EQ(K_CopyBitmapRect2(&d, &src.kb.bm, BITMAPRECORD_SIZE, 5, -2, 61, 20, memory), KS_SUCCESS);
            EXPECT_EQ(kindOf(&d), memory);
            RefImage got = getImage(&d);
            EXPECT_EQ(firstMismatch(got, windowOf(src.ref, 5, -2)), "");
            K_FreeBitmap(&d);
            // In place, into the chosen kind.
            ASSERT_EQ(K_CopyBitmapRect2(nullptr, &src.kb.bm, BITMAPRECORD_SIZE, 9, 1, 30, 11, memory), KS_SUCCESS);
            EXPECT_EQ(kindOf(&src.kb.bm), memory);
            RefImage crop = getImage(&src.kb.bm);
            EXPECT_EQ(firstMismatch(crop, windowOf(src.ref, 9, 1)), "");
        }
}

TEST(CopyRect, RegionMovesWithTheCorner) {
    storagetest::CapGuard guard;
    Source src(Kind::SingleBlock, 60, 40, 8, 6);
    RECT r = {10, 8, 30, 25};
    ASSERT_EQ(K_SetBitmapRgnRect(&src.kb.bm, nullptr, &r, RGN_SET_REPLACE), KS_SUCCESS);
    struct Case {
        int32_t col, row;
        uint32_t w, h;
        RECT want;
        bool has;
    };
    const Case cases[] = {
        {5, 4, 40, 30, {5, 4, 25, 21}, true},
        {-5, -5, 20, 20, {15, 13, 20, 20}, true},  // clipped to the new bitmap
        {20, 15, 30, 30, {0, 0, 10, 10}, true},
        {40, 30, 10, 10, {0, 0, 0, 0}, false},      // the region lies outside: empty
    };
    for (const Case& c : cases) {
        BITMAPRECORD d;
        ASSERT_EQ(K_CopyBitmapRect(&d, &src.kb.bm, BITMAPRECORD_SIZE, c.col, c.row, c.w, c.h), KS_SUCCESS);
        RECT got{};
        K_GetBitmapRgnBounds(&d, nullptr, &got);
        uint64_t area = 0;
        K_GetBitmapRgnArea(&d, &area);
        if (c.has) {
            EXPECT_TRUE(EqualRect(&got, &c.want)) << got.left << "," << got.top << "," << got.right << "," << got.bottom;
        } else {
            EXPECT_EQ(area, 0u);
        }
        K_FreeBitmap(&d);
    }
}

TEST(CopyRect, TrimTable) {
    storagetest::CapGuard guard;
    struct Case {
        int32_t col, row;
        uint32_t w, h;
        int32_t rc;
        int32_t left, top, width, height;
    };
    const Case cases[] = {
        {-5, -2, 20, 10, KS_SUCCESS, 0, 0, 15, 8},     // trims from column 0
        {10, 5, 1000, 1000, KS_SUCCESS, 10, 5, 20, 15},
        {0, 0, 30, 20, KS_SUCCESS, 0, 0, 30, 20},
        {30, 0, 5, 5, KS_INVALID_DIMENSIONS, 0, 0, 30, 20},  // outside on the right
        {-10, 0, 10, 5, KS_INVALID_DIMENSIONS, 0, 0, 30, 20},
        {0, 25, 5, 5, KS_INVALID_DIMENSIONS, 0, 0, 30, 20},
        {5, 5, 0, 5, KS_INVALID_DIMENSIONS, 0, 0, 30, 20},
        {INT32_MAX, 0, 0xFFFFFFFFu, 5, KS_INVALID_DIMENSIONS, 0, 0, 30, 20},
        {INT32_MIN, 0, 0xFFFFFFFFu, 5, KS_SUCCESS, 0, 0, 30, 5},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(std::to_string(c.col) + "," + std::to_string(c.row));
        Source src(Kind::SingleBlock, 30, 20, 4, 12);
        EXPECT_EQ(K_TrimBitmap(&src.kb.bm, c.col, c.row, c.w, c.h), c.rc);
        EXPECT_EQ(src.kb.bm.nWidth, c.width);
        EXPECT_EQ(src.kb.bm.nHeight, c.height);
        RefImage got = getImage(&src.kb.bm);
        EXPECT_EQ(firstMismatch(got, windowOf(src.ref, c.left, c.top)), "");
    }
    EXPECT_EQ(K_TrimBitmap(nullptr, 0, 0, 1, 1), KS_INVALID_PARAMETER);
}

TEST(CopyRect, BadInputChangesNothing) {
    storagetest::CapGuard guard;
    Source src(Kind::SingleBlock, 10, 10, 8, 1);
    BITMAPRECORD unalloc;
    K_InitBitmap(&unalloc, BITMAPRECORD_SIZE, 10, 10, 8);
    BITMAPRECORD d;
    std::memset(&d, 0xA5, sizeof d);
    const BITMAPRECORD before = src.kb.bm;
    const long live = krn::faultinject::liveBlocks();
    struct Case {
        const char* what;
        BITMAPRECORD* src;
        uint32_t size;
        int32_t col, row;
        uint32_t w, h;
        int32_t rc;
    };
    const Case cases[] = {
        {"null src", nullptr, BITMAPRECORD_SIZE, 0, 0, 5, 5, KS_INVALID_PARAMETER},
        {"unallocated", &unalloc, BITMAPRECORD_SIZE, 0, 0, 5, 5, KS_INVALID_PARAMETER},
        {"size word", &src.kb.bm, 99, 0, 0, 5, 5, KS_INVALID_STRUCT_SIZE},
        {"zero width", &src.kb.bm, BITMAPRECORD_SIZE, 0, 0, 0, 5, KS_INVALID_DIMENSIONS},
        {"zero height", &src.kb.bm, BITMAPRECORD_SIZE, 0, 0, 5, 0, KS_INVALID_DIMENSIONS},
        {"huge width", &src.kb.bm, BITMAPRECORD_SIZE, 0, 0, 0x80000000u, 5, KS_INVALID_DIMENSIONS},
        {"INT32_MIN col", &src.kb.bm, BITMAPRECORD_SIZE, INT32_MIN, 0, 5, 5, KS_INVALID_PARAMETER},
        {"too big to allocate", &src.kb.bm, BITMAPRECORD_SIZE, 0, 0, 0x7FFFFFFFu, 0x7FFFFFFFu, KS_INVALID_DIMENSIONS},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        EXPECT_EQ(K_CopyBitmapRect(&d, c.src, c.size, c.col, c.row, c.w, c.h), c.rc);
        EXPECT_EQ(K_CopyBitmapRect2(&d, c.src, c.size, c.col, c.row, c.w, c.h, 1), c.rc);
        for (size_t i = 0; i < sizeof d; ++i) ASSERT_EQ(reinterpret_cast<uint8_t*>(&d)[i], 0xA5);
        EXPECT_EQ(std::memcmp(&before, &src.kb.bm, sizeof before), 0);
        EXPECT_EQ(krn::faultinject::liveBlocks(), live);
    }
    // An in-place crop of a bitmap in use is refused.
    K_AccessBitmap(&src.kb.bm);
    EXPECT_EQ(K_CopyBitmapRect(nullptr, &src.kb.bm, BITMAPRECORD_SIZE, 1, 1, 3, 3), KS_INVALID_PARAMETER);
    EXPECT_EQ(src.kb.bm.nWidth, 10);
    K_ReleaseBitmap(&src.kb.bm);
}

TEST(CopyRect, AllocationFailureWalk) {
    storagetest::CapGuard guard;
    for (Kind k : {Kind::SingleBlock, Kind::TilesMemory, Kind::Compressed}) {
        for (int inPlace = 0; inPlace < 2; ++inPlace) {
            SCOPED_TRACE(std::string(storagetest::kindName(k)) + (inPlace ? " in place" : " new record"));
            int failures = 0, successes = 0;
            for (long n = 0; n < 500; ++n) {
                Source src(k, 67, 15, 1, 21);
                ASSERT_EQ(src.kb.rc, KS_SUCCESS);
                RECT r = {1, 1, 50, 12};
                ASSERT_EQ(K_SetBitmapRgnRect(&src.kb.bm, nullptr, &r, RGN_SET_REPLACE), KS_SUCCESS);
                const BITMAPRECORD before = src.kb.bm;
                const long live = krn::faultinject::liveBlocks();
                BITMAPRECORD d;
                std::memset(&d, 0xA5, sizeof d);
                krn::faultinject::arm(n, 1);
                int32_t rc = K_CopyBitmapRect(inPlace ? nullptr : &d, &src.kb.bm, BITMAPRECORD_SIZE, 3, -1, 40, 12);
                const long injected = krn::faultinject::injected();
                krn::faultinject::disarm();
                BITMAPRECORD* out = inPlace ? &src.kb.bm : &d;
                if (rc == KS_SUCCESS) {
                    ++successes;
                    RefImage got = getImage(out);
                    EXPECT_EQ(firstMismatch(got, windowOf(src.ref, 3, -1)), "") << "n=" << n;
                    if (!inPlace) K_FreeBitmap(&d);
                } else {
                    ++failures;
                    EXPECT_EQ(rc, KS_NO_MEMORY) << "n=" << n;
                    for (size_t i = 0; i < sizeof d; ++i)
                        ASSERT_EQ(reinterpret_cast<uint8_t*>(&d)[i], 0xA5) << "n=" << n;
                    EXPECT_EQ(std::memcmp(&before, &src.kb.bm, sizeof before), 0) << "n=" << n;
                    RefImage same = getImage(&src.kb.bm);
                    EXPECT_EQ(firstMismatch(same, windowOf(src.ref, 0, 0)), "") << "n=" << n;
                    EXPECT_EQ(krn::faultinject::liveBlocks(), live) << "n=" << n;
                }
                if (injected == 0) break;
            }
            EXPECT_GT(failures, 2);
            EXPECT_GE(successes, 1);
        }
    }
}

TEST(CopyRect, StatusCallbackStopsRectAndCrop) {
    storagetest::CapGuard guard;
    for (int inPlace = 0; inPlace < 2; ++inPlace)
        for (int bpp : {1, 12, 32}) {
            SCOPED_TRACE(std::to_string(bpp) + (inPlace ? " in place" : ""));
            Source src(Kind::Disk, 40, 50, bpp, 31);
            const BITMAPRECORD before = src.kb.bm;
            StopAfter stop{0, 3, 0};
            CopyStatusScope scope(&StopAfter::cb, &stop);
            BITMAPRECORD d;
            std::memset(&d, 0xA5, sizeof d);
            const long live = krn::faultinject::liveBlocks();
            EXPECT_EQ(K_CopyBitmapRect(inPlace ? nullptr : &d, &src.kb.bm, BITMAPRECORD_SIZE, 3, 3, 30, 40), 0);
            EXPECT_EQ(stop.calls, 4);
            EXPECT_EQ(reinterpret_cast<uint8_t*>(&d)[0], 0xA5);
            EXPECT_EQ(std::memcmp(&before, &src.kb.bm, sizeof before), 0);
            EXPECT_EQ(krn::faultinject::liveBlocks(), live);
        }
}

TEST(CopyRect, OlderLayoutDestination) {
    storagetest::CapGuard guard;
    Source src(Kind::SingleBlock, 33, 9, 5, 2);
    BITMAPRECORD d;
    std::memset(&d, 0xA5, sizeof d);
    ASSERT_EQ(K_CopyBitmapRect(&d, &src.kb.bm, BITMAPRECORD_SIZE_OLD, 2, 1, 20, 6), KS_SUCCESS);
    EXPECT_EQ(d.uStructSize, BITMAPRECORD_SIZE_OLD);
    // Bytes past the older layout are not the record's: left as they were.
    EXPECT_EQ(reinterpret_cast<uint8_t*>(&d)[OMBRIX_RECORD_BYTES_OLD], 0xA5);
    RefImage got = getImage(&d);
    EXPECT_EQ(firstMismatch(got, windowOf(src.ref, 2, 1)), "");
    K_FreeBitmap(&d);
}

// ---------------------------------------------------------------- fill and clear through regions
TEST(CopyFill, FillAndClearStayInsideTheRegionOnEveryKind) {
    storagetest::CapGuard guard;
    for (int bpp : allDepths())
        for (Kind k : storagetest::kindsFor(bpp)) {
            SCOPED_TRACE(std::string(storagetest::kindName(k)) + " bpp " + std::to_string(bpp));
            Source src(k, 45, 14, bpp, uint32_t(bpp * 5 + int(k)));
            ASSERT_EQ(src.kb.rc, KS_SUCCESS);
            // Pixels are read with the plain reference of each depth's packing.
            // Two rectangles: the oracle is index arithmetic.
            RECT a = {3, 1, 17, 9}, b = {12, 6, 40, 13};
            ASSERT_EQ(K_SetBitmapRgnRect(&src.kb.bm, nullptr, &a, RGN_SET_REPLACE), KS_SUCCESS);
            ASSERT_EQ(K_SetBitmapRgnRect(&src.kb.bm, nullptr, &b, RGN_SET_OR), KS_SUCCESS);
            auto in = [&](int x, int y) {
                return (x >= a.left && x < a.right && y >= a.top && y < a.bottom) ||
                       (x >= b.left && x < b.right && y >= b.top && y < b.bottom);
            };
            const uint64_t mask = bpp == 64 ? ~0ull : ((1ull << bpp) - 1);
            const uint64_t raw = 0xA5C3F00F5AA55A3Cull & mask;
            ASSERT_EQ(K_FillBitmap2(&src.kb.bm, raw), KS_SUCCESS);
            RefImage got = getImage(&src.kb.bm);
            // The pattern is laid out in stored byte order: compare with a row filled the same way.
            std::vector<uint8_t> one(16, 0);
            if (bpp % 8 == 0) {
                for (int i = 0; i < bpp / 8; ++i) one[size_t(i)] = uint8_t(raw >> (8 * i));
            }
            const uint64_t want = bpp % 8 == 0 ? storagetest::getPixel(one.data(), 0, bpp) : raw;
            EXPECT_EQ(firstMismatch(got, [&](int x, int y) { return in(x, y) ? want : storagetest::getPixel(src.ref.row(y), x, bpp); }, true),
                      "");
            ASSERT_EQ(K_ClearBitmap(&src.kb.bm), KS_SUCCESS);
            RefImage cleared = getImage(&src.kb.bm);
            EXPECT_EQ(firstMismatch(cleared, [&](int x, int y) { return in(x, y) ? 0 : storagetest::getPixel(src.ref.row(y), x, bpp); }, true),
                      "");
        }
}

TEST(CopyFill, ClearNegativePixelsInsideTheRegion) {
    storagetest::CapGuard guard;
    struct Case {
        int bpp;
        int32_t order;
        int32_t highBit;
        uint32_t sign;
    };
    const Case cases[] = {{16, ORDER_GRAY, 15, 15}, {16, ORDER_GRAY, 11, 11}, {12, ORDER_GRAY, 11, 11},
                          {8, ORDER_RGB, 7, 7},     {32, ORDER_GRAY, -1, 31}};
    for (const Case& c : cases)
        for (Kind k : {Kind::SingleBlock, Kind::TilesFile}) {
            SCOPED_TRACE(std::to_string(c.bpp) + " high " + std::to_string(c.highBit));
            Source src(k, 31, 9, c.bpp, uint32_t(c.bpp + c.highBit));
            src.kb.bm.nOrder = c.order;
            src.kb.bm.nHighBit = c.highBit;
            RECT r = {4, 2, 25, 8};
            ASSERT_EQ(K_SetBitmapRgnRect(&src.kb.bm, nullptr, &r, RGN_SET_REPLACE), KS_SUCCESS);
            // Not signed: nothing changes.
            ASSERT_EQ(K_ClearNegativePixels(&src.kb.bm), KS_SUCCESS);
            RefImage same = getImage(&src.kb.bm);
            EXPECT_EQ(same.px, src.ref.px);
            src.kb.bm.uFlags |= BRF_SIGNED_DATA;
            ASSERT_EQ(K_ClearNegativePixels(&src.kb.bm), KS_SUCCESS);
            RefImage got = getImage(&src.kb.bm);
            // Samples in stored byte order: 16 and 32 bits little-endian, 12 bits two per three bytes.
            auto sample = [&](RefImage& img, int x, int y) -> uint64_t {
                const uint8_t* p = img.row(y);
                switch (c.bpp) {
                    case 8: return p[x];
                    case 16: return uint64_t(p[2 * x]) | uint64_t(p[2 * x + 1]) << 8;
                    case 32: return uint64_t(p[4 * x]) | uint64_t(p[4 * x + 1]) << 8 | uint64_t(p[4 * x + 2]) << 16 |
                                    uint64_t(p[4 * x + 3]) << 24;
                    default: {
                        const uint8_t* q = p + (x / 2) * 3;
                        return (x & 1) ? (q[1] >> 4) | (uint64_t(q[2]) << 4) : q[0] | (uint64_t(q[1] & 15) << 8);
                    }
                }
            };
            int cleared = 0;
            for (int y = 0; y < 9; ++y)
                for (int x = 0; x < 31; ++x) {
                    const uint64_t v = sample(src.ref, x, y);
                    const bool inside = x >= r.left && x < r.right && y >= r.top && y < r.bottom;
                    const bool negative = (v >> c.sign) & 1;
                    const uint64_t want = inside && negative ? 0 : v;
                    cleared += inside && negative;
                    ASSERT_EQ(sample(got, x, y), want) << x << "," << y;
                }
            EXPECT_GT(cleared, 10);
        }
}

TEST(CopyRect, NoStaleBytesInBlocksThatWereNotZeroed) {
    // Copies that write every byte allocate their block without zero-filling
    // it: the padding and every pixel must still come out exact. The heap is
    // dirtied with a block of the same size first, so a reused block shows.
    storagetest::CapGuard guard;
    for (int bpp : {8, 16, 24, 1, 4}) {
        SCOPED_TRACE(bpp);
        Source src(Kind::SingleBlock, 37, 300, bpp, uint32_t(bpp));
        auto dirty = [](size_t n) {
            void* p = std::malloc(n);
            std::memset(p, 0xEE, n);
            std::free(p);
        };
        auto expectExact = [&](BITMAPRECORD* bm, int32_t col, int32_t row) {
            RefImage got = getImage(bm);
            RefImage want(bm->nWidth, bm->nHeight, bpp);
            for (int32_t y = 0; y < want.height; ++y)
                for (int32_t x = 0; x < want.width; ++x)
                    storagetest::setPixel(want.row(y), x, bpp, pixelAt(src.ref.row(y + row), x + col, bpp));
            EXPECT_EQ(got.px, want.px);  // every byte: pixels, bits past the width and padding
        };
        dirty(src.ref.px.size());
        BITMAPRECORD d;
        ASSERT_EQ(K_CopyBitmap(&d, &src.kb.bm, BITMAPRECORD_SIZE), KS_SUCCESS);
        expectExact(&d, 0, 0);
        K_FreeBitmap(&d);
        dirty(src.ref.px.size());
        ASSERT_EQ(K_CopyBitmap2(&d, &src.kb.bm, BITMAPRECORD_SIZE, 1), KS_SUCCESS);
        expectExact(&d, 0, 0);
        K_FreeBitmap(&d);
        RefImage shape(30, 250, bpp);
        dirty(shape.px.size());
        ASSERT_EQ(K_CopyBitmapRect(&d, &src.kb.bm, BITMAPRECORD_SIZE, 7, 20, 30, 250), KS_SUCCESS);
        expectExact(&d, 7, 20);
        K_FreeBitmap(&d);
        dirty(shape.px.size());
        ASSERT_EQ(K_DupBitmapNewDim(&d, &src.kb.bm, BITMAPRECORD_SIZE, 30, 250, DUPBITMAP_RESIZE), KS_SUCCESS);
        expectExact(&d, 0, 0);
        K_FreeBitmap(&d);
    }
}
