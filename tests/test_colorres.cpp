// test_colorres.cpp - colour resolution of whole bitmaps: the direct and
// cell-pruned index searches against the nearest-entry scan, lossless round
// trips, caller palettes on every matching path against K_FindPaletteIndex,
// grey conversion against the grey rule, the frame-drawing flag words, the
// dithering engine, bitmaps over the memory cap and bad input (storage kinds
// and allocation failures: test_transform_shared.cpp).
#include <gtest/gtest.h>

#include <cstring>
#include <random>
#include <vector>

#include "krn/common/colorres.h"
#include "krn/common/palette.h"
#include "photo_like.h"
#include "transform_kit.h"

namespace {

using namespace tkit;

RGBQUAD quad(int r, int g, int b) { return RGBQUAD{uint8_t(b), uint8_t(g), uint8_t(r), 0}; }

// A single-block bitmap with the given rows (nBytesPerLine each).
struct Bmp {
    BITMAPRECORD bm{};
    Bmp() = default;
    Bmp(int w, int h, int bpp, int order, const RGBQUAD* pal = nullptr, uint32_t memType = 1) {
        EXPECT_EQ(K_CreateBitmap(&bm, BITMAPRECORD_SIZE, memType, w, h, bpp, order, pal, 1, nullptr, 0), KS_SUCCESS);
    }
    ~Bmp() { K_FreeBitmap(&bm); }
    void put(const std::vector<uint8_t>& rows) {
        for (int y = 0; y < bm.nHeight; ++y)
            ASSERT_GE(K_PutBitmapRow(&bm, rows.data() + size_t(y) * bm.nBytesPerLine, y, bm.nBytesPerLine), 0);
    }
    std::vector<uint8_t> rows() { return getImage(&bm).px; }
};

uint32_t bplOf(int w, int bpp) { return uint32_t(((uint64_t(w) * uint64_t(bpp) + 31) >> 3) & ~uint64_t(3)); }

// Random 24-bit BGR rows whose colours are drawn by `pick`.
template <class F>
std::vector<uint8_t> rows24(int w, int h, F pick) {
    const uint32_t bpl = bplOf(w, 24);
    std::vector<uint8_t> px(size_t(bpl) * size_t(h), 0);
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x) {
            RGBQUAD c = pick();
            uint8_t* p = px.data() + size_t(y) * bpl + size_t(x) * 3;
            p[0] = c.rgbBlue;
            p[1] = c.rgbGreen;
            p[2] = c.rgbRed;
        }
    return px;
}

// Every pixel of an indexed result is the entry K_FindPaletteIndex picks for
// the colour of the 24-bit BGR rows it came from.
void expectNearest(Bmp& dst, const std::vector<uint8_t>& px, const RGBQUAD* pal, int n) {
    auto out = dst.rows();
    const int w = dst.bm.nWidth, bits = dst.bm.nBitsPerPixel;
    for (int y = 0; y < dst.bm.nHeight; ++y)
        for (int x = 0; x < w; ++x) {
            const uint8_t* p = px.data() + size_t(y) * bplOf(w, 24) + size_t(x) * 3;
            ASSERT_EQ(getPixel(out.data() + size_t(y) * dst.bm.nBytesPerLine, x, bits),
                      uint64_t(K_FindPaletteIndex(pal, n, p[2], p[1], p[0])))
                << x << ',' << y;
        }
}

std::vector<RGBQUAD> randomPalette(int n, std::mt19937& rng) {
    std::vector<RGBQUAD> p(static_cast<size_t>(n));
    for (auto& e : p) e = quad(int(rng() & 255), int(rng() & 255), int(rng() & 255));
    return p;
}

// ---------------------------------------------------------------- index searches

