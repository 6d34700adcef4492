// Copies, crops, trims, fills and clears against a reference image read by index arithmetic, on every storage kind and
// depth; K_DupBitmapNewDim's masks.

#include "combine_reference.h"
#include "transform_kit.h"

using namespace tkit;

namespace {

// "" when the bitmap holds the source window at (col, row), zero outside the source.
std::string window(BITMAPRECORD* bm, RefImage& ref, int32_t col = 0, int32_t row = 0) {
    RefImage got = getImage(bm);
    return firstMismatch(got, [&](int x, int y) -> uint64_t {
        const int64_t sx = int64_t(x) + col, sy = int64_t(y) + row;
        if (sx < 0 || sy < 0 || sx >= ref.width || sy >= ref.height) return 0;
        return pixelAt(ref.row(int32_t(sy)), int32_t(sx), ref.bpp);
    });
}
std::string trace(Kind k, int bpp) { return std::string(kindName(k)) + " bpp " + std::to_string(bpp); }
const uint32_t R = BITMAPRECORD_SIZE;

}  // namespace

// K_CopyBitmapData between every pair of kinds keeps the destination's kind; K_CopyBitmap2 lands in the kind asked for.
TEST(Copy, BetweenKinds) {
    storagetest::CapGuard guard;
    for (int bpp : {1, 8, 24})
        for (Kind from : kindsFor(bpp))
            for (Kind to : kindsFor(bpp)) {
                SCOPED_TRACE(trace(from, bpp) + " -> " + kindName(to));
                Source src(from, 45, 7, bpp, uint32_t(bpp + int(from) * 7 + int(to)));
                KindBitmap dst(to, 45, 7, bpp);
                const uint32_t kindBefore = kindOf(&dst.bm);
                ASSERT_EQ(src.kb.rc | dst.rc | K_CopyBitmapData(&dst.bm, src.bm()), KS_SUCCESS);
                EXPECT_EQ(window(&dst.bm, src.ref) + (kindOf(&dst.bm) == kindBefore ? "" : " the kind changed"), "");
            }
    // The whole image, a window of it, and a crop in place into the kind asked for.
    const struct { uint32_t memory, kind; int bpp; } cases[] = {  // kind: as K_GetBitmapMemoryInfo reports it
        {1, 1, 8}, {128, 128, 8}, {128, 128, 1}, {512, 512, 1}, {1024, 1024, 1}, {1024, 1024, 8}, {1024, 1024, 24},
        {257, 1, 24}, {0, 1, 16}, {1, 1, 1}};
    for (const auto& c : cases)
        for (Kind from : kindsFor(c.bpp)) {
            SCOPED_TRACE(trace(from, c.bpp) + " -> type " + std::to_string(c.memory));
            Source src(from, 77, 21, c.bpp, c.memory + uint32_t(from));
            BITMAPRECORD dst, win;
            ASSERT_EQ(K_CopyBitmap2(&dst, src.bm(), R, c.memory), KS_SUCCESS);
            ASSERT_EQ(K_CopyBitmapRect2(&win, src.bm(), R, 5, -2, 61, 20, c.memory), KS_SUCCESS);
            EXPECT_EQ(kindOf(&dst) * 10000 + kindOf(&win), c.kind * 10001);
            EXPECT_EQ(window(&dst, src.ref) + window(&win, src.ref, 5, -2), "");
            K_FreeBitmap(&dst), K_FreeBitmap(&win);
            ASSERT_EQ(K_CopyBitmapRect2(nullptr, src.bm(), R, 9, 1, 30, 11, c.memory), KS_SUCCESS);
            EXPECT_EQ(kindOf(src.bm()), c.kind);
            EXPECT_EQ(window(src.bm(), src.ref, 9, 1), "");
        }
}

