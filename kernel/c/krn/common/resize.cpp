// resize.cpp - nearest-pixel resizing, the row-at-a-time resizer, the
// black-preserving reduction of 1-bit images and the method choice of
// K_SizeBitmap.
//
// The one stepping rule: target pixel i takes source pixel
// floor(i * old / new), walked with an integer step and an error term (no
// half-pixel centring). Row kernels (one depth each) are picked once per
// call; the image loop reads a source row only when the stepping moves to a
// later row, and copies the previous target row when it does not.
#include "resize.h"

#include <algorithm>
#include <cstring>

#include "convert_kernels.h"
#include "kernel.h"
#include "memory.h"
#include "progress.h"
#include "resize_kernels.h"
#include "storage.h"

namespace krn {
namespace {

// ---------------------------------------------------------------- pixel access below 8 bits

// Pixels of b bits (1..7) packed most significant bit first.
inline uint32_t getBits(const uint8_t* p, uint64_t idx, uint32_t b) noexcept {
    const uint64_t bit = idx * b;
    const uint8_t* q = p + (bit >> 3);
    const uint32_t o = uint32_t(bit & 7);
    const uint32_t mask = (1u << b) - 1u;
    if (o + b <= 8) return (uint32_t(q[0]) >> (8 - o - b)) & mask;
    const uint32_t w = (uint32_t(q[0]) << 8) | q[1];
    return (w >> (16 - o - b)) & mask;
}
inline void putBits(uint8_t* p, uint64_t idx, uint32_t b, uint32_t v) noexcept {
    const uint64_t bit = idx * b;
    uint8_t* q = p + (bit >> 3);
    const uint32_t o = uint32_t(bit & 7);
    const uint32_t mask = (1u << b) - 1u;
    if (o + b <= 8) {
        const uint32_t s = 8 - o - b;
        q[0] = uint8_t((q[0] & ~(mask << s)) | ((v & mask) << s));
    } else {
        const uint32_t s = 16 - o - b;
        uint32_t w = (uint32_t(q[0]) << 8) | q[1];
        w = (w & ~(mask << s)) | ((v & mask) << s);
        q[0] = uint8_t(w >> 8);
        q[1] = uint8_t(w);
    }
}

// One pixel move of each depth: source pixel s to target pixel d.
struct MoveBits {
    uint32_t b;
    void operator()(const uint8_t* src, uint64_t s, uint8_t* dst, uint64_t d) const noexcept {
        putBits(dst, d, b, getBits(src, s, b));
    }
};
struct Move12 {
    void operator()(const uint8_t* src, uint64_t s, uint8_t* dst, uint64_t d) const noexcept {
        conv::write12(dst, size_t(d), conv::read12(src, size_t(s)));
    }
};
template <size_t N>
struct MoveBytes {
    void operator()(const uint8_t* src, uint64_t s, uint8_t* dst, uint64_t d) const noexcept {
        std::memcpy(dst + d * N, src + s * N, N);
    }
};

// The stepping rule forward / backward with any pixel mover.
template <class Move>
void stepForward(Move mv, const uint8_t* src, uint8_t* dst, uint32_t count, int64_t start, int64_t step,
                 int64_t err, int64_t rem, int64_t den) noexcept {
    int64_t pos = start;
    for (uint32_t i = 0; i < count; ++i) {
        mv(src, uint64_t(pos), dst, uint64_t(start) + i);
        err += rem;
        pos += step;
        if (err >= den) {
            err -= den;
            ++pos;
        }
    }
}
template <class Move>
void stepBackward(Move mv, const uint8_t* src, uint8_t* dst, uint32_t count, int64_t start, int64_t step,
                  int64_t err, int64_t rem, int64_t den) noexcept {
    if (count == 0) return;
    // Position and error of the last pixel, then walk back.
    const int64_t total = err + rem * int64_t(count - 1);
    int64_t pos = start + step * int64_t(count - 1) + total / den;
    err = total % den;
    for (int64_t i = int64_t(count) - 1; i >= 0; --i) {
        mv(src, uint64_t(pos), dst, uint64_t(start + i));
        err -= rem;
        pos -= step;
        if (err < 0) {
            err += den;
            --pos;
        }
    }
}

bool scanDepthValid(int32_t bpp) noexcept { return bitsValid(bpp); }

template <bool Backward>
void scanLine(int32_t bpp, int64_t start, int64_t step, int64_t err, int64_t rem, const uint8_t* src, uint8_t* dst,
              uint32_t count, int64_t den) noexcept {
    auto run = [&](auto mv) {
        if constexpr (Backward)
            stepBackward(mv, src, dst, count, start, step, err, rem, den);
        else
            stepForward(mv, src, dst, count, start, step, err, rem, den);
    };
    switch (bpp) {
        case 8: run(MoveBytes<1>{}); break;
        case 12: run(Move12{}); break;
        case 16: run(MoveBytes<2>{}); break;
        case 24: run(MoveBytes<3>{}); break;
        case 32: run(MoveBytes<4>{}); break;
        case 48: run(MoveBytes<6>{}); break;
        case 64: run(MoveBytes<8>{}); break;
        default: run(MoveBits{uint32_t(bpp)}); break;
    }
}

// Step and remainder of one axis, with the equal-size adjustment.
void axisStep(int32_t oldN, int32_t newN, int64_t* step, int64_t* rem) noexcept {
    *step = oldN / newN;
    *rem = oldN % newN;
    if (newN >= oldN && *rem == 0) {
        *step = 0;
        *rem = newN;
    }
}

// ---------------------------------------------------------------- whole-image nearest path

// Source byte offsets of the target pixels of a byte-sized depth.
void buildOffsets(uint32_t* off, int32_t oldW, int32_t newW, uint32_t bytesPerPixel) noexcept {
    int64_t step, rem;
    axisStep(oldW, newW, &step, &rem);
    int64_t pos = 0, err = 0;
    for (int32_t i = 0; i < newW; ++i) {
        off[i] = uint32_t(pos) * bytesPerPixel;
        err += rem;
        pos += step;
        if (err >= newW) {
            err -= newW;
            ++pos;
        }
    }
}

// Row kernels of the image loop: a precomputed offset table per target pixel.
template <size_t N>
void gatherRow(const uint8_t* __restrict src, uint8_t* __restrict dst, const uint32_t* __restrict off,
               int32_t n, int32_t wide) noexcept {
    int32_t i = 0;
    if constexpr (N == 3) {
        // Four-byte moves overlap the next pixel; the pixels whose fourth
        // byte would pass the source row or the target row move alone.
        for (; i < wide; ++i) {
            uint32_t v;
            std::memcpy(&v, src + off[i], 4);
            std::memcpy(dst + size_t(i) * 3, &v, 4);
        }
    }
    for (; i < n; ++i) std::memcpy(dst + size_t(i) * N, src + off[i], N);
}

using GatherFn = void (*)(const uint8_t*, uint8_t*, const uint32_t*, int32_t, int32_t);

GatherFn pickGather(int32_t bpp) noexcept {
    switch (bpp) {
        case 8: return gatherRow<1>;
        case 16: return gatherRow<2>;
        case 24: return gatherRow<3>;
        case 32: return gatherRow<4>;
        case 48: return gatherRow<6>;
        case 64: return gatherRow<8>;
        default: return nullptr;
    }
}

// Rows of a bitmap reached directly (single block, caller memory) or
// through the row layer.
struct RowAccess {
    BITMAPRECORD* bm;
    uint8_t* base = nullptr;
    explicit RowAccess(BITMAPRECORD* b) : bm(b) {
        const uint32_t f = b->uFlags;
        const bool memoryKind = !(f & (BRF_COMPRESSED | BRF_TILED | BRF_SUPERCOMPRESSED | BRF_DISK));
        const bool callback = isCurrentLayout(b) && b->pCallbacks && b->pCallbacks->pfnGetRow;
        if (memoryKind && !callback && b->pData &&
            ((f & BRF_LOCKED) || ((f & BRF_USER_MEMORY) && !(f & BRF_MOVABLE_BLOCK))))
            base = b->pData;
    }
    const uint8_t* read(int32_t row, uint8_t* buf, int32_t* rc) const noexcept {
        if (base) return base + uint64_t(row) * bm->nBytesPerLine;
        *rc = readFullRow(bm, row, buf);
        return buf;
    }
    uint8_t* target(int32_t row, uint8_t* buf) const noexcept {
        return base ? base + uint64_t(row) * bm->nBytesPerLine : buf;
    }
    int32_t commit(int32_t row, const uint8_t* buf) const noexcept {
        if (base) return KS_SUCCESS;
        return writeRow(bm, row, 0, buf, bm->nBytesPerLine);
    }
};

// Accesses two bitmaps for the length of a call.
struct AccessPair {
    BITMAPRECORD* a;
    BITMAPRECORD* b;
    int32_t okA = 0, okB = 0;
    int32_t rc = KS_SUCCESS;
    AccessPair(BITMAPRECORD* x, BITMAPRECORD* y) : a(x), b(y) {
        rc = K_IntAccessBitmap(a, &okA);
        if (rc == KS_SUCCESS) rc = K_IntAccessBitmap(b, &okB);
    }
    ~AccessPair() {
        if (okB) K_IntReleaseBitmap(b, 1, KS_SUCCESS);
        if (okA) K_IntReleaseBitmap(a, 1, KS_SUCCESS);
    }
};

int32_t nearestResize(BITMAPRECORD* src, BITMAPRECORD* dst, bool flipRows) noexcept {
    const int32_t bpp = src->nBitsPerPixel;
    const int32_t oldW = src->nWidth, oldH = src->nHeight, newW = dst->nWidth, newH = dst->nHeight;
    if (dst->nBitsPerPixel != bpp) return KS_INVALID_BITS_PER_PIXEL;
    AccessPair acc(src, dst);
    if (acc.rc != KS_SUCCESS) return acc.rc;
    RowAccess in(src), out(dst);
    UniqueMem<uint8_t> srcBuf(static_cast<uint8_t*>(memCalloc(size_t(src->nBytesPerLine) + 8)));
    UniqueMem<uint8_t> dstBuf(static_cast<uint8_t*>(memCalloc(size_t(dst->nBytesPerLine) + 8)));
    const GatherFn gather = pickGather(bpp);
    UniqueMem<uint32_t> off(gather ? memAllocArray<uint32_t>(size_t(newW)) : nullptr);
    if (!srcBuf || !dstBuf || (gather && !off)) return KS_NO_MEMORY;
    int32_t wide = 0;
    if (gather) {
        buildOffsets(off.get(), oldW, newW, uint32_t(bpp / 8));
        while (wide + 1 < newW && uint64_t(off.get()[wide]) + 4 <= uint64_t(oldW) * 3) ++wide;
    }
    int64_t xStep, xRem, yStep, yRem;
    axisStep(oldW, newW, &xStep, &xRem);
    axisStep(oldH, newH, &yStep, &yRem);
    const rsz::Halve24Fn halve24 = bpp == 24 && xStep == 2 && xRem == 0 ? rsz::pickHalve24(rsz::simdLevel()) : nullptr;

    Progress progress = Progress::status(newH);
    if (int32_t rc = progress.begin(); rc != KS_SUCCESS) return rc;
    int64_t sy = 0, yErr = 0, lastRead = -1;
    const uint8_t* prevOut = nullptr;
    for (int32_t y = 0; y < newH; ++y) {
        const int32_t ty = flipRows ? newH - 1 - y : y;
        uint8_t* o = out.target(ty, dstBuf.get());
        if (int64_t(sy) > lastRead) {
            int32_t rc = KS_SUCCESS;
            const uint8_t* s = in.read(int32_t(sy), srcBuf.get(), &rc);
            if (rc != KS_SUCCESS) return rc;
            if (halve24) {
                const int32_t done = halve24(s, o, newW, oldW);
                if (done < newW) gatherRow<3>(s, o + size_t(done) * 3, off.get() + done, newW - done, 0);
            } else if (gather)
                gather(s, o, off.get(), newW, wide);
            else
                scanLine<false>(bpp, 0, xStep, 0, xRem, s, o, uint32_t(newW), newW);
            lastRead = sy;
        } else if (prevOut != o) {
            std::memcpy(o, prevOut, dst->nBytesPerLine);
        }
        if (int32_t rc = out.commit(ty, o); rc != KS_SUCCESS) return rc;
        prevOut = o;
        yErr += yRem;
        sy += yStep;
        if (yErr >= newH) {
            yErr -= newH;
            ++sy;
        }
        if (int32_t rc = progress.step(y + 1); rc != KS_SUCCESS) return rc;
    }
    return KS_SUCCESS;
}

// ---------------------------------------------------------------- black-preserving reduction

uint32_t isqrt(uint64_t v) noexcept {
    uint64_t r = 0, bit = uint64_t(1) << 62;
    while (bit > v) bit >>= 2;
    while (bit) {
        if (v >= r + bit) {
            v -= r + bit;
            r = (r >> 1) + bit;
        } else {
            r >>= 1;
        }
        bit >>= 2;
    }
    return uint32_t(r);
}

// The index of black in a black-and-white palette: 0 when entry 0 is the
// darker one.
uint32_t blackIndex(const BITMAPRECORD* bm) noexcept {
    const RGBQUAD* p = bm->pPalette;
    if (!p) return 0;
    auto lum = [](const RGBQUAD& q) { return 2 * q.rgbRed + 5 * q.rgbGreen + q.rgbBlue; };
    return lum(p[0]) <= lum(p[1]) ? 0u : 1u;
}

int32_t favourBlackResize(BITMAPRECORD* src, BITMAPRECORD* dst, bool flipRows) noexcept {
    if (src->nBitsPerPixel != 1 || dst->nBitsPerPixel != 1) return KS_INVALID_BITS_PER_PIXEL;
    const int32_t oldW = src->nWidth, oldH = src->nHeight, newW = dst->nWidth, newH = dst->nHeight;
    const int64_t bx = std::max<int64_t>(1, oldW / newW), by = std::max<int64_t>(1, oldH / newH);
    uint32_t threshold = isqrt(uint64_t(bx * by));
    if (threshold < 5) threshold = threshold > 1 ? threshold - 1 : 1;
    const uint32_t black = blackIndex(src);
    const uint32_t blackOut = blackIndex(dst);

    AccessPair acc(src, dst);
    if (acc.rc != KS_SUCCESS) return acc.rc;
    UniqueMem<uint8_t> runs(static_cast<uint8_t*>(memAlloc(OMBRIX_COMPRESSED_ROW_MAX(oldW))));
    UniqueMem<uint8_t> work(static_cast<uint8_t*>(memAlloc(size_t(src->nBytesPerLine) + 4)));
    UniqueMem<uint8_t> outRow(static_cast<uint8_t*>(memAlloc(size_t(dst->nBytesPerLine) + 4)));
    UniqueMem<uint32_t> counts(memAllocArray<uint32_t>(size_t(newW)));
    UniqueMem<int32_t> firstCol(memAllocArray<int32_t>(size_t(newW) + 1));
    if (!runs || !work || !outRow || !counts || !firstCol) return KS_NO_MEMORY;
    // Column block of target x: [firstCol[x], firstCol[x] + bx) within the row.
    int32_t* fc = firstCol.get();
    for (int32_t x = 0; x <= newW; ++x) fc[x] = int32_t((int64_t(x) * oldW) / newW);

    Progress progress = Progress::status(newH);
    if (int32_t rc = progress.begin(); rc != KS_SUCCESS) return rc;
    for (int32_t y = 0; y < newH; ++y) {
        std::fill(counts.get(), counts.get() + newW, 0u);
        const int64_t r0 = (int64_t(y) * oldH) / newH;
        const int64_t r1 = std::min<int64_t>(oldH, r0 + by);
        for (int64_t r = r0; r < r1; ++r) {
            int32_t rc = K_GetBitmapRowCompressed(src, work.get(), runs.get(), int32_t(r), oldW);
            if (rc != KS_SUCCESS) return rc;
            uint32_t words;
            std::memcpy(&words, runs.get(), 4);
            const uint8_t* w = runs.get() + 4;
            int64_t pos = 0;
            int32_t x = 0;  // first target column whose block may meet the run
            for (uint32_t k = 0; k < words; ++k) {
                uint16_t len;
                std::memcpy(&len, w + 2 * k, 2);
                const int64_t a = pos, b = pos + len;
                pos = b;
                if (len == 0 || (k & 1u) != black) continue;
                // Target columns x with [first, first + bx) meeting [a, b).
                while (x < newW && fc[x] + bx <= a) ++x;
                for (int32_t t = x; t < newW && fc[t] < b; ++t) {
                    const int64_t lo = std::max<int64_t>(a, fc[t]);
                    const int64_t hi = std::min(std::min(b, int64_t(fc[t]) + bx), int64_t(oldW));
                    if (hi > lo) counts.get()[t] += uint32_t(hi - lo);
                }
            }
        }
        uint8_t* o = outRow.get();
        std::memset(o, 0, dst->nBytesPerLine);
        for (int32_t x = 0; x < newW; ++x) {
            const uint32_t bit = counts.get()[x] >= threshold ? blackOut : 1u - blackOut;
            if (bit) o[x >> 3] |= uint8_t(0x80u >> (x & 7));
        }
        const int32_t ty = flipRows ? newH - 1 - y : y;
        if (int32_t rc = writeRow(dst, ty, 0, o, dst->nBytesPerLine); rc != KS_SUCCESS) return rc;
        if (int32_t rc = progress.step(y + 1); rc != KS_SUCCESS) return rc;
    }
    return KS_SUCCESS;
}

// ---------------------------------------------------------------- row-at-a-time resizer

struct ResizeState {
    int32_t nLastRow;
    int32_t bBackward;
    int32_t nOldWidth, nOldHeight;
    int32_t nNewWidth, nNewHeight;
    int32_t nXStep, nXRemainder;
    int32_t nRowsPerRow, nRowRemainder;
    int32_t nRowError;
    uint32_t uMagic;
};
constexpr uint32_t kResizeMagic = 0x5A49534Bu;  // "KSIZ"

bool isBlackWhite(const BITMAPRECORD* bm) noexcept {
    return bm->nBitsPerPixel == 1 && K_IntIsGrayScaleBitmap(bm) > 0;
}

// Views that differ by a flip of the stored rows: 1/4 and 2/3 (the viewed
// rows reverse), 5/6 and 7/8 (the stored rows are viewed columns).
bool flipPartners(int32_t a, int32_t b) noexcept {
    auto partner = [](int32_t v) {
        switch (v) {
            case 1: return 4;
            case 4: return 1;
            case 2: return 3;
            case 3: return 2;
            case 5: return 6;
            case 6: return 5;
            case 7: return 8;
            case 8: return 7;
        }
        return 0;
    };
    return partner(a) == b;
}

uint32_t memoryTypeFor(const BITMAPRECORD* src, int32_t bpp) noexcept {
    const uint32_t f = src->uFlags;
    if ((f & BRF_COMPRESSED) && bpp == 1) return MEMTYPE_COMPRESSED;
    if ((f & BRF_SUPERCOMPRESSED) && (bpp == 1 || bpp == 8 || bpp == 24)) return MEMTYPE_SUPERCOMPRESSED;
    if (f & BRF_DISK) return MEMTYPE_NO_CONVENTIONAL;
    return MEMTYPE_CONVENTIONAL;
}

// Refuses sizes whose row or whole image cannot be represented.
int32_t checkNewSize(int32_t w, int32_t h, int32_t bpp) noexcept {
    if (w <= 0 || h <= 0) return KS_INVALID_DIMENSIONS;
    uint32_t bpl = 0;
    if (!bytesPerLine(w, bpp, &bpl)) return KS_INVALID_DIMENSIONS;
    if (uint64_t(bpl) * uint64_t(h) > (uint64_t(1) << 46)) return KS_INVALID_DIMENSIONS;
    return KS_SUCCESS;
}

}  // namespace

// ---------------------------------------------------------------- shared with resample.cpp

int32_t createWorkingBitmap(BITMAPRECORD* work, const BITMAPRECORD* src, int32_t newW, int32_t newH, int32_t bpp,
                            bool grayPalette) noexcept {
    std::memset(work, 0, sizeof(*work));
    const bool samePalette = bpp == src->nBitsPerPixel && bpp <= 8 && !grayPalette;
    const int32_t order = bpp <= 8 ? (grayPalette ? ORDER_GRAY : ORDER_RGB)
                          : bpp == src->nBitsPerPixel ? src->nOrder
                          : bpp == 12 ? ORDER_GRAY
                                      : ORDER_BGR;
    int32_t rc = K_CreateBitmap(work, src->uStructSize, memoryTypeFor(src, bpp), newW, newH, bpp, order,
                                samePalette ? src->pPalette : nullptr, src->nViewPerspective, nullptr, 0);
    if (rc != KS_SUCCESS) return rc;
    if (grayPalette && bpp <= 8) {
        rc = K_CreateBitmapGrayPalette(work);
        if (rc != KS_SUCCESS) {
            K_FreeBitmap(work);
            return rc;
        }
    }
    work->nXResolution = src->nXResolution;
    work->nYResolution = src->nYResolution;
    if (bpp == src->nBitsPerPixel) {
        work->nLowBit = src->nLowBit;
        work->nHighBit = src->nHighBit;
        work->nMinBit = src->nMinBit;
        work->nMaxBit = src->nMaxBit;
    }
    work->nDitheringMethod = src->nDitheringMethod;
    return KS_SUCCESS;
}

int32_t replaceWithWorking(BITMAPRECORD* bm, BITMAPRECORD* work) noexcept {
    int32_t rc = K_SizeBitmapRgn(bm, work->nWidth, work->nHeight);
    if (rc != KS_SUCCESS) {
        K_FreeBitmap(work);
        return rc;
    }
    // What stays with the image moves to the new record.
    work->hRgn = bm->hRgn;
    bm->hRgn = nullptr;
    work->pLUT = bm->pLUT;
    work->nLUTLength = bm->nLUTLength;
    bm->pLUT = nullptr;
    work->pExtraData = bm->pExtraData;
    work->uExtraDataSize = bm->uExtraDataSize;
    bm->pExtraData = nullptr;
    bm->uExtraDataSize = 0;
    work->pOverlays = bm->pOverlays;
    bm->pOverlays = nullptr;
    work->nLevel = bm->nLevel;
    std::memcpy(work->uDisplay, bm->uDisplay, sizeof(work->uDisplay));
    const size_t bytes = recordBytes(bm->uStructSize);
    K_FreeBitmap(bm);
    std::memcpy(bm, work, bytes);
    return KS_SUCCESS;
}

}  // namespace krn

