// test_colorres.cpp - colour resolution of whole bitmaps (dithering: test_dither.cpp; 24-bit sources, other storage
// kinds and progress stops: test_transform_shared.cpp) and optimised palettes, their quality against Pillow's
// median-cut and fast-octree quantizers run on the same photo-like image.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <map>
#include <random>
#include <set>
#include <string>
#include <vector>

#include <unistd.h>

#include "krn/common/colorres.h"
#include "photo_like.h"
#include "transform_kit.h"

namespace {

using namespace tkit;

RGBQUAD quad(int r, int g, int b) { return RGBQUAD{uint8_t(b), uint8_t(g), uint8_t(r), 0}; }
uint32_t key(const RGBQUAD& q) { return (uint32_t(q.rgbRed) << 16) | (uint32_t(q.rgbGreen) << 8) | q.rgbBlue; }
RGBQUAD anyColour(std::mt19937& rng) { return quad(int(rng() & 255), int(rng() & 255), int(rng() & 255)); }

// A single-block bitmap (or an empty record for results).
struct Bmp {
    BITMAPRECORD bm{};
    Bmp() = default;
    Bmp(int w, int h, int bpp, int order, const RGBQUAD* pal = nullptr) {
        EXPECT_EQ(K_CreateBitmap(&bm, BITMAPRECORD_SIZE, 1, w, h, bpp, order, pal, 1, nullptr, 0), KS_SUCCESS);
    }
    ~Bmp() { K_FreeBitmap(&bm); }
    void put(const std::vector<uint8_t>& rows) {
        for (int y = 0; y < bm.nHeight; ++y)
            ASSERT_GE(K_PutBitmapRow(&bm, rows.data() + size_t(y) * bm.nBytesPerLine, y, bm.nBytesPerLine), 0);
    }
    std::vector<uint8_t> rows() { return getImage(&bm).px; }
    int32_t res(BITMAPRECORD* dst, int bits, uint32_t flags, const RGBQUAD* pal = nullptr, int n = 0) {
        return K_ColorResBitmap(&bm, dst, bits, flags, pal, n, BITMAPRECORD_SIZE);
    }
};

// Packed 24-bit BGR pixels whose colours are drawn by `pick`.
template <class F>
std::vector<uint8_t> rows24(int w, int h, F pick) {
    std::vector<uint8_t> px(size_t(w) * size_t(h) * 3);
    for (size_t i = 0; i < px.size(); i += 3) {
        const RGBQUAD c = pick();
        std::memcpy(&px[i], &c, 3);
    }
    return px;
}
std::vector<uint8_t> fewColours(int w, int h, const std::vector<RGBQUAD>& cs, uint32_t seed) {
    std::mt19937 rng(seed);
    return rows24(w, h, [&] { return cs[rng() % cs.size()]; });
}
// A single-block 24-bit BGR bitmap of packed pixels.
struct Img : Bmp {
    int w, h;
    std::vector<uint8_t> px;
    Img(int width, int height, std::vector<uint8_t> bgr)
        : Bmp(width, height, 24, ORDER_BGR), w(width), h(height), px(std::move(bgr)) {
        for (int y = 0; y < h; ++y) K_PutBitmapRow(&bm, px.data() + size_t(y) * size_t(w) * 3, y, uint32_t(w) * 3);
    }
};

// Every pixel of an indexed result is the entry K_FindPaletteIndex picks for the colour of the pixels it came from.
void expectNearest(Bmp& dst, const std::vector<uint8_t>& px, const RGBQUAD* pal, int n) {
    RefImage out = getImage(&dst.bm);
    EXPECT_EQ(firstMismatch(out, [&](int x, int y) {
        const uint8_t* p = px.data() + (size_t(y) * size_t(out.width) + size_t(x)) * 3;
        return uint64_t(K_FindPaletteIndex(pal, n, p[2], p[1], p[0]));
    }), "");
}

TEST(ColorResSearch, Fixed256RowKernelsAgreeOverEveryColour) {
    if (!krn::cpuHasSsse3()) GTEST_SKIP() << "no SSSE3";
    // Every colour once, in rows of odd lengths so each kernel also ends on a partial block.
    const int32_t w = 4093;
    std::vector<uint8_t> bgr(size_t(w) * 3), a(static_cast<size_t>(w)), b(static_cast<size_t>(w));
    for (uint32_t c = 0; c < (1u << 24);) {
        int32_t n = 0;
        for (; n < w && c < (1u << 24); ++n, ++c) std::memcpy(&bgr[size_t(n) * 3], &c, 3);
        krn::fixed256RowPlain(bgr.data(), a.data(), n);
        krn::fixed256RowSsse3(bgr.data(), b.data(), n);
        ASSERT_EQ(0, std::memcmp(a.data(), b.data(), size_t(n))) << "SSSE3, block ending at " << c;
        if (krn::cpuHasAvx2ForColorRes()) {
            krn::fixed256RowAvx2(bgr.data(), b.data(), n);
            ASSERT_EQ(0, std::memcmp(a.data(), b.data(), size_t(n))) << "AVX2, block ending at " << c;
        }
    }
}

TEST(ColorRes, PaletteImageThroughTwentyFourBitsComesBackIdentical) {
    std::mt19937 rng(3);
    for (int bits : {1, 4, 7, 8}) {
        const int n = 1 << bits, w = 37, h = 9;
        std::vector<RGBQUAD> pal;  // distinct colours, black and white included at odd places
        while (int(pal.size()) < n) {
            const size_t k = pal.size();
            RGBQUAD c = k == size_t(n / 2) ? quad(0, 0, 0) : k == 1 && n > 2 ? quad(255, 255, 255) : anyColour(rng);
            if (std::none_of(pal.begin(), pal.end(), [&](const RGBQUAD& e) { return !std::memcmp(&e, &c, 3); }))
                pal.push_back(c);
        }
        Bmp src(w, h, bits, ORDER_RGB, pal.data());
        RefImage ref(w, h, bits);
        for (int y = 0; y < h; ++y)
            for (int x = 0; x < w; ++x) setPixel(ref.row(y), x, bits, rng() % uint32_t(n));
        src.put(ref.px);
        Bmp deep;
        ASSERT_EQ(src.res(&deep.bm, 24, CRF_BYTEORDERBGR), KS_SUCCESS);
        ASSERT_EQ(deep.res(&deep.bm, bits, CRF_USERPALETTE | CRF_NODITHERING, pal.data(), n), KS_SUCCESS);
        EXPECT_TRUE(deep.bm.nBitsPerPixel == bits && deep.rows() == ref.px) << bits;
        EXPECT_EQ(std::memcmp(deep.bm.pPalette, pal.data(), sizeof(RGBQUAD) * size_t(n)), 0);
        Bmp direct;  // index to index: every pixel keeps its index at 8 bits
        ASSERT_EQ(src.res(&direct.bm, 8, CRF_USERPALETTE | CRF_NODITHERING, pal.data(), n), KS_SUCCESS);
        RefImage out = getImage(&direct.bm);
        EXPECT_EQ(firstMismatch(out, [&](int x, int y) { return pixelAt(ref.row(y), x, bits); }), "") << bits;
    }
    // Grey through colour (in place, to 24 and 48 bits) and back through 16-bit grey.
    Bmp grey(256, 3, 8, ORDER_GRAY);
    std::vector<uint8_t> px(size_t(grey.bm.nBytesPerLine) * 3, 0);
    for (size_t i = 0; i < px.size(); ++i) px[i] = uint8_t((i % 256) * 7 + i / 256);
    grey.put(px);
    ASSERT_EQ(grey.res(&grey.bm, 24, 0), KS_SUCCESS);
    ASSERT_EQ(grey.res(&grey.bm, 48, CRF_BYTEORDERBGR), KS_SUCCESS);
    ASSERT_EQ(K_GrayScaleBitmap(&grey.bm, 16), KS_SUCCESS);
    EXPECT_EQ(grey.bm.nOrder, ORDER_GRAY);
    ASSERT_EQ(K_GrayScaleBitmap(&grey.bm, 8), KS_SUCCESS);
    EXPECT_TRUE(grey.rows() == px && K_IsGrayScalePalette(grey.bm.pPalette, 256) == 1);
}

// A caller palette without dithering takes the nearest entry whichever matcher serves it: the colour-match tree
// (colours of the palette), an installed table or one built for the call (colours on the 5-5-5 grid), or the exact
// search (any colour); from every deep source layout.
TEST(ColorRes, CallerPaletteWithoutDitheringTakesTheNearestEntryOnEveryPath) {
    std::mt19937 rng(21);
    std::vector<RGBQUAD> pal;
    for (int i = 0; i < 200; ++i) pal.push_back(quad(int(rng() & 0xF8), int(rng() & 255), int(rng() & 255)));
    pal[3] = pal[199] = quad(0, 0, 0), pal[120] = quad(255, 255, 255);  // black twice: the last entry answers
    const int w = 53, h = 11;
    enum Path { Tree, Installed, Built, Exact };
    for (Path path : {Tree, Installed, Built, Exact}) {
        auto px = rows24(w, h, [&] {
            if (path == Tree) return pal[rng() % 200];
            if (path == Exact) return anyColour(rng);
            return quad(int(rng() & 31) * 8, int(rng() & 31) * 8, int(rng() & 31) * 8);
        });
        uint32_t* table = path == Installed ? K_CreateUserMatchTable(pal.data(), 200) : nullptr;
        K_SetUserMatchTable(table);
        Img src24(w, h, px);
        for (int layout = 0; layout < 4; ++layout) {
            const int bits[] = {24, 24, 32, 48};
            Bmp src, dst;
            ASSERT_EQ(src24.res(&src.bm, bits[layout], layout % 2 ? 0 : CRF_BYTEORDERBGR), KS_SUCCESS);
            src.bm.nDitheringMethod = DITHER_FLOYD_STEINBERG;  // no dithering asked: ignored
            const uint32_t flags = CRF_USERPALETTE | CRF_NODITHERING | (path == Exact ? CRF_EXACTMATCH : 0u);
            ASSERT_EQ(src.res(&dst.bm, 8, flags, pal.data(), 200), KS_SUCCESS);
            SCOPED_TRACE(::testing::Message() << "path " << int(path) << " layout " << layout);
            expectNearest(dst, px, pal.data(), 200);
        }
        K_SetUserMatchTable(nullptr), K_FreeUserMatchTable(table);
    }
    // An installed table is obeyed for colours outside the palette (this one
    // sends every colour to entry 2); colours of the palette keep their entry.
    std::vector<uint32_t> toTwo(USER_MATCH_TABLE_ENTRIES, 3);
    const RGBQUAD four[4] = {quad(10, 20, 30), quad(200, 100, 0), quad(1, 2, 3), quad(90, 90, 90)};
    const RGBQUAD seen[4] = {quad(10, 20, 30), quad(200, 100, 0), quad(250, 250, 250), quad(91, 90, 90)};
    Img src(4, 1, rows24(4, 1, [n = 0, &seen]() mutable { return seen[n++]; }));
    Bmp dst;
    K_SetUserMatchTable(toTwo.data());
    ASSERT_EQ(src.res(&dst.bm, 2, CRF_USERPALETTE | CRF_NODITHERING, four, 4), KS_SUCCESS);
    K_SetUserMatchTable(nullptr);
    EXPECT_EQ(dst.rows()[0], 0x1A);  // indices 0, 1, 2, 2
}

TEST(ColorRes, BitmapsLargerThanTheCapConvertRowByRow) {
    storagetest::CapGuard guard;
    const int w = 300, h = 90;
    Img src(w, h, rows24(w, h, [n = 0u]() mutable {
        ++n;
        return quad(int(n * 7 & 255), int(n * 13 & 255), int(n >> 3 & 255));
    }));
    Bmp small, big;
    ASSERT_EQ(src.res(&small.bm, 8, CRF_NODITHERING), KS_SUCCESS);
    int64_t counter = 0;
    K_ManageMemory(MANAGEMEMORY_GET_COUNTER, 0, &counter);
    K_ManageMemory(MANAGEMEMORY_SET_CAP, counter + 4096, nullptr);  // no room for the destination
    StopAfter progress;  // the row layer's loop reports 0 % first and 100 % last
    {
        StatusScope scope(StopAfter::cb, &progress);
        ASSERT_EQ(src.res(&big.bm, 8, CRF_NODITHERING), KS_SUCCESS);
    }
    EXPECT_TRUE(progress.calls() > 2 && progress.seen.front() == 0 && progress.seen.back() == 100);
    EXPECT_NE(big.bm.uFlags & (BRF_TILED | BRF_DISK), 0u);
    EXPECT_EQ(big.rows(), small.rows());
}

TEST(ColorRes, BadInputChangesNothing) {
    std::vector<RGBQUAD> pal(16, quad(1, 2, 3));
    Bmp src(10, 4, 24, ORDER_BGR), locked(10, 4, 24, ORDER_BGR);
    ASSERT_EQ(K_AccessBitmap(&locked.bm), KS_SUCCESS);
    BITMAPRECORD unalloc;
    K_InitBitmap(&unalloc, BITMAPRECORD_SIZE, 10, 4, 24);
    const uint32_t R = BITMAPRECORD_SIZE;
    const RGBQUAD* P = pal.data();
    BITMAPRECORD* S = &src.bm;
    const int32_t I = KS_INVALID_PARAMETER;
    const struct { const char* what; BITMAPRECORD* src; bool inPlace; int bits; uint32_t flags;
                   const RGBQUAD* pal; int n; uint32_t size; int32_t want; } cases[] = {
        {"null source", nullptr, false, 8, 0, nullptr, 0, R, I},
        {"unallocated source", &unalloc, false, 8, 0, nullptr, 0, R, KS_INVALID_BITMAP},
        {"size word", S, false, 8, 0, nullptr, 0, 100, KS_INVALID_STRUCT_SIZE},
        {"depth 9", S, false, 9, 0, nullptr, 0, R, KS_INVALID_BITS_PER_PIXEL},
        {"depth 0", S, true, 0, 0, nullptr, 0, R, KS_INVALID_BITS_PER_PIXEL},
        {"unknown flag", S, false, 8, 0x200, nullptr, 0, R, I},
        {"two palettes", S, false, 8, CRF_FIXEDPALETTE | CRF_NETSCAPEPALETTE, nullptr, 0, R, I},
        {"two orders", S, false, 24, CRF_BYTEORDERBGR | CRF_BYTEORDERROMM, nullptr, 0, R, I},
        {"dither twice", S, false, 4, CRF_NODITHERING | CRF_DITHER(1), nullptr, 0, R, I},
        {"method 9", S, false, 4, CRF_DITHER(9), nullptr, 0, R, I},
        {"user palette null", S, false, 4, CRF_USERPALETTE, nullptr, 16, R, I},
        {"palette longer than depth", S, true, 4, CRF_USERPALETTE, P, 17, R, I},
        {"no colours", S, false, 4, CRF_USERPALETTE, P, 0, R, I},
        {"optimised 1 colour", S, false, 4, CRF_OPTIMIZEDPALETTE, nullptr, 1, R, I},
        {"web at 4 bits", S, false, 4, CRF_NETSCAPEPALETTE, nullptr, 0, R, I},
        {"palette at 24 bits", S, false, 24, CRF_FIXEDPALETTE, nullptr, 0, R, I},
        {"grey at 24 bits", S, false, 24, CRF_BYTEORDERGRAY, nullptr, 0, R, I},
        {"BGR at 12 bits", S, false, 12, CRF_BYTEORDERBGR, nullptr, 0, R, I},
        {"wide at 32 bits", S, false, 32, CRF_BYTEORDERROMM, nullptr, 0, R, I},
        {"BGR at 8 bits", S, false, 8, CRF_BYTEORDERBGR, nullptr, 0, R, I},
        {"locked in place", &locked.bm, true, 8, 0, nullptr, 0, R, I},
    };
    for (const auto& c : cases) {
        Sentinel dst;
        BITMAPRECORD before{};
        if (c.src) before = *c.src;
        BITMAPRECORD* to = c.inPlace ? c.src : &dst.bm;
        EXPECT_EQ(K_ColorResBitmap(c.src, to, c.bits, c.flags, c.pal, c.n, c.size), c.want) << c.what;
        EXPECT_TRUE(dst.intact() && (!c.src || !std::memcmp(&before, c.src, sizeof(before)))) << c.what;
    }
    EXPECT_TRUE(src.res(nullptr, 8, 0) == I && K_GrayScaleBitmap(nullptr, 8) == I);
    EXPECT_EQ(K_GrayScaleBitmap(&src.bm, 24), KS_INVALID_BITS_PER_PIXEL);
    K_ReleaseBitmap(&locked.bm);
}

// Every allocation of a call from a palette or grey source failing in turn: the call succeeds or leaves the source,
// the destination record and the block count as they were.
TEST(ColorRes, EveryAllocationFailureOfPaletteAndGreySourcesChangesNothing) {
    const struct { int srcBits, dstBits; uint32_t flags; bool inPlace; } cases[] = {
        {8, 24, 0, false}, {8, 4, CRF_FIXEDPALETTE | CRF_DITHER(1), false}, {16, 8, CRF_BYTEORDERGRAY, true},
        {24, 16, CRF_BYTEORDER565, true}};
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::Message() << c.srcBits << " -> " << c.dstBits << " flags " << c.flags);
        RefImage ref(37, 11, c.srcBits);
        ref.randomize(uint32_t(c.srcBits));
        const int failures = allocationWalk([&](Armed& armed) {
            Bmp src(37, 11, c.srcBits, c.srcBits == 16 ? ORDER_GRAY : c.srcBits == 8 ? ORDER_RGB : ORDER_BGR);
            ASSERT_EQ(putImage(&src.bm, ref), KS_SUCCESS);
            const BITMAPRECORD record = src.bm;
            Sentinel dst;
            if (armed([&] { return src.res(c.inPlace ? &src.bm : &dst.bm, c.dstBits, c.flags); }) == KS_SUCCESS) {
                if (!c.inPlace) K_FreeBitmap(&dst.bm);
                return;
            }
            EXPECT_TRUE(dst.intact() && !std::memcmp(&src.bm, &record, sizeof record)) << armed.n;
            EXPECT_EQ(getImage(&src.bm).px, ref.px) << armed.n;
        }, 1, true);
        EXPECT_GT(failures, 0);
    }
}