TEST(Copy, DescribingFieldsAndRegionTravel) {
    Source src(Kind::SingleBlock, 40, 30, 16, 5);
    BITMAPRECORD& s = *src.bm();
    s.nOrder = ORDER_GRAY, s.nXResolution = 300, s.nYResolution = 72, s.nViewPerspective = 6;
    s.nLowBit = 2, s.nHighBit = 11, s.uFlags |= BRF_SIGNED_DATA, s.nLUTLength = 16, s.uExtraDataSize = 10;
    std::memset(s.pLUT = K_GlobalAlloc(GMEM_FIXED, 64), 0x5A, 64);
    std::memcpy(s.pExtraData = K_GlobalAlloc(GMEM_FIXED, 10), "extra-data", 10);
    RECT rc = {5, 6, 20, 25}, got{};
    ASSERT_EQ(K_SetBitmapRgnRect(&s, nullptr, &rc, RGN_SET_REPLACE), KS_SUCCESS);
    // K_CopyBitmap carries everything; K_CopyBitmap2 of a grey image the grey parameters (K_CopyGrayParams), the region
    // and the extra data.
    for (bool two : {false, true}) {
        SCOPED_TRACE(two ? "K_CopyBitmap2" : "K_CopyBitmap");
        BITMAPRECORD d;
        ASSERT_EQ(two ? K_CopyBitmap2(&d, &s, R, 128) : K_CopyBitmap(&d, &s, R), KS_SUCCESS);
        const std::vector<int32_t> fields = {d.nOrder, d.nXResolution, d.nYResolution, d.nViewPerspective, d.nLowBit,
                                             int32_t(d.nLUTLength)}, want = {ORDER_GRAY, 300, 72, 6, 2, 16};
        EXPECT_TRUE(two || fields == want);
        EXPECT_TRUE(d.nHighBit == 11 && (d.uFlags & BRF_SIGNED_DATA) && d.uExtraDataSize == 10u);
        ASSERT_TRUE(d.pLUT && d.pLUT != s.pLUT && d.pExtraData && d.pExtraData != s.pExtraData);
        EXPECT_TRUE(std::memcmp(d.pLUT, s.pLUT, 64) == 0 && std::memcmp(d.pExtraData, "extra-data", 10) == 0);
        EXPECT_TRUE(K_GetBitmapRgnBounds(&d, nullptr, &got) == KS_SUCCESS && EqualRect(&got, &rc));
        K_FreeBitmap(&d);
    }
}

TEST(Copy, CarryMasksTable) {
    storagetest::CapGuard guard;
    Source src(Kind::Disk, 20, 10, 8, 9);
    BITMAPRECORD& s = *src.bm();
    RGBQUAD pal[256];
    for (int i = 0; i < 256; ++i) pal[i] = RGBQUAD{uint8_t(i), uint8_t(255 - i), uint8_t(i / 2), 0};
    ASSERT_EQ(K_SetBitmapPalette(&s, pal, 256), KS_SUCCESS);
    s.nXResolution = 96, s.nViewPerspective = 3, s.nLowBit = 1, s.nHighBit = 6, s.nMinBit = 2, s.nMaxBit = 5;
    RECT r = {2, 2, 8, 8};
    ASSERT_EQ(K_SetBitmapRgnRect(&s, nullptr, &r, RGN_SET_REPLACE), KS_SUCCESS);
    // What each mask carries: palette, resolution, perspective, region, grey bits, storage allocated, of the source's
    // kind, pixels (checked where carried).
    const std::pair<uint32_t, std::string> cases[] = {
        {DUPBITMAP_COPY, "11111100"}, {DUPBITMAP_TEMPORARY, "11111110"}, {DUPBITMAP_WORK, "11000110"},
        {DUPBITMAP_RESIZE, "10000111"}, {DUPBITMAP_DESCRIBE, "01100000"}, {DUPBITMAP_COLORS, "10100000"},
    };
    for (const auto& [mask, want] : cases) {
        BITMAPRECORD d;
        ASSERT_EQ(K_DupBitmapNewDim(&d, &s, R, 15, 12, mask), KS_SUCCESS);
        EXPECT_EQ(d.nWidth * 10000 + d.nHeight * 100 + d.nBitsPerPixel, 151208);
        const bool allocated = d.uFlags & BRF_ALLOCATED, got[] = {
            d.pPalette && std::memcmp(d.pPalette, pal, sizeof pal) == 0, d.nXResolution == 96, d.nViewPerspective == 3,
            K_BitmapHasRgn(&d) == 1, d.nLowBit * 1000 + d.nHighBit * 100 + d.nMinBit * 10 + d.nMaxBit == 1625,
            allocated, allocated && kindOf(&d) == 128, want[7] == '1' && window(&d, src.ref).empty()};
        std::string bits;
        for (bool b : got) bits += b ? '1' : '0';
        EXPECT_EQ(bits, want) << mask;
        K_FreeBitmap(&d);
    }
}

