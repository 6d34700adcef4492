// test_dither_wave.cpp - whole images in blocks of rows (the wavefront of
// Floyd-Steinberg to black and white from grey) against K_DitherLine row by
// row, the plain tap loop and the reference ditherer; K_ColorResBitmap on
// every storage kind and under allocation failures.
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

using Image = std::vector<uint8_t>;
size_t packed(int w) { return (size_t(w) + 7) / 8; }
const std::vector<RGBQUAD> kGrey = [] {
    std::vector<RGBQUAD> p(256);
    for (int i = 0; i < 256; ++i) p[size_t(i)] = RGBQUAD{uint8_t(i), uint8_t(i), uint8_t(i), 0};
    return p;
}();

// Random bytes, or runs of 127 and 128 (the largest errors of either sign)
// between black and white, which drive the carried sums to the tables' ends.
Image makeImage(size_t bytes, int w, bool saturated, uint32_t seed) {
    std::mt19937 rng(seed);
    Image img(bytes);
    static const uint8_t kLevels[4] = {127, 128, 0, 255};
    for (size_t i = 0; i < bytes; ++i)
        img[i] = saturated ? kLevels[(i % size_t(w) / 5 + i / size_t(w) / 7 * 3 + (rng() % 16 == 0)) % 4] : uint8_t(rng());
    return img;
}

// h rows of `bits`-bit grey (8 bits: through `pal`) to 1 bit: rows 0 by
// K_DitherLine, else through ditherRows with blocks of `rows` in calls of `chunk`.
Image run(const Image& img, int w, int h, int rows, int chunk = 1 << 30, bool plain = false, int bits = 8,
          const RGBQUAD* pal = nullptr) {
    BITMAPRECORD bm;
    K_InitBitmap(&bm, BITMAPRECORD_SIZE, w, 1, bits);
    bm.pPalette = const_cast<RGBQUAD*>(pal ? pal : kGrey.data()), bm.nColors = 256;
    if (bits != 8) bm.nOrder = ORDER_GRAY;
    bm.nDitheringMethod = DITHER_FLOYD_STEINBERG;
    krn::testhook::ditherPlainKernels = plain;
    EXPECT_EQ(K_StartDithering(&bm, nullptr, 2), KS_SUCCESS);
    krn::testhook::ditherPlainKernels = false;
    krn::testhook::ditherWaveRows = rows;
    Image out(packed(w) * size_t(h));
    const size_t bpl = size_t(w) * size_t(bits / 8);
    for (int y0 = 0; y0 < h; y0 += std::min(chunk, h)) {
        std::vector<const uint8_t*> src;
        std::vector<uint8_t*> dst;
        for (int y = y0; y < std::min(h, y0 + chunk); ++y) {
            src.push_back(img.data() + bpl * size_t(y));
            dst.push_back(out.data() + packed(w) * size_t(y));
            if (!rows) {
                EXPECT_EQ(K_DitherLine(&bm, src.back(), dst.back()), KS_SUCCESS);
            }
        }
        if (rows) {
            EXPECT_EQ(krn::ditherRows(&bm, src.data(), dst.data(), int32_t(src.size())), KS_SUCCESS);
        }
    }
    krn::testhook::ditherWaveRows = 0;
    K_StopDithering(&bm);
    bm.pPalette = nullptr;
    K_FreeBitmap(&bm);
    return out;
}

// The independent reference (whole-image error planes), packed the same way.
Image reference(const Image& img, int w, int h) {
    std::vector<ditherref::Rgb> rgb;
    for (uint8_t v : img) rgb.push_back({v, v, v});
    ditherref::Target t;
    t.colours = {{0, 0, 0}, {255, 255, 255}};
    t.quantise = [](int r, int g, int b) { return (2 * r + 5 * g + b + 4) >> 10; };
    const std::vector<int> idx = ditherref::dither(1, w, h, rgb, t);
    Image out(packed(w) * size_t(h), 0);
    for (size_t i = 0; i < idx.size(); ++i)
        if (idx[i]) out[packed(w) * (i / size_t(w)) + i % size_t(w) / 8] |= uint8_t(0x80u >> (i % size_t(w) % 8));
    return out;
}

