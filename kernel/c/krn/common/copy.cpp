// copy.cpp - new bitmaps from old ones: duplicate a record with new
// dimensions, copy pixels, copy a rectangle, crop in place, copy a record.
//
// Every copy builds its result in a local record and moves it into the
// caller's record only when everything succeeded; on failure the local
// record is freed with K_FreeBitmap, so nothing leaks and the destination is
// never touched. Pixels move through the row layer (every storage kind); a
// memcpy path is taken when both bitmaps are plain memory after access.
#include "copy.h"

#include <algorithm>
#include <cstring>

#include "convert_kernels.h"
#include "hooks.h"
#include "kernel.h"
#include "memory.h"
#include "progress.h"
#include "storage.h"
#include "../../dis/common/bitmaprgn.h"
#include "../windowsemul/globalmem.h"

namespace krn {
namespace {

constexpr uint32_t kFloatData = 0x100000u;    // floating-point pixel data
constexpr uint32_t kPaintTable = 0x2000u;     // the paint table is not the identity
constexpr uint32_t kOrderFlags = kFloatData | BRF_SIGNED_DATA;

// K_FreeBitmap, plus the LUT and extra data of a record that was never
// allocated (K_FreeBitmap releases those with the storage only).
void freeRecord(BITMAPRECORD* bm) noexcept {
    if (!(bm->uFlags & BRF_ALLOCATED)) {
        if (bm->pLUT) globalFree(bm->pLUT);
        if (bm->pExtraData) globalFree(bm->pExtraData);
        bm->pLUT = nullptr;
        bm->pExtraData = nullptr;
        bm->uExtraDataSize = 0;
    }
    K_FreeBitmap(bm);
}

// Owns a local record until it is handed over; frees it otherwise.
struct LocalRecord {
    BITMAPRECORD bm;
    bool live = false;
    LocalRecord() noexcept { std::memset(&bm, 0, sizeof bm); }
    ~LocalRecord() {
        if (live) freeRecord(&bm);
    }
    LocalRecord(const LocalRecord&) = delete;
    LocalRecord& operator=(const LocalRecord&) = delete;
    // Moves the record into `out` (the bytes of its layout) and gives up ownership.
    void commit(BITMAPRECORD* out) noexcept {
        std::memcpy(out, &bm, recordBytes(bm.uStructSize));
        live = false;
    }
};

// A copy of a global block of `bytes` bytes (the source block may be shorter:
// the rest is zero). Null on failure.
void* dupBlock(const void* src, size_t bytes) noexcept {
    if (!bytes) bytes = 1;
    void* p = globalAlloc(GMEM_FIXED | GMEM_ZEROINIT, bytes);
    if (!p) return nullptr;
    size_t have = isGlobalBlock(const_cast<void*>(src)) ? globalSize(const_cast<void*>(src)) : bytes;
    std::memcpy(p, src, std::min(have, bytes));
    return p;
}

size_t blockBytes(const void* p) noexcept {
    return isGlobalBlock(const_cast<void*>(p)) ? globalSize(const_cast<void*>(p)) : 0;
}

// Single blocks allocated in this scope are not zero-filled (hooks.h).
struct NoZeroFill {
    bool on;
    explicit NoZeroFill(bool enable) noexcept : on(enable) {
        if (on) setNoZeroFill(true);
    }
    ~NoZeroFill() {
        if (on) setNoZeroFill(false);
    }
    NoZeroFill(const NoZeroFill&) = delete;
    NoZeroFill& operator=(const NoZeroFill&) = delete;
};

// True when the window (col, row, w x h) lies inside the source and a byte
// copy writes every byte of each destination row (depths of whole bytes).
bool windowFillsEverything(const BITMAPRECORD* src, int64_t col, int64_t row, int64_t w, int64_t h) noexcept {
    const int32_t bpp = src->nBitsPerPixel;
    return bpp % 8 == 0 && col >= 0 && row >= 0 && col + w <= src->nWidth && row + h <= src->nHeight;
}

bool hasGetRowCallback(const BITMAPRECORD* bm) noexcept {
    return isCurrentLayout(bm) && bm->pCallbacks && bm->pCallbacks->pfnGetRow;
}

// The first pixel byte of a bitmap whose pixels sit in one piece of memory
// after access (a locked single block, caller or callback memory), or null.
uint8_t* directPixels(const BITMAPRECORD* bm) noexcept {
    const uint32_t f = bm->uFlags;
    if (f & (BRF_TILED | BRF_DISK | BRF_COMPRESSED | BRF_SUPERCOMPRESSED)) return nullptr;
    if (f & BRF_LOCKED) return bm->pData;
    if ((f & BRF_USER_MEMORY) && !(f & BRF_MOVABLE_BLOCK)) return bm->pData;
    return nullptr;
}

// Both bitmaps accessed for the lifetime of this object.
class Accessed {
public:
    Accessed(BITMAPRECORD* a, BITMAPRECORD* b) noexcept : a_(a), b_(b) {
        rc_ = K_IntAccessBitmap(a_, &okA_);
        if (rc_ == KS_SUCCESS && b_ != a_) rc_ = K_IntAccessBitmap(b_, &okB_);
    }
    ~Accessed() {
        if (okB_) K_ReleaseBitmap(b_);
        if (okA_) K_ReleaseBitmap(a_);
    }
    Accessed(const Accessed&) = delete;
    Accessed& operator=(const Accessed&) = delete;
    int32_t status() const noexcept { return rc_; }
    // Releases now; the first failure of a release is returned when rc is 1.
    int32_t finish(int32_t rc) noexcept {
        if (okB_) rc = K_IntReleaseBitmap(b_, 1, rc);
        if (okA_) rc = K_IntReleaseBitmap(a_, 1, rc);
        okA_ = okB_ = 0;
        return rc;
    }

private:
    BITMAPRECORD* a_;
    BITMAPRECORD* b_;
    int32_t okA_ = 0, okB_ = 0;
    int32_t rc_;
};

// ---------------------------------------------------------------- describing fields
// Carries the describing fields that `carry` names (allocation bits aside)
// into `dst`, a record initialised for its new size. Region offset (dx, dy).
int32_t carryFields(BITMAPRECORD* dst, const BITMAPRECORD* src, uint32_t carry, int32_t dx, int32_t dy) noexcept {
    if ((carry & DUPBITMAP_PALETTE) && src->pPalette) {
        const int32_t bpp = dst->nBitsPerPixel;
        const int32_t n = bpp <= 8 ? (1 << bpp) : std::clamp(src->nColors, 0, 256);
        if (n > 0) {
            auto* pal = static_cast<RGBQUAD*>(dupBlock(src->pPalette, size_t(n) * sizeof(RGBQUAD)));
            if (!pal) return KS_NO_MEMORY;
            dst->pPalette = pal;
            dst->nColors = std::clamp(src->nColors, 0, n);
        }
    }
    if (carry & DUPBITMAP_RESOLUTION) {
        dst->nXResolution = src->nXResolution;
        dst->nYResolution = src->nYResolution;
    }
    if (carry & DUPBITMAP_PERSPECTIVE) dst->nViewPerspective = src->nViewPerspective;
    if (carry & DUPBITMAP_ORDER) {
        dst->nOrder = src->nOrder;
        dst->nDitheringMethod = src->nDitheringMethod;
        dst->uFlags = (dst->uFlags & ~kOrderFlags) | (src->uFlags & kOrderFlags);
    }
    if (carry & DUPBITMAP_PAINT) {
        dst->nLowBit = src->nLowBit;
        dst->nHighBit = src->nHighBit;
        dst->nMinBit = src->nMinBit;
        dst->nMaxBit = src->nMaxBit;
        std::memcpy(dst->uDisplay, src->uDisplay, sizeof dst->uDisplay);
        dst->nLevel = src->nLevel;
        dst->uFlags = (dst->uFlags & ~(kPaintTable | BRF_SIGNED_DATA)) |
                      (src->uFlags & (kPaintTable | BRF_SIGNED_DATA));
        if (src->pLUT) {
            const size_t bytes = blockBytes(src->pLUT);
            if (bytes) {
                dst->pLUT = dupBlock(src->pLUT, bytes);
                if (!dst->pLUT) return KS_NO_MEMORY;
                dst->nLUTLength = src->nLUTLength;
            }
        }
    }
    if (carry & DUPBITMAP_REGION) {
        dst->uFlags = (dst->uFlags & ~BRF_UNCLIPPED_RGN) | (src->uFlags & BRF_UNCLIPPED_RGN);
        int32_t rc = K_CopyBitmapRgn(dst, src, dx, dy);
        if (rc != KS_SUCCESS) return rc;
        if (src->pExtraData && src->uExtraDataSize) {
            dst->pExtraData = dupBlock(src->pExtraData, src->uExtraDataSize);
            if (!dst->pExtraData) return KS_NO_MEMORY;
            dst->uExtraDataSize = src->uExtraDataSize;
        }
    }
    return KS_SUCCESS;
}

// Allocates `bm` in the storage kind of `src`.
int32_t allocateLike(BITMAPRECORD* bm, const BITMAPRECORD* src) noexcept {
    if (!(src->uFlags & BRF_ALLOCATED)) return K_AllocateBitmap(bm, 0);
    switch (storageKind(src)) {
        case MEMTYPE_COMPRESSED:
            return K_AllocateBitmap(bm, MEMTYPE_COMPRESSED);
        case MEMTYPE_SUPERCOMPRESSED:
            return K_AllocateBitmap(bm, MEMTYPE_SUPERCOMPRESSED);
        case MEMTYPE_NO_CONVENTIONAL:
            return K_AllocateBitmap(bm, MEMTYPE_NO_CONVENTIONAL);
        case MEMTYPE_DISK: {
            uint64_t tileSize = 0;
            K_GetBitmapMemoryInfo(src, nullptr, &tileSize, nullptr, nullptr);
            int32_t rc = K_AllocateBitmap(bm, MEMTYPE_DISK);
            if (rc == KS_SUCCESS && !(bm->uFlags & BRF_TILED)) rc = K_SetBitmapMemoryInfo(bm, MEMTYPE_DISK, tileSize);
            return rc;
        }
        default:
            return K_AllocateBitmap(bm, MEMTYPE_CONVENTIONAL);
    }
}

int32_t checkSource(const BITMAPRECORD* src, uint32_t structSize) noexcept {
    if (!src) return KS_INVALID_PARAMETER;
    if (!recordSizeValid(src->uStructSize) || !recordSizeValid(structSize)) return KS_INVALID_STRUCT_SIZE;
    if (!(src->uFlags & BRF_ALLOCATED)) return KS_INVALID_PARAMETER;
    return KS_SUCCESS;
}

bool beingAccessed(const BITMAPRECORD* bm) noexcept {
    return (bm->uFlags & BRF_LOCKED) || (isCurrentLayout(bm) && bm->nLockCount > 0);
}

int32_t notifyCopy(BITMAPRECORD* src) noexcept {
    if (!isCurrentLayout(src) || !src->pCallbacks || !src->pCallbacks->pfnNotify) return KS_SUCCESS;
    auto* cbs = src->pCallbacks;
    int32_t answer = guarded([&] { return cbs->pfnNotify(src, 1, cbs->pUserData); });
    return answer == 2 ? KS_SUCCESS : answer;
}

bool isGreyImage(const BITMAPRECORD* bm) noexcept {
    return bm->nBitsPerPixel == 12 || (bm->nBitsPerPixel > 8 && bm->nOrder == ORDER_GRAY);
}

int32_t copyGrayParams(BITMAPRECORD* dst, const BITMAPRECORD* src) noexcept {
    void* lut = nullptr;
    if (src->pLUT && src->pLUT != dst->pLUT) {
        const size_t bytes = blockBytes(src->pLUT);
        if (bytes) {
            lut = dupBlock(src->pLUT, bytes);
            if (!lut) return KS_NO_MEMORY;
        }
    } else if (src->pLUT) {
        lut = dst->pLUT;  // the same block: kept
    }
    if (dst->pLUT && dst->pLUT != lut) globalFree(dst->pLUT);
    dst->pLUT = lut;
    dst->nLUTLength = lut ? src->nLUTLength : 0;
    dst->nLowBit = src->nLowBit;
    dst->nHighBit = src->nHighBit;
    dst->nMinBit = src->nMinBit;
    dst->nMaxBit = src->nMaxBit;
    dst->uFlags = (dst->uFlags & ~BRF_SIGNED_DATA) | (src->uFlags & BRF_SIGNED_DATA);
    return KS_SUCCESS;
}

// What K_IntBeginCopyBitmap gives a new record.
constexpr uint32_t kBeginCarry = DUPBITMAP_PALETTE | DUPBITMAP_REGION;

int32_t beginCopy(BITMAPRECORD* dst, const BITMAPRECORD* src, int32_t dx, int32_t dy) noexcept {
    // Built on a copy so that a failure leaves dst as it was.
    BITMAPRECORD work;
    std::memcpy(&work, dst, recordBytes(dst->uStructSize));
    work.pPalette = nullptr;
    work.hRgn = nullptr;
    work.pExtraData = nullptr;
    work.uExtraDataSize = 0;
    if (isCurrentLayout(&work)) work.pCallbacks = nullptr;
    work.pLUT = nullptr;
    work.pDitherState = nullptr;
    if (isCurrentLayout(&work)) work.hListBlock = nullptr;
    work.uFlags &= ~BRF_ALLOCATED;  // K_FreeBitmap below releases only what was made here
    int32_t rc = carryFields(&work, src, kBeginCarry, dx, dy);
    if (rc == KS_SUCCESS) {
        std::memcpy(work.uDisplay, src->uDisplay, sizeof work.uDisplay);
        work.nLevel = src->nLevel;
        work.uFlags = (work.uFlags & ~kPaintTable) | (src->uFlags & kPaintTable);
    }
    if (rc != KS_SUCCESS) {
        freeRecord(&work);
        return rc;
    }
    // Hand over what was made; what dst held in those places is released.
    if (dst->pPalette) globalFree(dst->pPalette);
    if (dst->pExtraData) globalFree(dst->pExtraData);
    releaseBitmapRegion(dst);
    dst->pPalette = work.pPalette;
    dst->nColors = work.nColors;
    dst->hRgn = work.hRgn;
    dst->pExtraData = work.pExtraData;
    dst->uExtraDataSize = work.uExtraDataSize;
    std::memcpy(dst->uDisplay, work.uDisplay, sizeof dst->uDisplay);
    dst->nLevel = work.nLevel;
    dst->uFlags = (dst->uFlags & ~(kPaintTable | BRF_UNCLIPPED_RGN)) |
                  (work.uFlags & (kPaintTable | BRF_UNCLIPPED_RGN));
    return KS_SUCCESS;
}

// A new record of the given size for a copy whose storage the caller picks
// (the memory-choosing copies): duplicate, begin, notify, grey parameters,
// allocate. `dx`, `dy` move the region.
int32_t prepareChosen(LocalRecord& out, BITMAPRECORD* src, uint32_t structSize, int32_t w, int32_t h,
                      uint32_t memory, int32_t dx, int32_t dy, bool wholeWrite) noexcept {
    if (memory == MEMTYPE_USER) return KS_INVALID_PARAMETER;
    int32_t rc = dupBitmapNewDim(&out.bm, src, structSize, w, h, DUPBITMAP_DESCRIBE);
    if (rc != KS_SUCCESS) return rc;
    out.live = true;
    rc = beginCopy(&out.bm, src, dx, dy);
    if (rc != KS_SUCCESS) return rc;
    rc = notifyCopy(src);
    if (rc != KS_SUCCESS) return rc;
    if (isGreyImage(src)) {
        rc = copyGrayParams(&out.bm, src);
        if (rc != KS_SUCCESS) return rc;
    }
    NoZeroFill noZero(wholeWrite);
    return K_AllocateBitmap(&out.bm, memory);
}

int32_t copyRectCore(BITMAPRECORD* pDst, BITMAPRECORD* pSrc, uint32_t structSize, int32_t col, int32_t row,
                     uint32_t width, uint32_t height, bool chosen, uint32_t memory) noexcept {
    int32_t rc = checkSource(pSrc, structSize);
    if (rc != KS_SUCCESS) return rc;
    if (col == INT32_MIN || row == INT32_MIN) return KS_INVALID_PARAMETER;
    if (width == 0 || height == 0 || width > uint32_t(INT32_MAX) || height > uint32_t(INT32_MAX))
        return KS_INVALID_DIMENSIONS;
    const bool inPlace = !pDst || pDst == pSrc;
    if (inPlace && beingAccessed(pSrc)) return KS_INVALID_PARAMETER;
    const uint32_t outSize = inPlace ? pSrc->uStructSize : structSize;
    LocalRecord tmp;
    if (chosen) {
        rc = prepareChosen(tmp, pSrc, outSize, int32_t(width), int32_t(height), memory, -col, -row,
                           windowFillsEverything(pSrc, col, row, width, height));
    } else {
        const uint32_t carry = inPlace ? DUPBITMAP_TEMPORARY : DUPBITMAP_COPY;
        rc = dupBitmapNewDim(&tmp.bm, pSrc, outSize, int32_t(width), int32_t(height), carry & ~DUPBITMAP_REGION,
                             windowFillsEverything(pSrc, col, row, width, height));
        if (rc == KS_SUCCESS) {
            tmp.live = true;
            // The region moved by the rectangle's corner, then the extra data.
            rc = carryFields(&tmp.bm, pSrc, DUPBITMAP_REGION, -col, -row);
        }
    }
    if (rc != KS_SUCCESS) return rc;
    rc = copyRectPixels(&tmp.bm, pSrc, col, row);
    if (rc != KS_SUCCESS) return rc;
    if (inPlace) {
        K_FreeBitmap(pSrc);
        tmp.commit(pSrc);
    } else {
        tmp.commit(pDst);
    }
    return KS_SUCCESS;
}

// Bits [hi..lo] of a byte as a mask, bit 7 being the first pixel bit.
inline uint32_t byteMask(uint32_t first, uint32_t last) noexcept {
    return (0xFFu >> first) & (0xFFu << (7 - last)) & 0xFFu;
}

// Sets the samples x1 <= x < x2 whose sign bit is set to 0.
template <class T>
void clearNegative(uint8_t* row, int32_t x1, int32_t x2, uint32_t signBit) noexcept {
    for (int32_t x = x1; x < x2; ++x) {
        T v;
        std::memcpy(&v, row + size_t(x) * sizeof(T), sizeof(T));
        if ((uint64_t(v) >> signBit) & 1u) std::memset(row + size_t(x) * sizeof(T), 0, sizeof(T));
    }
}

// 12-bit rows hold two pixels in three bytes sharing the middle byte, so a
// window that starts on an odd pixel moves by whole samples. The byte range
// of an odd first pixel starts at the shared byte: it is read one byte into
// the buffer so that the buffer starts on a pair.
using conv::read12;
using conv::write12;

void clearNegative12(uint8_t* row, int32_t x1, int32_t x2, uint32_t signBit) noexcept {
    for (int32_t x = x1; x < x2; ++x)
        if ((read12(row, size_t(x)) >> signBit) & 1u) write12(row, size_t(x), 0);
}

int32_t copyRows12(BITMAPRECORD* dst, BITMAPRECORD* src, Progress& progress, uint8_t* sbuf, uint8_t* dbuf,
                   int64_t x0, int64_t y0, int32_t dx, int32_t dy, int32_t w, int32_t h, uint32_t srcBytes,
                   uint32_t dstBytes) noexcept {
    const size_t sp = size_t(x0 & 1), dp = size_t(dx & 1);
    const bool partial = dp != 0 || ((dx + w) & 1) != 0;
    int32_t rc = KS_SUCCESS;
    for (int32_t y = 0; y < h && rc == KS_SUCCESS; ++y) {
        int32_t got = K_GetBitmapRowCol(src, sbuf + sp, int32_t(y0) + y, int32_t(x0), srcBytes);
        if (got < 0) return got;
        if (uint32_t(got) != srcBytes) return KS_INTERNAL;
        if (partial) {
            got = K_GetBitmapRowCol(dst, dbuf + dp, dy + y, dx, dstBytes);
            if (got < 0) return got;
        }
        for (int32_t i = 0; i < w; ++i) write12(dbuf, size_t(i) + dp, read12(sbuf, size_t(i) + sp));
        int32_t put = K_PutBitmapRowCol(dst, dbuf + dp, dy + y, dx, dstBytes);
        if (put < 0) return put;
        rc = progress.step(y + 1);
    }
    return rc;
}

}  // namespace

// ---------------------------------------------------------------- copy.h
void copyBits(uint8_t* dst, uint32_t db, const uint8_t* src, uint32_t sb, uint64_t n) noexcept {
    if (n == 0) return;
    const uint64_t nd = (db + n + 7) / 8;
    const uint64_t ns = (sb + n + 7) / 8;
    const uint32_t lastBit = uint32_t((db + n - 1) & 7);
    auto at = [&](int64_t i) -> uint32_t { return (i >= 0 && uint64_t(i) < ns) ? src[i] : 0u; };
    const int d = int(sb) - int(db);
    for (uint64_t j = 0; j < nd; ++j) {
        const int64_t i = int64_t(j);
        uint32_t v;
        if (d >= 0)
            v = ((at(i) << d) | (at(i + 1) >> (8 - d))) & 0xFFu;
        else
            v = ((at(i - 1) << (8 + d)) | (at(i) >> -d)) & 0xFFu;
        const uint32_t m = byteMask(j == 0 ? db : 0, j + 1 == nd ? lastBit : 7);
        dst[j] = uint8_t((dst[j] & ~m) | (v & m));
    }
}

int32_t dupBitmapNewDim(BITMAPRECORD* dst, const BITMAPRECORD* src, uint32_t structSize, int32_t width,
                        int32_t height, uint32_t carry, bool wholeWrite) noexcept {
    if (!dst || !src || dst == src) return KS_INVALID_PARAMETER;
    if (!recordSizeValid(src->uStructSize) || !recordSizeValid(structSize)) return KS_INVALID_STRUCT_SIZE;
    if (carry & ~DUPBITMAP_ALL) return KS_INVALID_PARAMETER;
    const bool allocate = carry & (DUPBITMAP_STORAGE_LIKE | DUPBITMAP_ALLOCATE);
    if ((carry & DUPBITMAP_PIXELS) && (!allocate || !(src->uFlags & BRF_ALLOCATED))) return KS_INVALID_PARAMETER;
    if (width < 0 || height < 0) return KS_INVALID_DIMENSIONS;
    if (!bitsValid(src->nBitsPerPixel)) return KS_INVALID_BITS_PER_PIXEL;
    LocalRecord tmp;
    int32_t rc = K_InitBitmap(&tmp.bm, structSize, width, height, src->nBitsPerPixel);
    if (rc != KS_SUCCESS) return rc;
    tmp.live = true;
    rc = carryFields(&tmp.bm, src, carry, 0, 0);
    if (rc != KS_SUCCESS) return rc;
    if (allocate) {
        {
            // The shared pixels fill the new bitmap when it is no larger than the source.
            const bool filled = (carry & DUPBITMAP_PIXELS) &&
                                windowFillsEverything(src, 0, 0, width, height);
            NoZeroFill noZero(wholeWrite || filled);
            rc = (carry & DUPBITMAP_STORAGE_LIKE) ? allocateLike(&tmp.bm, src) : K_AllocateBitmap(&tmp.bm, 0);
        }
        if (rc != KS_SUCCESS) return rc;
        if (carry & DUPBITMAP_PIXELS) {
            rc = copyRectPixels(&tmp.bm, const_cast<BITMAPRECORD*>(src), 0, 0);
            if (rc != KS_SUCCESS) return rc;
        }
    }
    tmp.commit(dst);
    return KS_SUCCESS;
}

int32_t copyPixels(BITMAPRECORD* dst, BITMAPRECORD* src) noexcept {
    if (dst == src) return KS_SUCCESS;
    const uint32_t bpl = src->nBytesPerLine;
    const int32_t h = src->nHeight;
    if (dst->nBytesPerLine != bpl || dst->nHeight != h || dst->nWidth != src->nWidth ||
        dst->nBitsPerPixel != src->nBitsPerPixel)
        return KS_INVALID_PARAMETER;
    // Whole stored rows, padding included, so that every byte of the copy is written.
    return guarded([&]() -> int32_t {
        Progress progress = Progress::copyStatus(h);
        Accessed acc(dst, src);
        if (acc.status() != KS_SUCCESS) return acc.finish(acc.status());
        int32_t rc = progress.begin();
        const uint8_t* sp = hasGetRowCallback(src) ? nullptr : directPixels(src);
        uint8_t* dp = directPixels(dst);
        if (sp && dp) {
            // Both in plain memory: bands of rows in one memcpy each.
            const int32_t band = std::max<int32_t>(1, int32_t((4u << 20) / std::max<uint32_t>(bpl, 1)));
            for (int32_t y = 0; y < h && rc == KS_SUCCESS;) {
                const int32_t n = std::min(band, h - y);
                std::memcpy(dp + uint64_t(y) * bpl, sp + uint64_t(y) * bpl, size_t(n) * bpl);
                y += n;
                rc = progress.step(y);
            }
            return acc.finish(rc);
        }
        kvector<uint8_t> buf(bpl);
        for (int32_t y = 0; y < h && rc == KS_SUCCESS; ++y) {
            rc = readFullRow(src, y, buf.data());
            if (rc == KS_SUCCESS) rc = writeRow(dst, y, 0, buf.data(), bpl);
            if (rc == KS_SUCCESS) rc = progress.step(y + 1);
        }
        return acc.finish(rc);
    });
}

int32_t copyRectPixels(BITMAPRECORD* dst, BITMAPRECORD* src, int32_t col, int32_t row) noexcept {
    if (dst->nBitsPerPixel != src->nBitsPerPixel) return KS_INVALID_PARAMETER;
    // The window of the source that the destination covers, in 64 bits.
    const int64_t x0 = std::max<int64_t>(0, col), x1 = std::min<int64_t>(int64_t(col) + dst->nWidth, src->nWidth);
    const int64_t y0 = std::max<int64_t>(0, row), y1 = std::min<int64_t>(int64_t(row) + dst->nHeight, src->nHeight);
    if (x1 <= x0 || y1 <= y0) return KS_SUCCESS;
    const int32_t w = int32_t(x1 - x0), h = int32_t(y1 - y0);
    const int32_t dx = int32_t(x0 - col), dy = int32_t(y0 - row);
    const uint32_t bpp = uint32_t(src->nBitsPerPixel);
    const uint64_t nBits = uint64_t(w) * bpp;
    const uint32_t sb = uint32_t((uint64_t(x0) * bpp) & 7), db = uint32_t((uint64_t(dx) * bpp) & 7);
    const uint32_t srcBytes = uint32_t((sb + nBits + 7) / 8), dstBytes = uint32_t((db + nBits + 7) / 8);
    const uint64_t srcOff = (uint64_t(x0) * bpp) >> 3, dstOff = (uint64_t(dx) * bpp) >> 3;

    // A window that reaches the right edge also writes the row's padding
    // (zero), so that a destination that was not zero-filled ends clean.
    const uint32_t padBytes = (bpp % 8 == 0 && bpp != 12 && int64_t(dx) + w == dst->nWidth)
                                  ? uint32_t(dst->nBytesPerLine - (dstOff + nBits / 8))
                                  : 0;
    return guarded([&]() -> int32_t {
        Progress progress = Progress::copyStatus(h);
        Accessed acc(dst, src);
        if (acc.status() != KS_SUCCESS) return acc.finish(acc.status());
        int32_t rc = progress.begin();
        uint8_t* sp = hasGetRowCallback(src) ? nullptr : directPixels(src);
        uint8_t* dp = directPixels(dst);
        if (rc == KS_SUCCESS && sp && dp && sb == 0 && db == 0 && nBits % 8 == 0) {
            // Both in plain memory: rows by memcpy, one block when the rows are whole and alike.
            const uint64_t sbpl = src->nBytesPerLine, dbpl = dst->nBytesPerLine;
            const size_t bytes = size_t(nBits / 8);
            const bool whole = sbpl == dbpl && bytes == sbpl && srcOff == 0 && dstOff == 0;
            const int32_t band = std::max<int32_t>(1, int32_t((4u << 20) / std::max<uint64_t>(sbpl, 1)));
            for (int32_t y = 0; y < h && rc == KS_SUCCESS;) {
                const int32_t n = std::min(band, h - y);
                const uint8_t* s = sp + uint64_t(y0 + y) * sbpl + srcOff;
                uint8_t* d = dp + uint64_t(dy + y) * dbpl + dstOff;
                if (whole) {
                    std::memcpy(d, s, size_t(n) * bytes);
                } else {
                    for (int32_t k = 0; k < n; ++k) {
                        std::memcpy(d + k * dbpl, s + k * sbpl, bytes);
                        if (padBytes) std::memset(d + k * dbpl + bytes, 0, padBytes);
                    }
                }
                y += n;
                rc = progress.step(y);
            }
            return acc.finish(rc);
        }
        kvector<uint8_t> sbuf(size_t(srcBytes) + 8), dbuf(size_t(dstBytes) + 8);
        if (bpp == 12) return acc.finish(rc == KS_SUCCESS ? copyRows12(dst, src, progress, sbuf.data(),
                                                                        dbuf.data(), x0, y0, dx, dy, w, h,
                                                                        srcBytes, dstBytes)
                                                          : rc);
        const bool aligned = sb == 0 && db == 0;
        const bool partialEdges = db != 0 || (db + nBits) % 8 != 0;
        for (int32_t y = 0; y < h && rc == KS_SUCCESS; ++y) {
            int32_t got = K_GetBitmapRowCol(src, sbuf.data(), int32_t(y0) + y, int32_t(x0), srcBytes);
            if (got < 0) {
                rc = got;
                break;
            }
            if (uint32_t(got) != srcBytes) {
                rc = KS_INTERNAL;
                break;
            }
            const uint8_t* out = sbuf.data();
            if (!aligned || partialEdges) {
                if (partialEdges) {
                    got = K_GetBitmapRowCol(dst, dbuf.data(), dy + y, dx, dstBytes);
                    if (got < 0) {
                        rc = got;
                        break;
                    }
                }
                copyBits(dbuf.data(), db, sbuf.data(), sb, nBits);
                out = dbuf.data();
            }
            // The buffer's bytes past the pixels are zero: they become the padding.
            int32_t put = K_PutBitmapRowCol(dst, out, dy + y, dx, dstBytes + padBytes);
            if (put < 0) {
                rc = put;
                break;
            }
            rc = progress.step(y + 1);
        }
        return acc.finish(rc);
    });
}

}  // namespace krn

