// test_dither_wave.cpp - whole-image dithering in blocks of rows (the
// wavefront of Floyd-Steinberg to black and white from grey): bit for bit the
// same as K_DitherLine row by row and as the plain reference ditherer, for
// every block size, odd widths, heights that are not a multiple of the block,
// saturated images, every storage kind of K_ColorResBitmap and allocation
// failures.
#include <gtest/gtest.h>

#include <cstring>
#include <random>
#include <vector>

#include "dither_ref.h"
#include "krn/common/colorres.h"
#include "krn/common/dither.h"
#include "krn/common/memory.h"
#include "ombrix.h"
#include "storage_kinds.h"

namespace {

using Image = std::vector<uint8_t>;  // w x h grey bytes, row-major

// Random grey, or saturated: long runs of 127 and 128 (the largest errors of
// either sign) between black and white, which drive the sums a row carries to
// the ends of the carry tables.
Image makeImage(int w, int h, bool saturated, uint32_t seed) {
    std::mt19937 rng(seed);
    Image img(size_t(w) * size_t(h));
    for (size_t i = 0; i < img.size(); ++i) {
        if (!saturated) {
            img[i] = uint8_t(rng());
            continue;
        }
        const size_t x = i % size_t(w), y = i / size_t(w);
        static const uint8_t kLevels[4] = {127, 128, 0, 255};
        img[i] = kLevels[((x / 5) + (y / 7) * 3 + (rng() % 16 == 0 ? 1 : 0)) % 4];
    }
    return img;
}

size_t packedBytes(int w) { return (size_t(w) + 7) / 8; }

// A run on a one-row 8-bit grey record (grey-ramp palette) to black and white.
struct GreyRun {
    BITMAPRECORD bm{};
    explicit GreyRun(int w, bool plain = false) {
        K_InitBitmap(&bm, BITMAPRECORD_SIZE, w, 1, 8);
        bm.pPalette = K_CreateGrayPalette(8);
        bm.nColors = 256;
        bm.nDitheringMethod = DITHER_FLOYD_STEINBERG;
        krn::testhook::ditherPlainKernels = plain;
        EXPECT_EQ(K_StartDithering(&bm, nullptr, 2), KS_SUCCESS);
        krn::testhook::ditherPlainKernels = false;
    }
    ~GreyRun() { K_FreeBitmap(&bm); }
};

// Row by row through K_DitherLine (the register kernel, or the plain tap loop).
Image byLines(const Image& img, int w, int h, bool plain) {
    GreyRun run(w, plain);
    Image out(packedBytes(w) * size_t(h));
    for (int y = 0; y < h; ++y)
        EXPECT_EQ(K_DitherLine(&run.bm, img.data() + size_t(y) * size_t(w), out.data() + packedBytes(w) * size_t(y)),
                  KS_SUCCESS);
    return out;
}

// Through ditherRows in calls of `chunk` rows, with blocks of `rows`.
Image byBlocks(const Image& img, int w, int h, int rows, int chunk) {
    GreyRun run(w);
    krn::testhook::ditherWaveRows = rows;
    EXPECT_EQ(krn::ditherBlockRows(&run.bm), rows);
    Image out(packedBytes(w) * size_t(h));
    for (int y0 = 0; y0 < h; y0 += chunk) {
        const int n = std::min(chunk, h - y0);
        std::vector<const uint8_t*> src(static_cast<size_t>(n));
        std::vector<uint8_t*> dst(static_cast<size_t>(n));
        for (int k = 0; k < n; ++k) {
            src[size_t(k)] = img.data() + size_t(y0 + k) * size_t(w);
            dst[size_t(k)] = out.data() + packedBytes(w) * size_t(y0 + k);
        }
        EXPECT_EQ(krn::ditherRows(&run.bm, src.data(), dst.data(), n), KS_SUCCESS);
    }
    krn::testhook::ditherWaveRows = 0;
    return out;
}

// The independent reference: whole-image error planes, packed the same way.
Image byReference(const Image& img, int w, int h) {
    std::vector<ditherref::Rgb> rgb;
    for (uint8_t v : img) rgb.push_back({v, v, v});
    ditherref::Target t;
    t.colours = {{0, 0, 0}, {255, 255, 255}};
    t.quantise = [](int r, int g, int b) { return (2 * r + 5 * g + b + 4) >> 10; };
    const std::vector<int> idx = ditherref::dither(1, w, h, rgb, t);
    Image out(packedBytes(w) * size_t(h), 0);
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x)
            if (idx[size_t(y) * size_t(w) + size_t(x)]) out[packedBytes(w) * size_t(y) + size_t(x) / 8] |= uint8_t(0x80u >> (x % 8));
    return out;
}