TEST(DitherWave, BlocksMatchLinesThePlainLoopAndTheReference) {
    for (int w : {1, 2, 3, 7, 8, 9, 31, 4001})
        for (bool sat : {false, true}) {
            const int h = w > 100 ? 11 : (sat ? 203 : 37);  // tall and narrow saturates the error rows
            const Image img = makeImage(size_t(w) * size_t(h), w, sat, uint32_t(w * 2 + sat));
            const Image ref = reference(img, w, h);
            ASSERT_EQ(run(img, w, h, 0), ref) << w;
            ASSERT_EQ(run(img, w, h, 0, 1, true), ref) << w;
            for (int rows : {1, 2, 4, 8})
                for (int chunk : {h, 3, 9}) EXPECT_EQ(run(img, w, h, rows, chunk), ref) << w << " " << rows << " " << chunk;
        }
    // Sources made grey first: a reversed grey palette (a table), 16-bit grey (the converter).
    std::vector<RGBQUAD> rev(256);
    for (int i = 0; i < 256; ++i) rev[size_t(i)] = RGBQUAD{uint8_t(255 - i), uint8_t(255 - i), uint8_t(255 - i), 0};
    for (int bits : {8, 16}) {
        const Image img = makeImage(29 * 23 * size_t(bits / 8), 29, false, uint32_t(bits));
        for (int rows : {2, 4, 8})
            EXPECT_EQ(run(img, 29, 23, rows, 23, false, bits, rev.data()), run(img, 29, 23, 0, 23, false, bits, rev.data()));
    }
}

constexpr uint32_t kFloydBW = CRF_FIXEDPALETTE | CRF_DITHER(DITHER_FLOYD_STEINBERG);

Image rowsOf(BITMAPRECORD* bm, size_t bytes) {
    Image out, row(bm->nBytesPerLine);
    for (int y = 0; y < bm->nHeight; ++y) {
        EXPECT_GE(K_GetBitmapRow(bm, row.data(), y, bm->nBytesPerLine), 0);
        out.insert(out.end(), row.begin(), row.begin() + long(bytes));
    }
    return out;
}

TEST(DitherWave, ColorResOnEveryStorageKindAndUnderAllocationFailures) {
    const int w = 61, h = 45;
    const Image img = makeImage(size_t(w) * h, w, true, 9), ref = run(img, w, h, 0);
    for (auto kind : storagetest::kindsFor(8))
        for (bool rowPath : {false, true}) {
            storagetest::KindBitmap src(kind, w, h, 8);
            ASSERT_EQ(src.rc, KS_SUCCESS);
            ASSERT_EQ(K_SetBitmapPalette(&src.bm, kGrey.data(), 256), KS_SUCCESS);
            for (int y = 0; y < h; ++y) ASSERT_GE(K_PutBitmapRow(&src.bm, img.data() + size_t(y) * w, y, w), 0);
            // Walk the allocations on the first kind, then one clean call on the others.
            for (long n = kind == storagetest::Kind::SingleBlock && !rowPath ? 0 : 1000;; ++n) {
                const BITMAPRECORD before = src.bm;
                const long live = krn::faultinject::liveBlocks();
                BITMAPRECORD dst{}, zero{};
                krn::testhook::colorResRowPath = rowPath;
                krn::faultinject::arm(n);
                const int32_t rc = K_ColorResBitmap(&src.bm, &dst, 1, kFloydBW, nullptr, 0, BITMAPRECORD_SIZE);
                const long injected = krn::faultinject::injected();
                krn::faultinject::disarm();
                krn::testhook::colorResRowPath = false;
                if (rc == KS_SUCCESS) {  // a failure the call could do without changes nothing either
                    EXPECT_EQ(rowsOf(&dst, packed(w)), ref) << storagetest::kindName(kind) << " " << rowPath;
                    K_FreeBitmap(&dst);
                    if (injected == 0) break;
                    continue;
                }
                ASSERT_EQ(rc, KS_NO_MEMORY) << n;
                EXPECT_EQ(std::memcmp(&before, &src.bm, sizeof before), 0);
                EXPECT_EQ(std::memcmp(&dst, &zero, sizeof dst), 0);
                EXPECT_EQ(krn::faultinject::liveBlocks(), live);
            }
            EXPECT_EQ(rowsOf(&src.bm, size_t(w)), img);  // read, never written
        }
}

}  // namespace
