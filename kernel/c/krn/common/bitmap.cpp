// bitmap.cpp - the bitmap record: initialise, create, free, attach caller
// memory, change height, data callbacks, per-thread resolution defaults.
//
// K_CreateBitmap builds the new record off to the side and copies it into the
// caller's record only when everything succeeded, so a failed call leaves the
// caller's record byte for byte as it was.
#include <cstring>

#include "hooks.h"
#include "kernel.h"
#include "memory.h"
#include "settings.h"
#include "../windowsemul/globalmem.h"

namespace krn {
namespace {

int32_t defaultResolution(int32_t v) { return v > 0 ? v : 150; }

// Copies the caller's callback table into a block the record owns.
int32_t installCallbacks(BITMAPRECORD* bm, const BITMAPDATACALLBACKS* cb) noexcept {
    if (!cb) {
        if (isCurrentLayout(bm)) {
            memFree(bm->pCallbacks);
            bm->pCallbacks = nullptr;
        }
        return KS_SUCCESS;
    }
    if (cb->uStructSize != BITMAPDATACALLBACKS_SIZE) return KS_INVALID_STRUCT_SIZE;
    // The older record layout has no place for callbacks.
    if (!isCurrentLayout(bm)) return KS_INVALID_STRUCT_SIZE;
    auto* copy = static_cast<BITMAPDATACALLBACKS*>(memAlloc(sizeof(BITMAPDATACALLBACKS)));
    if (!copy) return KS_NO_MEMORY;
    *copy = *cb;
    memFree(bm->pCallbacks);
    bm->pCallbacks = copy;
    return KS_SUCCESS;
}

void commitRecord(BITMAPRECORD* dst, const BITMAPRECORD& src) {
    std::memcpy(dst, &src, recordBytes(src.uStructSize));
}

}  // namespace

int32_t initRecord(BITMAPRECORD* bm, uint32_t structSize, int32_t width, int32_t height, int32_t bpp,
                   const BITMAPDATACALLBACKS* cb) noexcept {
    if (!bm) return KS_INVALID_PARAMETER;
    if (!recordSizeValid(structSize)) return KS_INVALID_STRUCT_SIZE;
    std::memset(bm, 0, recordBytes(structSize));
    bm->uStructSize = structSize;
    if (width == 0 && height == 0 && bpp == 0) return KS_SUCCESS;
    if (width < 0 || height < 0) return KS_INVALID_DIMENSIONS;
    if (!bitsValid(bpp)) return KS_INVALID_BITS_PER_PIXEL;
    uint32_t bpl;
    if (!bytesPerLine(width, bpp, &bpl)) return KS_INVALID_DIMENSIONS;
    uint64_t size = uint64_t(bpl) * uint64_t(uint32_t(height));
    if (!isCurrentLayout(bm) && size > 0xFFFF0000ull) {
        std::memset(bm, 0, recordBytes(structSize));
        bm->uStructSize = structSize;
        bm->uSize = 0xFFFF0000u;
        return KS_MEMORY_TOO_LOW;
    }
    bm->nWidth = width;
    bm->nHeight = height;
    bm->nBitsPerPixel = bpp;
    bm->nBytesPerLine = bpl;
    setDataSize(bm, size);
    ThreadSettings& ts = settings();
    bm->nDitheringMethod = ts.nDitheringMethod;
    bm->nViewPerspective = BOTTOM_LEFT;
    if (bpp <= 8) {
        bm->nColors = 1 << bpp;
        bm->nOrder = ORDER_RGB;
    } else {
        bm->nOrder = bpp == 12 ? ORDER_GRAY : ORDER_BGR;
    }
    bm->nXResolution = defaultResolution(ts.nXResolution);
    bm->nYResolution = defaultResolution(ts.nYResolution);
    int32_t high = (bpp == 16 || bpp == 48 || bpp == 64) ? 15 : (bpp == 24 || bpp == 32) ? 7 : bpp - 1;
    if (bpp == 32) high = -1;
    bm->nLowBit = bm->nMinBit = 0;
    bm->nHighBit = bm->nMaxBit = high;
    bm->nLevel = 100;
    if (isCurrentLayout(bm)) bm->nLockCount = 0;
    return installCallbacks(bm, cb);
}

int32_t createBitmap(BITMAPRECORD* out, uint32_t structSize, uint32_t memType, int32_t width, int32_t height,
                     int32_t bpp, int32_t order, const RGBQUAD* palette, int32_t viewPerspective, void* data,
                     uint64_t dataSize, const BITMAPDATACALLBACKS* cb) noexcept {
    if (!out) return KS_INVALID_PARAMETER;
    if (!recordSizeValid(structSize)) return KS_INVALID_STRUCT_SIZE;

    // Values in this order: the record's dimensions and depth, then the
    // colour order, then the view perspective.
    BITMAPRECORD bm;
    const bool bppWasZero = bpp == 0;
    int32_t rc = initRecord(&bm, structSize, width, height, bppWasZero ? 8 : bpp, nullptr);
    if (rc != KS_SUCCESS) return rc;
    bpp = bm.nBitsPerPixel;
    if (order != ORDER_RGB && order != ORDER_BGR && order != ORDER_GRAY && order != ORDER_ROMM &&
        order != ORDER_RGB565)
        return KS_INVALID_PARAMETER;
    if (order == ORDER_ROMM && bpp != 24 && bpp != 48) return KS_INVALID_BITS_PER_PIXEL;
    if (order == ORDER_RGB565 && bpp != 16) return KS_INVALID_BITS_PER_PIXEL;
    const bool grayPalette = bppWasZero || (bpp <= 8 && order == ORDER_GRAY && !palette);
    if (viewPerspective < 0 || viewPerspective > 8) return KS_INVALID_PARAMETER;
    bm.nOrder = bpp <= 8 ? ORDER_RGB : order;
    bm.nViewPerspective = viewPerspective == 0 ? TOP_LEFT : viewPerspective;

    rc = installCallbacks(&bm, cb);
    if (rc != KS_SUCCESS) return rc;
    auto dropCallbacks = [&] {
        if (isCurrentLayout(&bm)) memFree(bm.pCallbacks);
    };

    rc = allocateBitmap(&bm, memType, const_cast<RGBQUAD*>(palette));
    if (rc != KS_SUCCESS) {
        dropCallbacks();
        return rc;
    }
    // From here on a failure frees the side record the way K_FreeBitmap does,
    // so that storage an allocate callback supplied goes back through the
    // free callback.
    if (bpp <= 8) {
        const uint32_t n = uint32_t(bm.nColors);
        auto* pal = static_cast<RGBQUAD*>(globalAlloc(GMEM_FIXED, n * sizeof(RGBQUAD)));
        if (!pal) {
            K_FreeBitmap(&bm);
            return KS_NO_MEMORY;
        }
        if (grayPalette)
            fillGrayRamp(pal, n);
        else if (palette)
            std::memcpy(pal, palette, n * sizeof(RGBQUAD));
        else
            std::memcpy(pal, fixedPalette(bpp), n * sizeof(RGBQUAD));
        bm.pPalette = pal;
    }
    if ((memType & MEMTYPE_USER) && data) {
        rc = K_SetBitmapDataPointer(&bm, data, dataSize);
        if (rc != KS_SUCCESS) {
            K_FreeBitmap(&bm);
            return rc;
        }
    }
    commitRecord(out, bm);
    return KS_SUCCESS;
}

}  // namespace krn

