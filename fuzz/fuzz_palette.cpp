// fuzz_palette.cpp - palettes read from untrusted bytes: the nearest-entry search (every path agrees with
// the plain scan), grey classification, and the record helpers on a palette taken from the input.
// Input: byte 0 target red, 1 green, 2 blue, 3 depth selector; the rest is the palette (at most 1024 entries).
#include <algorithm>
#include <vector>

#include "fuzz_input.h"
#include "krn/common/palette.h"
#include "ombrix.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    auto at = [&](size_t i) -> int { return i < size ? data[i] : 0; };
    const int r = at(0), g = at(1), b = at(2), sel = at(3);
    const size_t n = size > 4 ? std::min<size_t>((size - 4) / 4, 1024) : 0;
    std::vector<RGBQUAD> pal(n ? n : 1);
    if (n) std::memcpy(pal.data(), data + 4, n * sizeof(RGBQUAD));
    const int32_t count = int32_t(n);

    const int32_t want = krn::findPaletteIndexScalar(pal.data(), count, r, g, b);
    FUZZ_CHECK(krn::findPaletteIndexSse2(pal.data(), count, r, g, b) == want);
    FUZZ_CHECK(!krn::cpuHasAvx2() || krn::findPaletteIndexAvx2(pal.data(), count, r, g, b) == want);
    FUZZ_CHECK(K_FindPaletteIndex(pal.data(), count, r, g, b) == want && (count == 0 || (want >= 0 && want < count)));

    FUZZ_CHECK(unsigned(K_IsGrayScalePalette(pal.data(), count)) <= 3);

    // A bitmap of a depth 1..8 takes the palette (up to 2^depth entries).
    const int bpp = 1 + (sel & 7);
    BITMAPRECORD bm;
    FUZZ_CHECK(K_InitBitmap(&bm, BITMAPRECORD_SIZE, 3, 2, bpp) == KS_SUCCESS);
    const int32_t take = std::min<int32_t>(count, 1 << bpp);
    if (take > 0) {
        FUZZ_CHECK(K_SetBitmapPalette(&bm, pal.data(), take) == KS_SUCCESS);
        uint32_t v = 0;
        FUZZ_CHECK(K_CompareBitmapToPalette(&bm, pal.data(), take) == 1 &&
                   K_TranslateBitmapColor(&bm, nullptr, KCOLOR_RGB(r, g, b), &v) == KS_SUCCESS);
        const int32_t gc = K_IntIsGrayScaleBitmap(&bm);
        FUZZ_CHECK(v == KCOLOR_INDEX(K_FindPaletteIndex(pal.data(), take, r, g, b)) && gc >= 0 && gc <= 3);
    }
    K_FreeBitmap(&bm);
    return 0;
}
