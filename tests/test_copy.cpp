// Whole copies: K_DupBitmapNewDim and its carry masks, K_CopyBitmapData,
// K_CopyBitmap, K_CopyBitmap2, K_CopyBitmapHandle, on every storage kind and
// depth, with the allocation-failure hook and the copy status callback.
#include <gtest/gtest.h>

#include <cstring>

#include "copy_helpers.h"
#include "krn/common/copy.h"
#include "krn/common/memory.h"

using namespace copytest;

namespace {

// A source bitmap of one kind holding random pixels, and its reference.
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

}  // namespace

TEST(Copy, CopyEqualsSourceOnEveryKindAndDepth) {
    storagetest::CapGuard guard;
    for (int bpp : allDepths()) {
        for (Kind k : storagetest::kindsFor(bpp)) {
            SCOPED_TRACE(std::string(storagetest::kindName(k)) + " bpp " + std::to_string(bpp));
            Source src(k, 37, 11, bpp, uint32_t(bpp * 131 + int(k)));
            ASSERT_EQ(src.kb.rc, KS_SUCCESS);
            BITMAPRECORD dst;
            ASSERT_EQ(K_CopyBitmap(&dst, &src.kb.bm, BITMAPRECORD_SIZE), KS_SUCCESS);
            EXPECT_EQ(dst.nWidth, 37);
            EXPECT_EQ(dst.nHeight, 11);
            EXPECT_EQ(dst.nBitsPerPixel, bpp);
            EXPECT_EQ(dst.nOrder, src.kb.bm.nOrder);
            EXPECT_NE(dst.pPalette, src.kb.bm.pPalette == nullptr ? reinterpret_cast<RGBQUAD*>(1) : src.kb.bm.pPalette)
                << "the palette is a copy, not shared";
            RefImage got = getImage(&dst);
            EXPECT_EQ(firstMismatch(got, [&](int x, int y) { return pixelAt(src.ref.row(y), x, bpp); }), "");
            // Independent: changing the copy leaves the source alone.
            K_ClearBitmap(&dst);
            RefImage again = getImage(&src.kb.bm);
            EXPECT_EQ(firstMismatch(again, [&](int x, int y) { return pixelAt(src.ref.row(y), x, bpp); }), "");
            K_FreeBitmap(&dst);
        }
    }
}

TEST(Copy, CopyBitmapDataBetweenEveryPairOfKinds) {
    storagetest::CapGuard guard;
    for (int bpp : {1, 8, 24}) {
        for (Kind from : storagetest::kindsFor(bpp))
            for (Kind to : storagetest::kindsFor(bpp)) {
                SCOPED_TRACE(std::string(storagetest::kindName(from)) + " -> " + storagetest::kindName(to) +
                             " bpp " + std::to_string(bpp));
                Source src(from, 45, 7, bpp, uint32_t(bpp + int(from) * 7 + int(to)));
                KindBitmap dst(to, 45, 7, bpp);
                ASSERT_EQ(src.kb.rc, KS_SUCCESS);
                ASSERT_EQ(dst.rc, KS_SUCCESS);
                const uint32_t kindBefore = kindOf(&dst.bm);
                ASSERT_EQ(K_CopyBitmapData(&dst.bm, &src.kb.bm), KS_SUCCESS);
                EXPECT_EQ(kindOf(&dst.bm), kindBefore);
                RefImage got = getImage(&dst.bm);
                EXPECT_EQ(firstMismatch(got, [&](int x, int y) { return pixelAt(src.ref.row(y), x, bpp); }), "");
            }
    }
}