using namespace krn;

KAPI int32_t K_DupBitmapNewDim(BITMAPRECORD* pDst, const BITMAPRECORD* pSrc, uint32_t uStructSize,
                               int32_t nWidth, int32_t nHeight, uint32_t uCarry) {
    return guarded([&] { return dupBitmapNewDim(pDst, pSrc, uStructSize, nWidth, nHeight, uCarry); });
}

KAPI int32_t K_CopyBitmapData(BITMAPRECORD* pDst, BITMAPRECORD* pSrc) {
    if (!pDst || !pSrc) return KS_INVALID_PARAMETER;
    if (!recordSizeValid(pDst->uStructSize) || !recordSizeValid(pSrc->uStructSize)) return KS_INVALID_STRUCT_SIZE;
    if (!(pDst->uFlags & BRF_ALLOCATED) || !(pSrc->uFlags & BRF_ALLOCATED)) return KS_INVALID_PARAMETER;
    if (pDst == pSrc) return KS_SUCCESS;
    if (pDst->nWidth != pSrc->nWidth || pDst->nHeight != pSrc->nHeight ||
        pDst->nBitsPerPixel != pSrc->nBitsPerPixel || pDst->nBytesPerLine != pSrc->nBytesPerLine)
        return KS_INVALID_PARAMETER;
    return guarded([&] { return copyPixels(pDst, pSrc); });
}

