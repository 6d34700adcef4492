// test_dither.cpp - the dithering engine against a plain reference ditherer (every method, palette, source depth,
// grey run, packing, block of rows), the fixed quantisers, the export frame, threads and allocation failures.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "convert_reference.h"
#include "dither_ref.h"
#include "krn/common/colorres.h"
#include "krn/common/dither.h"
#include "krn/common/memory.h"
#include "krn/common/palette.h"
#include "ombrix.h"
#include "photo_like.h"
#include "storage_kinds.h"
#include "transform_kit.h"

namespace {

using ditherref::Rgb;
using Rows = std::vector<std::vector<uint8_t>>;
using Pal = std::vector<RGBQUAD>;

// A one-row record of a format, with an optional source palette it owns.
struct Rec {
    BITMAPRECORD bm{};
    Rec(int width, int bpp, int order, int method, const Pal* pal = nullptr) {
        EXPECT_EQ(K_InitBitmap(&bm, BITMAPRECORD_SIZE, width, 1, bpp), KS_SUCCESS);
        bm.nOrder = order, bm.nDitheringMethod = method;
        EXPECT_TRUE(!pal || K_SetBitmapPalette(&bm, pal->data(), int32_t(pal->size())) == KS_SUCCESS);
    }
    ~Rec() { K_FreeBitmap(&bm); }
};

RGBQUAD quad(int r, int g, int b) { return RGBQUAD{uint8_t(b), uint8_t(g), uint8_t(r), 0}; }
Pal fixedPal(int bits) { return {K_IntGetFixedPalette(bits), K_IntGetFixedPalette(bits) + (1 << bits)}; }
Pal webPal() { return {K_IntGetNetscapePalette(), K_IntGetNetscapePalette() + 256}; }
Pal randomPalette(int n, uint32_t seed) {
    std::mt19937 rng(seed);
    Pal p;
    for (int i = 0; i < n; ++i) p.push_back(quad(int(rng() & 255), int(rng() & 255), int(rng() & 255)));
    return p;
}
Pal greyRamp(int n) {
    Pal p;
    for (int k = 0, v = 0; k < n; v = ++k * 255 / (n - 1)) p.push_back(quad(v, v, v));
    return p;
}
int bitsFor(uint32_t colors) { return colors <= 2 ? 1 : 32 - __builtin_clz(colors - 1); }

// Noise, gradients, flat patches and 0/255 stripes (errors saturate, clamp and reach the carry tables' ends).
std::vector<Rgb> testImage(int w, int h, uint32_t seed) {
    std::mt19937 rng(seed);
    std::vector<Rgb> img(size_t(w) * size_t(h));
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x) {
            Rgb& p = img[size_t(y) * size_t(w) + size_t(x)];
            const int s = ((x + y) & 1) * 255;
            switch ((x / 13 + y / 5) % 5) {
                case 0: p = {int(rng() & 255), int(rng() & 255), int(rng() & 255)}; break;
                case 1: p = {(x * 255) / std::max(1, w - 1), (y * 37) & 255, 255 - ((x * 7) & 255)}; break;
                case 2: p = {250, 250, 5}; break;
                case 3: p = {s, s, 255 - s}; break;
                default: p = {int(rng() % 6) * 51, 128, int(rng() & 1) * 255};
            }
        }
    return img;
}

// The indices of a packed row (MSB first), appended to `out`.
void unpack(const uint8_t* row, int w, int bits, std::vector<int>& out) {
    for (int x = 0; x < w; ++x) out.push_back(int(storagetest::getPixel(row, x, bits)));
}

// A source format (palette for 1..8 bits, bit window for grey samples).
struct SourceCase { int bits, order; Pal pal; int lowBit = 0, highBit = -1; };

// How a run is started (K_StartDitheringExt when bits is set) and driven.
struct Drive {
    int method = 0;
    const RGBQUAD* pal = nullptr;
    uint32_t colors = 2;
    int bits = 0;
    const uint32_t* table = nullptr;
    bool plain = false, inPlace = false;  // the plain tap loop; each row dithered over itself
};