using namespace krn;

// ---------------------------------------------------------------- exports

KAPI uint32_t K_SQRT(uint32_t uValue) { return isqrt(uValue); }

KAPI int32_t K_GetResizedScanLine(int32_t nBitsPerPixel, uint32_t uBytes, int32_t nStartBit, int32_t nXStep,
                                  int32_t nError, int32_t nXRemainder, const uint8_t* pSrc, uint8_t* pDst,
                                  uint32_t uCount, int32_t nDenominator, int32_t bEnlarge) {
    (void)uBytes;
    (void)bEnlarge;
    if (!pSrc || !pDst) return KS_INVALID_PARAMETER;
    if (!scanDepthValid(nBitsPerPixel) || nDenominator <= 0 || nXStep < 0 || nXRemainder < 0 || nError < 0 ||
        nStartBit < 0)
        return KS_INVALID_PARAMETER;
    scanLine<false>(nBitsPerPixel, nStartBit, nXStep, nError, nXRemainder, pSrc, pDst, uCount, nDenominator);
    return KS_SUCCESS;
}

KAPI int32_t K_ReverseGetResizedScanLine(int32_t nBitsPerPixel, uint32_t uBytes, int32_t nStartBit,
                                         int32_t nXStep, int32_t nError, int32_t nXRemainder, const uint8_t* pSrc,
                                         uint8_t* pDst, uint32_t uCount, int32_t nDenominator, int32_t bEnlarge) {
    (void)uBytes;
    (void)bEnlarge;
    if (!pSrc || !pDst) return KS_INVALID_PARAMETER;
    if (!scanDepthValid(nBitsPerPixel) || nDenominator <= 0 || nXStep < 0 || nXRemainder < 0 || nError < 0 ||
        nStartBit < 0)
        return KS_INVALID_PARAMETER;
    scanLine<true>(nBitsPerPixel, nStartBit, nXStep, nError, nXRemainder, pSrc, pDst, uCount, nDenominator);
    return KS_SUCCESS;
}

