// test_dither.cpp - the dithering engine: the export frame, every method
// against a plain reference ditherer, the fixed-palette quantisers against
// the nearest-colour rule, mean preservation, the ordered threshold rule,
// palette paths, source depths, packing, and allocation-failure sweeps.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "convert_reference.h"
#include "dither_ref.h"
#include "ombrix.h"
#include "krn/common/dither.h"
#include "krn/common/hooks.h"
#include "krn/common/memory.h"
#include "krn/common/palette.h"

namespace {

using ditherref::Rgb;

// A record describing rows of a format, with an optional source palette
// owned by the record.
struct Rec {
    BITMAPRECORD bm{};
    Rec(int width, int bpp, int order, int method, const std::vector<RGBQUAD>* pal = nullptr) {
        EXPECT_EQ(K_InitBitmap(&bm, BITMAPRECORD_SIZE, width, 1, bpp), KS_SUCCESS);
        bm.nOrder = order;
        bm.nDitheringMethod = method;
        if (pal) {
            bm.pPalette = static_cast<RGBQUAD*>(K_GlobalAlloc(GMEM_FIXED, pal->size() * sizeof(RGBQUAD)));
            std::memcpy(bm.pPalette, pal->data(), pal->size() * sizeof(RGBQUAD));
            bm.nColors = int32_t(pal->size());
        }
    }
    ~Rec() { K_FreeBitmap(&bm); }
};

RGBQUAD quad(int r, int g, int b, int reserved = 0) {
    return RGBQUAD{uint8_t(b), uint8_t(g), uint8_t(r), uint8_t(reserved)};
}

std::vector<RGBQUAD> fixedPal(int bits) {
    std::vector<RGBQUAD> p(size_t(1) << bits);
    EXPECT_EQ(K_GetFixedPalette(p.data(), bits), KS_SUCCESS);
    return p;
}
std::vector<RGBQUAD> webPal() {
    const RGBQUAD* w = K_IntGetNetscapePalette();
    return std::vector<RGBQUAD>(w, w + 256);
}

std::vector<Rgb> coloursOf(const std::vector<RGBQUAD>& p) {
    std::vector<Rgb> c;
    for (const auto& e : p) c.push_back({e.rgbRed, e.rgbGreen, e.rgbBlue});
    return c;
}

// Random test images: noise, gradients and flat patches (so that errors
// saturate and clamp).
std::vector<Rgb> testImage(int w, int h, uint32_t seed) {
    std::mt19937 rng(seed);
    std::vector<Rgb> img(size_t(w) * size_t(h));
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x) {
            Rgb& p = img[size_t(y) * size_t(w) + size_t(x)];
            switch ((x / 13 + y / 5) % 4) {
                case 0: p = {int(rng() & 255), int(rng() & 255), int(rng() & 255)}; break;
                case 1: p = {(x * 255) / std::max(1, w - 1), (y * 37) & 255, 255 - ((x * 7) & 255)}; break;
                case 2: p = {250, 250, 5}; break;
                default: p = {int(rng() % 6) * 51, 128, int(rng() & 1) * 255};
            }
        }
    return img;
}

std::vector<uint8_t> bgrRow(const std::vector<Rgb>& img, int w, int y) {
    std::vector<uint8_t> row(size_t(w) * 3);
    for (int x = 0; x < w; ++x) {
        const Rgb& p = img[size_t(y) * size_t(w) + size_t(x)];
        row[3 * size_t(x)] = uint8_t(p.b);
        row[3 * size_t(x) + 1] = uint8_t(p.g);
        row[3 * size_t(x) + 2] = uint8_t(p.r);
    }
    return row;
}

int unpackIndex(const uint8_t* row, int x, int bits) {
    int v = 0;
    for (int k = 0; k < bits; ++k) {
        size_t bit = size_t(x) * size_t(bits) + size_t(k);
        v = (v << 1) | ((row[bit / 8] >> (7 - bit % 8)) & 1);
    }
    return v;
}

// Runs a 24-bit BGR image through the library; returns the indices.
std::vector<int> runLibrary(int method, int w, int h, const std::vector<Rgb>& img, const RGBQUAD* pal,
                            uint32_t colors, int bits = 0, const uint32_t* table = nullptr) {
    Rec rec(w, 24, ORDER_BGR, method);
    int32_t r = bits ? K_StartDitheringExt(&rec.bm, pal, colors, bits, table)
                     : K_StartDithering(&rec.bm, pal, colors);
    EXPECT_EQ(r, KS_SUCCESS);
    if (!bits) {
        bits = 1;
        while ((1u << bits) < colors) ++bits;
    }
    std::vector<int> out;
    std::vector<uint8_t> dst((size_t(w) * size_t(bits) + 7) / 8 + 4, 0xA5);
    for (int y = 0; y < h; ++y) {
        auto row = bgrRow(img, w, y);
        EXPECT_EQ(K_DitherLine(&rec.bm, row.data(), dst.data()), KS_SUCCESS);
        for (int x = 0; x < w; ++x) out.push_back(unpackIndex(dst.data(), x, bits));
    }
    EXPECT_EQ(K_StopDithering(&rec.bm), KS_SUCCESS);
    return out;
}

// The 5-5-5 match table as the palette family defines it, from the nearest-colour oracle over
// the usable entries (reserved byte without its two low bits).
std::vector<uint32_t> referenceTable(const std::vector<RGBQUAD>& pal) {
    std::vector<RGBQUAD> usable;
    std::vector<int> index;
    for (size_t i = 0; i < pal.size(); ++i)
        if (!(pal[i].rgbReserved & 3)) usable.push_back(pal[i]), index.push_back(int(i));
    std::vector<uint32_t> t(32768);
    for (uint32_t k = 0; k < 32768; ++k) {
        int j = krn::findPaletteIndexScalar(usable.data(), int(usable.size()), int((k >> 7) & 0xF8),
                                            int(((k >> 5) & 31) * 8), int((k & 31) * 8));
        t[k] = uint32_t(index[size_t(j)]) + 1;
    }
    return t;
}
int tableLookup(const std::vector<uint32_t>& t, int r, int g, int b) {
    return int(t[size_t((b >> 3) | ((g & 0xF8) << 2) | ((r & 0xF8) << 7))]) - 1;
}