// Source rows through K_DitherLine: the indices, checking that the source row is not touched, the bits past
// the last pixel are clear and nothing past the packed row is written; *grey: whether the run went grey.
std::vector<int> runRows(const SourceCase& c, int w, const Rows& rows, const Drive& run, bool* grey = nullptr) {
    Rec rec(w, c.bits, c.order, run.method, c.bits <= 8 ? &c.pal : nullptr);
    rec.bm.nLowBit = c.lowBit, rec.bm.nHighBit = c.highBit;
    if (run.plain) krn::testhook::ditherPlainKernels = true;  // only then: threads call this too
    EXPECT_EQ(run.bits ? K_StartDitheringExt(&rec.bm, run.pal, run.colors, run.bits, run.table)
                       : K_StartDithering(&rec.bm, run.pal, run.colors), KS_SUCCESS);
    if (run.plain) krn::testhook::ditherPlainKernels = false;
    if (grey) *grey = krn::ditherRunIsGrey(&rec.bm);
    const int bits = run.bits ? run.bits : bitsFor(run.colors);
    const size_t used = size_t(w) * size_t(bits), bytes = (used + 7) / 8;
    std::vector<int> got;
    for (const auto& r : rows) {
        std::vector<uint8_t> src = r, dst(bytes + 1, 0xA5);  // the source exactly sized: ASan sees overreads
        if (run.inPlace) src.resize(std::max(src.size(), bytes));
        uint8_t* out = run.inPlace ? src.data() : dst.data();
        EXPECT_EQ(K_DitherLine(&rec.bm, src.data(), out), KS_SUCCESS);
        EXPECT_TRUE(run.inPlace || (src == r && dst[bytes] == 0xA5)) << "source written or past the packed row";
        EXPECT_EQ(out[bytes - 1] & (0xFF >> (used - (bytes - 1) * 8)), 0) << "tail bits set";
        unpack(out, w, bits, got);
    }
    EXPECT_EQ(K_StopDithering(&rec.bm), KS_SUCCESS);
    return got;
}
// The same for an image as 24-bit BGR rows.
std::vector<int> runImage(const std::vector<Rgb>& img, int w, const Drive& run) {
    Rows rows(img.size() / size_t(w), std::vector<uint8_t>(size_t(w) * 3));
    for (size_t i = 0; i < img.size(); ++i) {
        uint8_t* p = &rows[i / size_t(w)][3 * (i % size_t(w))];
        p[0] = uint8_t(img[i].b), p[1] = uint8_t(img[i].g), p[2] = uint8_t(img[i].r);
    }
    return runRows({24, ORDER_BGR, {}}, w, rows, run);
}

// Reference targets. Fixed palettes quantise by their code (checked against the nearest-colour rule below);
// other palettes through the 5-5-5 match table built here from the nearest-colour oracle over the usable
// entries (reserved byte without its two low bits).
ditherref::Target target(const Pal& pal, int code) {
    static const int kSpacing[11][3] = {{}, {}, {}, {85, 85, 85}, {255, 255, 255}, {128, 128, 128},
                                        {85, 85, 255}, {85, 85, 85}, {85, 36, 85}, {36, 36, 85}, {51, 51, 51}};
    ditherref::Target t;
    for (const auto& e : pal) t.colours.push_back({e.rgbRed, e.rgbGreen, e.rgbBlue});
    int usable = int(pal.size());
    if (code >= 2) {
        t.quantise = [code](int r, int g, int b) {
            return code <= 3 ? (2 * r + 5 * g + b + 4) >> (12 - code) : krn::quantiseFixed(code, r, g, b);
        };
        t.twoColour = code == 2;
    } else {
        Pal ok;
        std::vector<int> index;
        for (size_t i = 0; i < pal.size(); ++i)
            if (!(pal[i].rgbReserved & 3)) ok.push_back(pal[i]), index.push_back(int(i));
        auto table = std::make_shared<std::vector<int>>(32768);
        for (int k = 0; k < 32768; ++k) {
            const int r = (k >> 7) & 0xF8, g = ((k >> 5) & 31) * 8, b = (k & 31) * 8;
            (*table)[size_t(k)] = index[size_t(krn::findPaletteIndexScalar(ok.data(), int(ok.size()), r, g, b))];
        }
        t.quantise = [table](int r, int g, int b) {
            return (*table)[size_t((b >> 3) | ((g & 0xF8) << 2) | ((r & 0xF8) << 7))];
        };
        if ((usable = int(ok.size())) == 2) {
            auto g = [&](int i) { return ditherref::grey(ok[i].rgbRed, ok[i].rgbGreen, ok[i].rgbBlue); };
            t.twoColour = true, t.darkIndex = index[g(0) <= g(1) ? 0 : 1], t.brightIndex = index[g(0) <= g(1) ? 1 : 0];
        }
    }
    if (code >= 3) return std::copy(kSpacing[code], kSpacing[code] + 3, t.spacing), t;
    int levels = 2;
    while ((levels + 1) * (levels + 1) * (levels + 1) <= 2 * usable && levels < 16) ++levels;
    t.spacing[0] = t.spacing[1] = t.spacing[2] = 255 / (levels - 1);
    return t;
}

void grey16(BITMAPRECORD& b, int lo, int hi) {
    b.nBitsPerPixel = 16, b.nOrder = ORDER_GRAY, b.nLowBit = lo, b.nHighBit = hi;
}