TEST(Copy, CopyBitmap2MovesBetweenKinds) {
    storagetest::CapGuard guard;
    struct Case {
        uint32_t memory;
        uint32_t kind;  // as K_GetBitmapMemoryInfo reports it
        int bpp;
    };
    const Case cases[] = {{1, 1, 8},     {128, 128, 8},  {128, 128, 1},  {512, 512, 1},
                          {1024, 1024, 1}, {1024, 1024, 8}, {1024, 1024, 24}, {1, 1, 1},
                          {257, 1, 24},  {0, 1, 16}};
    for (const Case& c : cases)
        for (Kind from : storagetest::kindsFor(c.bpp)) {
            SCOPED_TRACE(std::string(storagetest::kindName(from)) + " -> type " + std::to_string(c.memory) +
                         " bpp " + std::to_string(c.bpp));
            Source src(from, 29, 6, c.bpp, c.memory + uint32_t(from));
            ASSERT_EQ(src.kb.rc, KS_SUCCESS);
            BITMAPRECORD dst;
            ASSERT_EQ(K_CopyBitmap2(&dst, &src.kb.bm, BITMAPRECORD_SIZE, c.memory), KS_SUCCESS);
            EXPECT_EQ(kindOf(&dst), c.kind);
            RefImage got = getImage(&dst);
            EXPECT_EQ(firstMismatch(got, [&](int x, int y) { return pixelAt(src.ref.row(y), x, c.bpp); }), "");
            K_FreeBitmap(&dst);
        }
}

TEST(Copy, FastPathMatchesRowPath) {
    // A single block copied by memcpy against the same pixels read through a
    // get-row callback (which forces the row path) into tiles.
    storagetest::CapGuard guard;
    for (int bpp : {8, 24, 32}) {
        Source src(Kind::SingleBlock, 301, 23, bpp, 77u + uint32_t(bpp));
        BITMAPRECORD fast;
        ASSERT_EQ(K_CopyBitmap(&fast, &src.kb.bm, BITMAPRECORD_SIZE), KS_SUCCESS);
        KindBitmap tiles(Kind::TilesMemory, 301, 23, bpp);
        ASSERT_EQ(K_CopyBitmapData(&tiles.bm, &src.kb.bm), KS_SUCCESS);
        RefImage a = getImage(&fast), b = getImage(&tiles.bm);
        EXPECT_EQ(a.px, b.px);
        EXPECT_EQ(firstMismatch(a, [&](int x, int y) { return pixelAt(src.ref.row(y), x, bpp); }), "");
        K_FreeBitmap(&fast);
    }
}

TEST(Copy, DescribingFieldsAndRegionTravel) {
    storagetest::CapGuard guard;
    Source src(Kind::SingleBlock, 40, 30, 16, 5);
    BITMAPRECORD& s = src.kb.bm;
    s.nOrder = ORDER_GRAY;
    s.nXResolution = 300;
    s.nYResolution = 72;
    s.nViewPerspective = 6;
    s.nLowBit = 2;
    s.nHighBit = 11;
    s.uFlags |= BRF_SIGNED_DATA;
    s.pLUT = K_GlobalAlloc(GMEM_FIXED, 64);
    std::memset(s.pLUT, 0x5A, 64);
    s.nLUTLength = 16;
    s.pExtraData = K_GlobalAlloc(GMEM_FIXED, 10);
    std::memcpy(s.pExtraData, "extra-data", 10);
    s.uExtraDataSize = 10;
    RECT rc = {5, 6, 20, 25};
    ASSERT_EQ(K_SetBitmapRgnRect(&s, nullptr, &rc, RGN_SET_REPLACE), KS_SUCCESS);

    BITMAPRECORD d;
    ASSERT_EQ(K_CopyBitmap(&d, &s, BITMAPRECORD_SIZE), KS_SUCCESS);
    EXPECT_EQ(d.nOrder, ORDER_GRAY);
    EXPECT_EQ(d.nXResolution, 300);
    EXPECT_EQ(d.nYResolution, 72);
    EXPECT_EQ(d.nViewPerspective, 6);
    EXPECT_EQ(d.nLowBit, 2);
    EXPECT_EQ(d.nHighBit, 11);
    EXPECT_TRUE(d.uFlags & BRF_SIGNED_DATA);
    ASSERT_NE(d.pLUT, nullptr);
    EXPECT_NE(d.pLUT, s.pLUT);
    EXPECT_EQ(std::memcmp(d.pLUT, s.pLUT, 64), 0);
    EXPECT_EQ(d.nLUTLength, 16);
    ASSERT_EQ(d.uExtraDataSize, 10u);
    EXPECT_NE(d.pExtraData, s.pExtraData);
    EXPECT_EQ(std::memcmp(d.pExtraData, "extra-data", 10), 0);
    RECT got{};
    ASSERT_EQ(K_BitmapHasRgn(&d), 1);
    K_GetBitmapRgnBounds(&d, nullptr, &got);
    EXPECT_TRUE(EqualRect(&got, &rc));
    K_FreeBitmap(&d);

    // K_CopyBitmap2 of a grey image: the grey parameters through K_CopyGrayParams,
    // the region and extra data through K_IntBeginCopyBitmap.
    ASSERT_EQ(K_CopyBitmap2(&d, &s, BITMAPRECORD_SIZE, 128), KS_SUCCESS);
    EXPECT_EQ(d.nHighBit, 11);
    EXPECT_TRUE(d.uFlags & BRF_SIGNED_DATA);
    ASSERT_NE(d.pLUT, nullptr);
    EXPECT_EQ(std::memcmp(d.pLUT, s.pLUT, 64), 0);
    EXPECT_EQ(K_BitmapHasRgn(&d), 1);
    EXPECT_EQ(d.uExtraDataSize, 10u);
    K_FreeBitmap(&d);
}