// Level spacing of the ordered methods on palettes of more than two colours.
void spacingFor(int code, int colors, int out[3]) {
    auto all = [&](int v) { out[0] = out[1] = out[2] = v; };
    switch (code) {
        case 3: all(85); break;
        case 4: all(255); break;
        case 5: all(128); break;
        case 6: out[0] = 85, out[1] = 85, out[2] = 255; break;
        case 7: all(85); break;
        case 8: out[0] = 85, out[1] = 36, out[2] = 85; break;
        case 9: out[0] = 36, out[1] = 36, out[2] = 85; break;
        case 10: all(51); break;
        default: {
            int levels = 2;
            while ((levels + 1) * (levels + 1) * (levels + 1) <= 2 * colors && levels < 16) ++levels;
            all(255 / (levels - 1));
        }
    }
}

ditherref::Target fixedTarget(int code, const std::vector<RGBQUAD>& pal) {
    ditherref::Target t;
    t.colours = coloursOf(pal);
    if (code == 2)
        t.quantise = [](int r, int g, int b) { return (2 * r + 5 * g + b + 4) >> 10; };
    else if (code == 3)
        t.quantise = [](int r, int g, int b) { return (2 * r + 5 * g + b + 4) >> 9; };
    else
        t.quantise = [code](int r, int g, int b) { return krn::quantiseFixed(code, r, g, b); };
    t.twoColour = code == 2;
    spacingFor(code, int(pal.size()), t.spacing);
    return t;
}

ditherref::Target tableTarget(const std::vector<RGBQUAD>& pal) {
    ditherref::Target t;
    t.colours = coloursOf(pal);
    auto table = std::make_shared<std::vector<uint32_t>>(referenceTable(pal));
    t.quantise = [table](int r, int g, int b) { return tableLookup(*table, r, g, b); };
    std::vector<int> usable;
    for (size_t i = 0; i < pal.size(); ++i)
        if (!(pal[i].rgbReserved & 3)) usable.push_back(int(i));
    if (usable.size() == 2) {
        t.twoColour = true;
        const Rgb a = t.colours[size_t(usable[0])], b = t.colours[size_t(usable[1])];
        bool aDark = ditherref::grey(a.r, a.g, a.b) <= ditherref::grey(b.r, b.g, b.b);
        t.darkIndex = aDark ? usable[0] : usable[1];
        t.brightIndex = aDark ? usable[1] : usable[0];
    }
    spacingFor(0, int(usable.size()), t.spacing);
    return t;
}

std::vector<RGBQUAD> shuffled(std::vector<RGBQUAD> p, uint32_t seed) {
    std::mt19937 rng(seed);
    std::shuffle(p.begin(), p.end(), rng);
    return p;
}

std::vector<RGBQUAD> randomPalette(int n, uint32_t seed) {
    std::mt19937 rng(seed);
    std::vector<RGBQUAD> p;
    for (int i = 0; i < n; ++i) p.push_back(quad(int(rng() & 255), int(rng() & 255), int(rng() & 255)));
    return p;
}

// ---------------------------------------------------------------- frame

TEST(DitherFrame, ChecksPointerSizeThenValues) {
    Rec rec(8, 24, ORDER_BGR, 1);
    uint8_t src[32] = {}, dst[32] = {};
    EXPECT_EQ(K_StartDithering(nullptr, nullptr, 2), KS_INVALID_PARAMETER);
    BITMAPRECORD bad = rec.bm;
    bad.uStructSize = 100;
    EXPECT_EQ(K_StartDithering(&bad, nullptr, 0), KS_INVALID_STRUCT_SIZE);
    EXPECT_EQ(K_StartDitheringExt(&bad, nullptr, 2, 1, nullptr), KS_INVALID_STRUCT_SIZE);
    // Each case spoils one value of a good record (or the call's arguments).
    struct BadStart {
        const char* what;
        void (*spoil)(BITMAPRECORD&);
        uint32_t colors;
        int bits;  // -1: the plain start
        int32_t expect;
    };
    const BadStart bads[] = {
        {"no colours", [](BITMAPRECORD&) {}, 0, -1, KS_INVALID_PARAMETER},
        {"257 colours", [](BITMAPRECORD&) {}, 257, -1, KS_INVALID_PARAMETER},
        {"16 colours in 3 bits", [](BITMAPRECORD&) {}, 16, 3, KS_INVALID_PARAMETER},
        {"0 bits", [](BITMAPRECORD&) {}, 2, 0, KS_INVALID_PARAMETER},
        {"9 bits", [](BITMAPRECORD&) {}, 2, 9, KS_INVALID_PARAMETER},
        {"method 9", [](BITMAPRECORD& b) { b.nDitheringMethod = 9; }, 2, -1, KS_INVALID_PARAMETER},
        {"method -1", [](BITMAPRECORD& b) { b.nDitheringMethod = -1; }, 2, -1, KS_INVALID_PARAMETER},
        {"9 bpp", [](BITMAPRECORD& b) { b.nBitsPerPixel = 9; }, 2, -1, KS_INVALID_BITS_PER_PIXEL},
        {"16-bit wide-primaries", [](BITMAPRECORD& b) { b.nBitsPerPixel = 16, b.nOrder = ORDER_ROMM; }, 2, -1,
         KS_INVALID_PARAMETER},
        {"width 0", [](BITMAPRECORD& b) { b.nWidth = 0; }, 2, -1, KS_INVALID_DIMENSIONS},
        {"width 2^29", [](BITMAPRECORD& b) { b.nWidth = 1 << 29; }, 2, -1, KS_INVALID_DIMENSIONS},
        {"high bit beyond the sample",
         [](BITMAPRECORD& b) { b.nBitsPerPixel = 16, b.nOrder = ORDER_GRAY, b.nLowBit = 3, b.nHighBit = 16; }, 2, -1,
         KS_INVALID_PARAMETER},
        {"low bit above high bit",
         [](BITMAPRECORD& b) { b.nBitsPerPixel = 16, b.nOrder = ORDER_GRAY, b.nLowBit = 9, b.nHighBit = 8; }, 2, -1,
         KS_INVALID_PARAMETER},
    };
    for (const auto& c : bads) {
        BITMAPRECORD b = rec.bm;
        c.spoil(b);
        const int32_t r = c.bits >= 0 ? K_StartDitheringExt(&b, nullptr, c.colors, c.bits, nullptr)
                                 : K_StartDithering(&b, nullptr, c.colors);
        EXPECT_EQ(r, c.expect) << c.what;
        EXPECT_EQ(b.pDitherState, nullptr) << c.what;  // nothing was started by the failure
    }

    EXPECT_EQ(K_DitherLine(nullptr, src, dst), KS_INVALID_PARAMETER);
    EXPECT_EQ(K_DitherLine(&bad, src, dst), KS_INVALID_STRUCT_SIZE);
    EXPECT_EQ(K_DitherLine(&rec.bm, src, dst), KS_INVALID_PARAMETER);  // no run
    ASSERT_EQ(K_StartDithering(&rec.bm, nullptr, 2), KS_SUCCESS);
    EXPECT_EQ(K_DitherLine(&rec.bm, nullptr, dst), KS_INVALID_PARAMETER);
    EXPECT_EQ(K_DitherLine(&rec.bm, src, nullptr), KS_INVALID_PARAMETER);
    EXPECT_EQ(K_DitherLine(&rec.bm, src, dst), KS_SUCCESS);
    rec.bm.nWidth = 9;  // the run's rows no longer fit the record
    EXPECT_EQ(K_DitherLine(&rec.bm, src, dst), KS_INVALID_PARAMETER);
    rec.bm.nWidth = 8;
    EXPECT_EQ(K_StopDithering(nullptr), KS_INVALID_PARAMETER);
    EXPECT_EQ(K_StopDithering(&bad), KS_INVALID_STRUCT_SIZE);
    EXPECT_EQ(K_StopDithering(&rec.bm), KS_SUCCESS);
    EXPECT_EQ(rec.bm.pDitherState, nullptr);
    EXPECT_EQ(K_StopDithering(&rec.bm), KS_SUCCESS);  // no run: nothing to do
    EXPECT_EQ(K_DitherLine(&rec.bm, src, dst), KS_INVALID_PARAMETER);
}