using namespace krn;

KAPI int32_t K_InitBitmapWithCallbacks(BITMAPRECORD* pBitmap, uint32_t uStructSize, int32_t nWidth,
                                       int32_t nHeight, int32_t nBitsPerPixel,
                                       const BITMAPDATACALLBACKS* pCallbacks) {
    return initRecord(pBitmap, uStructSize, nWidth, nHeight, nBitsPerPixel, pCallbacks);
}

KAPI int32_t K_InitBitmap(BITMAPRECORD* pBitmap, uint32_t uStructSize, int32_t nWidth, int32_t nHeight,
                          int32_t nBitsPerPixel) {
    return initRecord(pBitmap, uStructSize, nWidth, nHeight, nBitsPerPixel, nullptr);
}

KAPI int32_t K_CreateBitmapWithCallbacks(BITMAPRECORD* pBitmap, uint32_t uStructSize, uint32_t uMemoryType,
                                         int32_t nWidth, int32_t nHeight, int32_t nBitsPerPixel,
                                         int32_t nOrder, const RGBQUAD* pPalette, int32_t nViewPerspective,
                                         void* pData, uint64_t uDataSize,
                                         const BITMAPDATACALLBACKS* pCallbacks) {
    return createBitmap(pBitmap, uStructSize, uMemoryType, nWidth, nHeight, nBitsPerPixel, nOrder, pPalette,
                        nViewPerspective, pData, uDataSize, pCallbacks);
}