KAPI int32_t K_StartResize(int32_t nOldWidth, int32_t nOldHeight, int32_t nNewWidth, int32_t nNewHeight,
                           void** ppResizeData) {
    return guarded([&]() -> int32_t {
        if (!ppResizeData) return KS_INVALID_PARAMETER;
        if (nOldWidth <= 0 || nOldHeight <= 0 || nNewWidth <= 0 || nNewHeight <= 0) return KS_INVALID_PARAMETER;
        // A target row of 64-bit pixels must fit 32 bits of bytes.
        uint32_t bpl;
        if (!bytesPerLine(nNewWidth, 64, &bpl) || !bytesPerLine(nOldWidth, 64, &bpl)) return KS_INVALID_PARAMETER;
        auto* s = static_cast<ResizeState*>(memCalloc(sizeof(ResizeState)));
        if (!s) return KS_NO_MEMORY;
        s->nLastRow = -1;
        s->nOldWidth = nOldWidth;
        s->nOldHeight = nOldHeight;
        s->nNewWidth = nNewWidth;
        s->nNewHeight = nNewHeight;
        s->nXStep = nOldWidth / nNewWidth;
        s->nXRemainder = nOldWidth % nNewWidth;
        s->nRowsPerRow = nNewHeight / nOldHeight;
        s->nRowRemainder = nNewHeight % nOldHeight;
        s->uMagic = kResizeMagic;
        *ppResizeData = s;
        return KS_SUCCESS;
    });
}