TEST(DitherFrame, FreeBitmapStopsTheRunAndRestartReplacesIt) {
    K_GetDefaultDithering();  // per-thread block first
    const long before = krn::faultinject::liveBlocks();
    {
        BITMAPRECORD bm;
        ASSERT_EQ(K_CreateBitmap(&bm, BITMAPRECORD_SIZE, MEMTYPE_CONVENTIONAL, 50, 4, 24, ORDER_BGR, nullptr, 1,
                                 nullptr, 0),
                  KS_SUCCESS);
        bm.nDitheringMethod = 2;
        auto pal = randomPalette(10, 3);
        ASSERT_EQ(K_StartDithering(&bm, pal.data(), 10), KS_SUCCESS);
        void* first = bm.pDitherState;
        ASSERT_NE(first, nullptr);
        ASSERT_EQ(K_StartDithering(&bm, nullptr, 256), KS_SUCCESS);  // replaces the first run
        EXPECT_EQ(krn::ditherRunCode(&bm), krn::kCodeFixed256);
        K_FreeBitmap(&bm);
        EXPECT_EQ(bm.pDitherState, nullptr);
    }
    EXPECT_EQ(krn::faultinject::liveBlocks(), before);
}

TEST(DitherFrame, DefaultMethodIsPerThreadAndCopiedAtInit) {
    const int32_t old = K_GetDefaultDithering();
    EXPECT_EQ(K_DefaultDithering(6), old);
    EXPECT_EQ(K_GetDefaultDithering(), 6);
    EXPECT_EQ(K_DefaultDithering(9), KS_INVALID_PARAMETER);
    EXPECT_EQ(K_DefaultDithering(-1), KS_INVALID_PARAMETER);
    EXPECT_EQ(K_GetDefaultDithering(), 6);
    BITMAPRECORD bm;
    ASSERT_EQ(K_InitBitmap(&bm, BITMAPRECORD_SIZE, 4, 4, 24), KS_SUCCESS);
    EXPECT_EQ(bm.nDitheringMethod, 6);
    int32_t other = -5;
    std::thread([&] { other = K_GetDefaultDithering(); }).join();
    EXPECT_EQ(other, 0);
    EXPECT_EQ(K_DefaultDithering(old), 6);
}

// ---------------------------------------------------------- quantisers

