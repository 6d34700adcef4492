// paintutil.cpp - paint intensity, contrast and gamma of a bitmap and the
// paint tables derived from them.
//
// The three values live in the record's display words (uDisplay[0..2]). The
// tables are a function of the values and of the bitmap's kind, so the record
// keeps no table block: a change computes them (to decide the table flag),
// and K_GetPaintTable / K_GetPaintTable16 compute them into the caller's
// buffer. Nothing is owned, so a record copied byte for byte (lists, copies)
// carries its paint state with it and nothing can be freed twice.
//
// Rebuild, in order: the contrast curve (a ramp over the 256 entries, and the
// same ramp on the 16-bit scale, x and y times 257), then the intensity
// offset added and clamped, then the gamma exponent 100 / gamma applied. The
// table flag BRF_PAINT_TABLE is cleared only when the contrast is not 0 and
// set whenever an entry differs from its index.
#include <algorithm>
#include <cmath>
#include <cstring>

#include "krn/common/kernel.h"
#include "krn/common/memory.h"
#include "paintutil.h"

namespace krn {

namespace {

constexpr int kIntensityWord = 0, kContrastWord = 1, kGammaWord = 2;

bool wants16(const BITMAPRECORD* bm) noexcept {
    return isCurrentLayout(bm) && (bm->nBitsPerPixel == 12 || bm->nBitsPerPixel == 16) &&
           bm->nOrder == ORDER_GRAY;
}

int32_t storedGamma(const BITMAPRECORD* bm) noexcept {
    int32_t g = int32_t(bm->uDisplay[kGammaWord]);
    return g == 0 ? 100 : g;
}

// Win32 MulDiv: a * b / c rounded half away from zero; -1 for c == 0 or a
// result outside 32 bits.
int32_t mulDiv(int64_t a, int64_t b, int64_t c) noexcept {
    if (c == 0) return -1;
    const int64_t p = a * b;
    const bool neg = (p < 0) != (c < 0);
    const uint64_t ap = uint64_t(p < 0 ? -p : p), ac = uint64_t(c < 0 ? -c : c);
    const uint64_t q = (ap + ac / 2) / ac;
    if (q > 0x7FFFFFFFull) return -1;
    return neg ? -int32_t(q) : int32_t(q);
}

// Entries x0..x1-1 rise from y0 towards y1; the increment is clamped to 0..top.
template <class T>
void ramp(T* tab, int64_t n, int64_t x0, int64_t x1, int64_t y0, int64_t y1, int64_t top) noexcept {
    const int64_t width = x1 - x0 == 0 ? 1 : x1 - x0;  // the ramp's own width, also where the table ends first
    for (int64_t x = std::max<int64_t>(x0, 0); x < std::min(x1, n); ++x) {
        int64_t inc = std::clamp<int64_t>(mulDiv(x - x0, y1 - y0, width), 0, top);
        tab[x] = T(std::clamp<int64_t>(y0 + inc, 0, top));
    }
}
template <class T>
void fill(T* tab, int64_t n, int64_t x0, int64_t x1, T v) noexcept {
    for (int64_t x = std::max<int64_t>(x0, 0); x < std::min(x1, n); ++x) tab[x] = v;
}

// Contrast curve of either table: scale 1 with top 255 for the 8-bit table,
// scale 257 with top 65535 for the 16-bit one.
template <class T>
void contrastCurve(T* tab, int64_t n, int32_t c, int64_t scale, int64_t top) noexcept {
    if (c == 0) {
        ramp(tab, n, 0, 256 * scale, 0, 256 * scale, top);
        return;
    }
    const int32_t ac = c < 0 ? -c : c;
    const int64_t a = mulDiv(ac, 128, 4000);
    const int64_t k = int64_t(5.34 * std::pow(1.5, std::log(ac * 128.0 / 1000.0) / std::log(2.0)));
    const int64_t b = 256 - k;
    if (c > 0) {
        fill(tab, n, 0, a * scale, T(0));
        ramp(tab, n, a * scale, b * scale, 0, 256 * scale, top);
        fill(tab, n, b * scale, n, T(top));
    } else {
        ramp(tab, n, 0, 256 * scale, a * scale, b * scale, top);
    }
}

// Intensity offset and gamma; true when an entry differs from its index.
template <class T>
bool offsetAndGamma(T* tab, int64_t n, int64_t offset, double exponent, double top) noexcept {
    bool differs = false;
    for (int64_t i = 0; i < n; ++i) {
        const double v = double(std::clamp<int64_t>(int64_t(tab[i]) + offset, 0, int64_t(top)));
        double g = 0.5 + std::pow(v / top, exponent) * top;
        if (!(g >= 0.0)) g = 0.0;  // NaN cannot arise from finite inputs; kept defensive
        if (g > top) g = top;      // 0 to a negative power
        const T out = T(int64_t(g));
        tab[i] = out;
        if (int64_t(out) != i) differs = true;
    }
    return differs;
}

struct Values {
    int32_t intensity, contrast, gamma;
};
Values valuesOf(const BITMAPRECORD* bm) noexcept {
    return Values{int32_t(bm->uDisplay[kIntensityWord]), int32_t(bm->uDisplay[kContrastWord]), storedGamma(bm)};
}

// Fills the 8-bit table and, when t16 is given, the 16-bit one; reports in
// *differs8 / *differs16 whether an entry differs from its index.
void buildTables(const Values& v, uint8_t* t8, uint16_t* t16, bool* differs8, bool* differs16) noexcept {
    const int64_t o = (int64_t(v.intensity) * 255 + 500) / 1000;
    const double exponent = 100.0 / double(v.gamma);
    contrastCurve(t8, 256, v.contrast, 1, 255);
    *differs8 = offsetAndGamma(t8, 256, o, exponent, 255.0);
    *differs16 = false;
    if (t16) {
        contrastCurve(t16, 65536, v.contrast, 257, 65535);
        *differs16 = offsetAndGamma(t16, 65536, 257 * o, exponent, 65535.0);
    }
}

int32_t setValue(BITMAPRECORD* bm, int word, int32_t value, bool ok) noexcept {
    if (!bm) return KS_INVALID_BITMAP;
    if (!recordSizeValid(bm->uStructSize)) return KS_INVALID_STRUCT_SIZE;
    if (!(bm->uFlags & BRF_ALLOCATED)) return KS_INVALID_BITMAP;
    if (!ok) return KS_INVALID_PARAMETER;
    const int32_t current = word == kGammaWord ? storedGamma(bm) : int32_t(bm->uDisplay[word]);
    if (current == value) return KS_SUCCESS;
    // The 16-bit table is computed in a scratch block taken before anything
    // changes: without it the call fails and the record stays as it was.
    UniqueMem<uint16_t> t16;
    if (wants16(bm)) {
        t16.reset(memAllocArray<uint16_t>(65536));
        if (!t16) return KS_NO_MEMORY;
    }
    Values v = valuesOf(bm);
    if (word == kIntensityWord) v.intensity = value;
    if (word == kContrastWord) v.contrast = value;
    if (word == kGammaWord) v.gamma = value;
    uint8_t t8[256];
    bool d8 = false, d16 = false;
    buildTables(v, t8, t16.get(), &d8, &d16);
    bm->uDisplay[word] = uint32_t(value);
    if (v.contrast != 0) bm->uFlags &= ~BRF_PAINT_TABLE;
    if (d8 || d16) bm->uFlags |= BRF_PAINT_TABLE;
    return KS_SUCCESS;
}

int32_t getValue(const BITMAPRECORD* bm, int word) noexcept {
    int32_t r = checkRecord(bm);
    if (r != KS_SUCCESS) return r;
    return word == kGammaWord ? storedGamma(bm) : int32_t(bm->uDisplay[word]);
}

}  // namespace

}  // namespace krn