KAPI int32_t K_CreateBitmap(BITMAPRECORD* pBitmap, uint32_t uStructSize, uint32_t uMemoryType, int32_t nWidth,
                            int32_t nHeight, int32_t nBitsPerPixel, int32_t nOrder, const RGBQUAD* pPalette,
                            int32_t nViewPerspective, void* pData, uint64_t uDataSize) {
    return createBitmap(pBitmap, uStructSize, uMemoryType, nWidth, nHeight, nBitsPerPixel, nOrder, pPalette,
                        nViewPerspective, pData, uDataSize, nullptr);
}

KAPI int32_t K_FreeBitmap(BITMAPRECORD* pBitmap) {
    if (!pBitmap || !recordSizeValid(pBitmap->uStructSize)) return KS_SUCCESS;
    BITMAPRECORD* bm = pBitmap;
    releaseBitmapRegion(bm);
    releasePaintTables(bm);
    if (bm->pPalette) {
        globalFree(bm->pPalette);
        bm->pPalette = nullptr;
    }
    bm->pOverlays = nullptr;  // overlays are owned by the display family, none exist yet
    if (bm->uFlags & BRF_ALLOCATED) {
        bool callbackOwnsStorage = false;
        if (isCurrentLayout(bm) && bm->pCallbacks && bm->pCallbacks->pfnFree) {
            int32_t answer = guarded([&] { return bm->pCallbacks->pfnFree(bm, bm->pCallbacks->pUserData); });
            if (answer == 2) {
                bm->uFlags &= ~0xC506u;
                callbackOwnsStorage = true;
            }
        }
        if (!callbackOwnsStorage) freeStorage(bm);
        bm->uFlags &= ~BRF_ALLOCATED;
        // Outstanding accesses end with the storage: a reused record must
        // lock its next storage on its first access.
        if (isCurrentLayout(bm)) bm->nLockCount = 0;
        if (bm->pLUT) {
            globalFree(bm->pLUT);
            bm->pLUT = nullptr;
            bm->nLUTLength = 0;
        }
        if (bm->pExtraData) {
            globalFree(bm->pExtraData);
            bm->pExtraData = nullptr;
        }
        bm->uExtraDataSize = 0;
    }
    if (isCurrentLayout(bm)) {
        memFree(bm->pCallbacks);
        bm->pCallbacks = nullptr;
        if (bm->hListBlock) {
            globalFree(bm->hListBlock);
            bm->hListBlock = nullptr;
        }
    }
    releaseDitherState(bm);
    return KS_SUCCESS;
}