TEST(ColorResSearch, Fixed256DirectIndexEqualsTheScan) {
    const RGBQUAD* pal = K_IntGetFixedPalette(8);
    // Every red and green (their ties sit at 18, 91, 164, 237) with blues on
    // both sides of each blue boundary, then random colours.
    for (int b : {0, 42, 43, 127, 128, 212, 213, 255})
        for (int r = 0; r < 256; ++r)
            for (int g = 0; g < 256; ++g)
                ASSERT_EQ(krn::fixed256Index(r, g, b), K_FindPaletteIndex(pal, 256, r, g, b)) << r << ' ' << g << ' ' << b;
    std::mt19937 rng(7);
    for (int i = 0; i < 200000; ++i) {
        int r = int(rng() & 255), g = int(rng() & 255), b = int(rng() & 255);
        ASSERT_EQ(krn::fixed256Index(r, g, b), K_FindPaletteIndex(pal, 256, r, g, b));
    }
}

TEST(ColorResSearch, Fixed256RowKernelsAgreeOverEveryColour) {
    if (!krn::cpuHasSsse3()) GTEST_SKIP() << "no SSSE3";
    // Every colour once, in rows of odd lengths so each kernel also ends on a
    // partial block.
    const int32_t w = 4093;
    const size_t n0 = static_cast<size_t>(w);
    std::vector<uint8_t> bgr(n0 * 3), a(n0), b(n0);
    uint32_t c = 0;
    while (c < (1u << 24)) {
        int32_t n = 0;
        for (; n < w && c < (1u << 24); ++n, ++c) {
            bgr[size_t(n) * 3] = uint8_t(c);
            bgr[size_t(n) * 3 + 1] = uint8_t(c >> 8);
            bgr[size_t(n) * 3 + 2] = uint8_t(c >> 16);
        }
        krn::fixed256RowPlain(bgr.data(), a.data(), n);
        krn::fixed256RowSsse3(bgr.data(), b.data(), n);
        ASSERT_EQ(0, std::memcmp(a.data(), b.data(), size_t(n))) << "SSSE3, block ending at " << c;
        if (krn::cpuHasAvx2ForColorRes()) {
            krn::fixed256RowAvx2(bgr.data(), b.data(), n);
            ASSERT_EQ(0, std::memcmp(a.data(), b.data(), size_t(n))) << "AVX2, block ending at " << c;
        }
    }
}

TEST(ColorResSearch, CellPrunedSearchEqualsTheScan) {
    std::mt19937 rng(11);
    struct Case {
        const char* name;
        std::vector<RGBQUAD> pal;
    };
    std::vector<Case> cases = {{"fixed 16", {K_IntGetFixedPalette(4), K_IntGetFixedPalette(4) + 16}},
                               {"web", {K_IntGetNetscapePalette(), K_IntGetNetscapePalette() + 256}},
                               {"random 256", randomPalette(256, rng)},
                               {"random 7", randomPalette(7, rng)},
                               {"one entry", {quad(9, 9, 9)}}};
    // Duplicates, black at both ends and white at both ends.
    std::vector<RGBQUAD> dup = randomPalette(40, rng);
    dup[0] = dup[39] = quad(0, 0, 0);
    dup[5] = dup[17] = dup[30];
    dup[1] = dup[38] = quad(255, 255, 255);
    cases.push_back({"duplicates", dup});
    // Many ties: entries on a coarse lattice.
    std::vector<RGBQUAD> lattice;
    for (int i = 0; i < 64; ++i) lattice.push_back(quad((i & 3) * 80, ((i >> 2) & 3) * 80, (i >> 4) * 80));
    cases.push_back({"lattice", lattice});
    for (const Case& c : cases) {
        for (bool fine : {false, true}) {
            krn::NearestIndex ni;
            ASSERT_TRUE(ni.build(c.pal.data(), int32_t(c.pal.size()), fine));
            const int n = int(c.pal.size());
            for (int i = 0; i < 40000; ++i) {
                int r, g, b;
                if (i % 3 == 0) {  // lattice midpoints and cell borders produce ties
                    r = int(rng() % 7) * 40;
                    g = int(rng() % 7) * 40;
                    b = int(rng() % 7) * 40;
                } else {
                    r = int(rng() & 255), g = int(rng() & 255), b = int(rng() & 255);
                }
                ASSERT_EQ(ni(r, g, b), K_FindPaletteIndex(c.pal.data(), n, r, g, b))
                    << c.name << (fine ? " fine " : " ") << r << ' ' << g << ' ' << b;
            }
            for (int k : {0, 255}) ASSERT_EQ(ni(k, k, k), K_FindPaletteIndex(c.pal.data(), n, k, k, k)) << c.name;
        }
    }
}