// Every colour where the nearest entry is unique must get that entry, and
// every other colour one of the entries at the smallest distance.
void checkQuantiserAgainstNearest(int code, const std::vector<RGBQUAD>& pal, int step, long* ambiguous) {
    const int n = int(pal.size());
    long ties = 0, checked = 0;
    for (int r = 0; r < 256; r += (r + step > 255 && r != 255) ? 255 - r : step)
        for (int g = 0; g < 256; g += (g + step > 255 && g != 255) ? 255 - g : step)
            for (int b = 0; b < 256; b += (b + step > 255 && b != 255) ? 255 - b : step) {
                const int q = krn::quantiseFixed(code, r, g, b);
                ASSERT_GE(q, 0);
                ASSERT_LT(q, n);
                int best = 1 << 30, count = 0;
                for (int i = 0; i < n; ++i) {
                    int dr = pal[size_t(i)].rgbRed - r, dg = pal[size_t(i)].rgbGreen - g, db = pal[size_t(i)].rgbBlue - b;
                    int d = dr * dr + dg * dg + db * db;
                    if (d < best) best = d, count = 0;
                    if (d == best && !(pal[size_t(i)].rgbRed == pal[size_t(q)].rgbRed &&
                                       pal[size_t(i)].rgbGreen == pal[size_t(q)].rgbGreen &&
                                       pal[size_t(i)].rgbBlue == pal[size_t(q)].rgbBlue))
                        ++count;  // a different colour at the same distance
                }
                int dr = pal[size_t(q)].rgbRed - r, dg = pal[size_t(q)].rgbGreen - g, db = pal[size_t(q)].rgbBlue - b;
                ASSERT_EQ(dr * dr + dg * dg + db * db, best) << "code " << code << " at " << r << "," << g << "," << b;
                if (count == 0) {
                    // Unique nearest colour: the nearest-colour rule's index (duplicates of a
                    // colour, like the web palette's blacks, resolve to the first).
                    ASSERT_EQ(q, krn::findPaletteIndexScalar(pal.data(), n, r, g, b))
                        << "code " << code << " at " << r << "," << g << "," << b;
                } else {
                    ++ties;
                }
                ++checked;
                if (step == 1 && b == 255) break;
            }
    if (ambiguous) *ambiguous = ties;
    EXPECT_GT(checked, 0);
}

TEST(DitherQuantise, FixedCodesGiveTheNearestEntryOnADenseGrid) {
    for (int bits : {3, 4, 5, 6, 7, 8}) {
        SCOPED_TRACE(bits);
        checkQuantiserAgainstNearest(krn::kCodeFixed2 + bits - 1, fixedPal(bits), 5, nullptr);
    }
    checkQuantiserAgainstNearest(krn::kCodeWeb, webPal(), 5, nullptr);
    // The two-colour grey cut is the nearest-colour rule on greys.
    for (int v = 0; v < 256; ++v) EXPECT_EQ(krn::quantiseFixed(2, v, v, v), v >= 128 ? 1 : 0) << v;
}

// ------------------------------------------------------- against reference

struct PaletteCase {
    const char* name;
    std::vector<RGBQUAD> pal;
    bool passNull;   // pass a null palette (the fixed one of that size)
    int code;        // expected palette code
};

std::vector<PaletteCase> paletteCases() {
    std::vector<PaletteCase> c;
    c.push_back({"fixed2", fixedPal(1), true, 2});
    c.push_back({"fixed4", fixedPal(2), false, 3});
    c.push_back({"fixed8", fixedPal(3), true, 4});
    c.push_back({"fixed16", fixedPal(4), false, 5});
    c.push_back({"fixed32", fixedPal(5), true, 6});
    c.push_back({"fixed64", fixedPal(6), true, 7});
    c.push_back({"fixed128", fixedPal(7), false, 8});
    c.push_back({"fixed256", fixedPal(8), true, 9});
    c.push_back({"web", webPal(), false, 10});
    c.push_back({"shuffled16", shuffled(fixedPal(4), 5), false, 0});
    c.push_back({"random2", randomPalette(2, 9), false, 0});
    c.push_back({"random5", randomPalette(5, 10), false, 0});
    auto withReserved = randomPalette(40, 12);
    for (size_t i = 0; i < withReserved.size(); i += 3) withReserved[i].rgbReserved = uint8_t(1 + i % 3);
    c.push_back({"random40-reserved", withReserved, false, 0});
    return c;
}

TEST(DitherReference, EveryMethodAndPaletteMatchesThePlainDitherer) {
    const int widths[] = {1, 2, 3, 7, 33, 101, 257};
    uint32_t seed = 100;
    for (const auto& pc : paletteCases()) {
        const ditherref::Target target = pc.code >= 2 ? fixedTarget(pc.code, pc.pal) : tableTarget(pc.pal);
        for (int method = 0; method <= 8; ++method)
            for (int w : widths) {
                SCOPED_TRACE(std::string(pc.name) + " method " + std::to_string(method) + " width " +
                             std::to_string(w));
                const int h = 11;
                auto img = testImage(w, h, ++seed);
                auto expect = ditherref::dither(method, w, h, img, target);
                const RGBQUAD* pal = pc.passNull ? nullptr : pc.pal.data();
                ASSERT_EQ(runLibrary(method, w, h, img, pal, uint32_t(pc.pal.size())), expect);
                if (method != 1) continue;
                // The rolling Floyd-Steinberg kernel against the plain tap loop.
                krn::testhook::ditherPlainKernels = true;
                auto plain = runLibrary(method, w, h, img, pal, uint32_t(pc.pal.size()));
                krn::testhook::ditherPlainKernels = false;
                ASSERT_EQ(plain, expect);
            }
    }
}

TEST(DitherReference, PackingIsMostSignificantBitFirstWithClearedTail) {
    for (int bits = 1; bits <= 7; ++bits)
        for (int w : {1, 3, 5, 8, 9, 13}) {
            std::vector<RGBQUAD> pal = randomPalette(1 << bits, uint32_t(bits * 31 + w));
            auto img = testImage(w, 1, uint32_t(w));
            auto idx = runLibrary(0, w, 1, img, pal.data(), uint32_t(pal.size()), bits);
            auto expect = ditherref::pack(idx.data(), w, bits);
            Rec rec(w, 24, ORDER_BGR, 0);
            ASSERT_EQ(K_StartDitheringExt(&rec.bm, pal.data(), uint32_t(pal.size()), bits, nullptr), KS_SUCCESS);
            std::vector<uint8_t> dst(expect.size() + 2, 0xFF);
            auto row = bgrRow(img, w, 0);
            ASSERT_EQ(K_DitherLine(&rec.bm, row.data(), dst.data()), KS_SUCCESS);
            EXPECT_TRUE(std::equal(expect.begin(), expect.end(), dst.begin())) << bits << " bits, width " << w;
            EXPECT_EQ(dst[expect.size()], 0xFF) << "wrote past the packed row";
            // Deeper output depths pack the same indices.
            if (bits >= 2) {
                EXPECT_EQ(runLibrary(0, w, 1, img, pal.data(), uint32_t(pal.size()), 8), idx);
            }
        }
}