KAPI int32_t K_Resize(uint8_t* pBuffer, int32_t nRow, int32_t nBitsPerPixel, int32_t* pnNewWidth, int32_t* pnRows,
                      void* pResizeData) {
    return guarded([&]() -> int32_t {
        auto* s = static_cast<ResizeState*>(pResizeData);
        if (!pBuffer || !pnNewWidth || !pnRows || !s || s->uMagic != kResizeMagic) return KS_INVALID_PARAMETER;
        if (!bitsValid(nBitsPerPixel) || nRow < 0 || nRow >= s->nOldHeight) return KS_INVALID_PARAMETER;
        *pnNewWidth = s->nNewWidth;
        if (s->nOldWidth == s->nNewWidth && s->nOldHeight == s->nNewHeight) {
            *pnRows = 1;
            s->nLastRow = nRow;
            return 1;
        }
        const int64_t O = s->nOldHeight, rem = s->nRowRemainder;
        int32_t count = s->nRowsPerRow;
        int64_t e;
        if (s->nLastRow >= 0 && nRow == s->nLastRow + 1) {
            // Forward: the error after row r is (rem * (r + 1)) mod O.
            e = s->bBackward ? (rem * nRow) % O : s->nRowError;
            e += rem;
            if (e >= O) {
                e -= O;
                ++count;
            }
            s->bBackward = 0;
        } else if (s->nLastRow >= 0 && nRow == s->nLastRow - 1) {
            // Backward: the error before row r is (rem * r) mod O.
            e = s->bBackward ? s->nRowError : (rem * (int64_t(nRow) + 1)) % O;
            e -= rem;
            if (e < 0) {
                e += O;
                ++count;
            }
            s->bBackward = 1;
        } else {
            e = (rem * nRow) % O + rem;
            if (e >= O) {
                e -= O;
                ++count;
            }
            s->bBackward = 0;
        }
        s->nRowError = int32_t(e);
        s->nLastRow = nRow;
        *pnRows = count;
        if (count != 0 && s->nOldWidth != s->nNewWidth) {
            int64_t step, xr;
            axisStep(s->nOldWidth, s->nNewWidth, &step, &xr);
            // In place: a shrinking row forward (reads stay ahead of writes),
            // a growing row backward (reads stay behind).
            if (s->nNewWidth < s->nOldWidth)
                scanLine<false>(nBitsPerPixel, 0, step, 0, xr, pBuffer, pBuffer, uint32_t(s->nNewWidth),
                                s->nNewWidth);
            else
                scanLine<true>(nBitsPerPixel, 0, step, 0, xr, pBuffer, pBuffer, uint32_t(s->nNewWidth),
                               s->nNewWidth);
        }
        return count;
    });
}

