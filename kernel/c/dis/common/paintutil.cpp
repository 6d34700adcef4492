// paintutil.cpp - paint intensity, contrast and gamma of a bitmap and the
// paint tables rebuilt from them.
//
// The three values live in the record's display words (uDisplay[0..2]); the
// tables live in one global block the record owns, whose pointer is kept in
// uDisplay[4..5] (one pointer-sized slot). The block is made on the first
// change; until then both tables are identities. uDisplay[3] is kept free.
//
// Rebuild, in order: the contrast curve (a ramp over the 256 entries, and the
// same ramp on the 16-bit scale, x and y times 257), then the intensity
// offset added and clamped, then the gamma exponent 100 / gamma applied. The
// table flag BRF_PAINT_TABLE is cleared only when the contrast is not 0 and
// set whenever an entry differs from its index.
#include <algorithm>
#include <cmath>
#include <cstring>

#include "krn/common/hooks.h"
#include "krn/common/kernel.h"
#include "krn/windowsemul/globalmem.h"
#include "paintutil.h"

namespace krn {

namespace {

constexpr uint32_t kPaintMagic = 0x544E4950u;  // "PINT"
constexpr size_t kHeader = 8;
constexpr size_t kOffset16 = kHeader + 256;
constexpr size_t kBytes8 = kOffset16;
constexpr size_t kBytes16 = kOffset16 + 65536 * sizeof(uint16_t);

constexpr int kIntensityWord = 0, kContrastWord = 1, kGammaWord = 2, kBlockWord = 4;

void* blockSlot(const BITMAPRECORD* bm) noexcept {
    void* p = nullptr;
    std::memcpy(&p, &bm->uDisplay[kBlockWord], sizeof(p));
    return p;
}
void setBlockSlot(BITMAPRECORD* bm, void* p) noexcept { std::memcpy(&bm->uDisplay[kBlockWord], &p, sizeof(p)); }

// The record's table block, or null when it has none (a stale or foreign
// value is never followed: the block must be a live global block of ours).
uint8_t* paintBlock(const BITMAPRECORD* bm) noexcept {
    void* p = blockSlot(bm);
    if (!p || !isGlobalBlock(p) || globalSize(p) < kBytes8) return nullptr;
    uint32_t magic;
    std::memcpy(&magic, p, 4);
    return magic == kPaintMagic ? static_cast<uint8_t*>(p) : nullptr;
}
bool hasTable16(const uint8_t* block) noexcept {
    uint32_t has;
    std::memcpy(&has, block + 4, 4);
    return has != 0;
}

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

void rebuild(BITMAPRECORD* bm, uint8_t* block) noexcept {
    const int32_t intensity = int32_t(bm->uDisplay[kIntensityWord]);
    const int32_t contrast = int32_t(bm->uDisplay[kContrastWord]);
    const int32_t gamma = storedGamma(bm);
    const int64_t o = (int64_t(intensity) * 255 + 500) / 1000;
    const double exponent = 100.0 / double(gamma);
    uint8_t* t8 = block + kHeader;
    uint16_t* t16 = hasTable16(block) ? reinterpret_cast<uint16_t*>(block + kOffset16) : nullptr;
    if (contrast != 0) bm->uFlags &= ~BRF_PAINT_TABLE;
    contrastCurve(t8, 256, contrast, 1, 255);
    if (t16) contrastCurve(t16, 65536, contrast, 257, 65535);
    bool differs = offsetAndGamma(t8, 256, o, exponent, 255.0);
    if (t16) differs = offsetAndGamma(t16, 65536, 257 * o, exponent, 65535.0) || differs;
    if (differs) bm->uFlags |= BRF_PAINT_TABLE;
}

// Makes sure the record has a block with the tables it needs (the 16-bit one
// filled with the identity when new); null when it cannot be allocated, in
// which case nothing changed.
uint8_t* ensureBlock(BITMAPRECORD* bm) noexcept {
    uint8_t* block = paintBlock(bm);
    const bool need16 = wants16(bm);
    if (block && (!need16 || hasTable16(block))) return block;
    uint8_t* fresh = static_cast<uint8_t*>(globalAlloc(GMEM_FIXED, need16 ? kBytes16 : kBytes8));
    if (!fresh) return nullptr;
    const uint32_t magic = kPaintMagic, has = need16 ? 1u : 0u;
    std::memcpy(fresh, &magic, 4);
    std::memcpy(fresh + 4, &has, 4);
    for (int i = 0; i < 256; ++i) fresh[kHeader + size_t(i)] = uint8_t(i);
    if (block) std::memcpy(fresh + kHeader, block + kHeader, 256);
    if (need16) {
        uint16_t* t16 = reinterpret_cast<uint16_t*>(fresh + kOffset16);
        for (uint32_t i = 0; i < 65536; ++i) t16[i] = uint16_t(i);
    }
    if (block) globalFree(block);
    setBlockSlot(bm, fresh);
    return fresh;
}

int32_t setValue(BITMAPRECORD* bm, int word, int32_t value, bool ok) noexcept {
    if (!bm) return KS_INVALID_BITMAP;
    if (!recordSizeValid(bm->uStructSize)) return KS_INVALID_STRUCT_SIZE;
    if (!(bm->uFlags & BRF_ALLOCATED)) return KS_INVALID_BITMAP;
    if (!ok) return KS_INVALID_PARAMETER;
    const int32_t current = word == kGammaWord ? storedGamma(bm) : int32_t(bm->uDisplay[word]);
    if (current == value) return KS_SUCCESS;
    uint8_t* block = ensureBlock(bm);
    if (!block) return KS_NO_MEMORY;
    bm->uDisplay[word] = uint32_t(value);
    rebuild(bm, block);
    return KS_SUCCESS;
}

int32_t getValue(const BITMAPRECORD* bm, int word) noexcept {
    int32_t r = checkRecord(bm);
    if (r != KS_SUCCESS) return r;
    return word == kGammaWord ? storedGamma(bm) : int32_t(bm->uDisplay[word]);
}

}  // namespace

void releasePaintTables(BITMAPRECORD* bm) noexcept {
    if (uint8_t* block = paintBlock(bm)) globalFree(block);
    setBlockSlot(bm, nullptr);
}

void detachPaintTables(BITMAPRECORD* bm) noexcept { setBlockSlot(bm, nullptr); }

const uint8_t* paintTable8(const BITMAPRECORD* bm) noexcept {
    const uint8_t* block = paintBlock(bm);
    return block ? block + kHeader : nullptr;
}

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
        if (const uint8_t* t = paintTable8(pBitmap))
            std::memcpy(pTable, t, 256);
        else
            for (int i = 0; i < 256; ++i) pTable[i] = uint8_t(i);
        return KS_SUCCESS;
    });
}

KAPI int32_t K_GetPaintTable16(const BITMAPRECORD* pBitmap, uint16_t* pTable) {
    return guarded([&]() -> int32_t {
        if (!pBitmap || !pTable) return KS_INVALID_PARAMETER;
        if (!recordSizeValid(pBitmap->uStructSize)) return KS_INVALID_STRUCT_SIZE;
        if (!wants16(pBitmap)) return KS_NOT_SUPPORTED;
        const uint8_t* block = paintBlock(pBitmap);
        if (block && hasTable16(block))
            std::memcpy(pTable, block + kOffset16, 65536 * sizeof(uint16_t));
        else
            for (uint32_t i = 0; i < 65536; ++i) pTable[i] = uint16_t(i);
        return KS_SUCCESS;
    });
}