// ---------------------------------------------------------------- round trips

TEST(ColorRes, PaletteImageThroughTwentyFourBitsComesBackIdentical) {
    std::mt19937 rng(3);
    for (int bits : {1, 4, 7, 8}) {
        const int n = 1 << bits;
        std::vector<RGBQUAD> pal;
        // Distinct colours, black and white included at odd places.
        while (int(pal.size()) < n) {
            RGBQUAD c = quad(int(rng() & 255), int(rng() & 255), int(rng() & 255));
            if (pal.size() == size_t(n / 2)) c = quad(0, 0, 0);
            if (pal.size() == 1 && n > 2) c = quad(255, 255, 255);
            bool seen = false;
            for (auto& e : pal) seen |= std::memcmp(&e, &c, 3) == 0;
            if (!seen) pal.push_back(c);
        }
        const int w = 37, h = 9;
        Bmp src(w, h, bits, ORDER_RGB, pal.data());
        std::vector<uint8_t> px(size_t(src.bm.nBytesPerLine) * h);
        for (int y = 0; y < h; ++y)
            for (int x = 0; x < w; ++x)
                storagetest::setPixel(px.data() + size_t(y) * src.bm.nBytesPerLine, x, bits, rng() % uint32_t(n));
        src.put(px);
        Bmp deep;
        ASSERT_EQ(K_ColorResBitmap(&src.bm, &deep.bm, 24, CRF_BYTEORDERBGR, nullptr, 0, BITMAPRECORD_SIZE), KS_SUCCESS);
        ASSERT_EQ(K_ColorResBitmap(&deep.bm, &deep.bm, bits, CRF_USERPALETTE | CRF_NODITHERING, pal.data(), n,
                                   BITMAPRECORD_SIZE),
                  KS_SUCCESS);
        EXPECT_EQ(deep.bm.nBitsPerPixel, bits);
        EXPECT_EQ(deep.rows(), px) << bits;
        EXPECT_EQ(0, std::memcmp(deep.bm.pPalette, pal.data(), sizeof(RGBQUAD) * size_t(n)));
    }
}

TEST(ColorRes, GreyThroughColourComesBackIdentical) {
    const int w = 256, h = 3;
    Bmp grey(w, h, 8, ORDER_GRAY);
    std::vector<uint8_t> px(size_t(grey.bm.nBytesPerLine) * h, 0);
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x) px[size_t(y) * grey.bm.nBytesPerLine + size_t(x)] = uint8_t((x * 7 + y) & 255);
    grey.put(px);
    ASSERT_EQ(K_ColorResBitmap(&grey.bm, &grey.bm, 24, 0, nullptr, 0, BITMAPRECORD_SIZE), KS_SUCCESS);
    ASSERT_EQ(K_ColorResBitmap(&grey.bm, &grey.bm, 48, CRF_BYTEORDERBGR, nullptr, 0, BITMAPRECORD_SIZE), KS_SUCCESS);
    ASSERT_EQ(K_GrayScaleBitmap(&grey.bm, 16), KS_SUCCESS);
    EXPECT_EQ(grey.bm.nOrder, ORDER_GRAY);
    ASSERT_EQ(K_GrayScaleBitmap(&grey.bm, 8), KS_SUCCESS);
    EXPECT_EQ(grey.rows(), px);
    EXPECT_EQ(K_IsGrayScalePalette(grey.bm.pPalette, 256), 1);
}

