// test_palette.cpp - fixed palettes, grey classification, user match tables
// and the palette helpers of a bitmap record.
#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <random>
#include <set>
#include <thread>
#include <vector>

#include "convert_reference.h"
#include "krn/common/memory.h"
#include "krn/common/settings.h"
#include "ombrix.h"
#include "storage_kinds.h"

namespace {

RGBQUAD rgb(int r, int g, int b) { return RGBQUAD{uint8_t(b), uint8_t(g), uint8_t(r), 0}; }
bool same(const RGBQUAD* a, const RGBQUAD* b, int n) { return std::memcmp(a, b, size_t(n) * sizeof(RGBQUAD)) == 0; }
bool same(const RGBQUAD& a, const RGBQUAD& b) { return same(&a, &b, 1); }

// A single-block bitmap, or without arguments an empty record; freed at the end of its scope.
struct Bitmap {
    BITMAPRECORD bm{};
    Bitmap() { K_InitBitmap(&bm, BITMAPRECORD_SIZE, 0, 0, 0); }
    Bitmap(int w, int h, int bpp, int order = ORDER_BGR, const RGBQUAD* pal = nullptr) {
        EXPECT_EQ(K_CreateBitmap(&bm, BITMAPRECORD_SIZE, 1, w, h, bpp, order, pal, TOP_LEFT, nullptr, 0), KS_SUCCESS);
    }
    ~Bitmap() { K_FreeBitmap(&bm); }
};

// Entry i of the fixed palette of depth d, written from the table.
RGBQUAD fixedEntry(int d, int i) {
    static const int L4[4] = {0, 85, 170, 255};
    auto L8 = [](int k) { return (k * 255 + 3) / 7; };  // k * 255 / 7 rounded to nearest
    static const int sixteen[16][3] = {{0, 0, 0},       {128, 0, 0}, {0, 128, 0}, {128, 128, 0}, {0, 0, 128},
                                       {128, 0, 128},   {0, 128, 128}, {128, 128, 128}, {192, 192, 192}, {255, 0, 0},
                                       {0, 255, 0},     {255, 255, 0}, {0, 0, 255}, {255, 0, 255}, {0, 255, 255},
                                       {255, 255, 255}};
    switch (d) {
        case 0: return rgb(i, i, i);
        case 1: return i ? rgb(255, 255, 255) : rgb(0, 0, 0);
        case 2: return rgb(i * 85, i * 85, i * 85);
        case 3: return rgb(i & 4 ? 255 : 0, i & 2 ? 255 : 0, i & 1 ? 255 : 0);
        case 4: return rgb(sixteen[i][0], sixteen[i][1], sixteen[i][2]);
        case 5: return rgb(L4[i >> 3], L4[(i >> 1) & 3], 255 * (i & 1));
        case 6: return rgb(L4[i >> 4], L4[(i >> 2) & 3], L4[i & 3]);
        case 7: return rgb(L4[i >> 5], L8((i >> 2) & 7), L4[i & 3]);
        default: return rgb(L8(i >> 5), L8((i >> 2) & 7), L4[i & 3]);
    }
}

TEST(PaletteFixed, EveryDepthWebAndGreyRampsMatchTheTables) {
    for (int d = 0; d <= 8; ++d) {
        const int count = 1 << (d == 0 ? 8 : d);
        const RGBQUAD* k = K_IntGetFixedPalette(d);
        std::vector<RGBQUAD> filled(256, rgb(1, 2, 3));
        ASSERT_EQ(K_GetFixedPalette(filled.data(), d), KS_SUCCESS);
        RGBQUAD *made = K_CreateFixedPalette(d), *grey = K_CreateGrayPalette(d);
        ASSERT_TRUE(made && grey);
        EXPECT_EQ(K_GlobalSize(grey), size_t(count) * sizeof(RGBQUAD));
        for (int i = 0; i < count; ++i) {
            const RGBQUAD e = fixedEntry(d, i);
            EXPECT_TRUE(same(filled[size_t(i)], e) && same(made[i], e) && (!d || same(k[i], e))) << d << ":" << i;
            const int v = count == 1 ? 0 : i * 255 / (count - 1);
            EXPECT_TRUE(same(grey[i], rgb(v, v, v))) << d << ":" << i;
        }
        EXPECT_TRUE(!d || d == 8 || same(filled[size_t(count)], rgb(1, 2, 3)));  // nothing written past 2^d
        K_GlobalFree(made);
        EXPECT_EQ(K_GlobalFree(grey), nullptr);
    }
    const RGBQUAD* web = K_IntGetNetscapePalette();
    for (int i = 0; i < 256; ++i)
        EXPECT_TRUE(same(web[i], i < 216 ? rgb(51 * (i / 36), 51 * ((i / 6) % 6), 51 * (i % 6)) : rgb(0, 0, 0))) << i;
    RGBQUAD buf[256];
    EXPECT_TRUE(!K_IntGetFixedPalette(0) && !K_IntGetFixedPalette(9));
    EXPECT_TRUE(!K_CreateGrayPalette(9) && !K_CreateFixedPalette(-1));
    for (int32_t st : {K_GetFixedPalette(buf, 9), K_GetFixedPalette(buf, -1), K_GetFixedPalette(nullptr, 8)})
        EXPECT_EQ(st, KS_INVALID_PARAMETER);
    RGBQUAD* dup = K_DupPalette(buf, 3);
    EXPECT_TRUE(dup && same(dup, buf, 3) && K_GlobalSize(dup) == 3 * sizeof(RGBQUAD));
    K_GlobalFree(dup);
    EXPECT_TRUE(!K_DupPalette(nullptr, 3) && !K_DupPalette(buf, 0));
}

// The classification rule, written out plainly: 0 colour, 1 ascending ramp,
// 2 descending ramp, 3 other greys (the step is 255 / (n - 1), accumulated).
int classifyRef(const std::vector<RGBQUAD>& p) {
    for (const auto& e : p)
        if (e.rgbRed != e.rgbGreen || e.rgbRed != e.rgbBlue) return 0;
    if (p.size() <= 1) return p[0].rgbRed == 0 ? 1 : p[0].rgbRed == 255 ? 2 : 3;
    const int step = 255 / int(p.size() - 1);
    const bool down = p[0].rgbRed != 0;
    int expect = down ? 255 : 0;
    for (const auto& e : p) {
        if (e.rgbRed != (expect & 255)) return 3;
        expect += down ? -step : step;
    }
    return down ? 2 : 1;
}

TEST(PaletteGrey, DocumentedCasesAndRandomPalettesAgainstTheRule) {
    std::vector<RGBQUAD> ramp8;
    for (int i = 0; i < 8; ++i) ramp8.push_back(rgb(i * 255 / 7, i * 255 / 7, i * 255 / 7));
    EXPECT_EQ(K_IsGrayScalePalette(ramp8.data(), 8), 3);  // 0, 36, 72, 109 but the accumulated step says 108
    const RGBQUAD white = rgb(255, 255, 255);
    EXPECT_EQ(K_IsGrayScalePalette(&white, 0), 2);  // one entry or none: the first entry decides
    std::mt19937 rng(7);
    for (int round = 0; round < 4000; ++round) {
        const int n = round % 5 == 0 ? 1 << (1 + rng() % 8) : 1 + int(rng() % 40);
        std::vector<RGBQUAD> p(static_cast<size_t>(n));
        const int step = n > 1 ? 255 / (n - 1) : 0;
        const bool down = rng() & 1;
        for (int i = 0; i < n; ++i) p[size_t(i)].rgbRed = uint8_t(down ? 255 - step * i : step * i);  // an exact ramp
        const int kind = int(rng() % 4);
        if (kind == 1) p[rng() % size_t(n)].rgbRed += 1;  // one step off
        for (auto& e : p) e.rgbRed = kind == 3 ? uint8_t(rng() % 3 * 127) : e.rgbRed, e.rgbGreen = e.rgbBlue = e.rgbRed;
        if (kind == 2) p[rng() % size_t(n)].rgbBlue ^= 1;  // not grey
        EXPECT_EQ(K_IsGrayScalePalette(p.data(), n), classifyRef(p)) << round;
    }
    for (int32_t st : {K_IsGrayScalePalette(nullptr, 2), K_IsGrayScalePalette(&white, -1)})
        EXPECT_EQ(st, KS_INVALID_PARAMETER);
}

// A bitmap has its palette's class (grey ramps of 16 entries are exact, of 8 the accumulated step misses; a ramp one
// entry short of 2^depth leaves pixel values uncovered), black and white without a block, 0 at colour depths, and
// for 16-bit grey its LUT's class.
TEST(PaletteGrey, Bitmaps) {
    Bitmap g4(4, 4, 4, ORDER_GRAY), g3(4, 4, 3, ORDER_GRAY), colour(4, 4, 8), one, deep(4, 4, 24);
    Bitmap grey16(4, 4, 16, ORDER_GRAY);
    ASSERT_EQ(K_InitBitmap(&one.bm, BITMAPRECORD_SIZE_OLD, 8, 8, 1), KS_SUCCESS);
    std::vector<int> got;
    for (BITMAPRECORD* b : {&g4.bm, &g3.bm, &colour.bm, &one.bm, &deep.bm, &grey16.bm})
        got.push_back(K_IntIsGrayScaleBitmap(b));
    g4.bm.nColors = 15;
    got.push_back(K_IntIsGrayScaleBitmap(&g4.bm));
    std::vector<RGBQUAD> lut(64);
    for (int i = 0; i < 64; ++i) lut[size_t(i)] = rgb(255 - 4 * i, 255 - 4 * i, 255 - 4 * i);
    grey16.bm.pLUT = lut.data(), grey16.bm.nLUTLength = 64;
    for (const RGBQUAD& e : {lut[10], rgb(0, 0, 0), rgb(0, 0, 1)}) {  // descending, then one step off, then not grey
        lut[10] = e;
        got.push_back(K_IntIsGrayScaleBitmap(&grey16.bm));
    }
    grey16.bm.pLUT = nullptr, grey16.bm.nLUTLength = 0;
    EXPECT_EQ(got, (std::vector<int>{1, 3, 0, 1, 0, 1, 3, 2, 3, 0}));
    BITMAPRECORD bad = colour.bm;
    bad.uStructSize = 200;
    EXPECT_EQ(K_IntIsGrayScaleBitmap(nullptr), KS_INVALID_PARAMETER);
    EXPECT_EQ(K_IntIsGrayScaleBitmap(&bad), KS_INVALID_STRUCT_SIZE);
}

// The table's words (nearest index + 1 on the 5-5-5 grid) are checked through colour resolution with an installed
// table; here the refusals, a failed allocation that leaks nothing, and the table installed per thread.
TEST(PaletteMatchTable, RefusalsAllocationFailureAndInstalledPerThread) {
    std::vector<RGBQUAD> pal{rgb(0, 0, 0), rgb(255, 255, 255)};
    EXPECT_TRUE(K_FreeUserMatchTable(nullptr) == KS_SUCCESS && !K_CreateUserMatchTable(nullptr, 2));
    EXPECT_EQ(K_CreateUserMatchTable(pal.data(), 0), nullptr);
    const long live = krn::faultinject::liveBlocks();
    krn::faultinject::arm(0, 1);
    EXPECT_EQ(K_CreateUserMatchTable(pal.data(), 2), nullptr);
    krn::faultinject::disarm();
    EXPECT_EQ(krn::faultinject::liveBlocks(), live);
    uint32_t *a = K_CreateUserMatchTable(pal.data(), 2), *b = K_CreateUserMatchTable(pal.data(), 2);
    ASSERT_TRUE(a && b);
    const uint32_t* before = K_SetUserMatchTable(a);
    EXPECT_EQ(K_GetUserMatchTable(), a);
    const uint32_t* seenElsewhere = reinterpret_cast<const uint32_t*>(1);
    std::thread([&] {
        seenElsewhere = K_GetUserMatchTable();
        K_SetUserMatchTable(b);  // does not touch the first thread
    }).join();
    EXPECT_EQ(seenElsewhere, nullptr);
    EXPECT_EQ(K_SetUserMatchTable(b), a);
    K_FreeUserMatchTable(b);  // freeing the installed table uninstalls it on this thread
    EXPECT_EQ(K_GetUserMatchTable(), nullptr);
    // The process-wide block stands in when the thread's block cannot be made.
    krn::testhook::forceSettingsFallback(true);
    EXPECT_EQ(K_SetUserMatchTable(a), nullptr);
    EXPECT_EQ(krn::processSettings().pUserMatchTable, a);
    K_FreeUserMatchTable(a);
    EXPECT_EQ(krn::processSettings().pUserMatchTable, nullptr);
    krn::testhook::forceSettingsFallback(false);
    K_SetUserMatchTable(before);
}

TEST(PaletteRecord, SetGetPutCopyRoundTrip) {
    const int32_t P = KS_INVALID_PARAMETER;
    Bitmap b(8, 8, 4);
    RGBQUAD mine[5] = {rgb(1, 2, 3), rgb(4, 5, 6), rgb(7, 8, 9), rgb(10, 11, 12), rgb(13, 14, 15)};
    ASSERT_EQ(K_SetBitmapPalette(&b.bm, mine, 5), KS_SUCCESS);
    EXPECT_EQ(b.bm.nColors, 5);  // padded to 2^depth with black
    EXPECT_TRUE(K_GlobalSize(b.bm.pPalette) == 16 * sizeof(RGBQUAD) && same(b.bm.pPalette[15], rgb(0, 0, 0)));
    RGBQUAD out[16];
    std::memset(out, 0xEE, sizeof out);
    EXPECT_EQ(K_GetBitmapColors(&b.bm, 1, 10, out), 4);  // only 4 entries from index 1
    EXPECT_TRUE(same(out, mine + 1, 4) && out[4].rgbRed == 0xEE && K_GetBitmapColors(&b.bm, 5, 3, out) == 0);
    for (int32_t st : {K_GetBitmapColors(&b.bm, 6, 1, out), K_GetBitmapColors(&b.bm, -1, 1, out),
                       K_GetBitmapColors(&b.bm, 0, 1, nullptr), K_PutBitmapColors(&b.bm, 14, 3, mine),  // past 2^4
                       K_PutBitmapColors(&b.bm, 0, 1, nullptr)})
        EXPECT_EQ(st, P);
    RGBQUAD put[3] = {rgb(90, 91, 92), rgb(93, 94, 95), rgb(96, 97, 98)};
    RGBQUAD* block = b.bm.pPalette;
    EXPECT_EQ(K_PutBitmapColors(&b.bm, 4, 3, put), 3);
    EXPECT_TRUE(b.bm.pPalette == block && b.bm.nColors == 7);  // written in place, grown to cover the range
    EXPECT_TRUE(K_GetBitmapColors(&b.bm, 0, 16, out) == 7 && same(out, mine, 4) && same(out + 4, put, 3));
    // Own palette as the source; null means the fixed palette.
    ASSERT_EQ(K_SetBitmapPalette(&b.bm, b.bm.pPalette + 1, 3), KS_SUCCESS);
    EXPECT_TRUE(same(b.bm.pPalette, mine + 1, 3));
    EXPECT_TRUE(K_SetBitmapPalette(&b.bm, mine, 17) == P && K_SetBitmapPalette(&b.bm, mine, 0) == P);
    ASSERT_EQ(K_SetBitmapPalette(&b.bm, nullptr, 0), KS_SUCCESS);
    const RGBQUAD* fixed4 = K_IntGetFixedPalette(4);
    EXPECT_TRUE(K_CompareBitmapToPalette(&b.bm, fixed4, 16) == 1 && K_CompareBitmapToPalette(&b.bm, {}, 0) == 1);
    EXPECT_EQ(K_CompareBitmapToPalette(&b.bm, fixed4, 15), KS_FAILURE);
    std::vector<RGBQUAD> almost(fixed4, fixed4 + 16);
    almost[9].rgbReserved = 77;  // ignored
    EXPECT_EQ(K_CompareBitmapToPalette(&b.bm, almost.data(), 16), KS_SUCCESS);
    almost[9].rgbGreen ^= 1;
    EXPECT_EQ(K_CompareBitmapToPalette(&b.bm, almost.data(), 16), KS_FAILURE);
    EXPECT_TRUE(K_CreateBitmapGrayPalette(&b.bm) == KS_SUCCESS && K_IntIsGrayScaleBitmap(&b.bm) == 1);

    // A record without a palette block starts from the fixed palette.
    BITMAPRECORD bare;
    ASSERT_EQ(K_InitBitmap(&bare, BITMAPRECORD_SIZE, 4, 4, 2), KS_SUCCESS);
    RGBQUAD red = rgb(255, 0, 0), fixed2[4];
    std::memcpy(fixed2, K_IntGetFixedPalette(2), sizeof fixed2);
    fixed2[1] = red;
    EXPECT_TRUE(K_PutBitmapColors(&bare, 1, 1, &red) == 1 && bare.pPalette && same(bare.pPalette, fixed2, 4));
    K_FreeBitmap(&bare);

    // Deep bitmaps: no colours until given some, blocks sized to the count.
    Bitmap deep(4, 4, 24);
    EXPECT_TRUE(K_GetBitmapColors(&deep.bm, 0, 4, out) == 0 && K_SetBitmapPalette(&deep.bm, nullptr, 0) == P);
    for (int32_t st : {K_CreateBitmapFixedPalette(&deep.bm), K_CreateBitmapGrayPalette(&deep.bm)})
        EXPECT_EQ(st, KS_INVALID_BITS_PER_PIXEL);
    std::vector<RGBQUAD> big(256);
    for (int i = 0; i < 256; ++i) big[size_t(i)] = rgb(i, 255 - i, i / 2);
    EXPECT_EQ(K_SetBitmapPalette(&deep.bm, big.data(), 256), KS_SUCCESS);
    EXPECT_EQ(K_PutBitmapColors(&deep.bm, 255, 2, big.data()), P);
    EXPECT_EQ(K_SetBitmapPalette(&deep.bm, big.data(), 10), KS_SUCCESS);
    block = deep.bm.pPalette;
    EXPECT_EQ(K_PutBitmapColors(&deep.bm, 10, 5, big.data()), 5);  // needs a larger block
    EXPECT_TRUE(deep.bm.pPalette != block && deep.bm.nColors == 15);
    EXPECT_EQ(K_GlobalSize(deep.bm.pPalette), 15 * sizeof(RGBQUAD));

    // Copies between records.
    Bitmap src(4, 4, 8, ORDER_BGR, big.data()), dst(4, 4, 8), deep2(4, 4, 24);
    ASSERT_EQ(K_CopyBitmapPalette(&dst.bm, &src.bm), KS_SUCCESS);
    EXPECT_TRUE(dst.bm.pPalette != src.bm.pPalette && K_CompareBitmapToPalette(&dst.bm, big.data(), 256) == KS_SUCCESS);
    EXPECT_EQ(K_CopyBitmapPalette(&dst.bm, &dst.bm), KS_SUCCESS);
    block = b.bm.pPalette;
    EXPECT_TRUE(K_CopyBitmapPalette(&b.bm, &src.bm) == P && b.bm.pPalette == block);  // 256 entries do not fit 4 bits
    ASSERT_EQ(K_CopyBitmapPalette(&dst.bm, &deep2.bm), KS_SUCCESS);  // no palette: falls back to the fixed one
    EXPECT_TRUE(!dst.bm.pPalette && dst.bm.nColors == 256 && K_CompareBitmapToPalette(&dst.bm, nullptr, 0) == 1);
    BITMAPRECORD bad = src.bm;
    bad.uStructSize = 1;
    EXPECT_EQ(K_CopyBitmapPalette(nullptr, &src.bm), P);
    EXPECT_EQ(K_CopyBitmapPalette(&dst.bm, &bad), KS_INVALID_STRUCT_SIZE);
    EXPECT_TRUE(K_CreateBitmapFixedPalette(&dst.bm) == 1 && K_CompareBitmapToPalette(&dst.bm, {}, 0) == 1);
}

TEST(PaletteRecord, ColourValues) {
    Bitmap p8(2, 2, 8), p8b(2, 2, 8), grey16(2, 2, 16, ORDER_GRAY), rgb24(2, 2, 24), p1(2, 2, 1);  // fixed palettes
    const RGBQUAD* fixed = K_IntGetFixedPalette(8);
    auto colourOf = [&](int i) { return KCOLOR_RGB(fixed[i].rgbRed, fixed[i].rgbGreen, fixed[i].rgbBlue); };
    uint32_t v = 0;
    EXPECT_TRUE(K_GetTrueColorValue(&p8.bm, KCOLOR_INDEX(77), &v) == KS_SUCCESS && v == colourOf(77));
    EXPECT_TRUE(K_GetTrueColorValue(&rgb24.bm, KCOLOR_RGB(1, 2, 3), &v) == KS_SUCCESS && v == 0x030201u);
    for (int32_t st : {K_GetTrueColorValue(&rgb24.bm, KCOLOR_INDEX(0), &v), K_GetTrueColorValue(&p8.bm, 0x02000000, &v),
                       K_GetTrueColorValue(&p8.bm, KCOLOR_INDEX(256), &v), K_GetTrueColorValue(&p8.bm, 0, nullptr)})
        EXPECT_EQ(st, KS_INVALID_PARAMETER);
    // Every index of the fixed palette translates to itself through a copy of it, an RGB colour to the nearest
    // entry, into grey by the grey rule.
    for (uint32_t i = 0; i < 256; ++i)
        EXPECT_TRUE(K_TranslateBitmapColor(&p8b.bm, &p8.bm, KCOLOR_INDEX(i), &v) == KS_SUCCESS && v == KCOLOR_INDEX(i));
    const struct { BITMAPRECORD *dst, *src; uint32_t colour, want; } cases[] = {
        {&p8b.bm, nullptr, KCOLOR_RGB(250, 3, 120), KCOLOR_INDEX(K_FindPaletteIndex(fixed, 256, 250, 3, 120))},
        {&grey16.bm, &p8.bm, KCOLOR_INDEX(255), KCOLOR_RGB(255, 255, 255)},
        {&grey16.bm, nullptr, KCOLOR_RGB(200, 100, 40), KCOLOR_RGB(118, 118, 118)},  // (2R + 5G + B + 4) >> 3
        {&rgb24.bm, &p8.bm, KCOLOR_INDEX(3), colourOf(3)},
        {&p1.bm, nullptr, KCOLOR_RGB(250, 240, 230), KCOLOR_INDEX(1)},  // black and white palette
    };
    for (const auto& c : cases)
        EXPECT_TRUE(K_TranslateBitmapColor(c.dst, c.src, c.colour, &v) == KS_SUCCESS && v == c.want) << c.colour;
    EXPECT_EQ(K_TranslateBitmapColor(&rgb24.bm, nullptr, KCOLOR_INDEX(3), &v), KS_INVALID_PARAMETER);
}

// The used colours come through the row layer: every storage kind and format answers the sorted set of colours the
// reference converter reads from the same rows, whatever the padding bits hold.
TEST(PaletteRecord, UsedColoursOnEveryFormatAndStorageKind) {
    using namespace storagetest;
    constexpr int32_t W = 37, H = 23;
    const struct { int bpp, order; } formats[] = {
        {1, ORDER_BGR},  {2, ORDER_BGR},  {3, ORDER_BGR},  {4, ORDER_BGR},  {5, ORDER_BGR},     {6, ORDER_BGR},
        {7, ORDER_BGR},  {8, ORDER_BGR},  {24, ORDER_BGR}, {24, ORDER_RGB}, {32, ORDER_BGR},    {48, ORDER_RGB},
        {16, ORDER_BGR}, {16, ORDER_GRAY}, {16, ORDER_RGB565}};
    for (const auto& f : formats) {
        std::mt19937 rng{uint32_t(f.bpp * 8 + f.order)};
        std::vector<RGBQUAD> pal(f.bpp <= 8 ? size_t(1) << f.bpp : 0);
        for (auto& e : pal) e = rgb(int(rng() % 5) * 60, int(rng() % 5) * 60, int(rng() % 2) * 60);  // duplicates
        // Pixels drawn from a few random values (grey samples on the 8-bit grid).
        const size_t Bpp = size_t(std::max(f.bpp, 8) / 8);
        std::vector<std::vector<uint8_t>> pool(9, std::vector<uint8_t>(Bpp));
        for (auto& p : pool) {
            for (auto& x : p) x = uint8_t(rng());
            if (f.order == ORDER_GRAY) p[0] = p[1];
        }
        RefImage ref(W, H, f.bpp);
        std::fill(ref.px.begin(), ref.px.end(), uint8_t(0xFF));  // padding bits set on purpose
        std::set<uint32_t> want;
        convref::Request q;
        q.width = W, q.srcBits = f.bpp, q.srcOrder = f.order, q.dstBits = 24, q.dstOrder = ORDER_RGB;
        q.srcPal = pal.empty() ? nullptr : pal.data();
        for (int32_t y = 0; y < H; ++y) {
            for (int32_t x = 0; x < W; ++x)
                if (f.bpp <= 8) setPixel(ref.row(y), x, f.bpp, rng() % (1u << f.bpp));
                else std::memcpy(ref.row(y) + size_t(x) * Bpp, pool[rng() % 9].data(), Bpp);
            std::vector<uint8_t> buf(ref.row(y), ref.row(y) + ref.bpl);
            buf.resize(std::max<size_t>(buf.size(), convref::dstRunBytes(q)));
            const auto c = convref::convert(q, buf);
            for (size_t x = 0; x < 3 * size_t(W); x += 3) want.insert(uint32_t(c[x] << 16 | c[x + 1] << 8 | c[x + 2]));
        }
        for (Kind k : kindsFor(f.bpp)) {
            SCOPED_TRACE(testing::Message() << kindName(k) << ", " << f.bpp << " bits, order " << f.order);
            KindBitmap kb(k, W, H, f.bpp);
            ASSERT_EQ(kb.rc, KS_SUCCESS);
            kb.bm.nOrder = f.order;
            ASSERT_TRUE(pal.empty() || K_SetBitmapPalette(&kb.bm, pal.data(), int32_t(pal.size())) == KS_SUCCESS);
            for (int32_t y = 0; y < H; ++y) ASSERT_GT(K_PutBitmapRow(&kb.bm, ref.row(y), y, ref.bpl), 0);
            int32_t n = -1, n2 = -1;
            std::vector<RGBQUAD> got(want.size() + 1, RGBQUAD{0xEE, 0xEE, 0xEE, 0xEE});
            ASSERT_EQ(K_GetBitmapPaletteEntries(&kb.bm, got.data(), int32_t(want.size()), &n), KS_SUCCESS);
            ASSERT_EQ(size_t(n), want.size());
            size_t i = 0;
            for (uint32_t c : want) {
                const RGBQUAD& e = got[i++];
                EXPECT_EQ(uint32_t(e.rgbRed) << 16 | e.rgbGreen << 8 | e.rgbBlue, c);
            }
            EXPECT_EQ(got[i].rgbRed, 0xEE);  // nothing past nMaxEntries
            EXPECT_TRUE(K_GetBitmapPaletteEntries(&kb.bm, nullptr, 0, &n2) == KS_SUCCESS && n2 == n);  // only counted
        }
    }
    Bitmap romm(2, 2, 24, ORDER_ROMM), empty;
    int32_t n;
    EXPECT_EQ(K_GetBitmapPaletteEntries(&romm.bm, nullptr, 0, &n), KS_UNSUPPORTED_CONVERSION);
    EXPECT_EQ(K_GetBitmapPaletteEntries(&empty.bm, nullptr, 0, &n), KS_INVALID_BITMAP);
    EXPECT_EQ(K_GetBitmapPaletteEntries(&romm.bm, {}, 0, nullptr), KS_INVALID_PARAMETER);
    EXPECT_EQ(K_GetBitmapPaletteEntries(&romm.bm, {}, 4, &n), KS_INVALID_PARAMETER);
}

// Every allocation of the record helpers failing: the status is -1, the
// record is unchanged and nothing leaks; with memory back the call works.
TEST(PaletteRecord, AllocationFailureSweep) {
    std::vector<RGBQUAD> pal(256, rgb(1, 2, 3));
    Bitmap b(8, 8, 8), src(8, 8, 8, ORDER_BGR, pal.data());
    BITMAPRECORD deep;
    ASSERT_EQ(K_InitBitmap(&deep, BITMAPRECORD_SIZE, 4, 4, 24), KS_SUCCESS);
    K_GetUserMatchTable();
    RGBQUAD red = rgb(255, 0, 0);
    int32_t n;
    const std::function<int32_t()> ops[] = {
        [&] { return K_SetBitmapPalette(&b.bm, pal.data(), 100); },
        [&] { return K_CopyBitmapPalette(&b.bm, &src.bm); },
        [&] { return K_CreateBitmapGrayPalette(&b.bm); },
        [&] { return K_CreateBitmapFixedPalette(&b.bm); },
        [&] { return K_PutBitmapColors(&deep, 0, 1, &red); },
        [&] { return K_GetBitmapPaletteEntries(&b.bm, nullptr, 0, &n); },
    };
    for (const auto& op : ops) {
        const BITMAPRECORD snapB = b.bm, snapDeep = deep;
        std::vector<RGBQUAD> colours(b.bm.pPalette, b.bm.pPalette + 256);
        const long live = krn::faultinject::liveBlocks();
        krn::faultinject::arm(0, -1);
        const int32_t rc = op();
        krn::faultinject::disarm();
        EXPECT_TRUE(rc == KS_NO_MEMORY && krn::faultinject::liveBlocks() == live);
        EXPECT_TRUE(std::memcmp(&snapB, &b.bm, sizeof snapB) == 0 && std::memcmp(&snapDeep, &deep, sizeof deep) == 0);
        EXPECT_EQ(std::memcmp(colours.data(), b.bm.pPalette, 256 * sizeof(RGBQUAD)), 0);
        EXPECT_GE(op(), 0);
    }
    K_FreeBitmap(&deep);
}

}  // namespace