// The mean squared error per channel of an 8-bit colour resolution of the image (without dithering) against it.
double optimisedError(Img& img, uint32_t flags, const RGBQUAD* pal, int n) {
    Bmp q;
    EXPECT_EQ(img.res(&q.bm, 8, flags | CRF_NODITHERING, pal, n), KS_SUCCESS);
    const std::vector<uint8_t> indexes = q.rows();
    double sum = 0;
    for (int y = 0; y < img.h; ++y)
        for (size_t x = 0, i = size_t(y) * size_t(img.w) * 3; x < size_t(img.w); ++x, i += 3) {
            const RGBQUAD& e = q.bm.pPalette[indexes[size_t(y) * q.bm.nBytesPerLine + x]];
            const int d[3] = {e.rgbBlue - img.px[i], e.rgbGreen - img.px[i + 1], e.rgbRed - img.px[i + 2]};
            sum += d[0] * d[0] + d[1] * d[1] + d[2] * d[2];
        }
    return sum / (3.0 * img.w * img.h);
}

TEST(ColorResOptPal, FewColoursComeBackExactly) {
    std::mt19937 rng(1);
    struct Case { int w, h, colours, n; };
    // The last image is large enough to be sampled: one odd pixel placed
    // between the sample points must still be found.
    for (Case c : {Case{31, 17, 2, 2}, Case{64, 64, 16, 16}, Case{50, 40, 200, 256}, Case{1100, 1000, 9, 10}}) {
        std::vector<RGBQUAD> cs;
        std::set<uint32_t> keys;
        while (int(cs.size()) < c.colours) {
            RGBQUAD q = anyColour(rng);
            if (keys.insert(key(q)).second) cs.push_back(q);
        }
        std::vector<RGBQUAD> common(cs.begin(), cs.end() - (c.w > 1000 ? 1 : 0));
        auto px = fewColours(c.w, c.h, common, 3);
        if (c.w > 1000) std::memcpy(&px[(size_t(c.w) + 1) * 3], &cs.back(), 3);  // one pixel, off the sampling grid
        Img img(c.w, c.h, px);
        std::vector<RGBQUAD> pal(size_t(c.n), quad(7, 7, 7));
        int32_t used = -1;
        ASSERT_TRUE(K_CreateBitmapOptPal(&img.bm, pal.data(), c.n, 0, 0, &used) == KS_SUCCESS && used == c.colours);
        std::set<uint32_t> got;
        for (int i = 0; i < used; ++i) got.insert(key(pal[size_t(i)]));
        EXPECT_EQ(got, keys) << c.w << 'x' << c.h;
        EXPECT_EQ(optimisedError(img, CRF_OPTIMIZEDPALETTE, nullptr, c.n), 0.0);  // through colour resolution
    }
}