KAPI int32_t K_CopyBitmap(BITMAPRECORD* pDst, BITMAPRECORD* pSrc, uint32_t uStructSize) {
    if (!pDst) return KS_INVALID_PARAMETER;
    int32_t rc = checkSource(pSrc, uStructSize);
    if (rc != KS_SUCCESS) return rc;
    if (pDst == pSrc) return KS_SUCCESS;
    return guarded([&]() -> int32_t {
        LocalRecord tmp;
        int32_t st =
            dupBitmapNewDim(&tmp.bm, pSrc, uStructSize, pSrc->nWidth, pSrc->nHeight, DUPBITMAP_COPY, true);
        if (st != KS_SUCCESS) return st;
        tmp.live = true;
        st = copyPixels(&tmp.bm, pSrc);
        if (st != KS_SUCCESS) return st;
        tmp.commit(pDst);
        return KS_SUCCESS;
    });
}

KAPI int32_t K_CopyBitmap2(BITMAPRECORD* pDst, BITMAPRECORD* pSrc, uint32_t uStructSize, uint32_t uMemory) {
    if (!pDst) return KS_INVALID_PARAMETER;
    int32_t rc = checkSource(pSrc, uStructSize);
    if (rc != KS_SUCCESS) return rc;
    if (pDst == pSrc) return KS_SUCCESS;
    return guarded([&]() -> int32_t {
        LocalRecord tmp;
        int32_t st = prepareChosen(tmp, pSrc, uStructSize, pSrc->nWidth, pSrc->nHeight, uMemory, 0, 0, true);
        if (st != KS_SUCCESS) return st;
        st = copyPixels(&tmp.bm, pSrc);
        if (st != KS_SUCCESS) return st;
        tmp.commit(pDst);
        return KS_SUCCESS;
    });
}