TEST(Copy, CarryMasksTable) {
    storagetest::CapGuard guard;
    Source src(Kind::Disk, 20, 10, 8, 9);
    BITMAPRECORD& s = src.kb.bm;
    RGBQUAD pal[256];
    for (int i = 0; i < 256; ++i) pal[i] = RGBQUAD{uint8_t(i), uint8_t(255 - i), uint8_t(i / 2), 0};
    ASSERT_EQ(K_SetBitmapPalette(&s, pal, 256), KS_SUCCESS);
    s.nXResolution = 96;
    s.nViewPerspective = 3;
    RECT r = {2, 2, 8, 8};
    ASSERT_EQ(K_SetBitmapRgnRect(&s, nullptr, &r, RGN_SET_REPLACE), KS_SUCCESS);
    struct Case {
        uint32_t mask;
        bool palette, resolution, perspective, region, allocated, sameKind, pixels;
    };
    const Case cases[] = {
        {DUPBITMAP_COPY, true, true, true, true, true, false, false},
        {DUPBITMAP_TEMPORARY, true, true, true, true, true, true, false},
        {DUPBITMAP_WORK, true, true, false, false, true, true, false},
        {DUPBITMAP_RESIZE, true, false, false, false, true, true, true},
        {DUPBITMAP_DESCRIBE, false, true, true, false, false, false, false},
        {DUPBITMAP_COLORS, true, false, true, false, false, false, false},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.mask);
        BITMAPRECORD d;
        ASSERT_EQ(K_DupBitmapNewDim(&d, &s, BITMAPRECORD_SIZE, 15, 12, c.mask), KS_SUCCESS);
        EXPECT_EQ(d.nWidth, 15);
        EXPECT_EQ(d.nHeight, 12);
        EXPECT_EQ(d.nBitsPerPixel, 8);
        EXPECT_EQ(d.pPalette != nullptr && std::memcmp(d.pPalette, pal, sizeof pal) == 0, c.palette);
        EXPECT_EQ(d.nXResolution == 96, c.resolution);
        EXPECT_EQ(d.nViewPerspective == 3, c.perspective);
        EXPECT_EQ(K_BitmapHasRgn(&d) == 1, c.region);
        EXPECT_EQ((d.uFlags & BRF_ALLOCATED) != 0, c.allocated);
        if (c.allocated) {
            EXPECT_EQ(kindOf(&d) == 128, c.sameKind);
        }
        if (c.pixels) {
            RefImage got = getImage(&d);
            EXPECT_EQ(firstMismatch(got, [&](int x, int y) {
                          return (x < 20 && y < 10) ? pixelAt(src.ref.row(y), x, 8) : 0;
                      }),
                      "");
        }
        K_FreeBitmap(&d);
    }
}

