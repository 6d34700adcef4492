// rowcol.cpp - row and column access for every storage kind.
//
// readRow/writeRow move a byte range of one stored row; the exports add the
// frame (pointer, size word, allocated bit, row and column range), the get-row
// callback and the compressed-row forms. Rows are stored rows: the view
// perspective is not applied here.
#include <algorithm>
#include <cstring>

#include "kernel.h"
#include "memory.h"
#include "runs.h"
#include "storage.h"
#include "superstore.h"
#include "../windowsemul/globalmem.h"

namespace krn {
namespace {

// A row-sized scratch buffer: on the stack for small rows, else from the
// kernel allocator.
class RowBuf {
public:
    explicit RowBuf(size_t n) noexcept : n_(n) {
        if (n <= sizeof(local_)) {
            p_ = local_;
        } else {
            heap_ = static_cast<uint8_t*>(memAlloc(n));
            p_ = heap_;
        }
    }
    ~RowBuf() { memFree(heap_); }
    RowBuf(const RowBuf&) = delete;
    RowBuf& operator=(const RowBuf&) = delete;
    uint8_t* get() noexcept { return p_; }
    explicit operator bool() const noexcept { return p_ != nullptr; }
    size_t size() const noexcept { return n_; }

private:
    size_t n_;
    uint8_t* p_ = nullptr;
    uint8_t* heap_ = nullptr;
    alignas(16) uint8_t local_[4096];
};

// The pixels of a record kept in one piece of memory (single block or caller
// memory), locked for the lifetime of this object when not already locked.
class MemoryPixels {
public:
    explicit MemoryPixels(BITMAPRECORD* bm) noexcept {
        const uint32_t f = bm->uFlags;
        if (f & BRF_LOCKED) {
            base_ = bm->pData;
        } else if (bm->hMemory && (!(f & BRF_USER_MEMORY) || (f & BRF_MOVABLE_BLOCK))) {
            auto* b = static_cast<uint8_t*>(globalLock(bm->hMemory));
            if (b) {
                handle_ = bm->hMemory;
                base_ = b + bm->uDataOffset;
            }
        } else if ((f & BRF_USER_MEMORY) || (f & BRF_CONVENTIONAL)) {
            base_ = bm->pData;
        }
    }
    ~MemoryPixels() {
        if (handle_) globalUnlock(handle_);
    }
    MemoryPixels(const MemoryPixels&) = delete;
    MemoryPixels& operator=(const MemoryPixels&) = delete;
    uint8_t* base() const noexcept { return base_; }

private:
    uint8_t* base_ = nullptr;
    HGLOBAL handle_ = nullptr;
};

PFN_BITMAPGETROW getRowCallback(const BITMAPRECORD* bm) noexcept {
    if (!isCurrentLayout(bm) || !bm->pCallbacks) return nullptr;
    return bm->pCallbacks->pfnGetRow;
}

bool isMemoryKind(uint32_t f) noexcept {
    return !(f & (BRF_COMPRESSED | BRF_TILED | BRF_SUPERCOMPRESSED | BRF_DISK));
}

// Whole-row transfer for the kinds that only work on whole rows.
int32_t readWholeRow(BITMAPRECORD* bm, int32_t row, uint8_t* dst) noexcept {
    const uint32_t f = bm->uFlags;
    if (f & BRF_COMPRESSED) {
        std::memset(dst, 0, bm->nBytesPerLine);
        size_t bytes = 0;
        const uint8_t* stored = runsRowData(bm, row, &bytes);
        if (stored) expandBits(stored + 4, runWords(stored), dst, 0, uint32_t(bm->nWidth));
        return KS_SUCCESS;
    }
    return superGetRow(bm, row, dst);
}

int32_t writeWholeRow(BITMAPRECORD* bm, int32_t row, const uint8_t* src) noexcept {
    const uint32_t f = bm->uFlags;
    if (f & BRF_COMPRESSED) {
        RowBuf runs(maxRowBytes(uint32_t(bm->nWidth)));
        if (!runs) return KS_NO_MEMORY;
        size_t n = compressBits(src, 0, uint32_t(bm->nWidth), runs.get());
        return runsStoreRow(bm, row, runs.get(), n);
    }
    return superPutRow(bm, row, src);
}

// The tile holding `row` and the byte position of (row, offset) inside it;
// false for a damaged table or a row past the last tile.
bool locateTileRow(const BITMAPRECORD* bm, int32_t row, uint32_t offset, const TileEntry** entry,
                   uint64_t* at) noexcept {
    auto* t = reinterpret_cast<const TileTable*>(bm->pData);
    if (!t || !t->rowsPerTile) return false;
    const uint32_t tile = uint32_t(row) / t->rowsPerTile;
    if (tile >= t->count) return false;
    *entry = &t->tiles[tile];
    *at = uint64_t(uint32_t(row) % t->rowsPerTile) * bm->nBytesPerLine + offset;
    return true;
}

}  // namespace

int32_t readFullRow(BITMAPRECORD* bm, int32_t row, uint8_t* dst) noexcept {
    if (PFN_BITMAPGETROW cb = getRowCallback(bm)) {
        int32_t answer = guarded([&] { return cb(bm, dst, row, bm->nBytesPerLine, bm->pCallbacks->pUserData); });
        if (answer < 0) return answer;
        if (answer != 0) return KS_SUCCESS;
    }
    return readRow(bm, row, 0, dst, bm->nBytesPerLine);
}

int32_t readRow(BITMAPRECORD* bm, int32_t row, uint32_t offset, uint8_t* dst, uint32_t n) noexcept {
    if (n == 0) return KS_SUCCESS;
    const uint32_t f = bm->uFlags;
    const uint32_t bpl = bm->nBytesPerLine;
    if (f & BRF_TILED) {
        const TileEntry* e;
        uint64_t at;
        if (!locateTileRow(bm, row, offset, &e, &at)) return KS_INVALID_BITMAP;
        if (uint8_t* v = tileView(*e)) {
            std::memcpy(dst, v + at, n);
            return KS_SUCCESS;
        }
        return fileRead(e->file, at, dst, n);
    }
    if (f & (BRF_COMPRESSED | BRF_SUPERCOMPRESSED)) {
        if (offset == 0 && n == bpl) return readWholeRow(bm, row, dst);
        RowBuf tmp(bpl);
        if (!tmp) return KS_NO_MEMORY;
        int32_t rc = readWholeRow(bm, row, tmp.get());
        if (rc != KS_SUCCESS) return rc;
        std::memcpy(dst, tmp.get() + offset, n);
        return KS_SUCCESS;
    }
    const uint64_t at = uint64_t(uint32_t(row)) * bpl + offset;
    if (f & BRF_DISK) {
        auto* d = static_cast<DiskStore*>(bm->hMemory);
        if (!d) return KS_INVALID_BITMAP;
        if (d->map.data) {
            std::memcpy(dst, d->map.data + at, n);
            return KS_SUCCESS;
        }
        return fileRead(d->file, at, dst, n);
    }
    MemoryPixels mem(bm);
    if (!mem.base()) return KS_NO_MEMORY;
    std::memcpy(dst, mem.base() + at, n);
    return KS_SUCCESS;
}

int32_t writeRow(BITMAPRECORD* bm, int32_t row, uint32_t offset, const uint8_t* src, uint32_t n) noexcept {
    if (n == 0) return KS_SUCCESS;
    const uint32_t f = bm->uFlags;
    const uint32_t bpl = bm->nBytesPerLine;
    if (f & BRF_TILED) {
        const TileEntry* e;
        uint64_t at;
        if (!locateTileRow(bm, row, offset, &e, &at)) return KS_INVALID_BITMAP;
        if (uint8_t* v = tileView(*e)) {
            std::memcpy(v + at, src, n);
            return KS_SUCCESS;
        }
        return fileWrite(e->file, at, src, n);
    }
    if (f & (BRF_COMPRESSED | BRF_SUPERCOMPRESSED)) {
        if (offset == 0 && n == bpl) return writeWholeRow(bm, row, src);
        RowBuf tmp(bpl);
        if (!tmp) return KS_NO_MEMORY;
        int32_t rc = readWholeRow(bm, row, tmp.get());
        if (rc != KS_SUCCESS) return rc;
        std::memcpy(tmp.get() + offset, src, n);
        return writeWholeRow(bm, row, tmp.get());
    }
    const uint64_t at = uint64_t(uint32_t(row)) * bpl + offset;
    if (f & BRF_DISK) {
        auto* d = static_cast<DiskStore*>(bm->hMemory);
        if (!d) return KS_INVALID_BITMAP;
        if (d->map.data) {
            std::memcpy(d->map.data + at, src, n);
            return KS_SUCCESS;
        }
        return fileWrite(d->file, at, src, n);
    }
    MemoryPixels mem(bm);
    if (!mem.base()) return KS_NO_MEMORY;
    std::memcpy(mem.base() + at, src, n);
    return KS_SUCCESS;
}

int32_t copyAllRows(BITMAPRECORD* dst, BITMAPRECORD* src) noexcept {
    const uint32_t bpl = src->nBytesPerLine;
    if (dst->nBytesPerLine != bpl || dst->nHeight < src->nHeight) return KS_INVALID_PARAMETER;
    RowBuf tmp(bpl);
    if (!tmp) return KS_NO_MEMORY;
    for (int32_t r = 0; r < src->nHeight; ++r) {
        int32_t rc = readRow(src, r, 0, tmp.get(), bpl);
        if (rc == KS_SUCCESS) rc = writeRow(dst, r, 0, tmp.get(), bpl);
        if (rc != KS_SUCCESS) return rc;
    }
    return KS_SUCCESS;
}

namespace {

// Byte offset of a column: floor(column * bpp / 8).
inline uint32_t columnByte(int32_t col, int32_t bpp) noexcept {
    return uint32_t((uint64_t(uint32_t(col)) * uint32_t(bpp)) >> 3);
}

// Frame shared by the row exports: -13 null, -789 size, -2 not allocated,
// -13 row or column out of range.
int32_t rowFrame(const BITMAPRECORD* bm, const void* buf, int32_t row, int32_t col) noexcept {
    if (!bm || !buf) return KS_INVALID_PARAMETER;
    if (!recordSizeValid(bm->uStructSize)) return KS_INVALID_STRUCT_SIZE;
    if (!(bm->uFlags & BRF_ALLOCATED)) return KS_INVALID_BITMAP;
    if (row < 0 || row >= bm->nHeight || col < 0 || col >= bm->nWidth) return KS_INVALID_PARAMETER;
    return KS_SUCCESS;
}

int32_t clampCount(uint32_t bytes) noexcept { return int32_t(std::min<uint32_t>(bytes, 0x7FFFFFFFu)); }


int32_t getRowCol(BITMAPRECORD* bm, uint8_t* buf, int32_t row, int32_t col, uint32_t bytes) noexcept {
    int32_t rc = rowFrame(bm, buf, row, col);
    if (rc != KS_SUCCESS) return rc;
    const uint32_t off = columnByte(col, bm->nBitsPerPixel);
    if (off >= bm->nBytesPerLine) return KS_INVALID_PARAMETER;
    const uint32_t n = uint32_t(clampCount(std::min(bytes, bm->nBytesPerLine - off)));
    if (PFN_BITMAPGETROW cb = getRowCallback(bm)) {
        if (off == 0) {
            int32_t answer = guarded([&] { return cb(bm, buf, row, n, bm->pCallbacks->pUserData); });
            if (answer != 0) return answer;
        } else {
            RowBuf tmp(bm->nBytesPerLine);
            if (!tmp) return KS_NO_MEMORY;
            int32_t answer =
                guarded([&] { return cb(bm, tmp.get(), row, off + n, bm->pCallbacks->pUserData); });
            if (answer < 0) return answer;
            if (answer != 0) {
                std::memcpy(buf, tmp.get() + off, n);
                return int32_t(n);
            }
        }
    }
    if (n == 0) return 0;
    rc = readRow(bm, row, off, buf, n);
    return rc == KS_SUCCESS ? int32_t(n) : rc;
}

int32_t putRowCol(BITMAPRECORD* bm, const uint8_t* buf, int32_t row, int32_t col, uint32_t bytes) noexcept {
    int32_t rc = rowFrame(bm, buf, row, col);
    if (rc != KS_SUCCESS) return rc;
    const uint32_t off = columnByte(col, bm->nBitsPerPixel);
    if (off >= bm->nBytesPerLine) return KS_INVALID_PARAMETER;
    const uint32_t n = uint32_t(clampCount(std::min(bytes, bm->nBytesPerLine - off)));
    if (n == 0) return 0;
    rc = writeRow(bm, row, off, buf, n);
    return rc == KS_SUCCESS ? int32_t(n) : rc;
}

// Compressed forms: pixel range [col, col + pixels) of a 1-bit row.
int32_t compressedFrame(const BITMAPRECORD* bm, const void* runs, int32_t row, int32_t col, int32_t pixels,
                        uint32_t* count) noexcept {
    int32_t rc = rowFrame(bm, runs, row, col);
    if (rc != KS_SUCCESS) return rc;
    if (bm->nBitsPerPixel != 1) return KS_INVALID_BITS_PER_PIXEL;
    if (pixels < 0) return KS_INVALID_PARAMETER;
    *count = uint32_t(std::min<int64_t>(pixels, int64_t(bm->nWidth) - col));
    return KS_SUCCESS;
}

int32_t getCompressed(BITMAPRECORD* bm, uint8_t* work, uint8_t* runs, int32_t row, int32_t col,
                      int32_t pixels) noexcept {
    uint32_t count = 0;
    int32_t rc = compressedFrame(bm, runs, row, col, pixels, &count);
    if (rc != KS_SUCCESS) return rc;
    if ((bm->uFlags & BRF_COMPRESSED) && !getRowCallback(bm) && col == 0 && count == uint32_t(bm->nWidth)) {
        size_t bytes = 0;
        const uint8_t* stored = runsRowData(bm, row, &bytes);
        if (stored) {
            std::memcpy(runs, stored, bytes);
            return KS_SUCCESS;
        }
        // A row never written: all 0 pixels.
    }
    RowBuf own(work ? 0 : bm->nBytesPerLine);
    uint8_t* row8 = work ? work : own.get();
    if (!row8) return KS_NO_MEMORY;
    rc = readFullRow(bm, row, row8);
    if (rc != KS_SUCCESS) return rc;
    compressBits(row8, uint64_t(col), count, runs);
    return KS_SUCCESS;
}

int32_t putCompressed(BITMAPRECORD* bm, uint8_t* work, const uint8_t* runs, int32_t row, int32_t col,
                      int32_t pixels) noexcept {
    uint32_t count = 0;
    int32_t rc = compressedFrame(bm, runs, row, col, pixels, &count);
    if (rc != KS_SUCCESS) return rc;
    const uint32_t words = runWords(runs);
    if ((bm->uFlags & BRF_COMPRESSED) && col == 0 && count == uint32_t(bm->nWidth) &&
        4 + 2 * uint64_t(words) <= maxRowBytes(count) && runSum(runs) == count) {
        // A well-formed row of exactly the width: stored as given.
        return runsStoreRow(bm, row, runs, rowBytes(runs));
    }
    RowBuf own(work ? 0 : bm->nBytesPerLine);
    uint8_t* row8 = work ? work : own.get();
    if (!row8) return KS_NO_MEMORY;
    if (col != 0 || count != uint32_t(bm->nWidth)) {
        rc = readRow(bm, row, 0, row8, bm->nBytesPerLine);
        if (rc != KS_SUCCESS) return rc;
    } else {
        std::memset(row8, 0, bm->nBytesPerLine);
    }
    expandBits(runs + 4, words, row8, uint64_t(col), count);
    return writeRow(bm, row, 0, row8, bm->nBytesPerLine);
}

// Copies pixels [a, b) of src into the same pixels of dst. Sub-byte depths
// are MSB-first bit ranges; 12-bit grey packs two pixels in three bytes (the
// middle byte's low nibble belongs to the even pixel, its high nibble to the
// odd one).
void mergePixels(uint8_t* dst, const uint8_t* src, int32_t a, int32_t b, uint32_t bpp) noexcept {
    if (bpp != 12) {
        mergeBitRange(dst, src, uint64_t(a) * bpp, uint64_t(b - a) * bpp);
        return;
    }
    const size_t pa = size_t(a), pb = size_t(b);
    if (pa & 1) {  // a leading odd pixel: the middle byte's high nibble and the last byte
        const size_t o = pa / 2 * 3;
        dst[o + 1] = uint8_t((dst[o + 1] & 0x0Fu) | (src[o + 1] & 0xF0u));
        dst[o + 2] = src[o + 2];
    }
    const size_t evenA = (pa + 1) & ~size_t(1), evenB = pb & ~size_t(1);
    if (evenB > evenA) std::memcpy(dst + evenA / 2 * 3, src + evenA / 2 * 3, (evenB - evenA) / 2 * 3);
    if ((pb & 1) && pb - 1 >= pa) {  // a trailing even pixel: the first byte and the low nibble
        const size_t o = (pb - 1) / 2 * 3;
        dst[o] = src[o];
        dst[o + 1] = uint8_t((dst[o + 1] & 0xF0u) | (src[o + 1] & 0x0Fu));
    }
}

int32_t putSegments(BITMAPRECORD* bm, const uint8_t* src, int32_t row, const int32_t* segs,
                    int32_t nSegs) noexcept {
    int32_t rc = rowFrame(bm, src, row, 0);
    if (rc != KS_SUCCESS) return rc;
    if (nSegs < 0 || (nSegs > 0 && !segs)) return KS_INVALID_PARAMETER;
    const int32_t w = bm->nWidth;
    const uint32_t bpp = uint32_t(bm->nBitsPerPixel);
    const uint32_t bpl = bm->nBytesPerLine;
    const bool byteAligned = bpp % 8 == 0;
    auto clip = [&](int32_t i, int32_t* a, int32_t* b) {
        *a = std::max(segs[2 * i], 0);
        *b = std::min(segs[2 * i + 1], w);
        return *a < *b;
    };
    if (byteAligned && !(bm->uFlags & (BRF_COMPRESSED | BRF_SUPERCOMPRESSED))) {
        // Byte ranges straight into storage.
        const uint32_t bytesPP = bpp / 8;
        for (int32_t i = 0; i < nSegs; ++i) {
            int32_t a, b;
            if (!clip(i, &a, &b)) continue;
            rc = writeRow(bm, row, uint32_t(a) * bytesPP, src + size_t(a) * bytesPP, uint32_t(b - a) * bytesPP);
            if (rc != KS_SUCCESS) return rc;
        }
        return KS_SUCCESS;
    }
    if (isMemoryKind(bm->uFlags)) {
        MemoryPixels mem(bm);
        if (!mem.base()) return KS_NO_MEMORY;
        uint8_t* dst = mem.base() + uint64_t(uint32_t(row)) * bpl;
        for (int32_t i = 0; i < nSegs; ++i) {
            int32_t a, b;
            if (clip(i, &a, &b)) mergePixels(dst, src, a, b, bpp);
        }
        return KS_SUCCESS;
    }
    // Read the row once, merge every segment, write it once.
    RowBuf tmp(bpl);
    if (!tmp) return KS_NO_MEMORY;
    rc = readRow(bm, row, 0, tmp.get(), bpl);
    if (rc != KS_SUCCESS) return rc;
    for (int32_t i = 0; i < nSegs; ++i) {
        int32_t a, b;
        if (clip(i, &a, &b)) mergePixels(tmp.get(), src, a, b, bpp);
    }
    return writeRow(bm, row, 0, tmp.get(), bpl);
}

}  // namespace
}  // namespace krn