TEST(ColorResOptPal, ReservedAndTransparentEntriesAreKept) {
    auto px = phototest::photoLike(80, 60, 2);
    Img img(80, 60, px);
    std::vector<RGBQUAD> pal(32, quad(0, 0, 0));
    pal[0] = quad(255, 0, 255), pal[1] = quad(1, 2, 3), pal[31] = quad(0, 254, 0);
    int32_t used = 0;
    ASSERT_EQ(K_CreateBitmapOptPal(&img.bm, pal.data(), 32, 2, OPTPAL_TRANSPARENT, &used), KS_SUCCESS);
    EXPECT_TRUE(used == 32 && key(pal[0]) == 0xFF00FF && key(pal[1]) == 0x010203 && key(pal[31]) == 0x00FE00);
    std::set<uint32_t> distinct;
    for (const auto& e : pal) distinct.insert(key(e));
    EXPECT_GT(distinct.size(), 25u);
}

TEST(ColorResOptPal, RefinementNeverLosesToTheSplitAlone) {
    auto px = phototest::photoLike(160, 120, 9);
    Img img(160, 120, px);
    for (int n : {4, 16, 64, 256}) {
        double err[2];
        for (int fast = 0; fast < 2; ++fast) {
            std::vector<RGBQUAD> pal(static_cast<size_t>(n));
            ASSERT_EQ(K_CreateBitmapOptPal(&img.bm, pal.data(), n, 0, fast ? OPTPAL_FAST : 0, nullptr), KS_SUCCESS);
            err[fast] = optimisedError(img, CRF_USERPALETTE | CRF_EXACTMATCH, pal.data(), n);
        }
        EXPECT_LE(err[0], err[1] * 1.0001) << n;
    }
    // An entry no sample chooses keeps its split value: beside a reserved grey the split makes a second grey,
    // which every grey pixel leaves to the lower index (an exact match), and (5,5,5) for the two dark colours.
    std::vector<uint8_t> few(16 * 4 * 3, 100);
    std::memset(few.data(), 0, 6), std::memset(few.data() + 6, 10, 6);  // two black pixels, two (10,10,10)
    Img grey(16, 4, few);
    RGBQUAD split[3] = {quad(100, 100, 100)}, refined[3] = {quad(100, 100, 100)};
    ASSERT_EQ(K_CreateBitmapOptPal(&grey.bm, split, 3, 1, OPTPAL_FAST, nullptr), KS_SUCCESS);
    ASSERT_EQ(K_CreateBitmapOptPal(&grey.bm, refined, 3, 1, 0, nullptr), KS_SUCCESS);
    EXPECT_TRUE(key(split[1]) == 0x050505 && key(split[2]) == 0x646464 && !std::memcmp(split, refined, sizeof split));
}