// ---------------------------------------------------------------- grey rule

TEST(ColorRes, GreyDestinationsFollowTheGreyRule) {
    std::mt19937 rng(5);
    const int w = 41, h = 5;
    auto px = rows24(w, h, [&] { return quad(int(rng() & 255), int(rng() & 255), int(rng() & 255)); });
    for (int bits : {1, 4, 8, 12, 16}) {
        Bmp src(w, h, 24, ORDER_BGR);
        src.put(px);
        Bmp dst;
        ASSERT_EQ(K_ColorResBitmap(&src.bm, &dst.bm, bits, CRF_BYTEORDERGRAY | CRF_NODITHERING, nullptr, 0,
                                   BITMAPRECORD_SIZE),
                  KS_SUCCESS);
        auto out = dst.rows();
        for (int y = 0; y < h; ++y)
            for (int x = 0; x < w; ++x) {
                const uint8_t* p = px.data() + size_t(y) * bplOf(w, 24) + size_t(x) * 3;
                const uint32_t g8 = (2u * p[2] + 5u * p[1] + p[0] + 4u) >> 3;
                const uint32_t want = bits <= 8 ? g8 >> (8 - bits) : (g8 * ((1u << bits) - 1u)) / 255u;
                const uint8_t* row = out.data() + size_t(y) * dst.bm.nBytesPerLine;
                ASSERT_EQ(bits == 16 ? le16(row, x) : pixelAt(row, x, bits), want) << bits << " at " << x << ',' << y;
            }
    }
}

// ---------------------------------------------------------------- caller palettes

enum class Path { Tree, Installed, Built, Exact };

TEST(ColorRes, CallerPaletteWithoutDitheringTakesTheNearestEntryOnEveryPath) {
    std::mt19937 rng(21);
    auto pal = randomPalette(200, rng);
    for (int i = 0; i < 200; ++i) pal[size_t(i)].rgbRed &= 0xF8;  // some entries on the 5-5-5 grid
    pal[3] = quad(0, 0, 0);
    pal[199] = quad(0, 0, 0);  // black twice: the last entry answers
    pal[120] = quad(255, 255, 255);
    const int w = 53, h = 11;
    struct Src {
        int bits, order;
    };
    for (Path path : {Path::Tree, Path::Installed, Path::Built, Path::Exact}) {
        // Colours: from the palette (tree), the 5-5-5 grid (tables), anything (exact).
        auto pick = [&] {
            if (path == Path::Tree) return pal[rng() % 200];
            if (path == Path::Exact) return quad(int(rng() & 255), int(rng() & 255), int(rng() & 255));
            return quad(int(rng() & 31) * 8, int(rng() & 31) * 8, int(rng() & 31) * 8);
        };
        auto px = rows24(w, h, pick);
        uint32_t* table = nullptr;
        if (path == Path::Installed) {
            table = K_CreateUserMatchTable(pal.data(), 200);
            ASSERT_NE(table, nullptr);
            K_SetUserMatchTable(table);
        }
        for (Src s : {Src{24, ORDER_BGR}, Src{24, ORDER_RGB}, Src{32, ORDER_BGR}, Src{48, ORDER_RGB}}) {
            Bmp src24(w, h, 24, ORDER_BGR);
            src24.put(px);
            Bmp src;
            ASSERT_EQ(K_ColorResBitmap(&src24.bm, &src.bm, s.bits, s.order == ORDER_BGR ? CRF_BYTEORDERBGR : 0, nullptr,
                                       0, BITMAPRECORD_SIZE),
                      KS_SUCCESS);
            src.bm.nDitheringMethod = DITHER_FLOYD_STEINBERG;  // 0x10010 must ignore it
            Bmp dst;
            const uint32_t flags = CRF_USERPALETTE | CRF_NODITHERING | (path == Path::Exact ? CRF_EXACTMATCH : 0u);
            ASSERT_EQ(K_ColorResBitmap(&src.bm, &dst.bm, 8, flags, pal.data(), 200, BITMAPRECORD_SIZE), KS_SUCCESS);
            SCOPED_TRACE(::testing::Message() << "path " << int(path) << " from " << s.bits);
            expectNearest(dst, px, pal.data(), 200);
        }
        if (table) {
            K_SetUserMatchTable(nullptr);
            K_FreeUserMatchTable(table);
        }
    }
}