TEST(Copy, BadInputChangesNothing) {
    storagetest::CapGuard guard;
    Source src(Kind::SingleBlock, 10, 10, 8, 1);
    BITMAPRECORD& s = src.kb.bm;
    BITMAPRECORD unalloc;
    K_InitBitmap(&unalloc, BITMAPRECORD_SIZE, 10, 10, 8);
    BITMAPRECORD badSize = s;
    badSize.uStructSize = 100;
    BITMAPRECORD other;
    ASSERT_EQ(K_CreateBitmap(&other, BITMAPRECORD_SIZE, 1, 11, 10, 8, 0, nullptr, 1, nullptr, 0), KS_SUCCESS);

    BITMAPRECORD d;
    const long live = krn::faultinject::liveBlocks();
    auto untouched = [&](const char* what, int32_t got, int32_t want) {
        SCOPED_TRACE(what);
        EXPECT_EQ(got, want);
        for (size_t i = 0; i < sizeof d; ++i) ASSERT_EQ(reinterpret_cast<uint8_t*>(&d)[i], 0xA5) << "byte " << i;
        EXPECT_EQ(krn::faultinject::liveBlocks(), live);
    };
    std::memset(&d, 0xA5, sizeof d);
    untouched("null dst", K_CopyBitmap(nullptr, &s, BITMAPRECORD_SIZE), KS_INVALID_PARAMETER);
    untouched("null src", K_CopyBitmap(&d, nullptr, BITMAPRECORD_SIZE), KS_INVALID_PARAMETER);
    untouched("unallocated src", K_CopyBitmap(&d, &unalloc, BITMAPRECORD_SIZE), KS_INVALID_PARAMETER);
    untouched("bad src size", K_CopyBitmap(&d, &badSize, BITMAPRECORD_SIZE), KS_INVALID_STRUCT_SIZE);
    untouched("bad size arg", K_CopyBitmap(&d, &s, 200), KS_INVALID_STRUCT_SIZE);
    untouched("copy2 caller memory", K_CopyBitmap2(&d, &s, BITMAPRECORD_SIZE, MEMTYPE_USER), KS_INVALID_PARAMETER);
    untouched("copy2 bad type", K_CopyBitmap2(&d, &s, BITMAPRECORD_SIZE, 3), KS_INVALID_PARAMETER);
    untouched("dup unknown bits", K_DupBitmapNewDim(&d, &s, BITMAPRECORD_SIZE, 5, 5, 0x200), KS_INVALID_PARAMETER);
    untouched("dup negative", K_DupBitmapNewDim(&d, &s, BITMAPRECORD_SIZE, -1, 5, 191), KS_INVALID_DIMENSIONS);
    untouched("dup zero allocated", K_DupBitmapNewDim(&d, &s, BITMAPRECORD_SIZE, 0, 5, 191), KS_INVALID_DIMENSIONS);
    untouched("dup pixels unallocated",
              K_DupBitmapNewDim(&d, &unalloc, BITMAPRECORD_SIZE, 5, 5, DUPBITMAP_RESIZE), KS_INVALID_PARAMETER);
    untouched("dup pixels without storage",
              K_DupBitmapNewDim(&d, &s, BITMAPRECORD_SIZE, 5, 5, DUPBITMAP_PIXELS | DUPBITMAP_PALETTE),
              KS_INVALID_PARAMETER);
    EXPECT_EQ(K_DupBitmapNewDim(&s, &s, BITMAPRECORD_SIZE, 5, 5, 191), KS_INVALID_PARAMETER);
    EXPECT_EQ(K_CopyBitmapData(&other, &s), KS_INVALID_PARAMETER);
    EXPECT_EQ(K_CopyBitmapData(&unalloc, &s), KS_INVALID_PARAMETER);
    EXPECT_EQ(K_CopyBitmapData(nullptr, &s), KS_INVALID_PARAMETER);
    EXPECT_EQ(K_CopyBitmapData(&badSize, &s), KS_INVALID_STRUCT_SIZE);
    // Onto itself: 1 and nothing happens.
    BITMAPRECORD before = s;
    EXPECT_EQ(K_CopyBitmap(&s, &s, BITMAPRECORD_SIZE), KS_SUCCESS);
    EXPECT_EQ(std::memcmp(&before, &s, sizeof s), 0);
    EXPECT_EQ(K_CopyBitmapData(&s, &s), KS_SUCCESS);
    K_FreeBitmap(&other);
}