TEST(DitherFrame, ChecksPointerSizeThenValues) {
    Rec rec(8, 24, ORDER_BGR, 1);
    uint8_t src[32] = {}, dst[32] = {};
    BITMAPRECORD bad = rec.bm;
    bad.uStructSize = 100;
    EXPECT_EQ(K_StartDithering(nullptr, nullptr, 2), KS_INVALID_PARAMETER);
    EXPECT_EQ(K_StartDithering(&bad, nullptr, 0), KS_INVALID_STRUCT_SIZE);
    EXPECT_EQ(K_StartDitheringExt(&bad, nullptr, 2, 1, nullptr), KS_INVALID_STRUCT_SIZE);
    // Each case spoils one value of a good record (or the call's arguments); bits -1: the plain start.
    using B = BITMAPRECORD&;
    const int32_t P = KS_INVALID_PARAMETER;
    const struct { const char* what; void (*spoil)(B); uint32_t colors; int bits; int32_t expect; } bads[] = {
        {"no colours", [](B) {}, 0, -1, P}, {"257 colours", [](B) {}, 257, -1, P},
        {"16 colours in 3 bits", [](B) {}, 16, 3, P}, {"0 bits", [](B) {}, 2, 0, P}, {"9 bits", [](B) {}, 2, 9, P},
        {"method 9", [](B b) { b.nDitheringMethod = 9; }, 2, -1, P},
        {"method -1", [](B b) { b.nDitheringMethod = -1; }, 2, -1, P},
        {"9 bpp", [](B b) { b.nBitsPerPixel = 9; }, 2, -1, KS_INVALID_BITS_PER_PIXEL},
        {"16-bit wide primaries", [](B b) { b.nBitsPerPixel = 16, b.nOrder = ORDER_ROMM; }, 2, -1, P},
        {"width 0", [](B b) { b.nWidth = 0; }, 2, -1, KS_INVALID_DIMENSIONS},
        {"width 2^29", [](B b) { b.nWidth = 1 << 29; }, 2, -1, KS_INVALID_DIMENSIONS},
        {"high bit beyond the sample", [](B b) { grey16(b, 3, 16); }, 2, -1, P},
        {"low bit above high bit", [](B b) { grey16(b, 9, 8); }, 2, -1, P},
    };
    for (const auto& c : bads) {
        BITMAPRECORD b = rec.bm;
        c.spoil(b);
        EXPECT_EQ(c.bits >= 0 ? K_StartDitheringExt(&b, nullptr, c.colors, c.bits, nullptr)
                              : K_StartDithering(&b, nullptr, c.colors), c.expect) << c.what;
        EXPECT_EQ(b.pDitherState, nullptr) << c.what;  // nothing was started by the failure
    }
    EXPECT_TRUE(K_DitherLine(nullptr, src, dst) == P && K_DitherLine(&bad, src, dst) == KS_INVALID_STRUCT_SIZE);
    EXPECT_EQ(K_DitherLine(&rec.bm, src, dst), P);  // no run
    ASSERT_EQ(K_StartDithering(&rec.bm, nullptr, 2), KS_SUCCESS);
    EXPECT_TRUE(K_DitherLine(&rec.bm, nullptr, dst) == P && K_DitherLine(&rec.bm, src, nullptr) == P);
    EXPECT_EQ(K_DitherLine(&rec.bm, src, dst), KS_SUCCESS);
    rec.bm.nWidth = 9;  // the run's rows no longer fit the record
    EXPECT_EQ(K_DitherLine(&rec.bm, src, dst), P);
    rec.bm.nWidth = 8;
    EXPECT_TRUE(K_StopDithering(nullptr) == P && K_StopDithering(&bad) == KS_INVALID_STRUCT_SIZE);
    EXPECT_TRUE(K_StopDithering(&rec.bm) == KS_SUCCESS && rec.bm.pDitherState == nullptr);
    EXPECT_EQ(K_StopDithering(&rec.bm), KS_SUCCESS);  // no run: nothing to do
    EXPECT_EQ(K_DitherLine(&rec.bm, src, dst), P);
}