TEST(ColorResOptPal, BadInputWritesNothing) {
    auto px = phototest::photoLike(8, 8, 1);
    Img img(8, 8, px);
    BITMAPRECORD unalloc;
    K_InitBitmap(&unalloc, BITMAPRECORD_SIZE, 8, 8, 24);
    const int32_t P = KS_INVALID_PARAMETER, U = KS_INVALID_BITMAP;
    BITMAPRECORD* B = &img.bm;
    const struct { BITMAPRECORD* bm; bool pal; int n, reserved; uint32_t flags; int32_t want; } cases[] = {
        {nullptr, true, 16, 0, 0, P}, {B, false, 16, 0, 0, P}, {B, true, 1, 0, 0, P}, {B, true, 257, 0, 0, P},
        {B, true, 16, 17, 0, P}, {B, true, 16, -1, 0, P}, {B, true, 16, 0, 0x10, P}, {&unalloc, true, 16, 0, 0, U},
        {B, true, 16, 16, OPTPAL_TRANSPARENT, P}};
    for (const auto& c : cases) {
        std::vector<RGBQUAD> pal(300, quad(9, 9, 9));
        int32_t used = -5;
        EXPECT_EQ(K_CreateBitmapOptPal(c.bm, c.pal ? pal.data() : nullptr, c.n, c.reserved, c.flags, &used), c.want);
        EXPECT_EQ(used, -5) << c.n << " " << c.reserved;
        for (const auto& e : pal) ASSERT_EQ(key(e), key(quad(9, 9, 9)));
    }
    // Allocation failures: nothing written, nothing leaked.
    tkit::allocationWalk([&](tkit::Armed& armed) {
        std::vector<RGBQUAD> pal(16, quad(9, 9, 9));
        if (armed([&] { return K_CreateBitmapOptPal(&img.bm, pal.data(), 16, 0, 0, nullptr); }) == KS_SUCCESS) return;
        for (const auto& e : pal) ASSERT_EQ(key(e), key(quad(9, 9, 9)));
    }, 1, true);
}