TEST(ColorRes, InstalledTableIsObeyedForColoursOutsideThePalette) {
    // A table that sends every colour to entry 2: colours of the palette still
    // take their own entry, every other colour the table's.
    std::vector<RGBQUAD> pal = {quad(10, 20, 30), quad(200, 100, 0), quad(1, 2, 3), quad(90, 90, 90)};
    std::vector<uint32_t> table(USER_MATCH_TABLE_ENTRIES, 3);
    K_SetUserMatchTable(table.data());
    auto px = rows24(4, 1, [n = 0]() mutable {
        const RGBQUAD cs[4] = {quad(10, 20, 30), quad(200, 100, 0), quad(250, 250, 250), quad(91, 90, 90)};
        return cs[n++];
    });
    Bmp src(4, 1, 24, ORDER_BGR);
    src.put(px);
    Bmp dst;
    ASSERT_EQ(K_ColorResBitmap(&src.bm, &dst.bm, 2, 0x10010, pal.data(), 4, BITMAPRECORD_SIZE), KS_SUCCESS);
    K_SetUserMatchTable(nullptr);
    auto out = dst.rows();
    EXPECT_EQ(getPixel(out.data(), 0, 2), 0u);
    EXPECT_EQ(getPixel(out.data(), 1, 2), 1u);
    EXPECT_EQ(getPixel(out.data(), 2, 2), 2u);
    EXPECT_EQ(getPixel(out.data(), 3, 2), 2u);
}

TEST(ColorRes, FixedAndWebPalettesTakeTheNearestEntry) {
    std::mt19937 rng(8);
    const int w = 70, h = 6;
    auto px = rows24(w, h, [&] { return quad(int(rng() & 255), int(rng() & 255), int(rng() & 255)); });
    struct Case {
        int bits;
        uint32_t flags;
        const RGBQUAD* pal;
    };
    for (Case c : {Case{8, 0, K_IntGetFixedPalette(8)}, Case{8, CRF_FIXEDPALETTE, K_IntGetFixedPalette(8)},
                   Case{4, 0, K_IntGetFixedPalette(4)}, Case{3, CRF_FIXEDPALETTE, K_IntGetFixedPalette(3)},
                   Case{8, CRF_NETSCAPEPALETTE, K_IntGetNetscapePalette()}}) {
        Bmp src(w, h, 24, ORDER_BGR);
        src.put(px);
        Bmp dst;
        ASSERT_EQ(K_ColorResBitmap(&src.bm, &dst.bm, c.bits, c.flags | CRF_NODITHERING, nullptr, 0, BITMAPRECORD_SIZE),
                  KS_SUCCESS);
        EXPECT_EQ(0, std::memcmp(dst.bm.pPalette, c.pal, sizeof(RGBQUAD) << c.bits));
        expectNearest(dst, px, c.pal, 1 << c.bits);
    }
}

// ---------------------------------------------------------------- dithering and flag words