KAPI int32_t K_IntBeginCopyBitmap(BITMAPRECORD* pDst, const BITMAPRECORD* pSrc, int32_t nDx, int32_t nDy) {
    if (!pDst || !pSrc || pDst == pSrc) return KS_INVALID_BITMAP;
    if (!recordSizeValid(pDst->uStructSize) || !recordSizeValid(pSrc->uStructSize)) return KS_INVALID_BITMAP;
    if (pDst->nBitsPerPixel != pSrc->nBitsPerPixel) return KS_INVALID_BITMAP;
    return guarded([&] { return beginCopy(pDst, pSrc, nDx, nDy); });
}

KAPI int32_t K_CopyGrayParams(BITMAPRECORD* pDst, const BITMAPRECORD* pSrc) {
    if (!pDst || !pSrc) return KS_INVALID_PARAMETER;
    if (!recordSizeValid(pDst->uStructSize) || !recordSizeValid(pSrc->uStructSize)) return KS_INVALID_STRUCT_SIZE;
    if (pDst == pSrc) return KS_SUCCESS;
    return guarded([&] { return copyGrayParams(pDst, pSrc); });
}

KAPI int32_t K_CopyBitmapRect(BITMAPRECORD* pDst, BITMAPRECORD* pSrc, uint32_t uStructSize, int32_t nCol,
                              int32_t nRow, uint32_t uWidth, uint32_t uHeight) {
    return guarded([&] { return copyRectCore(pDst, pSrc, uStructSize, nCol, nRow, uWidth, uHeight, false, 0); });
}