// Every refusal: the status, the sentinel destination untouched, the source record as it was, nothing allocated.
TEST(Copy, BadInputChangesNothing) {
    Source src(Kind::SingleBlock, 10, 10, 8, 1);
    Bitmap other(11, 10, 8);
    BITMAPRECORD *s = src.bm(), unalloc, badSize = *s;
    K_InitBitmap(&unalloc, R, 10, 10, 8);
    badSize.uStructSize = 100;
    const BITMAPRECORD before = *s;
    const long live = krn::faultinject::liveBlocks();
    // Both rectangle copies must give the same answer.
    auto rect = [](BITMAPRECORD* to, BITMAPRECORD* from, uint32_t size, int32_t col, int32_t row, uint32_t w,
                   uint32_t h) {
        const int32_t a = K_CopyBitmapRect(to, from, size, col, row, w, h);
        return a == K_CopyBitmapRect2(to, from, size, col, row, w, h, 1) ? a : 12345;
    };
    const int32_t P = KS_INVALID_PARAMETER, S = KS_INVALID_STRUCT_SIZE, D = KS_INVALID_DIMENSIONS;
    Sentinel d;  // the destination of every refused call
    const std::pair<int32_t, int32_t> cases[] = {  // (answer, wanted)
        {K_CopyBitmap(&d.bm, nullptr, R), P}, {K_CopyBitmap(&d.bm, &unalloc, R), P},
        {K_CopyBitmap(&d.bm, &badSize, R), S}, {K_CopyBitmap(&d.bm, s, 200), S},
        {K_CopyBitmap2(&d.bm, s, R, MEMTYPE_USER), P}, {K_CopyBitmap2(&d.bm, s, R, 3), P},
        {K_DupBitmapNewDim(&d.bm, s, R, 5, 5, 0x200), P}, {K_DupBitmapNewDim(&d.bm, s, R, -1, 5, 191), D},
        {K_DupBitmapNewDim(&d.bm, s, R, 0, 5, 191), D},
        {K_DupBitmapNewDim(&d.bm, &unalloc, R, 5, 5, DUPBITMAP_RESIZE), P},
        {K_DupBitmapNewDim(&d.bm, s, R, 5, 5, DUPBITMAP_PIXELS | DUPBITMAP_PALETTE), P},
        {rect(&d.bm, nullptr, R, 0, 0, 5, 5), P}, {rect(&d.bm, &unalloc, R, 0, 0, 5, 5), P},
        {rect(&d.bm, s, 99, 0, 0, 5, 5), S}, {rect(&d.bm, s, R, 0, 0, 0, 5), D}, {rect(&d.bm, s, R, 0, 0, 5, 0), D},
        {rect(&d.bm, s, R, 0, 0, 0x80000000u, 5), D}, {rect(&d.bm, s, R, INT32_MIN, 0, 5, 5), P},
        {rect(&d.bm, s, R, 0, 0, 0x7FFFFFFFu, 0x7FFFFFFFu), D}, {K_CopyBitmapHandle(&d.bm, s, 3), S},
        {K_CopyBitmap(nullptr, s, R), P}, {K_DupBitmapNewDim(s, s, R, 5, 5, 191), P}, {K_CopyBitmapData(nullptr, s), P},
        {K_CopyBitmapData(&other.bm, s), P}, {K_CopyBitmapData(&badSize, s), S}, {K_TrimBitmap(nullptr, 0, 0, 1, 1), P},
        {K_CopyBitmapHandle(nullptr, s, R), P}, {K_CopyBitmapData(&unalloc, s), P},
    };
    for (size_t i = 0; i < std::size(cases); ++i) EXPECT_EQ(cases[i].first, cases[i].second) << "case " << i;
    EXPECT_TRUE(d.intact() && sameBytes(before, *s));
    EXPECT_EQ(krn::faultinject::liveBlocks(), live);
    // Onto itself: success and nothing happens. An in-place crop of a bitmap in use is refused.
    EXPECT_EQ(K_CopyBitmap(s, s, R) * 10 + K_CopyBitmapData(s, s), KS_SUCCESS * 11);
    K_AccessBitmap(s);
    EXPECT_EQ(K_CopyBitmapRect(nullptr, s, R, 1, 1, 3, 3), KS_INVALID_PARAMETER);
    K_ReleaseBitmap(s);
    EXPECT_TRUE(sameBytes(before, *s));
    EXPECT_EQ(src.unchanged(), "");
}