using namespace krn;

KAPI int32_t K_SetPaintIntensity(BITMAPRECORD* pBitmap, int32_t nIntensity) {
    return guarded([&] { return setValue(pBitmap, kIntensityWord, nIntensity, nIntensity >= -1000 && nIntensity <= 1000); });
}
KAPI int32_t K_SetPaintContrast(BITMAPRECORD* pBitmap, int32_t nContrast) {
    return guarded([&] { return setValue(pBitmap, kContrastWord, nContrast, nContrast >= -1000 && nContrast <= 1000); });
}
KAPI int32_t K_SetPaintGamma(BITMAPRECORD* pBitmap, int32_t nGamma) {
    return guarded([&] { return setValue(pBitmap, kGammaWord, nGamma, nGamma != 0); });
}
KAPI int32_t K_GetPaintIntensity(const BITMAPRECORD* pBitmap) {
    return guarded([&] { return getValue(pBitmap, kIntensityWord); });
}
KAPI int32_t K_GetPaintContrast(const BITMAPRECORD* pBitmap) {
    return guarded([&] { return getValue(pBitmap, kContrastWord); });
}
KAPI int32_t K_GetPaintGamma(const BITMAPRECORD* pBitmap) {
    return guarded([&] { return getValue(pBitmap, kGammaWord); });
}

KAPI int32_t K_GetPaintTable(const BITMAPRECORD* pBitmap, uint8_t* pTable) {
    return guarded([&]() -> int32_t {
        if (!pBitmap || !pTable) return KS_INVALID_PARAMETER;
        if (!recordSizeValid(pBitmap->uStructSize)) return KS_INVALID_STRUCT_SIZE;
        bool d8, d16;
        buildTables(valuesOf(pBitmap), pTable, nullptr, &d8, &d16);
        return KS_SUCCESS;
    });
}

KAPI int32_t K_GetPaintTable16(const BITMAPRECORD* pBitmap, uint16_t* pTable) {
    return guarded([&]() -> int32_t {
        if (!pBitmap || !pTable) return KS_INVALID_PARAMETER;
        if (!recordSizeValid(pBitmap->uStructSize)) return KS_INVALID_STRUCT_SIZE;
        if (!wants16(pBitmap)) return KS_NOT_SUPPORTED;
        uint8_t t8[256];
        bool d8, d16;
        buildTables(valuesOf(pBitmap), t8, pTable, &d8, &d16);
        return KS_SUCCESS;
    });
}