// Colours the split and the refinement must not lose: a quarter of near-black pixels (the first cell of the sample)
// among many bright colours, and colours that differ in blue only. Every entry count, split alone and refined.
TEST(ColorResOptPal, NearBlackAndBlueOnlyColoursAreCovered) {
    std::mt19937 rng(6);
    const int w = 96, h = 64;
    std::vector<uint8_t> dark(size_t(w) * h * 3), blue(dark.size());
    for (size_t i = 0; i < dark.size(); i += 3) {
        const bool black = rng() % 4 == 0;
        for (int k = 0; k < 3; ++k) dark[i + size_t(k)] = uint8_t(black ? rng() % 4 : 128 + rng() % 128);
        blue[i] = uint8_t(rng()), blue[i + 1] = blue[i + 2] = 100;
    }
    Img imgs[2] = {{w, h, dark}, {w, h, blue}};
    for (int n : {8, 16})
        for (int fast = 0; fast < 2; ++fast)
            for (int k = 0; k < 2; ++k) {
                std::vector<RGBQUAD> pal(static_cast<size_t>(n));
                ASSERT_EQ(K_CreateBitmapOptPal(&imgs[k].bm, pal.data(), n, 0, fast ? OPTPAL_FAST : 0, {}), KS_SUCCESS);
                // an entry for the near-black quarter; blue alone, uniform: about as good as n equal slices of
                // the range, (256 / n)^2 / 12 over three channels
                auto nearBlack = [](const RGBQUAD& e) { return (key(e) & 0xF8F8F8) == 0; };
                const double bound = 1.03 * (256.0 / n) * (256.0 / n) / 36;
                if (k == 0) EXPECT_TRUE(std::any_of(pal.begin(), pal.end(), nearBlack)) << n << " " << fast;
                else EXPECT_LT(optimisedError(imgs[k], CRF_USERPALETTE | CRF_EXACTMATCH, pal.data(), n), bound) << n;
            }
}