TEST(DitherWave, BlocksMatchLinesAndTheReferenceBitForBit) {
    const int widths[] = {1, 2, 3, 7, 8, 9, 31, 4001};
    for (int w : widths) {
        for (bool saturated : {false, true}) {
            const int h = w > 100 ? 11 : (saturated ? 203 : 37);  // tall and narrow saturates the error rows
            const Image img = makeImage(w, h, saturated, uint32_t(w * 2 + saturated));
            const Image ref = byReference(img, w, h);
            ASSERT_EQ(byLines(img, w, h, false), ref) << "w " << w;
            ASSERT_EQ(byLines(img, w, h, true), ref) << "w " << w;
            for (int rows : {1, 2, 4, 8})
                for (int chunk : {h, 3, 9}) {
                    EXPECT_EQ(byBlocks(img, w, h, rows, chunk), ref)
                        << "w " << w << " h " << h << " rows " << rows << " chunk " << chunk << " saturated " << saturated;
                }
        }
    }
}

TEST(DitherWave, GreySourcesThatAreConvertedFirstMatchLines) {
    // 8-bit with a reversed grey palette (read through a table) and 16-bit
    // grey (through the converter): the block's grey rows are made first.
    std::vector<RGBQUAD> reversed(256);
    for (int i = 0; i < 256; ++i) reversed[size_t(i)] = RGBQUAD{uint8_t(255 - i), uint8_t(255 - i), uint8_t(255 - i), 0};
    for (int bits : {8, 16}) {
        const int w = 29, h = 23;
        const size_t bpl = size_t(w) * size_t(bits / 8);
        Image img(bpl * size_t(h));
        std::mt19937 rng{static_cast<uint32_t>(bits)};
        for (auto& v : img) v = uint8_t(rng());
        auto run = [&](int rows) {
            BITMAPRECORD bm;
            K_InitBitmap(&bm, BITMAPRECORD_SIZE, w, 1, bits);
            if (bits == 8) bm.pPalette = reversed.data(), bm.nColors = 256;
            else bm.nOrder = ORDER_GRAY;
            bm.nDitheringMethod = DITHER_FLOYD_STEINBERG;
            EXPECT_EQ(K_StartDithering(&bm, nullptr, 2), KS_SUCCESS);
            EXPECT_TRUE(krn::ditherRunIsGrey(&bm));
            krn::testhook::ditherWaveRows = rows;
            Image out(packedBytes(w) * size_t(h));
            std::vector<const uint8_t*> src;
            std::vector<uint8_t*> dst;
            for (int y = 0; y < h; ++y) {
                src.push_back(img.data() + bpl * size_t(y));
                dst.push_back(out.data() + packedBytes(w) * size_t(y));
            }
            EXPECT_EQ(krn::ditherRows(&bm, src.data(), dst.data(), h), KS_SUCCESS);
            krn::testhook::ditherWaveRows = 0;
            K_StopDithering(&bm);
            bm.pPalette = nullptr;
            K_FreeBitmap(&bm);
            return out;
        };
        const Image ref = run(1);
        for (int rows : {2, 4, 8}) EXPECT_EQ(run(rows), ref) << bits << " bits, rows " << rows;
    }
}

TEST(DitherWave, RowsChecksItsArgumentsAndOtherRunsGoRowByRow) {
    GreyRun run(16);
    uint8_t row[16] = {}, out[2];
    const uint8_t* src[1] = {row};
    uint8_t* dst[1] = {out};
    const uint8_t* nullSrc[1] = {nullptr};
    EXPECT_EQ(krn::ditherRows(nullptr, src, dst, 1), KS_INVALID_PARAMETER);
    EXPECT_EQ(krn::ditherRows(&run.bm, src, dst, -1), KS_INVALID_PARAMETER);
    EXPECT_EQ(krn::ditherRows(&run.bm, nullSrc, dst, 1), KS_INVALID_PARAMETER);
    EXPECT_EQ(krn::ditherRows(&run.bm, src, nullptr, 1), KS_INVALID_PARAMETER);
    EXPECT_EQ(krn::ditherRows(&run.bm, nullptr, nullptr, 0), KS_SUCCESS);
    run.bm.nWidth = 17;  // the record no longer describes the run
    EXPECT_EQ(krn::ditherRows(&run.bm, src, dst, 1), KS_INVALID_PARAMETER);
    run.bm.nWidth = 16;
    // The block's rows cannot be had: the run is as it was, and goes on as if
    // nothing had been asked.
    const Image img = makeImage(16, 8, true, 3);
    const uint8_t* rows[8];
    Image packed(2 * 8);
    uint8_t* outs[8];
    for (int k = 0; k < 8; ++k) rows[k] = img.data() + 16 * k, outs[k] = packed.data() + 2 * k;
    krn::testhook::ditherWaveRows = 4;
    krn::faultinject::arm(0);
    EXPECT_EQ(krn::ditherRows(&run.bm, rows, outs, 8), KS_NO_MEMORY);
    krn::faultinject::disarm();
    EXPECT_EQ(krn::ditherRows(&run.bm, rows, outs, 8), KS_SUCCESS);
    krn::testhook::ditherWaveRows = 0;
    EXPECT_EQ(packed, byReference(img, 16, 8));
    // A colour run has no wavefront: blocks of one row.
    BITMAPRECORD colour;
    K_InitBitmap(&colour, BITMAPRECORD_SIZE, 16, 1, 24);
    colour.nDitheringMethod = DITHER_FLOYD_STEINBERG;
    ASSERT_EQ(K_StartDithering(&colour, nullptr, 2), KS_SUCCESS);
    EXPECT_EQ(krn::ditherBlockRows(&colour), 1);
    K_FreeBitmap(&colour);
}

