// fuzz_dither.cpp - dithering runs over random formats, methods, palettes, match tables, widths and rows.
// Rows are sized exactly (a sanitizer sees any access outside them); every index written fits the output
// depth and, without a caller table, names a palette entry.
#include <vector>

#include "fuzz_input.h"
#include "ombrix.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 12) return 0;
    // Bytes wrap around (an input is never too short for the rows it asks for).
    struct Wrap : fuzzinput::Input {
        uint8_t byte() { return p[i++ % n]; }
    } in{{data, size}};
    static const int kDepths[] = {1, 2, 3, 4, 5, 6, 7, 8, 12, 16, 24, 32, 48, 64};
    const int bits = kDepths[in.byte() % 14], order = in.byte() % 8, method = in.byte() % 10;  // 9 is invalid
    const uint32_t colors = uint32_t(in.byte()) + 1u;
    const int bitsExtra = in.byte() % 3, paletteKind = in.byte() % 5;
    const int width = 1 + ((in.byte() | in.byte() << 8) % 300), height = 1 + in.byte() % 6;
    const int lowBit = int(in.byte() % 40) - 4, highBit = int(in.byte() % 40) - 4;

    BITMAPRECORD bm;
    if (K_InitBitmap(&bm, BITMAPRECORD_SIZE, width, height, bits) != KS_SUCCESS) return 0;
    bm.nOrder = order, bm.nDitheringMethod = method, bm.nLowBit = lowBit, bm.nHighBit = highBit;
    if (bits <= 8 && (in.byte() & 1)) {
        const size_t n = size_t(1) << bits;
        bm.pPalette = static_cast<RGBQUAD*>(K_GlobalAlloc(GMEM_FIXED, n * sizeof(RGBQUAD)));
        if (bm.pPalette) {
            bm.nColors = int32_t(in.byte() % (n + 1));
            for (size_t k = 0; k < n; ++k) bm.pPalette[k] = RGBQUAD{in.byte(), in.byte(), in.byte(), 0};
        }
    }

    std::vector<RGBQUAD> pal(256);
    for (auto& e : pal) e = RGBQUAD{in.byte(), in.byte(), in.byte(), uint8_t(paletteKind == 3 ? in.byte() : 0)};
    const RGBQUAD* target = paletteKind == 0 ? nullptr : pal.data();
    if (paletteKind == 1) K_GetFixedPalette(pal.data(), 8);
    std::vector<uint32_t> table(paletteKind == 4 ? 32768 : 0);
    for (auto& w : table) w = in.byte();
    int outBits = 1;
    while ((1u << outBits) < colors) ++outBits;
    const int nBits = outBits + bitsExtra;
    const int32_t rc = bitsExtra || !table.empty()
                           ? K_StartDitheringExt(&bm, target, colors, nBits, table.empty() ? nullptr : table.data())
                           : K_StartDithering(&bm, target, colors);
    if (rc == KS_SUCCESS) {
        const int used = bitsExtra || !table.empty() ? nBits : outBits;
        const size_t srcBytes = (size_t(width) * size_t(bits) + 7) / 8, dstBytes = (size_t(width) * used + 7) / 8;
        for (int y = 0; y < height; ++y) {
            std::vector<uint8_t> src(srcBytes), dst(dstBytes);
            for (auto& b : src) b = in.byte();
            FUZZ_CHECK(K_DitherLine(&bm, src.data(), dst.data()) == KS_SUCCESS);
            fuzzinput::touch(dst);  // every output byte is read, whatever the checks below look at
            if (used <= 8 && table.empty() && target) {  // every index names one of the colours (packed MSB first)
                for (int x = 0; x < width; ++x) {
                    uint32_t v = 0;
                    for (size_t bit = size_t(x) * size_t(used); bit < size_t(x + 1) * size_t(used); ++bit)
                        v = v << 1 | ((dst[bit / 8] >> (7 - bit % 8)) & 1u);
                    FUZZ_CHECK(v < colors);
                }
            }
        }
    }
    K_FreeBitmap(&bm);  // stops the run and frees the palette
    return 0;
}