KAPI int32_t K_StopResize(void* pResizeData) {
    auto* s = static_cast<ResizeState*>(pResizeData);
    if (!s || s->uMagic != kResizeMagic) return KS_INVALID_PARAMETER;
    s->uMagic = 0;
    memFree(s);
    return KS_SUCCESS;
}

KAPI int32_t K_IntResizeBitmap(BITMAPRECORD* pSrcBitmap, BITMAPRECORD* pDstBitmap, uint32_t uFlags) {
    return guarded([&]() -> int32_t {
        if (!pSrcBitmap || !pDstBitmap || !(pSrcBitmap->uFlags & BRF_ALLOCATED) ||
            !(pDstBitmap->uFlags & BRF_ALLOCATED) || pSrcBitmap == pDstBitmap)
            return KS_INVALID_BITMAP;
        if (pSrcBitmap->nWidth <= 0 || pSrcBitmap->nHeight <= 0 || pDstBitmap->nWidth <= 0 ||
            pDstBitmap->nHeight <= 0)
            return KS_INVALID_DIMENSIONS;
        if (!bitsValid(pSrcBitmap->nBitsPerPixel) || !bitsValid(pDstBitmap->nBitsPerPixel))
            return KS_INVALID_BITS_PER_PIXEL;
        const bool flip = pSrcBitmap->nViewPerspective != pDstBitmap->nViewPerspective;
        const uint32_t premul = uFlags & kSizePremultiply;
        if (uFlags & kSizeFavourBlack) return favourBlackResize(pSrcBitmap, pDstBitmap, flip);
        if (uFlags & kSizeLanczos)
            return resampleInto(pSrcBitmap, pDstBitmap, ResampleFilter::Lanczos3, premul, flip);
        if (uFlags & kSizeResample)
            return resampleInto(pSrcBitmap, pDstBitmap, ResampleFilter::LinearOrArea, premul, flip);
        if (uFlags & kSizeBicubic) {
            const bool grows = pDstBitmap->nWidth > pSrcBitmap->nWidth || pDstBitmap->nHeight > pSrcBitmap->nHeight;
            return resampleInto(pSrcBitmap, pDstBitmap, grows ? ResampleFilter::Cubic : ResampleFilter::LinearOrArea,
                                premul, flip);
        }
        return nearestResize(pSrcBitmap, pDstBitmap, flip);
    });
}