TEST(DitherFrame, RestartReplacesTheRunFreeStopsItDefaultMethodIsPerThread) {
    const int32_t old = K_GetDefaultDithering();  // per-thread block first
    const long before = krn::faultinject::liveBlocks();
    BITMAPRECORD bm;
    ASSERT_EQ(K_CreateBitmap(&bm, BITMAPRECORD_SIZE, 1, 50, 4, 24, ORDER_BGR, nullptr, 1, nullptr, 0), KS_SUCCESS);
    bm.nDitheringMethod = 2;
    auto pal = randomPalette(10, 3);
    ASSERT_TRUE(K_StartDithering(&bm, pal.data(), 10) == KS_SUCCESS && bm.pDitherState != nullptr);
    ASSERT_EQ(K_StartDithering(&bm, nullptr, 256), KS_SUCCESS);  // replaces the first run
    EXPECT_EQ(krn::ditherRunCode(&bm), krn::kCodeFixed256);
    K_FreeBitmap(&bm);
    EXPECT_TRUE(bm.pDitherState == nullptr && krn::faultinject::liveBlocks() == before);

    EXPECT_EQ(K_DefaultDithering(6), old);
    EXPECT_TRUE(K_DefaultDithering(9) == KS_INVALID_PARAMETER && K_DefaultDithering(-1) == KS_INVALID_PARAMETER);
    EXPECT_EQ(K_GetDefaultDithering(), 6);
    EXPECT_TRUE(K_InitBitmap(&bm, BITMAPRECORD_SIZE, 4, 4, 24) == KS_SUCCESS && bm.nDitheringMethod == 6);  // at init
    int32_t other = -5;
    std::thread([&] { other = K_GetDefaultDithering(); }).join();
    EXPECT_EQ(other, 0);
    EXPECT_EQ(K_DefaultDithering(old), 6);
}

// On a grid of colours, each fixed code gives an entry at the smallest distance, and where that nearest colour
// is unique, the nearest-colour rule's index (duplicates, like the web palette's blacks, resolve to the first).
TEST(DitherQuantise, FixedCodesGiveTheNearestEntryOnADenseGrid) {
    auto grid = [](int v) { return v == 255 ? 256 : std::min(v + 5, 255); };
    for (int bits = 3; bits <= 9; ++bits) {
        const auto pal = bits == 9 ? webPal() : fixedPal(bits);
        const int code = bits == 9 ? krn::kCodeWeb : krn::kCodeFixed2 + bits - 1, n = int(pal.size());
        for (int r = 0; r < 256; r = grid(r))
            for (int g = 0; g < 256; g = grid(g))
                for (int b = 0; b < 256; b = grid(b)) {
                    const int q = krn::quantiseFixed(code, r, g, b);
                    ASSERT_TRUE(q >= 0 && q < n);
                    auto dist = [&](const RGBQUAD& e) {
                        const int dr = e.rgbRed - r, dg = e.rgbGreen - g, db = e.rgbBlue - b;
                        return dr * dr + dg * dg + db * db;
                    };
                    int best = 1 << 30, ties = 0;
                    for (const auto& e : pal) best = std::min(best, dist(e));
                    for (const auto& e : pal) ties += dist(e) == best && std::memcmp(&e, &pal[size_t(q)], 3);
                    ASSERT_EQ(dist(pal[size_t(q)]), best) << "code " << code << " at " << r << "," << g << "," << b;
                    ASSERT_TRUE(ties || q == krn::findPaletteIndexScalar(pal.data(), n, r, g, b)) << code;
                }
    }
    // The two-colour grey cut is the nearest-colour rule on greys.
    for (int v = 0; v < 256; ++v) EXPECT_EQ(krn::quantiseFixed(2, v, v, v), v >= 128 ? 1 : 0) << v;
}

// Every method and palette matches the reference, by the rolling kernel and the plain tap loop, at every
// output depth that fits. Fixed palettes in order (some passed as null) take the direct path; others
// (shuffled, shorter, a reserved byte set) a table built for the run.
TEST(DitherReference, EveryMethodAndPaletteMatchesThePlainDitherer) {
    struct PaletteCase { const char* name; Pal pal; bool passNull = false; int code = 0; };
    auto withReserved = randomPalette(40, 12), reserved16 = fixedPal(4), first100 = fixedPal(7), shuffled = fixedPal(4);
    for (size_t i = 0; i < withReserved.size(); i += 3) withReserved[i].rgbReserved = uint8_t(1 + i % 3);
    reserved16[3].rgbReserved = 4, first100.resize(100);
    std::shuffle(shuffled.begin(), shuffled.end(), std::mt19937(5));
    std::vector<PaletteCase> cases = {{"web", webPal(), false, krn::kCodeWeb}, {"shuffled16", shuffled},
                                      {"random2", randomPalette(2, 9)}, {"random5", randomPalette(5, 10)},
                                      {"random40-reserved", withReserved}, {"fixed16-reserved", reserved16},
                                      {"fixed128-first100", first100}};
    for (int bits = 1; bits <= 8; ++bits)  // some passed as null
        cases.push_back({"fixed", fixedPal(bits), ((0x16A >> bits) & 1) != 0, bits + 1});
    uint32_t seed = 100;
    for (const auto& pc : cases) {
        const ditherref::Target tgt = target(pc.pal, pc.code);
        const RGBQUAD* pal = pc.passNull ? nullptr : pc.pal.data();
        const uint32_t n = uint32_t(pc.pal.size());
        Rec rec(1, 24, ORDER_BGR, 0);
        ASSERT_EQ(K_StartDithering(&rec.bm, pal, n), KS_SUCCESS);
        EXPECT_EQ(krn::ditherRunCode(&rec.bm), pc.code) << pc.name << " " << n;
        for (int method = 0; method <= 8; ++method)
            for (int w : {1, 2, 3, 7, 33, 101, 257}) {
                SCOPED_TRACE(testing::Message() << pc.name << " " << n << " method " << method << " width " << w);
                auto img = testImage(w, 11, ++seed);
                auto expect = ditherref::dither(method, w, 11, img, tgt);
                Drive run{.method = method, .pal = pal, .colors = n};
                ASSERT_EQ(runImage(img, w, run), expect);
                if (method == 1) { ASSERT_EQ(runImage(img, w, (run.plain = true, run)), expect); }  // plain taps
                run.plain = false;
                for (run.bits = bitsFor(n) + 1; run.bits <= 8 && w <= 7; ++run.bits)  // deeper outputs, same indices
                    ASSERT_EQ(runImage(img, w, run), expect) << run.bits << " bits";
            }
    }
}

