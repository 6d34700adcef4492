// rotate90.cpp - quarter turns and transposes of whole bitmaps and plain
// buffers (K_RotateBitmap90, K_RotateBuffer90, K_RotateBuffer180).
//
// The reorientation engine turns rows into columns. It walks the source in
// bands of columns (each band is a band of destination rows) and, inside a
// band, in chunks of rows, and hands each chunk to the block kernel. The
// source is read straight from memory when its rows lie in one piece, else
// through the row layer (only the bytes of the band). The destination is
// written straight into a single block, or into one temporary block for the
// whole image (caller memory, and the tiled, disk and compressed kinds up to
// kTurnThroughCopyBytes), or band by band into new storage of the bitmap's
// own kind (larger images: a 1.2 GB tiled image turns with a few tens of
// megabytes of work memory). The old storage is freed only when the new one
// is complete; until then a failure or a stop frees the new storage and the
// bitmap is untouched.
#include <algorithm>
#include <atomic>
#include <cstring>

#ifdef __linux__
#include <sys/mman.h>
#endif

#include "hooks.h"
#include "kernel.h"
#include "memory.h"
#include "orient_detail.h"
#include "progress.h"
#include "rotate.h"
#include "settings.h"
#include "storage.h"
#include "superstore.h"

namespace krn {

namespace {
std::atomic<uint64_t> g_bandBytes{0};
std::atomic<uint64_t> g_copyLimit{0};
constexpr uint64_t kDefaultBandBytes = 32ull << 20;
constexpr uint32_t kChunkRows = 64;         // through the row layer (staging memory)
constexpr uint32_t kDirectChunkRows = 512;  // straight from memory: longer strips for the kernels

uint64_t bandBudget() noexcept {
    const uint64_t b = g_bandBytes.load(std::memory_order_relaxed);
    return b ? b : kDefaultBandBytes;
}

// Storage of bm's kind for the record nb (geometry set, storage fields clear).
int32_t allocateLike(BITMAPRECORD* nb, const BITMAPRECORD* bm) noexcept {
    const uint32_t f = bm->uFlags;
    int32_t st;
    if (f & BRF_COMPRESSED) {
        st = runsAllocate(nb);
        if (st != KS_SUCCESS) return KS_NO_MEMORY;
        nb->uFlags |= BRF_ALLOCATED | BRF_CONVENTIONAL | BRF_COMPRESSED;
        return KS_SUCCESS;
    }
    if (f & BRF_SUPERCOMPRESSED) {
        st = superAllocate(nb);
        if (st == KS_SUCCESS) nb->uFlags |= BRF_ALLOCATED | BRF_CONVENTIONAL | BRF_SUPERCOMPRESSED;
        return st;
    }
    if (f & BRF_TILED) {
        auto* t = reinterpret_cast<const TileTable*>(bm->pData);
        const ThreadSettings& ts = settings();
        uint64_t tileSize = t && t->tileSize ? t->tileSize : 0x1000000;
        st = tilesAllocate(nb, tileSize, fileDiskAllowed(), ts.nMemFifth, memoryBudget());
        if (st == KS_SUCCESS) nb->uFlags |= BRF_ALLOCATED | BRF_CONVENTIONAL | BRF_TILED;
        return st;
    }
    if (f & BRF_DISK) {
        st = diskAllocate(nb);
        if (st == KS_SUCCESS)
            nb->uFlags = (nb->uFlags & ~(BRF_USER_MEMORY | BRF_MOVABLE_BLOCK)) | BRF_ALLOCATED | BRF_DISK;
        return st;
    }
    return allocateBitmap(nb, MEMTYPE_CONVENTIONAL, nullptr);
}

// A record that describes new storage only: nothing it points to is owned yet.
void blankCopy(BITMAPRECORD* nb, const BITMAPRECORD* bm) noexcept {
    std::memcpy(nb, bm, recordBytes(bm->uStructSize));
    nb->uFlags &= ~(BRF_STORAGE_MASK | BRF_MOVABLE_BLOCK);
    nb->hMemory = nullptr;
    nb->pData = nullptr;
    nb->uDataOffset = 0;
    nb->hRgn = nullptr;
    nb->pPalette = nullptr;
    nb->pLUT = nullptr;
    nb->pExtraData = nullptr;
    nb->pDitherState = nullptr;
    nb->pOverlays = nullptr;
    if (isCurrentLayout(nb)) {
        nb->pCallbacks = nullptr;
        nb->hListBlock = nullptr;
        nb->nLockCount = 0;
    }
}

// Next chunk end after y0: chunk boundaries lie where the destination column
// (y, or H - y when the rows are walked from the last) is a multiple of 8.
// Once on that grid, chunks of 512 rows end where eight chunks of 64 do.
uint32_t chunkEnd(uint32_t y0, uint32_t H, bool revY, uint32_t rows) noexcept {
    const uint32_t phase = revY ? H % 8 : 0;
    uint64_t next = uint64_t(y0) + rows;
    next -= (next + 8 - phase) % 8;
    if (next <= y0) next += 8;
    return uint32_t(std::min<uint64_t>(next, H));
}

// New single-block storage is touched first by the turn, in columns: asking
// for huge pages before that saves a page fault per 4 KiB and the TLB misses
// of the column walk. Advice only: nothing depends on it being taken.
void adviseHugePages(uint8_t* p, uint64_t bytes) noexcept {
#if defined(__linux__) && defined(MADV_HUGEPAGE)
    constexpr uintptr_t kHuge = uintptr_t(2) << 20;
    if (!p || bytes < 4 * kHuge) return;
    const uintptr_t a = (reinterpret_cast<uintptr_t>(p) + kHuge - 1) & ~(kHuge - 1);
    const uintptr_t e = (reinterpret_cast<uintptr_t>(p) + uintptr_t(bytes)) & ~(kHuge - 1);
    if (e > a) madvise(reinterpret_cast<void*>(a), size_t(e - a), MADV_HUGEPAGE);
#else
    (void)p;
    (void)bytes;
#endif
}

}  // namespace

void setTurnBandBytes(uint64_t bytes) noexcept { g_bandBytes.store(bytes, std::memory_order_relaxed); }
void setTurnCopyLimit(uint64_t bytes) noexcept { g_copyLimit.store(bytes, std::memory_order_relaxed); }

namespace orient {

int32_t reorientStored(BITMAPRECORD* bm, bool revY, bool revX, bool swapResolution, int32_t from,
                       int32_t to) noexcept {
    if (!bm || !(bm->uFlags & BRF_ALLOCATED)) return KS_INVALID_BITMAP;
    if ((isCurrentLayout(bm) && bm->nLockCount > 0) || (bm->uFlags & BRF_LOCKED)) return KS_INVALID_PARAMETER;
    if (bm->nWidth <= 0 || bm->nHeight <= 0) return KS_INVALID_BITMAP;
    const uint32_t W = uint32_t(bm->nWidth), H = uint32_t(bm->nHeight);
    const int32_t bpp = bm->nBitsPerPixel;
    const uint32_t sbpl = bm->nBytesPerLine;
    uint32_t nbpl;
    if (!bytesPerLine(int32_t(H), bpp, &nbpl)) return KS_INVALID_DIMENSIONS;
    const uint64_t newSize = uint64_t(nbpl) * W;
    if (!isCurrentLayout(bm) && newSize > 0xFFFF0000ull) return KS_MEMORY_TOO_LOW;

    PendingRegion region;
    int32_t st = region.prepare(bm, [&](OrvaRgn* r) -> int32_t {
        int32_t s = rgn::transpose(r);
        if (s == KS_SUCCESS && revY) s = rgn::reverseCols(r, H);
        if (s == KS_SUCCESS && revX) s = rgn::flipRows(r, W);
        return s;
    });
    if (st != KS_SUCCESS) return st;

    BITMAPRECORD nb;
    blankCopy(&nb, bm);
    nb.uFlags &= ~BRF_ALLOCATED;
    nb.nWidth = int32_t(H);
    nb.nHeight = int32_t(W);
    nb.nBytesPerLine = nbpl;
    setDataSize(&nb, newSize);

    Access src(bm);
    st = src.open();
    if (st != KS_SUCCESS) return st;
    const uint8_t* sbase = directPixels(bm);
    const bool keepUser = (bm->uFlags & BRF_USER_MEMORY) && sbase && newSize <= dataSize(bm);

    bool nbOwned = false;
    Access dst(&nb);
    auto fail = [&](int32_t status) {
        dst.close();
        if (nbOwned) freeStorage(&nb);
        return src.close(status);
    };
    if (!keepUser) {
        // A single block needs no zero fill: the turn writes every byte of
        // its rows but the padding, which is cleared below.
        setNoZeroFill(memoryKind(bm->uFlags));
        st = allocateLike(&nb, bm);
        setNoZeroFill(false);
        if (st != KS_SUCCESS) return fail(st);
        nbOwned = true;
        st = dst.open();
        if (st != KS_SUCCESS) return fail(st);
    }
    uint8_t* dbase = keepUser ? nullptr : directPixels(&nb);
    adviseHugePages(dbase, newSize);
    if (dbase) {
        const uint64_t used = (uint64_t(H) * uint64_t(bpp) + 7) / 8;
        if (used < nbpl)
            for (uint32_t r = 0; r < W; ++r) std::memset(dbase + size_t(r) * nbpl + used, 0, size_t(nbpl - used));
    }

    // Where the turned rows go: straight into the destination, into one
    // temporary block, or band by band through the row layer.
    UniqueMem<uint8_t> whole, band, staging;
    uint8_t* target = dbase;
    const uint64_t copyLimit = g_copyLimit.load(std::memory_order_relaxed);
    const bool viaCopy = !dbase && (keepUser || dataSize(bm) <= (copyLimit ? copyLimit : kTurnThroughCopyBytes));
    if (viaCopy) {
        whole.reset(static_cast<uint8_t*>(memCalloc(size_t(newSize))));
        if (!whole) return fail(KS_NO_MEMORY);
        target = whole.get();
    }
    uint32_t bandRows = W;
    if (!target) {
        const uint64_t fit = std::max<uint64_t>(8, (bandBudget() / nbpl) & ~uint64_t(7));
        bandRows = uint32_t(std::min<uint64_t>(fit, W));
        band.reset(static_cast<uint8_t*>(memCalloc(size_t(bandRows) * nbpl)));
        if (!band) return fail(KS_NO_MEMORY);
    }
    if (!sbase) {
        const uint64_t bandBytes = (uint64_t(bandRows) * uint64_t(bpp) + 7) / 8 + 1;
        staging.reset(static_cast<uint8_t*>(memAlloc(size_t(std::min<uint64_t>(bandBytes, sbpl)) * kChunkRows)));
        if (!staging) return fail(KS_NO_MEMORY);
    }

    const TurnKernel kernel = turnKernel(bpp);
    const uint64_t bands = (uint64_t(W) + bandRows - 1) / bandRows;
    const bool writeBack = viaCopy && !keepUser;
    Progress progress = Progress::status(int64_t(bands) * H + (writeBack ? W : 0), from, to);
    int64_t done = 0;
    for (uint32_t c0 = 0; c0 < W; c0 += bandRows) {
        const uint32_t c1 = uint32_t(std::min<uint64_t>(uint64_t(c0) + bandRows, W));
        const uint32_t n = c1 - c0;
        const uint32_t off = uint32_t((uint64_t(c0) * uint64_t(bpp)) >> 3);
        const uint32_t nbytes = uint32_t(((uint64_t(c1) * uint64_t(bpp) + 7) >> 3) - off);
        const uint32_t d0 = revX ? W - c1 : c0;
        uint8_t* out = target ? target + size_t(d0) * nbpl : band.get();
        for (uint32_t y0 = 0; y0 < H;) {
            const uint32_t y1 = chunkEnd(y0, H, revY, sbase ? kDirectChunkRows : kChunkRows);
            const uint8_t* sp;
            size_t sstride;
            if (sbase) {
                sp = sbase + size_t(y0) * sbpl + off;
                sstride = sbpl;
            } else {
                for (uint32_t y = y0; y < y1; ++y) {
                    st = readRow(bm, int32_t(y), off, staging.get() + size_t(y - y0) * nbytes, nbytes);
                    if (st != KS_SUCCESS) return fail(st);
                }
                sp = staging.get();
                sstride = nbytes;
            }
            const uint32_t col0 = revY ? H - y1 : y0;
            if (kernel) kernel(sp, sstride, out + ((uint64_t(col0) * uint64_t(bpp)) >> 3), nbpl, n, y1 - y0, revY, revX);
            // Progress in steps of kChunkRows rows whatever the chunk: the
            // long chunks end on the same boundaries as the short ones.
            for (uint32_t p = y0; p < y1;) {
                const uint32_t q = chunkEnd(p, H, revY, kChunkRows);
                done += q - p;
                st = progress.step(done);
                if (st != KS_SUCCESS) return fail(st);
                p = q;
            }
            y0 = y1;
        }
        if (!target) {
            for (uint32_t r = 0; r < n; ++r) {
                st = writeRow(&nb, int32_t(d0 + r), 0, band.get() + size_t(r) * nbpl, nbpl);
                if (st != KS_SUCCESS) return fail(st);
            }
        }
    }
    if (writeBack) {
        for (uint32_t r = 0; r < W; ++r) {
            st = writeRow(&nb, int32_t(r), 0, whole.get() + size_t(r) * nbpl, nbpl);
            if (st == KS_SUCCESS) st = progress.step(++done);
            if (st != KS_SUCCESS) return fail(st);
        }
    }

    // Commit: nothing below can fail.
    if (keepUser) std::memcpy(const_cast<uint8_t*>(sbase), whole.get(), size_t(newSize));
    dst.close();
    src.close();
    if (!keepUser) {
        freeStorage(bm);
        bm->hMemory = nb.hMemory;
        bm->pData = nb.pData;
        bm->uDataOffset = nb.uDataOffset;
        bm->uFlags = (bm->uFlags & ~(BRF_STORAGE_MASK | BRF_MOVABLE_BLOCK)) |
                     (nb.uFlags & (BRF_STORAGE_MASK | BRF_MOVABLE_BLOCK)) | BRF_ALLOCATED;
    }
    bm->nWidth = int32_t(H);
    bm->nHeight = int32_t(W);
    bm->nBytesPerLine = nbpl;
    setDataSize(bm, newSize);
    if (swapResolution) std::swap(bm->nXResolution, bm->nYResolution);
    region.commit(bm);
    return KS_SUCCESS;
}

}  // namespace orient
}  // namespace krn