// ------------------------------------------------------ whole bitmaps

constexpr uint32_t kFloydBW = CRF_FIXEDPALETTE | CRF_DITHER(DITHER_FLOYD_STEINBERG);

// The 1-bit rows of a bitmap, each cut to the packed width.
Image rowsOf(BITMAPRECORD* bm) {
    Image out;
    std::vector<uint8_t> row(bm->nBytesPerLine);
    for (int y = 0; y < bm->nHeight; ++y) {
        EXPECT_GE(K_GetBitmapRow(bm, row.data(), y, bm->nBytesPerLine), 0);
        out.insert(out.end(), row.begin(), row.begin() + long(packedBytes(bm->nWidth)));
    }
    return out;
}

void fillGrey(BITMAPRECORD* bm, const Image& img) {
    ASSERT_EQ(K_SetBitmapPalette(bm, K_CreateGrayPalette(8), 256), KS_SUCCESS);
    for (int y = 0; y < bm->nHeight; ++y)
        ASSERT_GE(K_PutBitmapRow(bm, img.data() + size_t(y) * size_t(bm->nWidth), y, uint32_t(bm->nWidth)), 0);
}

TEST(DitherWave, ColorResOnEveryStorageKindEqualsRowByRow) {
    const int w = 61, h = 45;
    const Image img = makeImage(w, h, false, 9);
    const Image ref = byLines(img, w, h, false);
    for (auto kind : storagetest::kindsFor(8)) {
        for (bool rowPath : {false, true}) {
            storagetest::KindBitmap src(kind, w, h, 8);
            ASSERT_EQ(src.rc, KS_SUCCESS) << storagetest::kindName(kind);
            fillGrey(&src.bm, img);
            BITMAPRECORD dst{};
            krn::testhook::colorResRowPath = rowPath;
            const int32_t rc = K_ColorResBitmap(&src.bm, &dst, 1, kFloydBW, nullptr, 0, BITMAPRECORD_SIZE);
            krn::testhook::colorResRowPath = false;
            ASSERT_EQ(rc, KS_SUCCESS) << storagetest::kindName(kind);
            EXPECT_EQ(rowsOf(&dst), ref) << storagetest::kindName(kind) << " row path " << rowPath;
            K_FreeBitmap(&dst);
        }
    }
}

TEST(DitherWave, ColorResSurvivesEveryAllocationFailure) {
    const int w = 40, h = 19;
    const Image img = makeImage(w, h, true, 4);
    const Image ref = byLines(img, w, h, false);
    storagetest::KindBitmap src(storagetest::Kind::SingleBlock, w, h, 8);
    ASSERT_EQ(src.rc, KS_SUCCESS);
    fillGrey(&src.bm, img);
    BITMAPRECORD dst{};
    int failures = 0;
    for (long n = 0; n < 200; ++n) {
        const BITMAPRECORD before = src.bm;
        const long live = krn::faultinject::liveBlocks();
        krn::faultinject::arm(n);
        const int32_t rc = K_ColorResBitmap(&src.bm, &dst, 1, kFloydBW, nullptr, 0, BITMAPRECORD_SIZE);
        const long injected = krn::faultinject::injected();
        krn::faultinject::disarm();
        if (rc == KS_SUCCESS) {  // a failure the call can do without changes nothing either
            EXPECT_EQ(rowsOf(&dst), ref);
            if (injected == 0) break;
            K_FreeBitmap(&dst);
            dst = BITMAPRECORD{};
            continue;
        }
        ASSERT_EQ(rc, KS_NO_MEMORY) << "allocation " << n;
        ++failures;
        EXPECT_EQ(std::memcmp(&before, &src.bm, sizeof before), 0);
        EXPECT_EQ(krn::faultinject::liveBlocks(), live);
        BITMAPRECORD zero{};
        EXPECT_EQ(std::memcmp(&dst, &zero, sizeof dst), 0);
    }
    EXPECT_GE(failures, 3);  // plan, side record, run, wave rows
    EXPECT_EQ(rowsOf(&dst), ref);
    std::vector<uint8_t> row(src.bm.nBytesPerLine);
    for (int y = 0; y < h; ++y) {  // the source is read, never written
        ASSERT_GE(K_GetBitmapRow(&src.bm, row.data(), y, src.bm.nBytesPerLine), 0);
        EXPECT_EQ(std::memcmp(row.data(), img.data() + size_t(y) * size_t(w), size_t(w)), 0);
    }
    K_FreeBitmap(&dst);
}

}  // namespace
