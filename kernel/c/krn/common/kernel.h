// kernel.h - what every kernel source needs: the export frame (kexport.h, shared
// with the common layer) and the record helpers.
//
//   KAPI                       marks a function as part of the exported API
//   guarded(fn)                runs fn; exceptions become KS_NO_MEMORY / KS_INTERNAL
//   recordSizeValid(id)        216 or 176
//   recordBytes(id)            bytes that layout covers on this build (0 if unknown)
//   isCurrentLayout(bm)        the record has the fields past the older layout
//   checkRecord(bm)            -13 null, -789 bad size, else 1
//   checkAllocated(bm)         -13 null, -789 bad size, -2 not allocated, else 1
//   dataSize(bm)               64-bit data size from the layout's size fields
//   bitsValid(bpp)             one of the depths a record accepts
//   bytesPerLine(w, bpp, &out) the padded row size; false if it does not fit 32 bits
//   pixelsAtData(bm)           an accessed bitmap's pixels are addressable at pData
//   prefetchLines(p, bytes)    asks for every cache line of [p, p + bytes) at once
#pragma once

#include <cstddef>
#include <cstdint>
#include <new>

#include "kexport.h"
#include "ombrix.h"

namespace krn {

constexpr bool recordSizeValid(uint32_t id) noexcept {
    return id == BITMAPRECORD_SIZE || id == BITMAPRECORD_SIZE_OLD;
}
constexpr size_t recordBytes(uint32_t id) noexcept { return OMBRIX_RECORD_BYTES(id); }
inline bool isCurrentLayout(const BITMAPRECORD* bm) noexcept {
    return bm->uStructSize == BITMAPRECORD_SIZE;
}

inline int32_t checkRecord(const BITMAPRECORD* bm) noexcept {
    if (!bm) return KS_INVALID_PARAMETER;
    if (!recordSizeValid(bm->uStructSize)) return KS_INVALID_STRUCT_SIZE;
    return KS_SUCCESS;
}
inline int32_t checkAllocated(const BITMAPRECORD* bm) noexcept {
    int32_t r = checkRecord(bm);
    if (r != KS_SUCCESS) return r;
    if (!(bm->uFlags & BRF_ALLOCATED)) return KS_INVALID_BITMAP;
    return KS_SUCCESS;
}

inline uint64_t dataSize(const BITMAPRECORD* bm) noexcept {
    if (isCurrentLayout(bm)) return bm->uSize64;
    return bm->uSize;
}
inline void setDataSize(BITMAPRECORD* bm, uint64_t size) noexcept {
    bm->uSize = static_cast<uint32_t>(size);
    if (isCurrentLayout(bm)) bm->uSize64 = size;
}

constexpr bool bitsValid(int32_t bpp) noexcept {
    return (bpp >= 1 && bpp <= 8) || bpp == 12 || bpp == 16 || bpp == 24 || bpp == 32 ||
           bpp == 48 || bpp == 64;
}

// ((width * bpp + 31) >> 3) & ~3, refusing what does not fit 32 bits.
inline bool bytesPerLine(int32_t width, int32_t bpp, uint32_t* out) noexcept {
    uint64_t bits = uint64_t(uint32_t(width)) * uint64_t(uint32_t(bpp)) + 31u;
    if (bits > 0xFFFFFFFFull) return false;
    *out = (uint32_t(bits) >> 3) & ~3u;
    return true;
}

// Pixels reachable at pData once accessed: a locked single block, or caller
// memory that needs no lock; no other storage kind and no get-row callback.
inline bool pixelsAtData(const BITMAPRECORD* bm) noexcept {
    const uint32_t f = bm->uFlags;
    if (f & (BRF_COMPRESSED | BRF_TILED | BRF_SUPERCOMPRESSED | BRF_DISK)) return false;
    if (!bm->pData) return false;
    if (!(f & BRF_LOCKED) && !((f & BRF_USER_MEMORY) && !(f & BRF_MOVABLE_BLOCK))) return false;
    return !(isCurrentLayout(bm) && bm->pCallbacks && bm->pCallbacks->pfnGetRow);
}

// One prefetch per 64 bytes, into the first cache level: for a walk that
// would otherwise meet its misses one after the other (a mirror walking in
// from both ends of a row, a merge whose next load waits on a compare).
inline void prefetchLines(const void* p, size_t bytes) noexcept {
    const char* c = static_cast<const char*>(p);
    for (size_t o = 0; o < bytes; o += 64) __builtin_prefetch(c + o, 0, 3);
}

}  // namespace krn