// A copy status callback's answer other than 1 is returned; answering 1 throughout sees whole percentages from 0 to
// 100, rising. A notification callback sees the copy, and its failing answer is returned.
TEST(Copy, StatusAndNotificationCallbacks) {
    storagetest::CapGuard guard;
    Source src(Kind::TilesMemory, 50, 40, 24, 8);
    for (int32_t answer : {-100, 7, 1}) {
        StopAfter stop(answer == 1 ? -1 : 5, answer);
        StatusScope scope(&StopAfter::cb, &stop, true);
        Sentinel d;
        EXPECT_EQ(K_CopyBitmap(&d.bm, src.bm(), R), answer);  // KS_SUCCESS is 1
        const auto& v = stop.seen;
        if (answer != 1) { EXPECT_TRUE(stop.calls() == 6 && d.intact()); continue; }
        const bool rising = std::adjacent_find(v.begin(), v.end(), std::greater_equal<>()) == v.end();
        EXPECT_TRUE(v.front() == 0 && v.back() == 100 && rising);
        K_FreeBitmap(&d.bm);
    }
    int32_t seen[2] = {0, 1};  // the code the notification saw, its answer
    BITMAPDATACALLBACKS cbs{};
    cbs.uStructSize = BITMAPDATACALLBACKS_SIZE, cbs.pUserData = seen;
    cbs.pfnNotify = [](BITMAPRECORD*, int32_t c, void* u) {
        return static_cast<int32_t*>(u)[0] = c, static_cast<int32_t*>(u)[1];
    };
    Source one(Kind::SingleBlock, 8, 8, 8, 2);
    ASSERT_EQ(K_SetBitmapDataCallbacks(one.bm(), &cbs), KS_SUCCESS);
    BITMAPRECORD d;
    ASSERT_EQ(K_CopyBitmap2(&d, one.bm(), R, 1), KS_SUCCESS);
    EXPECT_EQ(seen[0], 1);  // the notification of a copy
    K_FreeBitmap(&d), seen[1] = -42;
    const long live = krn::faultinject::liveBlocks();
    EXPECT_EQ(K_CopyBitmap2(&d, one.bm(), R, 1), -42);
    EXPECT_EQ(krn::faultinject::liveBlocks(), live);
}

