// orient_detail.h - helpers shared by flip.cpp and rotate90.cpp (not for
// other families: they use rotate.h).
//
//   PendingRegion   the bitmap's region transformed on a copy before any pixel
//                   moves, swapped in (no allocation) once the pixels are done
//   Access          K_IntAccessBitmap / K_IntReleaseBitmap bracket
//   directPixels    the first stored row when the rows lie in one piece of
//                   memory the kernel may address, else null (row layer)
#pragma once

#include <cstdint>

#include "dis/common/bitmaprgn.h"
#include "dis/common/region.h"
#include "kernel.h"

namespace krn::orient {

struct PendingRegion {
    OrvaRgn* r = nullptr;
    PendingRegion() noexcept = default;
    PendingRegion(const PendingRegion&) = delete;
    PendingRegion& operator=(const PendingRegion&) = delete;
    ~PendingRegion() { rgn::destroy(r); }

    template <class F>
    int32_t prepare(const BITMAPRECORD* bm, F&& fn) noexcept {
        const OrvaRgn* cur = bitmapRegion(bm);
        if (!cur) return KS_SUCCESS;
        int32_t st = rgn::copy(cur, &r);
        if (st != KS_SUCCESS) return st;
        return fn(r);
    }
    void commit(BITMAPRECORD* bm) noexcept {
        if (!r) return;
        if (OrvaRgn* cur = const_cast<OrvaRgn*>(bitmapRegion(bm))) rgn::adopt(cur, r);
        else rgn::destroy(r);
        r = nullptr;
    }
};

struct Access {
    BITMAPRECORD* bm;
    int32_t accessed = 0;
    explicit Access(BITMAPRECORD* b) noexcept : bm(b) {}
    Access(const Access&) = delete;
    Access& operator=(const Access&) = delete;
    int32_t open() noexcept { return K_IntAccessBitmap(bm, &accessed); }
    int32_t close(int32_t status = KS_SUCCESS) noexcept {
        if (!accessed) return status;
        accessed = 0;
        return K_IntReleaseBitmap(bm, 1, status);
    }
    ~Access() { close(); }
};

inline bool memoryKind(uint32_t f) noexcept {
    return !(f & (BRF_COMPRESSED | BRF_TILED | BRF_SUPERCOMPRESSED | BRF_DISK));
}
// Call between open() and close().
inline uint8_t* directPixels(const BITMAPRECORD* bm) noexcept {
    if (!memoryKind(bm->uFlags)) return nullptr;
    if (!(bm->uFlags & (BRF_LOCKED | BRF_USER_MEMORY))) return nullptr;
    return bm->pData;
}

inline bool vpValid(int32_t v) noexcept { return v >= 1 && v <= 8; }
inline bool vpRotated(int32_t v) noexcept { return v >= 5 && v <= 8; }
inline bool vpMirrored(int32_t v) noexcept { return v == 2 || v == 4 || v == 5 || v == 7; }

// New storage of exchanged (or equal) geometry for the reorientation engine.
int32_t reorientStored(BITMAPRECORD* bm, bool revY, bool revX, bool swapResolution, int32_t from,
                       int32_t to) noexcept;

}  // namespace krn::orient