TEST(ColorRes, DitheringMatchesTheEngineRowByRow) {
    const int w = 64, h = 16;
    auto px = phototest::photoLike(w, h, 4);
    std::vector<uint8_t> rows(size_t(bplOf(w, 24)) * h);
    for (int y = 0; y < h; ++y) std::memcpy(rows.data() + size_t(y) * bplOf(w, 24), px.data() + size_t(y) * w * 3, size_t(w) * 3);
    for (int method : {1, 2, 7}) {
        Bmp src(w, h, 24, ORDER_BGR);
        src.put(rows);
        Bmp dst;
        ASSERT_EQ(K_ColorResBitmap(&src.bm, &dst.bm, 4, CRF_FIXEDPALETTE | CRF_DITHER(method), nullptr, 0,
                                  BITMAPRECORD_SIZE),
                  KS_SUCCESS);
        // The engine driven by hand over the same rows.
        BITMAPRECORD run;
        ASSERT_EQ(K_InitBitmap(&run, BITMAPRECORD_SIZE, w, 1, 24), KS_SUCCESS);
        run.nDitheringMethod = method;
        ASSERT_EQ(K_StartDithering(&run, nullptr, 16), KS_SUCCESS);
        auto out = dst.rows();
        std::vector<uint8_t> line(bplOf(w, 4), 0);
        for (int y = 0; y < h; ++y) {
            ASSERT_EQ(K_DitherLine(&run, rows.data() + size_t(y) * bplOf(w, 24), line.data()), KS_SUCCESS);
            ASSERT_EQ(0, std::memcmp(line.data(), out.data() + size_t(y) * dst.bm.nBytesPerLine, size_t(w) / 2))
                << method << " row " << y;
        }
        K_FreeBitmap(&run);
    }
}

TEST(ColorRes, DeepFrameFlagWordsChooseTheOrder) {
    std::vector<RGBQUAD> pal = {quad(1, 2, 3), quad(200, 100, 50)};
    Bmp src(3, 1, 1, ORDER_RGB, pal.data());
    src.put({0x40, 0, 0, 0});  // pixels 0, 1, 0
    for (uint32_t flags : {0u, 4u}) {
        Bmp dst;
        ASSERT_EQ(K_ColorResBitmap(&src.bm, &dst.bm, 24, flags, nullptr, 0, BITMAPRECORD_SIZE), KS_SUCCESS);
        EXPECT_EQ(dst.bm.nOrder, flags ? ORDER_BGR : ORDER_RGB);
        auto out = dst.rows();
        const uint8_t want[2][9] = {{1, 2, 3, 200, 100, 50, 1, 2, 3}, {3, 2, 1, 50, 100, 200, 3, 2, 1}};
        EXPECT_EQ(0, std::memcmp(out.data(), want[flags ? 1 : 0], 9));
    }
}

// ---------------------------------------------------------------- storage kinds

TEST(ColorRes, BitmapsLargerThanTheCapConvertRowByRow) {
    storagetest::CapGuard guard;
    const int w = 300, h = 200;
    auto px = rows24(w, h, [n = 0u]() mutable {
        ++n;
        return quad(int(n * 7 & 255), int(n * 13 & 255), int(n >> 3 & 255));
    });
    Bmp src(w, h, 24, ORDER_BGR);
    src.put(px);
    Bmp small;
    ASSERT_EQ(K_ColorResBitmap(&src.bm, &small.bm, 8, CRF_NODITHERING, nullptr, 0, BITMAPRECORD_SIZE), KS_SUCCESS);
    int64_t counter = 0;
    K_ManageMemory(MANAGEMEMORY_GET_COUNTER, 0, &counter);
    K_ManageMemory(MANAGEMEMORY_SET_CAP, counter + 4096, nullptr);  // no room for the destination
    Bmp big;
    ASSERT_EQ(K_ColorResBitmap(&src.bm, &big.bm, 8, CRF_NODITHERING, nullptr, 0, BITMAPRECORD_SIZE), KS_SUCCESS);
    EXPECT_NE(big.bm.uFlags & (BRF_TILED | BRF_DISK), 0u);
    EXPECT_EQ(big.rows(), small.rows());
}

// ---------------------------------------------------------------- progress

int32_t stopAt(int32_t pct, void* user) {
    auto* v = static_cast<std::vector<int32_t>*>(user);
    v->push_back(pct);
    return pct >= 50 ? KS_USER_ABORT : KS_SUCCESS;
}