// Records of the older layout: a handle copy each way shares the pixels, a rectangle copy writes nothing past the older
// record.
TEST(Copy, OlderRecordLayout) {
    Source src(Kind::SingleBlock, 33, 9, 24, 4);
    BITMAPRECORD old, back, big;
    ASSERT_EQ(K_CopyBitmapHandle(&old, src.bm(), BITMAPRECORD_SIZE_OLD), KS_SUCCESS);
    EXPECT_TRUE(old.uStructSize == BITMAPRECORD_SIZE_OLD && old.hMemory == src.bm()->hMemory);
    EXPECT_EQ(window(&old, src.ref), "");
    ASSERT_EQ(K_CopyBitmapHandle(&back, &old, R), KS_SUCCESS);
    EXPECT_TRUE(back.uSize64 == src.bm()->uSize64 && back.nLockCount == 0 && back.pCallbacks == nullptr);
    K_InitBitmap(&big, R, 70000, 70000, 8);
    EXPECT_EQ(K_CopyBitmapHandle(&old, &big, BITMAPRECORD_SIZE_OLD), KS_MEMORY_TOO_LOW);
    Sentinel d;
    ASSERT_EQ(K_CopyBitmapRect(&d.bm, src.bm(), BITMAPRECORD_SIZE_OLD, 2, 1, 20, 6), KS_SUCCESS);
    const uint8_t past = reinterpret_cast<uint8_t*>(&d.bm)[OMBRIX_RECORD_BYTES_OLD];
    EXPECT_TRUE(d.bm.uStructSize == BITMAPRECORD_SIZE_OLD && past == 0xA5);
    EXPECT_EQ(window(&d.bm, src.ref, 2, 1), "");
    K_FreeBitmap(&d.bm);
}

TEST(CopyRect, TrimTable) {
    // The first trims from column 0; the refused ones lie outside or are empty.
    const struct { int32_t col, row; uint32_t w, h; int32_t rc, left, top, width, height; } cases[] = {
        {-5, -2, 20, 10, KS_SUCCESS, 0, 0, 15, 8}, {10, 5, 1000, 1000, KS_SUCCESS, 10, 5, 20, 15},
        {0, 0, 30, 20, KS_SUCCESS, 0, 0, 30, 20}, {INT32_MIN, 0, 0xFFFFFFFFu, 5, KS_SUCCESS, 0, 0, 30, 5},
        {30, 0, 5, 5, KS_INVALID_DIMENSIONS, 0, 0, 30, 20}, {-10, 0, 10, 5, KS_INVALID_DIMENSIONS, 0, 0, 30, 20},
        {0, 25, 5, 5, KS_INVALID_DIMENSIONS, 0, 0, 30, 20}, {5, 5, 0, 5, KS_INVALID_DIMENSIONS, 0, 0, 30, 20},
        {INT32_MAX, 0, 0xFFFFFFFFu, 5, KS_INVALID_DIMENSIONS, 0, 0, 30, 20},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(std::to_string(c.col) + "," + std::to_string(c.row));
        Source src(Kind::SingleBlock, 30, 20, 4, 12);
        EXPECT_EQ(K_TrimBitmap(src.bm(), c.col, c.row, c.w, c.h), c.rc);
        EXPECT_EQ(src.bm()->nWidth * 1000 + src.bm()->nHeight, c.width * 1000 + c.height);
        EXPECT_EQ(window(src.bm(), src.ref, c.left, c.top), "");
    }
}