TEST(DitherProof, CallerAndInstalledMatchTablesAreUsedAsGiven) {
    auto pal = randomPalette(16, 8);
    std::vector<uint32_t> table(32768);
    for (uint32_t k = 0; k < 32768; ++k) table[k] = (k % 7) + 1;  // index k % 7
    table[0] = 0;                                                  // "no entry": index 0
    std::vector<Rgb> img = {{0, 0, 0}, {0, 0, 8}, {0, 0, 16}, {255, 255, 255}};
    auto got = runImage(img, 4, {.pal = pal.data(), .colors = 16, .bits = 4, .table = table.data()});
    EXPECT_EQ(got, (std::vector<int>{0, 1, 2, int(32767 % 7)}));
    // A table installed for the thread stands in for the one a run would build; fixed palettes never look at it.
    const uint32_t* old = K_SetUserMatchTable(table.data());
    Rec rec(4, 24, ORDER_BGR, 0);
    ASSERT_EQ(K_StartDithering(&rec.bm, pal.data(), 16), KS_SUCCESS);
    EXPECT_EQ(krn::ditherRunCode(&rec.bm), krn::kCodeCallerTable);
    EXPECT_EQ(runImage(img, 4, {.pal = pal.data(), .colors = 16}), got);
    ASSERT_EQ(K_StartDithering(&rec.bm, nullptr, 16), KS_SUCCESS);
    EXPECT_EQ(krn::ditherRunCode(&rec.bm), krn::kCodeFixed16);
    K_SetUserMatchTable(old);
    for (auto& e : table) e = 200;  // index 199 = 0b11000111: masked into the output depth
    got = runImage(img, 4, {.pal = pal.data(), .colors = 16, .bits = 4, .table = table.data()});
    EXPECT_EQ(got, std::vector<int>(4, 7));
}

// Random rows of a source format dither, out of place and in place (and by the plain tap loop for Floyd-Steinberg),
// like the 24-bit colours the reference converter reads from them; the run takes the grey path when `grey` says so.
void expectLikeItsColours(const SourceCase& c, int w, int h, std::mt19937& rng, Drive run, bool grey) {
    SCOPED_TRACE(testing::Message() << c.bits << " bits, order " << c.order << ", window " << c.lowBit << ".."
                                    << c.highBit << ", " << run.colors << " colours, method " << run.method
                                    << ", width " << w);
    convref::Request q;
    q.width = w, q.srcBits = c.bits, q.srcOrder = c.order, q.dstBits = 24, q.dstOrder = ORDER_RGB;
    q.srcPal = c.bits <= 8 ? c.pal.data() : nullptr;
    q.flags = CONVERT_SRCRANGE | (c.order == ORDER_GRAY ? CONVERT_SRCGRAY : 0u);
    q.lowBit = c.lowBit, q.highBit = c.highBit;
    ASSERT_EQ(convref::expectedStatus(q), 1);
    Rows rows;
    std::vector<Rgb> img;
    for (int y = 0; y < h; ++y) {
        std::vector<uint8_t> row(convref::srcRunBytes(q));
        for (auto& v : row) v = uint8_t(rng());
        std::vector<uint8_t> buf = row;
        buf.resize(std::max(row.size(), convref::dstRunBytes(q)));
        const auto rgb = convref::convert(q, buf);
        for (size_t x = 0; x < size_t(w); ++x) img.push_back({rgb[3 * x], rgb[3 * x + 1], rgb[3 * x + 2]});
        rows.push_back(std::move(row));
    }
    const auto expect = runImage(img, w, run);
    bool tookGrey = !grey;
    ASSERT_EQ(runRows(c, w, rows, run, &tookGrey), expect);
    EXPECT_EQ(tookGrey, grey);
    run.inPlace = true;
    ASSERT_EQ(runRows(c, w, rows, run), expect);
    run.inPlace = false, run.plain = true;
    if (run.method == 1) { ASSERT_EQ(runRows(c, w, rows, run), expect); }
}