// Pillow's quantizers on the same image, through the script beside the
// benchmarks; skipped when python3 with Pillow is not there.
std::map<std::pair<std::string, int>, double> pillowErrors(const std::string& ppm, const std::vector<int>& counts) {
    // The script: beside this source (an absolute __FILE__), or found from the test binary (build/tests/).
    char exe[1024] = {};
    const std::string file = __FILE__;
    const std::string bin(exe, size_t(std::max<ssize_t>(0, readlink("/proc/self/exe", exe, sizeof(exe) - 1))));
    std::string script, cmd = "/usr/bin/python3 ";
    const std::string dirs[] = {file.substr(0, file.rfind('/')) + "/../bench/",
                                bin.substr(0, bin.rfind('/')) + "/../../bench/"};
    for (std::string c : dirs)
        if (script.empty() && access((c += "pillow_quantize.py").c_str(), R_OK) == 0) script = c;
    std::map<std::pair<std::string, int>, double> out;
    if (script.empty()) return out;
    cmd.append(script).append(" ").append(ppm);
    for (int n : counts) cmd.append(" ").append(std::to_string(n));
    FILE* p = popen(cmd.append(" 2>/dev/null").c_str(), "r");
    if (!p) return out;
    char name[32];
    int n;
    double e, t;
    while (std::fscanf(p, "%31s %d %lf %lf", name, &n, &e, &t) == 4) out[{name, n}] = e;
    pclose(p);
    return out;
}