KAPI int32_t K_SetBitmapDataPointer(BITMAPRECORD* pBitmap, void* pData, uint64_t uDataSize) {
    if (!pBitmap) return KS_INVALID_BITMAP;
    BITMAPRECORD* bm = pBitmap;
    const bool callerBlock = (bm->uFlags & BRF_ALLOCATED) && (bm->uFlags & BRF_USER_MEMORY) &&
                             !(bm->uFlags & BRF_MOVABLE_BLOCK);
    // The size check comes before the size-word check on purpose (compatibility).
    // A record that already holds caller memory takes any buffer at least as
    // large as its data; anything else must match the data size exactly.
    if (pData) {
        uint64_t need = bm->uStructSize == BITMAPRECORD_SIZE ? bm->uSize64 : bm->uSize;
        if (callerBlock ? uDataSize < need : uDataSize != need) return KS_INVALID_PARAMETER;
    }
    if (!recordSizeValid(bm->uStructSize)) return KS_INVALID_STRUCT_SIZE;
    if (!pData) {
        if (bm->uFlags & BRF_USER_MEMORY) bm->pData = nullptr;
        return KS_SUCCESS;
    }
    if ((bm->uFlags & BRF_ALLOCATED) && !(bm->uFlags & BRF_USER_MEMORY)) {
        // Storage in use may not go away under its user: the lock count of the
        // current layout, the locked bit of either layout.
        if ((bm->uFlags & BRF_LOCKED) || (isCurrentLayout(bm) && bm->nLockCount > 0)) return KS_INVALID_PARAMETER;
        freeStorage(bm);
    }
    bm->uFlags = (bm->uFlags & ~BRF_STORAGE_MASK) | BRF_ALLOCATED | BRF_CONVENTIONAL | BRF_USER_MEMORY;
    bm->hMemory = nullptr;
    bm->uDataOffset = 0;
    bm->pData = static_cast<uint8_t*>(pData);
    return KS_SUCCESS;
}

KAPI int32_t K_ChangeBitmapHeight(BITMAPRECORD* pBitmap, int32_t nHeight) {
    if (!pBitmap) return KS_INVALID_BITMAP;
    BITMAPRECORD* bm = pBitmap;
    // Allocated bit before the size word: the historical order of this call.
    if (!(bm->uFlags & BRF_ALLOCATED)) return KS_INVALID_BITMAP;
    if (!recordSizeValid(bm->uStructSize)) return KS_INVALID_STRUCT_SIZE;
    if ((bm->uFlags & (BRF_USER_MEMORY | BRF_LOCKED)) || (isCurrentLayout(bm) && bm->nLockCount > 0))
        return KS_INVALID_PARAMETER;
    if (nHeight < 0) return KS_INVALID_DIMENSIONS;
    if (nHeight == bm->nHeight) return KS_SUCCESS;
    uint64_t size = uint64_t(bm->nBytesPerLine) * uint64_t(uint32_t(nHeight));
    if (!isCurrentLayout(bm) && size > 0xFFFF0000ull) return KS_MEMORY_TOO_LOW;
    int32_t rc = guarded([&] { return changeStorageHeight(bm, nHeight); });
    if (rc != KS_SUCCESS) return rc;
    bm->nHeight = nHeight;
    setDataSize(bm, size);
    return KS_SUCCESS;
}

KAPI int32_t K_SetBitmapDataCallbacks(BITMAPRECORD* pBitmap, const BITMAPDATACALLBACKS* pCallbacks) {
    int32_t rc = checkRecord(pBitmap);
    if (rc != KS_SUCCESS) return rc;
    return installCallbacks(pBitmap, pCallbacks);
}

KAPI int32_t K_GetBitmapDataCallbacks(const BITMAPRECORD* pBitmap, BITMAPDATACALLBACKS* pCallbacks) {
    int32_t rc = checkRecord(pBitmap);
    if (rc != KS_SUCCESS) return rc;
    if (!pCallbacks) return KS_INVALID_PARAMETER;
    if (pCallbacks->uStructSize != BITMAPDATACALLBACKS_SIZE) return KS_INVALID_STRUCT_SIZE;
    if (isCurrentLayout(pBitmap) && pBitmap->pCallbacks) {
        *pCallbacks = *pBitmap->pCallbacks;
    } else {
        std::memset(pCallbacks, 0, sizeof(*pCallbacks));
        pCallbacks->uStructSize = BITMAPDATACALLBACKS_SIZE;
    }
    return KS_SUCCESS;
}

KAPI int32_t K_SetDefaultXResolution(int32_t nResolution) {
    ThreadSettings& ts = settings();
    int32_t old = ts.nXResolution;
    ts.nXResolution = nResolution;
    return old;
}
KAPI int32_t K_SetDefaultYResolution(int32_t nResolution) {
    ThreadSettings& ts = settings();
    int32_t old = ts.nYResolution;
    ts.nYResolution = nResolution;
    return old;
}
KAPI int32_t K_GetDefaultXResolution(void) { return settings().nXResolution; }
KAPI int32_t K_GetDefaultYResolution(void) { return settings().nYResolution; }