// Copies that write every byte allocate their block without zero-filling it: the padding and every pixel must still
// come out exact. The heap is dirtied with a block of the same size first, so a reused block shows.
TEST(CopyRect, NoStaleBytesInBlocksThatWereNotZeroed) {
    for (int bpp : {8, 16, 24, 1, 4}) {
        SCOPED_TRACE(bpp);
        Source src(Kind::SingleBlock, 37, 300, bpp, uint32_t(bpp));
        for (int op = 0; op < 4; ++op) {
            RefImage want(op >= 2 ? 30 : 37, op >= 2 ? 250 : 300, bpp);
            const int32_t col = op == 2 ? 7 : 0, row = op == 2 ? 20 : 0;
            for (int32_t y = 0; y < want.height; ++y)
                for (int32_t x = 0; x < want.width; ++x)
                    setPixel(want.row(y), x, bpp, pixelAt(src.ref.row(y + row), x + col, bpp));
            void* p = std::malloc(want.px.size());
            std::free(std::memset(p, 0xEE, want.px.size()));
            BITMAPRECORD d;
            const int32_t rc = op == 0   ? K_CopyBitmap(&d, src.bm(), R)
                               : op == 1 ? K_CopyBitmap2(&d, src.bm(), R, 1)
                               : op == 2 ? K_CopyBitmapRect(&d, src.bm(), R, 7, 20, 30, 250)
                                         : K_DupBitmapNewDim(&d, src.bm(), R, 30, 250, DUPBITMAP_RESIZE);
            ASSERT_EQ(rc, KS_SUCCESS);
            EXPECT_EQ(getImage(&d).px, want.px) << "op " << op;  // every byte: pixels, bits past the width, padding
            K_FreeBitmap(&d);
        }
    }
}

// Every depth and kind: a copy holds the source's pixels and is independent of it; rectangle copies from well
// left/above to past the right/bottom edge give the window of the source (zero outside it) and of its region of two
// rectangles; fill and clear stay inside the region; an in-place crop keeps the storage kind (caller memory gets a
// block of its own).
TEST(Copy, CopyRectFillClearAndCropOnEveryKindAndDepth) {
    storagetest::CapGuard guard;
    std::mt19937 rng(2024);
    for (int bpp : allDepths())
        for (Kind k : kindsFor(bpp)) {
            SCOPED_TRACE(trace(k, bpp));
            Source src(k, 53, 17, bpp, uint32_t(bpp * 5 + int(k)));
            ASSERT_EQ(src.kb.rc, KS_SUCCESS);
            const uint32_t kind = kindOf(src.bm());
            RECT a = {3, 1, 17, 9}, b = {12, 6, 40, 13};
            ASSERT_EQ(K_SetBitmapRgnRect(src.bm(), nullptr, &a, RGN_SET_REPLACE), KS_SUCCESS);
            ASSERT_EQ(K_SetBitmapRgnRect(src.bm(), nullptr, &b, RGN_SET_OR), KS_SUCCESS);
            auto in = [&](int x, int y) { return PtInRect(&a, POINT{x, y}) || PtInRect(&b, POINT{x, y}); };
            BITMAPRECORD dst;
            ASSERT_EQ(K_CopyBitmap(&dst, src.bm(), R), KS_SUCCESS);
            EXPECT_EQ(dst.nWidth * 10000 + dst.nHeight * 100 + dst.nBitsPerPixel, 531700 + bpp);
            EXPECT_TRUE(dst.nOrder == src.bm()->nOrder && (!src.bm()->pPalette || dst.pPalette != src.bm()->pPalette));
            EXPECT_EQ(window(&dst, src.ref), "");
            K_ClearBitmap(&dst);
            EXPECT_EQ(src.unchanged(), "");
            K_FreeBitmap(&dst);
            for (int iter = 0; iter < 6; ++iter) {
                const int32_t col = int32_t(rng() % 80) - 20, row = int32_t(rng() % 30) - 8;
                const uint32_t w = 1 + rng() % 60, h = 1 + rng() % 22;
                ASSERT_EQ(K_CopyBitmapRect(&dst, src.bm(), R, col, row, w, h), KS_SUCCESS);
                ASSERT_EQ(dst.nWidth * 1000 + dst.nHeight, int32_t(w * 1000 + h));
                EXPECT_EQ(window(&dst, src.ref, col, row), "") << "rect " << col << "," << row << " " << w << "x" << h;
                for (int32_t i = 0, W = int32_t(w); i < W * int32_t(h); ++i)  // the region moves with the corner
                    ASSERT_EQ(K_IsPtInBitmapRgn(&dst, i / W, i % W) == 1, in(i % W + col, i / W + row)) << i;
                K_FreeBitmap(&dst);
            }
            const uint64_t raw = 0xA5C3F00F5AA55A3Cull & (bpp == 64 ? ~0ull : ((1ull << bpp) - 1));
            uint8_t one[16] = {};  // the pattern in stored byte order, read back as a pixel
            for (int i = 0; bpp % 8 == 0 && i < bpp / 8; ++i) one[i] = uint8_t(raw >> (8 * i));
            const uint64_t want = bpp % 8 == 0 ? getPixel(one, 0, bpp) : raw;
            for (bool clear : {false, true}) {
                ASSERT_EQ(clear ? K_ClearBitmap(src.bm()) : K_FillBitmap2(src.bm(), raw), KS_SUCCESS);
                RefImage got = getImage(src.bm());
                auto px = [&](int x, int y) { return in(x, y) ? (clear ? 0 : want) : pixelAt(src.ref.row(y), x, bpp); };
                EXPECT_EQ(firstMismatch(got, px), "");
            }
            if (k == Kind::CallbackMemory) continue;  // its buffer belongs to the caller's callback
            src.ref = getImage(src.bm());
            ASSERT_EQ(K_CopyBitmapRect(nullptr, src.bm(), R, 7, -3, 40, 12), KS_SUCCESS);
            EXPECT_EQ(window(src.bm(), src.ref, 7, -3), "");
            EXPECT_EQ(kindOf(src.bm()), k == Kind::CallerMemory ? 1u : kind);
        }
}