TEST(DitherSource, EveryDepthDithersLikeItsColours) {
    std::vector<SourceCase> cases = {{12, ORDER_GRAY, {}}, {12, ORDER_GRAY, {}, 2, 9}, {16, ORDER_GRAY, {}, 0, 11},
                                     {16, ORDER_GRAY, {}, 4, 8}, {32, ORDER_GRAY, {}, 8, 23}};  // 4..8: scaled up
    for (int bits = 1; bits <= 8; ++bits) {
        cases.push_back({bits, ORDER_RGB, randomPalette(1 << bits, uint32_t(bits))});
        cases.push_back({bits, ORDER_RGB, fixedPal(bits)});
    }
    for (int order : {ORDER_RGB, ORDER_BGR, ORDER_GRAY, ORDER_RGB565}) cases.push_back({16, order, {}});
    for (int bits : {24, 48, 64})
        for (int order : {ORDER_RGB, ORDER_BGR, ORDER_ROMM}) cases.push_back({bits, order, {}});
    for (int order : {ORDER_RGB, ORDER_BGR, ORDER_GRAY}) cases.push_back({32, order, {}});
    auto fixed = fixedPal(8);
    std::mt19937 rng(1234);
    for (const auto& c : cases)
        for (int w : {1, 2, 5, 8, 17, 64})
            expectLikeItsColours(c, w, 4, rng, {.method = 2, .pal = fixed.data(), .colors = 256}, false);
}

// Grey sources into grey targets take the grey path and dither like the colour path; colour on either side
// keeps three channels: a colour source, the sixteen colours, a source palette with one entry not grey.
TEST(DitherGrey, GreySourcesIntoGreyTargetsMatchTheColourPath) {
    auto curve = greyRamp(256), tinted = greyRamp(256);
    for (auto& e : curve) e.rgbRed = e.rgbGreen = e.rgbBlue = uint8_t(std::sqrt(e.rgbRed / 255.0) * 255.0);
    tinted[17].rgbBlue ^= 1;
    const SourceCase sources[] = {{8, ORDER_RGB, greyRamp(256)}, {8, ORDER_RGB, curve}, {4, ORDER_RGB, greyRamp(16)},
                                  {1, ORDER_RGB, greyRamp(2)},   {12, ORDER_GRAY, {}}, {16, ORDER_GRAY, {}, 3, 12},
                                  {16, ORDER_GRAY, {}},          {32, ORDER_GRAY, {}}};
    const Pal targets[] = {fixedPal(1), fixedPal(2), greyRamp(16),
                           {quad(30, 30, 30), quad(128, 128, 128), quad(220, 220, 220)},
                           {quad(200, 200, 200), quad(10, 10, 10)}};
    std::mt19937 rng(99);
    for (const auto& c : sources)
        for (const auto& t : targets)
            for (int method = 0; method <= 8; ++method)
                for (int w : {8, 45}) {  // the first target passed as null: the fixed palette
                    const RGBQUAD* pal = &t == targets ? nullptr : t.data();
                    const uint32_t n = uint32_t(t.size());
                    expectLikeItsColours(c, w, 9, rng, {.method = method, .pal = pal, .colors = n}, true);
                }
    const SourceCase bgr24{24, ORDER_BGR, {}}, grey8{8, ORDER_RGB, greyRamp(256)}, tint8{8, ORDER_RGB, tinted};
    for (const auto& [c, colours] : {std::pair{bgr24, 2u}, std::pair{grey8, 16u}, std::pair{tint8, 2u}})
        expectLikeItsColours(c, 8, 2, rng, {.method = 1, .colors = colours}, false);
}

// Runs keep all their state on the record: threads dithering at once give what each gives alone.
TEST(DitherThreads, RunsOnSeparateRecordsAreIndependent) {
    const int w = 120, h = 40;
    auto img = testImage(w, h, 64);
    auto pal = randomPalette(20, 6);
    auto run = [&](int m) {
        return runImage(img, w, {.method = m * 2, .pal = m % 2 ? pal.data() : nullptr, .colors = m % 2 ? 20u : 256u});
    };
    std::vector<std::vector<int>> together(4);
    std::vector<std::thread> threads;
    for (int m = 0; m < 4; ++m)
        threads.emplace_back([&, m] { for (int k = 0; k < 5; ++k) together[size_t(m)] = run(m); });
    for (auto& t : threads) t.join();
    for (int m = 0; m < 4; ++m) EXPECT_EQ(together[size_t(m)], run(m)) << "method " << m * 2;
}