KAPI int32_t K_ResizeBitmap(BITMAPRECORD* pSrcBitmap, BITMAPRECORD* pDstBitmap, uint32_t uFlags) {
    return guarded([&]() -> int32_t {
        int32_t rc = checkRecord(pSrcBitmap);
        if (rc == KS_SUCCESS) rc = checkRecord(pDstBitmap);
        if (rc != KS_SUCCESS) return rc;
        if (!(pSrcBitmap->uFlags & BRF_ALLOCATED) || !(pDstBitmap->uFlags & BRF_ALLOCATED) ||
            pSrcBitmap == pDstBitmap)
            return KS_INVALID_PARAMETER;
        if (uFlags & ~0x3Fu) return KS_INVALID_PARAMETER;
        const int32_t sv = pSrcBitmap->nViewPerspective, dv = pDstBitmap->nViewPerspective;
        if (sv < 1 || sv > 8 || dv < 1 || dv > 8) return KS_INVALID_PARAMETER;
        if (uFlags & kSizeFavourBlack) {
            if (!isBlackWhite(pSrcBitmap) || !isBlackWhite(pDstBitmap)) uFlags &= ~kSizeFavourBlack;
        }
        if (sv == dv || flipPartners(sv, dv)) return K_IntResizeBitmap(pSrcBitmap, pDstBitmap, uFlags);
        // Other views: resize a copy stored in the destination's view.
        BITMAPRECORD tmp;
        std::memset(&tmp, 0, sizeof(tmp));
        rc = K_IntChangeBitmapViewPerspective(&tmp, pSrcBitmap, BITMAPRECORD_SIZE, dv, 5);
        if (rc != KS_SUCCESS) {
            K_FreeBitmap(&tmp);
            return rc;
        }
        rc = K_IntResizeBitmap(&tmp, pDstBitmap, uFlags);
        K_FreeBitmap(&tmp);
        return rc;
    });
}