// --------------------------------------------------------------- proofs

// Mean of the output colours of a flat area equals the input colour.
TEST(DitherProof, ErrorDiffusionKeepsTheMeanOfFlatAreas) {
    struct Case {
        std::vector<RGBQUAD> pal;
        bool greyOnly;
    };
    const std::vector<Case> cases = {{fixedPal(1), true}, {fixedPal(2), true},  {fixedPal(3), false},
                                     {fixedPal(8), false}, {webPal(), false},   {shuffled(fixedPal(6), 3), false}};
    const std::vector<Rgb> colours = {{100, 100, 100}, {37, 37, 37}, {200, 200, 200}, {129, 90, 17}, {250, 3, 130},
                                      {64, 192, 240}};
    // Measured away from the image's edges, where errors leave the image.
    const int w = 256, h = 256, edge = 16;
    double worst = 0;
    for (int method = 1; method <= 6; ++method)
        for (const auto& c : cases)
            for (const Rgb& col : colours) {
                if (c.greyOnly && !(col.r == col.g && col.g == col.b)) continue;
                std::vector<Rgb> img(size_t(w) * size_t(h), col);
                auto idx = runLibrary(method, w, h, img, c.pal.data(), uint32_t(c.pal.size()));
                double sr = 0, sg = 0, sb = 0, n = 0;
                for (int y = edge; y < h - edge; ++y)
                    for (int x = edge; x < w - edge; ++x) {
                        const RGBQUAD& e = c.pal[size_t(idx[size_t(y) * size_t(w) + size_t(x)])];
                        sr += e.rgbRed, sg += e.rgbGreen, sb += e.rgbBlue, n += 1;
                    }
                SCOPED_TRACE("method " + std::to_string(method) + " palette of " + std::to_string(c.pal.size()) +
                             " colour " + std::to_string(col.r) + "," + std::to_string(col.g) + "," +
                             std::to_string(col.b));
                // Each pixel drops less than one level to the truncating division;
                // clamping near the ends of the range (250, 3) drops a little more.
                EXPECT_NEAR(sr / n, col.r, 1.25);
                EXPECT_NEAR(sg / n, col.g, 1.25);
                EXPECT_NEAR(sb / n, col.b, 1.25);
                worst = std::max({worst, std::fabs(sr / n - col.r), std::fabs(sg / n - col.g), std::fabs(sb / n - col.b)});
            }
    std::printf("largest deviation of a mean: %.3f levels\n", worst);
}

// The ordered runs themselves are in the reference sweep; a threshold cell
// off by one is rarely visible there, so both tables are compared with the
// copies the reference typed in again.
TEST(DitherProof, ThresholdTablesMatchTheReference) {
    for (int y = 0; y < 8; ++y)
        for (int x = 0; x < 8; ++x) {
            EXPECT_EQ(krn::kDitherDispersed[y][x], ditherref::kDispersed[y][x]) << y << "," << x;
            EXPECT_EQ(krn::kDitherClustered[y][x], ditherref::kClustered[y][x]) << y << "," << x;
        }
}

TEST(DitherProof, FixedPaletteInOrderTakesTheDirectPathShuffledTakesTheTable) {
    struct Case {
        const char* name;
        std::vector<RGBQUAD> pal;
        uint32_t count;
        int code;
    };
    std::vector<Case> cases = {{"web", webPal(), 256, krn::kCodeWeb},
                               // 100 entries of the 128-colour palette are not the fixed palette
                               {"first 100 of 128", fixedPal(7), 100, krn::kCodeBuiltTable},
                               // byte for byte, the reserved byte counts
                               {"reserved byte set", fixedPal(4), 16, krn::kCodeBuiltTable}};
    cases.back().pal[3].rgbReserved = 4;
    for (int bits = 1; bits <= 8; ++bits) {
        cases.push_back({"in order", fixedPal(bits), 1u << bits, krn::kCodeFixed2 + bits - 1});
        // two entries shuffle into themselves or a swap: the reference cases cover them
        if (bits > 1) cases.push_back({"shuffled", shuffled(fixedPal(bits), uint32_t(bits)), 1u << bits, krn::kCodeBuiltTable});
    }
    for (const auto& c : cases) {
        Rec rec(16, 24, ORDER_BGR, 0);
        ASSERT_EQ(K_StartDithering(&rec.bm, c.pal.data(), c.count), KS_SUCCESS);
        EXPECT_EQ(krn::ditherRunCode(&rec.bm), c.code) << c.name << " " << c.count;
    }

    // Observable: the 64-colour palette in order separates (42,0,0) and
    // (43,0,0), which share a cell of the 5-5-5 table; shuffled it cannot.
    std::vector<Rgb> img = {{42, 0, 0}, {43, 0, 0}, {40, 100, 200}, {47, 103, 207}};
    auto p64 = fixedPal(6);
    auto direct = runLibrary(0, 4, 1, img, p64.data(), 64);
    EXPECT_EQ(direct[0], 0);
    EXPECT_EQ(direct[1], 16);
    auto mixed = shuffled(p64, 99);
    auto viaTable = runLibrary(0, 4, 1, img, mixed.data(), 64);
    EXPECT_EQ(viaTable[0], viaTable[1]);
    EXPECT_EQ(viaTable[2], viaTable[3]);
}