// A failed restart leaves the record and the earlier run as they were.
TEST(DitherAlloc, StartSurvivesEveryAllocationFailure) {
    K_GetDefaultDithering();
    const struct { int bits, order, method; bool callerPalette, callerTable; } configs[] = {
        {24, ORDER_BGR, 1, false, false},   {24, ORDER_BGR, 2, true, false}, {4, ORDER_RGB, 5, true, false},
        {16, ORDER_RGB565, 7, false, false}, {8, ORDER_RGB, 0, true, true},   {16, ORDER_GRAY, 1, false, false}};
    auto pal = randomPalette(12, 2);
    std::vector<uint32_t> table(32768, 3);
    for (const auto& cfg : configs) {
        Rec rec(40, cfg.bits, cfg.order, cfg.method);
        ASSERT_EQ(K_StartDithering(&rec.bm, nullptr, 2), KS_SUCCESS);
        void* earlier = rec.bm.pDitherState;
        const int failures = tkit::allocationWalk([&](tkit::Armed& armed) {
            const BITMAPRECORD before = rec.bm;
            const int32_t rc = armed([&] {
                if (cfg.callerTable) return K_StartDitheringExt(&rec.bm, pal.data(), 12, 4, table.data());
                return cfg.callerPalette ? K_StartDithering(&rec.bm, pal.data(), 12)
                                         : K_StartDithering(&rec.bm, nullptr, 256);
            });
            EXPECT_TRUE(rc != KS_SUCCESS || armed.injected == 0);
            if (rc == KS_SUCCESS) return;
            EXPECT_TRUE(!std::memcmp(&before, &rec.bm, sizeof before) && rec.bm.pDitherState == earlier);
            uint8_t src[40 * 8] = {}, dst[64];
            EXPECT_EQ(K_DitherLine(&rec.bm, src, dst), KS_SUCCESS);  // the earlier run goes on
        }, 1, true);
        EXPECT_GE(failures, 2);  // state, scratch row (+ error rows, table)
        EXPECT_NE(rec.bm.pDitherState, earlier);
    }
}

// Grey bytes: random, or runs of 127 and 128 (the largest errors of either sign) between black and white,
// which drive the carried sums to the tables' ends.
Rows greyRows(int w, int h, int bytesPerPixel, bool saturated, uint32_t seed) {
    std::mt19937 rng(seed);
    static const uint8_t kLevels[4] = {127, 128, 0, 255};
    Rows rows(size_t(h), std::vector<uint8_t>(size_t(w) * size_t(bytesPerPixel)));
    for (size_t y = 0; y < rows.size(); ++y)
        for (size_t x = 0; x < rows[0].size(); ++x)
            rows[y][x] = saturated ? kLevels[(x / 5 + y / 7 * 3 + (rng() % 16 == 0)) % 4] : uint8_t(rng());
    return rows;
}

// Floyd-Steinberg to black and white through krn::ditherRows: blocks of `blockRows` rows (the wavefront),
// `chunk` rows per call.
std::vector<int> runBlocks(const SourceCase& c, int w, const Rows& rows, int blockRows, size_t chunk) {
    Rec rec(w, c.bits, c.order, DITHER_FLOYD_STEINBERG, c.bits <= 8 ? &c.pal : nullptr);
    EXPECT_EQ(K_StartDithering(&rec.bm, nullptr, 2), KS_SUCCESS);
    krn::testhook::ditherWaveRows = blockRows;
    Rows out(rows.size(), std::vector<uint8_t>((size_t(w) + 7) / 8));
    for (size_t y0 = 0; y0 < rows.size(); y0 += chunk) {
        std::vector<const uint8_t*> src;
        std::vector<uint8_t*> dst;
        for (size_t y = y0; y < std::min(rows.size(), y0 + chunk); ++y)
            src.push_back(rows[y].data()), dst.push_back(out[y].data());
        EXPECT_EQ(krn::ditherRows(&rec.bm, src.data(), dst.data(), int32_t(src.size())), KS_SUCCESS);
    }
    krn::testhook::ditherWaveRows = 0;
    std::vector<int> got;
    for (const auto& r : out) unpack(r.data(), w, 1, got);
    return got;
}