using namespace krn;

namespace {
bool bufferStride(uint32_t width, int32_t bpp, uint64_t* stride) noexcept {
    const uint64_t bits = uint64_t(width) * uint64_t(uint32_t(bpp)) + 31;
    if (bits > 0xFFFFFFFFull) return false;
    *stride = (bits >> 3) & ~uint64_t(3);
    return true;
}
}  // namespace

KAPI int32_t K_RotateBitmap90(BITMAPRECORD* pBitmap, int32_t bTurn, int32_t nProgressStart, int32_t nProgressEnd) {
    return guarded([&]() -> int32_t {
        if (!pBitmap) return KS_INVALID_PARAMETER;
        if (!recordSizeValid(pBitmap->uStructSize)) return KS_INVALID_STRUCT_SIZE;
        if (!(pBitmap->uFlags & BRF_ALLOCATED)) return KS_INVALID_PARAMETER;
        if (nProgressStart < 0 || nProgressEnd > 100 || nProgressStart > nProgressEnd) return KS_INVALID_PARAMETER;
        bool cw = bTurn != 0;
        if (orient::vpMirrored(pBitmap->nViewPerspective)) cw = !cw;
        int32_t st = turnQuarterStored(pBitmap, cw, nProgressStart, nProgressEnd);
        return st == KS_INVALID_BITMAP ? KS_INVALID_PARAMETER : st;
    });
}