KAPI int32_t K_CopyBitmapRect2(BITMAPRECORD* pDst, BITMAPRECORD* pSrc, uint32_t uStructSize, int32_t nCol,
                               int32_t nRow, uint32_t uWidth, uint32_t uHeight, uint32_t uMemory) {
    return guarded(
        [&] { return copyRectCore(pDst, pSrc, uStructSize, nCol, nRow, uWidth, uHeight, true, uMemory); });
}

KAPI int32_t K_TrimBitmap(BITMAPRECORD* pBitmap, int32_t nCol, int32_t nRow, uint32_t uWidth, uint32_t uHeight) {
    int32_t rc = checkSource(pBitmap, pBitmap ? pBitmap->uStructSize : BITMAPRECORD_SIZE);
    if (rc != KS_SUCCESS) return rc;
    const int64_t left = std::max<int64_t>(0, nCol), top = std::max<int64_t>(0, nRow);
    const int64_t width = std::min<int64_t>(int64_t(nCol) + uWidth, pBitmap->nWidth) - left;
    const int64_t height = std::min<int64_t>(int64_t(nRow) + uHeight, pBitmap->nHeight) - top;
    if (width <= 0 || height <= 0) return KS_INVALID_DIMENSIONS;
    return K_CopyBitmapRect(nullptr, pBitmap, pBitmap->uStructSize, int32_t(left), int32_t(top), uint32_t(width),
                            uint32_t(height));
}