namespace {

int32_t resampleInPlace(BITMAPRECORD* bm, int32_t w, int32_t h, ResampleFilter f, uint32_t uFlags) noexcept {
    int32_t rc = checkRecord(bm);
    if (rc != KS_SUCCESS) return rc;
    if (!(bm->uFlags & BRF_ALLOCATED)) return KS_INVALID_PARAMETER;
    const int32_t bpp = resampleTargetBits(bm);
    if ((rc = checkNewSize(w, h, bpp)) != KS_SUCCESS) return rc;
    if (w == bm->nWidth && h == bm->nHeight && bpp == bm->nBitsPerPixel) return KS_SUCCESS;
    BITMAPRECORD work;
    const bool gray = bpp == 8 && (bm->nBitsPerPixel != 8 || K_IntIsGrayScaleBitmap(bm) > 0);
    rc = createWorkingBitmap(&work, bm, w, h, bpp, gray);
    if (rc != KS_SUCCESS) return rc;
    rc = resampleInto(bm, &work, f, uFlags & kSizePremultiply, false);
    if (rc != KS_SUCCESS) {
        K_FreeBitmap(&work);
        return rc;
    }
    return replaceWithWorking(bm, &work);
}

}  // namespace

KAPI int32_t K_ResampleBitmap(BITMAPRECORD* pBitmap, int32_t nWidth, int32_t nHeight, uint32_t uFlags) {
    return guarded([&] {
        return resampleInPlace(pBitmap, nWidth, nHeight,
                               (uFlags & kSizeLanczos) ? ResampleFilter::Lanczos3 : ResampleFilter::LinearOrArea,
                               uFlags);
    });
}