KAPI int32_t K_RotateBuffer90(const uint8_t* pSrc, uint8_t* pDst, int32_t bTurn, uint32_t uWidth, uint32_t uHeight,
                              int32_t nBitsPerPixel) {
    if (!pSrc || !pDst || !bitsValid(nBitsPerPixel)) return KS_INVALID_PARAMETER;
    uint64_t ss, ds;
    if (!bufferStride(uWidth, nBitsPerPixel, &ss) || !bufferStride(uHeight, nBitsPerPixel, &ds))
        return KS_INVALID_PARAMETER;
    if (!uWidth || !uHeight) return KS_SUCCESS;
    const bool cw = bTurn != 0;
    turnBlock(pSrc, size_t(ss), pDst, size_t(ds), uWidth, uHeight, nBitsPerPixel, cw, !cw);
    const uint64_t used = (uint64_t(uHeight) * uint64_t(nBitsPerPixel) + 7) / 8;
    if (used < ds)
        for (uint32_t r = 0; r < uWidth; ++r) std::memset(pDst + size_t(r) * ds + used, 0, size_t(ds - used));
    return KS_SUCCESS;
}

KAPI int32_t K_RotateBuffer180(const uint8_t* pSrc, uint8_t* pDst, uint32_t uWidth, uint32_t uHeight,
                               int32_t nBitsPerPixel) {
    if (!pSrc || !pDst || !bitsValid(nBitsPerPixel)) return KS_INVALID_PARAMETER;
    uint64_t ss;
    if (!bufferStride(uWidth, nBitsPerPixel, &ss)) return KS_INVALID_PARAMETER;
    if (!uWidth || !uHeight) return KS_SUCCESS;
    const uint64_t total = ss * uHeight;
    if (total > SIZE_MAX) return KS_INVALID_PARAMETER;
    const uintptr_t a = reinterpret_cast<uintptr_t>(pSrc), b = reinterpret_cast<uintptr_t>(pDst);
    if (a != b && a < b + total && b < a + total) return KS_INVALID_PARAMETER;
    const size_t stride = size_t(ss);
    if (a == b) {
        for (uint64_t i = 0, j = uHeight - 1; i <= j; ++i, --j) {
            uint8_t* ri = pDst + size_t(i) * stride;
            uint8_t* rj = pDst + size_t(j) * stride;
            if (i != j) {
                swapRows(ri, rj, stride);
                mirrorRow(rj, uWidth, nBitsPerPixel);
            }
            mirrorRow(ri, uWidth, nBitsPerPixel);
            if (j == 0) break;
        }
        return KS_SUCCESS;
    }
    for (uint32_t y = 0; y < uHeight; ++y) {
        uint8_t* d = pDst + size_t(uHeight - 1 - y) * stride;
        std::memcpy(d, pSrc + size_t(y) * stride, stride);
        mirrorRow(d, uWidth, nBitsPerPixel);
    }
    return KS_SUCCESS;
}