TEST(ColorRes, ProgressReportsAndAStopLeavesNothing) {
    const int w = 600, h = 600;
    auto px = rows24(w, h, [] { return quad(10, 20, 30); });
    {  // the first parallel job makes the process-wide pool: not a leak
        Bmp src(w, h, 24, ORDER_BGR), dst;
        src.put(px);
        ASSERT_EQ(K_ColorResBitmap(&src.bm, &dst.bm, 4, CRF_NODITHERING, nullptr, 0, BITMAPRECORD_SIZE), KS_SUCCESS);
    }
    std::vector<int32_t> seen;
    K_SetStatusCallBack(stopAt, &seen, nullptr, nullptr);
    for (uint32_t flags : {CRF_NODITHERING, CRF_DITHER(1)}) {
        Bmp src(w, h, 24, ORDER_BGR);
        src.put(px);
        seen.clear();
        BITMAPRECORD dst;
        std::memset(&dst, 0x5A, sizeof(dst));
        const long live = krn::faultinject::liveBlocks();
        EXPECT_EQ(K_ColorResBitmap(&src.bm, &dst, 4, flags, nullptr, 0, BITMAPRECORD_SIZE), KS_USER_ABORT);
        EXPECT_EQ(krn::faultinject::liveBlocks(), live);
        BITMAPRECORD sentinel;
        std::memset(&sentinel, 0x5A, sizeof(sentinel));
        EXPECT_EQ(0, std::memcmp(&dst, &sentinel, sizeof(dst)));
        ASSERT_FALSE(seen.empty());
        EXPECT_EQ(seen.front(), 0);
        EXPECT_GE(seen.back(), 50);
    }
    K_SetStatusCallBack(nullptr, nullptr, nullptr, nullptr);
}

// ---------------------------------------------------------------- bad input and faults