TEST(Copy, AllocationFailureAtEveryStep) {
    storagetest::CapGuard guard;
    for (Kind k : {Kind::SingleBlock, Kind::TilesMemory, Kind::Compressed, Kind::SuperCompressed}) {
        const int bpp = 1;
        SCOPED_TRACE(storagetest::kindName(k));
        Source src(k, 70, 19, bpp, 3);
        ASSERT_EQ(src.kb.rc, KS_SUCCESS);
        RECT r = {3, 3, 40, 12};
        ASSERT_EQ(K_SetBitmapRgnRect(&src.kb.bm, nullptr, &r, RGN_SET_REPLACE), KS_SUCCESS);
        const long live = krn::faultinject::liveBlocks();
        for (int which = 0; which < 2; ++which) {
            int failures = 0, successes = 0;
            for (long n = 0; n < 500; ++n) {
                BITMAPRECORD d;
                std::memset(&d, 0xA5, sizeof d);
                krn::faultinject::arm(n, 1);
                int32_t rc = which == 0 ? K_CopyBitmap(&d, &src.kb.bm, BITMAPRECORD_SIZE)
                                        : K_CopyBitmap2(&d, &src.kb.bm, BITMAPRECORD_SIZE, 1024);
                const long injected = krn::faultinject::injected();
                krn::faultinject::disarm();
                if (rc == KS_SUCCESS) {
                    ++successes;
                    RefImage got = getImage(&d);
                    EXPECT_EQ(firstMismatch(got, [&](int x, int y) { return pixelAt(src.ref.row(y), x, bpp); }),
                              "");
                    K_FreeBitmap(&d);
                } else {
                    ++failures;
                    EXPECT_EQ(rc, KS_NO_MEMORY) << "n=" << n;
                    for (size_t i = 0; i < sizeof d; ++i)
                        ASSERT_EQ(reinterpret_cast<uint8_t*>(&d)[i], 0xA5) << "n=" << n << " byte " << i;
                }
                EXPECT_EQ(krn::faultinject::liveBlocks(), live) << "n=" << n;
                if (injected == 0) break;
            }
            EXPECT_GT(failures, 2);
            EXPECT_GE(successes, 1);  // an allocation with a fallback may fail without failing the copy
        }
    }
}

TEST(Copy, StatusCallbackStopsTheCopy) {
    storagetest::CapGuard guard;
    Source src(Kind::TilesMemory, 50, 40, 24, 8);
    for (int32_t answer : {0, -100, 7}) {
        StopAfter stop{0, 5, answer};
        CopyStatusScope scope(&StopAfter::cb, &stop);
        BITMAPRECORD d;
        std::memset(&d, 0xA5, sizeof d);
        const long live = krn::faultinject::liveBlocks();
        EXPECT_EQ(K_CopyBitmap(&d, &src.kb.bm, BITMAPRECORD_SIZE), answer);
        EXPECT_EQ(stop.calls, 6);
        EXPECT_EQ(reinterpret_cast<uint8_t*>(&d)[0], 0xA5);
        EXPECT_EQ(krn::faultinject::liveBlocks(), live);
    }
    // Answering 1 throughout: whole percentages from 0 to 100, rising.
    struct Log {
        std::vector<int32_t> seen;
        static int32_t cb(int32_t pct, void* u) {
            static_cast<Log*>(u)->seen.push_back(pct);
            return 1;
        }
    } log;
    CopyStatusScope scope(&Log::cb, &log);
    BITMAPRECORD d;
    ASSERT_EQ(K_CopyBitmap(&d, &src.kb.bm, BITMAPRECORD_SIZE), KS_SUCCESS);
    ASSERT_FALSE(log.seen.empty());
    EXPECT_EQ(log.seen.front(), 0);
    EXPECT_EQ(log.seen.back(), 100);
    for (size_t i = 1; i < log.seen.size(); ++i) EXPECT_GT(log.seen[i], log.seen[i - 1]);
    K_FreeBitmap(&d);
}

