// test_palette.cpp - fixed palettes, grey classification, user match tables
// and the palette helpers of a bitmap record.
#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <random>
#include <set>
#include <thread>
#include <vector>

#include "ombrix.h"
#include "krn/common/memory.h"
#include "krn/common/settings.h"
#include "storage_kinds.h"

namespace {

RGBQUAD rgb(int r, int g, int b) { return RGBQUAD{uint8_t(b), uint8_t(g), uint8_t(r), 0}; }
bool same(const RGBQUAD& a, const RGBQUAD& b) {
    return a.rgbRed == b.rgbRed && a.rgbGreen == b.rgbGreen && a.rgbBlue == b.rgbBlue &&
           a.rgbReserved == b.rgbReserved;
}

// ---------------------------------------------------------------- fixed palettes

// Entry i of the fixed palette of depth d, written from the table.
RGBQUAD fixedEntry(int d, int i) {
    static const int L4[4] = {0, 85, 170, 255};
    auto L8 = [](int k) { return (k * 255 + 3) / 7; };  // k * 255 / 7 rounded to nearest
    static const int sixteen[16][3] = {{0, 0, 0},     {128, 0, 0},     {0, 128, 0},   {128, 128, 0},
                                       {0, 0, 128},   {128, 0, 128},   {0, 128, 128}, {128, 128, 128},
                                       {192, 192, 192}, {255, 0, 0},   {0, 255, 0},   {255, 255, 0},
                                       {0, 0, 255},   {255, 0, 255},   {0, 255, 255}, {255, 255, 255}};
    switch (d) {
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

TEST(PaletteFixed, EveryDepthMatchesTheTables) {
    for (int d = 1; d <= 8; ++d) {
        const RGBQUAD* k = K_IntGetFixedPalette(d);
        ASSERT_NE(k, nullptr);
        std::vector<RGBQUAD> filled(256, rgb(1, 2, 3));
        ASSERT_EQ(K_GetFixedPalette(filled.data(), d), KS_SUCCESS);
        for (int i = 0; i < (1 << d); ++i) {
            EXPECT_TRUE(same(k[i], fixedEntry(d, i))) << "depth " << d << " entry " << i;
            EXPECT_TRUE(same(filled[size_t(i)], fixedEntry(d, i)));
        }
        if (d < 8) {
            EXPECT_TRUE(same(filled[size_t(1) << d], rgb(1, 2, 3)));  // nothing written past 2^d
        }
    }
    EXPECT_EQ(K_IntGetFixedPalette(0), nullptr);
    EXPECT_EQ(K_IntGetFixedPalette(9), nullptr);
    RGBQUAD buf[256];
    EXPECT_EQ(K_GetFixedPalette(buf, 9), KS_INVALID_PARAMETER);
    EXPECT_EQ(K_GetFixedPalette(buf, -1), KS_INVALID_PARAMETER);
    EXPECT_EQ(K_GetFixedPalette(nullptr, 8), KS_INVALID_PARAMETER);
    ASSERT_EQ(K_GetFixedPalette(buf, 0), KS_SUCCESS);
    for (int i = 0; i < 256; ++i) EXPECT_TRUE(same(buf[i], rgb(i, i, i)));
}

TEST(PaletteFixed, WebPaletteAndGreyRamps) {
    const RGBQUAD* web = K_IntGetNetscapePalette();
    for (int i = 0; i < 256; ++i) {
        RGBQUAD want = i < 216 ? rgb(51 * (i / 36), 51 * ((i / 6) % 6), 51 * (i % 6)) : rgb(0, 0, 0);
        EXPECT_TRUE(same(web[i], want)) << i;
    }
    for (int n = 0; n <= 8; ++n) {
        RGBQUAD* g = K_CreateGrayPalette(n);
        ASSERT_NE(g, nullptr);
        const int count = 1 << (n == 0 ? 8 : n);
        EXPECT_EQ(K_GlobalSize(g), size_t(count) * sizeof(RGBQUAD));
        for (int k = 0; k < count; ++k) {
            int v = count == 1 ? 0 : k * 255 / (count - 1);
            EXPECT_TRUE(same(g[k], rgb(v, v, v))) << n << ":" << k;
        }
        EXPECT_EQ(K_GlobalFree(g), nullptr);
        RGBQUAD* f = K_CreateFixedPalette(n);
        ASSERT_NE(f, nullptr);
        std::vector<RGBQUAD> ref(256);
        K_GetFixedPalette(ref.data(), n);
        EXPECT_EQ(std::memcmp(f, ref.data(), size_t(count) * sizeof(RGBQUAD)), 0);
        EXPECT_EQ(K_GlobalFree(f), nullptr);
    }
    EXPECT_EQ(K_CreateGrayPalette(9), nullptr);
    EXPECT_EQ(K_CreateFixedPalette(-1), nullptr);
    RGBQUAD src[3] = {rgb(1, 2, 3), rgb(4, 5, 6), rgb(7, 8, 9)};
    RGBQUAD* dup = K_DupPalette(src, 3);
    ASSERT_NE(dup, nullptr);
    EXPECT_EQ(std::memcmp(dup, src, sizeof src), 0);
    EXPECT_EQ(K_GlobalSize(dup), sizeof src);
    K_GlobalFree(dup);
    EXPECT_EQ(K_DupPalette(nullptr, 3), nullptr);
    EXPECT_EQ(K_DupPalette(src, 0), nullptr);
}

// ---------------------------------------------------------------- grey classification

// The classification rule, written out plainly.
int classifyRef(const std::vector<RGBQUAD>& p) {
    for (const auto& e : p)
        if (e.rgbRed != e.rgbGreen || e.rgbRed != e.rgbBlue) return 0;
    if (p.size() <= 1) return p[0].rgbRed == 0 ? 1 : p[0].rgbRed == 255 ? 2 : 3;
    int step = 255 / int(p.size() - 1);
    bool down = p[0].rgbRed != 0;
    int expect = down ? 255 : 0;
    for (const auto& e : p) {
        if (e.rgbRed != (expect & 255)) return 3;
        expect += down ? -step : step;
    }
    return down ? 2 : 1;
}

TEST(PaletteGrey, DocumentedCasesAndTheEightEntryQuirk) {
    auto ramp = [](int bits) {
        RGBQUAD* g = K_CreateGrayPalette(bits);
        std::vector<RGBQUAD> v(g, g + (1 << bits));
        K_GlobalFree(g);
        return v;
    };
    std::vector<RGBQUAD> down;
    for (int i = 0; i < 16; ++i) down.push_back(rgb(255 - 17 * i, 255 - 17 * i, 255 - 17 * i));
    struct Case {
        const char* what;
        std::vector<RGBQUAD> pal;
        int32_t count, want;
    };
    const Case cases[] = {
        {"white, black", {rgb(255, 255, 255), rgb(0, 0, 0)}, 2, 2},
        {"black, white", {rgb(0, 0, 0), rgb(255, 255, 255)}, 2, 1},
        {"a colour", {rgb(0, 0, 0), rgb(1, 2, 3)}, 2, 0},
        {"ramp of 4", ramp(2), 4, 1},
        {"ramp of 16", ramp(4), 16, 1},
        {"ramp of 256", ramp(8), 256, 1},
        {"ramp of 8: 0, 36, 72, 109 but the accumulated step says 108", ramp(3), 8, 3},
        {"descending", down, 16, 2},
        // One entry or none: the first entry decides.
        {"one black", {rgb(0, 0, 0)}, 1, 1},
        {"none, white first", {rgb(255, 255, 255)}, 0, 2},
        {"one grey", {rgb(7, 7, 7)}, 1, 3},
        {"one colour", {rgb(7, 8, 7)}, 1, 0},
    };
    for (const auto& c : cases) EXPECT_EQ(K_IsGrayScalePalette(c.pal.data(), c.count), c.want) << c.what;
    RGBQUAD one[1] = {rgb(0, 0, 0)};
    EXPECT_EQ(K_IsGrayScalePalette(nullptr, 2), KS_INVALID_PARAMETER);
    EXPECT_EQ(K_IsGrayScalePalette(one, -1), KS_INVALID_PARAMETER);
}

TEST(PaletteGrey, RandomPalettesAgainstReference) {
    std::mt19937 rng(7);
    for (int round = 0; round < 4000; ++round) {
        int n = 1 + int(rng() % 40);
        if (round % 5 == 0) n = 1 << (1 + rng() % 8);
        std::vector<RGBQUAD> p(static_cast<size_t>(n));
        int step = n > 1 ? 255 / (n - 1) : 0;
        bool down = rng() & 1;
        for (int i = 0; i < n; ++i) {
            int v = down ? 255 - step * i : step * i;
            p[size_t(i)] = rgb(v & 255, v & 255, v & 255);
        }
        switch (rng() % 4) {
            case 0: break;  // an exact accumulated ramp
            case 1: {
                auto& e = p[rng() % size_t(n)];
                e.rgbRed = e.rgbGreen = e.rgbBlue = uint8_t(e.rgbRed + 1);
                break;
            }
            case 2: p[rng() % size_t(n)].rgbBlue ^= 1; break;
            default:
                for (auto& e : p) e.rgbRed = e.rgbGreen = e.rgbBlue = uint8_t(rng() % 3 * 127);
        }
        EXPECT_EQ(K_IsGrayScalePalette(p.data(), n), classifyRef(p)) << round;
    }
}

struct Bitmap {
    BITMAPRECORD bm{};
    Bitmap() { K_InitBitmap(&bm, BITMAPRECORD_SIZE, 0, 0, 0); }
    ~Bitmap() { K_FreeBitmap(&bm); }
    int32_t create(int w, int h, int bpp, int order = ORDER_BGR, const RGBQUAD* pal = nullptr,
                   uint32_t size = BITMAPRECORD_SIZE) {
        return K_CreateBitmap(&bm, size, MEMTYPE_CONVENTIONAL, w, h, bpp, order, pal, TOP_LEFT, nullptr, 0);
    }
};

TEST(PaletteGrey, Bitmaps) {
    for (int bpp = 1; bpp <= 8; ++bpp) {
        Bitmap b;
        ASSERT_EQ(b.create(4, 4, bpp, ORDER_GRAY), KS_SUCCESS);
        // Ramps of 2, 4, 16 and 256 entries are exact; the accumulated step misses the others.
        int want = (bpp == 1 || bpp == 2 || bpp == 4 || bpp == 8) ? 1 : 3;
        EXPECT_EQ(K_IntIsGrayScaleBitmap(&b.bm), want) << bpp;
        if (bpp == 2 || bpp == 4 || bpp == 8) {
            b.bm.nColors = (1 << bpp) - 1;  // a ramp that leaves pixel values uncovered
            EXPECT_EQ(K_IntIsGrayScaleBitmap(&b.bm), 3);
        }
    }
    Bitmap colour;
    ASSERT_EQ(colour.create(4, 4, 8, ORDER_BGR), KS_SUCCESS);  // the fixed 8-bit colour palette
    EXPECT_EQ(K_IntIsGrayScaleBitmap(&colour.bm), 0);
    Bitmap one;  // 1-bit without a palette block: its fixed palette is black, white
    ASSERT_EQ(K_InitBitmap(&one.bm, BITMAPRECORD_SIZE_OLD, 8, 8, 1), KS_SUCCESS);
    EXPECT_EQ(K_IntIsGrayScaleBitmap(&one.bm), 1);

    Bitmap deep;
    ASSERT_EQ(deep.create(4, 4, 24, ORDER_BGR), KS_SUCCESS);
    EXPECT_EQ(K_IntIsGrayScaleBitmap(&deep.bm), 0);
    Bitmap grey16;
    ASSERT_EQ(grey16.create(4, 4, 16, ORDER_GRAY), KS_SUCCESS);
    EXPECT_EQ(K_IntIsGrayScaleBitmap(&grey16.bm), 1);
    std::vector<RGBQUAD> lut(64);
    for (int i = 0; i < 64; ++i) lut[size_t(i)] = rgb(255 - 4 * i, 255 - 4 * i, 255 - 4 * i);
    grey16.bm.pLUT = lut.data();
    grey16.bm.nLUTLength = 64;
    EXPECT_EQ(K_IntIsGrayScaleBitmap(&grey16.bm), 2);
    lut[10] = rgb(0, 0, 0);
    EXPECT_EQ(K_IntIsGrayScaleBitmap(&grey16.bm), 3);
    lut[10] = rgb(0, 0, 1);
    EXPECT_EQ(K_IntIsGrayScaleBitmap(&grey16.bm), 0);
    grey16.bm.pLUT = nullptr;
    grey16.bm.nLUTLength = 0;

    EXPECT_EQ(K_IntIsGrayScaleBitmap(nullptr), KS_INVALID_PARAMETER);
    BITMAPRECORD bad = colour.bm;
    bad.uStructSize = 200;
    EXPECT_EQ(K_IntIsGrayScaleBitmap(&bad), KS_INVALID_STRUCT_SIZE);
}

// ---------------------------------------------------------------- user match table

TEST(PaletteMatchTable, EveryWordIsTheNearestIndexPlusOne) {
    std::mt19937 rng(3);
    std::vector<RGBQUAD> pal(37);
    for (auto& e : pal) e = rgb(int(rng() & 255), int(rng() & 255), int(rng() & 255));
    pal[5] = rgb(0, 0, 0);
    uint32_t* t = K_CreateUserMatchTable(pal.data(), 37);
    ASSERT_NE(t, nullptr);
    for (uint32_t k = 0; k < USER_MATCH_TABLE_ENTRIES; ++k) {
        int r = int(k >> 10) * 8, g = int((k >> 5) & 31) * 8, b = int(k & 31) * 8;
        // Brute force over the palette: smallest distance, then the tie rule.
        uint32_t want = uint32_t(K_FindPaletteIndex(pal.data(), 37, r, g, b)) + 1;
        ASSERT_EQ(t[k], want) << k;
        ASSERT_GE(t[k], 1u);
        ASSERT_LE(t[k], 37u);
    }
    // The grid is component * 8, not bit-replicated: word 0x7FFF is (248, 248, 248).
    std::vector<RGBQUAD> two{rgb(248, 248, 248), rgb(255, 255, 255)};
    uint32_t* t2 = K_CreateUserMatchTable(two.data(), 2);
    ASSERT_NE(t2, nullptr);
    EXPECT_EQ(t2[0x7FFF], 1u);
    EXPECT_EQ(t2[0], 1u);
    K_FreeUserMatchTable(t2);
    EXPECT_EQ(K_FreeUserMatchTable(t), KS_SUCCESS);
    EXPECT_EQ(K_FreeUserMatchTable(nullptr), KS_SUCCESS);
    EXPECT_EQ(K_CreateUserMatchTable(nullptr, 2), nullptr);
    EXPECT_EQ(K_CreateUserMatchTable(pal.data(), 0), nullptr);
}

TEST(PaletteMatchTable, InstalledPerThreadAndUninstalledOnFree) {
    std::vector<RGBQUAD> pal{rgb(0, 0, 0), rgb(255, 255, 255)};
    uint32_t* a = K_CreateUserMatchTable(pal.data(), 2);
    uint32_t* b = K_CreateUserMatchTable(pal.data(), 2);
    ASSERT_TRUE(a && b);
    const uint32_t* before = K_SetUserMatchTable(a);
    EXPECT_EQ(K_GetUserMatchTable(), a);
    const uint32_t* seenElsewhere = reinterpret_cast<const uint32_t*>(1);
    std::thread([&] {
        seenElsewhere = K_GetUserMatchTable();
        K_SetUserMatchTable(b);  // does not touch the first thread
    }).join();
    EXPECT_EQ(seenElsewhere, nullptr);
    EXPECT_EQ(K_GetUserMatchTable(), a);
    EXPECT_EQ(K_SetUserMatchTable(b), a);
    // Freeing the installed table uninstalls it on this thread.
    K_FreeUserMatchTable(b);
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

TEST(PaletteMatchTable, AllocationFailureLeaksNothing) {
    std::vector<RGBQUAD> pal{rgb(0, 0, 0), rgb(255, 255, 255)};
    K_GetUserMatchTable();  // warm up the thread's settings block
    const long live = krn::faultinject::liveBlocks();
    krn::faultinject::arm(0, 1);
    EXPECT_EQ(K_CreateUserMatchTable(pal.data(), 2), nullptr);
    krn::faultinject::disarm();
    EXPECT_EQ(krn::faultinject::liveBlocks(), live);
}

// ---------------------------------------------------------------- record helpers

TEST(PaletteRecord, SetGetPutRoundTrip) {
    Bitmap b;
    ASSERT_EQ(b.create(8, 8, 4), KS_SUCCESS);
    RGBQUAD mine[5] = {rgb(1, 2, 3), rgb(4, 5, 6), rgb(7, 8, 9), rgb(10, 11, 12), rgb(13, 14, 15)};
    ASSERT_EQ(K_SetBitmapPalette(&b.bm, mine, 5), KS_SUCCESS);
    EXPECT_EQ(b.bm.nColors, 5);
    EXPECT_EQ(K_GlobalSize(b.bm.pPalette), 16 * sizeof(RGBQUAD));  // padded to 2^depth
    EXPECT_TRUE(same(b.bm.pPalette[15], rgb(0, 0, 0)));
    RGBQUAD out[16];
    std::memset(out, 0xEE, sizeof out);
    EXPECT_EQ(K_GetBitmapColors(&b.bm, 1, 10, out), 4);  // only 4 entries from index 1
    EXPECT_TRUE(same(out[0], mine[1]) && same(out[3], mine[4]));
    EXPECT_EQ(out[4].rgbRed, 0xEE);
    EXPECT_EQ(K_GetBitmapColors(&b.bm, 5, 3, out), 0);
    EXPECT_EQ(K_GetBitmapColors(&b.bm, 6, 1, out), KS_INVALID_PARAMETER);
    EXPECT_EQ(K_GetBitmapColors(&b.bm, -1, 1, out), KS_INVALID_PARAMETER);
    EXPECT_EQ(K_GetBitmapColors(&b.bm, 0, 1, nullptr), KS_INVALID_PARAMETER);

    RGBQUAD put[3] = {rgb(90, 91, 92), rgb(93, 94, 95), rgb(96, 97, 98)};
    RGBQUAD* block = b.bm.pPalette;
    EXPECT_EQ(K_PutBitmapColors(&b.bm, 4, 3, put), 3);
    EXPECT_EQ(b.bm.pPalette, block);  // written in place
    EXPECT_EQ(b.bm.nColors, 7);       // grew to cover the range
    EXPECT_EQ(K_GetBitmapColors(&b.bm, 0, 16, out), 7);
    EXPECT_TRUE(same(out[3], mine[3]) && same(out[4], put[0]) && same(out[6], put[2]));
    EXPECT_EQ(K_PutBitmapColors(&b.bm, 14, 3, put), KS_INVALID_PARAMETER);  // past 2^4
    EXPECT_EQ(K_PutBitmapColors(&b.bm, 0, 1, nullptr), KS_INVALID_PARAMETER);

    // Own palette as the source; null means the fixed palette.
    ASSERT_EQ(K_SetBitmapPalette(&b.bm, b.bm.pPalette + 1, 3), KS_SUCCESS);
    EXPECT_TRUE(same(b.bm.pPalette[0], mine[1]) && same(b.bm.pPalette[2], mine[3]));
    EXPECT_EQ(K_SetBitmapPalette(&b.bm, mine, 17), KS_INVALID_PARAMETER);
    EXPECT_EQ(K_SetBitmapPalette(&b.bm, mine, 0), KS_INVALID_PARAMETER);
    ASSERT_EQ(K_SetBitmapPalette(&b.bm, nullptr, 0), KS_SUCCESS);
    EXPECT_EQ(K_CompareBitmapToPalette(&b.bm, K_IntGetFixedPalette(4), 16), KS_SUCCESS);
    EXPECT_EQ(K_CompareBitmapToPalette(&b.bm, nullptr, 0), KS_SUCCESS);
    EXPECT_EQ(K_CompareBitmapToPalette(&b.bm, K_IntGetFixedPalette(4), 15), KS_FAILURE);
    std::vector<RGBQUAD> almost(K_IntGetFixedPalette(4), K_IntGetFixedPalette(4) + 16);
    almost[9].rgbReserved = 77;  // ignored
    EXPECT_EQ(K_CompareBitmapToPalette(&b.bm, almost.data(), 16), KS_SUCCESS);
    almost[9].rgbGreen ^= 1;
    EXPECT_EQ(K_CompareBitmapToPalette(&b.bm, almost.data(), 16), KS_FAILURE);

    ASSERT_EQ(K_CreateBitmapGrayPalette(&b.bm), KS_SUCCESS);
    EXPECT_EQ(K_IntIsGrayScaleBitmap(&b.bm), 1);
    ASSERT_EQ(K_CreateBitmapFixedPalette(&b.bm), KS_SUCCESS);
    EXPECT_EQ(K_CompareBitmapToPalette(&b.bm, nullptr, 0), KS_SUCCESS);
}

TEST(PaletteRecord, PutOnRecordWithoutPaletteAndDeepBitmaps) {
    BITMAPRECORD bm;
    ASSERT_EQ(K_InitBitmap(&bm, BITMAPRECORD_SIZE, 4, 4, 2), KS_SUCCESS);
    ASSERT_EQ(bm.pPalette, nullptr);
    RGBQUAD red = rgb(255, 0, 0);
    EXPECT_EQ(K_PutBitmapColors(&bm, 1, 1, &red), 1);
    ASSERT_NE(bm.pPalette, nullptr);
    const RGBQUAD* fixed = K_IntGetFixedPalette(2);
    EXPECT_TRUE(same(bm.pPalette[0], fixed[0]) && same(bm.pPalette[1], red) && same(bm.pPalette[3], fixed[3]));
    K_FreeBitmap(&bm);

    Bitmap deep;
    ASSERT_EQ(deep.create(4, 4, 24), KS_SUCCESS);
    RGBQUAD out[4];
    EXPECT_EQ(K_GetBitmapColors(&deep.bm, 0, 4, out), 0);  // no colours
    EXPECT_EQ(K_CreateBitmapFixedPalette(&deep.bm), KS_INVALID_BITS_PER_PIXEL);
    EXPECT_EQ(K_CreateBitmapGrayPalette(&deep.bm), KS_INVALID_BITS_PER_PIXEL);
    EXPECT_EQ(K_SetBitmapPalette(&deep.bm, nullptr, 0), KS_INVALID_PARAMETER);
    std::vector<RGBQUAD> big(256, rgb(9, 9, 9));
    EXPECT_EQ(K_SetBitmapPalette(&deep.bm, big.data(), 256), KS_SUCCESS);
    EXPECT_EQ(K_PutBitmapColors(&deep.bm, 255, 2, big.data()), KS_INVALID_PARAMETER);
    EXPECT_EQ(K_SetBitmapPalette(&deep.bm, big.data(), 10), KS_SUCCESS);
    RGBQUAD* block = deep.bm.pPalette;
    EXPECT_EQ(K_PutBitmapColors(&deep.bm, 10, 5, big.data()), 5);  // needs a larger block
    EXPECT_NE(deep.bm.pPalette, block);
    EXPECT_EQ(deep.bm.nColors, 15);
    EXPECT_EQ(K_GlobalSize(deep.bm.pPalette), 15 * sizeof(RGBQUAD));
}

TEST(PaletteRecord, CopyBitmapPalette) {
    Bitmap src, dst, deep, small;
    std::vector<RGBQUAD> pal(256);
    for (int i = 0; i < 256; ++i) pal[size_t(i)] = rgb(i, 255 - i, i / 2);
    ASSERT_EQ(src.create(4, 4, 8, ORDER_BGR, pal.data()), KS_SUCCESS);
    ASSERT_EQ(dst.create(4, 4, 8), KS_SUCCESS);
    ASSERT_EQ(K_CopyBitmapPalette(&dst.bm, &src.bm), KS_SUCCESS);
    EXPECT_NE(dst.bm.pPalette, src.bm.pPalette);
    EXPECT_EQ(K_CompareBitmapToPalette(&dst.bm, pal.data(), 256), KS_SUCCESS);
    EXPECT_EQ(K_CopyBitmapPalette(&dst.bm, &dst.bm), KS_SUCCESS);
    ASSERT_EQ(small.create(4, 4, 4), KS_SUCCESS);
    RGBQUAD* before = small.bm.pPalette;
    EXPECT_EQ(K_CopyBitmapPalette(&small.bm, &src.bm), KS_INVALID_PARAMETER);  // 256 entries do not fit 4 bits
    EXPECT_EQ(small.bm.pPalette, before);
    ASSERT_EQ(deep.create(4, 4, 24), KS_SUCCESS);
    ASSERT_EQ(K_CopyBitmapPalette(&dst.bm, &deep.bm), KS_SUCCESS);
    EXPECT_EQ(dst.bm.pPalette, nullptr);
    EXPECT_EQ(dst.bm.nColors, 256);
    EXPECT_EQ(K_CompareBitmapToPalette(&dst.bm, nullptr, 0), KS_SUCCESS);  // falls back to the fixed palette
    EXPECT_EQ(K_CopyBitmapPalette(nullptr, &src.bm), KS_INVALID_PARAMETER);
    BITMAPRECORD bad = src.bm;
    bad.uStructSize = 1;
    EXPECT_EQ(K_CopyBitmapPalette(&dst.bm, &bad), KS_INVALID_STRUCT_SIZE);
}

TEST(PaletteRecord, ColourValues) {
    Bitmap p8, grey16, rgb24;
    ASSERT_EQ(p8.create(2, 2, 8), KS_SUCCESS);  // fixed 8-bit palette
    ASSERT_EQ(grey16.create(2, 2, 16, ORDER_GRAY), KS_SUCCESS);
    ASSERT_EQ(rgb24.create(2, 2, 24), KS_SUCCESS);
    const RGBQUAD* fixed = K_IntGetFixedPalette(8);
    uint32_t v = 0;
    ASSERT_EQ(K_GetTrueColorValue(&p8.bm, KCOLOR_INDEX(77), &v), KS_SUCCESS);
    EXPECT_EQ(v, KCOLOR_RGB(fixed[77].rgbRed, fixed[77].rgbGreen, fixed[77].rgbBlue));
    ASSERT_EQ(K_GetTrueColorValue(&rgb24.bm, KCOLOR_RGB(1, 2, 3), &v), KS_SUCCESS);
    EXPECT_EQ(v, 0x030201u);
    EXPECT_EQ(K_GetTrueColorValue(&rgb24.bm, KCOLOR_INDEX(0), &v), KS_INVALID_PARAMETER);
    EXPECT_EQ(K_GetTrueColorValue(&p8.bm, KCOLOR_INDEX(256), &v), KS_INVALID_PARAMETER);
    EXPECT_EQ(K_GetTrueColorValue(&p8.bm, 0x02000000u, &v), KS_INVALID_PARAMETER);
    EXPECT_EQ(K_GetTrueColorValue(&p8.bm, 0, nullptr), KS_INVALID_PARAMETER);

    // Every index of the fixed palette translates to itself through a copy of it,
    // and an RGB colour to the nearest entry.
    Bitmap p8b;
    ASSERT_EQ(p8b.create(2, 2, 8), KS_SUCCESS);
    for (uint32_t i = 0; i < 256; ++i) {
        ASSERT_EQ(K_TranslateBitmapColor(&p8b.bm, &p8.bm, KCOLOR_INDEX(i), &v), KS_SUCCESS);
        EXPECT_EQ(v, KCOLOR_INDEX(i));
    }
    ASSERT_EQ(K_TranslateBitmapColor(&p8b.bm, nullptr, KCOLOR_RGB(250, 3, 120), &v), KS_SUCCESS);
    EXPECT_EQ(v, KCOLOR_INDEX(K_FindPaletteIndex(fixed, 256, 250, 3, 120)));
    ASSERT_EQ(K_TranslateBitmapColor(&grey16.bm, &p8.bm, KCOLOR_INDEX(255), &v), KS_SUCCESS);
    EXPECT_EQ(v, KCOLOR_RGB(255, 255, 255));
    ASSERT_EQ(K_TranslateBitmapColor(&grey16.bm, nullptr, KCOLOR_RGB(200, 100, 40), &v), KS_SUCCESS);
    const int g = (2 * 200 + 5 * 100 + 40 + 4) >> 3;
    EXPECT_EQ(v, KCOLOR_RGB(g, g, g));
    ASSERT_EQ(K_TranslateBitmapColor(&rgb24.bm, &p8.bm, KCOLOR_INDEX(3), &v), KS_SUCCESS);
    EXPECT_EQ(v, KCOLOR_RGB(fixed[3].rgbRed, fixed[3].rgbGreen, fixed[3].rgbBlue));
    EXPECT_EQ(K_TranslateBitmapColor(&rgb24.bm, nullptr, KCOLOR_INDEX(3), &v), KS_INVALID_PARAMETER);
    // A 1-bit destination answers an index of its black and white palette.
    Bitmap p1;
    ASSERT_EQ(p1.create(2, 2, 1), KS_SUCCESS);
    ASSERT_EQ(K_TranslateBitmapColor(&p1.bm, nullptr, KCOLOR_RGB(250, 240, 230), &v), KS_SUCCESS);
    EXPECT_EQ(v, KCOLOR_INDEX(1));
}

// ---------------------------------------------------------------- used colours

// 5- and 6-bit fields widen by repeating their top bits.
uint32_t wide5(uint32_t v) { return v * 8 + v / 4; }
uint32_t wide6(uint32_t v) { return v * 4 + v / 16; }

TEST(PaletteRecord, UsedColoursOfDeepBitmaps) {
    struct Case {
        int bpp, order;
    } cases[] = {{24, ORDER_BGR}, {24, ORDER_RGB}, {32, ORDER_BGR}, {48, ORDER_RGB}, {16, ORDER_RGB565},
                 {16, ORDER_BGR}, {16, ORDER_GRAY}};
    std::mt19937 rng(5);
    for (const Case& c : cases) {
        SCOPED_TRACE(c.bpp * 100 + c.order);
        Bitmap b;
        ASSERT_EQ(b.create(17, 9, c.bpp, c.order), KS_SUCCESS);
        ASSERT_EQ(K_AccessBitmap(&b.bm), KS_SUCCESS);
        std::set<uint32_t> want;
        for (int y = 0; y < 9; ++y)
            for (int x = 0; x < 17; ++x) {
                uint8_t* p = b.bm.pData + size_t(y) * b.bm.nBytesPerLine + size_t(x) * size_t(c.bpp / 8);
                uint32_t r = rng() % 3 * 100, g = rng() % 3 * 100, bl = rng() % 3 * 100;
                if (c.bpp == 24 || c.bpp == 32) {
                    p[0] = uint8_t(c.order == ORDER_RGB ? r : bl);
                    p[1] = uint8_t(g);
                    p[2] = uint8_t(c.order == ORDER_RGB ? bl : r);
                    if (c.bpp == 32) p[3] = uint8_t(rng());
                } else if (c.bpp == 48) {
                    uint16_t w[3] = {uint16_t(r * 256 + rng() % 256), uint16_t(g * 257), uint16_t(bl * 256 + 255)};
                    std::memcpy(p, w, 6);
                } else if (c.order == ORDER_RGB565) {
                    uint16_t w = uint16_t((r >> 3) << 11 | (g >> 2) << 5 | (bl >> 3));
                    std::memcpy(p, &w, 2);
                    r = wide5(r >> 3), g = wide6(g >> 2), bl = wide5(bl >> 3);
                } else if (c.order == ORDER_BGR) {
                    uint16_t w = uint16_t((r >> 3) << 10 | (g >> 3) << 5 | (bl >> 3));
                    std::memcpy(p, &w, 2);
                    r = wide5(r >> 3), g = wide5(g >> 3), bl = wide5(bl >> 3);
                } else {
                    uint16_t w = uint16_t(g * 257);
                    std::memcpy(p, &w, 2);
                    r = bl = g;
                }
                want.insert(r << 16 | g << 8 | bl);
            }
        K_ReleaseBitmap(&b.bm);
        int32_t n = -1;
        std::vector<RGBQUAD> got(64);
        ASSERT_EQ(K_GetBitmapPaletteEntries(&b.bm, got.data(), 3, &n), KS_SUCCESS);
        ASSERT_EQ(size_t(n), want.size());
        auto it = want.begin();
        for (int i = 0; i < 3 && it != want.end(); ++i, ++it)
            EXPECT_TRUE(same(got[size_t(i)], rgb(int(*it >> 16), int(*it >> 8 & 255), int(*it & 255))));
        EXPECT_EQ(got[3].rgbReserved, 0);  // nothing past nMaxEntries (vector was zeroed)
    }
    Bitmap romm, empty;
    ASSERT_EQ(romm.create(2, 2, 24, ORDER_ROMM), KS_SUCCESS);
    int32_t n;
    EXPECT_EQ(K_GetBitmapPaletteEntries(&romm.bm, nullptr, 0, &n), KS_UNSUPPORTED_CONVERSION);
    EXPECT_EQ(K_GetBitmapPaletteEntries(&empty.bm, nullptr, 0, &n), KS_INVALID_BITMAP);
    EXPECT_EQ(K_GetBitmapPaletteEntries(&romm.bm, nullptr, 0, nullptr), KS_INVALID_PARAMETER);
    EXPECT_EQ(K_GetBitmapPaletteEntries(&romm.bm, nullptr, 4, &n), KS_INVALID_PARAMETER);
}

// The used colours come through the row layer: every storage kind answers
// what a plain scan of the same pixels finds, whatever the padding bits hold.
TEST(PaletteRecord, UsedColoursOnEveryStorageKind) {
    using namespace storagetest;
    constexpr int32_t W = 37, H = 23;
    for (int bpp : {1, 2, 3, 4, 5, 6, 7, 8, 24}) {
        RefImage ref(W, H, bpp);
        std::fill(ref.px.begin(), ref.px.end(), uint8_t(0xFF));  // padding bits set on purpose
        std::mt19937 rng{uint32_t(bpp)};
        std::vector<RGBQUAD> pal(bpp <= 8 ? size_t(1) << bpp : 0);
        for (auto& e : pal) e = rgb(int(rng() % 5) * 60, int(rng() % 5) * 60, int(rng() % 2) * 60);  // duplicates likely
        std::set<uint32_t> want;
        for (int32_t y = 0; y < H; ++y)
            for (int32_t x = 0; x < W; ++x) {
                uint32_t r = rng() % 4 * 70, g = rng() % 4 * 70, bl = rng() % 4 * 70;
                if (bpp <= 8) {
                    const uint32_t v = rng() % (1u << bpp);
                    setPixel(ref.row(y), x, bpp, v);
                    r = pal[v].rgbRed, g = pal[v].rgbGreen, bl = pal[v].rgbBlue;
                } else {
                    uint8_t* p = ref.row(y) + 3 * x;
                    p[0] = uint8_t(bl), p[1] = uint8_t(g), p[2] = uint8_t(r);
                }
                want.insert(r << 16 | g << 8 | bl);
            }
        for (Kind k : kindsFor(bpp)) {
            SCOPED_TRACE(std::string(kindName(k)) + ", " + std::to_string(bpp) + " bits");
            KindBitmap kb(k, W, H, bpp);
            ASSERT_EQ(kb.rc, KS_SUCCESS);
            if (bpp <= 8) {
                ASSERT_EQ(K_SetBitmapPalette(&kb.bm, pal.data(), int32_t(pal.size())), KS_SUCCESS);
            }
            for (int32_t y = 0; y < H; ++y) ASSERT_GT(K_PutBitmapRow(&kb.bm, ref.row(y), y, ref.bpl), 0);
            int32_t n = -1, n2 = -1;
            std::vector<RGBQUAD> got(want.size() + 1);
            ASSERT_EQ(K_GetBitmapPaletteEntries(&kb.bm, got.data(), int32_t(got.size()), &n), KS_SUCCESS);
            ASSERT_EQ(size_t(n), want.size());
            size_t i = 0;
            for (uint32_t c : want) EXPECT_TRUE(same(got[i++], rgb(int(c >> 16), int(c >> 8 & 255), int(c & 255))));
            ASSERT_EQ(K_GetBitmapPaletteEntries(&kb.bm, nullptr, 0, &n2), KS_SUCCESS);  // only counted
            EXPECT_EQ(n2, n);
        }
    }
}

// Every allocation of the record helpers failing in turn: the status is -1,
// the record is unchanged and nothing leaks.
TEST(PaletteRecord, AllocationFailureSweep) {
    Bitmap b;
    ASSERT_EQ(b.create(8, 8, 8), KS_SUCCESS);
    Bitmap src;
    std::vector<RGBQUAD> pal(256, rgb(1, 2, 3));
    ASSERT_EQ(src.create(8, 8, 8, ORDER_BGR, pal.data()), KS_SUCCESS);
    BITMAPRECORD deep;
    ASSERT_EQ(K_InitBitmap(&deep, BITMAPRECORD_SIZE, 4, 4, 24), KS_SUCCESS);
    K_GetUserMatchTable();
    using Op = std::function<int32_t()>;
    RGBQUAD red = rgb(255, 0, 0);
    const Op ops[] = {
        [&] { return K_SetBitmapPalette(&b.bm, pal.data(), 100); },
        [&] { return K_CopyBitmapPalette(&b.bm, &src.bm); },
        [&] { return K_CreateBitmapGrayPalette(&b.bm); },
        [&] { return K_CreateBitmapFixedPalette(&b.bm); },
        [&] { return K_PutBitmapColors(&deep, 0, 1, &red); },
        [&] {
            int32_t n;
            return K_GetBitmapPaletteEntries(&b.bm, nullptr, 0, &n);
        },
    };
    for (const Op& op : ops) {
        const BITMAPRECORD snapB = b.bm, snapDeep = deep;
        std::vector<RGBQUAD> colours(b.bm.pPalette, b.bm.pPalette + 256);
        const long live = krn::faultinject::liveBlocks();
        krn::faultinject::arm(0, -1);
        int32_t rc = op();
        krn::faultinject::disarm();
        EXPECT_EQ(rc, KS_NO_MEMORY);
        EXPECT_EQ(krn::faultinject::liveBlocks(), live);
        EXPECT_EQ(std::memcmp(&snapB, &b.bm, sizeof snapB), 0);
        EXPECT_EQ(std::memcmp(&snapDeep, &deep, sizeof deep), 0);
        EXPECT_EQ(std::memcmp(colours.data(), b.bm.pPalette, 256 * sizeof(RGBQUAD)), 0);
        EXPECT_GE(op(), 0);  // and it works once memory is back
    }
    K_FreeBitmap(&deep);
}

}  // namespace
