// The Floyd-Steinberg kernels that carry the error through tables against
// the plain tap loop, on odd widths and tall images whose errors reach the
// ends of the tables' ranges (noise, saturated stripes, flat extremes).
#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

#include "krn/common/dither.h"
#include "ombrix.h"

namespace {

// Rows of `bytesPerPixel` samples: noise, stripes of 0 and 255, a flat
// mid-grey, rising ramps.
std::vector<uint8_t> hardImage(int w, int h, int bytesPerPixel, uint32_t seed) {
    std::mt19937 rng(seed);
    std::vector<uint8_t> img(size_t(w) * size_t(h) * size_t(bytesPerPixel));
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x)
            for (int c = 0; c < bytesPerPixel; ++c) {
                uint8_t v;
                switch ((y / 7 + c) % 4) {
                    case 0: v = uint8_t(rng()); break;
                    case 1: v = ((x + y) & 1) ? 255 : 0; break;
                    case 2: v = uint8_t(127 + (y & 1)); break;
                    default: v = uint8_t((x * 255) / (w > 1 ? w - 1 : 1)); break;
                }
                img[(size_t(y) * size_t(w) + size_t(x)) * size_t(bytesPerPixel) + size_t(c)] = v;
            }
    return img;
}

std::vector<uint8_t> dither(int w, int h, int bits, const std::vector<uint8_t>& img, const RGBQUAD* pal,
                            uint32_t colours, bool plain) {
    BITMAPRECORD bm;
    EXPECT_EQ(KS_SUCCESS, K_InitBitmap(&bm, BITMAPRECORD_SIZE, w, h, bits));
    if (bits == 8) {
        bm.pPalette = K_CreateGrayPalette(8);
        bm.nOrder = ORDER_GRAY;
    }
    bm.nDitheringMethod = DITHER_FLOYD_STEINBERG;
    krn::testhook::ditherPlainKernels = plain;
    EXPECT_EQ(KS_SUCCESS, K_StartDithering(&bm, pal, colours));
    krn::testhook::ditherPlainKernels = false;
    const size_t in = size_t(w) * size_t(bits / 8), out = size_t(w);
    std::vector<uint8_t> res(out * size_t(h));
    for (int y = 0; y < h; ++y)
        EXPECT_EQ(KS_SUCCESS, K_DitherLine(&bm, img.data() + size_t(y) * in, res.data() + size_t(y) * out));
    K_StopDithering(&bm);
    K_FreeBitmap(&bm);
    return res;
}

TEST(SpeedDither, CarryTableKernelsEqualThePlainTapLoop) {
    struct Case {
        const char* name;
        int bits;
        const RGBQUAD* pal;
        uint32_t colours;
    };
    const Case cases[] = {{"grey to black and white", 8, nullptr, 2},
                          {"fixed 8", 24, nullptr, 8},
                          {"fixed 32", 24, nullptr, 32},
                          {"fixed 64", 24, nullptr, 64},
                          {"fixed 128", 24, nullptr, 128},
                          {"fixed 256", 24, nullptr, 256},
                          {"web", 24, K_IntGetNetscapePalette(), 256},
                          {"fixed 256 from 32-bit", 32, nullptr, 256}};
    uint32_t seed = 1;
    for (const Case& c : cases)
        for (int w : {1, 2, 3, 9, 17, 255, 1001}) {
            SCOPED_TRACE(std::string(c.name) + ", width " + std::to_string(w));
            const int h = 60;
            const auto img = hardImage(w, h, c.bits / 8, ++seed);
            ASSERT_EQ(dither(w, h, c.bits, img, c.pal, c.colours, false),
                      dither(w, h, c.bits, img, c.pal, c.colours, true));
        }
}

}  // namespace