TEST(Copy, NotificationCallbackSeesTheCopy) {
    storagetest::CapGuard guard;
    Source src(Kind::SingleBlock, 8, 8, 8, 2);
    struct Seen {
        int code = 0;
        int32_t answer = 1;
        static int32_t cb(BITMAPRECORD*, int32_t c, void* u) {
            static_cast<Seen*>(u)->code = c;
            return static_cast<Seen*>(u)->answer;
        }
    } seen;
    BITMAPDATACALLBACKS cbs{};
    cbs.uStructSize = BITMAPDATACALLBACKS_SIZE;
    cbs.pUserData = &seen;
    cbs.pfnNotify = &Seen::cb;
    ASSERT_EQ(K_SetBitmapDataCallbacks(&src.kb.bm, &cbs), KS_SUCCESS);
    BITMAPRECORD d;
    ASSERT_EQ(K_CopyBitmap2(&d, &src.kb.bm, BITMAPRECORD_SIZE, 1), KS_SUCCESS);
    EXPECT_EQ(seen.code, 1);
    K_FreeBitmap(&d);
    seen.answer = -42;
    const long live = krn::faultinject::liveBlocks();
    EXPECT_EQ(K_CopyBitmap2(&d, &src.kb.bm, BITMAPRECORD_SIZE, 1), -42);
    EXPECT_EQ(krn::faultinject::liveBlocks(), live);
}

TEST(Copy, CopyBitmapHandleBetweenLayouts) {
    storagetest::CapGuard guard;
    Source src(Kind::SingleBlock, 12, 5, 24, 4);
    BITMAPRECORD old;
    ASSERT_EQ(K_CopyBitmapHandle(&old, &src.kb.bm, BITMAPRECORD_SIZE_OLD), KS_SUCCESS);
    EXPECT_EQ(old.uStructSize, BITMAPRECORD_SIZE_OLD);
    EXPECT_EQ(old.hMemory, src.kb.bm.hMemory);
    RefImage viaOld = getImage(&old);
    EXPECT_EQ(firstMismatch(viaOld, [&](int x, int y) { return pixelAt(src.ref.row(y), x, 24); }), "");
    BITMAPRECORD back;
    ASSERT_EQ(K_CopyBitmapHandle(&back, &old, BITMAPRECORD_SIZE), KS_SUCCESS);
    EXPECT_EQ(back.uSize64, src.kb.bm.uSize64);
    EXPECT_EQ(back.nLockCount, 0);
    EXPECT_EQ(back.pCallbacks, nullptr);
    EXPECT_EQ(K_CopyBitmapHandle(&back, &old, 3), KS_INVALID_STRUCT_SIZE);
    EXPECT_EQ(K_CopyBitmapHandle(nullptr, &old, BITMAPRECORD_SIZE), KS_INVALID_PARAMETER);
    BITMAPRECORD big;
    K_InitBitmap(&big, BITMAPRECORD_SIZE, 70000, 70000, 8);
    EXPECT_EQ(K_CopyBitmapHandle(&old, &big, BITMAPRECORD_SIZE_OLD), KS_MEMORY_TOO_LOW);
}

TEST(Copy, CopyBitsMatchesBitByBit) {
    std::mt19937 rng(11);
    for (int iter = 0; iter < 3000; ++iter) {
        uint8_t src[24], dst[24], want[24];
        for (auto& b : src) b = uint8_t(rng());
        for (auto& b : dst) b = uint8_t(rng());
        std::memcpy(want, dst, sizeof dst);
        const uint32_t sb = rng() % 8, db = rng() % 8;
        const uint64_t n = rng() % 150;
        for (uint64_t i = 0; i < n; ++i) {
            const uint64_t s = sb + i, d = db + i;
            const bool bit = (src[s >> 3] >> (7 - (s & 7))) & 1;
            const uint8_t m = uint8_t(0x80u >> (d & 7));
            want[d >> 3] = bit ? uint8_t(want[d >> 3] | m) : uint8_t(want[d >> 3] & ~m);
        }
        krn::copyBits(dst, db, src, sb, n);
        ASSERT_EQ(std::memcmp(dst, want, sizeof dst), 0) << "sb " << sb << " db " << db << " n " << n;
    }
}