TEST(DitherWave, BlocksMatchLinesThePlainLoopAndTheReference) {
    const SourceCase grey8{8, ORDER_RGB, greyRamp(256)};
    const auto bw = target(fixedPal(1), 2);
    for (int w : {1, 2, 3, 7, 8, 9, 31, 4001})
        for (bool sat : {false, true}) {
            const int h = w > 100 ? 11 : (sat ? 203 : 37);  // tall and narrow saturates the error rows
            const Rows rows = greyRows(w, h, 1, sat, uint32_t(w * 2 + sat));
            std::vector<Rgb> img;
            for (const auto& r : rows)
                for (uint8_t v : r) img.push_back({v, v, v});
            const auto ref = ditherref::dither(1, w, h, img, bw);
            ASSERT_EQ(runRows(grey8, w, rows, {.method = 1}), ref) << w;
            ASSERT_EQ(runRows(grey8, w, rows, {.method = 1, .plain = true}), ref) << w;
            for (int blockRows : {1, 2, 4, 8})
                for (int chunk : {h, 3, 9})
                    EXPECT_EQ(runBlocks(grey8, w, rows, blockRows, size_t(chunk)), ref) << w << " " << blockRows;
        }
}

// K_ColorResBitmap dithers like the engine row by row (grey to black and white, a photo to the sixteen colours by
// three methods) on every storage kind, by the block loop and the row layer; under every allocation failure (on one
// kind) a failure leaves the source, the destination record and the block count.
TEST(DitherWave, ColorResMatchesTheEngineOnEveryStorageKindAndUnderAllocationFailures) {
    const int w = 61, h = 45;
    const SourceCase grey8{8, ORDER_RGB, greyRamp(256)}, bgr24{24, ORDER_BGR, {}};
    const auto px = phototest::photoLike(w, h, 4);
    Rows photo;
    for (int y = 0; y < h; ++y) photo.emplace_back(px.begin() + y * w * 3, px.begin() + (y + 1) * w * 3);
    const struct { const SourceCase& src; Rows rows; int bits, method; } cases[] = {
        {grey8, greyRows(w, h, 1, true, 9), 1, 1}, {bgr24, photo, 4, 1}, {bgr24, photo, 4, 2}, {bgr24, photo, 4, 7}};
    auto read = [](BITMAPRECORD* bm, size_t bytes) {  // the stored rows cut to `bytes`
        auto img = tkit::getImage(bm);
        Rows out;
        for (int y = 0; y < img.height; ++y) out.emplace_back(img.row(y), img.row(y) + bytes);
        return out;
    };
    for (const auto& c : cases) {
        const auto ref = runRows(c.src, w, c.rows, {.method = c.method, .colors = 1u << c.bits});
        const uint32_t flags = CRF_FIXEDPALETTE | CRF_DITHER(c.method);
        for (auto kind : storagetest::kindsFor(c.src.bits))
            for (bool rowPath : {false, true}) {
                SCOPED_TRACE(testing::Message() << storagetest::kindName(kind) << ", row layer " << rowPath
                                                << ", method " << c.method);
                storagetest::KindBitmap src(kind, w, h, c.src.bits);
                ASSERT_EQ(src.rc, KS_SUCCESS);
                ASSERT_TRUE(c.src.bits > 8 || K_SetBitmapPalette(&src.bm, c.src.pal.data(), 256) == KS_SUCCESS);
                src.bm.nOrder = c.src.order;
                for (int y = 0; y < h; ++y)
                    ASSERT_GE(K_PutBitmapRow(&src.bm, c.rows[size_t(y)].data(), y, uint32_t(c.rows[0].size())), 0);
                auto attempt = [&](tkit::Armed& armed) {
                    const BITMAPRECORD before = src.bm;
                    BITMAPRECORD dst{}, zero{};
                    krn::testhook::colorResRowPath = rowPath;
                    const int32_t rc = armed(
                        [&] { return K_ColorResBitmap(&src.bm, &dst, c.bits, flags, nullptr, 0, BITMAPRECORD_SIZE); });
                    krn::testhook::colorResRowPath = false;
                    if (rc != KS_SUCCESS) {  // a failure the call could do without changes nothing either
                        EXPECT_EQ(std::memcmp(&before, &src.bm, sizeof before), 0);
                        EXPECT_EQ(std::memcmp(&dst, &zero, sizeof dst), 0);
                        return;
                    }
                    std::vector<int> got;
                    for (const auto& r : read(&dst, (size_t(w) * size_t(c.bits) + 7) / 8))
                        unpack(r.data(), w, c.bits, got);
                    EXPECT_EQ(got, ref);
                    K_FreeBitmap(&dst);
                };
                tkit::Armed clean{1L << 40, 1};  // the walk on one kind, one clean call on the others
                const bool walk = &c == cases && kind == storagetest::Kind::SingleBlock && !rowPath;
                walk ? void(tkit::allocationWalk(attempt)) : attempt(clean);
                EXPECT_EQ(read(&src.bm, c.rows[0].size()), c.rows);  // read, never written
            }
    }
}

}  // namespace