using namespace krn;

KAPI int32_t K_GetBitmapRow(BITMAPRECORD* pBitmap, uint8_t* pBuffer, int32_t nRow, uint32_t uBytes) {
    return getRowCol(pBitmap, pBuffer, nRow, 0, uBytes);
}
KAPI int32_t K_PutBitmapRow(BITMAPRECORD* pBitmap, const uint8_t* pBuffer, int32_t nRow, uint32_t uBytes) {
    return putRowCol(pBitmap, pBuffer, nRow, 0, uBytes);
}
KAPI int32_t K_GetBitmapRowCol(BITMAPRECORD* pBitmap, uint8_t* pBuffer, int32_t nRow, int32_t nCol,
                               uint32_t uBytes) {
    return getRowCol(pBitmap, pBuffer, nRow, nCol, uBytes);
}
KAPI int32_t K_PutBitmapRowCol(BITMAPRECORD* pBitmap, const uint8_t* pBuffer, int32_t nRow, int32_t nCol,
                               uint32_t uBytes) {
    return putRowCol(pBitmap, pBuffer, nRow, nCol, uBytes);
}
KAPI int32_t K_GetBitmapRowCompressed(BITMAPRECORD* pBitmap, uint8_t* pWork, uint8_t* pRuns, int32_t nRow,
                                      int32_t nPixels) {
    return getCompressed(pBitmap, pWork, pRuns, nRow, 0, nPixels);
}
KAPI int32_t K_PutBitmapRowCompressed(BITMAPRECORD* pBitmap, uint8_t* pWork, const uint8_t* pRuns, int32_t nRow,
                                      int32_t nPixels) {
    return putCompressed(pBitmap, pWork, pRuns, nRow, 0, nPixels);
}
KAPI int32_t K_GetBitmapRowColCompressed(BITMAPRECORD* pBitmap, uint8_t* pWork, uint8_t* pRuns, int32_t nRow,
                                         int32_t nCol, int32_t nPixels) {
    return getCompressed(pBitmap, pWork, pRuns, nRow, nCol, nPixels);
}
KAPI int32_t K_PutBitmapRowColCompressed(BITMAPRECORD* pBitmap, uint8_t* pWork, const uint8_t* pRuns,
                                         int32_t nRow, int32_t nCol, int32_t nPixels) {
    return putCompressed(pBitmap, pWork, pRuns, nRow, nCol, nPixels);
}
KAPI int32_t K_PutBitmapRowSegments(BITMAPRECORD* pBitmap, const uint8_t* pRow, int32_t nRow,
                                    const int32_t* pSegments, int32_t nSegments) {
    return putSegments(pBitmap, pRow, nRow, pSegments, nSegments);
}