TEST(DitherProof, CallerAndInstalledMatchTablesAreUsedAsGiven) {
    auto pal = randomPalette(16, 8);
    std::vector<uint32_t> table(32768);
    for (uint32_t k = 0; k < 32768; ++k) table[k] = (k % 7) + 1;  // index k % 7
    table[0] = 0;                                                  // "no entry": index 0
    std::vector<Rgb> img = {{0, 0, 0}, {0, 0, 8}, {0, 0, 16}, {255, 255, 255}};
    auto got = runLibrary(0, 4, 1, img, pal.data(), 16, 4, table.data());
    EXPECT_EQ(got, (std::vector<int>{0, 1, 2, int(32767 % 7)}));

    // A table installed for the thread stands in for the one a run would build.
    const uint32_t* old = K_SetUserMatchTable(table.data());
    Rec rec(4, 24, ORDER_BGR, 0);
    ASSERT_EQ(K_StartDithering(&rec.bm, pal.data(), 16), KS_SUCCESS);
    EXPECT_EQ(krn::ditherRunCode(&rec.bm), krn::kCodeCallerTable);
    auto viaInstalled = runLibrary(0, 4, 1, img, pal.data(), 16);
    EXPECT_EQ(viaInstalled, got);
    // Fixed palettes never look at it.
    ASSERT_EQ(K_StartDithering(&rec.bm, nullptr, 16), KS_SUCCESS);
    EXPECT_EQ(krn::ditherRunCode(&rec.bm), krn::kCodeFixed16);
    K_SetUserMatchTable(old);

    // Indices past the output depth are masked into it.
    for (auto& e : table) e = 200;  // index 199 = 0b11000111
    auto masked = runLibrary(0, 4, 1, img, pal.data(), 16, 4, table.data());
    EXPECT_EQ(masked, (std::vector<int>{7, 7, 7, 7}));
}

TEST(DitherProof, ErrorsNeverWrap) {
    // Floyd-Steinberg to black and white on one row of greys: 46 goes black and
    // carries 7 * 46 / 16 = 20 to the right; 250 + 20 is clamped to 255 (white)
    // and passes on no error, so the 125 after it stays black. Measured from
    // 270 it would pass on 7 * 15 / 16 = 6 and turn 125 white; wrapped to 14
    // it would turn the 250 black.
    std::vector<Rgb> img = {{46, 46, 46}, {250, 250, 250}, {125, 125, 125}};
    auto got = runLibrary(1, 3, 1, img, nullptr, 2);
    EXPECT_EQ(got, (std::vector<int>{0, 1, 0}));
    // Extreme images with every method stay in range (UBSan watches the sums).
    const int w = 301, h = 64;
    std::vector<Rgb> harsh(size_t(w) * size_t(h));
    for (size_t i = 0; i < harsh.size(); ++i) harsh[i] = (i / 3) % 2 ? Rgb{255, 255, 255} : Rgb{0, 255, 0};
    for (int method = 1; method <= 6; ++method) {
        auto pal = randomPalette(3, uint32_t(method));
        auto out = runLibrary(method, w, h, harsh, pal.data(), 3);
        for (int i : out) ASSERT_LT(i, 3);
        auto ref = ditherref::dither(method, w, h, harsh, tableTarget(pal));
        ASSERT_EQ(out, ref);
    }
}

// ---------------------------------------------------------- source depths

// A random source row in another format and the 24-bit colours it stands
// for, as the plain reference converter reads them.
struct SourceCase {
    int bits, order;
    std::vector<RGBQUAD> pal;  // 1..8 bits
    int lowBit = 0, highBit = -1;
};

// Appends h random rows of the source format and their colours.
void makeSourceRows(const SourceCase& c, int w, int h, std::mt19937& rng, std::vector<std::vector<uint8_t>>& rows,
                    std::vector<Rgb>& colours) {
    convref::Request q;
    q.width = w, q.srcBits = c.bits, q.srcOrder = c.order, q.dstBits = 24, q.dstOrder = ORDER_RGB;
    q.srcPal = c.bits <= 8 ? c.pal.data() : nullptr;
    q.flags = CONVERT_SRCRANGE | (c.order == ORDER_GRAY ? CONVERT_SRCGRAY : 0u);
    q.lowBit = c.lowBit, q.highBit = c.highBit;
    ASSERT_EQ(convref::expectedStatus(q), 1);
    for (int y = 0; y < h; ++y) {
        std::vector<uint8_t> row(convref::srcRunBytes(q));  // exactly sized: ASan sees overreads
        for (auto& v : row) v = uint8_t(rng());
        std::vector<uint8_t> buf = row;
        buf.resize(std::max(row.size(), convref::dstRunBytes(q)));
        const auto rgb = convref::convert(q, buf);
        for (int x = 0; x < w; ++x) colours.push_back({rgb[3 * size_t(x)], rgb[3 * size_t(x) + 1], rgb[3 * size_t(x) + 2]});
        rows.push_back(std::move(row));
    }
}

// Runs source rows through the library, reporting whether it chose the
// grey path; in place, each row is dithered over itself.
std::vector<int> runRows(const SourceCase& c, int w, int method, const std::vector<std::vector<uint8_t>>& rows,
                         const RGBQUAD* pal, uint32_t colors, bool* grey, bool inPlace = false) {
    Rec rec(w, c.bits, c.order, method, c.bits <= 8 ? &c.pal : nullptr);
    rec.bm.nLowBit = c.lowBit;
    rec.bm.nHighBit = c.highBit;
    EXPECT_EQ(K_StartDithering(&rec.bm, pal, colors), KS_SUCCESS);
    if (grey) *grey = krn::ditherRunIsGrey(&rec.bm);
    int bits = 1;
    while ((1u << bits) < colors) ++bits;
    const size_t outBytes = (static_cast<size_t>(w) * size_t(bits) + 7) / 8;
    std::vector<int> got;
    for (const auto& r : rows) {
        std::vector<uint8_t> src = r, dst(outBytes);
        if (inPlace) src.resize(std::max(src.size(), outBytes));
        EXPECT_EQ(K_DitherLine(&rec.bm, src.data(), inPlace ? src.data() : dst.data()), KS_SUCCESS);
        if (!inPlace) {
            EXPECT_EQ(src, r);  // the source row is not touched
        }
        for (int x = 0; x < w; ++x) got.push_back(unpackIndex(inPlace ? src.data() : dst.data(), x, bits));
    }
    return got;
}

