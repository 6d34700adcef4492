// alloc.cpp - bitmap storage: allocation, access and release.
//
// This first version keeps pixels in one movable global block (memory type
// 1) or in caller memory (memory type 2). Other storage kinds are refused
// with KS_NOT_SUPPORTED until their stores exist.
#include <cstring>

#include "hooks.h"
#include "kernel.h"
#include "memory.h"
#include "../windowsemul/globalmem.h"

namespace krn {

int32_t allocateBitmap(BITMAPRECORD* bm, uint32_t memType, void* /*extra*/) noexcept {
    int32_t rc = checkRecord(bm);
    if (rc != KS_SUCCESS) return rc;
    uint64_t size = dataSize(bm);
    if (size == 0) return KS_INVALID_DIMENSIONS;
    if (memType & MEMTYPE_USER) memType &= ~(MEMTYPE_NO_TILES | MEMTYPE_NO_DISK);
    bm->uFlags &= ~BRF_STORAGE_MASK;
    if (memType == MEMTYPE_USER) {
        bm->hMemory = nullptr;
        bm->pData = nullptr;
        bm->uFlags |= BRF_ALLOCATED | BRF_CONVENTIONAL | BRF_USER_MEMORY;
        return KS_SUCCESS;
    }
    if (memType != MEMTYPE_CONVENTIONAL) return KS_NOT_SUPPORTED;
    if (size > SIZE_MAX) return KS_NO_MEMORY;
    HGLOBAL h = globalAlloc(GMEM_MOVEABLE, size_t(size));
    if (!h) return KS_NO_MEMORY;
    bm->hMemory = h;
    bm->pData = nullptr;
    bm->uDataOffset = 0;
    bm->uFlags |= BRF_ALLOCATED | BRF_CONVENTIONAL | BRF_MOVABLE_BLOCK;
    return KS_SUCCESS;
}

void freeStorage(BITMAPRECORD* bm) noexcept {
    if (!(bm->uFlags & BRF_USER_MEMORY) && bm->hMemory) {
        if (bm->uFlags & BRF_LOCKED) globalUnlock(bm->hMemory);
        globalFree(bm->hMemory);
    }
    bm->hMemory = nullptr;
    bm->pData = nullptr;
    bm->uFlags &= ~(BRF_STORAGE_MASK & ~BRF_ALLOCATED);
    bm->uFlags &= ~BRF_MOVABLE_BLOCK;
}

int32_t changeStorageHeight(BITMAPRECORD* bm, int32_t newHeight) noexcept {
    uint64_t size = uint64_t(bm->nBytesPerLine) * uint64_t(uint32_t(newHeight)) + bm->uDataOffset;
    if (size > SIZE_MAX) return KS_NO_MEMORY;
    HGLOBAL h = globalReAlloc(bm->hMemory, size_t(size ? size : 1), GMEM_MOVEABLE);
    if (!h) return KS_NO_MEMORY;
    bm->hMemory = h;
    return KS_SUCCESS;
}

}  // namespace krn

using namespace krn;

KAPI int32_t K_AllocateBitmap(BITMAPRECORD* pBitmap, uint32_t uMemoryType) {
    return allocateBitmap(pBitmap, uMemoryType, nullptr);
}

KAPI int32_t K_AccessBitmap(BITMAPRECORD* pBitmap) {
    int32_t rc = checkAllocated(pBitmap);
    if (rc != KS_SUCCESS) return rc;
    BITMAPRECORD* bm = pBitmap;
    if (isCurrentLayout(bm) && ++bm->nLockCount > 1) return KS_SUCCESS;
    if ((bm->uFlags & BRF_LOCKED) || !(bm->uFlags & BRF_MOVABLE_BLOCK)) return KS_SUCCESS;
    auto* base = static_cast<uint8_t*>(globalLock(bm->hMemory));
    bm->pData = base ? base + bm->uDataOffset : reinterpret_cast<uint8_t*>(uintptr_t(bm->uDataOffset));
    if (base) bm->uFlags |= BRF_LOCKED;
    return KS_SUCCESS;
}

KAPI int32_t K_ReleaseBitmap(BITMAPRECORD* pBitmap) {
    if (!pBitmap) return KS_NULL_POINTER;
    if (!recordSizeValid(pBitmap->uStructSize)) return KS_INVALID_STRUCT_SIZE;
    BITMAPRECORD* bm = pBitmap;
    if (isCurrentLayout(bm)) {
        if (bm->nLockCount > 0) --bm->nLockCount;
        if (bm->nLockCount > 0) return KS_SUCCESS;
    }
    if (bm->uFlags & BRF_LOCKED) {
        globalUnlock(bm->hMemory);
        bm->pData = nullptr;
        bm->uFlags &= ~BRF_LOCKED;
    }
    return KS_SUCCESS;
}