TEST(ColorResOptPal, PhotoLikeErrorIsBelowPillowMedianCutAndOctree) {
    const int w = 320, h = 240;
    const std::vector<int> counts = {256, 64, 16};
    for (uint32_t seed : {1u, 2u}) {
        auto px = phototest::photoLike(w, h, seed);
        const std::string ppm = ::testing::TempDir() + "colorres_photo_" + std::to_string(seed) + ".ppm";
        ASSERT_TRUE(phototest::writePpm(ppm, px, w, h));
        auto pillow = pillowErrors(ppm, counts);
        std::remove(ppm.c_str());
        if (pillow.size() != counts.size() * 2) GTEST_SKIP() << "python3 with Pillow not available";
        Img img(w, h, px);
        for (int n : counts) {
            const double ours = optimisedError(img, CRF_OPTIMIZEDPALETTE, nullptr, n);
            const double mc = pillow[{"mediancut", n}], oct = pillow[{"fastoctree", n}];
            std::printf("image %u, %3d colours: mse ours %8.3f, median cut %8.3f, fast octree %8.3f\n", seed, n, ours,
                        mc, oct);
            EXPECT_TRUE(ours < mc && ours < oct) << n;
        }
    }
}

// One palette for every bitmap of a list: the union of the bitmaps' colours when it fits, and bad handles refused.
TEST(ColorResOptPal, ListPaletteCoversEveryBitmap) {
    HBITMAPLIST list = nullptr;
    ASSERT_EQ(K_CreateBitmapList(&list), KS_SUCCESS);
    std::set<uint32_t> all;
    std::mt19937 rng(4);
    for (int i = 0; i < 3; ++i) {
        std::vector<RGBQUAD> cs(5);
        for (auto& e : cs) all.insert(key(e = anyColour(rng)));
        Img img(20 + i, 10, fewColours(20 + i, 10, cs, uint32_t(i)));
        ASSERT_EQ(K_InsertBitmapListItem(list, BITMAPLIST_END, &img.bm), KS_SUCCESS);  // the list owns it now
        img.bm = BITMAPRECORD{};
    }
    std::vector<RGBQUAD> pal(16);
    int32_t used = 0;
    ASSERT_EQ(K_CreateBitmapListOptPal(list, pal.data(), 16, 0, 0, &used), KS_SUCCESS);
    std::set<uint32_t> got;
    for (int i = 0; i < used; ++i) got.insert(key(pal[size_t(i)]));
    EXPECT_EQ(got, all);
    // Fewer entries than colours: every entry still used, none invented twice.
    EXPECT_TRUE(K_CreateBitmapListOptPal(list, pal.data(), 8, 0, 0, &used) == KS_SUCCESS && used == 8);
    for (int32_t st : {K_CreateBitmapListOptPal(nullptr, pal.data(), 8, 0, 0, &used),
                       K_CreateBitmapListOptPal(list, nullptr, 8, 0, 0, &used),
                       K_CreateBitmapListOptPal(list, pal.data(), 300, 0, 0, &used)})
        EXPECT_EQ(st, KS_INVALID_PARAMETER);
    ASSERT_EQ(K_DestroyBitmapList(list), KS_SUCCESS);
    HBITMAPLIST empty = nullptr;
    ASSERT_EQ(K_CreateBitmapList(&empty), KS_SUCCESS);
    EXPECT_EQ(K_CreateBitmapListOptPal(empty, pal.data(), 8, 0, 0, &used), KS_INVALID_BITMAP);
    K_DestroyBitmapList(empty);
}

}  // namespace