TEST(DitherSource, EveryDepthDithersLikeItsColours) {
    std::vector<SourceCase> cases;
    for (int bits = 1; bits <= 8; ++bits) {
        cases.push_back({bits, ORDER_RGB, randomPalette(1 << bits, uint32_t(bits))});
        cases.push_back({bits, ORDER_RGB, fixedPal(bits)});
    }
    cases.push_back({12, ORDER_GRAY, {}});
    cases.push_back({12, ORDER_GRAY, {}, 2, 9});
    for (int order : {ORDER_RGB, ORDER_BGR, ORDER_GRAY, ORDER_RGB565}) cases.push_back({16, order, {}});
    cases.push_back({16, ORDER_GRAY, {}, 0, 11});
    cases.push_back({16, ORDER_GRAY, {}, 4, 8});  // a 5-bit window, scaled up
    for (int order : {ORDER_RGB, ORDER_BGR, ORDER_ROMM}) cases.push_back({24, order, {}});
    for (int order : {ORDER_RGB, ORDER_BGR, ORDER_GRAY}) cases.push_back({32, order, {}});
    cases.push_back({32, ORDER_GRAY, {}, 8, 23});
    for (int order : {ORDER_RGB, ORDER_BGR, ORDER_ROMM}) cases.push_back({48, order, {}});
    for (int order : {ORDER_RGB, ORDER_BGR, ORDER_ROMM}) cases.push_back({64, order, {}});

    auto target = fixedPal(8);
    std::mt19937 rng(1234);
    for (const auto& c : cases)
        for (int w : {1, 2, 5, 8, 17, 64}) {
            SCOPED_TRACE(std::to_string(c.bits) + " bits, order " + std::to_string(c.order) + ", width " +
                         std::to_string(w) + ", window " + std::to_string(c.lowBit) + ".." +
                         std::to_string(c.highBit));
            std::vector<std::vector<uint8_t>> rows;
            std::vector<Rgb> img;
            makeSourceRows(c, w, 4, rng, rows, img);
            ASSERT_EQ(runRows(c, w, 2, rows, target.data(), 256, nullptr), runLibrary(2, w, 4, img, target.data(), 256));
        }
}

TEST(DitherSource, PaletteSourceWithoutPaletteUsesFixedOrGreyRamp) {
    std::vector<uint8_t> src = {0x1B};  // 2-bit indices 0, 1, 2, 3
    auto target = fixedPal(8);
    for (int order : {ORDER_RGB, ORDER_GRAY}) {
        Rec rec(4, 2, order, 0);
        ASSERT_EQ(K_StartDithering(&rec.bm, target.data(), 256), KS_SUCCESS);
        uint8_t dst[4];
        ASSERT_EQ(K_DitherLine(&rec.bm, src.data(), dst), KS_SUCCESS);
        // Fixed 2-bit palette and the 4-level grey ramp are both 0, 85, 170, 255.
        for (int i = 0; i < 4; ++i) EXPECT_EQ(dst[i], krn::quantiseFixed(9, 85 * i, 85 * i, 85 * i));
    }
}

// In place matches a separate destination: colour rows (copied first) and
// grey-ramp 8-bit rows (read as they are), packed and byte outputs.
TEST(DitherSource, InPlaceRowsGiveTheSameResult) {
    std::vector<RGBQUAD> ramp(256);
    for (int v = 0; v < 256; ++v) ramp[size_t(v)] = RGBQUAD{uint8_t(v), uint8_t(v), uint8_t(v), 0};
    const SourceCase sources[] = {{24, ORDER_BGR, {}}, {8, ORDER_RGB, ramp}};
    std::mt19937 rng(17);
    for (const auto& c : sources)
        for (int method : {1, 2, 7})
            for (uint32_t colors : {2u, 16u, 256u}) {
                SCOPED_TRACE(std::to_string(c.bits) + " bits, method " + std::to_string(method) + ", " +
                             std::to_string(colors) + " colours");
                const int w = 93;
                std::vector<std::vector<uint8_t>> rows(7, std::vector<uint8_t>(size_t(w) * size_t(c.bits) / 8));
                for (auto& r : rows)
                    for (auto& v : r) v = uint8_t(rng());
                std::vector<RGBQUAD> target(colors);  // greys, evenly spaced
                for (uint32_t k = 0; k < colors; ++k) {
                    const auto v = uint8_t(k * 255 / (colors - 1));
                    target[k] = RGBQUAD{v, v, v, 0};
                }
                bool grey = false;
                auto apart = runRows(c, w, method, rows, target.data(), colors, &grey);
                EXPECT_EQ(grey, c.bits == 8);
                ASSERT_EQ(runRows(c, w, method, rows, target.data(), colors, nullptr, true), apart);
            }
}

// ------------------------------------------------------------ grey runs

std::vector<RGBQUAD> greyRamp(int n) {
    std::vector<RGBQUAD> p;
    for (int k = 0; k < n; ++k) {
        int v = n == 1 ? 0 : k * 255 / (n - 1);
        p.push_back(quad(v, v, v));
    }
    return p;
}