TEST(ColorRes, BadInputChangesNothing) {
    std::vector<RGBQUAD> pal(16, quad(1, 2, 3));
    Bmp src(10, 4, 24, ORDER_BGR);
    Bmp locked(10, 4, 24, ORDER_BGR);
    ASSERT_EQ(K_AccessBitmap(&locked.bm), KS_SUCCESS);
    BITMAPRECORD unalloc;
    K_InitBitmap(&unalloc, BITMAPRECORD_SIZE, 10, 4, 24);
    struct Case {
        const char* what;
        BITMAPRECORD* src;
        bool inPlace;
        int bits;
        uint32_t flags;
        const RGBQUAD* pal;
        int n;
        uint32_t size;
        int32_t want;
    };
    const Case cases[] = {
        {"null source", nullptr, false, 8, 0, nullptr, 0, BITMAPRECORD_SIZE, KS_INVALID_PARAMETER},
        {"unallocated source", &unalloc, false, 8, 0, nullptr, 0, BITMAPRECORD_SIZE, KS_INVALID_BITMAP},
        {"size word", &src.bm, false, 8, 0, nullptr, 0, 100, KS_INVALID_STRUCT_SIZE},
        {"depth 9", &src.bm, false, 9, 0, nullptr, 0, BITMAPRECORD_SIZE, KS_INVALID_BITS_PER_PIXEL},
        {"depth 0", &src.bm, true, 0, 0, nullptr, 0, BITMAPRECORD_SIZE, KS_INVALID_BITS_PER_PIXEL},
        {"unknown flag", &src.bm, false, 8, 0x200, nullptr, 0, BITMAPRECORD_SIZE, KS_INVALID_PARAMETER},
        {"two palettes", &src.bm, false, 8, CRF_FIXEDPALETTE | CRF_NETSCAPEPALETTE, nullptr, 0, BITMAPRECORD_SIZE, KS_INVALID_PARAMETER},
        {"two orders", &src.bm, false, 24, CRF_BYTEORDERBGR | CRF_BYTEORDERROMM, nullptr, 0, BITMAPRECORD_SIZE, KS_INVALID_PARAMETER},
        {"dither twice", &src.bm, false, 4, CRF_NODITHERING | CRF_DITHER(1), nullptr, 0, BITMAPRECORD_SIZE, KS_INVALID_PARAMETER},
        {"method 9", &src.bm, false, 4, CRF_DITHER(9), nullptr, 0, BITMAPRECORD_SIZE, KS_INVALID_PARAMETER},
        {"user palette null", &src.bm, false, 4, CRF_USERPALETTE, nullptr, 16, BITMAPRECORD_SIZE, KS_INVALID_PARAMETER},
        {"palette longer than depth", &src.bm, true, 4, CRF_USERPALETTE, pal.data(), 17, BITMAPRECORD_SIZE, KS_INVALID_PARAMETER},
        {"no colours", &src.bm, false, 4, CRF_USERPALETTE, pal.data(), 0, BITMAPRECORD_SIZE, KS_INVALID_PARAMETER},
        {"optimised 1 colour", &src.bm, false, 4, CRF_OPTIMIZEDPALETTE, nullptr, 1, BITMAPRECORD_SIZE, KS_INVALID_PARAMETER},
        {"web at 4 bits", &src.bm, false, 4, CRF_NETSCAPEPALETTE, nullptr, 0, BITMAPRECORD_SIZE, KS_INVALID_PARAMETER},
        {"palette at 24 bits", &src.bm, false, 24, CRF_FIXEDPALETTE, nullptr, 0, BITMAPRECORD_SIZE, KS_INVALID_PARAMETER},
        {"grey at 24 bits", &src.bm, false, 24, CRF_BYTEORDERGRAY, nullptr, 0, BITMAPRECORD_SIZE, KS_INVALID_PARAMETER},
        {"BGR at 12 bits", &src.bm, false, 12, CRF_BYTEORDERBGR, nullptr, 0, BITMAPRECORD_SIZE, KS_INVALID_PARAMETER},
        {"wide at 32 bits", &src.bm, false, 32, CRF_BYTEORDERROMM, nullptr, 0, BITMAPRECORD_SIZE, KS_INVALID_PARAMETER},
        {"BGR at 8 bits", &src.bm, false, 8, CRF_BYTEORDERBGR, nullptr, 0, BITMAPRECORD_SIZE, KS_INVALID_PARAMETER},
        {"locked in place", &locked.bm, true, 8, 0, nullptr, 0, BITMAPRECORD_SIZE, KS_INVALID_PARAMETER},
    };
    for (const Case& c : cases) {
        BITMAPRECORD dst;
        std::memset(&dst, 0x5A, sizeof(dst));
        BITMAPRECORD before{};
        if (c.src) std::memcpy(&before, c.src, sizeof(before));
        BITMAPRECORD* d = c.inPlace ? c.src : &dst;
        EXPECT_EQ(K_ColorResBitmap(c.src, d, c.bits, c.flags, c.pal, c.n, c.size), c.want) << c.what;
        BITMAPRECORD sentinel;
        std::memset(&sentinel, 0x5A, sizeof(sentinel));
        EXPECT_EQ(0, std::memcmp(&dst, &sentinel, sizeof(dst))) << c.what;
        if (c.src) {
            EXPECT_EQ(0, std::memcmp(&before, c.src, sizeof(before))) << c.what;
        }
    }
    EXPECT_EQ(K_ColorResBitmap(&src.bm, nullptr, 8, 0, nullptr, 0, BITMAPRECORD_SIZE), KS_INVALID_PARAMETER);
    EXPECT_EQ(K_GrayScaleBitmap(nullptr, 8), KS_INVALID_PARAMETER);
    EXPECT_EQ(K_GrayScaleBitmap(&src.bm, 24), KS_INVALID_BITS_PER_PIXEL);
    K_ReleaseBitmap(&locked.bm);
}

}  // namespace