TEST(CopyFill, ClearNegativePixelsInsideTheRegion) {
    storagetest::CapGuard guard;
    const struct { int bpp; int32_t order, highBit; uint32_t sign; } cases[] = {
        {16, ORDER_GRAY, 15, 15}, {16, ORDER_GRAY, 11, 11}, {12, ORDER_GRAY, 11, 11}, {8, ORDER_RGB, 7, 7},
        {8, ORDER_RGB, 0, 0}, {32, ORDER_GRAY, -1, 31}};
    for (const auto& c : cases)
        for (Kind k : {Kind::SingleBlock, Kind::TilesFile}) {
            SCOPED_TRACE(std::to_string(c.bpp) + " high " + std::to_string(c.highBit));
            Source src(k, 31, 9, c.bpp, uint32_t(c.bpp + c.highBit));
            src.bm()->nOrder = c.order, src.bm()->nHighBit = c.highBit;
            RECT r = {4, 2, 25, 8};
            ASSERT_EQ(K_SetBitmapRgnRect(src.bm(), nullptr, &r, RGN_SET_REPLACE), KS_SUCCESS);
            ASSERT_EQ(K_ClearNegativePixels(src.bm()), KS_SUCCESS);  // not signed: nothing changes
            EXPECT_EQ(src.unchanged(), "");
            src.bm()->uFlags |= BRF_SIGNED_DATA;
            ASSERT_EQ(K_ClearNegativePixels(src.bm()), KS_SUCCESS);
            RefImage got = getImage(src.bm());
            // Samples in stored byte order: 16 and 32 bits little-endian, 12 bits two per three bytes.
            auto sample = [&](RefImage& img, int x, int y) { return combinetest::rawPixel(img.row(y), x, {c.bpp, 0}); };
            int cleared = 0;
            for (int i = 0, x = 0, y = 0; i < 31 * 9; ++i, x = i % 31, y = i / 31) {
                const uint64_t v = sample(src.ref, x, y);
                const bool clear = PtInRect(&r, POINT{x, y}) && ((v >> c.sign) & 1);
                cleared += clear;
                ASSERT_EQ(sample(got, x, y), clear ? 0 : v) << x << "," << y;
            }
            EXPECT_GT(cleared, 10);
        }
}