KAPI int32_t K_BicubicResampleBitmap(BITMAPRECORD* pBitmap, int32_t nWidth, int32_t nHeight, uint32_t uFlags) {
    return guarded([&] { return resampleInPlace(pBitmap, nWidth, nHeight, ResampleFilter::Cubic, uFlags); });
}

KAPI int32_t K_BicubicResampleBitmapInt(BITMAPRECORD* pSrcBitmap, BITMAPRECORD* pDstBitmap, uint32_t uFlags) {
    return guarded([&]() -> int32_t {
        if (!pSrcBitmap || !pDstBitmap || !(pSrcBitmap->uFlags & BRF_ALLOCATED) ||
            !(pDstBitmap->uFlags & BRF_ALLOCATED) || pSrcBitmap == pDstBitmap)
            return KS_INVALID_BITMAP;
        return resampleInto(pSrcBitmap, pDstBitmap, ResampleFilter::Cubic, uFlags & kSizePremultiply,
                            pSrcBitmap->nViewPerspective != pDstBitmap->nViewPerspective);
    });
}

KAPI int32_t K_SizeBitmap(BITMAPRECORD* pBitmap, int32_t nWidth, int32_t nHeight, uint32_t uFlags) {
    return guarded([&]() -> int32_t {
        if (!pBitmap) return KS_INVALID_PARAMETER;
        if (!recordSizeValid(pBitmap->uStructSize)) return KS_INVALID_STRUCT_SIZE;
        if (!(pBitmap->uFlags & BRF_ALLOCATED)) return KS_INVALID_PARAMETER;
        if (nWidth == pBitmap->nWidth && nHeight == pBitmap->nHeight) return KS_SUCCESS;
        if (uFlags & ~0x3Fu) return KS_INVALID_PARAMETER;
        const int32_t bpp = pBitmap->nBitsPerPixel;
        // 1: the alpha preparation is premultiplied resampling (nearest paths
        // never mix pixels, so it changes nothing there).
        if (bpp != 32 && bpp != 64) uFlags &= ~kSizePremultiply;
        // 2: the 1-bit methods need a black-and-white palette.
        if (bpp != 1) {
            uFlags &= ~(kSizeFavourBlack | kSizeScaleToGray);
        } else {
            const bool bw = isBlackWhite(pBitmap);
            if (uFlags & kSizeFavourBlack) uFlags = bw ? (uFlags & ~kSizeResample) : (uFlags & ~kSizeFavourBlack);
            if (uFlags & kSizeScaleToGray) uFlags = bw ? (uFlags & ~kSizeResample) : (uFlags & ~kSizeScaleToGray);
        }
        // 3: the resamplers.
        if (uFlags & kSizeLanczos)
            return resampleInPlace(pBitmap, nWidth, nHeight, ResampleFilter::Lanczos3, uFlags);
        if (uFlags & kSizeResample)
            return resampleInPlace(pBitmap, nWidth, nHeight, ResampleFilter::LinearOrArea, uFlags);
        if (uFlags & kSizeBicubic) {
            const bool grows = nWidth > pBitmap->nWidth || nHeight > pBitmap->nHeight;
            return resampleInPlace(pBitmap, nWidth, nHeight,
                                   grows ? ResampleFilter::Cubic : ResampleFilter::LinearOrArea, uFlags);
        }
        // 4, 5: a working bitmap filled by the nearest-pixel, black-preserving
        // or grey-scaling path.
        const bool toGray = (uFlags & kSizeScaleToGray) != 0;
        const int32_t newBpp = toGray ? 8 : bpp;
        int32_t rc = checkNewSize(nWidth, nHeight, newBpp);
        if (rc != KS_SUCCESS) return rc;
        if (toGray) uFlags = (uFlags & ~kSizeScaleToGray) | kSizeResample;
        BITMAPRECORD work;
        rc = createWorkingBitmap(&work, pBitmap, nWidth, nHeight, newBpp, toGray);
        if (rc != KS_SUCCESS) return rc;
        rc = K_IntResizeBitmap(pBitmap, &work, uFlags);
        if (rc != KS_SUCCESS) {
            K_FreeBitmap(&work);
            return rc;
        }
        return replaceWithWorking(pBitmap, &work);
    });
}