TEST(DitherGrey, GreySourcesIntoGreyTargetsMatchTheColourPath) {
    auto curve = greyRamp(256);
    for (auto& e : curve) e.rgbRed = e.rgbGreen = e.rgbBlue = uint8_t(std::sqrt(e.rgbRed / 255.0) * 255.0);
    std::vector<SourceCase> sources = {
        {8, ORDER_RGB, greyRamp(256)}, {8, ORDER_RGB, curve},          {4, ORDER_RGB, greyRamp(16)},
        {1, ORDER_RGB, greyRamp(2)},   {12, ORDER_GRAY, {}},           {16, ORDER_GRAY, {}, 3, 12},
        {16, ORDER_GRAY, {}},          {32, ORDER_GRAY, {}}};
    struct TargetCase {
        std::vector<RGBQUAD> pal;
        bool passNull;
    };
    const std::vector<TargetCase> targets = {{fixedPal(1), true},
                                             {fixedPal(2), false},
                                             {greyRamp(16), false},
                                             {{quad(30, 30, 30), quad(128, 128, 128), quad(220, 220, 220)}, false},
                                             {{quad(200, 200, 200), quad(10, 10, 10)}, false}};
    std::mt19937 rng(99);
    for (const auto& c : sources)
        for (size_t t = 0; t < targets.size(); ++t)
            for (int method = 0; method <= 8; ++method)
                for (int w : {8, 45}) {
                const int h = 9;
                SCOPED_TRACE(std::to_string(c.bits) + " bits, target " + std::to_string(t) + ", method " +
                             std::to_string(method));
                std::vector<std::vector<uint8_t>> rows;
                std::vector<Rgb> img;
                makeSourceRows(c, w, h, rng, rows, img);
                const auto& tc = targets[t];
                const RGBQUAD* pal = tc.passNull ? nullptr : tc.pal.data();
                auto expect = runLibrary(method, w, h, img, pal, uint32_t(tc.pal.size()));
                bool grey = false;
                auto got = runRows(c, w, method, rows, pal, uint32_t(tc.pal.size()), &grey);
                EXPECT_TRUE(grey);
                ASSERT_EQ(got, expect);
                if (method == 1) {
                    krn::testhook::ditherPlainKernels = true;
                    auto plain = runRows(c, w, method, rows, pal, uint32_t(tc.pal.size()), nullptr);
                    krn::testhook::ditherPlainKernels = false;
                    ASSERT_EQ(plain, expect);
                }
                }
}

TEST(DitherGrey, ColourOnEitherSideKeepsThreeChannels) {
    std::mt19937 rng(1);
    std::vector<Rgb> cols;
    std::vector<std::vector<uint8_t>> rows;
    SourceCase greySrc{8, ORDER_RGB, greyRamp(256)};
    makeSourceRows(greySrc, 8, 1, rng, rows, cols);
    const auto& row = rows[0];
    bool grey = true;
    runRows(greySrc, 8, 1, {row}, nullptr, 16, &grey);  // the sixteen colours
    EXPECT_FALSE(grey);
    auto tinted = greyRamp(256);
    tinted[17].rgbBlue ^= 1;  // one entry not grey
    SourceCase tintedSrc{8, ORDER_RGB, tinted};
    runRows(tintedSrc, 8, 1, {row}, nullptr, 2, &grey);
    EXPECT_FALSE(grey);
    runRows(greySrc, 8, 1, {row}, nullptr, 2, &grey);
    EXPECT_TRUE(grey);
}

// ------------------------------------------------------------- threads

TEST(DitherThreads, RunsOnSeparateRecordsAreIndependent) {
    // Runs keep all their state on the record: threads dithering at once give
    // what each gives alone.
    const int w = 120, h = 40;
    auto img = testImage(w, h, 64);
    auto pal = randomPalette(20, 6);
    std::vector<std::vector<int>> alone;
    for (int m = 0; m < 4; ++m) alone.push_back(runLibrary(m * 2, w, h, img, m % 2 ? pal.data() : nullptr, m % 2 ? 20 : 256));
    std::vector<std::vector<int>> together(4);
    std::vector<std::thread> threads;
    for (int m = 0; m < 4; ++m)
        threads.emplace_back([&, m] {
            for (int k = 0; k < 5; ++k)
                together[size_t(m)] = runLibrary(m * 2, w, h, img, m % 2 ? pal.data() : nullptr, m % 2 ? 20 : 256);
        });
    for (auto& t : threads) t.join();
    for (int m = 0; m < 4; ++m) EXPECT_EQ(together[size_t(m)], alone[size_t(m)]) << "method " << m * 2;
}

// ------------------------------------------------------ allocation failures

TEST(DitherAlloc, StartSurvivesEveryAllocationFailure) {
    K_GetDefaultDithering();
    struct Config {
        int bits, order, method;
        bool callerPalette, callerTable;
    };
    const Config configs[] = {{24, ORDER_BGR, 1, false, false}, {24, ORDER_BGR, 2, true, false},
                              {4, ORDER_RGB, 5, true, false},   {16, ORDER_RGB565, 7, false, false},
                              {8, ORDER_RGB, 0, true, true},    {16, ORDER_GRAY, 1, false, false}};
    auto pal = randomPalette(12, 2);
    std::vector<uint32_t> table(32768, 3);
    for (const auto& cfg : configs) {
        Rec rec(40, cfg.bits, cfg.order, cfg.method);
        // An earlier run that a failed restart must leave working.
        ASSERT_EQ(K_StartDithering(&rec.bm, nullptr, 2), KS_SUCCESS);
        void* earlier = rec.bm.pDitherState;
        int failures = 0;
        for (long n = 0; n < 50; ++n) {
            BITMAPRECORD before = rec.bm;
            const long live = krn::faultinject::liveBlocks();
            krn::faultinject::arm(n);
            int32_t r = cfg.callerTable
                            ? K_StartDitheringExt(&rec.bm, pal.data(), 12, 4, table.data())
                            : K_StartDithering(&rec.bm, cfg.callerPalette ? pal.data() : nullptr,
                                               cfg.callerPalette ? 12 : 256);
            const long injected = krn::faultinject::injected();
            krn::faultinject::disarm();
            if (r == KS_SUCCESS) {
                EXPECT_EQ(injected, 0);
                break;
            }
            ++failures;
            ASSERT_EQ(r, KS_NO_MEMORY) << "failure at allocation " << n;
            EXPECT_EQ(std::memcmp(&before, &rec.bm, sizeof before), 0);
            EXPECT_EQ(krn::faultinject::liveBlocks(), live);
            EXPECT_EQ(rec.bm.pDitherState, earlier);
            uint8_t src[40 * 8] = {}, dst[64];
            EXPECT_EQ(K_DitherLine(&rec.bm, src, dst), KS_SUCCESS);
        }
        EXPECT_GE(failures, 2);  // state, scratch row (+ error rows, table)
        EXPECT_NE(rec.bm.pDitherState, earlier);
    }
}

}  // namespace