KAPI int32_t K_CopyBitmapHandle(BITMAPRECORD* pDst, const BITMAPRECORD* pSrc, uint32_t uStructSize) {
    if (!pDst || !pSrc) return KS_INVALID_PARAMETER;
    if (!recordSizeValid(pSrc->uStructSize) || !recordSizeValid(uStructSize)) return KS_INVALID_STRUCT_SIZE;
    if (pDst == pSrc && uStructSize == pSrc->uStructSize) return KS_SUCCESS;
    const uint64_t size = dataSize(pSrc);
    if (uStructSize == BITMAPRECORD_SIZE_OLD && size > 0xFFFF0000ull) return KS_MEMORY_TOO_LOW;
    BITMAPRECORD tmp;
    std::memset(&tmp, 0, sizeof tmp);
    std::memcpy(&tmp, pSrc, std::min(recordBytes(pSrc->uStructSize), recordBytes(uStructSize)));
    tmp.uStructSize = uStructSize;
    if (uStructSize == BITMAPRECORD_SIZE && pSrc->uStructSize == BITMAPRECORD_SIZE_OLD) {
        tmp.uSize64 = size;
        // An older record counts no accesses; a locked block counts as one.
        tmp.nLockCount = (pSrc->uFlags & BRF_LOCKED) ? 1 : 0;
    }
    std::memcpy(pDst, &tmp, recordBytes(uStructSize));
    return KS_SUCCESS;
}

KAPI int32_t K_ClearNegativePixels(BITMAPRECORD* pBitmap) {
    int32_t rc = checkAllocated(pBitmap);
    if (rc != KS_SUCCESS) return rc;
    BITMAPRECORD* bm = pBitmap;
    const int32_t bpp = bm->nBitsPerPixel;
    const bool grey = bpp == 8 || bpp == 12 || ((bpp == 16 || bpp == 32) && bm->nOrder == ORDER_GRAY);
    if (!(bm->uFlags & BRF_SIGNED_DATA) || !grey || bm->nWidth <= 0 || bm->nHeight <= 0) return KS_SUCCESS;
    const uint32_t signBit = (bm->nHighBit >= 0 && bm->nHighBit < bpp) ? uint32_t(bm->nHighBit) : uint32_t(bpp - 1);
    return guarded([&]() -> int32_t {
        kvector<uint8_t> rowBuf(bm->nBytesPerLine);
        kvector<int32_t> segs(std::max<uint32_t>(clipSegmentsMax(bm), 2));
        Progress progress = Progress::status(bm->nHeight);
        Accessed acc(bm, bm);
        if (acc.status() != KS_SUCCESS) return acc.finish(acc.status());
        int32_t st = progress.begin();
        for (int32_t y = 0; y < bm->nHeight && st == KS_SUCCESS; ++y) {
            const uint32_t n = clipSegments(bm, y, segs.data());
            if (n) {
                // Only samples inside the clip segments are looked at; the row
                // goes back whole, so the sample layout stays this file's business.
                st = readFullRow(bm, y, rowBuf.data());
                if (st != KS_SUCCESS) break;
                for (uint32_t i = 0; i + 1 < n; i += 2) {
                    const int32_t x1 = std::max(segs[i], 0), x2 = std::min(segs[i + 1], bm->nWidth);
                    if (x1 >= x2) continue;
                    switch (bpp) {
                        case 8: clearNegative<uint8_t>(rowBuf.data(), x1, x2, signBit); break;
                        case 12: clearNegative12(rowBuf.data(), x1, x2, signBit); break;
                        case 16: clearNegative<uint16_t>(rowBuf.data(), x1, x2, signBit); break;
                        default: clearNegative<uint32_t>(rowBuf.data(), x1, x2, signBit); break;
                    }
                }
                st = writeRow(bm, y, 0, rowBuf.data(), bm->nBytesPerLine);
                if (st != KS_SUCCESS) break;
            }
            st = progress.step(y + 1);
        }
        return acc.finish(st);
    });
}
